// Process-wide marker state: the images of the current cut-out, the drawn
// path, the working box and the flags every stage reads. One engine per
// process; nothing here is locked.
#pragma once

#include <opencv2/core/core_c.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "support/export.h"

// Label of one pixel in the marker image, the label image and the cropped
// label images of the segmenter.
enum ZIRKLabel : uint8_t {
  kLabelUnknown = 0,         // left to the graph cut
  kLabelBackgroundFixed = 1, // hard constraint, never overwritten by a cut
  kLabelObjectFixed = 2,     // hard constraint, never overwritten by a cut
  kLabelBackgroundEst = 3,   // background side of the last cut
  kLabelObjectEst = 4,       // object side of the last cut, inside of a box
  kLabelOutsideBand = 7,     // trimap pixel outside the refined band
};

// Kind of edit: the fourth argument of setMarkerImage.
enum ZIRKEditKind : int32_t {
  kEditLoopAdd = 0,       // closed loop around an object
  kEditLoopRemove = 1,    // closed loop around a part to remove
  kEditStrokeAdd = 2,     // brush stroke over the object
  kEditStrokeRemove = 3,  // brush stroke over the background
};

// Adding kinds are 0 and 2; brush kinds 2 and 3.
inline bool isAddingEdit(int kind) { return (kind | 2) == 2; }
inline bool isBrushEdit(int kind) { return (kind | 1) == 3; }

// True for labels on the object side (2 and 4).
inline bool isObjectLabel(uint8_t label) { return label == 2 || label == 4; }

// The drawn path of the current edit and its kind.
struct SEGCORE_EXPORT strokeInfo {
  std::vector<int32_t> points;  // x0, y0, x1, y1, ... in source pixels
  int32_t type = 0;             // ZIRKEditKind
};

class SEGCORE_EXPORT ZIRKSEMarker {
 public:
  static IplImage* m_srcImage;       // working colour image (8-bit, 3 channels)
  static IplImage* m_labelImage;     // label image of the current request
  static IplImage* m_originalImage;  // source image (8-bit BGR)
  static IplImage* m_prevResult;     // newest history mask at request start (0/255), or null
  static IplImage* m_texHor;         // horizontal texture map of a grey image
  static IplImage* m_texVer;         // vertical texture map of a grey image
  static strokeInfo currentStroke;   // drawn path and edit kind
  static int32_t m_xMinBBox;         // working box, in working-image pixels
  static int32_t m_xMaxBBox;
  static int32_t m_yMinBBox;
  static int32_t m_yMaxBBox;
  static int32_t m_originalWidth;    // size of m_originalImage
  static int32_t m_originalHeight;
  static int32_t m_width;            // size of the working image
  static int32_t m_height;
  static bool m_isGreyScale;         // the source is grey
  static bool m_isHomogenous;        // the colour models are homogenous
  // Cancel request. The only field another thread writes (cancelSegmentation),
  // so it is atomic; reads and writes look like those of a plain bool.
  static std::atomic<bool> m_exitApp;
  static double m_noiseLevel;        // covariance regulariser: 0.1, or 10.0 briefly

  // Does nothing; kept for callers that expect it.
  static void allocator();
  // Engine creation: nulls m_labelImage (without releasing) and clears the flags.
  static void initializer();
  // New edit sequence on the same image: releases the label image and the
  // previous result, empties the path (keeping its storage), clears the flags.
  static void resetMarkers();
  // Teardown: releases every image and empties the path. Safe to repeat.
  static void dellocator();
};

// Releases an image if set and nulls the pointer; safe to call repeatedly.
inline void ZIRK_ReleaseImage(IplImage** image) {
  if (image != nullptr && *image != nullptr) cvReleaseImage(image);
  if (image != nullptr) *image = nullptr;
}

// Releases the image in *image (ZIRK_ReleaseImage) when the scope ends,
// however it ends: when OpenCV throws (an allocation that failed), no work
// image of the abandoned step is leaked. keep() hands the image on instead.
class ZIRKReleaseOnExit {
 public:
  explicit ZIRKReleaseOnExit(IplImage** image) : m_image(image) {}
  ~ZIRKReleaseOnExit() { ZIRK_ReleaseImage(m_image); }
  ZIRKReleaseOnExit(const ZIRKReleaseOnExit&) = delete;
  ZIRKReleaseOnExit& operator=(const ZIRKReleaseOnExit&) = delete;
  IplImage* keep() {
    IplImage* kept = *m_image;
    *m_image = nullptr;
    return kept;
  }

 private:
  IplImage** m_image;
};

// Sets the drawn path to unknown (label 0) in `labels`: lines 3 pixels thick,
// 8-connected, from each point to the next and from the last back to the
// first, with every coordinate divided by `factor` and truncated. Nothing is
// drawn for fewer than 3 ints; an odd last int is ignored.
void ZIRK_clearDrawnPath(IplImage* labels, const std::vector<int32_t>& points, float factor);

// True once the running segmentation should stop: the budget on
// g_cancelTimer is spent or a cancel was asked for.
SEGCORE_EXPORT bool ZIRK_shouldStopSegmentation();
