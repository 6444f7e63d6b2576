// The smoothness weight: three trial cuts with fixed candidate weights, the
// choice among their results, and two checks for homogenous images.
//
// Iterations 0..2 each start again from the user's labels with one candidate
// (truncated to an integer during its trial); iteration 3 keeps the largest
// connected parts of each trial's object, asks whether the contrast across
// their boundary beats the contrast inside and whether they reach all four
// borders of the box, and picks a trial (its weight then used untruncated)
// or, when nothing substantial was found, a low fall-back weight with the
// user's labels restored.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cstdint>
#include <vector>

#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKRows.h"

namespace {

// Candidate weights per image kind, and the fall-back.
constexpr float kColourCandidates[3] = {50.0f, 13.513f, 8.0f};
constexpr float kColourFallback = 4.0f;
constexpr float kGreyCandidates[3] = {15.0f, 10.0f, 7.0f};
constexpr float kGreyFallback = 3.0f;

constexpr double kKeepFraction = 0.7;     // parts above 70 % of the largest are kept
constexpr float kSpanFraction = 0.15f;    // "reaches the border": within 15 % of it
constexpr float kMinKeptArea = 100.0f;    // below this nothing substantial was found
constexpr float kSpreadLimit = 0.4f;      // spread of kept areas that picks the last trial

constexpr float kStrongGradient = 70.0f;  // chooseIter: contour on a strong edge
constexpr float kWeakGradient = 30.0f;    // chooseIter: contour on flat ground

inline uint8_t* pixelRow(IplImage* img, int y) {
  return reinterpret_cast<uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep;
}

// Copies labels when both images exist and agree in size.
void copyLabels(IplImage* from, IplImage* to) {
  if (from == nullptr || to == nullptr || from->width != to->width ||
      from->height != to->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "parallelLamdaSwtich: labels missing");
    return;
  }
  cvCopy(from, to, nullptr);
}

// Sets work to 255 on the one-pixel inner contour of the object (2 or 4) of
// `labels` and 0 elsewhere.
void innerContour(IplImage* labels, IplImage* work, IplImage* eroded) {
  cvSetZero(work);
  for (int y = 0; y < labels->height; ++y) {
    const uint8_t* l = pixelRow(labels, y);
    uint8_t* b = pixelRow(work, y);
    for (int x = 0; x < labels->width; ++x) b[x] = isObjectLabel(l[x]) ? 255 : 0;
  }
  // Too small to erode: the whole object counts as its contour.
  cvSetZero(eroded);
  if (work->width > 2 && work->height > 2) cvErode(work, eroded, nullptr, 1);
  cvSub(work, eroded, work, nullptr);
}

// (strong - weak) / n over the contour pixels, or 0 without contour.
float contourScore(IplImage* contour, const cv::Mat& magnitude) {
  int n = 0, strong = 0, weak = 0;
  for (int y = 0; y < contour->height; ++y) {
    const uint8_t* b = pixelRow(contour, y);
    const float* m = magnitude.ptr<float>(y);
    for (int x = 0; x < contour->width; ++x) {
      if (b[x] != 255) continue;
      ++n;
      if (m[x] > kStrongGradient) ++strong;
      if (m[x] < kWeakGradient) ++weak;
    }
  }
  if (n == 0) return 0.0f;
  return static_cast<float>(strong - weak) / static_cast<float>(n);
}

}  // namespace

int ZIRKSEHybrid::parallelLamdaSwtich(int iteration) {
  if (iteration > 3 || iteration < 0) return 1;
  const bool grey = ZIRKSEMarker::m_isGreyScale;
  const float* candidates = grey ? kGreyCandidates : kColourCandidates;
  const float fallback = grey ? kGreyFallback : kColourFallback;

  if (iteration < 3) {
    // Each trial starts from the user's labels; its weight is truncated
    // (13.513 runs as 13).
    m_lamda = static_cast<double>(static_cast<int>(candidates[iteration]));
    copyLabels(m_initLabelImage, m_cropLabelImage);
    return iteration == 0 ? 0 : 2;
  }

  float table[3] = {candidates[0], candidates[1], candidates[2]};
  const int k = optimalLamda(m_labelHistory, table);
  if (k < 0) {
    m_lamda = fallback;
    copyLabels(m_initLabelImage, m_cropLabelImage);
    return 2;
  }
  m_lamda = static_cast<double>(candidates[k]);
  copyLabels(m_labelHistory[k], m_cropLabelImage);
  return 1;
}

int ZIRKSEHybrid::optimalLamda(IplImage** labelImages, float* /*candidates*/) {
  if (labelImages == nullptr || labelImages[0] == nullptr) {
    ZIRK_LogMemoryCrash("optimalLamda", 3107);
    return 0;
  }
  const CvSize size = cvGetSize(labelImages[0]);
  if (size.width < 1 || size.height < 1) {
    ZIRK_LogMemoryCrash("optimalLamda", 3107);
    return 0;
  }
  int64_t count[3] = {0, 0, 0};
  bool spans[3] = {false, false, false};
  int contrast[3] = {2, 2, 2};
  // The trials are judged independently, each on its own thread with its own
  // work image (made here: a failed allocation throws on this thread).
  IplImage* works[3] = {nullptr, nullptr, nullptr};
  ZIRKReleaseOnExit release0(&works[0]), release1(&works[1]), release2(&works[2]);
  for (int i = 0; i < 3; ++i) {
    const IplImage* labels = labelImages[i];
    // A missing trial can not be chosen.
    if (labels != nullptr && labels->width == size.width && labels->height == size.height)
      works[i] = cvCreateImage(size, IPL_DEPTH_8U, 1);
  }
  auto judge = [&](int i) {
    IplImage* labels = labelImages[i];
    IplImage* work = works[i];
    if (work == nullptr) return;
    cv::Mat view = cv::cvarrToMat(work);  // shares work's pixels
    // 1. Object pixels of the trial.
    cvSetZero(work);
    for (int y = 0; y < size.height; ++y) {
      const uint8_t* l = pixelRow(labels, y);
      uint8_t* w = pixelRow(work, y);
      for (int x = 0; x < size.width; ++x) w[x] = isObjectLabel(l[x]) ? 1 : 0;
    }
    // 2. Connected parts, labelled 2, 3, ... in 8 bits. Labelling stops before
    // the label would reach 256: parts beyond the 254th keep the value 1,
    // which counts as nothing below.
    int next = 2;
    for (int y = 0; y < size.height && next < 256; ++y) {
      for (int x = 0; x < size.width && next < 256; ++x) {
        if (view.at<uint8_t>(y, x) != 1) continue;
        cv::floodFill(view, cv::Point(x, y), cv::Scalar(next), nullptr, cv::Scalar(0),
                      cv::Scalar(0), 4);
        ++next;
      }
    }
    // 3. Part sizes. Every pixel value is below `next`.
    int64_t* hist = static_cast<int64_t*>(ZIRK_Calloc_Msg(static_cast<unsigned long>(next), 8,
                                                          "optimalLamda", 3136));
    if (hist == nullptr) return;
    for (int y = 0; y < size.height; ++y) {
      const uint8_t* w = pixelRow(work, y);
      for (int x = 0; x < size.width; ++x) ++hist[w[x]];
    }
    hist[0] = 0;
    hist[1] = 0;
    // 4. The largest part; ties keep the lower label.
    int64_t maxSize = 0;
    if (next > 2) {
      int best = hist[2] > 0 ? 2 : 0;
      for (int j = 3; j < next; ++j) {
        if (hist[j] > hist[best]) best = j;
      }
      maxSize = hist[best];
    }
    // 5. Keep the parts above 70 % of the largest.
    const int64_t keep = static_cast<int64_t>(static_cast<double>(maxSize) * kKeepFraction);
    int64_t kept = 0;
    for (int y = 0; y < size.height; ++y) {
      uint8_t* w = pixelRow(work, y);
      for (int x = 0; x < size.width; ++x) {
        if (hist[w[x]] > keep) {
          w[x] = 255;
          ++kept;
        } else {
          w[x] = 0;
        }
      }
    }
    count[i] = kept;
    // 6-7. Does it reach the borders; does its boundary contrast win.
    spans[i] = boundaryTest(work, kSpanFraction);
    contrast[i] = intensityTest(work);
    ZIRK_Free_Msg(hist, "optimalLamda", 3165);
  };
  ZIRK_runInBands(3, 3, [&](int begin, int end) {
    for (int i = begin; i < end; ++i) judge(i);
  });
  for (IplImage*& w : works) ZIRK_ReleaseImage(&w);

  // 5-6. Only trials whose boundary contrast wins take part; none: trial 0.
  std::vector<int> members;
  for (int i = 0; i < 3; ++i) {
    if (contrast[i] == 1) members.push_back(i);
  }
  if (members.empty()) return 0;

  // 7. The smallest object that still reaches every border; ties: earlier.
  int best = -1;
  for (int i : members) {
    if (spans[i] && (best < 0 || count[i] < count[best])) best = i;
  }
  if (best >= 0) return best;

  // 8. Nothing spans the box: judge the spread of the kept areas.
  float largest = -1.0f;
  float total = 0.0f;
  for (int i : members) {
    const float c = static_cast<float>(count[i]);
    if (c > largest) largest = c;
    total += c;
  }
  if (largest < kMinKeptArea) return -1;
  const float n = static_cast<float>(members.size());
  const float mean = total / (largest * n);
  float spread = 0.0f;
  for (int i : members) {
    const float d = mean - static_cast<float>(count[i]) / largest;
    spread += d * d;
  }
  if (members.size() == 1 || spread > kSpreadLimit) return members.back();
  return members[members.size() - 2];
}

int ZIRKSEHybrid::homogenousLamda(int iteration) {
  const bool c = iteration == 0 ? m_bgModel.colorModelCriteria() : false;
  m_fgModel.setInverseCovariance();
  if (!c && !ZIRKSEMarker::m_isHomogenous) {
    m_bgModel.setInverseCovariance();
    ZIRKSEMarker::m_isHomogenous = false;
    return 1;
  }
  // A homogenous background is inverted with a heavy regulariser.
  ZIRKSEMarker::m_noiseLevel = 10.0;
  m_bgModel.setInverseCovariance();
  ZIRKSEMarker::m_noiseLevel = 0.1;
  m_lamda = 50.0;
  ZIRKSEMarker::m_isHomogenous = true;
  return 0;
}

void ZIRKSEHybrid::chooseIter() {
  if (m_cropSrcImage == nullptr || m_cropLabelImage == nullptr || m_labelHistory[0] == nullptr ||
      m_cropSrcImage->width != m_cropLabelImage->width ||
      m_cropSrcImage->height != m_cropLabelImage->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "chooseIter: no trial to compare");
    return;
  }
  // 1-2. Gradient magnitude of the grey crop.
  IplImage* grey = cvCreateImage(cvGetSize(m_cropSrcImage), IPL_DEPTH_8U, 1);
  ZIRKReleaseOnExit releaseGrey(&grey);
  cvCvtColor(m_cropSrcImage, grey, CV_BGR2GRAY);
  cv::Mat greyF;
  cv::cvarrToMat(grey).convertTo(greyF, CV_32F);
  cv::Mat gx, gy, magnitude;
  cv::Sobel(greyF, gx, CV_32F, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Sobel(greyF, gy, CV_32F, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::magnitude(gx, gy, magnitude);

  // 3-4. Edge scores of the first trial and of the final labels.
  IplImage* contour = nullptr;
  IplImage* eroded = nullptr;
  ZIRKReleaseOnExit releaseContour(&contour), releaseEroded(&eroded);
  contour = cvCloneImage(m_cropLabelImage);
  eroded = cvCloneImage(m_cropLabelImage);
  innerContour(m_labelHistory[0], contour, eroded);
  const float s0 = contourScore(contour, magnitude);
  innerContour(m_cropLabelImage, contour, eroded);
  const float s1 = contourScore(contour, magnitude);

  // 5. The first trial sat on strong edges and the final result is not
  // clearly better: fall back to it.
  if (s0 >= 0.75f && s1 <= 0.98f && s1 - s0 <= 0.2f) {
    cvCopy(m_labelHistory[0], m_cropLabelImage, nullptr);
  }
  cvReleaseImage(&grey);
  cvReleaseImage(&contour);
  cvReleaseImage(&eroded);
}
