// The engine's state between requests: the mask history against a plain
// model (a list of masks and a cursor: 0 = nothing shown, i = mask i shown;
// at most 31 masks, oldest dropped), and the drawn path of a loop edit
// against the plain drawing (every line of the closed path with cvLine).
#include <gtest/gtest.h>
#include <opencv2/imgproc/imgproc_c.h>

#include <cstdint>
#include <random>
#include <vector>

#include "common/LogCapture.h"
#include "engine/ZIRKSEManageUndoRedo.h"
#include "engine/ZIRKSEMarker.h"

namespace {

using Mask = std::vector<uint8_t>;  // row-major 0/1 pixels; empty: no mask
using History = ZIRKSEManageUndoRedo;

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
  // Whether a returned image (released here) holds the mask; empty: no image.
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

// Random runs of new masks, undo, redo and reset, long enough to fill and wrap
// the ring and walk it back to its oldest; some masks are taller than a tile.
// A mask one pixel wider is refused and not stored; so is a plane too large
// to exist.
TEST_F(MaskHistory, FollowsTheListModelOnRandomSequences) {
  LogCapture log;  // the refusals' error lines
  for (int sequence = 0; sequence < 3000; ++sequence) {
    allocateFor(1 + rng() % 9, 1 + rng() % (sequence % 10 == 0 ? 140 : 9));
    if (sequence % 100 == 0) {
      IplImage* wider = cvCreateImage(cvSize(w + 1, h), IPL_DEPTH_8U, 1);
      History::updateBitPlane(wider);
      cvReleaseImage(&wider);
    }
    std::vector<Mask> masks;
    size_t cursor = 0;
    const auto shown = [&] { return cursor == 0 ? Mask() : masks[cursor - 1]; };
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
        masks.resize(cursor);
        masks.push_back(m);
        if (masks.size() > 31) masks.erase(masks.begin());
        cursor = masks.size();
      } else if (op < pushWeight + 2) {
        if (cursor > 0) --cursor;
        ASSERT_TRUE(same(History::undo(), shown()));
      } else if (op < pushWeight + 4) {
        if (cursor < masks.size()) ++cursor;
        ASSERT_TRUE(same(History::redo(), shown()));
      } else {
        History::reset();
        masks.clear();
        cursor = 0;
      }
      ASSERT_TRUE(same(History::prevMask(), shown()));
      ASSERT_EQ(History::canUndo(), cursor >= 2);
      ASSERT_EQ(History::canRedo(), cursor < masks.size());
    }
  }
  allocateFor(1 << 20, 1 << 20);
  EXPECT_TRUE(History::m_bitPlane == nullptr && History::undo() == nullptr);
}

// Random paths: dense walks where many points share a working pixel,
// scattered points, short and degenerate ones; the last four are long:
// zigzags over three pixels, and scattered points that clear the whole image.
TEST(DrawnPath, SameLabelsAsDrawingEveryLine) {
  std::mt19937 rng(3);
  const auto below = [&](int n) { return static_cast<int>(rng() % n); };
  for (int trial = 0; trial < 64; ++trial) {
    const int w = 40 + below(40), h = 30 + below(40);
    const float factor = trial % 3 == 0 ? 1.0f : 1.0f + static_cast<float>(below(1000)) / 100.0f;
    const int fullW = static_cast<int>(w * factor), fullH = static_cast<int>(h * factor);
    const bool walk = trial % 2 == 0 && trial < 60, zigzag = trial >= 60 && trial % 2 == 0;
    const int n = trial >= 60 ? 5000 : trial % 10 == 0 ? below(3) : 1 + below(300);
    std::vector<int32_t> points;
    int x = below(fullW), y = below(fullH);
    for (int i = 0; i < n; ++i) {
      x = walk ? std::min(std::max(x + below(5) - 2, 0), fullW - 1) : below(fullW);
      y = walk ? std::min(std::max(y + below(5) - 2, 0), fullH - 1) : below(fullH);
      if (zigzag) x = (i % 3) * (fullW - 1) / 2, y = (i % 2) * (fullH - 1);
      points.insert(points.end(), {x, y});
    }
    if (trial % 7 == 0) points.push_back(5);  // an odd last int is ignored
    if (trial == 1) points = {3, 4, 5};       // one point and an odd int: nothing
    cv::Mat fast(h, w, CV_8U, cv::Scalar(4)), plain = fast.clone();
    IplImage fastImage = cvIplImage(fast), plainImage = cvIplImage(plain);
    ZIRK_clearDrawnPath(&fastImage, points, factor);
    const size_t count = points.size() / 2;
    const auto at = [&](size_t i) {
      return cvPoint(static_cast<int>(static_cast<float>(points[2 * i]) / factor),
                     static_cast<int>(static_cast<float>(points[2 * i + 1]) / factor));
    };
    for (size_t i = 0; count >= 2 && i < count; ++i)
      cvLine(&plainImage, at(i), at((i + 1) % count), cvScalar(0), 3, 8, 0);
    EXPECT_EQ(cv::countNonZero(fast != plain), 0) << "trial " << trial;
  }
}

}  // namespace
