// The box around the marks, cropping to it, and the object's own resources.
#include <random>

#include "common/LogCapture.h"
#include "core_support.h"

namespace {

using coretest::at;
using coretest::SegmenterTest;

class CoreBoundingBox : public SegmenterTest {
 protected:
  void SetUp() override {
    SegmenterTest::SetUp();
    std::mt19937 rng(1);
    setWorkingImage(coretest::randomImage(100, 80, 3, rng));
    ZIRKSEMarker::m_labelImage = coretest::filledImage(100, 80, 1, 1);
  }
  void expectBox(int x0, int y0, int x1, int y1) {
    EXPECT_EQ(ZIRKSEMarker::m_xMinBBox, x0);
    EXPECT_EQ(ZIRKSEMarker::m_yMinBBox, y0);
    EXPECT_EQ(hybrid->m_cropWidth, x1 - x0 + 1);
    EXPECT_EQ(hybrid->m_cropHeight, y1 - y0 + 1);
  }
  void label(int x0, int y0, int x1, int y1, int value) {
    cvSetImageROI(ZIRKSEMarker::m_labelImage, cvRect(x0, y0, x1 - x0 + 1, y1 - y0 + 1));
    cvSet(ZIRKSEMarker::m_labelImage, cvScalarAll(value));
    cvResetImageROI(ZIRKSEMarker::m_labelImage);
  }
};

TEST_F(CoreBoundingBox, LoopPointsScaledAndClampedAtTheBorder) {
  // Source pixels at factor 2: the loop spans working (0, 0)..(30, 25) and
  // touches the top-left corner, so the margin appears only right and below.
  g_imageResizeFactor = 2.0f;
  ZIRKSEMarker::currentStroke.type = kEditLoopAdd;
  ZIRKSEMarker::currentStroke.points = {0, 0, 61, 0, 61, 51, 0, 51};
  hybrid->computeBoundingBox();
  expectBox(0, 0, 40, 35);
  EXPECT_EQ(hybrid->m_areaThreshold, static_cast<int64_t>(25 * 30 * 0.1));

  // The opposite corner: the margin only left and above.
  ZIRKSEMarker::currentStroke.points = {150, 130, 199, 130, 199, 159};
  hybrid->computeBoundingBox();
  expectBox(65, 55, 99, 79);
}

TEST_F(CoreBoundingBox, LabelsDecideWithoutPathAndForBrushes) {
  // No path (a box request): unknown and estimated-object labels.
  label(20, 30, 50, 40, 0);
  label(55, 42, 60, 44, 4);
  label(5, 5, 8, 8, 3);  // estimated background: not a mark here
  hybrid->computeBoundingBox();
  expectBox(10, 20, 70, 54);
  EXPECT_EQ(hybrid->m_areaThreshold, static_cast<int64_t>(14 * 40 * 0.1));

  // An adding brush: only its ring (4); a removing one: only 3.
  ZIRKSEMarker::currentStroke.points = {1, 1, 2, 2};
  ZIRKSEMarker::currentStroke.type = kEditStrokeAdd;
  hybrid->computeBoundingBox();
  expectBox(45, 32, 70, 54);
  ZIRKSEMarker::currentStroke.type = kEditStrokeRemove;
  hybrid->computeBoundingBox();
  expectBox(0, 0, 18, 18);
}

TEST_F(CoreBoundingBox, NoMarkGivesTheCornerBox) {
  hybrid->computeBoundingBox();  // every label is 1
  expectBox(0, 0, 10, 10);
  EXPECT_EQ(hybrid->m_areaThreshold, 0);

  // On a working image smaller than the margin the box is the image.
  setWorkingImage(coretest::filledImage(6, 4, 3, 1));
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_labelImage);
  ZIRKSEMarker::m_labelImage = coretest::filledImage(6, 4, 1, 2);
  hybrid->computeBoundingBox();
  expectBox(0, 0, 5, 3);
}

TEST_F(CoreBoundingBox, CropHoldsTheBoxPixels) {
  setBox(7, 9, 31, 22);
  for (IplImage* src : {ZIRKSEMarker::m_srcImage, ZIRKSEMarker::m_labelImage}) {
    IplImage* crop = hybrid->cropImage(src);
    ASSERT_NE(crop, nullptr);
    EXPECT_EQ(crop->width, 31);
    EXPECT_EQ(crop->height, 22);
    EXPECT_EQ(crop->nChannels, src->nChannels);
    const cv::Mat want = cv::cvarrToMat(src)(cv::Rect(7, 9, 31, 22));
    EXPECT_EQ(cv::norm(cv::cvarrToMat(crop), want, cv::NORM_INF), 0.0);
    cvReleaseImage(&crop);
  }
  // A box reaching past the image: the part outside reads as 0.
  setBox(90, 70, 20, 20);
  IplImage* crop = hybrid->cropImage(ZIRKSEMarker::m_srcImage);
  const cv::Mat c = cv::cvarrToMat(crop);
  EXPECT_EQ(cv::norm(c(cv::Rect(0, 0, 10, 10)), cv::cvarrToMat(ZIRKSEMarker::m_srcImage)(cv::Rect(90, 70, 10, 10)),
                     cv::NORM_INF),
            0.0);
  EXPECT_EQ(cv::norm(c(cv::Rect(10, 0, 10, 20)), cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(c(cv::Rect(0, 10, 20, 10)), cv::NORM_INF), 0.0);
  cvReleaseImage(&crop);

  // An empty box is reported.
  LogCapture log;
  setBox(0, 0, 0, 5);
  crop = hybrid->cropImage(ZIRKSEMarker::m_srcImage);
  EXPECT_EQ(log.count(6, "Error", "MEMORY_CRASH : cropImage 850"), 1) << log.dump();
  ZIRK_ReleaseImage(&crop);
}

TEST_F(CoreBoundingBox, ObjectOwnsItsGraphsAndWeights) {
  setBox(3, 4, 12, 7);
  hybrid->graphSpaceAllocator();
  ASSERT_NE(hybrid->m_graph, nullptr);
  EXPECT_EQ(hybrid->m_graph->m_width, 12);
  EXPECT_EQ(hybrid->m_graph->m_height, 7);
  EXPECT_GE(hybrid->m_graph->m_nodeMax - hybrid->m_graph->m_nodes, 12 * 7);
  hybrid->graphSpaceAllocator();  // replaces (and releases) the first graph
  hybrid->graphSpaceDellocator();
  EXPECT_EQ(hybrid->m_graph, nullptr);
  hybrid->graphSpaceDellocator();  // repeatable

  // Whatever is still held when the object goes is released with it (the
  // sanitizer build reports anything left behind).
  hybrid->graphSpaceAllocator();
  hybrid->computeNlinks();
  hybrid->m_trimapGraph = new ZIRKSEGraph(4, 32, 2, 2, 0);
  hybrid->m_cropSrcImage = hybrid->cropImage(ZIRKSEMarker::m_srcImage);
  hybrid->m_labelHistory[1] = cvCloneImage(ZIRKSEMarker::m_labelImage);
  LogCapture log;
  hybrid.reset();
  EXPECT_EQ(log.lines().size(), 0u) << log.dump();
}

}  // namespace
