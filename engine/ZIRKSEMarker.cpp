#include "engine/ZIRKSEMarker.h"

#include "support/ZIRKTimer.h"

IplImage* ZIRKSEMarker::m_srcImage = nullptr;
IplImage* ZIRKSEMarker::m_labelImage = nullptr;
IplImage* ZIRKSEMarker::m_originalImage = nullptr;
IplImage* ZIRKSEMarker::m_prevResult = nullptr;
IplImage* ZIRKSEMarker::m_texHor = nullptr;
IplImage* ZIRKSEMarker::m_texVer = nullptr;
strokeInfo ZIRKSEMarker::currentStroke;
int32_t ZIRKSEMarker::m_xMinBBox = 0;
int32_t ZIRKSEMarker::m_xMaxBBox = 0;
int32_t ZIRKSEMarker::m_yMinBBox = 0;
int32_t ZIRKSEMarker::m_yMaxBBox = 0;
int32_t ZIRKSEMarker::m_originalWidth = 0;
int32_t ZIRKSEMarker::m_originalHeight = 0;
int32_t ZIRKSEMarker::m_width = 0;
int32_t ZIRKSEMarker::m_height = 0;
bool ZIRKSEMarker::m_isGreyScale = false;
bool ZIRKSEMarker::m_isHomogenous = false;
std::atomic<bool> ZIRKSEMarker::m_exitApp{false};
double ZIRKSEMarker::m_noiseLevel = 0.0;

void ZIRKSEMarker::allocator() {}

void ZIRKSEMarker::initializer() {
  m_labelImage = nullptr;
  m_exitApp = false;
  m_noiseLevel = 0.1;
  m_isHomogenous = false;
}

void ZIRKSEMarker::resetMarkers() {
  ZIRK_ReleaseImage(&m_labelImage);
  ZIRK_ReleaseImage(&m_prevResult);
  currentStroke.points.clear();
  m_exitApp = false;
  m_noiseLevel = 0.1;
  m_isHomogenous = false;
}

void ZIRKSEMarker::dellocator() {
  ZIRK_ReleaseImage(&m_srcImage);
  ZIRK_ReleaseImage(&m_labelImage);
  ZIRK_ReleaseImage(&m_originalImage);
  ZIRK_ReleaseImage(&m_prevResult);
  ZIRK_ReleaseImage(&m_texHor);
  ZIRK_ReleaseImage(&m_texVer);
  currentStroke.points.clear();
}

bool ZIRK_shouldStopSegmentation() { return ZIRK_budgetSpent(g_cancelTimer) || ZIRKSEMarker::m_exitApp; }
