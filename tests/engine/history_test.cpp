// The mask history against a plain model: a list of masks and a cursor
// (0 = nothing shown, i = mask i shown), at most 31 masks, oldest dropped.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using Mask = std::vector<uint8_t>;  // row-major 0/1 pixels

struct ModelHistory {
  std::vector<Mask> masks;
  size_t cursor = 0;

  const Mask* shown() const { return cursor == 0 ? nullptr : &masks[cursor - 1]; }
  void push(const Mask& m) {
    masks.resize(cursor);
    masks.push_back(m);
    if (masks.size() > 31) masks.erase(masks.begin());
    cursor = masks.size();
  }
  const Mask* undo() {
    if (cursor == 0) return nullptr;
    --cursor;
    return shown();
  }
  const Mask* redo() {
    if (cursor < masks.size()) ++cursor;
    return shown();
  }
  void reset() {
    masks.clear();
    cursor = 0;
  }
  bool canUndo() const { return cursor >= 2; }
  bool canRedo() const { return cursor < masks.size(); }
};

class History : public ::testing::Test {
 protected:
  void SetUp() override { allocateFor(7, 5); }
  void TearDown() override {
    ZIRKSEManageUndoRedo::deallocate();
    ZIRKSEMarker::m_originalWidth = ZIRKSEMarker::m_originalHeight = 0;
  }

  void allocateFor(int w, int h) {
    ZIRKSEMarker::m_originalWidth = w;
    ZIRKSEMarker::m_originalHeight = h;
    ZIRKSEManageUndoRedo::allocate();
  }

  // Writes m into a fresh image with any non-zero value for "object".
  static IplImage* toImage(const Mask& m, int w, int h, std::mt19937& rng) {
    IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    uint8_t* data = reinterpret_cast<uint8_t*>(img->imageData);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        data[y * img->widthStep + x] = m[y * w + x] ? static_cast<uint8_t>(1 + rng() % 255) : 0;
    return img;
  }

  static Mask randomMask(int w, int h, std::mt19937& rng) {
    Mask m(static_cast<size_t>(w) * h);
    for (uint8_t& p : m) p = rng() & 1;
    return m;
  }

  void push(const Mask& m, int w, int h, std::mt19937& rng) {
    IplImage* img = toImage(m, w, h, rng);
    ZIRKSEManageUndoRedo::updateBitPlane(img);
    cvReleaseImage(&img);
  }

  // Compares a returned image (releasing it) with the expected mask or null.
  static ::testing::AssertionResult sameMask(IplImage* got, const Mask* want, int w, int h) {
    if (got == nullptr || want == nullptr) {
      const bool ok = got == nullptr && want == nullptr;
      if (got != nullptr) cvReleaseImage(&got);
      if (ok) return ::testing::AssertionSuccess();
      return ::testing::AssertionFailure() << (want == nullptr ? "expected null" : "got null");
    }
    ::testing::AssertionResult result = ::testing::AssertionSuccess();
    if (got->width != w || got->height != h || got->nChannels != 1) {
      result = ::testing::AssertionFailure() << "wrong image format";
    } else {
      const uint8_t* data = reinterpret_cast<const uint8_t*>(got->imageData);
      for (int y = 0; y < h && result; ++y)
        for (int x = 0; x < w && result; ++x) {
          const uint8_t v = data[y * got->widthStep + x];
          if (v != ((*want)[y * w + x] ? 255 : 0))
            result = ::testing::AssertionFailure()
                     << "pixel (" << x << ", " << y << ") = " << int(v);
        }
    }
    cvReleaseImage(&got);
    return result;
  }
};

// Random sequences of new masks, undo, redo and reset, long enough to wrap
// the ring several times; every result and both predicates are compared.
TEST_F(History, FollowsTheListModelOnRandomSequences) {
  std::mt19937 rng(1234);
  for (int sequence = 0; sequence < 3000; ++sequence) {
    const int w = 1 + static_cast<int>(rng() % 9);
    const int h = 1 + static_cast<int>(rng() % (sequence % 10 == 0 ? 140 : 9));
    allocateFor(w, h);
    ModelHistory model;
    // Operations come in runs (up to 40 alike), so the ring fills, wraps and
    // is walked back to its oldest mask; some sequences favour new masks.
    const int pushWeight = 1 + static_cast<int>(rng() % 6);
    const int steps = 10 + static_cast<int>(rng() % 150);
    int op = 0, run = 0;
    for (int step = 0; step < steps; ++step) {
      if (run-- <= 0) {
        op = static_cast<int>(rng() % (pushWeight + 5));
        const unsigned longRun = rng() % 2;
        run = static_cast<int>(rng() % (longRun ? 40 : 4));
      }
      SCOPED_TRACE(::testing::Message()
                   << "sequence " << sequence << " step " << step << " op " << op);
      if (op < pushWeight) {
        const Mask m = randomMask(w, h, rng);
        push(m, w, h, rng);
        model.push(m);
      } else if (op < pushWeight + 2) {
        const Mask* want = model.undo();
        ASSERT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), want, w, h));
      } else if (op < pushWeight + 4) {
        const Mask* want = model.redo();
        ASSERT_TRUE(sameMask(ZIRKSEManageUndoRedo::redo(), want, w, h));
      } else {
        ZIRKSEManageUndoRedo::reset();
        model.reset();
      }
      ASSERT_TRUE(sameMask(ZIRKSEManageUndoRedo::prevMask(), model.shown(), w, h));
      ASSERT_EQ(ZIRKSEManageUndoRedo::canUndo(), model.canUndo());
      ASSERT_EQ(ZIRKSEManageUndoRedo::canRedo(), model.canRedo());
    }
  }
}

TEST_F(History, ThreeMasksStepBackToTheSourceAndForwardAgain) {
  std::mt19937 rng(7);
  const Mask m1 = randomMask(7, 5, rng), m2 = randomMask(7, 5, rng), m3 = randomMask(7, 5, rng);
  push(m1, 7, 5, rng);
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canUndo());  // one mask: nothing earlier to show
  push(m2, 7, 5, rng);
  push(m3, 7, 5, rng);
  EXPECT_TRUE(ZIRKSEManageUndoRedo::canUndo());
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canRedo());
  EXPECT_TRUE(
      sameMask(ZIRKSEManageUndoRedo::redo(), &m3, 7, 5));  // at the newest: the newest again
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), &m2, 7, 5));
  EXPECT_TRUE(ZIRKSEManageUndoRedo::canUndo());
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), &m1, 7, 5));
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canUndo());
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), nullptr, 7, 5));
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), nullptr, 7, 5));  // stays put
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::redo(), &m1, 7, 5));
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::redo(), &m2, 7, 5));
  EXPECT_TRUE(ZIRKSEManageUndoRedo::canRedo());
  const Mask m4 = randomMask(7, 5, rng);
  push(m4, 7, 5, rng);  // a new mask after an undo discards the redo
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canRedo());
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), &m2, 7, 5));
}

TEST_F(History, ThirtyTwoMasksKeepTheNewestThirtyOne) {
  std::mt19937 rng(32);
  std::vector<Mask> masks;
  for (int i = 0; i < 32; ++i) {
    masks.push_back(randomMask(7, 5, rng));
    push(masks.back(), 7, 5, rng);
  }
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::prevMask(), &masks[31], 7, 5));
  for (int i = 30; i >= 1; --i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), &masks[i], 7, 5));
  }
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::undo(), nullptr, 7, 5));
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canUndo());
}

// Slots hold independent bits: writing one slot leaves the others alone.
TEST_F(History, SlotsAreIndependentBitPlanes) {
  std::mt19937 rng(5);
  std::vector<Mask> masks;
  for (int k = 0; k < 32; ++k) {
    masks.push_back(randomMask(7, 5, rng));
    IplImage* img = toImage(masks.back(), 7, 5, rng);
    ZIRKSEManageUndoRedo::setMask(k, img);
    cvReleaseImage(&img);
  }
  for (int k = 0; k < 32; ++k)
    EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::getMask(k), &masks[k], 7, 5)) << k;
  EXPECT_EQ(ZIRKSEManageUndoRedo::getMask(-1), nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, 0);  // positions untouched
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_top, 0);
}

// Redo on an empty history shows nothing, even when the planes still hold
// masks of an earlier sequence.
TEST_F(History, EmptyHistoryShowsNothing) {
  std::mt19937 rng(9);
  EXPECT_EQ(ZIRKSEManageUndoRedo::redo(), nullptr);
  for (int i = 0; i < 40; ++i) push(randomMask(7, 5, rng), 7, 5, rng);
  ZIRKSEManageUndoRedo::reset();
  EXPECT_EQ(ZIRKSEManageUndoRedo::redo(), nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::undo(), nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::prevMask(), nullptr);
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canUndo());
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canRedo());
  // Fresh planes are cleared: an unwritten slot reads as an empty mask.
  allocateFor(6, 4);
  const Mask empty(24, 0);
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::getMask(31), &empty, 6, 4));
}

TEST_F(History, BadMasksAndSizesAreRefusedWithALogLine) {
  LogCapture log;
  std::mt19937 rng(11);
  IplImage* wrongSize = cvCreateImage(cvSize(5, 7), IPL_DEPTH_8U, 1);
  IplImage* wrongChannels = cvCreateImage(cvSize(7, 5), IPL_DEPTH_8U, 3);
  ZIRKSEManageUndoRedo::updateBitPlane(wrongSize);
  ZIRKSEManageUndoRedo::updateBitPlane(wrongChannels);
  ZIRKSEManageUndoRedo::updateBitPlane(nullptr);
  ZIRKSEManageUndoRedo::setMask(32, wrongSize);
  EXPECT_EQ(log.countPrefix("Error", "updateBitPlane"), 3) << log.dump();
  EXPECT_EQ(log.countPrefix("Error", "setMask"), 1) << log.dump();
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, 0);
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canRedo());
  cvReleaseImage(&wrongSize);
  cvReleaseImage(&wrongChannels);

  // No history at all: getMask reports the bad size; nothing else crashes.
  ZIRKSEManageUndoRedo::deallocate();
  ZIRKSEManageUndoRedo::deallocate();
  log.clear();
  EXPECT_EQ(ZIRKSEManageUndoRedo::getMask(0), nullptr);
  EXPECT_EQ(log.count(6, "Error", "MEMORY_CRASH : getMask 92"), 1) << log.dump();
  push(randomMask(7, 5, rng), 7, 5, rng);
  EXPECT_EQ(ZIRKSEManageUndoRedo::prevMask(), nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::redo(), nullptr);

  // A size whose planes cannot exist: one line, and an empty, usable history.
  log.clear();
  allocateFor(1 << 20, 1 << 20);
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(log.lines().empty() ? "" : log.lines()[0].tag, "Error");
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_bitPlane, nullptr);
  EXPECT_EQ(ZIRKSEManageUndoRedo::undo(), nullptr);
  EXPECT_FALSE(ZIRKSEManageUndoRedo::canUndo());

  // Allocating again for a real source works as before.
  allocateFor(7, 5);
  const Mask m = randomMask(7, 5, rng);
  push(m, 7, 5, rng);
  EXPECT_TRUE(sameMask(ZIRKSEManageUndoRedo::prevMask(), &m, 7, 5));
}

}  // namespace
