// The segment pipeline: the working image (once per engine), the label image
// of an edit, and the five rounds of model fitting and cutting in the box.
//
// One edit, in steps:
//   1. setLabelImage merges the marks with the newest history mask and
//      clears the drawn path (unknown) in the working-size label image.
//   2. segment() computes and tightens the box, crops, and runs five
//      iterations: 0..2 try the three candidate weights from the user's
//      labels, 3 picks one, 4 refits; each one fits or keeps the colour
//      models, fills the graph, cuts it and rewrites the box labels.
//   3. getObjMask() writes the box back, refines the mask at source
//      resolution when the working image was reduced, cleans it up by edit
//      kind and records it in the history.
// Cancel and time-out are checked after the box set-up, after every
// iteration, between the stages of the refinement and of the clean-up; they
// end the request with no result and an unchanged history. Per-request images and the graph exist
// only inside segment().
//
// Stage times of the last segment (ms) go to the g_t_* slots: preProcess,
// colEst (fresh fits), colUpd (refits), tAndNLinks (graph filling), maxflow
// (the box cuts), postProcess (clean-up by edit kind) and TotalTime. The
// full-resolution refinement has no slot of its own: it is what TotalTime
// holds beyond the other stages (with small bookkeeping such as cropping and
// the history update).
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cmath>
#include <cstdint>
#include <thread>
#include <vector>

#include "colormodel/TrainingData.h"
#include "engine/EngineState.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKTimer.h"

namespace {

constexpr int kIterations = 5;
constexpr double kStartLamda = 50.0;
constexpr double kNoiseLevel = 0.1;
constexpr double kHomogenousNoiseLevel = 10.0;
#ifdef SEGCORE_WORKING_PIXELS
// A build option of the fuzz build only (a smaller working image).
constexpr double kWorkingPixelsInverse = 1.0 / SEGCORE_WORKING_PIXELS;
#else
constexpr double kWorkingPixelsInverse = 1.3020834e-05;  // 1 / 76800
#endif
constexpr double kBrushRingFraction = 0.05;              // brush ring: 5 % of the diagonal scale
// Boxes of at least this many pixels are cut in bands of rows on their own
// threads (the cut is the same as one serial solve's whatever the count).
// On a machine of two cores or fewer a fresh fill (an edit's first cut) is
// cut in two bands and a refill in three: measured over the photos' box
// cuts, two bands for fresh fills took the max-flows from 29.0 to 25.4 ms a
// photo, and three beat two or four for refills (by about 9 %). Elsewhere
// four (phones have more cores; not measured there).
constexpr int kPartedBoxPixels = 16384;
int boxParts(bool refill) {
  static const unsigned cores = std::thread::hardware_concurrency();  // 0: unknown
  if (cores == 0 || cores > 2) return 4;
  return refill ? 3 : 2;
}

inline uint8_t* pixelRow(IplImage* img, int y) {
  return reinterpret_cast<uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep;
}

double nowMs() {
  struct timeval t;
  gettimeofday(&t, nullptr);
  return static_cast<double>(t.tv_sec) * 1000.0 + static_cast<double>(t.tv_usec) * 0.001;
}

// Adds the time since `start` to a stage slot.
struct StageTimer {
  explicit StageTimer(double* slot) : slot(slot), start(nowMs()) {}
  ~StageTimer() { *slot += nowMs() - start; }
  StageTimer(const StageTimer&) = delete;
  StageTimer& operator=(const StageTimer&) = delete;
  double* slot;
  double start;
};

void resetStageTimes() {
  g_t_preProcess = 0.0;
  g_t_colEst = 0.0;
  g_t_colUpd = 0.0;
  g_t_tAndNLinks = 0.0;
  g_t_maxflow = 0.0;
  g_t_postProcess = 0.0;
  g_t_TotalTime = 0.0;
}

}  // namespace

void ZIRKSEHybrid::intializer() {
  IplImage* original = ZIRKSEMarker::m_originalImage;
  if (original == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "intializer: no source image");
    return;
  }
  // 1. Scale that brings the source to about 76800 pixels.
  const int W = ZIRKSEMarker::m_originalWidth;
  const int H = ZIRKSEMarker::m_originalHeight;
  const double s = std::sqrt(static_cast<double>(W) * static_cast<double>(H) * kWorkingPixelsInverse);
  if (s > 1.0) g_imageResizeFactor = static_cast<float>(s);

  // 2-3. The working image: a copy, or the source reduced (bilinear).
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_srcImage);
  if (g_imageResizeFactor == 1.0f) {
    ZIRKSEMarker::m_width = W;
    ZIRKSEMarker::m_height = H;
    if (W < 1 || H < 1) {
      ZIRK_LogMemoryCrash("intializer", 92);
      return;  // no working image can be made
    }
    ZIRKSEMarker::m_srcImage = cvCreateImage(cvSize(W, H), IPL_DEPTH_8U, 3);
    cvCopy(original, ZIRKSEMarker::m_srcImage, nullptr);
  } else {
    ZIRKSEMarker::m_width = static_cast<int>(static_cast<float>(W) / g_imageResizeFactor);
    ZIRKSEMarker::m_height = static_cast<int>(static_cast<float>(H) / g_imageResizeFactor);
    if (ZIRKSEMarker::m_width < 1 || ZIRKSEMarker::m_height < 1) {
      ZIRK_LogMemoryCrash("intializer", 103);
      return;
    }
    ZIRKSEMarker::m_srcImage =
        cvCreateImage(cvSize(ZIRKSEMarker::m_width, ZIRKSEMarker::m_height), IPL_DEPTH_8U, 3);
    cvResize(original, ZIRKSEMarker::m_srcImage, CV_INTER_LINEAR);
  }

  // 4. Grey images get texture features.
  ZIRKSEMarker::m_isGreyScale = greyScaleTest(ZIRKSEMarker::m_srcImage);
  if (ZIRKSEMarker::m_isGreyScale) computeTexture();

  // 5. Neighbour weights of the whole working image.
  m_width = ZIRKSEMarker::m_srcImage->width;
  m_height = ZIRKSEMarker::m_srcImage->height;
  {
    g_t_nLinksComputation = 0.0;
    StageTimer t(&g_t_nLinksComputation);
    computeNlinks();
  }
  for (IplImage*& h : m_labelHistory) h = nullptr;
}

void ZIRKSEHybrid::setLabelImage(IplImage* marker) {
  // 1. The previous request's images go.
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_labelImage);
  ZIRK_ReleaseImage(&ZIRKSEMarker::m_prevResult);
  if (marker == nullptr || marker->nChannels != 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "setLabelImage: no marker image");
    return;
  }
  const int w = marker->width;
  const int h = marker->height;
  const int kind = ZIRKSEMarker::currentStroke.type;

  // 2. A brush stroke gets an estimated ring around it. The dilation only
  // reaches n pixels from a mark, so it runs on the marks' bounding box
  // grown by n, and only that part of the marks is copied: beyond it every
  // mark is 0, as the copy's replicated border is.
  if (isBrushEdit(kind)) {
    const uint8_t oldLabel = kind == kEditStrokeAdd ? kLabelObjectFixed : kLabelBackgroundFixed;
    const uint8_t newLabel = kind == kEditStrokeAdd ? kLabelObjectEst : kLabelBackgroundEst;
    const int n = static_cast<int>(std::sqrt(static_cast<double>(w) * h) * kBrushRingFraction);
    const cv::Rect marked = cv::boundingRect(cv::cvarrToMat(marker));
    const cv::Rect reach = cv::Rect(marked.x - n, marked.y - n, marked.width + 2 * n,
                                    marked.height + 2 * n) & cv::Rect(0, 0, w, h);
    if (!marked.empty() && !reach.empty()) {
      IplImage* clone = cvCreateImage(cvSize(reach.width, reach.height), IPL_DEPTH_8U, 1);
      ZIRKReleaseOnExit releaseClone(&clone);
      cvSetImageROI(marker, cvRect(reach.x, reach.y, reach.width, reach.height));
      cvCopy(marker, clone, nullptr);
      cvDilate(clone, marker, nullptr, n);
      cvResetImageROI(marker);
      for (int y = 0; y < reach.height; ++y) {
        uint8_t* m = pixelRow(marker, reach.y + y) + reach.x;
        const uint8_t* c = pixelRow(clone, y);
        for (int x = 0; x < reach.width; ++x) {
          if (m[x] == oldLabel && c[x] == 0) m[x] = newLabel;
        }
      }
      cvReleaseImage(&clone);
    }
  }

  // 3. The newest history mask.
  ZIRKSEMarker::m_prevResult = ZIRKSEManageUndoRedo::prevMask();
  if (ZIRKSEMarker::m_prevResult != nullptr &&
      (ZIRKSEMarker::m_prevResult->width != w || ZIRKSEMarker::m_prevResult->height != h)) {
    // A mask of another size can not be merged; the edit starts afresh.
    __android_log_print(ANDROID_LOG_ERROR, "Error", "setLabelImage: history mask size differs");
    ZIRK_ReleaseImage(&ZIRKSEMarker::m_prevResult);
  }

  // 4-6. The labels at working size, each from the source pixel that a
  // nearest-neighbour reduction shows there (the resize's own choice, so
  // the same labels as merging at full size and then reducing, without the
  // full-size label image). With a history mask, unmarked pixels keep the
  // previous result as fixed labels and marked pixels already on the edit's
  // side are fixed too; without one, everything unmarked is background.
  // Other pixels keep their mark.
  CvSize size = cvSize(w, h);
  if (g_imageResizeFactor != 1.0f) {
    const IplImage* src = ZIRKSEMarker::m_srcImage;
    if (src == nullptr || src->width < 1 || src->height < 1) {
      ZIRK_LogMemoryCrash("setLabelImage", 223);
      return;
    }
    size = cvGetSize(src);
  }
  IplImage* labels = cvCreateImage(size, IPL_DEPTH_8U, 1);
  const std::vector<int32_t> xmap = ZIRK_nearestMap(w, size.width);
  const std::vector<int32_t> ymap = ZIRK_nearestMap(h, size.height);
  IplImage* prev = ZIRKSEMarker::m_prevResult;
  const uint8_t fixed = isAddingEdit(kind) ? kLabelObjectFixed : kLabelBackgroundFixed;
  const uint8_t result = isAddingEdit(kind) ? 255 : 0;
  const uint8_t background = kLabelBackgroundFixed, object = kLabelObjectFixed;
  for (int y = 0; y < size.height; ++y) {
    const uint8_t* m = pixelRow(marker, ymap[y]);
    const uint8_t* p = prev != nullptr ? pixelRow(prev, ymap[y]) : nullptr;
    uint8_t* l = pixelRow(labels, y);
    for (int x = 0; x < size.width; ++x) {
      const int32_t sx = xmap[x];
      if (p == nullptr) {
        l[x] = m[sx] == 0 ? background : m[sx];
      } else if (m[sx] == 0) {
        l[x] = p[sx] == 0 ? background : p[sx] == 255 ? object : 0;
      } else {
        l[x] = p[sx] == result ? fixed : m[sx];
      }
    }
  }
  ZIRKSEMarker::m_labelImage = labels;
  // 7. The drawn path becomes unknown.
  addUnknownRegion();
}

void ZIRKSEHybrid::addUnknownRegion() {
  ZIRK_clearDrawnPath(ZIRKSEMarker::m_labelImage, ZIRKSEMarker::currentStroke.points,
                      g_imageResizeFactor);
}

IplImage* ZIRKSEHybrid::segment() {
  resetStageTimes();
  StageTimer total(&g_t_TotalTime);
  IplImage* labels = ZIRKSEMarker::m_labelImage;
  IplImage* src = ZIRKSEMarker::m_srcImage;
  if (labels == nullptr || src == nullptr || labels->width != src->width ||
      labels->height != src->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "segment: no label or working image");
    return nullptr;
  }
  // 1. The budget timer and the sample lists.
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  std::vector<pixelVal> objectSamples;
  std::vector<pixelVal> backgroundSamples;

  // 2. The box around the marks, tightened to the image's structure.
  computeBoundingBox();
  preProcess();
  if (m_cropWidth < 1 || m_cropHeight < 1) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "segment: empty box");
    clearMemory();
    return nullptr;
  }
  if (cancelSegmentation()) return endCancelled();

  // 3-4. The box's graph and crops.
  graphSpaceDellocator();
  graphSpaceAllocator();
  if (m_graph == nullptr || m_graph->m_nodes == nullptr || m_graph->m_arcs == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "segment: no memory for the graph");
    clearMemory();
    return nullptr;
  }
  ZIRK_ReleaseImage(&m_cropSrcImage);
  ZIRK_ReleaseImage(&m_cropLabelImage);
  ZIRK_ReleaseImage(&m_initLabelImage);
  m_cropSrcImage = cropImage(ZIRKSEMarker::m_srcImage);
  m_cropLabelImage = cropImage(ZIRKSEMarker::m_labelImage);
  if (m_cropSrcImage == nullptr || m_cropLabelImage == nullptr) {
    clearMemory();
    return nullptr;
  }
  m_initLabelImage = cvCloneImage(m_cropLabelImage);
  m_lamda = kStartLamda;
  ZIRKSEMarker::m_noiseLevel = kNoiseLevel;

  // 5. Five iterations.
  int mode = -1;
  bool ask = true;
  for (int i = 0; i < kIterations; ++i) {
    // 5.1 What to do with the models this time (and the trial's weight).
    if (ask) mode = parallelLamdaSwtich(i);
    const bool sameModels = i > 0 && mode != 0 && mode != 1;

    // 5.2-5.3 Fit or refit the models; invert their covariances, with a
    // heavy regulariser for a homogenous background.
    if (mode == 0 || mode == 1) {
      const bool fresh = mode == 0;
      StageTimer t(fresh ? &g_t_colEst : &g_t_colUpd);
      extractTrainingData(m_cropSrcImage, m_cropLabelImage, objectSamples, backgroundSamples);
      if (fresh) {
        initModel(backgroundSamples, m_bgModel, 10);
        initModel(objectSamples, m_fgModel, 10);
      } else {
        updateModel(objectSamples, backgroundSamples, m_fgModel, m_bgModel);
      }
      const bool simpleBackground = i == 0 && m_bgModel.colorModelCriteria();
      m_fgModel.setInverseCovariance();
      if (simpleBackground || ZIRKSEMarker::m_isHomogenous) {
        ZIRKSEMarker::m_noiseLevel = kHomogenousNoiseLevel;
        m_bgModel.setInverseCovariance();
        ZIRKSEMarker::m_noiseLevel = kNoiseLevel;
        m_lamda = kStartLamda;
        ZIRKSEMarker::m_isHomogenous = true;
        if (fresh) ask = false;  // no weight trials for a homogenous image
      } else {
        m_bgModel.setInverseCovariance();
        ZIRKSEMarker::m_isHomogenous = false;
        if (fresh) ask = true;
      }
      mode = 1;
    }
    // 5.4 Other modes keep the models and only cut again.

    // 5.5 Fill, cut, relabel.
    {
      StageTimer t(&g_t_tAndNLinks);
      // From the second cut on, the previous cut's flow is the start.
      ZIRK_fillBoxGraph(this, true, sameModels);
    }
    {
      StageTimer t(&g_t_maxflow);
      const bool parted = m_cropWidth * m_cropHeight >= kPartedBoxPixels;
      ZIRK_solveGridInParts(m_graph, parted ? boxParts(m_graph->m_warmFill) : 1);
    }
    updateLabelImage();

    // 5.6 Keep each trial's labels.
    if (i < 3) {
      ZIRK_ReleaseImage(&m_labelHistory[i]);
      m_labelHistory[i] = cvCloneImage(m_cropLabelImage);
    }

    // 5.7 Cancelled or out of time: no result, history untouched.
    if (cancelSegmentation()) return endCancelled();
  }

  // 6. Final check for homogenous images, then the mask. The refinement and
  // the clean-up check the cancel and the budget too; a mask that comes back
  // is in the history.
  if (ZIRKSEMarker::m_isHomogenous) chooseIter();
  graphSpaceDellocator();
  IplImage* mask = getObjMask();
  if (mask == nullptr && cancelSegmentation()) return endCancelled();
  clearMemory();
  return mask;
}

IplImage* ZIRKSEHybrid::endCancelled() {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "Segmentation canceled due to timeout");
  clearMemory();
  return nullptr;
}

int ZIRKSEHybrid::updateLabelImage() {
  IplImage* labels = m_cropLabelImage;
  if (labels == nullptr || m_graph == nullptr) return 0;
  const int w = m_cropWidth;
  const int h = m_cropHeight;
  int counted = 0;
  // The nodes are read directly once the graph is known to hold them all
  // (getTreeofNode's check and call per pixel cost more than the rest).
  if (static_cast<int64_t>(w) * h > m_graph->m_nodeCount || m_graph->m_nodes == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "updateLabelImage: the graph does not hold the box");
    return 0;
  }
  const nodes* const graphNodes = m_graph->m_nodes;
  // Four bands of rows covering all rows.
  const int bands[5] = {0, h / 4, h / 2, 3 * (h / 4), h};
  for (int b = 0; b < 4; ++b) {
    for (int r = bands[b]; r < bands[b + 1]; ++r) {
      uint8_t* l = pixelRow(labels, r);
      const nodes* row = graphNodes + static_cast<int64_t>(r) * w;
      for (int c = 0; c < w; ++c) {
        if (l[c] == kLabelBackgroundFixed || l[c] == kLabelObjectFixed) continue;
        if (row[c].tree == SINK) {
          l[c] = kLabelBackgroundEst;
        } else {
          l[c] = kLabelObjectEst;
          ++counted;
        }
      }
    }
  }
  return counted;
}

IplImage* ZIRKSEHybrid::getObjMask() {
  // 1-2. A zeroed mask of the working image.
  if (m_width < 1 || m_height < 1) {
    ZIRK_LogMemoryCrash("getObjMask", 1410);
    return nullptr;  // no mask can be made
  }
  IplImage* labels = ZIRKSEMarker::m_labelImage;
  if (labels == nullptr || m_cropLabelImage == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "getObjMask: no labels");
    return nullptr;
  }
  IplImage* mask = cvCreateImage(cvSize(m_width, m_height), IPL_DEPTH_8U, 1);
  ZIRKReleaseOnExit releaseMask(&mask);
  cvSetZero(mask);

  // 3. The box labels go back into the label image; object pixels are
  // marked 255, or 1 when the refinement follows.
  const bool reduced = g_imageResizeFactor > 1.0f;
  const uint8_t object = reduced ? 1 : 255;
  const int x0 = ZIRKSEMarker::m_xMinBBox;
  const int y0 = ZIRKSEMarker::m_yMinBBox;
  for (int r = 0; r < m_cropHeight; ++r) {
    const uint8_t* c = pixelRow(m_cropLabelImage, r);
    uint8_t* l = pixelRow(labels, y0 + r) + x0;
    uint8_t* m = pixelRow(mask, y0 + r) + x0;
    for (int x = 0; x < m_cropWidth; ++x) {
      l[x] = c[x];
      m[x] = isObjectLabel(c[x]) ? object : 0;
    }
  }

  // 4. Back to source resolution through the band refinement (null when
  // the request was cancelled or ran out of time on the way).
  if (reduced) {
    IplImage* full = intelligentUpscaling(mask);
    cvReleaseImage(&mask);
    if (full == nullptr) return nullptr;
    mask = full;
  }

  // 5. Clean-up by edit kind, then into the history, unless the request was
  // cancelled or ran out of time meanwhile: a stopped request leaves the
  // history as it was.
  if (cancelSegmentation()) return nullptr;
  {
    StageTimer t(&g_t_postProcess);
    postProcess(mask);
  }
  if (cancelSegmentation()) return nullptr;
  ZIRKSEManageUndoRedo::updateBitPlane(mask);
  return releaseMask.keep();
}

void ZIRKSEHybrid::clearMemory() {
  for (IplImage*& h : m_labelHistory) ZIRK_ReleaseImage(&h);
  ZIRK_ReleaseImage(&m_cropSrcImage);
  ZIRK_ReleaseImage(&m_cropLabelImage);
  ZIRK_ReleaseImage(&m_initLabelImage);
  graphSpaceDellocator();
  delete m_trimapGraph;
  m_trimapGraph = nullptr;
  // The timer is nulled as well, so that later budget checks (a graph cut
  // outside a segmentation) never read a freed record.
  destroy_timer(g_cancelTimer);
  g_cancelTimer = nullptr;
}

bool ZIRKSEHybrid::cancelSegmentation() {
  stop_cpu_timer(g_cancelTimer);
  const bool stop = get_elapsed_time_in_millisec(g_cancelTimer) > kSegmentationBudgetMs ||
                    ZIRKSEMarker::m_exitApp;
  // Back to running: the max-flow of the next iteration checks the same
  // budget, and a stopped timer would show it the same elapsed time forever.
  if (g_cancelTimer != nullptr) g_cancelTimer->stopped = 0;
  return stop;
}
