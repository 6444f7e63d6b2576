// Shared set-up of the segmenter tests: one segmenter, the process-wide state
// it reads (reset after every test), and small image helpers.
#pragma once

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <cstdint>
#include <memory>
#include <random>

#include "engine/EngineState.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKTimer.h"

namespace segtest {

inline uint8_t& at(IplImage* img, int x, int y, int channel = 0) {
  return reinterpret_cast<uint8_t*>(img->imageData)[y * img->widthStep + x * img->nChannels + channel];
}
inline cv::Mat view(IplImage* img) { return cv::cvarrToMat(img); }
inline int differ(IplImage* img, const cv::Mat& want) { return cv::countNonZero(view(img) != want); }
inline IplImage* filledImage(int w, int h, int channels, int value) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  cvSet(img, cvScalarAll(value));
  return img;
}
// Uniformly random bytes in [lo, hi].
inline IplImage* randomImage(int w, int h, int channels, std::mt19937& rng, int lo = 0, int hi = 255) {
  IplImage* img = filledImage(w, h, channels, 0);
  std::uniform_int_distribution<int> d(lo, hi);
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < w * channels; ++i) at(img, 0, y, i) = static_cast<uint8_t>(d(rng));
  return img;
}
inline IplImage* toIpl(const cv::Mat& m) {  // a deep copy
  IplImage header = cvIplImage(m);
  return cvCloneImage(&header);
}
// Fills [x0, x1) x [y0, y1) of every channel.
inline void fillRect(IplImage* img, int x0, int y0, int x1, int y1, int v) {
  view(img)(cv::Rect(x0, y0, x1 - x0, y1 - y0)).setTo(cv::Scalar::all(v));
}
// Releases what `slot` holds and takes `img`.
inline void replace(IplImage*& slot, IplImage* img) {
  ZIRK_ReleaseImage(&slot);
  slot = img;
}

class SegmenterTest : public ::testing::Test {
 protected:
  void TearDown() override {
    hybrid.reset();
    ZIRKSEMarker::dellocator();
    ZIRKSEManageUndoRedo::deallocate();
    ZIRKSEMarker::currentStroke.type = 0;
    ZIRKSEMarker::m_width = ZIRKSEMarker::m_height = 0;
    ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 0;
    ZIRKSEMarker::m_isGreyScale = ZIRKSEMarker::m_isHomogenous = false;
    ZIRKSEMarker::m_exitApp = false;
    ZIRKSEMarker::m_noiseLevel = 0.1;
    g_imageResizeFactor = 1.0f;
    if (g_cancelTimer != nullptr) destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
  void setWorkingImage(IplImage* img) {
    replace(ZIRKSEMarker::m_srcImage, img);
    ZIRKSEMarker::m_width = hybrid->m_width = img->width;
    ZIRKSEMarker::m_height = hybrid->m_height = img->height;
  }
  void setBox(int x0, int y0, int w, int h) {
    ZIRKSEMarker::m_xMinBBox = x0;
    ZIRKSEMarker::m_yMinBBox = y0;
    hybrid->m_cropWidth = w;
    hybrid->m_cropHeight = h;
  }
  cv::Rect box() const {
    return {ZIRKSEMarker::m_xMinBBox, ZIRKSEMarker::m_yMinBBox, hybrid->m_cropWidth, hybrid->m_cropHeight};
  }
  std::unique_ptr<ZIRKSEHybrid> hybrid = std::make_unique<ZIRKSEHybrid>();
};

}  // namespace segtest
