// From a marker image to a mask: the label image of an edit, whole
// segmentations of the photo set on both the reduced and the direct path,
// and cancellation.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "common/PhotoSet.h"
#include "pipeline_support.h"
#include "segmenter/ZIRKSEHybrid.h"

using pipeline_test::at;
using pipeline_test::fillRect;
using pipeline_test::makeImage;
using pipeline_test::toIpl;

namespace {

class PipelineSegment : public ::testing::Test {
 protected:
  void TearDown() override {
    ZIRK_ReleaseImage(&marker);
    delete hybrid;
    hybrid = nullptr;
    pipeline_test::resetEngineState();
  }

  // Source image, history and a fresh segmenter, as the engine sets them up.
  void start(const cv::Mat& bgr) {
    ZIRKSEMarker::m_originalImage = toIpl(bgr);
    ZIRKSEMarker::m_originalWidth = bgr.cols;
    ZIRKSEMarker::m_originalHeight = bgr.rows;
    ZIRKSEManageUndoRedo::allocate();
    g_imageResizeFactor = 1.0f;
    hybrid = new ZIRKSEHybrid;
    ZIRKSEMarker::initializer();
    hybrid->intializer();
  }

  // A loop edit along the rectangle (corners inclusive): inside 4, outside 0.
  void loopMarker(int x1, int y1, int x2, int y2) {
    ZIRK_ReleaseImage(&marker);
    marker = makeImage(ZIRKSEMarker::m_originalWidth, ZIRKSEMarker::m_originalHeight, 1, 0);
    fillRect(marker, x1, y1, x2 + 1, y2 + 1, 4);
    ZIRKSEMarker::currentStroke.points = {x1, y1, x2, y1, x2, y2, x1, y2};
    ZIRKSEMarker::currentStroke.type = kEditLoopAdd;
  }

  cv::Mat labels() { return cv::cvarrToMat(ZIRKSEMarker::m_labelImage).clone(); }

  ZIRKSEHybrid* hybrid = nullptr;
  IplImage* marker = nullptr;
};

TEST_F(PipelineSegment, LoopLabelsFixTheOutsideAndLeaveThePathUnknown) {
  start(cv::Mat(30, 40, CV_8UC3, cv::Scalar(90, 90, 90)));
  {
    LogCapture log;  // no label image yet: refused
    EXPECT_EQ(hybrid->segment(), nullptr);
    EXPECT_EQ(log.countPrefix("Error", "segment:"), 1) << log.dump();
  }
  loopMarker(10, 8, 29, 21);
  hybrid->setLabelImage(marker);
  cv::Mat l = labels();
  EXPECT_EQ(l.at<uchar>(0, 0), 1);    // unmarked, no history: background
  EXPECT_EQ(l.at<uchar>(15, 20), 4);  // inside the loop
  EXPECT_EQ(l.at<uchar>(7, 20), 0);   // the path, 3 thick
  EXPECT_EQ(l.at<uchar>(15, 10), 0);  // closing line back to the first corner
  EXPECT_EQ(l.at<uchar>(11, 20), 4);

  // One point draws nothing; two points draw their segment.
  ZIRKSEMarker::currentStroke.points = {20, 15};
  hybrid->setLabelImage(marker);
  EXPECT_EQ(cv::countNonZero(labels() == 0), 0);
  ZIRKSEMarker::currentStroke.points = {12, 15, 27, 15};
  hybrid->setLabelImage(marker);
  EXPECT_EQ(labels().at<uchar>(15, 20), 0);
  EXPECT_EQ(labels().at<uchar>(12, 20), 4);
}

TEST_F(PipelineSegment, BrushStrokesGetAnEstimatedRing) {
  start(cv::Mat(100, 100, CV_8UC3, cv::Scalar(90, 90, 90)));
  // Kind 2 on 100x100: 5 dilations (Chebyshev radius 5) of the object mark.
  for (int kind : {kEditStrokeAdd, kEditStrokeRemove}) {
    ZIRK_ReleaseImage(&marker);
    marker = makeImage(100, 100, 1, 0);
    at(marker, 50, 50) = kind == kEditStrokeAdd ? 2 : 1;
    ZIRKSEMarker::currentStroke.points.clear();
    ZIRKSEMarker::currentStroke.type = kind;
    hybrid->setLabelImage(marker);
    const uchar ring = kind == kEditStrokeAdd ? 4 : 3;
    cv::Mat l = labels();
    EXPECT_EQ(l.at<uchar>(50, 50), kind == kEditStrokeAdd ? 2 : 1);
    EXPECT_EQ(l.at<uchar>(50, 55), ring);
    EXPECT_EQ(l.at<uchar>(45, 45), ring);
    EXPECT_EQ(l.at<uchar>(50, 56), 1);
    EXPECT_EQ(cv::countNonZero(l == ring), 11 * 11 - 1);
  }
}

// With a previous result, unmarked pixels keep it as fixed labels and marked
// pixels already on the edit's side are fixed.
TEST_F(PipelineSegment, PreviousResultBecomesFixedLabels) {
  start(cv::Mat(30, 40, CV_8UC3, cv::Scalar(90, 90, 90)));
  IplImage* prev = makeImage(40, 30, 1, 0);
  fillRect(prev, 0, 0, 20, 30, 255);  // left half object
  ZIRKSEManageUndoRedo::updateBitPlane(prev);
  cvReleaseImage(&prev);

  for (int kind : {kEditLoopAdd, kEditLoopRemove}) {
    ZIRK_ReleaseImage(&marker);
    marker = makeImage(40, 30, 1, 0);
    fillRect(marker, 5, 10, 35, 20, 4);  // a band across both halves
    ZIRKSEMarker::currentStroke.points.clear();
    ZIRKSEMarker::currentStroke.type = kind;
    hybrid->setLabelImage(marker);
    ASSERT_NE(ZIRKSEMarker::m_prevResult, nullptr);
    cv::Mat l = labels();
    EXPECT_EQ(l.at<uchar>(2, 5), 2);    // unmarked, was object
    EXPECT_EQ(l.at<uchar>(2, 30), 1);   // unmarked, was background
    EXPECT_EQ(l.at<uchar>(15, 10), kind == kEditLoopAdd ? 2 : 4);
    EXPECT_EQ(l.at<uchar>(15, 30), kind == kEditLoopAdd ? 4 : 1);
  }
}

TEST_F(PipelineSegment, ReducedSourceGetsWorkingSizeLabels) {
  start(cv::Mat(480, 640, CV_8UC3, cv::Scalar(90, 90, 90)));
  EXPECT_FLOAT_EQ(g_imageResizeFactor, 2.0f);
  EXPECT_EQ(ZIRKSEMarker::m_srcImage->width, 320);
  EXPECT_EQ(ZIRKSEMarker::m_srcImage->height, 240);
  EXPECT_TRUE(ZIRKSEMarker::m_isGreyScale);
  ASSERT_NE(ZIRKSEMarker::m_texHor, nullptr);
  loopMarker(100, 80, 401, 301);
  hybrid->setLabelImage(marker);
  cv::Mat l = labels();
  ASSERT_EQ(l.size(), cv::Size(320, 240));
  EXPECT_EQ(l.at<uchar>(40, 100), 0);   // path at (200, 80) / 2
  EXPECT_EQ(l.at<uchar>(100, 100), 4);
  EXPECT_EQ(l.at<uchar>(10, 10), 1);
}

// One photo from its rectangle; returns the IoU against the truth (or -1).
struct PhotoRun {
  double iou = -1.0;
  double rectIou = -1.0;
  int refinements = 0;
  int plainEnlargements = 0;
};

class PipelinePhotos : public PipelineSegment {
 protected:
  PhotoRun run(const cv::Mat& image, const cv::Mat& truth, int x1, int y1, int x2, int y2) {
    PhotoRun r;
    // Some rectangles of the set reach one pixel past the image.
    x2 = std::min(x2, image.cols - 1);
    y2 = std::min(y2, image.rows - 1);
    start(image);
    loopMarker(x1, y1, x2, y2);
    LogCapture log;
    hybrid->setLabelImage(marker);
    IplImage* mask = hybrid->segment();
    // The band refinement either ran or found no boundary (an object
    // filling the whole working image); nothing else is reported.
    r.refinements = log.countPrefix("Info", "Passed:");
    r.plainEnlargements = log.countPrefix("Error", "Failed: xmin:");
    EXPECT_EQ(log.countPrefix("Error", ""), r.plainEnlargements) << log.dump();
    if (mask == nullptr) {
      ADD_FAILURE() << "no mask";
      return r;
    }
    cv::Mat m = cv::cvarrToMat(mask).clone();
    EXPECT_EQ(m.size(), truth.size());
    EXPECT_EQ(cv::countNonZero((m != 0) & (m != 255)), 0);
    // The history holds the new mask; the per-request state is gone.
    IplImage* newest = ZIRKSEManageUndoRedo::prevMask();
    EXPECT_NE(newest, nullptr);
    if (newest != nullptr) {
      EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(newest) != m), 0);
      cvReleaseImage(&newest);
    }
    EXPECT_EQ(hybrid->m_graph, nullptr);
    EXPECT_EQ(hybrid->m_cropSrcImage, nullptr);
    EXPECT_EQ(hybrid->m_labelHistory[0], nullptr);
    cvReleaseImage(&mask);

    cv::Mat rect = cv::Mat::zeros(truth.size(), CV_8UC1);
    rect(cv::Rect(x1, y1, x2 - x1 + 1, y2 - y1 + 1)).setTo(255);
    r.iou = intersectionOverUnion(m, truth);
    r.rectIou = intersectionOverUnion(rect, truth);
    return r;
  }

  void finish() {
    delete hybrid;
    hybrid = nullptr;
    ZIRK_ReleaseImage(&marker);
    pipeline_test::resetEngineState();
  }

  // Every photo: mean IoU well above the rectangle's own, and no photo lost.
  void expectQuality(const std::vector<PhotoRun>& runs, double minMean) {
    double sum = 0.0, rectSum = 0.0;
    for (const PhotoRun& r : runs) {
      sum += r.iou;
      rectSum += r.rectIou;
      EXPECT_GT(r.iou, 0.3);
    }
    const double mean = sum / runs.size(), rectMean = rectSum / runs.size();
    EXPECT_GT(mean, minMean);
    EXPECT_GT(mean, rectMean + 0.1) << "rectangle alone: " << rectMean;
    RecordProperty("mean_iou", std::to_string(mean));
    std::printf("mean IoU %.4f (rectangle alone %.4f) over %zu photos\n", mean, rectMean,
                runs.size());
  }
};

TEST_F(PipelinePhotos, ReducedPathWithBandRefinement) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  std::vector<PhotoRun> runs;
  int refined = 0;
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    ASSERT_FALSE(p.image.empty()) << name;
    const PhotoRun r = run(p.image, p.truth, p.x1, p.y1, p.x2, p.y2);
    EXPECT_GT(g_imageResizeFactor, 1.0f) << name;
    if (p.image.cols == 640 && p.image.rows == 480) {
      EXPECT_FLOAT_EQ(g_imageResizeFactor, 2.0f) << name;
    }
    EXPECT_EQ(r.refinements + r.plainEnlargements, 1) << name;
    refined += r.refinements;
    std::printf("%-10s %dx%d IoU %.4f\n", name.c_str(), p.image.cols, p.image.rows, r.iou);
    runs.push_back(r);
    finish();
  }
  EXPECT_GE(refined, 12);
  expectQuality(runs, 0.8);
}

TEST_F(PipelinePhotos, DirectPathOnSmallPhotos) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  std::vector<PhotoRun> runs;
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    ASSERT_FALSE(p.image.empty()) << name;
    // At most 76800 pixels: no reduction inside the engine.
    const double s = std::sqrt(76800.0 / (p.image.cols * p.image.rows));
    const cv::Size size(static_cast<int>(p.image.cols * s), static_cast<int>(p.image.rows * s));
    cv::Mat image, truth;
    cv::resize(p.image, image, size, 0, 0, cv::INTER_AREA);
    cv::resize(p.truth, truth, size, 0, 0, cv::INTER_NEAREST);
    const double fx = static_cast<double>(size.width) / p.image.cols;
    const double fy = static_cast<double>(size.height) / p.image.rows;
    const PhotoRun r = run(image, truth, static_cast<int>(p.x1 * fx), static_cast<int>(p.y1 * fy),
                           static_cast<int>(p.x2 * fx), static_cast<int>(p.y2 * fy));
    EXPECT_EQ(g_imageResizeFactor, 1.0f) << name;
    EXPECT_EQ(r.refinements + r.plainEnlargements, 0) << name;
    std::printf("%-10s %dx%d IoU %.4f\n", name.c_str(), size.width, size.height, r.iou);
    runs.push_back(r);
    finish();
  }
  expectQuality(runs, 0.8);
}

// A cancel raised before the loop is seen after the first iteration: no
// result, the log line, nothing left allocated, the history as it was.
TEST_F(PipelineSegment, CancelEndsAfterTheFirstIterationAndKeepsTheHistory) {
  cv::Mat image(240, 320, CV_8UC3, cv::Scalar(40, 160, 60));
  cv::circle(image, cv::Point(160, 120), 60, cv::Scalar(30, 30, 210), cv::FILLED);
  start(image);
  IplImage* known = makeImage(320, 240, 1, 0);
  fillRect(known, 10, 10, 50, 50, 255);
  ZIRKSEManageUndoRedo::updateBitPlane(known);
  const int32_t current = ZIRKSEManageUndoRedo::m_current;

  loopMarker(80, 40, 240, 200);
  hybrid->setLabelImage(marker);
  ZIRKSEMarker::m_exitApp = true;
  LogCapture log;
  EXPECT_EQ(hybrid->segment(), nullptr);
  EXPECT_EQ(log.count(6, "Error", "Segmentation canceled due to timeout"), 1) << log.dump();

  // The first iteration did run: both models were fitted.
  double fgWeight = 0.0, bgWeight = 0.0;
  for (int k = 0; k < 5; ++k) {
    fgWeight += hybrid->m_fgModel.m_weight[k];
    bgWeight += hybrid->m_bgModel.m_weight[k];
  }
  EXPECT_GT(fgWeight, 0.5);
  EXPECT_GT(bgWeight, 0.5);

  EXPECT_EQ(hybrid->m_graph, nullptr);
  EXPECT_EQ(hybrid->m_trimapGraph, nullptr);
  EXPECT_EQ(hybrid->m_cropSrcImage, nullptr);
  EXPECT_EQ(hybrid->m_cropLabelImage, nullptr);
  EXPECT_EQ(hybrid->m_initLabelImage, nullptr);
  for (IplImage* h : hybrid->m_labelHistory) EXPECT_EQ(h, nullptr);
  EXPECT_EQ(g_cancelTimer, nullptr);

  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, current);
  IplImage* newest = ZIRKSEManageUndoRedo::prevMask();
  ASSERT_NE(newest, nullptr);
  EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(newest) != cv::cvarrToMat(known)), 0);
  cvReleaseImage(&newest);

  // The next request runs normally once the flag is lowered: the disc is
  // added to the earlier result.
  ZIRKSEMarker::m_exitApp = false;
  hybrid->setLabelImage(marker);
  IplImage* mask = hybrid->segment();
  ASSERT_NE(mask, nullptr);
  cv::Mat expected = cv::cvarrToMat(known).clone();
  cv::circle(expected, cv::Point(160, 120), 60, cv::Scalar(255), cv::FILLED);
  EXPECT_GT(intersectionOverUnion(cv::cvarrToMat(mask), expected), 0.97);
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (current + 1) % 32);
  cvReleaseImage(&mask);
  cvReleaseImage(&known);
}

}  // namespace
