// Neighbour weights against exp(-beta |p - q|^2) evaluated directly, with the
// contrast factor recomputed from an explicit enumeration of the pixel pairs.
#include <cmath>
#include <string>

#include "common/LogCapture.h"
#include "support.h"

namespace {

using segtest::at;

// Slot k of pixel (x, y) joins it to (x + kDx[k], y + kDy[k]); odd slots are diagonal.
constexpr int kDx[4] = {-1, -1, 0, 1};
constexpr int kDy[4] = {0, -1, -1, -1};

int64_t squaredDistance(IplImage* img, int x0, int y0, int x1, int y1) {
  int64_t s = 0;
  for (int c = 0; c < 3; ++c) {
    const int d = at(img, x0, y0, c) - at(img, x1, y1, c);
    s += d * d;
  }
  return s;
}

// Visits every pixel and all eight neighbours, so each pair is seen twice;
// the sum wraps to 32 bits as the engine keeps it.
double referenceBeta(IplImage* img) {
  const int w = img->width, h = img->height;
  int64_t sum2 = 0, pairs2 = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int qx = x + dx, qy = y + dy;
          if ((dx == 0 && dy == 0) || qx < 0 || qy < 0 || qx >= w || qy >= h) continue;
          sum2 += squaredDistance(img, x, y, qx, qy);
          ++pairs2;
        }
  const int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(sum2 / 2));
  return wrapped > 0 ? (pairs2 / 2) / (2.0 * wrapped) : 0.0;
}

class CoreNlinks : public segtest::SegmenterTest {};

// Random images (a narrow value range included), a uniform one (beta 0:
// every weight 1, diagonals 1/sqrt 2) and 0/255 checkerboards: at 100 x 100
// the sum lies between 2^31 and 2^32 (negative once wrapped: beta 0), at
// 150 x 150 it passes 2^32 and wraps to a small positive value.
TEST_F(CoreNlinks, WeightsFollowTheContrastFormula) {
  std::mt19937 rng(20240611);
  struct Case {
    int w, h, lo, hi;
    bool checker;
  } cases[] = {{2, 1, 0, 255, false},   {2, 2, 0, 255, false},   {3, 5, 0, 255, false},
               {17, 11, 0, 255, false}, {64, 48, 0, 255, false}, {40, 30, 100, 110, false},
               {31, 2, 0, 1, false},    {5, 40, 0, 255, false},  {9, 7, 77, 77, false},
               {100, 100, 0, 0, true},  {150, 150, 0, 0, true}};
  for (const Case& c : cases) {
    const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h);
    IplImage* img = segtest::randomImage(c.w, c.h, 3, rng, c.lo, c.hi);
    for (int y = 0; y < c.h && c.checker; ++y)
      for (int x = (y & 1); x < c.w; x += 2) segtest::fillRect(img, x, y, x + 1, y + 1, 255);
    setWorkingImage(img);
    hybrid->computeNlinks();
    const double beta = referenceBeta(img);
    if (c.checker) { EXPECT_EQ(beta == 0.0, c.w == 100) << "the case no longer wraps"; }
    EXPECT_NEAR(hybrid->m_beta, beta, 1e-12 * beta) << what;
    ASSERT_NE(hybrid->m_nlinks, nullptr);
    for (int y = 0; y < c.h; ++y)
      for (int x = 0; x < c.w; ++x)
        for (int k = 0; k < 4; ++k) {
          const float got = hybrid->m_nlinks[(y * c.w + x) * 4 + k];
          const int qx = x + kDx[k], qy = y + kDy[k];
          double want = 0.0;  // no neighbour
          if (qx >= 0 && qy >= 0 && qx < c.w)
            want = std::exp(-beta * squaredDistance(img, x, y, qx, qy)) *
                   (k % 2 ? 1 / std::sqrt(2.0) : 1.0);
          ASSERT_NEAR(got, want, 1e-6 + 2e-5 * want) << what << " slot " << k << " at " << x << "," << y;
        }
  }
}

TEST_F(CoreNlinks, SinglePixelIsRefusedWithZeroWeights) {
  LogCapture log;
  setWorkingImage(segtest::filledImage(1, 1, 3, 9));
  hybrid->m_beta = 3.0;
  hybrid->computeNlinks();
  EXPECT_EQ(log.countPrefix("Error", "computeNlinks"), 1) << log.dump();
  EXPECT_EQ(hybrid->m_beta, 0.0);
  ASSERT_NE(hybrid->m_nlinks, nullptr);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(hybrid->m_nlinks[k], 0.0f) << k;
}

}  // namespace
