// Max-flow on 8-connected graphs built from the photo set: every photo at
// 320x240 (serial and 2, 4, 8 blocks), and one band of 4032x400 pixels cut
// from a photo enlarged to 12 megapixels, the size of a boundary band at full
// resolution. Only the solve is timed (graph filling is not).
// Counters: ms_per_solve and Mnodes_per_s (grid nodes over solve time).
#include <benchmark/benchmark.h>

#include <opencv2/imgproc.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/PhotoSet.h"
#include "graphcut/GridGraphTestUtil.h"
#include "graphcut/ZIRKSEGraph.h"

namespace {

using gridtest::ImageGraph;

const ImageGraph& photoGraph320(const std::string& name) {
  static std::map<std::string, ImageGraph> cache;
  auto it = cache.find(name);
  if (it == cache.end()) {
    const Photo p = loadPhoto(name);
    it = cache.emplace(name, gridtest::photoGraph(p.image, p.x1, p.y1, p.x2, p.y2, 320, 240)).first;
  }
  return it->second;
}

// A 4032 x 400 band across the middle of the rectangle of a photo enlarged to 4032 x 3024.
const ImageGraph& bandGraph(const std::string& name) {
  static std::map<std::string, ImageGraph> cache;
  auto it = cache.find(name);
  if (it == cache.end()) {
    const Photo p = loadPhoto(name);
    cv::Mat big;
    cv::resize(p.image, big, cv::Size(4032, 3024), 0, 0, cv::INTER_LINEAR);
    const double sx = 4032.0 / p.image.cols, sy = 3024.0 / p.image.rows;
    const int cy = static_cast<int>((p.y1 + p.y2) * 0.5 * sy);
    const int top = std::min(std::max(cy - 200, 0), 3024 - 400);
    const cv::Mat band = big(cv::Rect(0, top, 4032, 400)).clone();
    const int x1 = static_cast<int>(p.x1 * sx), x2 = static_cast<int>((p.x2 + 1) * sx);
    const int y1 = static_cast<int>(p.y1 * sy) - top, y2 = static_cast<int>((p.y2 + 1) * sy) - top;
    const cv::Rect rect(cv::Point(x1, std::max(y1, 0)), cv::Point(x2, std::min(y2, 400)));
    it = cache.emplace(name, gridtest::imageGraph(band, rect)).first;
  }
  return it->second;
}

void solve(benchmark::State& state, const ImageGraph& d, int blocks) {
  const int n = d.w * d.h;
  double seconds = 0.0;
  for (auto _ : state) {
    auto g = std::make_unique<ZIRKSEGraph>(n, 8 * n, d.w, d.h, blocks);
    gridtest::fill(*g, d);
    const auto t0 = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(g->maxFlow());
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(s);
    seconds += s;
  }
  const double iterations = static_cast<double>(state.iterations());
  state.counters["ms_per_solve"] = 1e3 * seconds / iterations;
  state.counters["Mnodes_per_s"] = 1e-6 * n * iterations / seconds;
}

// One benchmark per photo and block count; the band on the first photo.
struct Registrar {
  Registrar() {
    if (!photoSetAvailable()) return;
    const std::vector<std::string> names = photoNames();
    if (names.empty()) return;
    for (int blocks : {0, 2, 4, 8}) {
      for (const std::string& name : names) {
        const std::string label = "Photo320x240/" + name + "/blocks:" + std::to_string(blocks);
        benchmark::RegisterBenchmark(label.c_str(), [name, blocks](benchmark::State& st) {
          solve(st, photoGraph320(name), blocks);
        })->UseManualTime()->Unit(benchmark::kMillisecond);
      }
    }
    for (int blocks : {0, 2, 4, 8}) {
      const std::string name = names.front();
      const std::string label = "Band4032x400/" + name + "/blocks:" + std::to_string(blocks);
      benchmark::RegisterBenchmark(label.c_str(), [name, blocks](benchmark::State& st) {
        solve(st, bandGraph(name), blocks);
      })->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
    }
  }
};
const Registrar registrar;

}  // namespace

BENCHMARK_MAIN();
