// Full-resolution refinement of a working-size mask.
#include <opencv2/imgproc.hpp>

#include <random>
#include <vector>

#include "colormodel/TrainingData.h"
#include "common/LogCapture.h"
#include "support.h"

namespace {

using segtest::filledImage;
using segtest::toIpl;

class PipelineUpscaling : public segtest::SegmenterTest {
 protected:
  void setSource(const cv::Mat& bgr) {
    ZIRKSEMarker::m_originalImage = toIpl(bgr);
    ZIRKSEMarker::m_originalWidth = bgr.cols;
    ZIRKSEMarker::m_originalHeight = bgr.rows;
  }
};

// Without a boundary there is no band: the plain enlargement, with its log line.
TEST_F(PipelineUpscaling, EmptyOrFullMaskIsEnlargedPlainly) {
  setSource(cv::Mat(48, 64, CV_8UC3, cv::Scalar(10, 20, 30)));
  ZIRKSEMarker::m_labelImage = filledImage(32, 24, 1, 1);
  for (const int value : {0, 1}) {
    LogCapture log;
    IplImage* mask = filledImage(32, 24, 1, value);
    IplImage* result = hybrid->intelligentUpscaling(mask);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(segtest::view(result).size(), cv::Size(64, 48));
    EXPECT_EQ(cv::countNonZero(segtest::view(result) == 255 * value), 64 * 48);
    EXPECT_EQ(log.count(6, "Error", "Failed: xmin:2147483647, xmax:-1, ymin:2147483647, ymax:-1"), 1)
        << log.dump();
    EXPECT_EQ(hybrid->m_trimapGraph, nullptr);
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
      const cv::Vec3i base = in ? cv::Vec3i(40, 40, 200) : cv::Vec3i(50, 170, 60);
      cv::Vec3b& c = bgr.at<cv::Vec3b>(y, x);
      for (int ch = 0; ch < 3; ++ch) c[ch] = cv::saturate_cast<uchar>(base[ch] + noise(rng));
      truth.at<uchar>(y, x) = in ? 255 : 0;
      (in ? fg : bg).push_back({double(c[0]), double(c[1]), double(c[2])});
    }
  setSource(bgr);
  initModel(fg, hybrid->m_fgModel, 10);
  initModel(bg, hybrid->m_bgModel, 10);
  hybrid->m_fgModel.setInverseCovariance();
  hybrid->m_bgModel.setInverseCovariance();
  hybrid->m_lamda = 50.0;
  hybrid->m_beta = 1.0 / (2.0 * 3.0 * 12.0 * 12.0);

  cv::Mat small, labels, enlarged;
  cv::resize(truth, small, cv::Size(100, 75), 0, 0, cv::INTER_NEAREST);
  small.convertTo(labels, CV_8U, 1.0 / 255, 3);  // 4 object, 3 background
  ZIRKSEMarker::m_labelImage = toIpl(labels);
  IplImage* mask = toIpl(small / 255);
  LogCapture log;
  IplImage* result = hybrid->intelligentUpscaling(mask);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(log.countPrefix("Info", "Passed:"), 1) << log.dump();
  EXPECT_EQ(hybrid->m_trimapGraph, nullptr);
  const cv::Mat refined = segtest::view(result).clone();
  cvReleaseImage(&result);
  cvReleaseImage(&mask);

  cv::resize(small, enlarged, truth.size(), 0, 0, cv::INTER_NEAREST);
  const int refinedErrors = cv::countNonZero(refined != truth);
  const int enlargedErrors = cv::countNonZero(enlarged != truth);
  EXPECT_LT(refinedErrors * 3, enlargedErrors) << refinedErrors << " vs " << enlargedErrors;
  // Changes stay within a few pixels of the enlarged outline; values are 0/255.
  cv::Mat outer, inner;
  cv::dilate(enlarged, outer, cv::Mat::ones(9, 9, CV_8U));
  cv::erode(enlarged, inner, cv::Mat::ones(9, 9, CV_8U));
  EXPECT_EQ(cv::countNonZero((refined != enlarged) & (outer == inner)), 0);
  EXPECT_EQ(cv::countNonZero((refined != 0) & (refined != 255)), 0);
}

}  // namespace
