// How fast a cancel ends a request, at any moment of it.
//
// A photo of the set is enlarged (default 4032 x 3024, 12 megapixels) and cut
// out from its rectangle once without a cancel (the reference time T). Then
// the same edit runs N times, each time cancelled from a second thread at
// T * (k + 0.5) / N after the request started. For each run it prints when
// the cancel came, how long the request went on after it (the latency), and
// whether the request ended without a mask; then the latency distribution.
// A cancel made while the finished mask is being written into the caller's
// buffer (the last few milliseconds) comes too late: that request completes.
//
//   cancel_latency [runs=20] [photo=book] [width=4032] [height=3024]
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "common/PhotoSet.h"
#include "engine/EngineState.h"
#include "engine/SegmentationCore.h"
#include "support/ZIRKTimer.h"

namespace {

using Clock = std::chrono::steady_clock;

double msBetween(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

struct Edit {
  int w, h, x1, y1, x2, y2;
  std::vector<int> marks;
};

// One loop edit around the rectangle; the time the request took (ms).
double runEdit(const Edit& e, unsigned int* argb, unsigned char* mask) {
  std::vector<int> marks = e.marks;
  std::vector<int> path = {e.x1, e.y1, e.x2, e.y1, e.x2, e.y2, e.x1, e.y2};
  setMarkerImage(e.w, e.h, marks.data(), 0);
  setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
  const Clock::time_point start = Clock::now();
  processSegment(0, 0, 0, argb, mask);
  return msBetween(start, Clock::now());
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
  return v[i];
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  const std::string name = argc > 2 ? argv[2] : "book";
  const int w = argc > 3 ? std::atoi(argv[3]) : 4032;
  const int h = argc > 4 ? std::atoi(argv[4]) : 3024;
  if (!photoSetAvailable()) {
    std::printf("photo set not available (%s)\n", photoSetDir().c_str());
    return 0;
  }
  Photo photo = loadPhoto(name);
  if (photo.image.empty() || w < 1 || h < 1) {
    std::printf("no photo %s\n", name.c_str());
    return 1;
  }
  cv::Mat big;
  cv::resize(photo.image, big, cv::Size(w, h), 0, 0, cv::INTER_LINEAR);
  std::vector<unsigned int> src = toArgb(big);
  const double sx = static_cast<double>(w) / photo.image.cols;
  const double sy = static_cast<double>(h) / photo.image.rows;
  Edit e{w, h, std::max(0, static_cast<int>(photo.x1 * sx)), std::max(0, static_cast<int>(photo.y1 * sy)),
         std::min(w - 1, static_cast<int>(photo.x2 * sx)), std::min(h - 1, static_cast<int>(photo.y2 * sy)),
         std::vector<int>(static_cast<size_t>(w) * h, 0)};
  for (int y = e.y1; y <= e.y2; ++y)
    for (int x = e.x1; x <= e.x2; ++x) e.marks[static_cast<size_t>(y) * w + x] = 4;

  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  std::vector<unsigned int> argb(src.size());
  std::vector<unsigned char> mask(src.size());
  const double reference = runEdit(e, argb.data(), mask.data());
  std::printf("%s at %dx%d: uncancelled request %.0f ms (segment %.0f: box %.0f, models %.0f, "
              "graph %.0f, max-flow %.0f, clean-up %.0f)\n",
              name.c_str(), w, h, reference, g_t_TotalTime, g_t_preProcess, g_t_colEst + g_t_colUpd,
              g_t_tAndNLinks, g_t_maxflow, g_t_postProcess);

  std::vector<double> latencies;
  int honoured = 0;
  for (int k = 0; k < runs; ++k) {
    resetSegmentationInterface();  // lowers the previous run's cancel
    std::fill(mask.begin(), mask.end(), 7);
    const double at = reference * (k + 0.5) / runs;
    std::atomic<bool> started{false};
    Clock::time_point cancelledAt;
    std::thread canceller([&] {
      while (!started.load()) std::this_thread::yield();
      std::this_thread::sleep_until(Clock::now() + std::chrono::microseconds(static_cast<long>(at * 1000)));
      cancelledAt = Clock::now();
      cancelSegmentation();
    });
    std::vector<int> marks = e.marks;
    std::vector<int> path = {e.x1, e.y1, e.x2, e.y1, e.x2, e.y2, e.x1, e.y2};
    setMarkerImage(w, h, marks.data(), 0);
    setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
    started = true;
    processSegment(0, 0, 0, argb.data(), mask.data());
    const Clock::time_point end = Clock::now();
    canceller.join();
    const bool noMask = std::all_of(mask.begin(), mask.end(), [](unsigned char v) { return v == 7; });
    const double latency = msBetween(cancelledAt, end);
    if (noMask) ++honoured;
    if (latency >= 0) latencies.push_back(latency);
    const char* outcome = noMask       ? "no mask"
                          : latency < 0 ? "finished before the cancel"
                                        : "mask handed over (the cancel came after the last check)";
    std::printf("cancel at %7.1f ms: request went on %6.1f ms, %s\n", at, latency, outcome);
  }
  std::printf("%d of %d cancels ended the request without a mask; latency after the cancel: "
              "median %.1f ms, 90th percentile %.1f ms, max %.1f ms\n",
              honoured, runs, percentile(latencies, 0.5), percentile(latencies, 0.9),
              percentile(latencies, 1.0));
  deinitSegmentation();
  return 0;
}
