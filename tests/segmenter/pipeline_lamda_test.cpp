// The choice of the smoothness weight among the three trials, and the final
// edge check of homogenous images.
//
// Trials are built by hand: a crop of flat grey 128 in which each trial's
// object is painted either as a flat bright block (its boundary contrast
// beats the inside: passes the contrast test) or as black/white stripes
// (inside contrast wins: fails it).
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "pipeline_support.h"
#include "segmenter/ZIRKSEHybrid.h"

using pipeline_test::at;
using pipeline_test::fillRect;
using pipeline_test::makeImage;

namespace {

struct Box {
  int x0, y0, x1, y1;  // [x0, x1) x [y0, y1)
};

class PipelineLamda : public ::testing::Test {
 protected:
  static constexpr int kW = 80;
  static constexpr int kH = 60;

  void SetUp() override {
    hybrid.m_cropSrcImage = makeImage(kW, kH, 3, 128);
    hybrid.m_cropLabelImage = makeImage(kW, kH, 1, 3);
    hybrid.m_initLabelImage = makeImage(kW, kH, 1, 0);
    fillRect(hybrid.m_initLabelImage, 30, 20, 50, 40, 2);  // the user's marks
    for (IplImage*& h : hybrid.m_labelHistory) h = makeImage(kW, kH, 1, 3);
  }
  void TearDown() override { pipeline_test::resetEngineState(); }

  // Trial i's object: box b, painted so that it passes the contrast test or not.
  void trial(int i, Box b, bool passesContrast) {
    fillRect(hybrid.m_labelHistory[i], b.x0, b.y0, b.x1, b.y1, 4);
    if (passesContrast) {
      fillRect(hybrid.m_cropSrcImage, b.x0, b.y0, b.x1, b.y1, 230);
    } else {
      for (int y = b.y0; y < b.y1; ++y)
        for (int x = b.x0; x < b.x1; ++x)
          for (int c = 0; c < 3; ++c) at(hybrid.m_cropSrcImage, x, y, c) = x % 2 ? 255 : 0;
    }
  }

  int choose() { return hybrid.optimalLamda(hybrid.m_labelHistory, nullptr); }
  bool labelsEqual(IplImage* a, IplImage* b) {
    return cv::countNonZero(cv::cvarrToMat(a) != cv::cvarrToMat(b)) == 0;
  }

  ZIRKSEHybrid hybrid;
};

TEST_F(PipelineLamda, TrialsRunTruncatedWeightsFromTheUserLabels) {
  const double colour[3] = {50.0, 13.0, 8.0}, grey[3] = {15.0, 10.0, 7.0};
  for (int i = 0; i < 3; ++i) {
    ZIRKSEMarker::m_isGreyScale = false;
    cvSet(hybrid.m_cropLabelImage, cvScalarAll(4), nullptr);
    EXPECT_EQ(hybrid.parallelLamdaSwtich(i), i == 0 ? 0 : 2);
    EXPECT_EQ(hybrid.m_lamda, colour[i]);
    EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, hybrid.m_initLabelImage));
    ZIRKSEMarker::m_isGreyScale = true;
    hybrid.parallelLamdaSwtich(i);
    EXPECT_EQ(hybrid.m_lamda, grey[i]);
  }
  EXPECT_EQ(hybrid.parallelLamdaSwtich(4), 1);  // later iterations only refit
  EXPECT_EQ(hybrid.m_lamda, 7.0);
}

TEST_F(PipelineLamda, NoTrialPassingTheContrastTestChoosesTrialZero) {
  trial(0, {10, 10, 30, 30}, false);
  trial(1, {40, 10, 60, 30}, false);
  trial(2, {10, 35, 40, 55}, false);
  EXPECT_EQ(choose(), 0);
  // Trial 0 with its full weight, not the fall-back.
  EXPECT_EQ(hybrid.parallelLamdaSwtich(3), 1);
  EXPECT_EQ(hybrid.m_lamda, 50.0);
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, hybrid.m_labelHistory[0]));
}

TEST_F(PipelineLamda, SmallKeptAreaFallsBackWithTheUserLabels) {
  trial(0, {10, 10, 19, 19}, true);  // 81 pixels
  trial(1, {40, 10, 48, 18}, true);  // 64 pixels
  trial(2, {10, 35, 40, 55}, false);
  EXPECT_EQ(choose(), -1);
  EXPECT_EQ(hybrid.parallelLamdaSwtich(3), 2);
  EXPECT_EQ(hybrid.m_lamda, 4.0);
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, hybrid.m_initLabelImage));
  ZIRKSEMarker::m_isGreyScale = true;
  EXPECT_EQ(hybrid.parallelLamdaSwtich(3), 2);
  EXPECT_EQ(hybrid.m_lamda, 3.0);
}

TEST_F(PipelineLamda, SpanningTrialsPreferTheSmallestAndTiesTheEarlier) {
  // Trial 0 is empty (fails the contrast test); 1 and 2 span the box equally.
  const Box span{4, 4, 76, 56};
  trial(1, span, true);
  trial(2, span, true);
  EXPECT_EQ(choose(), 1);
  // Chosen, the colour candidate 13.513 is used untruncated.
  EXPECT_EQ(hybrid.parallelLamdaSwtich(3), 1);
  EXPECT_EQ(hybrid.m_lamda, static_cast<double>(13.513f));
  EXPECT_NE(hybrid.m_lamda, 13.0);
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, hybrid.m_labelHistory[1]));

  // A smaller spanning object wins whatever its place.
  cvSet(hybrid.m_labelHistory[2], cvScalarAll(3), nullptr);
  fillRect(hybrid.m_labelHistory[2], 5, 5, 75, 55, 4);
  EXPECT_EQ(choose(), 2);
}

TEST_F(PipelineLamda, NonSpanningTrialsAreJudgedByTheSpreadOfTheirAreas) {
  // Similar areas: the second-last member.
  trial(0, {5, 5, 25, 25}, true);    // 400
  trial(2, {40, 5, 59, 25}, true);   // 380
  trial(1, {5, 35, 40, 55}, false);
  EXPECT_EQ(choose(), 0);
  // Very different areas: the last member.
  cvSet(hybrid.m_labelHistory[2], cvScalarAll(3), nullptr);
  fillRect(hybrid.m_labelHistory[2], 45, 10, 47, 15, 4);  // 10 pixels
  EXPECT_EQ(choose(), 2);
  // A single member is chosen when large enough.
  cvSet(hybrid.m_labelHistory[2], cvScalarAll(3), nullptr);
  EXPECT_EQ(choose(), 0);
}

// Only the largest parts of a trial count: a large block with a crowd of
// isolated pixels (far more parts than 8-bit labels hold) keeps the block.
TEST_F(PipelineLamda, ManySmallPartsAreDroppedWithoutOverflow) {
  trial(0, {4, 4, 24, 24}, true);  // 400 pixels, labelled first
  for (int y = 30; y < 60; y += 2)
    for (int x = 0; x < 80; x += 2) at(hybrid.m_labelHistory[0], x, y, 0) = 4;  // 600 parts
  trial(1, {40, 5, 60, 25}, false);
  trial(2, {40, 35, 60, 55}, false);
  EXPECT_EQ(choose(), 0);
  // Kept area 400 against 9: a spread above 0.4 picks the last member.
  cvSet(hybrid.m_labelHistory[1], cvScalarAll(3), nullptr);
  trial(1, {40, 5, 43, 8}, true);
  EXPECT_EQ(choose(), 1);
}

class PipelineChooseIter : public PipelineLamda {
 protected:
  void SetUp() override {
    PipelineLamda::SetUp();
    // A sharp black square on white: strong edges along its outline.
    cvSet(hybrid.m_cropSrcImage, cvScalarAll(255), nullptr);
    fillRect(hybrid.m_cropSrcImage, 20, 15, 50, 45, 0);
  }
};

TEST_F(PipelineChooseIter, FallsBackToTheFirstTrialOnlyWhenItFollowedTheEdges) {
  // The first trial follows the square; the final labels cut through flat ground.
  fillRect(hybrid.m_labelHistory[0], 20, 15, 50, 45, 4);
  cvSet(hybrid.m_cropLabelImage, cvScalarAll(3), nullptr);
  fillRect(hybrid.m_cropLabelImage, 55, 10, 75, 30, 4);
  hybrid.chooseIter();
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, hybrid.m_labelHistory[0]));

  // The first trial in flat ground: the final labels stay.
  cvSet(hybrid.m_labelHistory[0], cvScalarAll(3), nullptr);
  fillRect(hybrid.m_labelHistory[0], 60, 5, 75, 12, 4);
  cvSet(hybrid.m_cropLabelImage, cvScalarAll(3), nullptr);
  fillRect(hybrid.m_cropLabelImage, 55, 10, 75, 30, 4);
  IplImage* before = cvCloneImage(hybrid.m_cropLabelImage);
  hybrid.chooseIter();
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, before));

  // An empty first trial scores 0: no fall-back.
  cvSet(hybrid.m_labelHistory[0], cvScalarAll(3), nullptr);
  hybrid.chooseIter();
  EXPECT_TRUE(labelsEqual(hybrid.m_cropLabelImage, before));
  cvReleaseImage(&before);
}

}  // namespace
