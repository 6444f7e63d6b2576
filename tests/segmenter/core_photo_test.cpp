// One cut on real photos at working size: the rectangle's outside fixed as
// background, the inside left to the cut as a box request leaves it (label 4,
// which the graph treats like unknown and the model fit takes as object
// samples), models fitted, weights, graph and max-flow, and the object side
// compared with the ground truth.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "common/PhotoSet.h"
#include "colormodel/TrainingData.h"
#include "support.h"

namespace {

class CorePhotoCut : public segtest::SegmenterTest {
 protected:
  // The working-size object mask (255 = object) of one cut from the rectangle.
  cv::Mat cutFromRectangle(const cv::Mat& image, const cv::Rect& rect) {
    setWorkingImage(segtest::toIpl(image));
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_labelImage);  // from the previous photo
    ZIRKSEMarker::m_labelImage = segtest::filledImage(image.cols, image.rows, 1, kLabelBackgroundFixed);
    cv::cvarrToMat(ZIRKSEMarker::m_labelImage)(rect).setTo(kLabelObjectEst);

    hybrid->computeBoundingBox();
    ZIRK_ReleaseImage(&hybrid->m_cropSrcImage);
    ZIRK_ReleaseImage(&hybrid->m_cropLabelImage);
    hybrid->m_cropSrcImage = hybrid->cropImage(ZIRKSEMarker::m_srcImage);
    hybrid->m_cropLabelImage = hybrid->cropImage(ZIRKSEMarker::m_labelImage);

    std::vector<pixelVal> object, background;
    extractTrainingData(hybrid->m_cropSrcImage, hybrid->m_cropLabelImage, object, background);
    initModel(background, hybrid->m_bgModel, 10);
    initModel(object, hybrid->m_fgModel, 10);
    hybrid->m_fgModel.setInverseCovariance();
    hybrid->m_bgModel.setInverseCovariance();

    hybrid->m_lamda = 50.0;
    hybrid->computeNlinks();
    hybrid->graphSpaceAllocator();
    hybrid->constructGraphZIRK();
    hybrid->m_graph->maxFlow();

    cv::Mat mask(image.size(), CV_8U, cv::Scalar(0));
    const int w = hybrid->m_cropWidth;
    for (int p = 0; p < w * hybrid->m_cropHeight; ++p)
      if (segtest::at(hybrid->m_cropLabelImage, p % w, p / w) != kLabelBackgroundFixed &&
          hybrid->m_graph->getTreeofNode(p) == 0)
        mask.at<uint8_t>(p / w + ZIRKSEMarker::m_yMinBBox, p % w + ZIRKSEMarker::m_xMinBBox) = 255;
    hybrid->graphSpaceDellocator();
    return mask;
  }
};

// Reduced to about 76800 pixels, like the engine's working image. A broken
// cut (nothing, noise, or the whole rectangle: 0.45 on average) stays well
// below the bounds; so does labelling each pixel by the likelier model
// without the neighbour links (about 0.68).
TEST_F(CorePhotoCut, OneCutFromTheRectangleFindsTheObject) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not found in " << photoSetDir();
  double sum = 0.0, rectSum = 0.0;
  int good = 0;
  for (const std::string& name : photoNames()) {
    const Photo photo = loadPhoto(name);
    const double f = std::max(1.0, std::sqrt(photo.image.cols * photo.image.rows / 76800.0));
    const cv::Size size(static_cast<int>(photo.image.cols / f), static_cast<int>(photo.image.rows / f));
    cv::Mat image, truth, rectMask(size, CV_8U, cv::Scalar(0));
    cv::resize(photo.image, image, size, 0, 0, cv::INTER_LINEAR);
    cv::resize(photo.truth, truth, size, 0, 0, cv::INTER_NEAREST);
    const cv::Rect rect = cv::Rect(cv::Point(int(photo.x1 / f), int(photo.y1 / f)),
                                   cv::Point(int(photo.x2 / f) + 1, int(photo.y2 / f) + 1)) &
                          cv::Rect(cv::Point(), size);
    rectMask(rect).setTo(255);
    const double iou = intersectionOverUnion(cutFromRectangle(image, rect), truth);
    const double rectIou = intersectionOverUnion(rectMask, truth);
    std::printf("  %-12s IoU %.3f (rectangle %.3f)\n", name.c_str(), iou, rectIou);
    sum += iou;
    rectSum += rectIou;
    good += iou > 0.8;
  }
  ASSERT_EQ(photoNames().size(), 13u);
  std::printf("  mean IoU %.3f (rectangle %.3f)\n", sum / 13, rectSum / 13);
  EXPECT_GT(sum / 13, 0.75);
  EXPECT_GT(sum / 13, rectSum / 13 + 0.2);
  EXPECT_GE(good, 9) << "photos above 0.8";
}

}  // namespace
