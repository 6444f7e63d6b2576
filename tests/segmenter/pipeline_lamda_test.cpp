// The choice of the smoothness weight among the three trials, and the final
// edge check of homogenous images.
//
// Trials are built by hand: a crop of flat grey 128 in which each trial's
// object is painted either as a flat bright block (its boundary contrast
// beats the inside: passes the contrast test) or as black/white stripes
// (inside contrast wins: fails it).
#include "support.h"

namespace {

using segtest::at;
using segtest::fillRect;
using segtest::filledImage;

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
    EXPECT_TRUE(same(hybrid->m_cropLabelImage, labels));
  }
  static bool same(IplImage* a, IplImage* b) { return cv::countNonZero(segtest::view(a) != segtest::view(b)) == 0; }
};

// Trials use truncated weights (13.513 runs as 13) and start from the user's labels.
TEST_F(PipelineLamda, TrialsRunTruncatedWeightsFromTheUserLabels) {
  const double colour[3] = {50.0, 13.0, 8.0}, grey[3] = {15.0, 10.0, 7.0};
  for (int i = 0; i < 3; ++i) {
    ZIRKSEMarker::m_isGreyScale = false;
    cvSet(hybrid->m_cropLabelImage, cvScalarAll(4));
    expectRun(i, i == 0 ? 0 : 2, colour[i], hybrid->m_initLabelImage);
    ZIRKSEMarker::m_isGreyScale = true;
    hybrid->parallelLamdaSwtich(i);
    EXPECT_EQ(hybrid->m_lamda, grey[i]);
  }
  EXPECT_EQ(hybrid->parallelLamdaSwtich(4), 1);  // later iterations only refit
  EXPECT_EQ(hybrid->m_lamda, 7.0);
}

TEST_F(PipelineLamda, NoTrialPassingTheContrastTestChoosesTrialZero) {
  trial(0, 10, 10, 30, 30, false);
  trial(1, 40, 10, 60, 30, false);
  trial(2, 10, 35, 40, 55, false);
  EXPECT_EQ(choose(), 0);
  expectRun(3, 1, 50.0, hybrid->m_labelHistory[0]);  // trial 0 with its full weight
}

TEST_F(PipelineLamda, SmallKeptAreaFallsBackWithTheUserLabels) {
  trial(0, 10, 10, 19, 19, true);  // 81 pixels
  trial(1, 40, 10, 48, 18, true);  // 64 pixels
  trial(2, 10, 35, 40, 55, false);
  EXPECT_EQ(choose(), -1);
  expectRun(3, 2, 4.0, hybrid->m_initLabelImage);
  ZIRKSEMarker::m_isGreyScale = true;
  expectRun(3, 2, 3.0, hybrid->m_initLabelImage);
}

TEST_F(PipelineLamda, SpanningTrialsPreferTheSmallestAndTiesTheEarlier) {
  // Trial 0 is empty (fails the contrast test); 1 and 2 span the box equally.
  trial(1, 4, 4, 76, 56, true);
  trial(2, 4, 4, 76, 56, true);
  EXPECT_EQ(choose(), 1);
  // Chosen, the colour candidate 13.513 is used untruncated.
  expectRun(3, 1, static_cast<double>(13.513f), hybrid->m_labelHistory[1]);
  cvSet(hybrid->m_labelHistory[2], cvScalarAll(3));
  fillRect(hybrid->m_labelHistory[2], 5, 5, 75, 55, 4);  // a smaller spanning object wins
  EXPECT_EQ(choose(), 2);
}

// Non-spanning trials are judged by the spread of their areas: similar areas
// choose the second-last member, very different ones the last; a single
// member is chosen when large enough. Only the largest parts of a trial
// count: a crowd of isolated pixels (far more parts than 8-bit labels hold)
// next to a block leaves the block.
TEST_F(PipelineLamda, NonSpanningTrialsAreJudgedByTheSpreadOfTheirAreas) {
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

// A sharp black square on white. The first trial is the fall-back only when
// it followed the edges better than the final labels; an empty one never is.
TEST_F(PipelineLamda, ChooseIterFallsBackToTheFirstTrialOnlyWhenItFollowedTheEdges) {
  cvSet(hybrid->m_cropSrcImage, cvScalarAll(255));
  fillRect(hybrid->m_cropSrcImage, 20, 15, 50, 45, 0);
  const cv::Rect firstTrials[] = {{20, 15, 30, 30}, {60, 5, 15, 7}, {0, 0, 0, 0}};
  for (const cv::Rect& r : firstTrials) {
    cvSet(hybrid->m_labelHistory[0], cvScalarAll(3));
    fillRect(hybrid->m_labelHistory[0], r.x, r.y, r.x + r.width, r.y + r.height, 4);
    cvSet(hybrid->m_cropLabelImage, cvScalarAll(3));
    fillRect(hybrid->m_cropLabelImage, 55, 10, 75, 30, 4);  // cuts through flat ground
    IplImage* before = cvCloneImage(hybrid->m_cropLabelImage);
    hybrid->chooseIter();
    EXPECT_TRUE(same(hybrid->m_cropLabelImage, r.x == 20 ? hybrid->m_labelHistory[0] : before)) << r;
    cvReleaseImage(&before);
  }
}

}  // namespace
