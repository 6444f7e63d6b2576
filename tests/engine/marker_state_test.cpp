// The process-wide marker state: encodings, initial values, set-up, reset
// and release, the stop test, and the drawn path against plain drawing.
#include <gtest/gtest.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <random>
#include <vector>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKTimer.h"

namespace {

IplImage* image(int channels) { return cvCreateImage(cvSize(4, 3), IPL_DEPTH_8U, channels); }

TEST(MarkerState, EncodingsInitialGlobalsAndInitializer) {
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

  // The initializer nulls the label image (it does not own it) and the flags.
  IplImage* label = image(1);
  ZIRKSEMarker::m_labelImage = label;
  ZIRKSEMarker::m_exitApp = ZIRKSEMarker::m_isHomogenous = true;
  ZIRKSEMarker::m_noiseLevel = 10.0;
  ZIRKSEMarker::initializer();
  EXPECT_EQ(ZIRKSEMarker::m_labelImage, nullptr);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp || ZIRKSEMarker::m_isHomogenous);
  EXPECT_EQ(ZIRKSEMarker::m_noiseLevel, 0.1);
  cvReleaseImage(&label);
}

// Reset drops the per-edit images but keeps the sources and the path's
// storage; release frees everything and may be repeated.
TEST(MarkerState, ResetKeepsSourcesAndReleaseFreesEverything) {
  IplImage** kept[] = {&ZIRKSEMarker::m_srcImage, &ZIRKSEMarker::m_originalImage,
                       &ZIRKSEMarker::m_texHor, &ZIRKSEMarker::m_texVer};
  IplImage** dropped[] = {&ZIRKSEMarker::m_labelImage, &ZIRKSEMarker::m_prevResult};
  for (IplImage** p : kept) *p = image(p == kept[0] || p == kept[1] ? 3 : 1);
  for (IplImage** p : dropped) *p = image(1);
  ZIRKSEMarker::currentStroke.points.assign(100, 7);
  const size_t capacity = ZIRKSEMarker::currentStroke.points.capacity();
  ZIRKSEMarker::m_exitApp = true;
  ZIRKSEMarker::resetMarkers();
  for (IplImage** p : dropped) EXPECT_EQ(*p, nullptr);
  for (IplImage** p : kept) EXPECT_NE(*p, nullptr);
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());
  EXPECT_EQ(ZIRKSEMarker::currentStroke.points.capacity(), capacity);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
  EXPECT_EQ(ZIRKSEMarker::m_noiseLevel, 0.1);

  ZIRKSEMarker::currentStroke.points = {1, 2, 3, 4};
  ZIRKSEMarker::dellocator();
  ZIRKSEMarker::dellocator();  // a sanitizer build catches any second release
  for (IplImage** p : kept) EXPECT_EQ(*p, nullptr);
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());

  // The contour storage likewise: released once, forgotten, releasable again.
  storage = cvCreateMemStorage(0);
  g_contoursFound = 1;
  contours = reinterpret_cast<CvSeq*>(storage);  // any non-null stand-in
  ZIRK_ReleaseContourStorage();
  ZIRK_ReleaseContourStorage();
  EXPECT_TRUE(storage == nullptr && contours == nullptr);
  EXPECT_EQ(g_contoursFound, 0);
}

TEST(MarkerState, StopTestFollowsCancelFlagAndBudget) {
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

// The drawn path against the plain drawing (every line of the closed path
// with cvLine) on random paths: dense walks where many points share a
// working pixel, scattered points, short and degenerate ones.
TEST(DrawnPath, SameLabelsAsDrawingEveryLine) {
  std::mt19937 rng(3);
  const auto below = [&](int n) { return static_cast<int>(rng() % n); };
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 40 + below(40), h = 30 + below(40);
    const float factor = trial % 3 == 0 ? 1.0f : 1.0f + static_cast<float>(below(1000)) / 100.0f;
    const int fullW = static_cast<int>(w * factor), fullH = static_cast<int>(h * factor);
    const int n = trial % 10 == 0 ? below(3) : 1 + below(300);
    std::vector<int32_t> points;
    int x = below(fullW), y = below(fullH);
    for (int i = 0; i < n; ++i) {
      const bool walk = trial % 2 == 0;
      x = walk ? std::min(std::max(x + below(5) - 2, 0), fullW - 1) : below(fullW);
      y = walk ? std::min(std::max(y + below(5) - 2, 0), fullH - 1) : below(fullH);
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
    const auto at = [&](size_t i) {
      return cvPoint(static_cast<int>(static_cast<float>(points[2 * i]) / factor),
                     static_cast<int>(static_cast<float>(points[2 * i + 1]) / factor));
    };
    if (points.size() >= 3) {
      for (size_t i = 0; i + 1 < count; ++i) cvLine(plain, at(i), at(i + 1), cvScalar(0), 3, 8, 0);
      if (count >= 2) cvLine(plain, at(count - 1), at(0), cvScalar(0), 3, 8, 0);
    }
    const cv::Mat a = cv::cvarrToMat(fast), b = cv::cvarrToMat(plain);
    EXPECT_EQ(cv::countNonZero(a != b), 0) << "trial " << trial;
    cvReleaseImage(&fast);
    cvReleaseImage(&plain);
  }
}

}  // namespace
