// One whole segmentation per photo, from the rectangle's loop to the final
// mask, split by stage. Two runs per photo: the photo itself (reduced to the
// working size, refined at full resolution) and the photo first shrunk to at
// most 76800 pixels (direct path, no refinement).
//
// Counters (milliseconds per segmentation):
//   box_ms      box tightening (gradient passes, black borders)
//   models_ms   colour models: fresh fit and refits
//   graph_ms    filling the box's flow graph
//   maxflow_ms  the five box cuts
//   refine_ms   full-resolution band refinement, with the small bookkeeping
//               (crops, label rewrites, history update) that has no stage
//   post_ms     clean-up by edit kind
//   total_ms    the whole segment() call
#include <benchmark/benchmark.h>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <string>

#include "common/PhotoSet.h"
#include "engine/EngineState.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKTimer.h"

namespace {

IplImage* toIpl(const cv::Mat& m) {
  IplImage* img = cvCreateImage(cvSize(m.cols, m.rows), IPL_DEPTH_8U, m.channels());
  cv::Mat view = cv::cvarrToMat(img);
  m.copyTo(view);
  return img;
}

void runSegment(benchmark::State& state, const cv::Mat& image, cv::Rect rect) {
  rect &= cv::Rect(0, 0, image.cols, image.rows);  // some rectangles reach past the image
  ZIRKSEMarker::m_originalImage = toIpl(image);
  ZIRKSEMarker::m_originalWidth = image.cols;
  ZIRKSEMarker::m_originalHeight = image.rows;
  ZIRKSEManageUndoRedo::allocate();
  g_imageResizeFactor = 1.0f;
  ZIRKSEHybrid* hybrid = new ZIRKSEHybrid;
  ZIRKSEMarker::initializer();
  hybrid->intializer();

  cv::Mat marker = cv::Mat::zeros(image.size(), CV_8UC1);
  marker(rect).setTo(4);
  const int x1 = rect.x, y1 = rect.y, x2 = rect.x + rect.width - 1, y2 = rect.y + rect.height - 1;

  double box = 0, models = 0, graph = 0, maxflow = 0, post = 0, total = 0, rest = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ZIRKSEManageUndoRedo::reset();  // every run is a first edit
    ZIRKSEMarker::currentStroke.points = {x1, y1, x2, y1, x2, y2, x1, y2};
    ZIRKSEMarker::currentStroke.type = 0;
    IplImage* markerImage = toIpl(marker);
    hybrid->setLabelImage(markerImage);
    state.ResumeTiming();

    IplImage* mask = hybrid->segment();

    state.PauseTiming();
    box += g_t_preProcess;
    models += g_t_colEst + g_t_colUpd;
    graph += g_t_tAndNLinks;
    maxflow += g_t_maxflow;
    post += g_t_postProcess;
    total += g_t_TotalTime;
    rest += g_t_TotalTime - g_t_preProcess - g_t_colEst - g_t_colUpd - g_t_tAndNLinks -
            g_t_maxflow - g_t_postProcess;
    if (mask == nullptr) state.SkipWithError("segmentation returned no mask");
    ZIRK_ReleaseImage(&mask);
    cvReleaseImage(&markerImage);
    state.ResumeTiming();
  }
  const auto avg = benchmark::Counter::kAvgIterations;
  state.counters["box_ms"] = benchmark::Counter(box, avg);
  state.counters["models_ms"] = benchmark::Counter(models, avg);
  state.counters["graph_ms"] = benchmark::Counter(graph, avg);
  state.counters["maxflow_ms"] = benchmark::Counter(maxflow, avg);
  state.counters["refine_ms"] = benchmark::Counter(rest, avg);
  state.counters["post_ms"] = benchmark::Counter(post, avg);
  state.counters["total_ms"] = benchmark::Counter(total, avg);
  state.SetLabel(std::to_string(image.cols) + "x" + std::to_string(image.rows));

  delete hybrid;
  ZIRKSEMarker::dellocator();
  ZIRKSEManageUndoRedo::deallocate();
}

int registerPhotos() {
  if (!photoSetAvailable()) return 0;
  for (const std::string& name : photoNames()) {
    benchmark::RegisterBenchmark(("segment/reduced/" + name).c_str(), [name](benchmark::State& s) {
      const Photo p = loadPhoto(name);
      runSegment(s, p.image, cv::Rect(p.x1, p.y1, p.x2 - p.x1 + 1, p.y2 - p.y1 + 1));
    })->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
    benchmark::RegisterBenchmark(("segment/direct/" + name).c_str(), [name](benchmark::State& s) {
      const Photo p = loadPhoto(name);
      const double f = std::sqrt(76800.0 / (p.image.cols * p.image.rows));
      const cv::Size size(static_cast<int>(p.image.cols * f), static_cast<int>(p.image.rows * f));
      cv::Mat small;
      cv::resize(p.image, small, size, 0, 0, cv::INTER_AREA);
      const double fx = static_cast<double>(size.width) / p.image.cols;
      const double fy = static_cast<double>(size.height) / p.image.rows;
      const int x1 = static_cast<int>(p.x1 * fx), y1 = static_cast<int>(p.y1 * fy);
      const int x2 = static_cast<int>(p.x2 * fx), y2 = static_cast<int>(p.y2 * fy);
      runSegment(s, small, cv::Rect(x1, y1, x2 - x1 + 1, y2 - y1 + 1));
    })->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
  }
  return 0;
}

const int registered = registerPhotos();

}  // namespace

BENCHMARK_MAIN();
