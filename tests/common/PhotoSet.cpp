#include "common/PhotoSet.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>

#ifndef SEGCORE_GRABCUT_DIR
#define SEGCORE_GRABCUT_DIR "../shared/data/grabcut"
#endif

std::string photoSetDir() {
  const char* env = std::getenv("SEGCORE_GRABCUT_DIR");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string(SEGCORE_GRABCUT_DIR);
}

bool photoSetAvailable() {
  struct stat st;
  return stat((photoSetDir() + "/images/teddy.jpg").c_str(), &st) == 0;
}

std::vector<std::string> photoNames() {
  return {"banana1", "banana2", "book",     "bush",  "cross",  "flower", "fullmoon",
          "grave",   "llama",   "memorial", "sheep", "stone2", "teddy"};
}

Photo loadPhoto(const std::string& name) {
  Photo p;
  p.name = name;
  const std::string dir = photoSetDir();
  p.image = cv::imread(dir + "/images/" + name + ".jpg", cv::IMREAD_COLOR);
  p.truth = cv::imread(dir + "/masks/" + name + ".png", cv::IMREAD_GRAYSCALE);
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
