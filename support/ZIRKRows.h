// Row access to 8-bit images and work split into bands of rows.
#pragma once

#include <opencv2/core/types_c.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/ZIRKWorkers.h"

// The bytes of pixel (x, y).
inline const uint8_t* ZIRK_pixelAt(const IplImage* img, int x, int y) {
  return reinterpret_cast<const uint8_t*>(img->imageData) + static_cast<size_t>(y) * img->widthStep +
         static_cast<size_t>(x) * img->nChannels;
}

// Threads for work that splits into independent slices: `wanted`, or the
// machine's core count when that is smaller. More threads than cores only
// add switching and cache traffic: on two cores the box's terminal
// capacities took 82 ms over the photos on two threads against 100 on four.
inline int ZIRK_threadsFor(int wanted) {
  static const unsigned cores = std::thread::hardware_concurrency();  // 0: unknown
  return cores > 0 && cores < static_cast<unsigned>(wanted) ? static_cast<int>(cores) : wanted;
}

// Runs fn(begin, end) over `bands` consecutive slices of [0, count), on the
// calling thread and the shared helpers (see ZIRKWorkers.h), each thread
// taking the next slice when it is free. Returns when all are done.
template <class Fn>
void ZIRK_runInBands(int count, int bands, Fn fn) {
  if (bands < 1) bands = 1;
  auto band = [&](int b) {
    fn(static_cast<int>(static_cast<int64_t>(count) * b / bands),
       static_cast<int>(static_cast<int64_t>(count) * (b + 1) / bands));
  };
  ZIRK_runSlots(bands, band);
}

// Runs fn(state, begin, end) over chunks of `chunk` consecutive items of
// [0, count), handed out one at a time to `threads` threads (the calling
// thread among them) as each finishes its last, so that uneven work still
// ends together. Each thread makes its own state with make() and keeps it
// for all its chunks. Returns when all are done.
template <class Make, class Fn>
void ZIRK_runInChunks(int count, int chunk, int threads, Make make, Fn fn) {
  if (chunk < 1) chunk = 1;
  std::atomic<int> next{0};
  ZIRK_runInBands(threads, threads, [&](int, int) {
    auto state = make();
    for (int begin = next.fetch_add(chunk); begin < count; begin = next.fetch_add(chunk))
      fn(state, begin, count - begin < chunk ? count : begin + chunk);
  });
}

