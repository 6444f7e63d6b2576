// The process-wide marker state: encodings, initial values, set-up, reset and release.
#include <gtest/gtest.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <random>
#include <vector>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKTimer.h"

namespace {

class MarkerState : public ::testing::Test {
 protected:
  void TearDown() override { ZIRKSEMarker::dellocator(); }
  static IplImage* image(int channels) { return cvCreateImage(cvSize(4, 3), IPL_DEPTH_8U, channels); }
  static void fillAll() {
    for (IplImage** p : {&ZIRKSEMarker::m_srcImage, &ZIRKSEMarker::m_originalImage})
      *p = image(3);
    for (IplImage** p : {&ZIRKSEMarker::m_labelImage, &ZIRKSEMarker::m_prevResult,
                         &ZIRKSEMarker::m_texHor, &ZIRKSEMarker::m_texVer})
      *p = image(1);
  }
};

TEST_F(MarkerState, EncodingsAndInitialGlobals) {
  for (int kind : {kEditLoopAdd, kEditStrokeAdd, kEditLoopRemove, kEditStrokeRemove}) {
    EXPECT_EQ(isAddingEdit(kind), kind == kEditLoopAdd || kind == kEditStrokeAdd) << kind;
    EXPECT_EQ(isBrushEdit(kind), kind == kEditStrokeAdd || kind == kEditStrokeRemove) << kind;
  }
  for (int label = 0; label < 256; ++label)
    EXPECT_EQ(isObjectLabel(static_cast<uint8_t>(label)), label == 2 || label == 4);
  EXPECT_EQ(g_imageResizeFactor, 1.0f);
  EXPECT_EQ(g_exitStatus + g_contoursFound, 0);
  EXPECT_TRUE(pHybrid == nullptr && g_markerImage == nullptr && g_resultMask == nullptr);
  EXPECT_EQ(g_t_maxflow, 0.0);
}

TEST_F(MarkerState, InitializerOnlyNullsTheLabelImage) {
  IplImage* label = image(1);
  ZIRKSEMarker::m_labelImage = label;
  ZIRKSEMarker::m_exitApp = true;
  ZIRKSEMarker::m_isHomogenous = true;
  ZIRKSEMarker::m_noiseLevel = 10.0;
  ZIRKSEMarker::initializer();
  EXPECT_EQ(ZIRKSEMarker::m_labelImage, nullptr);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
  EXPECT_FALSE(ZIRKSEMarker::m_isHomogenous);
  EXPECT_EQ(ZIRKSEMarker::m_noiseLevel, 0.1);
  cvReleaseImage(&label);  // the initializer does not own it
}

// Reset drops the per-edit images but keeps the sources and the path's
// storage; release frees everything and may be repeated.
TEST_F(MarkerState, ResetKeepsSourcesAndReleaseFreesEverything) {
  fillAll();
  ZIRKSEMarker::currentStroke.points.assign(100, 7);
  const size_t capacity = ZIRKSEMarker::currentStroke.points.capacity();
  ZIRKSEMarker::m_exitApp = true;
  ZIRKSEMarker::resetMarkers();
  EXPECT_TRUE(ZIRKSEMarker::m_labelImage == nullptr && ZIRKSEMarker::m_prevResult == nullptr);
  for (IplImage* p : {ZIRKSEMarker::m_srcImage, ZIRKSEMarker::m_originalImage,
                      ZIRKSEMarker::m_texHor, ZIRKSEMarker::m_texVer})
    EXPECT_NE(p, nullptr);
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());
  EXPECT_EQ(ZIRKSEMarker::currentStroke.points.capacity(), capacity);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
  EXPECT_EQ(ZIRKSEMarker::m_noiseLevel, 0.1);

  ZIRKSEMarker::currentStroke.points = {1, 2, 3, 4};
  ZIRKSEMarker::dellocator();
  ZIRKSEMarker::dellocator();  // a sanitizer build catches any second release
  for (IplImage* p : {ZIRKSEMarker::m_srcImage, ZIRKSEMarker::m_originalImage,
                      ZIRKSEMarker::m_texHor, ZIRKSEMarker::m_texVer})
    EXPECT_EQ(p, nullptr);
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());
}

TEST_F(MarkerState, StopTestFollowsCancelFlagAndBudget) {
  ZIRKTimer* saved = g_cancelTimer;
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  ZIRKSEMarker::m_exitApp = false;
  EXPECT_FALSE(ZIRK_shouldStopSegmentation());
  ZIRKSEMarker::m_exitApp = true;
  EXPECT_TRUE(ZIRK_shouldStopSegmentation());
  ZIRKSEMarker::m_exitApp = false;
  g_cancelTimer->start.tv_sec -= 11;
  EXPECT_TRUE(ZIRK_shouldStopSegmentation());
  destroy_timer(g_cancelTimer);
  g_cancelTimer = saved;
}

TEST_F(MarkerState, ContourStorageReleaseForgetsTheContours) {
  storage = cvCreateMemStorage(0);
  g_contoursFound = 1;
  contours = reinterpret_cast<CvSeq*>(storage);  // any non-null stand-in
  ZIRK_ReleaseContourStorage();
  ZIRK_ReleaseContourStorage();
  EXPECT_TRUE(storage == nullptr && contours == nullptr);
  EXPECT_EQ(g_contoursFound, 0);
}

// The drawn path against the plain drawing (every line of the closed path
// with cvLine) on random paths: dense walks where many points share a
// working pixel, scattered points, short and degenerate ones.
TEST(DrawnPath, SameLabelsAsDrawingEveryLine) {
  std::mt19937 rng(3);
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 40 + static_cast<int>(rng() % 40), h = 30 + static_cast<int>(rng() % 40);
    const float factor = trial % 3 == 0 ? 1.0f : 1.0f + static_cast<float>(rng() % 1000) / 100.0f;
    const int fullW = static_cast<int>(w * factor), fullH = static_cast<int>(h * factor);
    const int n = trial % 10 == 0 ? static_cast<int>(rng() % 3) : 1 + static_cast<int>(rng() % 300);
    std::vector<int32_t> points;
    int x = static_cast<int>(rng() % fullW), y = static_cast<int>(rng() % fullH);
    for (int i = 0; i < n; ++i) {
      if (trial % 2 == 0) {  // a walk
        x = std::min(std::max(x + static_cast<int>(rng() % 5) - 2, 0), fullW - 1);
        y = std::min(std::max(y + static_cast<int>(rng() % 5) - 2, 0), fullH - 1);
      } else {
        x = static_cast<int>(rng() % fullW);
        y = static_cast<int>(rng() % fullH);
      }
      points.push_back(x);
      points.push_back(y);
    }
    if (trial % 7 == 0) points.push_back(5);  // an odd last int is ignored
    if (trial == 1) points = {3, 4, 5};         // one point and an odd int: nothing
    IplImage* fast = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    cvSet(fast, cvScalar(4));
    IplImage* plain = cvCloneImage(fast);
    ZIRK_clearDrawnPath(fast, points, factor);
    const size_t count = points.size() / 2;
    auto at = [&](size_t i) {
      return cvPoint(static_cast<int>(static_cast<float>(points[2 * i]) / factor),
                     static_cast<int>(static_cast<float>(points[2 * i + 1]) / factor));
    };
    if (points.size() >= 3) {
      for (size_t i = 0; i + 1 < count; ++i) cvLine(plain, at(i), at(i + 1), cvScalar(0), 3, 8, 0);
      if (count >= 2) cvLine(plain, at(count - 1), at(0), cvScalar(0), 3, 8, 0);
    }
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c)
        ASSERT_EQ(CV_IMAGE_ELEM(fast, uint8_t, r, c), CV_IMAGE_ELEM(plain, uint8_t, r, c))
            << "trial " << trial << " at (" << c << ", " << r << ")";
    cvReleaseImage(&fast);
    cvReleaseImage(&plain);
  }
}

}  // namespace
