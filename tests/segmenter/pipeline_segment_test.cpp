// From a marker image to labels: an edit's labels, and the budget check
// between iterations. (The photos run through the whole engine, refinement
// included, in the mask regression.)
#include <chrono>
#include <thread>
#include <vector>

#include "support.h"

namespace {

using namespace segtest;

class PipelineSegment : public segtest::SegmenterTest {
 protected:
  void TearDown() override {
    ZIRK_ReleaseImage(&marker);
    SegmenterTest::TearDown();
  }
  // Source image, history and a fresh segmenter, as the engine sets them up.
  void start(const cv::Mat& bgr) {
    ZIRKSEMarker::m_originalImage = toIpl(bgr);
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
  int label(int x, int y) { return at(ZIRKSEMarker::m_labelImage, x, y); }

  IplImage* marker = nullptr;
};

// Loop: outside fixed background, the closed path unknown; one point draws
// nothing. Brushes: a ring of radius 5 around the mark, estimated on its
// side. With a previous result, unmarked pixels keep it as fixed labels and
// marked pixels already on the edit's side are fixed.
TEST_F(PipelineSegment, EditsBecomeLabels) {
  start(cv::Mat(100, 100, CV_8UC3, cv::Scalar(90, 90, 90)));
  mark(kEditLoopAdd, 10, 8, 29, 21, 4, {10, 8, 29, 8, 29, 21, 10, 21});
  EXPECT_EQ(std::vector<int>({label(0, 0), label(20, 15), label(20, 11), label(20, 7), label(10, 15)}),
            std::vector<int>({1, 4, 4, 0, 0}));
  mark(kEditLoopAdd, 10, 8, 29, 21, 4, {20, 15});
  EXPECT_EQ(cv::countNonZero(view(ZIRKSEMarker::m_labelImage) == 0), 0);
  for (const int kind : {kEditStrokeAdd, kEditStrokeRemove}) {
    const int own = kind == kEditStrokeAdd ? 2 : 1, ring = kind == kEditStrokeAdd ? 4 : 3;
    mark(kind, 50, 50, 50, 50, own, {});
    EXPECT_EQ(std::vector<int>({label(50, 50), label(55, 50), label(45, 45), label(56, 50)}),
              std::vector<int>({own, ring, ring, 1}));
    EXPECT_EQ(cv::countNonZero(view(ZIRKSEMarker::m_labelImage) == ring), 11 * 11 - 1);
  }
  IplImage* prev = filledImage(100, 100, 1, 0);
  fillRect(prev, 0, 0, 50, 100, 255);
  ZIRKSEManageUndoRedo::updateBitPlane(prev);
  cvReleaseImage(&prev);
  for (const int kind : {kEditLoopAdd, kEditLoopRemove}) {
    const bool adding = kind == kEditLoopAdd;
    mark(kind, 5, 10, 94, 19, 4, {});  // a band across both halves
    EXPECT_EQ(std::vector<int>({label(5, 2), label(80, 2), label(10, 15), label(80, 15)}),
              std::vector<int>({2, 1, adding ? 2 : 4, adding ? 4 : 1}));
  }
}

// Checking the budget between iterations leaves its timer running, so the
// max-flow of the next iteration still sees time pass.
TEST_F(PipelineSegment, BudgetCheckLeavesTheTimerRunning) {
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  EXPECT_FALSE(hybrid->cancelSegmentation());
  const double first = get_elapsed_time_in_millisec(g_cancelTimer);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_GE(get_elapsed_time_in_millisec(g_cancelTimer), first + 4.0);
  g_cancelTimer->start.tv_sec -= 11;  // the budget is now spent
  EXPECT_TRUE(ZIRK_shouldStopSegmentation() && hybrid->cancelSegmentation());
}

}  // namespace
