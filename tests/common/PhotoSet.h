// The evaluation photos (images/, masks/, boxes/ under SEGCORE_GRABCUT_DIR):
// loading, ARGB conversion and the two scores the project reports.
#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

struct Photo {
  std::string name;
  cv::Mat image;  // 8-bit BGR
  cv::Mat truth;  // 8-bit, 255 = object, 0 = background
  int x1 = 0, y1 = 0, x2 = 0, y2 = 0;  // rectangle, corners inclusive
};

// Folder of the photo set (from the build, or SEGCORE_GRABCUT_DIR in the environment).
std::string photoSetDir();
// True when the folder holds the photo set.
bool photoSetAvailable();
// The photo names in alphabetical order.
std::vector<std::string> photoNames();
// Loads one photo; empty image when missing.
Photo loadPhoto(const std::string& name);

// BGR image to 0xFFRRGGBB words, row-major.
std::vector<unsigned int> toArgb(const cv::Mat& bgr);
// Object mask (non-zero = object) against truth (255 = object).
double intersectionOverUnion(const cv::Mat& mask, const cv::Mat& truth);
// Misclassified pixels over all pixels.
double errorRate(const cv::Mat& mask, const cv::Mat& truth);
