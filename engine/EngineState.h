// The engine globals: one segmenter, the preview contours, the marker image
// and result mask of the request in flight, and the teardown request.
// Zero at load, except g_imageResizeFactor (1.0).
#pragma once

#include <opencv2/core/core_c.h>

#include <cstdint>

class ZIRKSEHybrid;

extern ZIRKSEHybrid* pHybrid;        // the one segmenter; null when no engine exists
extern CvMemStorage* storage;        // storage of the preview contour search
extern CvSeq* contours;              // first contour of the last preview search
extern uint8_t g_contoursFound;      // 1 when that search found contours
extern IplImage* g_markerImage;      // marker labels of the next request (8-bit)
extern IplImage* g_resultMask;       // result mask of the request in flight (0/255)
extern int32_t g_exitStatus;         // teardown asked for at the end of the request
extern float g_imageResizeFactor;    // source pixels per working pixel, per axis

// Releases `storage` if set; nulls it and `contours` and clears g_contoursFound.
void ZIRK_ReleaseContourStorage();
