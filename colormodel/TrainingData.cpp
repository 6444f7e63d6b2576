// Training samples from labelled pixels, and the fits of a colour model.
//
// Every fit ends the same way: once each sample has a component label 0..4,
// the moments of each non-empty component become its weight, mean and
// (population) covariance; an empty component keeps whatever it had.
#include "colormodel/TrainingData.h"

#include <android/log.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "colormodel/Clustering.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKRows.h"

namespace {

constexpr int kComponents = 5;
constexpr size_t kMinSamples = 5;
// Refits of at least this many samples assign them on kAssignmentThreads threads.
constexpr size_t kThreadedAssignment = 16384;
constexpr int kAssignmentThreads = 4;
const pixelVal kPadSample{10.0, 20.0, 30.0};

// Moment estimation shared by every fit; ends with setDeterminant (the
// inverse is left to the caller's setInverseCovariance).
void estimateMoments(const std::vector<int>& labels, const std::vector<pixelVal>& samples,
                     ZIRKSEColorModel& model) {
  ClusterInfo info({}, {});
  ZIRK_addToClusters(info, labels.data(), samples.data(), std::min(labels.size(), samples.size()));
  const double n = static_cast<double>(samples.size());
  for (int k = 0; k < kComponents; ++k) {
    const int c = info.count[k];
    if (c <= 0) continue;  // emptied component: left exactly as it was
    model.m_weight[k] = c / n;
    for (int ch = 0; ch < 3; ++ch) model.m_mean[k][ch] = info.sum[ch][k] / c;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        model.m_covariance[k][i * 3 + j] =
            info.sumProd[i * 3 + j][k] / c - model.m_mean[k][i] * model.m_mean[k][j];
  }
  model.setDeterminant();
}

bool isByteImage(const IplImage* img, int channels) {
  return img != nullptr && img->imageData != nullptr && img->depth == IPL_DEPTH_8U &&
         img->nChannels == channels && img->width > 0 && img->height > 0;
}

const uint8_t* rowOf(const IplImage* img, int y) {
  return reinterpret_cast<const uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep;
}

// Whether the source and label images can be read together; logs otherwise.
bool labelledImagesUsable(const char* function, const IplImage* source, const IplImage* labels) {
  if (!isByteImage(source, 3) || !isByteImage(labels, 1) || source->width != labels->width ||
      source->height != labels->height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: source and label images do not match",
                        function);
    return false;
  }
  return true;
}

}  // namespace

void extractTrainingData(const IplImage* source, const IplImage* labels,
                         std::vector<pixelVal>& first, std::vector<pixelVal>& second) {
  // 1. Empty both lists, keeping their storage.
  first.clear();
  second.clear();
  // 2-3. Every labelled pixel, row by row. A null label image gives no
  // samples; so does an unusable pair of images (after one log line).
  if (labels != nullptr && labelledImagesUsable("extractTrainingData", source, labels)) {
    const bool grey = ZIRKSEMarker::m_isGreyScale;
    const IplImage* texHor = ZIRKSEMarker::m_texHor;
    const IplImage* texVer = ZIRKSEMarker::m_texVer;
    const int xOff = ZIRKSEMarker::m_xMinBBox;
    const int yOff = ZIRKSEMarker::m_yMinBBox;
    bool readable = true;
    if (grey) {
      // The texture maps cover the full image; the box must lie inside them.
      readable = isByteImage(texHor, 1) && isByteImage(texVer, 1) && xOff >= 0 && yOff >= 0 &&
                 static_cast<int64_t>(xOff) + source->width <= texHor->width &&
                 static_cast<int64_t>(yOff) + source->height <= texHor->height &&
                 static_cast<int64_t>(xOff) + source->width <= texVer->width &&
                 static_cast<int64_t>(yOff) + source->height <= texVer->height;
      if (!readable)
        __android_log_print(ANDROID_LOG_ERROR, "Error",
                            "extractTrainingData: texture maps do not cover the box");
    }
    for (int y = 0; readable && y < source->height; ++y) {
      const uint8_t* src = rowOf(source, y);
      const uint8_t* lab = rowOf(labels, y);
      const uint8_t* hor = grey ? rowOf(texHor, y + yOff) + xOff : nullptr;
      const uint8_t* ver = grey ? rowOf(texVer, y + yOff) + xOff : nullptr;
      for (int x = 0; x < source->width; ++x) {
        const uint8_t label = lab[x];
        std::vector<pixelVal>* list = nullptr;
        if (label == kLabelBackgroundFixed || label == kLabelBackgroundEst)
          list = &second;
        else if (label == kLabelObjectFixed || label == kLabelObjectEst)
          list = &first;
        else
          continue;
        const uint8_t* px = src + 3 * x;
        if (grey)
          list->push_back(pixelVal{double(px[0]), double(hor[x]), double(ver[x])});
        else
          list->push_back(pixelVal{double(px[0]), double(px[1]), double(px[2])});
      }
    }
  }
  // 4. Every later fit needs five samples.
  while (first.size() < kMinSamples) first.push_back(kPadSample);
  while (second.size() < kMinSamples) second.push_back(kPadSample);
}

void initModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model, int) {
  initModelWithKmeansZIRK(samples, model);
}

void initModel(const std::vector<pixelVal>& samplesA, const std::vector<pixelVal>& samplesB,
               ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB, int) {
  initModelWithKmeansZIRK(samplesA, modelA);
  initModelWithKmeansZIRK(samplesB, modelB);
}

void initModelWithKmeansZIRK(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model) {
  const size_t n = samples.size();
  if (n < kMinSamples) return;
  if (n > static_cast<size_t>(INT32_MAX)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "initModelWithKmeansZIRK: too many samples");
    return;
  }
  // Contiguous copies of the samples, addressed through one pointer each.
  std::vector<double> values(3 * n);
  std::vector<double*> pointers(n);
  for (size_t i = 0; i < n; ++i) {
    values[3 * i] = samples[i].c0;
    values[3 * i + 1] = samples[i].c1;
    values[3 * i + 2] = samples[i].c2;
    pointers[i] = &values[3 * i];
  }
  std::vector<int> labels(n, 0);
  double centreValues[kComponents][3];
  double* centres[kComponents];
  for (int k = 0; k < kComponents; ++k) centres[k] = centreValues[k];
  k_means(pointers.data(), labels.data(), static_cast<int>(n), 0.0, 10, centres);
  // The means come from the moments; the centres are not used.
  estimateMoments(labels, samples, model);
}

void initModelWithKmeans(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model) {
  const size_t n = samples.size();
  if (n < 1) return;
  // cv::kmeans raises an error for fewer samples than clusters.
  if (n < static_cast<size_t>(kComponents) || n > static_cast<size_t>(INT32_MAX)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "initModelWithKmeans: %zu samples", n);
    return;
  }
  std::vector<float> values(3 * n);
  for (size_t i = 0; i < n; ++i) {
    values[3 * i] = static_cast<float>(samples[i].c0);
    values[3 * i + 1] = static_cast<float>(samples[i].c1);
    values[3 * i + 2] = static_cast<float>(samples[i].c2);
  }
  const cv::Mat data(static_cast<int>(n), 3, CV_32F, values.data());
  cv::Mat labelMat;
  try {
    cv::kmeans(data, kComponents, labelMat, cv::TermCriteria(cv::TermCriteria::COUNT, 10, 0.0), 0,
               cv::KMEANS_PP_CENTERS, cv::noArray());
  } catch (const cv::Exception& e) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "initModelWithKmeans: %s", e.what());
    return;
  }
  std::vector<int> labels(n);
  for (size_t i = 0; i < n; ++i) labels[i] = labelMat.at<int>(static_cast<int>(i));
  estimateMoments(labels, samples, model);
}

void initModelWithKmeans(const std::vector<pixelVal>& samplesA,
                         const std::vector<pixelVal>& samplesB, ZIRKSEColorModel& modelA,
                         ZIRKSEColorModel& modelB) {
  initModelWithKmeans(samplesA, modelA);
  initModelWithKmeans(samplesB, modelB);
}

void updateModel(const std::vector<pixelVal>& samples, ZIRKSEColorModel& model) {
  const size_t n = samples.size();
  std::vector<int> labels;
  if (n > 0) {
    int* buffer = static_cast<int*>(ZIRK_Malloc_Msg(n * sizeof(int), "updateModel", 725));
    if (buffer == nullptr) return;  // the allocator has logged
    // One hard-assignment step: each sample to its most likely component.
    // Each sample's component depends on that sample alone (assignCluster
    // only reads the model): large fits share the samples out over threads,
    // with the same labels.
    const NearestComponent nearest(model);
    auto assign = [&](int begin, int end) {
      for (int i = begin; i < end; ++i) buffer[i] = nearest(samples[static_cast<size_t>(i)]);
    };
    ZIRK_runInBands(static_cast<int>(n), n >= kThreadedAssignment ? ZIRK_threadsFor(kAssignmentThreads) : 1, assign);
    labels.assign(buffer, buffer + n);
    ZIRK_Free_Msg(buffer, "updateModel", 725);
  }
  estimateMoments(labels, samples, model);
}

void updateModel(const std::vector<pixelVal>& samplesA, const std::vector<pixelVal>& samplesB,
                 ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB) {
  updateModel(samplesA, modelA);
  updateModel(samplesB, modelB);
}

void initThirdInitalization(const IplImage* source, const IplImage* labels,
                            ZIRKSEColorModel& modelA, ZIRKSEColorModel& modelB) {
  // modelA describes the object (labels 2 and 4), modelB the background
  // (labels 1 and 3), as for extractTrainingData's first and second lists.
  std::vector<pixelVal> object, background;
  // 1. Sort the pixels by label.
  if (labels != nullptr && labelledImagesUsable("initThirdInitalization", source, labels)) {
    for (int y = 0; y < source->height; ++y) {
      const uint8_t* lab = rowOf(labels, y);
      for (int x = 0; x < source->width; ++x) {
        const uint8_t label = lab[x];
        const bool isBackground = label == kLabelBackgroundFixed || label == kLabelBackgroundEst;
        if (!isBackground && !isObjectLabel(label)) continue;
        const CvScalar s = cvGet2D(source, y, x);
        (isBackground ? background : object).push_back(pixelVal{s.val[0], s.val[1], s.val[2]});
      }
    }
  }
  // 2. Background model from the background pixels. The fit leaves the
  // inverse covariances to its caller; the ranking below needs them.
  initModelWithKmeans(background, modelB);
  modelB.setInverseCovariance();
  // 3. Object pixels ranked by how well the background model explains them.
  std::vector<vec4> ranked;
  ranked.reserve(object.size());
  for (const pixelVal& x : object) {
    double p = modelB.GMMProb(x);
    // A NaN (from a negative determinant) would break the sort's ordering;
    // such a sample counts as unexplained.
    if (std::isnan(p)) p = 0.0;
    ranked.push_back(vec4{{x.c0, x.c1, x.c2, p}});
  }
  std::sort(ranked.begin(), ranked.end(), order);
  // 4. The least background-like third of the object pixels alone feeds the
  // object model; the most background-like third joins the background
  // pixels. The middle third is not used.
  const size_t third = ranked.size() / 3;
  std::vector<pixelVal> confidentObject;
  confidentObject.reserve(third);
  for (size_t i = 0; i < third; ++i) {
    const vec4& lowest = ranked[i];
    confidentObject.push_back(pixelVal{lowest.v[0], lowest.v[1], lowest.v[2]});
    const vec4& highest = ranked[ranked.size() - 1 - i];
    background.push_back(pixelVal{highest.v[0], highest.v[1], highest.v[2]});
  }
  // 5. Live fit of both models (a list under five samples leaves its model).
  initModelWithKmeansZIRK(confidentObject, modelA);
  initModelWithKmeansZIRK(background, modelB);
}
