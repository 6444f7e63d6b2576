// The segmenter object itself: construction and teardown, the flow graph of
// the working box, the box around the marks and cropping images to it.
#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKMemory.h"

namespace {

// Margin added around the marks on every side that is not the image border.
constexpr int kBoxMargin = 10;

// Running extent of the pixels found so far.
struct Extent {
  int minX = INT_MAX;
  int minY = INT_MAX;
  int maxX = -1;
  int maxY = -1;

  void add(int x, int y) {
    minX = std::min(minX, x);
    minY = std::min(minY, y);
    maxX = std::max(maxX, x);
    maxY = std::max(maxY, y);
  }
  bool empty() const { return maxX < 0; }
};

// Extent of the label pixels that satisfy keep(label). The scan covers the
// working size but never more than the label image holds.
template <typename Keep>
Extent labelExtent(const IplImage* labels, Keep keep) {
  Extent e;
  if (labels == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "computeBoundingBox: no label image");
    return e;
  }
  const int w = std::min(ZIRKSEMarker::m_width, labels->width);
  const int h = std::min(ZIRKSEMarker::m_height, labels->height);
  for (int y = 0; y < h; ++y) {
    const uint8_t* row = reinterpret_cast<const uint8_t*>(labels->imageData) + y * labels->widthStep;
    for (int x = 0; x < w; ++x) {
      if (keep(row[x])) e.add(x, y);
    }
  }
  return e;
}

}  // namespace

ZIRKSEHybrid::ZIRKSEHybrid()
    : m_width(0),
      m_height(0),
      m_cropHeight(0),
      m_cropWidth(0),
      m_boundWidthTrimap(0),
      m_boundHeightTrimap(0),
      m_cropSrcImage(nullptr),
      m_cropLabelImage(nullptr),
      m_initLabelImage(nullptr),
      m_labelHistory{nullptr, nullptr, nullptr},
      m_lamda(50.0),
      m_beta(0.0),
      m_areaThreshold(0),
      m_graph(nullptr),
      m_trimapGraph(nullptr),
      m_nlinks(nullptr),
      m_fgModel(),
      m_bgModel() {}

ZIRKSEHybrid::~ZIRKSEHybrid() {
  // The graphs normally are gone by now; one left behind by an interrupted
  // run is released rather than leaked, and so are the per-request images.
  graphSpaceDellocator();
  delete m_trimapGraph;
  m_trimapGraph = nullptr;
  ZIRK_ReleaseImage(&m_cropSrcImage);
  ZIRK_ReleaseImage(&m_cropLabelImage);
  ZIRK_ReleaseImage(&m_initLabelImage);
  for (IplImage*& img : m_labelHistory) ZIRK_ReleaseImage(&img);
  if (m_nlinks != nullptr) {
    ZIRK_Free_Msg(m_nlinks, "~ZIRKSEHybrid", 66);
    m_nlinks = nullptr;
  }
}

void ZIRKSEHybrid::graphSpaceAllocator() {
  graphSpaceDellocator();  // a graph still held would otherwise leak
  const int nodeCount = std::max(0, m_cropHeight) * std::max(0, m_cropWidth);
  m_graph = new (std::nothrow) ZIRKSEGraph(nodeCount, 8 * nodeCount, m_cropWidth, m_cropHeight, 0);
  if (m_graph == nullptr)
    __android_log_print(ANDROID_LOG_ERROR, "Error", "graphSpaceAllocator: no memory for %d nodes",
                        nodeCount);
}

void ZIRKSEHybrid::graphSpaceDellocator() {
  if (m_graph != nullptr) {
    delete m_graph;
    m_graph = nullptr;
  }
}

void ZIRKSEHybrid::computeBoundingBox() {
  const strokeInfo& stroke = ZIRKSEMarker::currentStroke;
  Extent e;
  if (stroke.points.empty()) {
    // No path (a box request): the unknown and estimated-object pixels.
    e = labelExtent(ZIRKSEMarker::m_labelImage, [](uint8_t v) { return v == 0 || v == 4; });
  } else if (isBrushEdit(stroke.type)) {
    // A brush edit: the ring its dilation left in the labels.
    const uint8_t ring = stroke.type == kEditStrokeAdd ? 4 : 3;
    e = labelExtent(ZIRKSEMarker::m_labelImage, [ring](uint8_t v) { return v == ring; });
  } else {
    // A loop: its points, brought from source to working pixels. Points are
    // kept inside the working image so the box never leaves it.
    const float scale = 1.0f / g_imageResizeFactor;
    const size_t count = stroke.points.size() & ~static_cast<size_t>(1);
    for (size_t i = 0; i < count; i += 2) {
      int x = static_cast<int>(static_cast<float>(stroke.points[i]) * scale);
      int y = static_cast<int>(static_cast<float>(stroke.points[i + 1]) * scale);
      x = std::max(0, std::min(x, m_width - 1));
      y = std::max(0, std::min(y, m_height - 1));
      e.add(x, y);
    }
  }
  if (e.empty()) e.minX = e.minY = e.maxX = e.maxY = 0;

  ZIRKSEMarker::m_xMinBBox = e.minX < kBoxMargin ? 0 : e.minX - kBoxMargin;
  ZIRKSEMarker::m_yMinBBox = e.minY < kBoxMargin ? 0 : e.minY - kBoxMargin;
  const int right = std::min(e.maxX + kBoxMargin, m_width - 1);
  const int bottom = std::min(e.maxY + kBoxMargin, m_height - 1);
  m_cropWidth = right - ZIRKSEMarker::m_xMinBBox + 1;
  m_cropHeight = bottom - ZIRKSEMarker::m_yMinBBox + 1;
  m_areaThreshold = static_cast<int64_t>(static_cast<double>(e.maxY - e.minY) *
                                         static_cast<double>(e.maxX - e.minX) * 0.1);
}

IplImage* ZIRKSEHybrid::cropImage(IplImage* img) {
  if (img == nullptr || img->depth != IPL_DEPTH_8U) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "cropImage: no 8-bit image");
    return nullptr;
  }
  if (m_cropWidth < 1 || m_cropHeight < 1) ZIRK_LogMemoryCrash("cropImage", 850);
  const int w = std::max(0, m_cropWidth);
  const int h = std::max(0, m_cropHeight);
  IplImage* crop = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, img->nChannels);
  if (w == 0 || h == 0) return crop;

  // Copy the part of the box that lies inside img; anything outside stays 0.
  cvSetZero(crop);
  const int x0 = ZIRKSEMarker::m_xMinBBox;
  const int y0 = ZIRKSEMarker::m_yMinBBox;
  const int cFrom = std::max(0, -x0);
  const int cTo = std::min(w, img->width - x0);
  const int rFrom = std::max(0, -y0);
  const int rTo = std::min(h, img->height - y0);
  if (cFrom >= cTo) return crop;
  const int bytesPerPixel = img->nChannels;
  for (int r = rFrom; r < rTo; ++r) {
    const uint8_t* src = reinterpret_cast<const uint8_t*>(img->imageData) +
                         static_cast<size_t>(y0 + r) * img->widthStep +
                         static_cast<size_t>(x0 + cFrom) * bytesPerPixel;
    uint8_t* dst = reinterpret_cast<uint8_t*>(crop->imageData) +
                   static_cast<size_t>(r) * crop->widthStep + static_cast<size_t>(cFrom) * bytesPerPixel;
    std::memcpy(dst, src, static_cast<size_t>(cTo - cFrom) * bytesPerPixel);
  }
  return crop;
}
