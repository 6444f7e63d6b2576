#include "engine/EngineState.h"

ZIRKSEHybrid* pHybrid = nullptr;
CvMemStorage* storage = nullptr;
CvSeq* contours = nullptr;
uint8_t g_contoursFound = 0;
IplImage* g_markerImage = nullptr;
IplImage* g_resultMask = nullptr;
int32_t g_exitStatus = 0;
float g_imageResizeFactor = 1.0f;

void ZIRK_ReleaseContourStorage() {
  if (storage != nullptr) cvReleaseMemStorage(&storage);
  storage = nullptr;
  // The contours lived in that storage: never hand them out afterwards.
  contours = nullptr;
  g_contoursFound = 0;
}
