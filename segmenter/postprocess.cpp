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

// 4-connected regions of the pixels equal to value. Labels are 32-bit, so any
// number of regions is told apart; label 0 is everything else.
int regionsOf(const cv::Mat& mask, uint8_t value, cv::Mat& labels, cv::Mat& stats) {
  cv::Mat selected = mask == value;
  cv::Mat centroids;
  return cv::connectedComponentsWithStats(selected, labels, stats, centroids, 4, CV_32S);
}

// Sets every pixel of the regions marked in `chosen` to value.
void paintRegions(cv::Mat& mask, const cv::Mat& labels, const std::vector<uint8_t>& chosen,
                  uint8_t value) {
  for (int r = 0; r < mask.rows; ++r) {
    const int32_t* lab = labels.ptr<int32_t>(r);
    uint8_t* out = mask.ptr<uint8_t>(r);
    for (int c = 0; c < mask.cols; ++c) {
      if (chosen[lab[c]]) out[c] = value;
    }
  }
}

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
  IplImage* merged = cvCloneImage(prev);
  ZIRKReleaseOnExit releaseMerged(&merged);
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
  for (int r = rFrom; r < rTo; ++r) {
    const uint8_t* in = reinterpret_cast<const uint8_t*>(mask->imageData) + r * mask->widthStep;
    uint8_t* out = reinterpret_cast<uint8_t*>(merged->imageData) + r * merged->widthStep;
    for (int c = cFrom; c < cTo; ++c) {
      if (in[c] == v) out[c] = v;
    }
  }
  cvCopy(merged, mask);
  cvReleaseImage(&merged);
}

void ZIRKSEHybrid::postProcessForLoop(IplImage* mask) {
  if (!isByteMask(mask) || mask->width < 1 || mask->height < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "postProcessForLoop: no 8-bit mask");
    return;
  }
  cv::Mat m = cv::cvarrToMat(mask);
  cv::Mat labels;
  cv::Mat stats;

  // 1./2. Object islands under a tenth of the largest are dropped.
  int count = regionsOf(m, kObject, labels, stats);
  int largest = 0;
  for (int i = 1; i < count; ++i) largest = std::max(largest, stats.at<int>(i, cv::CC_STAT_AREA));
  const int64_t threshold = static_cast<int64_t>(largest * kIslandFraction);
  std::vector<uint8_t> chosen(count, 0);
  bool any = false;
  for (int i = 1; i < count; ++i) {
    chosen[i] = stats.at<int>(i, cv::CC_STAT_AREA) < threshold;
    any = any || chosen[i];
  }
  if (any) paintRegions(m, labels, chosen, kBackground);
  if (cancelSegmentation()) return;  // the mask is dropped anyway

  // 3. Background holes of at most 4 pixels in the cleaned mask are filled.
  count = regionsOf(m, kBackground, labels, stats);
  chosen.assign(count, 0);
  any = false;
  for (int i = 1; i < count; ++i) {
    chosen[i] = stats.at<int>(i, cv::CC_STAT_AREA) <= kMaxHole;
    any = any || chosen[i];
  }
  if (any) paintRegions(m, labels, chosen, kObject);
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
  cvSetZero(change);
  for (int r = 0; r < mask->height; ++r) {
    const uint8_t* m = reinterpret_cast<const uint8_t*>(mask->imageData) + r * mask->widthStep;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(prev->imageData) + r * prev->widthStep;
    uint8_t* c = reinterpret_cast<uint8_t*>(change->imageData) + r * change->widthStep;
    for (int x = 0; x < mask->width; ++x) {
      if (m[x] == newValue && p[x] == oldValue) c[x] = kFlipped;
    }
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
