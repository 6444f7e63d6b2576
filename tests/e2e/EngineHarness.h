// Helpers of the end-to-end tests, which drive the engine through the
// caller's header.
#pragma once

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "engine/SegmentationCore.h"

namespace e2e {

class EngineTest : public ::testing::Test {
 protected:
  void TearDown() override { deinitSegmentation(); }
};

inline std::vector<unsigned int> randomArgb(int width, int height, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<unsigned int> argb(static_cast<size_t>(width) * height);
  for (unsigned int& w : argb) w = static_cast<unsigned int>(rng());
  return argb;
}

inline std::vector<unsigned int> opaque(std::vector<unsigned int> argb) {
  for (unsigned int& w : argb) w |= 0xFF000000u;
  return argb;
}

// Under emulation a heavy photo can spend the 10 s budget and hand back no
// mask (the buffer keeps its fill); native builds never take this way out.
inline bool budgetSpentUnderEmulation(const std::vector<unsigned char>& mask, unsigned char fill,
                                      const std::string& name) {
  if (!SEGCORE_EMULATED || std::count(mask.begin(), mask.end(), fill) != static_cast<long>(mask.size()))
    return false;
  std::printf("%s: budget spent under emulation, left out\n", name.c_str());
  return true;
}

// The caller's mask (0 = object) as a 0/255 object image.
inline cv::Mat objectOf(const std::vector<unsigned char>& mask, int width, int height) {
  return cv::Mat(height, width, CV_8U, const_cast<unsigned char*>(mask.data())) == 0;
}

// The preview is the source except opaque yellow outline pixels within 2
// pixels of the object's edge (beyond the border is background); an object
// with an edge gets at least one.
inline ::testing::AssertionResult previewOutlinesObject(const std::vector<unsigned int>& preview,
                                                        const std::vector<unsigned int>& source,
                                                        const cv::Mat& object) {
  cv::Mat grown, shrunk, nearEdge;
  const cv::Mat cross = cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3));
  cv::dilate(object, grown, cross, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::erode(object, shrunk, cross, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::dilate(grown != shrunk, nearEdge, cv::Mat::ones(5, 5, CV_8U));
  int painted = 0;
  for (size_t i = 0; i < preview.size(); ++i) {
    if (preview[i] == source[i]) continue;
    const int x = static_cast<int>(i % object.cols), y = static_cast<int>(i / object.cols);
    if (preview[i] != 0xFFFFFF00u || nearEdge.at<uint8_t>(y, x) == 0)
      return ::testing::AssertionFailure() << "pixel (" << x << ", " << y << ") changed to " << std::hex
                                           << preview[i] << " away from the edge or not yellow";
    ++painted;
  }
  if (cv::countNonZero(grown != shrunk) > 0 && painted == 0)
    return ::testing::AssertionFailure() << "no outline painted";
  return ::testing::AssertionSuccess();
}

}  // namespace e2e
