// The segmenter's stages: an edit's labels from the marker image, image
// analysis (grey test, texture maps, the border test of a trial result, the
// box tightening), the choice among the trials, the budget check between
// iterations. (The photos run through the whole engine in the mask regression.)
#include <chrono>
#include <cstdlib>
#include <random>
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

class PipelineAnalysis : public segtest::SegmenterTest {};

// Grey test: mean channel spread 0, 3/4 (grey), exactly 1 (colour). Border
// test: white columns [x0, x1) of rows 10..90, tx = 15, far side W - xmax;
// only 255 counts.
TEST_F(PipelineAnalysis, GreyAndBorderTestsAndTextureMaps) {
  IplImage* img = filledImage(2, 2, 3, 100);
  for (const int blue : {100, 103, 104}) {
    at(img, 1, 0, 2) = static_cast<uint8_t>(blue);
    EXPECT_EQ(hybrid->greyScaleTest(img), blue != 104) << blue;
  }
  cvReleaseImage(&img);
  IplImage* mask = filledImage(100, 100, 1, 254);
  EXPECT_FALSE(hybrid->boundaryTest(mask, 0.15f));
  const struct { int x0, x1; bool spans; } cases[] = {{10, 91, true}, {20, 91, false}, {0, 86, false}, {0, 87, true}};
  for (const auto& c : cases) {
    cvSetZero(mask);
    fillRect(mask, c.x0, 10, c.x1, 91, 255);
    EXPECT_EQ(hybrid->boundaryTest(mask, 0.15f), c.spans) << c.x0 << ".." << c.x1 - 1;
  }
  cvReleaseImage(&mask);

  // Texture maps: inside the image, the differences of channel 0 to the
  // right and to the row above.
  std::mt19937 rng(11);
  IplImage* src = randomImage(7, 5, 3, rng);
  replace(ZIRKSEMarker::m_srcImage, src);
  hybrid->computeTexture();
  for (int y = 1; y < 5; ++y)
    for (int x = 0; x + 1 < 7; ++x) {
      EXPECT_EQ(at(ZIRKSEMarker::m_texHor, x, y), std::abs(at(src, x + 1, y) - at(src, x, y))) << x << "," << y;
      EXPECT_EQ(at(ZIRKSEMarker::m_texVer, x, y), std::abs(at(src, x, y - 1) - at(src, x, y))) << x << "," << y;
    }
}

// A flat box stays as it is. A textured object on flat ground: the box
// closes in on the object plus at most a few lines of smooth ground, and
// everything it gives up (and its own rim) becomes fixed background. A faint
// 128/129 checkerboard beside a wide object of strong texture has gradient 0,
// so it is no structure, but its step from column to column is 1 in every
// row, a moderate mean over the box's rows: the box grows back over it.
TEST_F(PipelineAnalysis, PreProcessTightensAroundStructureAndGrowsBackOverFaintGround) {
  const auto run = [&](const cv::Mat& grey) {
    setWorkingImage(filledImage(120, 90, 3, 128));
    replace(ZIRKSEMarker::m_labelImage, filledImage(120, 90, 1, 4));
    setBox(5, 5, 110, 80);
    cv::Mat channels[] = {grey, grey, grey};
    cv::merge(channels, 3, view(ZIRKSEMarker::m_srcImage));
    hybrid->preProcess();
    return box();
  };
  cv::Mat grey(90, 120, CV_8U, cv::Scalar(128));
  EXPECT_EQ(run(grey), cv::Rect(5, 5, 110, 80));
  EXPECT_EQ(differ(ZIRKSEMarker::m_labelImage, cv::Mat(90, 120, CV_8U, cv::Scalar(4))), 0);

  cv::RNG(3).fill(grey(cv::Rect(40, 30, 40, 30)), cv::RNG::UNIFORM, 0, 256);
  const cv::Rect b = run(grey);
  EXPECT_TRUE(b.x < 40 && b.y < 30 && b.br().x > 80 && b.br().y > 60) << b;
  EXPECT_EQ(b & cv::Rect(30, 20, 60, 50), b) << b;  // at most 10 lines of ground
  cv::Mat want(90, 120, CV_8U, cv::Scalar(4));
  want(cv::Rect(5, 5, 110, 80)).setTo(1);
  want(cv::Rect(b.x + 1, b.y + 1, b.width - 2, b.height - 2)).setTo(4);
  EXPECT_EQ(differ(ZIRKSEMarker::m_labelImage, want), 0);

  grey.setTo(128);
  for (int y = 40; y < 52; ++y)
    for (int x = 15 + y % 2; x < 105; x += 2) grey.at<uint8_t>(y, x) = 129;
  cv::RNG(5).fill(grey(cv::Rect(45, 40, 30, 12)), cv::RNG::UNIFORM, 0, 256);
  const cv::Rect grown = run(grey);
  EXPECT_TRUE(grown.x <= 15 && grown.br().x >= 105) << grown;
}

// The choice of the smoothness weight among the three trials, and the final
// edge check. Each trial's object is painted on flat grey as a bright block
// (passes the contrast test) or as black/white stripes (fails it).
class PipelineLamda : public segtest::SegmenterTest {
 protected:
  void SetUp() override {
    hybrid->m_cropSrcImage = filledImage(80, 60, 3, 128);
    hybrid->m_cropLabelImage = filledImage(80, 60, 1, 3);
    hybrid->m_initLabelImage = filledImage(80, 60, 1, 0);
    fillRect(hybrid->m_initLabelImage, 30, 20, 50, 40, 2);  // the user's marks
    for (IplImage*& h : hybrid->m_labelHistory) h = filledImage(80, 60, 1, 3);
  }
  // Trial i's object is [x0, x1) x [y0, y1) alone, passing the contrast test or not.
  void trial(int i, int x0, int y0, int x1, int y1, bool passes) {
    cvSet(hybrid->m_labelHistory[i], cvScalarAll(3));
    fillRect(hybrid->m_labelHistory[i], x0, y0, x1, y1, 4);
    fillRect(hybrid->m_cropSrcImage, x0, y0, x1, y1, 230);
    for (int x = x0; x < x1 && !passes; x += 2) fillRect(hybrid->m_cropSrcImage, x, y0, x + 1, y1, 0);
  }
  int choose() { return hybrid->optimalLamda(hybrid->m_labelHistory, nullptr); }
  // The run that follows the choice: its return, weight and starting labels.
  void expectRun(int index, int status, double lamda, IplImage* labels) {
    EXPECT_EQ(hybrid->parallelLamdaSwtich(index), status);
    EXPECT_EQ(hybrid->m_lamda, lamda);
    EXPECT_EQ(differ(hybrid->m_cropLabelImage, view(labels)), 0);
  }
};

// Trials run with truncated weights from the user's labels; later iterations
// only refit. No trial passing chooses trial 0 at its full weight; under 100
// kept pixels choose the fall-back weight with the user's labels.
TEST_F(PipelineLamda, TrialWeightsAndTheRunAfterTheChoice) {
  cvSet(hybrid->m_cropLabelImage, cvScalarAll(4));
  expectRun(1, 2, 13.0, hybrid->m_initLabelImage);
  ZIRKSEMarker::m_isGreyScale = true;
  cvSet(hybrid->m_cropLabelImage, cvScalarAll(4));
  expectRun(0, 0, 15.0, hybrid->m_initLabelImage);
  EXPECT_EQ(hybrid->parallelLamdaSwtich(4), 1);
  ZIRKSEMarker::m_isGreyScale = false;
  trial(0, 10, 10, 30, 30, false);
  trial(1, 40, 10, 60, 30, false);
  trial(2, 10, 35, 40, 55, false);
  EXPECT_EQ(choose(), 0);
  expectRun(3, 1, 50.0, hybrid->m_labelHistory[0]);
  cvSet(hybrid->m_cropSrcImage, cvScalarAll(128));
  trial(0, 10, 10, 19, 19, true);  // 81 pixels
  trial(1, 40, 10, 48, 18, true);  // 64 pixels
  trial(2, 10, 35, 40, 55, false);
  EXPECT_EQ(choose(), -1);
  expectRun(3, 2, 4.0, hybrid->m_initLabelImage);
  ZIRKSEMarker::m_isGreyScale = true;
  expectRun(3, 2, 3.0, hybrid->m_initLabelImage);
}

// Among spanning trials the smallest wins, ties the earlier. Others are
// judged by the spread of their areas: similar areas choose the second-last
// member, very different ones the last, a single one when large enough. Only
// a trial's largest parts count, even beyond 255 parts.
TEST_F(PipelineLamda, SpanningTrialsFirstThenTheSpreadOfTheAreas) {
  trial(1, 4, 4, 76, 56, true);
  trial(2, 4, 4, 76, 56, true);
  EXPECT_EQ(choose(), 1);
  expectRun(3, 1, static_cast<double>(13.513f), hybrid->m_labelHistory[1]);  // untruncated
  trial(2, 5, 5, 75, 55, true);
  EXPECT_EQ(choose(), 2);

  cvSet(hybrid->m_cropSrcImage, cvScalarAll(128));
  trial(0, 5, 5, 25, 25, true);    // 400
  trial(2, 40, 5, 59, 25, true);   // 380
  trial(1, 5, 35, 40, 55, false);
  EXPECT_EQ(choose(), 0);
  trial(2, 45, 10, 47, 15, true);  // 10
  EXPECT_EQ(choose(), 2);
  cvSet(hybrid->m_labelHistory[2], cvScalarAll(3));
  EXPECT_EQ(choose(), 0);

  cvSet(hybrid->m_cropSrcImage, cvScalarAll(128));
  trial(0, 4, 4, 24, 24, true);
  for (int y = 30; y < 60; y += 2)
    for (int x = 0; x < 80; x += 2) at(hybrid->m_labelHistory[0], x, y) = 4;  // 600 parts
  trial(1, 40, 5, 60, 25, false);
  trial(2, 40, 35, 60, 55, false);
  EXPECT_EQ(choose(), 0);
  trial(1, 40, 5, 43, 8, true);  // kept area 400 against 9: the last member
  EXPECT_EQ(choose(), 1);
}

// A sharp and a faint (edge magnitude 48) square on white: the first trial is
// the fall-back only when it followed strong edges better than the final labels.
TEST_F(PipelineLamda, ChooseIterFallsBackToTheFirstTrialOnlyWhenItFollowedTheEdges) {
  cvSet(hybrid->m_cropSrcImage, cvScalarAll(255));
  fillRect(hybrid->m_cropSrcImage, 20, 15, 50, 45, 0);
  fillRect(hybrid->m_cropSrcImage, 58, 36, 76, 56, 243);
  for (const cv::Rect& r : {cv::Rect(20, 15, 30, 30), cv::Rect(60, 5, 15, 7), cv::Rect(58, 36, 18, 20), cv::Rect()}) {
    cvSet(hybrid->m_labelHistory[0], cvScalarAll(3));
    fillRect(hybrid->m_labelHistory[0], r.x, r.y, r.x + r.width, r.y + r.height, 4);
    cvSet(hybrid->m_cropLabelImage, cvScalarAll(3));
    fillRect(hybrid->m_cropLabelImage, 55, 10, 75, 30, 4);  // cuts through flat ground
    const cv::Mat before = view(hybrid->m_cropLabelImage).clone();
    hybrid->chooseIter();
    EXPECT_EQ(differ(hybrid->m_cropLabelImage, r.x == 20 ? view(hybrid->m_labelHistory[0]) : before), 0) << r;
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
