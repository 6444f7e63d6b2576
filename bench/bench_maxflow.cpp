// Max-flow on 8-connected graphs built from the photo set: every photo at
// 320x240 (serial and 2, 4, 8 blocks), and one band of 4032x400 pixels cut
// from a photo enlarged to 12 megapixels, the size of a boundary band at full
// resolution. Only the solve is timed (graph filling is not).
// Counters: ms_per_solve and Mnodes_per_s (grid nodes over solve time).
#include <benchmark/benchmark.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/PhotoSet.h"
#include "graphcut/GridGraphTestUtil.h"
#include "graphcut/ZIRKSEGraph.h"

namespace gridtest {

// A graph from a photo, in the spirit of the segmentation: inside the
// rectangle t-links are -log of the other region's colour histogram, outside
// it the pixel is tied to the sink; edges weigh 50 exp(-beta |dI|^2) / distance.
inline GridGraph imageGraph(const cv::Mat& bgr, cv::Rect rect) {
  GridGraph g(bgr.cols, bgr.rows);
  const int n = g.nodes();
  rect &= cv::Rect(0, 0, g.w, g.h);
  auto colour = [&](int p) { return cv::Vec3d(bgr.at<cv::Vec3b>(p / g.w, p % g.w)); };
  auto bin = [&](int p) {
    const cv::Vec3d c = colour(p) / 32.0;
    return int(c[0]) * 64 + int(c[1]) * 8 + int(c[2]);
  };
  auto inside = [&](int p) { return rect.contains(cv::Point(p % g.w, p / g.w)); };
  std::vector<double> hist[2] = {std::vector<double>(512, 1.0), std::vector<double>(512, 1.0)};
  for (int p = 0; p < n; ++p) hist[inside(p)][bin(p)] += 1.0;  // Laplace-smoothed counts
  const double total[2] = {512.0 + n - rect.area(), 512.0 + rect.area()};
  for (int p = 0; p < n; ++p) {
    g.src[p] = inside(p) ? static_cast<float>(-std::log(hist[0][bin(p)] / total[0])) : 0.0f;
    g.snk[p] = inside(p) ? static_cast<float>(-std::log(hist[1][bin(p)] / total[1])) : 1000.0f;
  }
  std::vector<double> d2(4 * n, -1.0);
  double sum = 0.0, count = 0.0;
  for (int i = 0; i < 4 * n; ++i) {
    const int q = slotNeighbour(g.w, i / 4, i % 4);
    if (q < 0) continue;
    const cv::Vec3d d = colour(i / 4) - colour(q);
    sum += d2[i] = d.dot(d);
    count += 1.0;
  }
  const double beta = sum > 0.0 ? count / (2.0 * sum) : 0.0;
  for (int i = 0; i < 4 * n; ++i) {
    if (d2[i] < 0.0) continue;
    const float c = static_cast<float>(50.0 * std::exp(-beta * d2[i]) / (i % 2 == 1 ? std::sqrt(2.0) : 1.0));
    g.e[i] = Slot{c, c, false};
  }
  return g;
}

// The photo resized to w x h with its rectangle scaled along.
inline GridGraph photoGraph(const cv::Mat& bgr, int x1, int y1, int x2, int y2, int w, int h) {
  cv::Mat small;
  cv::resize(bgr, small, cv::Size(w, h), 0, 0, cv::INTER_AREA);
  const double sx = double(w) / bgr.cols, sy = double(h) / bgr.rows;
  const cv::Rect rect(int(x1 * sx), int(y1 * sy), std::max(1, int((x2 - x1 + 1) * sx)),
                      std::max(1, int((y2 - y1 + 1) * sy)));
  return imageGraph(small, rect);
}

}  // namespace gridtest

namespace {

using ImageGraph = gridtest::GridGraph;

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
