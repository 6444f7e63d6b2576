// The process-wide marker state: encodings, initial values, set-up, reset and release.
#include <gtest/gtest.h>

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

}  // namespace
