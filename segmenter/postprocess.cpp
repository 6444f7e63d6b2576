// Clean-up of a cut by edit kind, the merge with the previous result, and the
// black borders (letterbox bars) kept out of the working box.
//
// A loop that adds drops object islands under a tenth of the largest one and
// fills background holes of at most 4 pixels. A brush edit keeps only the
// flipped regions its path touches. The merge then lets an edit only add
// object pixels (adding kinds) or only remove them (removing kinds), and only
// inside the box the cut ran in.
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKPages.h"

namespace {

constexpr uint8_t kObject = 255;
constexpr uint8_t kBackground = 0;
// Islands smaller than this fraction of the largest one are dropped.
constexpr double kIslandFraction = 0.1;
// Background regions of at most this many pixels are filled.
constexpr int kMaxHole = 4;

bool isByteMask(const IplImage* img) {
  return img != nullptr && img->depth == IPL_DEPTH_8U && img->nChannels == 1;
}

bool sameSize(const IplImage* a, const IplImage* b) {
  return a->width == b->width && a->height == b->height;
}

// 4-connected regions of the pixels equal to one value, found on runs of
// rows with a union-find, so the memory grows with the number of runs
// rather than with the number of pixels.
class Regions {
 public:
  Regions(const cv::Mat& mask, uint8_t value) {
    int32_t previousRow = 0;  // first run of the row above
    for (int r = 0; r < mask.rows; ++r) {
      const uint8_t* row = mask.ptr<uint8_t>(r);
      const int32_t thisRow = static_cast<int32_t>(m_runs.size());
      for (int c = 0; c < mask.cols;) {
        if (row[c] != value) {
          ++c;
          continue;
        }
        const int32_t x0 = c;
        while (c < mask.cols && row[c] == value) ++c;
        m_runs.push_back(Run{r, x0, c - 1});
        m_parent.push_back(static_cast<int32_t>(m_parent.size()));
      }
      // Runs of neighbouring rows that share a column are one region.
      int32_t a = previousRow;
      for (int32_t b = thisRow; b < static_cast<int32_t>(m_runs.size()); ++b) {
        while (a < thisRow && m_runs[a].x1 < m_runs[b].x0) ++a;
        for (int32_t k = a; k < thisRow && m_runs[k].x0 <= m_runs[b].x1; ++k) join(k, b);
      }
      previousRow = thisRow;
    }
    m_area.assign(m_runs.size(), 0);
    for (size_t i = 0; i < m_runs.size(); ++i)
      m_area[root(static_cast<int32_t>(i))] += m_runs[i].x1 - m_runs[i].x0 + 1;
  }

  // Area of the region of each run's root (0 for other runs).
  int64_t largest() const {
    int64_t most = 0;
    for (int64_t a : m_area) most = std::max(most, a);
    return most;
  }

  // Sets every pixel of the regions whose area passes `chosen` to `to`.
  template <class Choose>
  void paint(cv::Mat& mask, uint8_t to, Choose chosen) {
    for (size_t i = 0; i < m_runs.size(); ++i) {
      if (!chosen(m_area[root(static_cast<int32_t>(i))])) continue;
      const Run& run = m_runs[i];
      std::fill(mask.ptr<uint8_t>(run.row) + run.x0, mask.ptr<uint8_t>(run.row) + run.x1 + 1, to);
    }
  }

 private:
  struct Run {
    int32_t row, x0, x1;
  };
  int32_t root(int32_t i) {
    while (m_parent[i] != i) i = m_parent[i] = m_parent[m_parent[i]];
    return i;
  }
  void join(int32_t a, int32_t b) {
    a = root(a);
    b = root(b);
    if (a != b) m_parent[std::max(a, b)] = std::min(a, b);
  }

  std::vector<Run> m_runs;
  std::vector<int32_t> m_parent;
  std::vector<int64_t> m_area;
};

}  // namespace

void ZIRKSEHybrid::postProcess(IplImage* mask) {
  if (!isByteMask(mask)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "postProcess: no 8-bit mask");
    return;
  }
  const int kind = ZIRKSEMarker::currentStroke.type;

  // 1. Clean-up by edit kind.
  if (kind == kEditLoopAdd)
    postProcessForLoop(mask);
  else if (isBrushEdit(kind))
    postProcessForStroke(mask);

  // 2. Merge with the previous result inside the box, scaled to the mask;
  // skipped when the request was stopped meanwhile (its mask is dropped).
  IplImage* prev = ZIRKSEMarker::m_prevResult;
  if (prev == nullptr || cancelSegmentation()) return;
  if (!isByteMask(prev) || !sameSize(prev, mask)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "postProcess: previous result %d x %d does not match the mask %d x %d",
                        prev->width, prev->height, mask->width, mask->height);
    return;
  }
  // Written in place in one pass: the previous result everywhere, except
  // inside the box where the mask shows the edit's value.
  const uint8_t v = isAddingEdit(kind) ? kObject : kBackground;
  const float f = g_imageResizeFactor;
  const int row0 = static_cast<int>(f * static_cast<float>(ZIRKSEMarker::m_yMinBBox));
  const int rows = static_cast<int>(f * static_cast<float>(m_cropHeight));
  const int col0 = static_cast<int>(f * static_cast<float>(ZIRKSEMarker::m_xMinBBox));
  const int cols = static_cast<int>(f * static_cast<float>(m_cropWidth));
  const int rFrom = std::max(0, row0);
  const int rTo = std::min(mask->height, row0 + rows);
  const int cFrom = std::max(0, col0);
  const int cTo = std::min(mask->width, col0 + cols);
  for (int r = 0; r < mask->height; ++r) {
    uint8_t* out = reinterpret_cast<uint8_t*>(mask->imageData) + r * mask->widthStep;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(prev->imageData) + r * prev->widthStep;
    if (r < rFrom || r >= rTo || cFrom >= cTo) {
      std::copy(p, p + mask->width, out);
      continue;
    }
    std::copy(p, p + cFrom, out);
    for (int c = cFrom; c < cTo; ++c) out[c] = out[c] == v ? v : p[c];
    std::copy(p + cTo, p + mask->width, out + cTo);
  }
}

void ZIRKSEHybrid::postProcessForLoop(IplImage* mask) {
  if (!isByteMask(mask) || mask->width < 1 || mask->height < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "postProcessForLoop: no 8-bit mask");
    return;
  }
  cv::Mat m = cv::cvarrToMat(mask);

  // 1./2. Object islands under a tenth of the largest are dropped.
  {
    Regions objects(m, kObject);
    const int64_t threshold =
        static_cast<int64_t>(static_cast<double>(objects.largest()) * kIslandFraction);
    objects.paint(m, kBackground, [threshold](int64_t area) { return area > 0 && area < threshold; });
  }
  if (cancelSegmentation()) return;  // the mask is dropped anyway

  // 3. Background holes of at most 4 pixels in the cleaned mask are filled.
  Regions holes(m, kBackground);
  holes.paint(m, kObject, [](int64_t area) { return area > 0 && area <= kMaxHole; });
}

void ZIRKSEHybrid::postProcessForStroke(IplImage* mask) {
  IplImage* prev = ZIRKSEMarker::m_prevResult;
  if (prev == nullptr) return;
  if (mask == nullptr || mask->width < 1 || mask->height < 1) {
    ZIRK_LogMemoryCrash("postProcessForStroke", 1694);
    return;
  }
  if (!isByteMask(mask) || !isByteMask(prev) || !sameSize(prev, mask)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "postProcessForStroke: previous result does not match the mask");
    return;
  }

  // 2. What this edit turns pixels into, and from what.
  const bool removing = ZIRKSEMarker::currentStroke.type == kEditStrokeRemove;
  const uint8_t newValue = removing ? kBackground : kObject;
  const uint8_t oldValue = removing ? kObject : kBackground;

  // 3. The pixels this edit flipped.
  constexpr uint8_t kFlipped = 127;
  constexpr uint8_t kKept = 255;
  IplImage* change = cvCreateImage(cvGetSize(mask), IPL_DEPTH_8U, 1);
  ZIRKReleaseOnExit releaseChange(&change);
  ZIRK_prefault(change);
  for (int r = 0; r < mask->height; ++r) {
    const uint8_t* m = reinterpret_cast<const uint8_t*>(mask->imageData) + r * mask->widthStep;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(prev->imageData) + r * prev->widthStep;
    uint8_t* c = reinterpret_cast<uint8_t*>(change->imageData) + r * change->widthStep;
    for (int x = 0; x < mask->width; ++x) c[x] = m[x] == newValue && p[x] == oldValue ? kFlipped : 0;
  }

  if (cancelSegmentation()) return;  // the mask is dropped anyway

  // 4. Flipped regions touched by the path (source pixels) are kept.
  const std::vector<int32_t>& pts = ZIRKSEMarker::currentStroke.points;
  for (size_t i = 0; i + 1 < pts.size(); i += 2) {
    const int x = pts[i];
    const int y = pts[i + 1];
    if (x < 0 || y < 0 || x >= change->width || y >= change->height) continue;
    const uint8_t v = reinterpret_cast<uint8_t*>(change->imageData)[y * change->widthStep + x];
    if (v == kFlipped)
      cvFloodFill(change, cvPoint(x, y), cvScalar(kKept), cvScalarAll(0), cvScalarAll(0), nullptr, 4,
                  nullptr);
  }

  // 5. The previous result, plus the kept flips.
  for (int r = 0; r < mask->height; ++r) {
    uint8_t* m = reinterpret_cast<uint8_t*>(mask->imageData) + r * mask->widthStep;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(prev->imageData) + r * prev->widthStep;
    const uint8_t* c = reinterpret_cast<const uint8_t*>(change->imageData) + r * change->widthStep;
    for (int x = 0; x < mask->width; ++x) m[x] = c[x] == kKept ? newValue : p[x];
  }
  cvReleaseImage(&change);
}

void ZIRKSEHybrid::removeBlackRegion() {
  // 1. The box of the working image.
  IplImage* crop = cropImage(ZIRKSEMarker::m_srcImage);
  if (crop == nullptr) return;
  ZIRKReleaseOnExit releaseCrop(&crop);
  const int w = crop->width;
  const int h = crop->height;
  if (w < 1 || h < 1) {
    cvReleaseImage(&crop);
    return;
  }

  // 2. Sums of every column and every row over all channels.
  std::vector<uint64_t> colSum(w, 0);
  std::vector<uint64_t> rowSum(h, 0);
  const int channels = crop->nChannels;
  for (int r = 0; r < h; ++r) {
    const uint8_t* px = reinterpret_cast<const uint8_t*>(crop->imageData) + r * crop->widthStep;
    for (int c = 0; c < w; ++c) {
      uint32_t s = 0;
      for (int k = 0; k < channels; ++k) s += px[c * channels + k];
      colSum[c] += s;
      rowSum[r] += s;
    }
  }
  cvReleaseImage(&crop);

  // 3. First and last lines with content on each axis.
  int left = 0;
  while (left < w && colSum[left] == 0) ++left;
  if (left == w) return;  // an entirely black box stays as it is
  int right = w - 1;
  while (colSum[right] == 0) --right;
  int top = 0;
  while (rowSum[top] == 0) ++top;
  int bottom = h - 1;
  while (rowSum[bottom] == 0) --bottom;

  // 4. No black border.
  if (left == 0 && top == 0 && right == w - 1 && bottom == h - 1) return;
  // Content in a single line would be labelled background as a whole; such a
  // box is left alone rather than emptied.
  if (left == right || top == bottom) return;

  // 5. The bars and the first and last lines with content become background.
  IplImage* labels = ZIRKSEMarker::m_labelImage;
  if (isByteMask(labels)) {
    const int x0 = ZIRKSEMarker::m_xMinBBox;
    const int y0 = ZIRKSEMarker::m_yMinBBox;
    for (int r = 0; r < h; ++r) {
      const int y = y0 + r;
      if (y < 0 || y >= labels->height) continue;
      uint8_t* row = reinterpret_cast<uint8_t*>(labels->imageData) + y * labels->widthStep;
      const bool wholeRow = r <= top || r >= bottom;
      for (int c = 0; c < w; ++c) {
        const int x = x0 + c;
        if (x < 0 || x >= labels->width) continue;
        if (wholeRow || c <= left || c >= right) row[x] = kLabelBackgroundFixed;
      }
    }
  } else {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "removeBlackRegion: no label image");
  }

  // 6. The box shrinks to the content.
  ZIRKSEMarker::m_xMinBBox += left;
  ZIRKSEMarker::m_yMinBBox += top;
  m_cropWidth = right - left + 1;
  m_cropHeight = bottom - top + 1;
}
