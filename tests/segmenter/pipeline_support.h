// Small helpers shared by the pipeline tests: owned images, pixel access and
// clean-up of the process-wide state.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <cstdint>

#include "engine/EngineState.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKTimer.h"

namespace pipeline_test {

inline uint8_t& at(IplImage* img, int x, int y, int channel = 0) {
  return reinterpret_cast<uint8_t*>(img->imageData)[y * img->widthStep + x * img->nChannels +
                                                    channel];
}

inline IplImage* makeImage(int w, int h, int channels, uint8_t fill) {
  IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, channels);
  cvSet(img, cvScalarAll(fill), nullptr);
  return img;
}

// A copy of a cv::Mat as a new IplImage (the caller releases it).
inline IplImage* toIpl(const cv::Mat& m) {
  IplImage* img = cvCreateImage(cvSize(m.cols, m.rows), IPL_DEPTH_8U, m.channels());
  cv::Mat view = cv::cvarrToMat(img);
  m.copyTo(view);
  return img;
}

// Fills rectangle [x0, x1) x [y0, y1) of a 1- or 3-channel image.
inline void fillRect(IplImage* img, int x0, int y0, int x1, int y1, uint8_t v) {
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x)
      for (int c = 0; c < img->nChannels; ++c) at(img, x, y, c) = v;
}

// Releases every process-wide image and the history, and resets the flags.
inline void resetEngineState() {
  ZIRKSEMarker::dellocator();
  ZIRKSEManageUndoRedo::deallocate();
  ZIRKSEMarker::m_exitApp = false;
  ZIRKSEMarker::m_isGreyScale = false;
  ZIRKSEMarker::m_isHomogenous = false;
  ZIRKSEMarker::m_noiseLevel = 0.1;
  ZIRKSEMarker::currentStroke.type = 0;
  ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 0;
  g_imageResizeFactor = 1.0f;
  if (g_cancelTimer != nullptr) {
    destroy_timer(g_cancelTimer);
    g_cancelTimer = nullptr;
  }
}

}  // namespace pipeline_test
