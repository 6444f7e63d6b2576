// Post-processing by edit kind and the letterbox bars, against masks built
// here and OpenCV's region labelling.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <random>
#include <vector>

#include "support.h"

namespace {

using namespace segtest;

// Loop clean-up through OpenCV's labelling: 4-connected islands under a
// tenth of the largest removed, then holes of at most 4 pixels filled.
cv::Mat cleanedLoop(cv::Mat m) {
  m = m.clone();
  cv::Mat parts, stats, centroids;
  const int islands = cv::connectedComponentsWithStats(m == 255, parts, stats, centroids, 4);
  int largest = 0;
  for (int i = 1; i < islands; ++i) largest = std::max(largest, stats.at<int>(i, cv::CC_STAT_AREA));
  for (int i = 1; i < islands; ++i)
    if (stats.at<int>(i, cv::CC_STAT_AREA) < static_cast<int64_t>(largest * 0.1)) m.setTo(0, parts == i);
  const int holes = cv::connectedComponentsWithStats(m == 0, parts, stats, centroids, 4);
  for (int i = 1; i < holes; ++i)
    if (stats.at<int>(i, cv::CC_STAT_AREA) <= 4) m.setTo(255, parts == i);
  return m;
}

class CorePostProcess : public segtest::SegmenterTest {
 protected:
  // Runs the loop clean-up on a copy of m; checks it against the oracle.
  cv::Mat loop(const cv::Mat& m) {
    IplImage* mask = toIpl(m);
    hybrid->postProcessForLoop(mask);
    const cv::Mat got = view(mask).clone();
    cvReleaseImage(&mask);
    EXPECT_EQ(cv::countNonZero(got != cleanedLoop(m)), 0);
    return got;
  }
};

// Islands of 1000, 100 (kept) and 99 (dropped) pixels; holes of one pixel,
// of four touching diagonally (filled) and of five (kept), in numbers beyond
// byte-sized region labels. Then random blobs and speckle.
TEST_F(CorePostProcess, LoopDropsSmallIslandsAndFillsSmallHoles) {
  cv::Mat m(150, 420, CV_8U, cv::Scalar(0));
  m(cv::Rect(0, 0, 100, 10)).setTo(255);
  for (int i = 0; i < 300; ++i)
    m(cv::Rect((i % 30) * 14, 14 + (i / 30) * 13, i % 2 ? 9 : 10, i % 2 ? 11 : 10)).setTo(255);
  EXPECT_EQ(cv::countNonZero(loop(m)), 1000 + 150 * 100);

  m = cv::Mat(110, 420, CV_8U, cv::Scalar(0));
  m(cv::Rect(0, 5, 420, 100)).setTo(255);
  for (int i = 0; i < 300; ++i) m.at<uint8_t>(8 + (i / 100) * 3, 2 + (i % 100) * 4) = 0;
  for (int i = 0; i < 40; ++i) m(cv::Rect(4 + i * 10, 60, 5, 1)).setTo(0);
  m(cv::Rect(200, 30, 2, 2)).setTo(0);
  m(cv::Rect(202, 32, 2, 2)).setTo(0);
  EXPECT_EQ(cv::countNonZero(loop(m)), 42000 - 40 * 5);

  std::mt19937 rng(99);
  for (int trial = 0; trial < 12; ++trial) {
    m = cv::Mat(70, 90, CV_8U, cv::Scalar(0));
    for (int b = 0; b < 25; ++b)
      cv::circle(m, {int(rng() % 90), int(rng() % 70)}, 1 + rng() % 12, cv::Scalar(255), cv::FILLED);
    for (int s = 0; s < 300; ++s) m.at<uint8_t>(rng() % 70, rng() % 90) = rng() % 2 ? 255 : 0;
    loop(m);
  }
}

// Previous result: one object square. A brush keeps only the flipped regions
// of its own kind that touch its path; points off the image are skipped.
TEST_F(CorePostProcess, BrushKeepsOnlyFlipsTouchingThePath) {
  setBox(0, 0, 80, 60);
  for (const bool adding : {true, false}) {
    const uint8_t v = adding ? 255 : 0;
    replace(ZIRKSEMarker::m_prevResult, filledImage(80, 60, 1, 0));
    const cv::Mat prev = view(ZIRKSEMarker::m_prevResult);
    prev(cv::Rect(10, 10, 30, 30)).setTo(255);
    ZIRKSEMarker::currentStroke.type = adding ? kEditStrokeAdd : kEditStrokeRemove;
    ZIRKSEMarker::currentStroke.points =
        adding ? std::vector<int>{-4, 20, 45, 20, 50, 20, 500, 20, 45, 900} : std::vector<int>{12, 12, 14, 13};
    const cv::Rect touching = adding ? cv::Rect(40, 15, 15, 10) : cv::Rect(10, 10, 6, 6);
    cv::Mat m = prev.clone(), want = prev.clone();
    m(touching).setTo(v);
    want(touching).setTo(v);
    m(adding ? cv::Rect(65, 45, 8, 8) : cv::Rect(30, 30, 5, 5)).setTo(v);        // far from the path
    m(adding ? cv::Rect(12, 12, 3, 3) : cv::Rect(60, 50, 5, 5)).setTo(255 - v);  // the other kind
    IplImage* mask = toIpl(m);
    hybrid->postProcess(mask);
    EXPECT_EQ(differ(mask, want), 0) << adding;
    cvReleaseImage(&mask);
  }
}

// Working box (5, 4) of 10 x 8 at factor 2: the cut's background applies to
// the previous result in rows 8..23, columns 10..29 only.
TEST_F(CorePostProcess, RemovingLoopOnlyRemovesInsideTheScaledBox) {
  g_imageResizeFactor = 2.0f;
  setBox(5, 4, 10, 8);
  ZIRKSEMarker::currentStroke.type = kEditLoopRemove;
  std::mt19937 rng(4);
  ZIRKSEMarker::m_prevResult = randomImage(80, 60, 1, rng, 0, 1);
  IplImage* mask = randomImage(80, 60, 1, rng, 0, 1);
  cv::Mat cut = view(mask) * 255, want = view(ZIRKSEMarker::m_prevResult) * 255;
  cut.copyTo(view(mask));
  want.copyTo(view(ZIRKSEMarker::m_prevResult));
  want(cv::Rect(10, 8, 20, 16)) &= cut(cv::Rect(10, 8, 20, 16));
  hybrid->postProcess(mask);
  EXPECT_EQ(differ(mask, want), 0);
  cvReleaseImage(&mask);
}

// Box (3, 2) of 30 x 20, black columns 3, 4 and rows 2..5, 19..21: the box
// moves to the content and the bars become fixed background. Without bars,
// or without content, nothing moves.
TEST_F(CorePostProcess, LetterboxBarsBecomeBackgroundAndTheBoxMoves) {
  std::mt19937 rng(8);
  for (int kind = 0; kind < 3; ++kind) {
    setWorkingImage(randomImage(40, 25, 3, rng, 1, 255));
    cv::Mat s = view(ZIRKSEMarker::m_srcImage);
    for (const cv::Rect& r : {cv::Rect(3, 0, 2, 25), cv::Rect(0, 2, 40, 4), cv::Rect(0, 19, 40, 3)})
      if (kind == 0) s(r).setTo(cv::Scalar::all(0));
    if (kind == 2) s.setTo(cv::Scalar::all(0));
    replace(ZIRKSEMarker::m_labelImage, filledImage(40, 25, 1, 0));
    setBox(3, 2, 30, 20);
    hybrid->removeBlackRegion();
    EXPECT_EQ(box(), kind == 0 ? cv::Rect(5, 6, 28, 13) : cv::Rect(3, 2, 30, 20)) << kind;
    cv::Mat want(25, 40, CV_8U, cv::Scalar(0));
    want(cv::Rect(3, 2, 30, 20)).setTo(kind == 0 ? 1 : 0);
    want(cv::Rect(6, 7, 26, 11)).setTo(0);  // box columns 3..28, rows 5..15
    EXPECT_EQ(differ(ZIRKSEMarker::m_labelImage, want), 0) << kind;
  }
}

}  // namespace
