// Shared pieces of the robustness tests: the test-controlled clock and
// allocator, guarded caller buffers, a synthetic scene, a history snapshot.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "engine/EngineState.h"
#include "engine/SegmentationCore.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKTimer.h"

// Interpose.cpp defines gettimeofday and cvCreateImage for the whole
// program (the engine is linked statically); both behave normally until
// armed at the n-th event from now (1 = the next, 0 disarms): from the n-th
// reading on the clock is 20 s ahead, past the budget; the n-th image
// allocation throws as a failed one does. events() counts since the arming.
namespace interpose {
enum Trap { kClock, kAlloc };
void arm(Trap trap, int n);
int events(Trap trap);
void reset();
}  // namespace interpose

namespace robustness {

// A caller buffer of n elements between two runs of guard words.
template <typename T>
struct Guarded {
  static constexpr size_t kGuard = 64;
  std::vector<T> words;
  T guard;
  Guarded(size_t n, T fill, T guard) : words(n + 2 * kGuard, fill), guard(guard) {
    for (size_t i = 0; i < kGuard; ++i) words[i] = words[words.size() - 1 - i] = guard;
  }
  T* data() { return words.data() + kGuard; }
  std::vector<T> inner() const { return std::vector<T>(words.begin() + kGuard, words.end() - kGuard); }
  bool guardsIntact() const {
    const auto isGuard = [this](T w) { return w == guard; };
    return std::all_of(words.begin(), words.begin() + kGuard, isGuard) &&
           std::all_of(words.end() - kGuard, words.end(), isGuard);
  }
};

// A dark disc on a light, slightly noisy background (opaque ARGB).
inline std::vector<unsigned int> discScene(int w, int h) {
  std::mt19937 rng(5);
  std::vector<unsigned int> argb(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int dx = 2 * x - w, dy = 2 * y - h;
      const unsigned base = dx * dx + dy * dy < (w * w + h * h) / 8 ? 0x30 : 0xC8;
      const unsigned noise = rng() & 0x0F;
      argb[static_cast<size_t>(y) * w + x] =
          0xFF000000u | ((base + noise) << 16) | ((base + noise / 2) << 8) | (base + (noise ^ 3));
    }
  }
  return argb;
}

// Markers `label` inside the rectangle (corners inclusive), 0 elsewhere.
inline std::vector<int> boxMarks(int w, int h, int x1, int y1, int x2, int y2, int label = 4) {
  std::vector<int> marks(static_cast<size_t>(w) * h, 0);
  for (int y = y1; y <= y2; ++y)
    for (int x = x1; x <= x2; ++x) marks[static_cast<size_t>(y) * w + x] = label;
  return marks;
}

// The positions of the history and its newest mask (empty without one).
struct HistorySnapshot {
  int32_t current, top, bottom;
  std::vector<uint8_t> newest;

  static HistorySnapshot take() {
    HistorySnapshot s{ZIRKSEManageUndoRedo::m_current, ZIRKSEManageUndoRedo::m_top,
                      ZIRKSEManageUndoRedo::m_bottom, {}};
    if (IplImage* mask = ZIRKSEManageUndoRedo::prevMask()) {
      for (int y = 0; y < mask->height; ++y)
        for (int x = 0; x < mask->width; ++x) s.newest.push_back(CV_IMAGE_ELEM(mask, uint8_t, y, x));
      cvReleaseImage(&mask);
    }
    return s;
  }
  bool operator==(const HistorySnapshot& o) const {
    return current == o.current && top == o.top && bottom == o.bottom && newest == o.newest;
  }
};

using Call = std::function<void(unsigned int* argb, unsigned char* mask)>;

// The disc scene; the loop goes round the middle two thirds.
struct Scene {
  int w, h;
  std::vector<unsigned int> src;

  Scene(int w, int h) : w(w), h(h), src(discScene(w, h)) {}
  size_t pixels() const { return src.size(); }
  // Source, engine and a first mask: a corner patch outside the loop, marked directly.
  void start() {
    setSourceImage(w, h, src.data());
    initSegmentationEngine(0);
    std::vector<int> patch = boxMarks(w, h, 1, 1, w / 8 + 1, h / 8 + 1, 2);
    setMarkerImage(w, h, patch.data(), 0);
    cutOutImage(0, 0, 0, nullptr, std::vector<unsigned char>(pixels()).data());
  }
  // A loop edit: markers 4 inside the rectangle, its corners as the path.
  void mark() {
    const int x1 = w / 6, y1 = h / 6, x2 = 5 * w / 6, y2 = 5 * h / 6;
    std::vector<int> marks = boxMarks(w, h, x1, y1, x2, y2), path = {x1, y1, x2, y1, x2, y2, x1, y2};
    setMarkerImage(w, h, marks.data(), 0);
    setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
  }
  // Runs a call that must write every pixel of the mask; returns the mask.
  std::vector<unsigned char> expectMask(const Call& call, bool object) {
    std::vector<unsigned int> argb(pixels());
    std::vector<unsigned char> mask(pixels(), 7);
    call(argb.data(), mask.data());
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 7), 0);
    EXPECT_TRUE(!object || std::count(mask.begin(), mask.end(), 0) > 0) << "no object";
    return mask;
  }
};

// Whatever a test did, failed allocations and cancels included, it ends with
// the engine torn down and no tracked buffer left.
class RobustnessTest : public ::testing::Test {
 protected:
  void TearDown() override {
    interpose::reset();
    deinitSegmentation();
    resetSegmentationInterface();
    LogCapture log;
    ZIRK_check_memory_status();
    EXPECT_EQ(log.countPrefix("TAG_MEM", "No memory Leak found"), 1) << log.dump();
  }
};

}  // namespace robustness
