// Neighbour weights, box graph filling and loop clean-up at the engine's
// sizes: a 320x240 working image (a photo of the set when present, random
// pixels otherwise) and a full-resolution 12-megapixel mask.
#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include <random>
#include <vector>

#include "colormodel/TrainingData.h"
#include "common/PhotoSet.h"
#include "engine/EngineState.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"

namespace {

constexpr int kW = 320;
constexpr int kH = 240;

struct Working {
  cv::Mat image;  // 320x240 BGR
  cv::Mat truth;  // 320x240, 255 = object
  cv::Rect rect;  // the object's rectangle at that size
};

Working workingImage() {
  Working w;
  if (photoSetAvailable()) {
    const Photo p = loadPhoto(photoNames().front());
    const double fx = static_cast<double>(kW) / p.image.cols, fy = static_cast<double>(kH) / p.image.rows;
    cv::resize(p.image, w.image, cv::Size(kW, kH), 0, 0, cv::INTER_LINEAR);
    cv::resize(p.truth, w.truth, cv::Size(kW, kH), 0, 0, cv::INTER_NEAREST);
    w.rect = cv::Rect(cv::Point(static_cast<int>(p.x1 * fx), static_cast<int>(p.y1 * fy)),
                      cv::Point(static_cast<int>(p.x2 * fx), static_cast<int>(p.y2 * fy)));
  } else {
    w.image = cv::Mat(kH, kW, CV_8UC3);
    cv::randu(w.image, cv::Scalar::all(0), cv::Scalar::all(256));
    w.truth = cv::Mat(kH, kW, CV_8U, cv::Scalar(0));
    cv::ellipse(w.truth, {kW / 2, kH / 2}, {80, 60}, 0, 0, 360, cv::Scalar(255), cv::FILLED);
    w.rect = cv::Rect(60, 40, 200, 160);
  }
  return w;
}

// Sets the marker state for a working image; released by release().
void install(const cv::Mat& image, ZIRKSEHybrid& h) {
  IplImage header = cvIplImage(image);
  ZIRKSEMarker::m_srcImage = cvCloneImage(&header);
  ZIRKSEMarker::m_width = h.m_width = image.cols;
  ZIRKSEMarker::m_height = h.m_height = image.rows;
}

void release() { ZIRKSEMarker::dellocator(); }

void BM_ComputeNlinks(benchmark::State& state) {
  const Working w = workingImage();
  ZIRKSEHybrid h;
  install(w.image, h);
  for (auto _ : state) {
    h.computeNlinks();
    benchmark::DoNotOptimize(h.m_nlinks);
  }
  state.SetItemsProcessed(state.iterations() * kW * kH);
  release();
}
BENCHMARK(BM_ComputeNlinks)->Unit(benchmark::kMillisecond);

void BM_ConstructBoxGraph(benchmark::State& state) {
  const Working w = workingImage();
  ZIRKSEHybrid h;
  install(w.image, h);
  // Labels of a rectangle request, the whole image as the box.
  ZIRKSEMarker::m_labelImage = cvCreateImage(cvSize(kW, kH), IPL_DEPTH_8U, 1);
  cvSet(ZIRKSEMarker::m_labelImage, cvScalarAll(kLabelBackgroundFixed));
  cv::cvarrToMat(ZIRKSEMarker::m_labelImage)(w.rect).setTo(kLabelUnknown);
  ZIRKSEMarker::m_xMinBBox = ZIRKSEMarker::m_yMinBBox = 0;
  h.m_cropWidth = kW;
  h.m_cropHeight = kH;
  h.m_cropSrcImage = h.cropImage(ZIRKSEMarker::m_srcImage);
  h.m_cropLabelImage = h.cropImage(ZIRKSEMarker::m_labelImage);
  std::vector<pixelVal> object, background;
  extractTrainingData(h.m_cropSrcImage, h.m_cropLabelImage, object, background);
  ZIRKSEMarker::m_noiseLevel = 0.1;
  initModel(background, h.m_bgModel, 10);
  initModel(object, h.m_fgModel, 10);
  h.m_fgModel.setInverseCovariance();
  h.m_bgModel.setInverseCovariance();
  h.m_lamda = 50.0;
  h.computeNlinks();
  h.graphSpaceAllocator();
  for (auto _ : state) {
    h.constructGraphZIRK_Whole_Image();
    benchmark::DoNotOptimize(h.m_graph->m_flow);
  }
  state.SetItemsProcessed(state.iterations() * kW * kH);
  release();
}
BENCHMARK(BM_ConstructBoxGraph)->Unit(benchmark::kMillisecond);

void BM_PostProcessLoop12MP(benchmark::State& state) {
  // The working truth enlarged to 4032x3024, with speckle and small holes.
  const Working w = workingImage();
  cv::Mat big;
  cv::resize(w.truth, big, cv::Size(4032, 3024), 0, 0, cv::INTER_NEAREST);
  std::mt19937 rng(1);
  std::uniform_int_distribution<int> px(0, 4031), py(0, 3023);
  for (int i = 0; i < 20000; ++i) big.at<uint8_t>(py(rng), px(rng)) ^= 255;
  ZIRKSEHybrid h;
  for (auto _ : state) {
    state.PauseTiming();
    IplImage header = cvIplImage(big);
    IplImage* mask = cvCloneImage(&header);
    state.ResumeTiming();
    h.postProcessForLoop(mask);
    state.PauseTiming();
    cvReleaseImage(&mask);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * 4032 * 3024);
}
BENCHMARK(BM_PostProcessLoop12MP)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
