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

using Mask = std::vector<uint8_t>;  // row-major 0/1 pixels; empty: no mask
using History = ZIRKSEManageUndoRedo;

struct ModelHistory {
  std::vector<Mask> masks;
  size_t cursor = 0;
  const Mask& shown() const {
    static const Mask none;
    return cursor == 0 ? none : masks[cursor - 1];
  }
  void push(const Mask& m) {
    masks.resize(cursor);
    masks.push_back(m);
    if (masks.size() > 31) masks.erase(masks.begin());
    cursor = masks.size();
  }
};

class MaskHistory : public ::testing::Test {
 protected:
  void TearDown() override {
    History::deallocate();
    ZIRKSEMarker::m_originalWidth = ZIRKSEMarker::m_originalHeight = 0;
  }
  void allocateFor(int width, int height) {
    ZIRKSEMarker::m_originalWidth = w = width;
    ZIRKSEMarker::m_originalHeight = h = height;
    History::allocate();
  }
  // Stores m as an image with any non-zero byte for "object".
  void push(const Mask& m) {
    IplImage* img = cvCreateImage(cvSize(w, h), IPL_DEPTH_8U, 1);
    for (int i = 0; i < w * h; ++i)
      CV_IMAGE_ELEM(img, uint8_t, i / w, i % w) = m[i] ? static_cast<uint8_t>(1 + rng() % 255) : 0;
    History::updateBitPlane(img);
    cvReleaseImage(&img);
  }
  // Whether a returned image (released here) holds the mask; an empty mask
  // stands for no image.
  bool same(IplImage* img, const Mask& want) {
    bool ok = img == nullptr ? want.empty()
                             : img->width == w && img->height == h && img->nChannels == 1 && !want.empty();
    for (int i = 0; ok && img != nullptr && i < w * h; ++i)
      ok = CV_IMAGE_ELEM(img, uint8_t, i / w, i % w) == (want[i] ? 255 : 0);
    cvReleaseImage(&img);
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
        Mask m(static_cast<size_t>(w) * h);
        for (uint8_t& p : m) p = rng() & 1;
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

// A mask of the wrong size, a read without planes and planes too large to
// exist are each refused with one line; the history stays usable.
TEST_F(MaskHistory, BadMasksAndSizesAreRefused) {
  allocateFor(6, 4);
  LogCapture log;
  IplImage* wrongSize = cvCreateImage(cvSize(5, 7), IPL_DEPTH_8U, 1);
  History::updateBitPlane(wrongSize);
  cvReleaseImage(&wrongSize);
  EXPECT_EQ(log.countPrefix("Error", "updateBitPlane"), 1) << log.dump();
  EXPECT_EQ(History::m_current, 0);
  EXPECT_TRUE(same(History::getMask(0), Mask(24, 0))) << "the refused mask is not stored";

  History::deallocate();
  log.clear();
  EXPECT_EQ(History::getMask(0), nullptr);
  EXPECT_EQ(log.countPrefix("Error", "MEMORY_CRASH : getMask"), 1) << log.dump();

  // A later allocation for a real source replaces the empty history.
  log.clear();
  allocateFor(1 << 20, 1 << 20);
  EXPECT_EQ(log.countPrefix("Error", ""), 1) << log.dump();
  EXPECT_EQ(History::m_bitPlane, nullptr);
  EXPECT_EQ(History::undo(), nullptr);
  allocateFor(7, 5);
  Mask m(35);
  for (size_t i = 0; i < m.size(); ++i) m[i] = i % 3 == 0;
  push(m);
  EXPECT_TRUE(same(History::prevMask(), m));
}

}  // namespace
