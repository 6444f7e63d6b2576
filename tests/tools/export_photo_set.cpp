// Writes the photo set as binary PNM files for test builds that cannot decode
// JPEG or PNG (a cross build without imgcodecs):
//   export_photo_set OUT_DIR  ->  OUT_DIR/images/NAME.ppm, masks/NAME.pgm, boxes/NAME.txt
#include <opencv2/imgcodecs.hpp>

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "common/PhotoSet.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
    return 2;
  }
  if (!photoSetAvailable()) {
    std::fprintf(stderr, "photo set not found at %s\n", photoSetDir().c_str());
    return 1;
  }
  const std::string out = argv[1];
  for (const char* sub : {"", "/images", "/masks", "/boxes"}) mkdir((out + sub).c_str(), 0755);
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    if (p.image.empty() || p.truth.empty()) return 1;
    cv::imwrite(out + "/images/" + name + ".ppm", p.image);
    cv::imwrite(out + "/masks/" + name + ".pgm", p.truth);
    std::ofstream(out + "/boxes/" + name + ".txt") << p.x1 << ' ' << p.y1 << ' ' << p.x2 << ' ' << p.y2 << '\n';
  }
  std::printf("wrote %zu photos to %s\n", photoNames().size(), out.c_str());
  return 0;
}
