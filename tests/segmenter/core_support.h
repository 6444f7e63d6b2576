// Shared set-up of the segmenter tests: one segmenter, the process-wide
// marker state it reads, and small image helpers.
#pragma once

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <cstdint>
#include <memory>
#include <random>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"

namespace coretest {

// A segmenter plus clean marker state; everything is released and reset in
// TearDown so tests never depend on their order.
class SegmenterTest : public ::testing::Test {
 protected:
  void SetUp() override { hybrid = std::make_unique<ZIRKSEHybrid>(); }
  void TearDown() override {
    hybrid.reset();
    ZIRKSEMarker::dellocator();
    ZIRKSEMarker::currentStroke.type = 0;
    ZIRKSEMarker::m_width = ZIRKSEMarker::m_height = 0;
    ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 0;
    ZIRKSEMarker::m_isGreyScale = false;
    ZIRKSEMarker::m_exitApp = false;
    ZIRKSEMarker::m_noiseLevel = 0.0;
    g_imageResizeFactor = 1.0f;
  }

  // Working image of w x h: sets the marker image and both size pairs.
  void setWorkingImage(IplImage* img) {
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_srcImage);
    ZIRKSEMarker::m_srcImage = img;
    ZIRKSEMarker::m_width = hybrid->m_width = img->width;
    ZIRKSEMarker::m_height = hybrid->m_height = img->height;
  }

  void setBox(int x0, int y0, int w, int h) {
    ZIRKSEMarker::m_xMinBBox = x0;
    ZIRKSEMarker::m_yMinBBox = y0;
    hybrid->m_cropWidth = w;
    hybrid->m_cropHeight = h;
  }

  std::unique_ptr<ZIRKSEHybrid> hybrid;
};

// New image with uniformly random bytes in [lo, hi].
inline IplImage* randomImage(int w, int h, int channels, std::mt19937& rng, int lo = 0,
                             int hi = 255) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  std::uniform_int_distribution<int> d(lo, hi);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w * channels; ++x)
      reinterpret_cast<uint8_t*>(img->imageData)[y * img->widthStep + x] = static_cast<uint8_t>(d(rng));
  return img;
}

// New image with every byte set to value.
inline IplImage* filledImage(int w, int h, int channels, int value) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  cvSet(img, cvScalarAll(value));
  return img;
}

inline uint8_t* at(IplImage* img, int x, int y) {
  return reinterpret_cast<uint8_t*>(img->imageData) + y * img->widthStep + x * img->nChannels;
}

// A deep copy as an IplImage (released by the caller).
inline IplImage* toIpl(const cv::Mat& m) {
  IplImage header = cvIplImage(m);
  return cvCloneImage(&header);
}

}  // namespace coretest
