// Image analysis: grey test, texture maps, the border and contrast tests of a
// trial result, and the box tightening.
#include <cstdlib>
#include <random>

#include "support.h"

namespace {

using segtest::at;
using segtest::fillRect;
using segtest::filledImage;

class PipelineAnalysis : public segtest::SegmenterTest {};

TEST_F(PipelineAnalysis, GreyTestThresholdsTheMeanChannelSpread) {
  IplImage* img = filledImage(2, 2, 3, 100);
  for (const int blue : {100, 103, 104}) {  // mean spread 0, 3/4 (grey), exactly 1 (colour)
    at(img, 1, 0, 2) = static_cast<uint8_t>(blue);
    EXPECT_EQ(hybrid->greyScaleTest(img), blue != 104) << blue;
  }
  cvReleaseImage(&img);
}

// Neighbour differences of channel 0; row 0 looks down, the last column looks
// left, and its vertical step reads the byte at offset w - 1 of each row.
TEST_F(PipelineAnalysis, TextureMapsMatchNeighbourDifferences) {
  std::mt19937 rng(11);
  for (const cv::Size size : {cv::Size(7, 5), cv::Size(1, 4), cv::Size(5, 1)}) {
    const int w = size.width, h = size.height;
    IplImage* src = segtest::randomImage(w, h, 3, rng);
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_srcImage);
    ZIRKSEMarker::m_srcImage = src;
    hybrid->computeTexture();
    auto s = [&](int x, int y) { return static_cast<int>(at(src, x, y)); };
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        int hor = 0, ver = 0;
        if (x + 1 < w) {
          hor = std::abs(s(x + 1, y) - s(x, y));
          if (h > 1) ver = y > 0 ? std::abs(s(x, y - 1) - s(x, y)) : std::abs(s(x, 1) - s(x, 0));
        } else if (y > 0 && w > 1) {
          hor = std::abs(s(w - 2, y) - s(w - 1, y));
          ver = std::abs(at(src, 0, y - 1, w - 1) - at(src, 0, y, w - 1));
        }
        EXPECT_EQ(at(ZIRKSEMarker::m_texHor, x, y), hor) << w << "x" << h << " at " << x << "," << y;
        EXPECT_EQ(at(ZIRKSEMarker::m_texVer, x, y), ver) << w << "x" << h << " at " << x << "," << y;
      }
  }
}

TEST_F(PipelineAnalysis, BoundaryTestMeasuresFarSidesFromTheEdge) {
  IplImage* mask = filledImage(100, 100, 1, 0);
  // White columns [x0, x1) of rows 10..90; tx = 15; far side W - xmax.
  const struct { int x0, x1; bool spans; } cases[] = {
      {10, 91, true}, {20, 91, false}, {0, 86, false}, {0, 87, true}};
  for (const auto& c : cases) {
    cvSetZero(mask);
    fillRect(mask, c.x0, 10, c.x1, 91, 255);
    EXPECT_EQ(hybrid->boundaryTest(mask, 0.15f), c.spans) << c.x0 << ".." << c.x1 - 1;
  }
  cvSet(mask, cvScalarAll(254));  // only 255 counts: empty
  EXPECT_FALSE(hybrid->boundaryTest(mask, 0.15f));
  cvReleaseImage(&mask);
}

// Contrast across the boundary against contrast inside the object: a flat
// bright block passes (1); stripes inside fail (2); white only on the image
// border is never visited (2).
TEST_F(PipelineAnalysis, IntensityTestComparesBoundaryAndInsideContrast) {
  hybrid->m_cropSrcImage = filledImage(40, 30, 3, 128);
  IplImage* mask = filledImage(40, 30, 1, 0);
  fillRect(hybrid->m_cropSrcImage, 5, 5, 20, 20, 230);
  fillRect(mask, 5, 5, 20, 20, 255);
  EXPECT_EQ(hybrid->intensityTest(mask), 1);
  for (int x = 5; x < 20; x += 2) fillRect(hybrid->m_cropSrcImage, x, 5, x + 1, 20, 0);
  EXPECT_EQ(hybrid->intensityTest(mask), 2);
  cvSetZero(mask);
  fillRect(mask, 0, 0, 40, 1, 255);
  fillRect(mask, 0, 0, 1, 30, 255);
  EXPECT_EQ(hybrid->intensityTest(mask), 2);
  cvReleaseImage(&mask);
}

// A flat box stays as it is. A textured object on flat ground: the box
// closes in on the object plus at most a few lines of smooth ground, and
// everything it gives up (and its own rim) becomes fixed background.
TEST_F(PipelineAnalysis, PreProcessTightensAroundStructureOnly) {
  setWorkingImage(filledImage(120, 90, 3, 128));
  ZIRKSEMarker::m_labelImage = filledImage(120, 90, 1, 4);
  setBox(5, 5, 110, 80);
  hybrid->preProcess();
  auto box = [&] {
    return cv::Rect(ZIRKSEMarker::m_xMinBBox, ZIRKSEMarker::m_yMinBBox, hybrid->m_cropWidth, hybrid->m_cropHeight);
  };
  EXPECT_EQ(box(), cv::Rect(5, 5, 110, 80));
  EXPECT_EQ(cv::countNonZero(segtest::view(ZIRKSEMarker::m_labelImage) != 4), 0);

  const cv::Rect object(40, 30, 40, 30);
  cv::Mat noise(object.size(), CV_8U), roi = segtest::view(ZIRKSEMarker::m_srcImage)(object);
  cv::RNG(3).fill(noise, cv::RNG::UNIFORM, 0, 256);
  cv::Mat channels[] = {noise, noise, noise};
  cv::merge(channels, 3, roi);
  setBox(5, 5, 110, 80);
  hybrid->preProcess();
  const cv::Rect b = box();
  EXPECT_TRUE(b.x < 40 && b.y < 30 && b.br().x > 80 && b.br().y > 60) << b;
  EXPECT_EQ(b & cv::Rect(30, 20, 60, 50), b) << b;  // at most 10 lines of ground
  cv::Mat want(90, 120, CV_8U, cv::Scalar(4));
  want(cv::Rect(5, 5, 110, 80)).setTo(1);
  want(cv::Rect(b.x + 1, b.y + 1, b.width - 2, b.height - 2)).setTo(4);
  EXPECT_EQ(cv::countNonZero(segtest::view(ZIRKSEMarker::m_labelImage) != want), 0);
}

}  // namespace
