// Full-resolution refinement of a mask found on the reduced working image.
//
// Instead of only enlarging the mask, a narrow band around its boundary is
// cut again at source resolution. The band comes from a trimap at working
// size: counting how many of dilate-3, dilate-1, erode-1, erode-3 cover a
// pixel gives 0 far outside, 1 in the outer ring, 2 on either side of the
// boundary, 3 in the inner ring and 4 deep inside. Remapped to the label
// values of the graph (7 = no node, 1 = fixed background, 0 = unknown,
// 2 = fixed object), it is read through the nearest-neighbour maps of the
// enlargement, and the band becomes a second flow graph at full resolution
// that holds only the unknown ring (the fixed rings merged into their
// terminals, graphcut/BandGraph.h). Pixels of the unknown ring take the side
// of the cut; everything else keeps the enlarged working labels.
// Memory: the band's graph (about 80 bytes per unknown pixel) and the result;
// no other full-size image.
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/ZIRKSEMarker.h"
#include "graphcut/BandGraph.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKPages.h"

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

// Deletes the band graph however the refinement ends.
class DeleteOnExit {
 public:
  explicit DeleteOnExit(ZIRKSEGraph** graph) : m_graph(graph) {}
  ~DeleteOnExit() {
    delete *m_graph;
    *m_graph = nullptr;
  }
  DeleteOnExit(const DeleteOnExit&) = delete;
  DeleteOnExit& operator=(const DeleteOnExit&) = delete;

 private:
  ZIRKSEGraph** m_graph;
};

// The full-size mask: the working labels enlarged, object = 2 or 4, where
// the band's unknown pixels take the side of the cut.
void writeResult(const BandGraph& band, const std::vector<int32_t>& xmap,
                 const std::vector<int32_t>& ymap, ZIRKSEGraph* graph, IplImage* result) {
  const IplImage* labels = ZIRKSEMarker::m_labelImage;
  const int width = result->width;
  std::vector<uint8_t> objectRow(width);
  int32_t shownRow = -1;
  for (int y = 0; y < result->height; ++y) {
    const int32_t sy = ymap[y];
    if (sy != shownRow) {
      const uint8_t* l = pixelRow(const_cast<IplImage*>(labels), sy);
      for (int x = 0; x < width; ++x) objectRow[x] = isObjectLabel(l[xmap[x]]) ? 255 : 0;
      shownRow = sy;
    }
    uint8_t* r = pixelRow(result, y);
    std::copy(objectRow.begin(), objectRow.end(), r);
    band.forEachNodeInRow(y, [&](int x, int yy, int32_t node) {
      if (band.label(x, yy) != 0) return;
      r[x] = graph->getTreeofNode(node) == 1 ? 0 : 255;
    });
  }
}

}  // namespace

std::vector<int32_t> ZIRK_nearestMap(int from, int to) {
  if (from < 1 || to < 1) return std::vector<int32_t>(static_cast<size_t>(to > 0 ? to : 0), 0);
  cv::Mat index(1, from, CV_32S), resized;
  for (int i = 0; i < from; ++i) index.at<int32_t>(0, i) = i;
  cv::resize(index, resized, cv::Size(to, 1), 0, 0, cv::INTER_NEAREST);
  return std::vector<int32_t>(resized.ptr<int32_t>(0), resized.ptr<int32_t>(0) + to);
}

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

  // 2. Trimap: how many of the four morphologies cover each pixel.
  // Every work image is released however this ends (an allocation that
  // fails throws).
  IplImage* trimap = nullptr;
  IplImage* morph = nullptr;
  ZIRKReleaseOnExit releaseTrimap(&trimap), releaseMorph(&morph);
  DeleteOnExit releaseGraph(&m_trimapGraph);
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

  // 4. The nearest-neighbour enlargement as index maps: full column x and
  // row y show working pixel (xmap[x], ymap[y]). Resizing index images gives
  // exactly the mapping of an image enlargement, without the full-size
  // label and trimap images.
  std::vector<int32_t> xmap = ZIRK_nearestMap(small.width, full.width);
  std::vector<int32_t> ymap = ZIRK_nearestMap(small.height, full.height);

  // 5. The band and its bounding rectangle. The link capacities come from
  // exp(-beta d^2) for every channel difference d. Fixed pixels whose hard
  // link outweighs all their links are merged into their terminal.
  float table[256];
  for (int i = 0; i < 256; ++i) table[i] = expf(-static_cast<float>(i * i * m_beta));
  const bool grey = ZIRKSEMarker::m_isGreyScale;
  const TrimapLinks links(&m_fgModel, &m_bgModel, table, m_lamda, grey);
  BandGraph band(trimap, xmap, ymap, links.fixedPixelsAreSettled());
  int xmin = 2147483647, xmax = -1, ymin = 2147483647, ymax = -1;
  const bool hasBand = band.bounds(&xmin, &xmax, &ymin, &ymax);
  // Between the stages from here on: a cancelled request, or one out of
  // time, ends with no mask (the graph and the work images are released on
  // the way out).
  if (cancelSegmentation()) return nullptr;

  // 6. No band (empty or full mask): plain enlargement.
  if (!hasBand) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: xmin:%d, xmax:%d, ymin:%d, ymax:%d",
                        xmin, xmax, ymin, ymax);
    m_boundWidthTrimap = 0;
    m_boundHeightTrimap = 0;
    return enlargeMask(mask, full);
  }
  __android_log_print(ANDROID_LOG_INFO, "Info", "Passed: xmin:%d, xmax:%d, ymin:%d, ymax:%d", xmin,
                      xmax, ymin, ymax);
  // Inside the image by construction, so the clamps never bite.
  m_boundWidthTrimap = xmax - xmin + 1;
  m_boundHeightTrimap = ymax - ymin + 1;
  __android_log_print(ANDROID_LOG_INFO, "Info", "m_boundWidthTrimap:%d, m_boundHeightTrimap:%d",
                      m_boundWidthTrimap, m_boundHeightTrimap);

  // 8./9. The band's graph, over its pixels only.
  int status = 0;
  const IplImage* texA = nullptr;
  const IplImage* texB = nullptr;
  if (grey) {
    texA = ZIRKSEMarker::m_texHor;
    texB = ZIRKSEMarker::m_texVer;
    if (texA == nullptr || texB == nullptr || texA->width != small.width ||
        texA->height != small.height || texB->width != small.width || texB->height != small.height)
      status = 1;  // grey features without texture maps: can not build the band
  }
  if (m_trimapGraph != nullptr) {
    delete m_trimapGraph;  // never left over, but never leaked either
    m_trimapGraph = nullptr;
  }
  if (status == 0) {
    m_trimapGraph = band.build(original, texA, texB, links);
    if (m_trimapGraph == nullptr) status = 1;
  }
  if (cancelSegmentation()) return nullptr;

  IplImage* result = nullptr;
  if (status != 0) {
    // 10. Construction failed: plain enlargement.
    __android_log_print(ANDROID_LOG_ERROR, "Error", "Failed: intelligentUpscaling (status_flag = %d)",
                        status);
    result = enlargeMask(mask, full);
  } else {
    // 11. Cut the band.
    band.solve(m_trimapGraph);
    // A max-flow stopped part-way leaves nodes unsolved: its cut is not used.
    if (cancelSegmentation()) return nullptr;
    // 12. Object = labels 2 and 4: the enlarged working labels, where the
    // unknown ring of the band takes the side of the cut.
    checkSize(full, 2085);
    result = cvCreateImage(full, IPL_DEPTH_8U, 1);
    ZIRK_prefault(result);
    writeResult(band, xmap, ymap, m_trimapGraph, result);
  }

  // 13. The graph is released on the way out.
  return result;
}
