// The drawn path of a loop edit against the plain drawing (every line of
// the closed path with cvLine) on random paths: dense walks where many
// points share a working pixel, scattered points, short and degenerate ones.
#include <gtest/gtest.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <random>
#include <vector>

#include "engine/ZIRKSEMarker.h"

namespace {

TEST(DrawnPath, SameLabelsAsDrawingEveryLine) {
  std::mt19937 rng(3);
  const auto below = [&](int n) { return static_cast<int>(rng() % n); };
  // The last four paths are long: zigzags over the same three pixels, and
  // scattered points that clear the whole image long before their end.
  for (int trial = 0; trial < 64; ++trial) {
    const int w = 40 + below(40), h = 30 + below(40);
    const float factor = trial % 3 == 0 ? 1.0f : 1.0f + static_cast<float>(below(1000)) / 100.0f;
    const int fullW = static_cast<int>(w * factor), fullH = static_cast<int>(h * factor);
    const bool zigzag = trial >= 60 && trial % 2 == 0;
    const int n = trial >= 60 ? 5000 : trial % 10 == 0 ? below(3) : 1 + below(300);
    std::vector<int32_t> points;
    int x = below(fullW), y = below(fullH);
    for (int i = 0; i < n; ++i) {
      const bool walk = trial % 2 == 0 && trial < 60;
      x = walk ? std::min(std::max(x + below(5) - 2, 0), fullW - 1) : below(fullW);
      y = walk ? std::min(std::max(y + below(5) - 2, 0), fullH - 1) : below(fullH);
      if (zigzag) {
        x = (i % 3) * (fullW - 1) / 2;
        y = (i % 2) * (fullH - 1);
      }
      points.push_back(x);
      points.push_back(y);
    }
    if (trial % 7 == 0) points.push_back(5);  // an odd last int is ignored
    if (trial == 1) points = {3, 4, 5};         // one point and an odd int: nothing
    IplImage* fast = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    cvSet(fast, cvScalar(4));
    IplImage* plain = cvCloneImage(fast);
    ZIRK_clearDrawnPath(fast, points, factor);
    const size_t count = points.size() / 2;
    const auto at = [&](size_t i) {
      return cvPoint(static_cast<int>(static_cast<float>(points[2 * i]) / factor),
                     static_cast<int>(static_cast<float>(points[2 * i + 1]) / factor));
    };
    if (points.size() >= 3) {
      for (size_t i = 0; i + 1 < count; ++i) cvLine(plain, at(i), at(i + 1), cvScalar(0), 3, 8, 0);
      if (count >= 2) cvLine(plain, at(count - 1), at(0), cvScalar(0), 3, 8, 0);
    }
    const cv::Mat a = cv::cvarrToMat(fast), b = cv::cvarrToMat(plain);
    EXPECT_EQ(cv::countNonZero(a != b), 0) << "trial " << trial;
    cvReleaseImage(&fast);
    cvReleaseImage(&plain);
  }
}

}  // namespace
