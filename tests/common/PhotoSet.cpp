#include "common/PhotoSet.h"

#if SEGCORE_HAVE_IMGCODECS
#include <opencv2/imgcodecs.hpp>
#endif

#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <utility>

#ifndef SEGCORE_GRABCUT_DIR
#define SEGCORE_GRABCUT_DIR "../shared/data/grabcut"
#endif

std::string photoSetDir() {
  const char* env = std::getenv("SEGCORE_GRABCUT_DIR");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string(SEGCORE_GRABCUT_DIR);
}

namespace {

#if SEGCORE_HAVE_IMGCODECS
const char kImageExt[] = ".jpg", kMaskExt[] = ".png";
cv::Mat readImage(const std::string& path, bool colour) {
  return cv::imread(path, colour ? cv::IMREAD_COLOR : cv::IMREAD_GRAYSCALE);
}
#else
// Without imgcodecs the photo set is read as binary PNM files (P6 images,
// P5 masks), written beforehand by the host's export_photo_set.
const char kImageExt[] = ".ppm", kMaskExt[] = ".pgm";
cv::Mat readImage(const std::string& path, bool colour) {
  std::ifstream in(path, std::ios::binary);
  std::string magic;
  int w = 0, h = 0, maxval = 0;
  in >> magic >> w >> h >> maxval;
  in.get();
  if (!in || magic != (colour ? "P6" : "P5") || w < 1 || h < 1 || maxval != 255) return cv::Mat();
  cv::Mat image(h, w, colour ? CV_8UC3 : CV_8UC1);
  in.read(reinterpret_cast<char*>(image.data), static_cast<std::streamsize>(image.total() * image.elemSize()));
  if (!in) return cv::Mat();
  for (size_t i = 0; colour && i < image.total(); ++i)  // PNM stores RGB; images here are BGR
    std::swap(image.data[3 * i], image.data[3 * i + 2]);
  return image;
}
#endif

}  // namespace

bool photoSetAvailable() {
  struct stat st;
  return stat((photoSetDir() + "/images/teddy" + kImageExt).c_str(), &st) == 0;
}

std::vector<std::string> photoNames() {
  return {"banana1", "banana2", "book",     "bush",  "cross",  "flower", "fullmoon",
          "grave",   "llama",   "memorial", "sheep", "stone2", "teddy"};
}

Photo loadPhoto(const std::string& name) {
  Photo p;
  p.name = name;
  const std::string dir = photoSetDir();
  p.image = readImage(dir + "/images/" + name + kImageExt, true);
  p.truth = readImage(dir + "/masks/" + name + kMaskExt, false);
  std::ifstream box(dir + "/boxes/" + name + ".txt");
  box >> p.x1 >> p.y1 >> p.x2 >> p.y2;
  if (!p.truth.empty()) p.truth = p.truth > 127;
  return p;
}

std::vector<unsigned int> toArgb(const cv::Mat& bgr) {
  std::vector<unsigned int> argb;
  argb.reserve(bgr.total());
  for (auto it = bgr.begin<cv::Vec3b>(); it != bgr.end<cv::Vec3b>(); ++it)
    argb.push_back(0xFF000000u | (unsigned((*it)[2]) << 16) | (unsigned((*it)[1]) << 8) | (*it)[0]);
  return argb;
}

double intersectionOverUnion(const cv::Mat& mask, const cv::Mat& truth) {
  const cv::Mat a = mask != 0, b = truth != 0;
  const double inter = cv::countNonZero(a & b), uni = cv::countNonZero(a | b);
  return uni > 0 ? inter / uni : 1.0;
}

double errorRate(const cv::Mat& mask, const cv::Mat& truth) {
  return static_cast<double>(cv::countNonZero((mask != 0) != (truth != 0))) / static_cast<double>(mask.total());
}
