// Full-resolution refinement of a working-size mask.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <random>
#include <vector>

#include "colormodel/TrainingData.h"
#include "common/LogCapture.h"
#include "pipeline_support.h"
#include "segmenter/ZIRKSEHybrid.h"

using pipeline_test::at;
using pipeline_test::makeImage;
using pipeline_test::toIpl;

namespace {

class PipelineUpscaling : public ::testing::Test {
 protected:
  void TearDown() override { pipeline_test::resetEngineState(); }

  void setSource(const cv::Mat& bgr) {
    ZIRKSEMarker::m_originalImage = toIpl(bgr);
    ZIRKSEMarker::m_originalWidth = bgr.cols;
    ZIRKSEMarker::m_originalHeight = bgr.rows;
  }

  ZIRKSEHybrid hybrid;
};

// Without a boundary there is no band: the plain enlargement, with its log line.
TEST_F(PipelineUpscaling, EmptyOrFullMaskIsEnlargedPlainly) {
  setSource(cv::Mat(48, 64, CV_8UC3, cv::Scalar(10, 20, 30)));
  ZIRKSEMarker::m_labelImage = makeImage(32, 24, 1, 1);
  const char* failed = "Failed: xmin:2147483647, xmax:-1, ymin:2147483647, ymax:-1";
  for (uint8_t value : {0, 1}) {
    LogCapture log;
    IplImage* mask = makeImage(32, 24, 1, value);
    IplImage* result = hybrid.intelligentUpscaling(mask);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->width, 64);
    EXPECT_EQ(result->height, 48);
    const int expected = value == 1 ? 64 * 48 : 0;
    EXPECT_EQ(cvCountNonZero(result), expected);
    EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(result) == 255), expected);
    EXPECT_EQ(log.count(6, "Error", failed), 1) << log.dump();
    EXPECT_EQ(log.countPrefix("Info", "Passed:"), 0);
    EXPECT_EQ(hybrid.m_boundWidthTrimap, 0);
    EXPECT_EQ(hybrid.m_trimapGraph, nullptr);
    cvReleaseImage(&mask);
    cvReleaseImage(&result);
  }
}

// A red disc on green ground at 200x150, segmented at 100x75: the band cut
// recovers the round outline that the nearest enlargement turns into steps,
// and it changes nothing away from the boundary.
TEST_F(PipelineUpscaling, BandCutRefinesTheOutlineOnly) {
  std::mt19937 rng(9);
  std::uniform_int_distribution<int> noise(-12, 12);
  cv::Mat bgr(150, 200, CV_8UC3), truth(150, 200, CV_8UC1);
  std::vector<pixelVal> fg, bg;
  for (int y = 0; y < 150; ++y)
    for (int x = 0; x < 200; ++x) {
      const bool in = (x - 101) * (x - 101) + (y - 74) * (y - 74) <= 41 * 41;
      const cv::Vec3b c = in ? cv::Vec3b(cv::saturate_cast<uchar>(40 + noise(rng)),
                                         cv::saturate_cast<uchar>(40 + noise(rng)),
                                         cv::saturate_cast<uchar>(200 + noise(rng)))
                             : cv::Vec3b(cv::saturate_cast<uchar>(50 + noise(rng)),
                                         cv::saturate_cast<uchar>(170 + noise(rng)),
                                         cv::saturate_cast<uchar>(60 + noise(rng)));
      bgr.at<cv::Vec3b>(y, x) = c;
      truth.at<uchar>(y, x) = in ? 255 : 0;
      (in ? fg : bg).push_back({double(c[0]), double(c[1]), double(c[2])});
    }
  setSource(bgr);
  initModel(fg, hybrid.m_fgModel, 10);
  initModel(bg, hybrid.m_bgModel, 10);
  hybrid.m_fgModel.setInverseCovariance();
  hybrid.m_bgModel.setInverseCovariance();
  hybrid.m_lamda = 50.0;
  hybrid.m_beta = 1.0 / (2.0 * 3.0 * 12.0 * 12.0);

  cv::Mat small;
  cv::resize(truth, small, cv::Size(100, 75), 0, 0, cv::INTER_NEAREST);
  cv::Mat labels = small.clone();
  labels.setTo(4, small == 255);
  labels.setTo(3, small == 0);
  ZIRKSEMarker::m_labelImage = toIpl(labels);
  cv::Mat smallMask = small / 255;
  IplImage* mask = toIpl(smallMask);

  LogCapture log;
  IplImage* result = hybrid.intelligentUpscaling(mask);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(log.countPrefix("Info", "Passed:"), 1) << log.dump();
  EXPECT_EQ(hybrid.m_trimapGraph, nullptr);
  cv::Mat refined = cv::cvarrToMat(result).clone();
  cvReleaseImage(&result);
  cvReleaseImage(&mask);

  cv::Mat enlarged;
  cv::resize(small, enlarged, truth.size(), 0, 0, cv::INTER_NEAREST);
  const int refinedErrors = cv::countNonZero(refined != truth);
  const int enlargedErrors = cv::countNonZero(enlarged != truth);
  EXPECT_LT(refinedErrors * 3, enlargedErrors) << refinedErrors << " vs " << enlargedErrors;

  // Changes stay within a few pixels of the enlarged outline.
  cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(9, 9));
  cv::Mat outer, inner;
  cv::dilate(enlarged, outer, kernel);
  cv::erode(enlarged, inner, kernel);
  cv::Mat changed = refined != enlarged;
  cv::Mat nearOutline = outer != inner;
  EXPECT_EQ(cv::countNonZero(changed & ~nearOutline), 0);
  EXPECT_EQ(cv::countNonZero((refined != 0) & (refined != 255)), 0);
}

}  // namespace
