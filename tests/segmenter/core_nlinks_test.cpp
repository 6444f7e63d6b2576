// Neighbour weights against exp(-beta |p - q|^2) evaluated directly, with the
// contrast factor recomputed from an explicit enumeration of the pixel pairs.
#include <cmath>
#include <cstdint>
#include <random>
#include <string>

#include "common/LogCapture.h"
#include "core_support.h"

namespace {

using coretest::SegmenterTest;

// Slot k of pixel (x, y) joins it to (x + dx[k], y + dy[k]).
constexpr int kDx[4] = {-1, -1, 0, 1};
constexpr int kDy[4] = {0, -1, -1, -1};
constexpr bool kDiagonal[4] = {false, true, false, true};

struct Reference {
  double beta = 0.0;
  int pairs = 0;
};

int64_t squaredDistance(IplImage* img, int x0, int y0, int x1, int y1) {
  int64_t s = 0;
  for (int c = 0; c < 3; ++c) {
    const int d = coretest::at(img, x0, y0)[c] - coretest::at(img, x1, y1)[c];
    s += d * d;
  }
  return s;
}

// Visits every pixel and all eight neighbours, so each pair is seen twice;
// the sum wraps to 32 bits as the engine keeps it.
Reference reference(IplImage* img) {
  const int w = img->width;
  const int h = img->height;
  int64_t sum2 = 0;
  int64_t pairs2 = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int qx = x + dx, qy = y + dy;
          if ((dx == 0 && dy == 0) || qx < 0 || qy < 0 || qx >= w || qy >= h) continue;
          sum2 += squaredDistance(img, x, y, qx, qy);
          ++pairs2;
        }
  Reference r;
  r.pairs = static_cast<int>(pairs2 / 2);
  const int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(sum2 / 2)));
  r.beta = wrapped > 0 ? r.pairs / (2.0 * wrapped) : 0.0;
  return r;
}

// Every slot of every pixel against the direct formula.
void expectWeights(const ZIRKSEHybrid& hybrid, IplImage* img, double beta, const std::string& what) {
  const int w = img->width;
  const int h = img->height;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < 4; ++k) {
        const float got = hybrid.m_nlinks[(y * w + x) * 4 + k];
        const int qx = x + kDx[k], qy = y + kDy[k];
        if (qx < 0 || qy < 0 || qx >= w) {
          ASSERT_EQ(got, 0.0f) << what << " border slot " << k << " of (" << x << "," << y << ")";
          continue;
        }
        double expected = std::exp(-beta * static_cast<double>(squaredDistance(img, x, y, qx, qy)));
        if (kDiagonal[k]) expected *= 0.7071067932881648;
        ASSERT_NEAR(got, expected, 1e-6 + 2e-5 * expected)
            << what << " slot " << k << " of (" << x << "," << y << ")";
      }
}

class CoreNlinks : public SegmenterTest {};

TEST_F(CoreNlinks, WeightsFollowTheContrastFormulaOnRandomImages) {
  std::mt19937 rng(20240611);
  struct Case {
    int w, h, lo, hi;
  } cases[] = {{2, 1, 0, 255}, {2, 2, 0, 255},  {3, 5, 0, 255},   {17, 11, 0, 255},
               {64, 48, 0, 255}, {40, 30, 100, 110}, {31, 2, 0, 1}, {5, 40, 0, 255}};
  for (const Case& c : cases) {
    const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h);
    setWorkingImage(coretest::randomImage(c.w, c.h, 3, rng, c.lo, c.hi));
    hybrid->computeNlinks();
    const Reference ref = reference(ZIRKSEMarker::m_srcImage);
    EXPECT_EQ(ref.pairs, 4 * c.w * c.h - 3 * c.h - 3 * c.w + 2) << what;
    ASSERT_NE(hybrid->m_nlinks, nullptr);
    EXPECT_NEAR(hybrid->m_beta, ref.beta, 1e-12 * ref.beta) << what;
    expectWeights(*hybrid, ZIRKSEMarker::m_srcImage, ref.beta, what);
  }
}

TEST_F(CoreNlinks, UniformImageWeighsEveryEdgeOne) {
  setWorkingImage(coretest::filledImage(9, 7, 3, 77));
  hybrid->computeNlinks();
  EXPECT_EQ(hybrid->m_beta, 0.0);
  expectWeights(*hybrid, ZIRKSEMarker::m_srcImage, 0.0, "uniform");
  EXPECT_EQ(hybrid->m_nlinks[(9 + 1) * 4 + 1], static_cast<float>(0.7071067932881648));
  EXPECT_EQ(hybrid->m_nlinks[(9 + 1) * 4 + 2], 1.0f);
}

TEST_F(CoreNlinks, ContrastSumWrapsAtThirtyTwoBits) {
  // 0/255 checkerboards: every straight pair differs by 3 * 255^2. The sum of
  // 100 x 100 lies between 2^31 and 2^32 (negative once wrapped: beta 0); that
  // of 150 x 150 passes 2^32 and wraps to a small positive value.
  for (int n : {100, 150}) {
    IplImage* img = coretest::filledImage(n, n, 3, 0);
    for (int y = 0; y < n; ++y)
      for (int x = (y & 1); x < n; x += 2)
        for (int c = 0; c < 3; ++c) coretest::at(img, x, y)[c] = 255;
    setWorkingImage(img);
    hybrid->computeNlinks();
    const Reference ref = reference(img);
    if (n == 100) {
      EXPECT_EQ(ref.beta, 0.0);
    } else {
      EXPECT_GT(ref.beta, 1e-4);  // far above the unwrapped 5e-6
    }
    EXPECT_NEAR(hybrid->m_beta, ref.beta, 1e-12 * ref.beta) << n;
    expectWeights(*hybrid, img, ref.beta, "checkerboard " + std::to_string(n));
  }
}

TEST_F(CoreNlinks, TooSmallImagesAreRefusedWithZeroWeights) {
  struct Size {
    int w, h;
  } sizes[] = {{1, 1}, {1, 6}};
  for (const Size& s : sizes) {
    LogCapture log;
    setWorkingImage(coretest::filledImage(s.w, s.h, 3, 9));
    hybrid->m_beta = 3.0;
    hybrid->computeNlinks();
    EXPECT_EQ(log.countPrefix("Error", "computeNlinks"), 1) << log.dump();
    EXPECT_EQ(hybrid->m_beta, 0.0);
    ASSERT_NE(hybrid->m_nlinks, nullptr);
    for (int i = 0; i < s.w * s.h * 4; ++i) EXPECT_EQ(hybrid->m_nlinks[i], 0.0f) << i;
  }
  // No image at all: still a readable (zeroed) array, and no crash.
  LogCapture log;
  hybrid->m_width = hybrid->m_height = 0;
  hybrid->computeNlinks();
  EXPECT_EQ(log.countPrefix("Error", "computeNlinks"), 1) << log.dump();
  ASSERT_NE(hybrid->m_nlinks, nullptr);
  EXPECT_EQ(hybrid->m_nlinks[0], 0.0f);
}

TEST_F(CoreNlinks, RecomputingReplacesTheWeights) {
  std::mt19937 rng(7);
  setWorkingImage(coretest::randomImage(12, 9, 3, rng));
  hybrid->computeNlinks();
  setWorkingImage(coretest::filledImage(6, 4, 3, 200));
  hybrid->computeNlinks();  // the first array is freed (a leak shows under the sanitizer)
  EXPECT_EQ(hybrid->m_beta, 0.0);
  expectWeights(*hybrid, ZIRKSEMarker::m_srcImage, 0.0, "second image");
}

}  // namespace
