// Colour model costs: one mixture density (the per-pixel, per-terminal call
// of graph filling), the engine's k-means on 40000 samples, and a full fit
// of both models from a 320x240 rectangle of a real photo.
#include <benchmark/benchmark.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <random>
#include <vector>

#include "colormodel/Clustering.h"
#include "colormodel/TrainingData.h"
#include "common/PhotoSet.h"
#include "engine/ZIRKSEMarker.h"

namespace {

std::vector<pixelVal> randomColours(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0, 255);
  std::vector<pixelVal> s(n);
  for (pixelVal& p : s) p = pixelVal{u(rng), u(rng), u(rng)};
  return s;
}

// A model fitted to a clustered colour list, as the pipeline makes them.
ZIRKSEColorModel fittedModel() {
  ZIRKSEMarker::m_noiseLevel = 0.1;
  std::mt19937 rng(1);
  std::normal_distribution<double> g(0, 12);
  std::vector<pixelVal> s;
  const double means[5][3] = {{30, 40, 50}, {200, 60, 20}, {90, 180, 220}, {150, 150, 150}, {240, 230, 20}};
  for (const auto& m : means)
    for (int i = 0; i < 2000; ++i) s.push_back(pixelVal{m[0] + g(rng), m[1] + g(rng), m[2] + g(rng)});
  ZIRKSEColorModel model;
  initModelWithKmeansZIRK(s, model);
  model.setInverseCovariance();
  return model;
}

void BM_GMMProb(benchmark::State& state) {
  ZIRKSEColorModel model = fittedModel();
  const std::vector<pixelVal> pixels = randomColours(4096, 2);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(model.GMMProb(pixels[i]));
    i = (i + 1) & 4095;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GMMProb);

void BM_KMeans40000(benchmark::State& state) {
  std::vector<pixelVal> samples = randomColours(40000, 3);
  std::vector<double*> ptrs;
  for (pixelVal& p : samples) ptrs.push_back(&p.c0);
  std::vector<int> labels(samples.size());
  double c[5][3];
  double* centres[5] = {c[0], c[1], c[2], c[3], c[4]};
  for (auto _ : state) {
    k_means(ptrs.data(), labels.data(), static_cast<int>(ptrs.size()), 0.0, 10, centres);
    benchmark::DoNotOptimize(labels.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(samples.size()));
}
BENCHMARK(BM_KMeans40000)->Unit(benchmark::kMillisecond);

// Both models from a 320x240 crop of the first photo: the middle half of the
// crop labelled object, the rest background, as a rectangle edit gives.
void BM_FitBothModelsPhoto320x240(benchmark::State& state) {
  if (!photoSetAvailable()) {
    state.SkipWithError("photo set not available");
    return;
  }
  const Photo photo = loadPhoto(photoNames().front());
  cv::Mat img;
  cv::resize(photo.image, img, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
  cv::Mat labels(img.size(), CV_8UC1, cv::Scalar(1));
  labels(cv::Rect(80, 60, 160, 120)).setTo(4);
  IplImage src = cvIplImage(img), lab = cvIplImage(labels);
  ZIRKSEMarker::m_noiseLevel = 0.1;
  ZIRKSEMarker::m_isGreyScale = false;
  std::vector<pixelVal> fg, bg;
  for (auto _ : state) {
    ZIRKSEColorModel fgModel, bgModel;
    extractTrainingData(&src, &lab, fg, bg);
    initModel(fg, bg, fgModel, bgModel, 10);
    fgModel.setInverseCovariance();
    bgModel.setInverseCovariance();
    benchmark::DoNotOptimize(fgModel.m_weight[0] + bgModel.m_weight[0]);
  }
  state.counters["samples"] = static_cast<double>(fg.size() + bg.size());
}
BENCHMARK(BM_FitBothModelsPhoto320x240)->Unit(benchmark::kMillisecond);

// The refit the pipeline runs on later iterations, same crop.
void BM_UpdateBothModelsPhoto320x240(benchmark::State& state) {
  if (!photoSetAvailable()) {
    state.SkipWithError("photo set not available");
    return;
  }
  const Photo photo = loadPhoto(photoNames().front());
  cv::Mat img;
  cv::resize(photo.image, img, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
  cv::Mat labels(img.size(), CV_8UC1, cv::Scalar(1));
  labels(cv::Rect(80, 60, 160, 120)).setTo(4);
  IplImage src = cvIplImage(img), lab = cvIplImage(labels);
  ZIRKSEMarker::m_noiseLevel = 0.1;
  std::vector<pixelVal> fg, bg;
  extractTrainingData(&src, &lab, fg, bg);
  ZIRKSEColorModel fgModel, bgModel;
  initModel(fg, bg, fgModel, bgModel, 10);
  fgModel.setInverseCovariance();
  bgModel.setInverseCovariance();
  for (auto _ : state) {
    ZIRKSEColorModel a = fgModel, b = bgModel;
    updateModel(fg, bg, a, b);
    benchmark::DoNotOptimize(a.m_weight[0] + b.m_weight[0]);
  }
}
BENCHMARK(BM_UpdateBothModelsPhoto320x240)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
