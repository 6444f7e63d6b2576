// From a marker image to a mask: the label image of an edit, whole
// segmentations of the photo set on both the reduced and the direct path,
// and cancellation.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "common/PhotoSet.h"
#include "support.h"

namespace {

using segtest::fillRect;
using segtest::filledImage;
using segtest::view;

class PipelineSegment : public segtest::SegmenterTest {
 protected:
  void TearDown() override {
    ZIRK_ReleaseImage(&marker);
    SegmenterTest::TearDown();
  }
  // Source image, history and a fresh segmenter, as the engine sets them up.
  void start(const cv::Mat& bgr) {
    ZIRKSEMarker::m_originalImage = segtest::toIpl(bgr);
    ZIRKSEMarker::m_originalWidth = bgr.cols;
    ZIRKSEMarker::m_originalHeight = bgr.rows;
    ZIRKSEManageUndoRedo::allocate();
    hybrid = std::make_unique<ZIRKSEHybrid>();
    ZIRKSEMarker::initializer();
    hybrid->intializer();
  }
  // A marker of `fill` over [x0, x1] x [y0, y1] (inclusive) for an edit of `kind` along `points`.
  void mark(int kind, int x0, int y0, int x1, int y1, int fill, std::vector<int> points) {
    ZIRK_ReleaseImage(&marker);
    marker = filledImage(ZIRKSEMarker::m_originalWidth, ZIRKSEMarker::m_originalHeight, 1, 0);
    fillRect(marker, x0, y0, x1 + 1, y1 + 1, fill);
    ZIRKSEMarker::currentStroke.points = points;
    ZIRKSEMarker::currentStroke.type = kind;
    hybrid->setLabelImage(marker);
  }
  // A loop edit along the rectangle: inside 4, outside 0.
  void loop(int x1, int y1, int x2, int y2) {
    mark(kEditLoopAdd, x1, y1, x2, y2, 4, {x1, y1, x2, y1, x2, y2, x1, y2});
  }
  uint8_t label(int x, int y) { return segtest::at(ZIRKSEMarker::m_labelImage, x, y); }

  IplImage* marker = nullptr;
};

// Loop: outside fixed background, the path (3 thick, closed) unknown; one
// point draws nothing. Brushes: a ring of Chebyshev radius 5 (on 100 x 100)
// around the mark, estimated on the mark's side.
TEST_F(PipelineSegment, EditsBecomeLabels) {
  start(cv::Mat(100, 100, CV_8UC3, cv::Scalar(90, 90, 90)));
  {
    LogCapture log;  // no label image yet: refused
    EXPECT_EQ(hybrid->segment(), nullptr);
    EXPECT_EQ(log.countPrefix("Error", "segment:"), 1) << log.dump();
  }
  loop(10, 8, 29, 21);
  EXPECT_EQ(label(0, 0), 1);
  EXPECT_EQ(label(20, 15), 4);
  EXPECT_EQ(label(20, 11), 4);
  EXPECT_EQ(label(20, 7), 0);
  EXPECT_EQ(label(10, 15), 0);  // closing line back to the first corner
  mark(kEditLoopAdd, 10, 8, 29, 21, 4, {20, 15});
  EXPECT_EQ(cv::countNonZero(view(ZIRKSEMarker::m_labelImage) == 0), 0);
  for (const int kind : {kEditStrokeAdd, kEditStrokeRemove}) {
    const int own = kind == kEditStrokeAdd ? 2 : 1, ring = kind == kEditStrokeAdd ? 4 : 3;
    mark(kind, 50, 50, 50, 50, own, {});
    EXPECT_EQ(label(50, 50), own);
    EXPECT_EQ(label(55, 50), ring);
    EXPECT_EQ(label(45, 45), ring);
    EXPECT_EQ(label(56, 50), 1);
    EXPECT_EQ(cv::countNonZero(view(ZIRKSEMarker::m_labelImage) == ring), 11 * 11 - 1);
  }
}

// With a previous result (left half object), unmarked pixels keep it as fixed
// labels and marked pixels already on the edit's side are fixed.
TEST_F(PipelineSegment, PreviousResultBecomesFixedLabels) {
  start(cv::Mat(30, 40, CV_8UC3, cv::Scalar(90, 90, 90)));
  IplImage* prev = filledImage(40, 30, 1, 0);
  fillRect(prev, 0, 0, 20, 30, 255);
  ZIRKSEManageUndoRedo::updateBitPlane(prev);
  cvReleaseImage(&prev);
  for (const int kind : {kEditLoopAdd, kEditLoopRemove}) {
    mark(kind, 5, 10, 34, 19, 4, {});  // a band across both halves
    EXPECT_EQ(label(5, 2), 2);
    EXPECT_EQ(label(30, 2), 1);
    EXPECT_EQ(label(10, 15), kind == kEditLoopAdd ? 2 : 4);
    EXPECT_EQ(label(30, 15), kind == kEditLoopAdd ? 4 : 1);
  }
}

class PipelinePhotos : public PipelineSegment {
 protected:
  // Segments one photo from its rectangle and returns the IoU; refinements
  // counts band refinements, plain the plain enlargements.
  double run(const cv::Mat& image, const cv::Mat& truth, int x1, int y1, int x2, int y2,
             int& refinements) {
    x2 = std::min(x2, image.cols - 1);  // some rectangles reach one pixel past the image
    y2 = std::min(y2, image.rows - 1);
    start(image);
    loop(x1, y1, x2, y2);
    LogCapture log;
    IplImage* mask = hybrid->segment();
    // The band refinement ran, or found no boundary; nothing else is reported.
    refinements = log.countPrefix("Info", "Passed:");
    plain = log.countPrefix("Error", "Failed: xmin:");
    EXPECT_EQ(log.countPrefix("Error", ""), plain) << log.dump();
    if (mask == nullptr) {
      ADD_FAILURE() << "no mask";
      return 0.0;
    }
    const cv::Mat m = view(mask).clone();
    cvReleaseImage(&mask);
    EXPECT_EQ(m.size(), truth.size());
    EXPECT_EQ(cv::countNonZero((m != 0) & (m != 255)), 0);
    // The history holds the new mask; the per-request state is gone.
    IplImage* newest = ZIRKSEManageUndoRedo::prevMask();
    EXPECT_TRUE(newest != nullptr && cv::countNonZero(view(newest) != m) == 0);
    ZIRK_ReleaseImage(&newest);
    EXPECT_TRUE(hybrid->m_graph == nullptr && hybrid->m_cropSrcImage == nullptr &&
                hybrid->m_labelHistory[0] == nullptr);
    cv::Mat rect = cv::Mat::zeros(truth.size(), CV_8UC1);
    rect(cv::Rect(x1, y1, x2 - x1 + 1, y2 - y1 + 1)).setTo(255);
    rectSum += intersectionOverUnion(rect, truth);
    const double iou = intersectionOverUnion(m, truth);
    EXPECT_GT(iou, 0.3);
    sum += iou;
    ++count;
    factor = g_imageResizeFactor;
    TearDown();
    return iou;
  }
  // Mean IoU above 0.8 and well above the rectangle's own.
  void expectQuality() {
    ASSERT_EQ(count, 13);
    std::printf("mean IoU %.4f (rectangle alone %.4f)\n", sum / count, rectSum / count);
    EXPECT_GT(sum / count, 0.8);
    EXPECT_GT(sum / count, rectSum / count + 0.1);
  }
  double sum = 0.0, rectSum = 0.0;
  int count = 0, plain = 0;
  float factor = 0.0f;  // the last run's reduction
};

TEST_F(PipelinePhotos, ReducedPathWithBandRefinement) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  int refined = 0;
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    int refinements = 0;
    const double iou = run(p.image, p.truth, p.x1, p.y1, p.x2, p.y2, refinements);
    std::printf("%-10s %dx%d IoU %.4f\n", name.c_str(), p.image.cols, p.image.rows, iou);
    EXPECT_GT(factor, 1.0f) << name;
    if (p.image.cols == 640 && p.image.rows == 480) { EXPECT_FLOAT_EQ(factor, 2.0f) << name; }
    EXPECT_EQ(refinements + plain, 1) << name;
    refined += refinements;
  }
  EXPECT_GE(refined, 12);
  expectQuality();
}

TEST_F(PipelinePhotos, DirectPathOnSmallPhotos) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  for (const std::string& name : photoNames()) {
    const Photo p = loadPhoto(name);
    // At most 76800 pixels: no reduction inside the engine.
    const double s = std::sqrt(76800.0 / (p.image.cols * p.image.rows));
    const cv::Size size(static_cast<int>(p.image.cols * s), static_cast<int>(p.image.rows * s));
    cv::Mat image, truth;
    cv::resize(p.image, image, size, 0, 0, cv::INTER_AREA);
    cv::resize(p.truth, truth, size, 0, 0, cv::INTER_NEAREST);
    const double fx = double(size.width) / p.image.cols, fy = double(size.height) / p.image.rows;
    int refinements = 0;
    const double iou =
        run(image, truth, int(p.x1 * fx), int(p.y1 * fy), int(p.x2 * fx), int(p.y2 * fy), refinements);
    std::printf("%-10s %dx%d IoU %.4f\n", name.c_str(), size.width, size.height, iou);
    EXPECT_EQ(factor, 1.0f) << name;
    EXPECT_EQ(refinements + plain, 0) << name;
  }
  expectQuality();
}

// A cancel raised before the loop is seen after the first iteration: no
// result, the log line, nothing left allocated, the history as it was. The
// next request runs normally once the flag is lowered.
TEST_F(PipelineSegment, CancelEndsAfterTheFirstIterationAndKeepsTheHistory) {
  cv::Mat image(240, 320, CV_8UC3, cv::Scalar(40, 160, 60));
  cv::circle(image, cv::Point(160, 120), 60, cv::Scalar(30, 30, 210), cv::FILLED);
  start(image);
  IplImage* known = filledImage(320, 240, 1, 0);
  fillRect(known, 10, 10, 50, 50, 255);
  ZIRKSEManageUndoRedo::updateBitPlane(known);
  const int32_t current = ZIRKSEManageUndoRedo::m_current;

  loop(80, 40, 240, 200);
  ZIRKSEMarker::m_exitApp = true;
  LogCapture log;
  EXPECT_EQ(hybrid->segment(), nullptr);
  EXPECT_EQ(log.count(6, "Error", "Segmentation canceled due to timeout"), 1) << log.dump();
  double fgWeight = 0.0, bgWeight = 0.0;  // the first iteration did run: both models fitted
  for (int k = 0; k < 5; ++k) {
    fgWeight += hybrid->m_fgModel.m_weight[k];
    bgWeight += hybrid->m_bgModel.m_weight[k];
  }
  EXPECT_GT(std::min(fgWeight, bgWeight), 0.5);
  EXPECT_TRUE(hybrid->m_graph == nullptr && hybrid->m_trimapGraph == nullptr);
  EXPECT_TRUE(hybrid->m_cropSrcImage == nullptr && hybrid->m_cropLabelImage == nullptr &&
              hybrid->m_initLabelImage == nullptr);
  EXPECT_EQ(g_cancelTimer, nullptr);
  for (IplImage* h : hybrid->m_labelHistory) EXPECT_EQ(h, nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, current);
  IplImage* newest = ZIRKSEManageUndoRedo::prevMask();
  ASSERT_NE(newest, nullptr);
  EXPECT_EQ(cv::countNonZero(view(newest) != view(known)), 0);
  cvReleaseImage(&newest);

  ZIRKSEMarker::m_exitApp = false;
  hybrid->setLabelImage(marker);
  IplImage* mask = hybrid->segment();
  ASSERT_NE(mask, nullptr);
  cv::Mat expected = view(known).clone();
  cv::circle(expected, cv::Point(160, 120), 60, cv::Scalar(255), cv::FILLED);
  EXPECT_GT(intersectionOverUnion(view(mask), expected), 0.97);
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (current + 1) % 32);
  cvReleaseImage(&mask);
  cvReleaseImage(&known);
}

}  // namespace
