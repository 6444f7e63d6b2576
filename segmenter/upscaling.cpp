// Full-resolution refinement of a mask found on the reduced working image.
//
// Instead of only enlarging the mask, a narrow band around its boundary is
// cut again at source resolution. The band comes from a trimap at working
// size: counting how many of dilate-3, dilate-1, erode-1, erode-3 cover a
// pixel gives 0 far outside, 1 in the outer ring, 2 on either side of the
// boundary, 3 in the inner ring and 4 deep inside. Remapped to the label
// values of the graph (7 = no node, 1 = fixed background, 0 = unknown,
// 2 = fixed object), it is enlarged (nearest) and the bounding rectangle of
// the band becomes a second flow graph. Pixels of the unknown ring take the
// side of the cut; everything else keeps the enlarged working labels.
// Memory: the band's graph (about 40 bytes per band-rectangle pixel) plus a
// few full-size byte images.
#include <opencv2/imgproc/imgproc_c.h>

#include <cstdint>

#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"

namespace {

inline uint8_t* pixelRow(IplImage* img, int y) {
  return reinterpret_cast<uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep;
}

// Logs the size report when `size` is empty; true when it is usable.
bool checkSize(CvSize size, int site) {
  if (size.width >= 1 && size.height >= 1) return true;
  ZIRK_LogMemoryCrash("intelligentUpscaling", site);
  return false;
}

// The plain enlargement: object 1 -> 255 in the small mask, then nearest.
IplImage* enlargeMask(IplImage* mask, CvSize full) {
  for (int y = 0; y < mask->height; ++y) {
    uint8_t* m = pixelRow(mask, y);
    for (int x = 0; x < mask->width; ++x) {
      if (m[x] == 1) m[x] = 255;
    }
  }
  IplImage* big = cvCreateImage(full, IPL_DEPTH_8U, 1);
  cvResize(mask, big, CV_INTER_NN);
  return big;
}

}  // namespace

IplImage* ZIRKSEHybrid::cropImageTrimap(IplImage* src, int width, int height, int y0, int x0) {
  if (width < 1 || height < 1 || src == nullptr) {
    ZIRK_LogMemoryCrash("cropImageTrimap", 1762);
    return nullptr;  // refuse rather than create an empty image
  }
  IplImage* dst = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, src->nChannels);
  cvSetZero(dst);
  // The copy covers the band rectangle of the members; it is kept inside both
  // images whatever the arguments say.
  const int rows = m_boundHeightTrimap < height ? m_boundHeightTrimap : height;
  const int cols = m_boundWidthTrimap < width ? m_boundWidthTrimap : width;
  const int bytes = src->nChannels;
  for (int r = 0; r < rows; ++r) {
    const int sy = y0 + r;
    if (sy < 0 || sy >= src->height) continue;
    const uint8_t* s = pixelRow(src, sy);
    uint8_t* d = pixelRow(dst, r);
    for (int c = 0; c < cols; ++c) {
      const int sx = x0 + c;
      if (sx < 0 || sx >= src->width) continue;
      for (int k = 0; k < bytes; ++k) d[c * bytes + k] = s[sx * bytes + k];
    }
  }
  return dst;
}

IplImage* ZIRKSEHybrid::intelligentUpscaling(IplImage* mask) {
  IplImage* original = ZIRKSEMarker::m_originalImage;
  if (mask == nullptr || original == nullptr || ZIRKSEMarker::m_labelImage == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "intelligentUpscaling: missing image");
    return nullptr;
  }
  // 1. Sizes: the working mask and the source image.
  const CvSize small = cvGetSize(mask);
  const CvSize full = cvGetSize(original);
  bool sizesOk = checkSize(small, 1810);
  sizesOk = checkSize(small, 1811) && sizesOk;
  sizesOk = checkSize(full, 1812) && sizesOk;
  sizesOk = checkSize(full, 1813) && sizesOk;
  if (!sizesOk) return nullptr;
  // Between the stages: a cancelled request, or one out of time, ends here
  // with no mask (the band graph and the work images are released).
  auto stopped = [this] {
    if (!cancelSegmentation()) return false;
    delete m_trimapGraph;
    m_trimapGraph = nullptr;
    return true;
  };

  // 2. Trimap: how many of the four morphologies cover each pixel.
  // Every work image is released however this ends (an allocation that
  // fails throws).
  IplImage* trimap = nullptr;
  IplImage* morph = nullptr;
  IplImage* labels = nullptr;
  IplImage* bigTrimap = nullptr;
  IplImage* bandTrimap = nullptr;
  IplImage* bandColour = nullptr;
  IplImage* bandHor = nullptr;
  IplImage* bandVer = nullptr;
  ZIRKReleaseOnExit releaseTrimap(&trimap), releaseMorph(&morph), releaseLabels(&labels),
      releaseBigTrimap(&bigTrimap), releaseBandTrimap(&bandTrimap), releaseBandColour(&bandColour),
      releaseBandHor(&bandHor), releaseBandVer(&bandVer);
  trimap = cvCreateImage(small, IPL_DEPTH_8U, 1);
  morph = cvCreateImage(small, IPL_DEPTH_8U, 1);
  cvSetZero(trimap);
  cvDilate(mask, morph, nullptr, 3);
  cvAdd(trimap, morph, trimap, nullptr);
  cvDilate(mask, morph, nullptr, 1);
  cvAdd(trimap, morph, trimap, nullptr);
  cvErode(mask, morph, nullptr, 1);
  cvAdd(trimap, morph, trimap, nullptr);
  cvErode(mask, morph, nullptr, 3);
  cvAdd(trimap, morph, trimap, nullptr);
  cvReleaseImage(&morph);

  // 3. Remap to graph labels: 0 -> 7, 2 -> 0, 3 -> 2, 4 -> 7.
  for (int y = 0; y < small.height; ++y) {
    uint8_t* t = pixelRow(trimap, y);
    for (int x = 0; x < small.width; ++x) {
      switch (t[x]) {
        case 0: t[x] = kLabelOutsideBand; break;
        case 2: t[x] = 0; break;
        case 3: t[x] = 2; break;
        case 4: t[x] = kLabelOutsideBand; break;
        default: break;
      }
    }
  }

  // 4. Labels and trimap at full size (nearest).
  labels = cvCreateImage(full, IPL_DEPTH_8U, 1);
  cvSetZero(labels);
  cvResize(ZIRKSEMarker::m_labelImage, labels, CV_INTER_NN);
  bigTrimap = cvCreateImage(full, IPL_DEPTH_8U, 1);
  cvResize(trimap, bigTrimap, CV_INTER_NN);
  cvReleaseImage(&trimap);
  if (stopped()) return nullptr;

  // 5. Bounding rectangle of the band.
  int xmin = 2147483647, xmax = -1, ymin = 2147483647, ymax = -1;
  for (int x = 0; x < full.width; ++x) {
    for (int y = 0; y < full.height; ++y) {
      if (pixelRow(bigTrimap, y)[x] == kLabelOutsideBand) continue;
      if (x < xmin) xmin = x;
      if (x > xmax) xmax = x;
      if (y < ymin) ymin = y;
      if (y > ymax) ymax = y;
    }
  }
  const int64_t bandW = static_cast<int64_t>(xmax) - xmin + 1;
  const int64_t bandH = static_cast<int64_t>(ymax) - ymin + 1;
  if (stopped()) return nullptr;

  // 6. No band (empty or full mask): plain enlargement.
  if (xmin >= full.width || ymin >= full.height || bandW < 0 || bandH < 0 || xmax < 0 ||
      ymax < 0) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: xmin:%d, xmax:%d, ymin:%d, ymax:%d",
                        xmin, xmax, ymin, ymax);
    m_boundWidthTrimap = 0;
    m_boundHeightTrimap = 0;
    cvReleaseImage(&labels);
    cvReleaseImage(&bigTrimap);
    return enlargeMask(mask, full);
  }
  __android_log_print(ANDROID_LOG_INFO, "Info", "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin,
                      xmax, ymin, ymax);
  m_boundWidthTrimap = static_cast<int32_t>(bandW);
  m_boundHeightTrimap = static_cast<int32_t>(bandH);
  if (m_boundWidthTrimap > ZIRKSEMarker::m_originalWidth)
    m_boundWidthTrimap = ZIRKSEMarker::m_originalWidth;
  if (m_boundHeightTrimap > ZIRKSEMarker::m_originalHeight)
    m_boundHeightTrimap = ZIRKSEMarker::m_originalHeight;
  __android_log_print(ANDROID_LOG_INFO, "Info", "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d",
                      m_boundWidthTrimap, m_boundHeightTrimap);

  // 8. Crops of the band rectangle.
  const int bw = m_boundWidthTrimap;
  const int bh = m_boundHeightTrimap;
  bandTrimap = cropImageTrimap(bigTrimap, bw, bh, ymin, xmin);
  bandColour = cropImageTrimap(original, bw, bh, ymin, xmin);
  int status = 0;
  if (ZIRKSEMarker::m_isGreyScale) {
    if (ZIRKSEMarker::m_texHor != nullptr && ZIRKSEMarker::m_texVer != nullptr) {
      checkSize(full, 1981);
      IplImage* bigHor = nullptr;
      IplImage* bigVer = nullptr;
      ZIRKReleaseOnExit releaseBigHor(&bigHor), releaseBigVer(&bigVer);
      bigHor = cvCreateImage(full, IPL_DEPTH_8U, 1);
      cvResize(ZIRKSEMarker::m_texHor, bigHor, CV_INTER_NN);
      checkSize(full, 1982);
      bigVer = cvCreateImage(full, IPL_DEPTH_8U, 1);
      cvResize(ZIRKSEMarker::m_texVer, bigVer, CV_INTER_NN);
      bandHor = cropImageTrimap(bigHor, bw, bh, ymin, xmin);
      bandVer = cropImageTrimap(bigVer, bw, bh, ymin, xmin);
      cvReleaseImage(&bigHor);
      cvReleaseImage(&bigVer);
    } else {
      status = 1;  // grey features without texture maps: can not build the band
    }
  }

  // 9. The band's graph.
  if (status == 0) {
    if (m_trimapGraph != nullptr) {
      delete m_trimapGraph;  // never left over, but never leaked either
      m_trimapGraph = nullptr;
    }
    status = constructGraphTrimapZIRK(bandColour, nullptr, bandTrimap, bandHor, bandVer);
  }
  if (stopped()) return nullptr;

  IplImage* result = nullptr;
  if (status != 0) {
    // 10. Construction failed: plain enlargement.
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: intelligentUpscaling (status_flag = %d)",
                        status);
    result = enlargeMask(mask, full);
  } else {
    // 11. Cut the band; the unknown ring takes the side of the cut.
    m_trimapGraph->maxFlow();
    // A max-flow stopped part-way leaves nodes unsolved: its cut is not used.
    if (stopped()) return nullptr;
    for (int y = 0; y < bh; ++y) {
      const uint8_t* t = pixelRow(bandTrimap, y);
      uint8_t* l = pixelRow(labels, ymin + y) + xmin;
      for (int x = 0; x < bw; ++x) {
        if (t[x] != 0) continue;
        l[x] = m_trimapGraph->getTreeofNode(x + y * bw) == 1 ? kLabelBackgroundEst
                                                              : kLabelObjectEst;
      }
    }
    // 12. Object = labels 2 and 4.
    checkSize(full, 2085);
    result = cvCreateImage(full, IPL_DEPTH_8U, 1);
    for (int y = 0; y < full.height; ++y) {
      const uint8_t* l = pixelRow(labels, y);
      uint8_t* r = pixelRow(result, y);
      for (int x = 0; x < full.width; ++x) r[x] = isObjectLabel(l[x]) ? 255 : 0;
    }
  }

  // 13. Release the graph and every work image.
  delete m_trimapGraph;
  m_trimapGraph = nullptr;
  ZIRK_ReleaseImage(&bandTrimap);
  ZIRK_ReleaseImage(&bandColour);
  ZIRK_ReleaseImage(&bandHor);
  ZIRK_ReleaseImage(&bandVer);
  cvReleaseImage(&labels);
  cvReleaseImage(&bigTrimap);
  return result;
}
