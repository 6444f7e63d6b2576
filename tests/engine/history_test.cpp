// The mask history against a plain model: a list of masks and a cursor
// (0 = nothing shown, i = mask i shown), at most 31 masks, oldest dropped.
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <cstdint>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using Mask = std::vector<uint8_t>;  // row-major 0/1 pixels
using History = ZIRKSEManageUndoRedo;

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
};

class MaskHistory : public ::testing::Test {
 protected:
  void SetUp() override { allocateFor(7, 5); }
  void TearDown() override {
    History::deallocate();
    ZIRKSEMarker::m_originalWidth = ZIRKSEMarker::m_originalHeight = 0;
  }
  void allocateFor(int width, int height) {
    ZIRKSEMarker::m_originalWidth = w = width;
    ZIRKSEMarker::m_originalHeight = h = height;
    History::allocate();
  }
  Mask randomMask() {
    Mask m(static_cast<size_t>(w) * h);
    for (uint8_t& p : m) p = rng() & 1;
    return m;
  }
  // A new image of m, any non-zero byte for "object" (the caller releases it).
  IplImage* toImage(const Mask& m) {
    IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    for (int i = 0; i < w * h; ++i)
      CV_IMAGE_ELEM(img, uint8_t, i / w, i % w) = m[i] ? static_cast<uint8_t>(1 + rng() % 255) : 0;
    return img;
  }
  void push(const Mask& m) {
    IplImage* img = toImage(m);
    History::updateBitPlane(img);
    cvReleaseImage(&img);
  }
  // Compares (and releases) a returned image with the expected mask or null.
  bool same(IplImage* got, const Mask* want) {
    if (got == nullptr || want == nullptr) {
      const bool bothNull = got == nullptr && want == nullptr;
      if (got != nullptr) cvReleaseImage(&got);
      return bothNull;
    }
    bool ok = got->width == w && got->height == h && got->nChannels == 1;
    for (int i = 0; ok && i < w * h; ++i)
      ok = CV_IMAGE_ELEM(got, uint8_t, i / w, i % w) == ((*want)[i] ? 255 : 0);
    cvReleaseImage(&got);
    return ok;
  }

  std::mt19937 rng{1234};
  int w = 0, h = 0;
};

// Random sequences of new masks, undo, redo and reset, in runs long enough to
// fill and wrap the ring and walk it back to its oldest mask; some masks are
// taller than one tile of rows.
TEST_F(MaskHistory, FollowsTheListModelOnRandomSequences) {
  for (int sequence = 0; sequence < 3000; ++sequence) {
    allocateFor(1 + rng() % 9, 1 + rng() % (sequence % 10 == 0 ? 140 : 9));
    ModelHistory model;
    const int pushWeight = 1 + static_cast<int>(rng() % 6);
    const int steps = 10 + static_cast<int>(rng() % 150);
    int op = 0, run = 0;
    for (int step = 0; step < steps; ++step) {
      if (run-- <= 0) {
        op = static_cast<int>(rng() % (pushWeight + 5));
        run = static_cast<int>(rng() % (rng() % 2 ? 40 : 4));
      }
      SCOPED_TRACE(::testing::Message() << "sequence " << sequence << " step " << step << " op " << op);
      if (op < pushWeight) {
        const Mask m = randomMask();
        push(m);
        model.push(m);
      } else if (op < pushWeight + 2) {
        if (model.cursor > 0) --model.cursor;
        ASSERT_TRUE(same(History::undo(), model.shown()));
      } else if (op < pushWeight + 4) {
        if (model.cursor < model.masks.size()) ++model.cursor;
        ASSERT_TRUE(same(History::redo(), model.shown()));
      } else {
        History::reset();
        model = ModelHistory();
      }
      ASSERT_TRUE(same(History::prevMask(), model.shown()));
      ASSERT_EQ(History::canUndo(), model.cursor >= 2);
      ASSERT_EQ(History::canRedo(), model.cursor < model.masks.size());
    }
  }
}

// Slots hold independent bits and are read back directly; positions stay;
// fresh planes read as empty masks; bad masks and sizes are refused.
TEST_F(MaskHistory, SlotsAreIndependentBitPlanesAndBadSizesAreRefused) {
  std::vector<Mask> masks;
  for (int k = 0; k < 32; ++k) {
    masks.push_back(randomMask());
    IplImage* img = toImage(masks.back());
    History::setMask(k, img);
    cvReleaseImage(&img);
  }
  for (int k = 0; k < 32; ++k) EXPECT_TRUE(same(History::getMask(k), &masks[k])) << k;
  EXPECT_EQ(History::m_current, 0);
  EXPECT_EQ(History::m_top, 0);
  allocateFor(6, 4);
  const Mask empty(24, 0);
  EXPECT_TRUE(same(History::getMask(31), &empty));

  // Bad masks and sizes are refused with a log line.
  LogCapture log;
  IplImage* wrongSize = cvCreateImage(cvSize(5, 7), IPL_DEPTH_8U, 1);
  History::updateBitPlane(wrongSize);
  cvReleaseImage(&wrongSize);
  EXPECT_EQ(log.countPrefix("Error", "updateBitPlane"), 1) << log.dump();
  EXPECT_EQ(History::m_current, 0);
  EXPECT_TRUE(same(History::getMask(0), &empty)) << "the refused mask is not stored";

  // No history at all: getMask refuses; nothing crashes.
  History::deallocate();
  log.clear();
  EXPECT_EQ(History::getMask(0), nullptr);
  EXPECT_EQ(log.countPrefix("Error", "MEMORY_CRASH : getMask"), 1) << log.dump();

  // A size whose planes cannot exist: one line and an empty, usable history,
  // which a later allocation for a real source replaces.
  log.clear();
  allocateFor(1 << 20, 1 << 20);
  EXPECT_EQ(log.countPrefix("Error", ""), 1) << log.dump();
  EXPECT_EQ(History::m_bitPlane, nullptr);
  EXPECT_EQ(History::undo(), nullptr);
  allocateFor(7, 5);
  const Mask m = randomMask();
  push(m);
  EXPECT_TRUE(same(History::prevMask(), &m));
}

}  // namespace
