// Image analysis: grey test, texture maps, the border and contrast tests of a
// trial result, and the box tightening.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

#include "pipeline_support.h"
#include "segmenter/ZIRKSEHybrid.h"

using pipeline_test::at;
using pipeline_test::fillRect;
using pipeline_test::makeImage;

namespace {

class PipelineAnalysis : public ::testing::Test {
 protected:
  void TearDown() override { pipeline_test::resetEngineState(); }
  ZIRKSEHybrid hybrid;
};

TEST_F(PipelineAnalysis, GreyTestFollowsTheMeanChannelSpread) {
  // Three equal channels: grey.
  IplImage* img = makeImage(8, 6, 3, 77);
  EXPECT_TRUE(hybrid.greyScaleTest(img));
  cvReleaseImage(&img);

  // One pixel off by 3 in a 2x2 image: mean 0.75, still grey.
  img = makeImage(2, 2, 3, 100);
  at(img, 1, 0, 2) = 103;
  EXPECT_TRUE(hybrid.greyScaleTest(img));
  // Off by 4: mean 1.0, colour.
  at(img, 1, 0, 2) = 104;
  EXPECT_FALSE(hybrid.greyScaleTest(img));
  cvReleaseImage(&img);

  // Random images against the formula, away from the threshold.
  std::mt19937 rng(7);
  for (int trial = 0; trial < 40; ++trial) {
    const int w = 1 + static_cast<int>(rng() % 20), h = 1 + static_cast<int>(rng() % 20);
    const int spread = static_cast<int>(rng() % 4);
    img = makeImage(w, h, 3, 0);
    double sum = 0.0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int b = 100 + static_cast<int>(rng() % 50);
        const int g = b + static_cast<int>(rng() % (spread + 1));
        const int r = b - static_cast<int>(rng() % (spread + 1));
        at(img, x, y, 0) = static_cast<uint8_t>(b);
        at(img, x, y, 1) = static_cast<uint8_t>(g);
        at(img, x, y, 2) = static_cast<uint8_t>(r);
        sum += std::abs(b - g) + std::abs(b - r);
      }
    const double mean = sum / (w * h);
    if (std::fabs(mean - 1.0) > 1e-3) {
      EXPECT_EQ(hybrid.greyScaleTest(img), mean < 1.0) << mean;
    }
    cvReleaseImage(&img);
  }
}

// Texture maps against their per-pixel definition, on odd shapes included.
TEST_F(PipelineAnalysis, TextureMapsMatchNeighbourDifferences) {
  std::mt19937 rng(11);
  const int sizes[][2] = {{7, 5}, {1, 4}, {5, 1}, {2, 2}, {16, 9}};
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    IplImage* src = makeImage(w, h, 3, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < 3; ++c) at(src, x, y, c) = static_cast<uint8_t>(rng() % 256);
    ZIRKSEMarker::m_srcImage = src;
    hybrid.computeTexture();
    ASSERT_NE(ZIRKSEMarker::m_texHor, nullptr);
    ASSERT_NE(ZIRKSEMarker::m_texVer, nullptr);
    auto s0 = [&](int x, int y) { return static_cast<int>(at(src, x, y, 0)); };
    auto byteAt = [&](int offset, int y) {
      return static_cast<int>(reinterpret_cast<uint8_t*>(src->imageData)[y * src->widthStep + offset]);
    };
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        int hor = 0, ver = 0;
        if (x + 1 < w) {
          hor = std::abs(s0(x + 1, y) - s0(x, y));
          if (y > 0) ver = std::abs(s0(x, y - 1) - s0(x, y));
          else if (h > 1) ver = std::abs(s0(x, 1) - s0(x, 0));
        } else if (y > 0 && w > 1) {
          hor = std::abs(s0(w - 2, y) - s0(w - 1, y));
          ver = std::abs(byteAt(w - 1, y - 1) - byteAt(w - 1, y));
        }
        EXPECT_EQ(at(ZIRKSEMarker::m_texHor, x, y), hor) << w << "x" << h << " at " << x << "," << y;
        EXPECT_EQ(at(ZIRKSEMarker::m_texVer, x, y), ver) << w << "x" << h << " at " << x << "," << y;
      }
    }
    pipeline_test::resetEngineState();
  }
}

TEST_F(PipelineAnalysis, BoundaryTestMeasuresFarSidesFromTheEdge) {
  IplImage* mask = makeImage(100, 100, 1, 0);
  fillRect(mask, 10, 10, 91, 91, 255);  // columns and rows 10..90
  EXPECT_TRUE(hybrid.boundaryTest(mask, 0.15f));
  cvSetZero(mask);
  fillRect(mask, 20, 10, 91, 91, 255);  // starts at column 20 >= 15
  EXPECT_FALSE(hybrid.boundaryTest(mask, 0.15f));
  // Far side: 100 - 85 = 15 is not below 15; 100 - 86 = 14 is.
  cvSetZero(mask);
  fillRect(mask, 0, 0, 86, 100, 255);
  EXPECT_FALSE(hybrid.boundaryTest(mask, 0.15f));
  cvSetZero(mask);
  fillRect(mask, 0, 0, 87, 100, 255);
  EXPECT_TRUE(hybrid.boundaryTest(mask, 0.15f));
  // Only 255 counts; an empty mask never spans.
  cvSet(mask, cvScalarAll(254), nullptr);
  EXPECT_FALSE(hybrid.boundaryTest(mask, 0.15f));
  cvReleaseImage(&mask);
}

// Contrast across the boundary against contrast inside the object.
TEST_F(PipelineAnalysis, IntensityTestComparesBoundaryAndInsideContrast) {
  IplImage* crop = makeImage(40, 30, 3, 128);
  IplImage* mask = makeImage(40, 30, 1, 0);
  hybrid.m_cropSrcImage = crop;  // released by the object

  // A flat bright block: no contrast inside, strong across: 1.
  fillRect(crop, 5, 5, 20, 20, 230);
  fillRect(mask, 5, 5, 20, 20, 255);
  EXPECT_EQ(hybrid.intensityTest(mask), 1);

  // Vertical black/white stripes inside: stronger inside than across: 2.
  for (int y = 5; y < 20; ++y)
    for (int x = 5; x < 20; ++x)
      for (int c = 0; c < 3; ++c) at(crop, x, y, c) = (x % 2 == 0) ? 0 : 255;
  EXPECT_EQ(hybrid.intensityTest(mask), 2);

  // White pixels only on the image border are never visited: 2.
  cvSetZero(mask);
  fillRect(mask, 0, 0, 40, 1, 255);
  fillRect(mask, 0, 0, 1, 30, 255);
  EXPECT_EQ(hybrid.intensityTest(mask), 2);

  // A mask that does not fit the crop is refused.
  IplImage* other = makeImage(10, 10, 1, 255);
  EXPECT_EQ(hybrid.intensityTest(other), 2);
  cvReleaseImage(&other);
  cvReleaseImage(&mask);
}

class PipelinePreProcess : public PipelineAnalysis {
 protected:
  // Working image w x h of grey `fill`, all labels 4, box = whole image.
  void setUpImage(int w, int h, uint8_t fill) {
    ZIRKSEMarker::m_srcImage = makeImage(w, h, 3, fill);
    ZIRKSEMarker::m_labelImage = makeImage(w, h, 1, 4);
    ZIRKSEMarker::m_width = hybrid.m_width = w;
    ZIRKSEMarker::m_height = hybrid.m_height = h;
    ZIRKSEMarker::m_xMinBBox = 0;
    ZIRKSEMarker::m_yMinBBox = 0;
    hybrid.m_cropWidth = w;
    hybrid.m_cropHeight = h;
  }
};

TEST_F(PipelinePreProcess, FlatCropKeepsTheBoxAndLabels) {
  setUpImage(60, 40, 128);
  hybrid.preProcess();
  EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, 0);
  EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, 0);
  EXPECT_EQ(hybrid.m_cropWidth, 60);
  EXPECT_EQ(hybrid.m_cropHeight, 40);
  EXPECT_EQ(cvCountNonZero(ZIRKSEMarker::m_labelImage), 60 * 40);
  cv::Mat labels = cv::cvarrToMat(ZIRKSEMarker::m_labelImage);
  EXPECT_EQ(cv::countNonZero(labels != 4), 0);
}

// A textured object on flat ground: the box closes in on the object plus at
// most a few lines of smooth ground, and everything it gives up (and its own
// rim) becomes fixed background.
TEST_F(PipelinePreProcess, TightensAroundStructureAndFixesTheStrip) {
  setUpImage(120, 90, 128);
  std::mt19937 rng(3);
  const int ox0 = 40, oy0 = 30, ox1 = 80, oy1 = 60;  // object [ox0, ox1) x [oy0, oy1)
  for (int y = oy0; y < oy1; ++y)
    for (int x = ox0; x < ox1; ++x) {
      const uint8_t v = static_cast<uint8_t>(rng() % 256);
      for (int c = 0; c < 3; ++c) at(ZIRKSEMarker::m_srcImage, x, y, c) = v;
    }
  // The box starts at (5, 5) inside the image.
  ZIRKSEMarker::m_xMinBBox = 5;
  ZIRKSEMarker::m_yMinBBox = 5;
  hybrid.m_cropWidth = 110;
  hybrid.m_cropHeight = 80;
  hybrid.preProcess();

  const int bx0 = ZIRKSEMarker::m_xMinBBox, by0 = ZIRKSEMarker::m_yMinBBox;
  const int bx1 = bx0 + hybrid.m_cropWidth, by1 = by0 + hybrid.m_cropHeight;
  EXPECT_LE(bx0, ox0 - 1);
  EXPECT_LE(by0, oy0 - 1);
  EXPECT_GE(bx1, ox1 + 1);
  EXPECT_GE(by1, oy1 + 1);
  EXPECT_GE(bx0, ox0 - 10);
  EXPECT_GE(by0, oy0 - 10);
  EXPECT_LE(bx1, ox1 + 10);
  EXPECT_LE(by1, oy1 + 10);
  for (int y = 0; y < 90; ++y) {
    for (int x = 0; x < 120; ++x) {
      const bool inOldBox = x >= 5 && x < 115 && y >= 5 && y < 85;
      const bool insideNewRim = x > bx0 && x < bx1 - 1 && y > by0 && y < by1 - 1;
      const int expected = inOldBox && !insideNewRim ? 1 : 4;
      ASSERT_EQ(at(ZIRKSEMarker::m_labelImage, x, y), expected) << x << "," << y;
    }
  }
}

}  // namespace
