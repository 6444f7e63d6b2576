// Image analysis: grey test, texture maps, the border and contrast tests of a
// trial result, and the box tightening.
#include <gtest/gtest.h>

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

TEST_F(PipelineAnalysis, GreyTestThresholdsTheMeanChannelSpread) {
  IplImage* img = makeImage(2, 2, 3, 100);  // three equal channels: grey
  EXPECT_TRUE(hybrid.greyScaleTest(img));
  at(img, 1, 0, 2) = 103;  // mean spread 3/4: still grey
  EXPECT_TRUE(hybrid.greyScaleTest(img));
  at(img, 1, 0, 2) = 104;  // mean spread exactly 1: colour
  EXPECT_FALSE(hybrid.greyScaleTest(img));
  cvReleaseImage(&img);
}

// Texture maps against their per-pixel definition, on odd shapes included.
TEST_F(PipelineAnalysis, TextureMapsMatchNeighbourDifferences) {
  std::mt19937 rng(11);
  const int sizes[][2] = {{7, 5}, {1, 4}, {5, 1}};
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
  // White columns/rows [x0, x1) x [y0, 91); tx = ty = 15; far side W - xmax.
  const struct { int x0, x1; bool spans; } cases[] = {
      {10, 91, true}, {20, 91, false}, {0, 86, false}, {0, 87, true}};
  for (const auto& c : cases) {
    cvSetZero(mask);
    fillRect(mask, c.x0, 10, c.x1, 91, 255);
    EXPECT_EQ(hybrid.boundaryTest(mask, 0.15f), c.spans) << c.x0 << ".." << c.x1 - 1;
  }
  cvSet(mask, cvScalarAll(254), nullptr);  // only 255 counts: empty
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

  cvReleaseImage(&mask);
}

// A flat box stays as it is. A textured object on flat ground: the box
// closes in on the object plus at most a few lines of smooth ground, and
// everything it gives up (and its own rim) becomes fixed background.
TEST_F(PipelineAnalysis, PreProcessTightensAroundStructureOnly) {
  ZIRKSEMarker::m_srcImage = makeImage(120, 90, 3, 128);
  ZIRKSEMarker::m_labelImage = makeImage(120, 90, 1, 4);
  ZIRKSEMarker::m_width = hybrid.m_width = 120;
  ZIRKSEMarker::m_height = hybrid.m_height = 90;
  auto setBox = [&] {
    ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 5;
    hybrid.m_cropWidth = 110;
    hybrid.m_cropHeight = 80;
  };
  setBox();
  hybrid.preProcess();
  EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, 5);
  EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, 5);
  EXPECT_EQ(hybrid.m_cropWidth, 110);
  EXPECT_EQ(hybrid.m_cropHeight, 80);
  EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(ZIRKSEMarker::m_labelImage) != 4), 0);

  std::mt19937 rng(3);
  const int ox0 = 40, oy0 = 30, ox1 = 80, oy1 = 60;  // object [ox0, ox1) x [oy0, oy1)
  for (int y = oy0; y < oy1; ++y)
    for (int x = ox0; x < ox1; ++x) fillRect(ZIRKSEMarker::m_srcImage, x, y, x + 1, y + 1, static_cast<uint8_t>(rng()));
  setBox();
  hybrid.preProcess();
  const int bx0 = ZIRKSEMarker::m_xMinBBox, by0 = ZIRKSEMarker::m_yMinBBox;
  const int bx1 = bx0 + hybrid.m_cropWidth, by1 = by0 + hybrid.m_cropHeight;
  EXPECT_TRUE(bx0 < ox0 && by0 < oy0 && bx1 > ox1 && by1 > oy1) << bx0 << " " << by0;
  EXPECT_TRUE(bx0 >= ox0 - 10 && by0 >= oy0 - 10 && bx1 <= ox1 + 10 && by1 <= oy1 + 10);
  for (int y = 0; y < 90; ++y) {
    for (int x = 0; x < 120; ++x) {
      const bool inOldBox = x >= 5 && x < 115 && y >= 5 && y < 85;
      const bool insideNewRim = x > bx0 && x < bx1 - 1 && y > by0 && y < by1 - 1;
      ASSERT_EQ(at(ZIRKSEMarker::m_labelImage, x, y), inOldBox && !insideNewRim ? 1 : 4)
          << x << "," << y;
    }
  }
}

}  // namespace
