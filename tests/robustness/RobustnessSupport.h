// Shared pieces of the robustness suites: the test-controlled clock and
// allocator (Interpose.cpp), caller buffers with guard words, a synthetic
// scene, a snapshot of the history, and the fixture that leaves the process clean.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "engine/EngineState.h"
#include "engine/SegmentationCore.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKMemory.h"
#include "support/ZIRKTimer.h"

// This program defines gettimeofday and cvCreateImage itself; the engine is
// linked in statically, so these replace the system's for the whole program.
// Everything is off until a test turns it on.
namespace interpose {
// Every gettimeofday reading from now on advances the clock by this many
// extra seconds (0: the real clock again, offset kept).
void setClockStep(long seconds);
// The n-th cvCreateImage call from now on (1 = the next one) throws the
// cv::Exception of a failed allocation; 0 disarms.
void failCreateImageAt(int n);
// cvCreateImage calls since the last failCreateImageAt or reset.
int createImageCalls();
// Everything off, clock offset back to zero.
void reset();
}  // namespace interpose

namespace robustness {

// A caller buffer of n elements between two runs of guard words: the engine
// may write the n elements and nothing else.
template <typename T>
class Guarded {
 public:
  static constexpr size_t kGuard = 64;
  Guarded(size_t n, T fill, T guard) : m_words(n + 2 * kGuard, guard), m_n(n), m_guard(guard) {
    for (size_t i = 0; i < n; ++i) m_words[kGuard + i] = fill;
  }
  T* data() { return m_words.data() + kGuard; }
  std::vector<T> inner() const {
    return std::vector<T>(m_words.begin() + kGuard, m_words.begin() + kGuard + m_n);
  }
  bool guardsIntact() const {
    for (size_t i = 0; i < kGuard; ++i) {
      if (m_words[i] != m_guard || m_words[kGuard + m_n + i] != m_guard) return false;
    }
    return true;
  }

 private:
  std::vector<T> m_words;
  size_t m_n;
  T m_guard;
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

// Marks a loop around the rectangle: the marker image of boxMarks and the
// rectangle's corners as the path.
inline void markLoop(int w, int h, int x1, int y1, int x2, int y2) {
  std::vector<int> marks = boxMarks(w, h, x1, y1, x2, y2);
  std::vector<int> path = {x1, y1, x2, y1, x2, y2, x1, y2};
  setMarkerImage(w, h, marks.data(), 0);
  setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
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

// Every test ends with the engine torn down and no tracked buffer left:
// whatever a test did, failed allocations and cancels included, the engine
// released all it allocated.
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
