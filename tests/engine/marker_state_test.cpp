// The process-wide marker state: initial values, set-up, reset and release.
#include <gtest/gtest.h>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKTimer.h"

namespace {

class MarkerState : public ::testing::Test {
 protected:
  void TearDown() override { ZIRKSEMarker::dellocator(); }
  static IplImage* image(int channels) { return cvCreateImage(cvSize(4, 3), IPL_DEPTH_8U, channels); }
};

TEST_F(MarkerState, EncodingsOfLabelsAndEditKinds) {
  EXPECT_TRUE(isAddingEdit(kEditLoopAdd));
  EXPECT_TRUE(isAddingEdit(kEditStrokeAdd));
  EXPECT_FALSE(isAddingEdit(kEditLoopRemove));
  EXPECT_FALSE(isAddingEdit(kEditStrokeRemove));
  EXPECT_TRUE(isBrushEdit(kEditStrokeAdd));
  EXPECT_TRUE(isBrushEdit(kEditStrokeRemove));
  EXPECT_FALSE(isBrushEdit(kEditLoopAdd));
  EXPECT_FALSE(isBrushEdit(kEditLoopRemove));
  for (int label = 0; label < 256; ++label)
    EXPECT_EQ(isObjectLabel(static_cast<uint8_t>(label)), label == 2 || label == 4);
}

TEST_F(MarkerState, GlobalsStartEmpty) {
  EXPECT_EQ(g_imageResizeFactor, 1.0f);
  EXPECT_EQ(g_exitStatus, 0);
  EXPECT_EQ(g_contoursFound, 0);
  EXPECT_EQ(pHybrid, nullptr);
  EXPECT_EQ(g_markerImage, nullptr);
  EXPECT_EQ(g_resultMask, nullptr);
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

TEST_F(MarkerState, ResetKeepsSourceImagesAndPathStorage) {
  ZIRKSEMarker::m_srcImage = image(3);
  ZIRKSEMarker::m_originalImage = image(3);
  ZIRKSEMarker::m_texHor = image(1);
  ZIRKSEMarker::m_texVer = image(1);
  ZIRKSEMarker::m_labelImage = image(1);
  ZIRKSEMarker::m_prevResult = image(1);
  ZIRKSEMarker::currentStroke.points.assign(100, 7);
  const size_t capacity = ZIRKSEMarker::currentStroke.points.capacity();
  ZIRKSEMarker::m_exitApp = true;

  ZIRKSEMarker::resetMarkers();
  EXPECT_EQ(ZIRKSEMarker::m_labelImage, nullptr);
  EXPECT_EQ(ZIRKSEMarker::m_prevResult, nullptr);
  EXPECT_NE(ZIRKSEMarker::m_srcImage, nullptr);
  EXPECT_NE(ZIRKSEMarker::m_originalImage, nullptr);
  EXPECT_NE(ZIRKSEMarker::m_texHor, nullptr);
  EXPECT_NE(ZIRKSEMarker::m_texVer, nullptr);
  EXPECT_TRUE(ZIRKSEMarker::currentStroke.points.empty());
  EXPECT_EQ(ZIRKSEMarker::currentStroke.points.capacity(), capacity);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
  EXPECT_EQ(ZIRKSEMarker::m_noiseLevel, 0.1);
}

TEST_F(MarkerState, ReleasingTwiceIsHarmlessAndLeavesEveryPointerNull) {
  ZIRKSEMarker::m_srcImage = image(3);
  ZIRKSEMarker::m_originalImage = image(3);
  ZIRKSEMarker::m_labelImage = image(1);
  ZIRKSEMarker::m_prevResult = image(1);
  ZIRKSEMarker::m_texHor = image(1);
  ZIRKSEMarker::m_texVer = image(1);
  ZIRKSEMarker::currentStroke.points = {1, 2, 3, 4};
  ZIRKSEMarker::dellocator();
  ZIRKSEMarker::dellocator();  // a sanitizer build catches any second release
  for (IplImage* p : {ZIRKSEMarker::m_srcImage, ZIRKSEMarker::m_originalImage,
                      ZIRKSEMarker::m_labelImage, ZIRKSEMarker::m_prevResult,
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
  EXPECT_EQ(storage, nullptr);
  EXPECT_EQ(contours, nullptr);
  EXPECT_EQ(g_contoursFound, 0);
}

}  // namespace
