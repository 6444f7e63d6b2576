// The mask history on a 12-megapixel source (4032x3024): writing a new mask
// into the planes (updateBitPlane) and reading one back (getMask).
#include <benchmark/benchmark.h>
#include <opencv2/core/core_c.h>
#include <opencv2/imgproc/imgproc_c.h>

#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"

namespace {

constexpr int kWidth = 4032;
constexpr int kHeight = 3024;

// An object-like mask: a filled ellipse with a hole.
IplImage* makeMask() {
  IplImage* mask = cvCreateImage(cvSize(kWidth, kHeight), IPL_DEPTH_8U, 1);
  cvSetZero(mask);
  cvEllipse(mask, cvPoint(kWidth / 2, kHeight / 2), cvSize(kWidth / 3, kHeight / 3), 0, 0, 360,
            cvScalarAll(255), -1);
  cvCircle(mask, cvPoint(kWidth / 2, kHeight / 2), kHeight / 8, cvScalarAll(0), -1);
  return mask;
}

void allocateHistory() {
  ZIRKSEMarker::m_originalWidth = kWidth;
  ZIRKSEMarker::m_originalHeight = kHeight;
  ZIRKSEManageUndoRedo::allocate();
}

void BM_HistoryWriteMask(benchmark::State& state) {
  allocateHistory();
  IplImage* mask = makeMask();
  for (auto _ : state) {
    ZIRKSEManageUndoRedo::updateBitPlane(mask);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight);
  state.counters["history_MB"] = 4.0 * kWidth * kHeight / 1e6;
  cvReleaseImage(&mask);
  ZIRKSEManageUndoRedo::deallocate();
}
BENCHMARK(BM_HistoryWriteMask)->Unit(benchmark::kMillisecond);

void BM_HistoryReadMask(benchmark::State& state) {
  allocateHistory();
  IplImage* mask = makeMask();
  for (int i = 0; i < 5; ++i) ZIRKSEManageUndoRedo::updateBitPlane(mask);
  for (auto _ : state) {
    IplImage* newest = ZIRKSEManageUndoRedo::prevMask();
    benchmark::DoNotOptimize(newest->imageData);
    cvReleaseImage(&newest);
  }
  state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight);
  cvReleaseImage(&mask);
  ZIRKSEManageUndoRedo::deallocate();
}
BENCHMARK(BM_HistoryReadMask)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
