#include "common/PhotoSet.h"

#if SEGCORE_HAVE_IMGCODECS
#include <opencv2/imgcodecs.hpp>
#endif

#include <algorithm>
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
const char kImageExt[] = ".jpg";
const char kMaskExt[] = ".png";
cv::Mat readImage(const std::string& path, bool colour) {
  return cv::imread(path, colour ? cv::IMREAD_COLOR : cv::IMREAD_GRAYSCALE);
}
#else
// Without imgcodecs the photo set is read as binary PNM files (P6 images,
// P5 masks), written beforehand by the host's export_photo_set.
const char kImageExt[] = ".ppm";
const char kMaskExt[] = ".pgm";
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
  if (colour) {
    for (int y = 0; y < h; ++y)  // PNM stores RGB; images here are BGR
      for (int x = 0; x < w; ++x) std::swap(image.at<cv::Vec3b>(y, x)[0], image.at<cv::Vec3b>(y, x)[2]);
  }
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
  std::vector<unsigned int> argb(static_cast<size_t>(bgr.rows) * bgr.cols);
  for (int y = 0; y < bgr.rows; ++y) {
    const cv::Vec3b* row = bgr.ptr<cv::Vec3b>(y);
    for (int x = 0; x < bgr.cols; ++x) {
      argb[static_cast<size_t>(y) * bgr.cols + x] =
          0xFF000000u | (unsigned(row[x][2]) << 16) | (unsigned(row[x][1]) << 8) | row[x][0];
    }
  }
  return argb;
}

double intersectionOverUnion(const cv::Mat& mask, const cv::Mat& truth) {
  const cv::Mat a = mask != 0, b = truth != 0;
  const double inter = cv::countNonZero(a & b), uni = cv::countNonZero(a | b);
  return uni > 0 ? inter / uni : 1.0;
}

double errorRate(const cv::Mat& mask, const cv::Mat& truth) {
  const cv::Mat a = mask != 0, b = truth != 0;
  return static_cast<double>(cv::countNonZero(a != b)) / static_cast<double>(a.total());
}
