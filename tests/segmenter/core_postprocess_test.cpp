// Post-processing by edit kind and the letterbox bars, against masks built
// here and a plain breadth-first region oracle.
#include <opencv2/imgproc.hpp>

#include <queue>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "core_support.h"

namespace {

using coretest::at;
using coretest::SegmenterTest;

cv::Mat view(IplImage* img) { return cv::cvarrToMat(img); }

// 4-connected regions of the pixels equal to value, by breadth-first search.
std::vector<std::vector<cv::Point>> regions(const cv::Mat& m, uint8_t value) {
  std::vector<std::vector<cv::Point>> out;
  cv::Mat seen(m.size(), CV_8U, cv::Scalar(0));
  for (int y = 0; y < m.rows; ++y)
    for (int x = 0; x < m.cols; ++x) {
      if (m.at<uint8_t>(y, x) != value || seen.at<uint8_t>(y, x)) continue;
      std::vector<cv::Point> region;
      std::queue<cv::Point> q;
      q.push({x, y});
      seen.at<uint8_t>(y, x) = 1;
      while (!q.empty()) {
        const cv::Point p = q.front();
        q.pop();
        region.push_back(p);
        const cv::Point next[4] = {{p.x - 1, p.y}, {p.x + 1, p.y}, {p.x, p.y - 1}, {p.x, p.y + 1}};
        for (const cv::Point& n : next) {
          if (n.x < 0 || n.y < 0 || n.x >= m.cols || n.y >= m.rows) continue;
          if (m.at<uint8_t>(n) != value || seen.at<uint8_t>(n)) continue;
          seen.at<uint8_t>(n) = 1;
          q.push(n);
        }
      }
      out.push_back(region);
    }
  return out;
}

// Islands under a tenth of the largest removed, then holes of <= 4 filled.
cv::Mat cleanedLoop(cv::Mat m) {
  m = m.clone();
  const auto islands = regions(m, 255);
  size_t largest = 0;
  for (const auto& r : islands) largest = std::max(largest, r.size());
  const int64_t t = static_cast<int64_t>(largest * 0.1);
  for (const auto& r : islands)
    if (static_cast<int64_t>(r.size()) < t)
      for (const cv::Point& p : r) m.at<uint8_t>(p) = 0;
  for (const auto& r : regions(m, 0))
    if (r.size() <= 4)
      for (const cv::Point& p : r) m.at<uint8_t>(p) = 255;
  return m;
}

void expectSame(const cv::Mat& got, const cv::Mat& want) {
  ASSERT_EQ(got.size(), want.size());
  EXPECT_EQ(cv::countNonZero(got != want), 0);
}

class CorePostProcess : public SegmenterTest {};

TEST_F(CorePostProcess, LoopIslandAndHoleThresholds) {
  // Islands of 1000, 100 and 99 pixels: the threshold is 100.
  IplImage* mask = coretest::filledImage(120, 80, 1, 0);
  cv::Mat m = view(mask);
  m(cv::Rect(2, 2, 40, 25)).setTo(255);
  m(cv::Rect(60, 10, 10, 10)).setTo(255);
  m(cv::Rect(60, 40, 9, 11)).setTo(255);
  hybrid->postProcessForLoop(mask);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(2, 2, 40, 25))), 1000);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(60, 10, 10, 10))), 100);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(60, 40, 9, 11))), 0);
  EXPECT_EQ(cv::countNonZero(m), 1100);

  // Holes of 4 pixels are filled, of 5 kept; a diagonal touch does not join.
  m.setTo(0);
  m(cv::Rect(5, 5, 60, 40)).setTo(255);
  m(cv::Rect(10, 10, 2, 2)).setTo(0);
  m(cv::Rect(20, 10, 5, 1)).setTo(0);
  m(cv::Rect(30, 10, 2, 2)).setTo(0);
  m(cv::Rect(32, 12, 2, 2)).setTo(0);
  hybrid->postProcessForLoop(mask);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(10, 10, 2, 2))), 4);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(20, 10, 5, 1))), 0);
  EXPECT_EQ(cv::countNonZero(m(cv::Rect(30, 10, 4, 4))), 8 + 8);
  cvReleaseImage(&mask);
}

TEST_F(CorePostProcess, LoopCleaningMatchesRegionOracleOnRandomMasks) {
  std::mt19937 rng(99);
  for (int trial = 0; trial < 12; ++trial) {
    // Blobs of random size, and speckle, so both rules have work.
    cv::Mat m(70, 90, CV_8U, cv::Scalar(0));
    std::uniform_int_distribution<int> px(0, 89), py(0, 69), rad(1, 12), coin(0, 99);
    for (int b = 0; b < 25; ++b) cv::circle(m, {px(rng), py(rng)}, rad(rng), cv::Scalar(255), cv::FILLED);
    for (int s = 0; s < 300; ++s) m.at<uint8_t>(py(rng), px(rng)) = coin(rng) < 50 ? 0 : 255;
    const cv::Mat want = cleanedLoop(m);
    IplImage* mask = coretest::toIpl(m);
    hybrid->postProcessForLoop(mask);
    expectSame(view(mask), want);
    cvReleaseImage(&mask);
  }
}

TEST_F(CorePostProcess, LoopCleaningTellsApartMoreThan253Regions) {
  // Byte-sized region labels would wrap after 253 regions and mix regions up.
  // Islands: one of 1000 pixels (threshold 100), then 150 of 100 pixels
  // (kept) and 150 of 99 (dropped).
  cv::Mat m(150, 420, CV_8U, cv::Scalar(0));
  m(cv::Rect(0, 0, 100, 10)).setTo(255);
  for (int i = 0; i < 300; ++i) {
    const int cx = (i % 30) * 14, cy = 14 + (i / 30) * 13;
    m(i % 2 == 0 ? cv::Rect(cx, cy, 10, 10) : cv::Rect(cx, cy, 9, 11)).setTo(255);
  }
  cv::Mat want = cleanedLoop(m);
  IplImage* mask = coretest::toIpl(m);
  hybrid->postProcessForLoop(mask);
  expectSame(view(mask), want);
  EXPECT_EQ(cv::countNonZero(view(mask)), 1000 + 150 * 100);
  cvReleaseImage(&mask);

  // Holes: 300 of one pixel (filled) and 40 of five (kept) in one object.
  m = cv::Mat(110, 420, CV_8U, cv::Scalar(0));
  m(cv::Rect(0, 5, 420, 100)).setTo(255);
  for (int i = 0; i < 300; ++i) m.at<uint8_t>(8 + (i / 100) * 3, 2 + (i % 100) * 4) = 0;
  for (int i = 0; i < 40; ++i) m(cv::Rect(4 + i * 10, 60, 5, 1)).setTo(0);
  want = cleanedLoop(m);
  mask = coretest::toIpl(m);
  hybrid->postProcessForLoop(mask);
  expectSame(view(mask), want);
  EXPECT_EQ(cv::countNonZero(view(mask)(cv::Rect(0, 5, 420, 100))), 42000 - 40 * 5);
  cvReleaseImage(&mask);
}

// Previous result with one object square; the new cut flips a region touching
// the path and a far one.
class CoreStrokeEdit : public CorePostProcess {
 protected:
  void SetUp() override {
    CorePostProcess::SetUp();
    ZIRKSEMarker::m_prevResult = coretest::filledImage(80, 60, 1, 0);
    view(ZIRKSEMarker::m_prevResult)(cv::Rect(10, 10, 30, 30)).setTo(255);
  }
};

TEST_F(CoreStrokeEdit, AddingBrushKeepsOnlyFlipsTouchingThePath) {
  ZIRKSEMarker::currentStroke.type = kEditStrokeAdd;
  // Path over (45..50, 20), plus points off the image that must be skipped.
  ZIRKSEMarker::currentStroke.points = {-4, 20, 45, 20, 50, 20, 500, 20, 45, 900};
  IplImage* mask = cvCloneImage(ZIRKSEMarker::m_prevResult);
  cv::Mat m = view(mask);
  m(cv::Rect(40, 15, 15, 10)).setTo(255);  // touches the path
  m(cv::Rect(65, 45, 8, 8)).setTo(255);    // far away
  m(cv::Rect(12, 12, 3, 3)).setTo(0);      // a removal: not this edit's kind
  cv::Mat want = view(ZIRKSEMarker::m_prevResult).clone();
  want(cv::Rect(40, 15, 15, 10)).setTo(255);
  hybrid->postProcessForStroke(mask);
  expectSame(m, want);
  cvReleaseImage(&mask);
}

TEST_F(CoreStrokeEdit, RemovingBrushKeepsOnlyFlipsTouchingThePath) {
  ZIRKSEMarker::currentStroke.type = kEditStrokeRemove;
  ZIRKSEMarker::currentStroke.points = {12, 12, 14, 13};
  IplImage* mask = cvCloneImage(ZIRKSEMarker::m_prevResult);
  cv::Mat m = view(mask);
  m(cv::Rect(10, 10, 6, 6)).setTo(0);    // under the path
  m(cv::Rect(30, 30, 5, 5)).setTo(0);    // far inside the object
  m(cv::Rect(60, 50, 5, 5)).setTo(255);  // an addition: not this edit's kind
  cv::Mat want = view(ZIRKSEMarker::m_prevResult).clone();
  want(cv::Rect(10, 10, 6, 6)).setTo(0);
  setBox(0, 0, 80, 60);
  hybrid->postProcess(mask);  // brush kinds go through the stroke clean-up
  expectSame(m, want);
  cvReleaseImage(&mask);
}

TEST_F(CoreStrokeEdit, RemovingLoopOnlyRemovesInsideTheScaledBox) {
  // Working box (5, 4) of 10 x 8 at factor 2: rows 8..23, columns 10..29.
  g_imageResizeFactor = 2.0f;
  setBox(5, 4, 10, 8);
  ZIRKSEMarker::currentStroke.type = kEditLoopRemove;
  std::mt19937 rng(4);
  IplImage* mask = coretest::randomImage(80, 60, 1, rng, 0, 1);
  cv::Mat m = view(mask);
  m *= 255;
  const cv::Mat cut = m.clone();
  hybrid->postProcess(mask);
  const cv::Mat prev = view(ZIRKSEMarker::m_prevResult);
  const cv::Rect box(10, 8, 20, 16);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 80; ++x) {
      const bool inBox = box.contains({x, y});
      const uint8_t want = (inBox && cut.at<uint8_t>(y, x) == 0) ? 0 : prev.at<uint8_t>(y, x);
      ASSERT_EQ(m.at<uint8_t>(y, x), want) << x << "," << y;
    }
  EXPECT_LT(cv::countNonZero(m), cv::countNonZero(prev));
  cvReleaseImage(&mask);
}

TEST_F(CorePostProcess, LetterboxBarsBecomeBackgroundAndTheBoxMoves) {
  // Box (3, 2) of 30 x 20 over an image whose columns 3, 4 and rows 2..5 and
  // 19..21 are black: content spans box columns 2..29 and rows 4..16.
  std::mt19937 rng(8);
  IplImage* src = coretest::randomImage(40, 25, 3, rng, 1, 255);
  cv::Mat s = cv::cvarrToMat(src);
  s.colRange(3, 5).setTo(cv::Scalar::all(0));
  s.rowRange(2, 6).setTo(cv::Scalar::all(0));
  s.rowRange(19, 22).setTo(cv::Scalar::all(0));
  setWorkingImage(src);
  ZIRKSEMarker::m_labelImage = coretest::filledImage(40, 25, 1, 0);
  setBox(3, 2, 30, 20);
  hybrid->removeBlackRegion();
  EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, 5);
  EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, 6);
  EXPECT_EQ(hybrid->m_cropWidth, 28);
  EXPECT_EQ(hybrid->m_cropHeight, 13);
  const cv::Mat labels = cv::cvarrToMat(ZIRKSEMarker::m_labelImage);
  for (int y = 0; y < 25; ++y)
    for (int x = 0; x < 40; ++x) {
      const int c = x - 3, r = y - 2;
      const bool inBox = c >= 0 && c < 30 && r >= 0 && r < 20;
      const bool band = inBox && (c <= 2 || c >= 29 || r <= 4 || r >= 16);
      ASSERT_EQ(labels.at<uint8_t>(y, x), band ? 1 : 0) << x << "," << y;
    }
}

TEST_F(CorePostProcess, BoxWithoutBarsOrWithoutContentStays) {
  std::mt19937 rng(2);
  setWorkingImage(coretest::randomImage(20, 15, 3, rng, 1, 255));
  ZIRKSEMarker::m_labelImage = coretest::filledImage(20, 15, 1, 0);
  setBox(2, 2, 10, 8);
  hybrid->removeBlackRegion();  // no black line
  cv::cvarrToMat(ZIRKSEMarker::m_srcImage).setTo(cv::Scalar::all(0));
  hybrid->removeBlackRegion();  // all black
  EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, 2);
  EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, 2);
  EXPECT_EQ(hybrid->m_cropWidth, 10);
  EXPECT_EQ(hybrid->m_cropHeight, 8);
  EXPECT_EQ(cv::countNonZero(cv::cvarrToMat(ZIRKSEMarker::m_labelImage)), 0);
}

}  // namespace
