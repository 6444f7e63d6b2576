// The box around the marks, cropping to it, and the object's own resources.
#include "support.h"

namespace {

using segtest::view;

class CoreBoundingBox : public segtest::SegmenterTest {
 protected:
  void SetUp() override {
    std::mt19937 rng(1);
    setWorkingImage(segtest::randomImage(100, 80, 3, rng));
    ZIRKSEMarker::m_labelImage = segtest::filledImage(100, 80, 1, 1);
  }
  // Box corners (inclusive) and the area threshold after computeBoundingBox.
  void expectBox(int x0, int y0, int x1, int y1, int64_t threshold) {
    hybrid->computeBoundingBox();
    EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, x0);
    EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, y0);
    EXPECT_EQ(hybrid->m_cropWidth, x1 - x0 + 1);
    EXPECT_EQ(hybrid->m_cropHeight, y1 - y0 + 1);
    if (threshold >= 0) { EXPECT_EQ(hybrid->m_areaThreshold, threshold); }
  }
};

TEST_F(CoreBoundingBox, LoopPointsAreScaledAndTheMarginClampedAtTheBorder) {
  // Source pixels at factor 2: the loop spans working (0, 0)..(30, 25) and
  // touches the top-left corner, so the margin appears only right and below.
  g_imageResizeFactor = 2.0f;
  ZIRKSEMarker::currentStroke.type = kEditLoopAdd;
  ZIRKSEMarker::currentStroke.points = {0, 0, 61, 0, 61, 51, 0, 51};
  expectBox(0, 0, 40, 35, static_cast<int64_t>(25 * 30 * 0.1));
  ZIRKSEMarker::currentStroke.points = {150, 130, 199, 130, 199, 159};  // the opposite corner
  expectBox(65, 55, 99, 79, -1);
}

TEST_F(CoreBoundingBox, WithoutAPathTheLabelsDecide) {
  expectBox(0, 0, 10, 10, 0);  // no mark at all: the corner box
  // A box request: unknown and estimated-object labels; estimated background is no mark.
  const cv::Mat labels = view(ZIRKSEMarker::m_labelImage);
  labels(cv::Rect(20, 30, 31, 11)).setTo(0);
  labels(cv::Rect(55, 42, 6, 3)).setTo(4);
  labels(cv::Rect(5, 5, 4, 4)).setTo(3);
  expectBox(10, 20, 70, 54, static_cast<int64_t>(14 * 40 * 0.1));
  // An adding brush: only its ring (4); a removing one: only 3.
  ZIRKSEMarker::currentStroke.points = {1, 1, 2, 2};
  ZIRKSEMarker::currentStroke.type = kEditStrokeAdd;
  expectBox(45, 32, 70, 54, -1);
  ZIRKSEMarker::currentStroke.type = kEditStrokeRemove;
  expectBox(0, 0, 18, 18, -1);
  // On a working image smaller than the margin the box is the image.
  setWorkingImage(segtest::filledImage(6, 4, 3, 1));
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_labelImage);
  ZIRKSEMarker::m_labelImage = segtest::filledImage(6, 4, 1, 2);
  expectBox(0, 0, 5, 3, -1);
}

TEST_F(CoreBoundingBox, CropHoldsTheBoxPixelsAndZerosOutside) {
  for (IplImage* src : {ZIRKSEMarker::m_srcImage, ZIRKSEMarker::m_labelImage}) {
    setBox(7, 9, 31, 22);
    IplImage* crop = hybrid->cropImage(src);
    ASSERT_NE(crop, nullptr);
    EXPECT_EQ(cv::norm(view(crop), view(src)(cv::Rect(7, 9, 31, 22)), cv::NORM_INF), 0.0);
    cvReleaseImage(&crop);
    setBox(90, 70, 20, 20);  // reaching past the image
    crop = hybrid->cropImage(src);
    cv::Mat expected(20, 20, view(src).type(), cv::Scalar::all(0));
    view(src)(cv::Rect(90, 70, 10, 10)).copyTo(expected(cv::Rect(0, 0, 10, 10)));
    EXPECT_EQ(cv::norm(view(crop), expected, cv::NORM_INF), 0.0);
    cvReleaseImage(&crop);
  }
}

// Graphs can be replaced and released repeatedly; whatever is still held
// when the object goes is released with it (the sanitizer build reports
// anything left behind).
TEST_F(CoreBoundingBox, ObjectOwnsItsGraphsAndWeights) {
  setBox(3, 4, 12, 7);
  for (int i = 0; i < 2; ++i) hybrid->graphSpaceAllocator();
  for (int i = 0; i < 2; ++i) hybrid->graphSpaceDellocator();
  EXPECT_EQ(hybrid->m_graph, nullptr);
  hybrid->graphSpaceAllocator();
  hybrid->computeNlinks();
  hybrid->m_trimapGraph = new ZIRKSEGraph(4, 32, 2, 2, 0);
  hybrid->m_cropSrcImage = hybrid->cropImage(ZIRKSEMarker::m_srcImage);
  hybrid->m_labelHistory[1] = cvCloneImage(ZIRKSEMarker::m_labelImage);
}

}  // namespace
