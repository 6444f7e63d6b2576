// The 10-second budget of a segmentation and the cancel from another thread.
#include <android/log.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "common/PhotoSet.h"
#include "robustness/RobustnessSupport.h"

namespace {

using namespace robustness;

int objectPixels(const std::vector<unsigned char>& mask) {
  return static_cast<int>(std::count(mask.begin(), mask.end(), 0));
}

// The two ways a request that may be stopped can end. Stopped, it shows the
// plain source with one time-out line and leaves the mask buffer (all
// `fill`) and the history (`first`) alone; otherwise it gives the reference
// mask, which is then the newest in the history (`done`).
struct Ends {
  const std::vector<unsigned int>& src;
  HistorySnapshot first, done;
  std::vector<unsigned char> reference;

  bool stopped(const LogCapture& log, const std::vector<unsigned int>& argb,
               const std::vector<unsigned char>& mask, unsigned char fill) const {
    const bool stopped = std::count(mask.begin(), mask.end(), fill) == static_cast<long>(mask.size());
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Error", "Segmentation canceled due to timeout"), stopped ? 1 : 0)
        << log.dump();
    EXPECT_TRUE(stopped ? argb == src : mask == reference)
        << (stopped ? "the plain (opaque) source is shown" : "an unstopped request gives the reference mask");
    EXPECT_TRUE(HistorySnapshot::take() == (stopped ? first : done));
    EXPECT_EQ(g_cancelTimer, nullptr);
    return stopped;
  }
};

// The budget without waiting: the clock jumps past it at the n-th reading of
// a request, for readings spread over the request and each of its last ones
// (the clean-up). The request ends stopped, and then the next one runs as if
// it never happened, or, when the jump comes after its last check, as an
// unhurried run. The first mask's patch lies outside the loop, so a mask that
// skipped part of the clean-up differs from the reference.
TEST_F(RobustnessTest, BudgetSpentAtAnyClockReadingEndsTheRequestWithoutAMask) {
  Scene s(64, 48);
  const auto prepare = [&] { s.start(), s.mark(); };
  prepare();
  const HistorySnapshot first = HistorySnapshot::take();
  interpose::arm(interpose::kClock, 1 << 30);
  std::vector<unsigned char> reference = s.expectMask(kSegment, true);
  const int readings = interpose::events(interpose::kClock);
  const Ends ends{s.src, first, HistorySnapshot::take(), reference};
  int stopped = 0;
  const auto check = [&](const SweepRun& run) {
    if (!ends.stopped(run.log, run.argb.inner(), run.mask.inner(), kSweepFill)) return;
    ++stopped;
    ZIRKSEMarker::m_exitApp = false;  // a time-out raises the cancel, which stays until a reset
    s.mark();
    EXPECT_TRUE(s.expectMask(kSegment, true) == reference);
  };
  sweep("budget", interpose::kClock, s, prepare, kSegment, check,
        [&](int n) { return n < readings - 16 ? n + readings / 24 : n + 1; });
  EXPECT_GT(stopped, 16);
}

// Cancels from a second thread at random moments of a whole request on a
// photo reduced to 480 x 360 (so the full-resolution refinement runs), from
// the label image to the clean-up: whatever the moment, the request ends
// stopped or with exactly the mask of an uncancelled run. Under
// ThreadSanitizer it is the data-race check of the cancel.
TEST_F(RobustnessTest, CancelAtRandomMomentsNeverRecordsAWrongMask) {
  if (!photoSetAvailable()) GTEST_SKIP() << "photo set not available";
  // A photo whose box cuts quickly, so that the refinement is a good share of the request.
  const Photo photo = loadPhoto("flower");
  const int w = 480, h = 360, sw = photo.image.cols, sh = photo.image.rows;
  cv::Mat small;
  cv::resize(photo.image, small, cv::Size(w, h), 0, 0, cv::INTER_AREA);
  std::vector<unsigned int> src = toArgb(small), argb(src.size());
  const int x1 = photo.x1 * w / sw, y1 = photo.y1 * h / sh, x2 = photo.x2 * w / sw, y2 = photo.y2 * h / sh;
  const int cx = (x1 + x2) / 2, cy = (y1 + y2) / 2;
  std::vector<int> firstMarks = boxMarks(w, h, cx - 5, cy - 5, cx + 5, cy + 5, 2);
  // A fresh edit sequence holding a first mask; the cancel is lowered.
  const auto restart = [&] {
    resetSegmentationInterface();
    setMarkerImage(w, h, firstMarks.data(), 0);
    cutOutImage(0, 0, 0, nullptr, std::vector<unsigned char>(src.size()).data());
  };
  const auto edit = [&](std::vector<unsigned char>& mask) {
    std::fill(argb.begin(), argb.end(), 0x01020304u);
    markLoop(w, h, x1, y1, x2, y2);
    EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
  };
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  restart();
  const HistorySnapshot first = HistorySnapshot::take();
  std::vector<unsigned char> reference(src.size(), 7);
  const auto t0 = std::chrono::steady_clock::now();
  edit(reference);
  const std::chrono::duration<double, std::milli> requestMs = std::chrono::steady_clock::now() - t0;
  ASSERT_GT(objectPixels(reference), 0);
  const Ends ends{src, first, HistorySnapshot::take(), reference};
  ASSERT_EQ(ends.done.current, (first.current + 1) % 32);

  // Moments spread over 1.2 times the request (the last ones often come
  // after its end), each at a random point of its stretch.
  const int runs = 12;
  std::mt19937 rng(15);
  std::uniform_real_distribution<double> within(0.0, 1.0);
  int cancelled = 0;
  for (int k = 0; k < runs; ++k) {
    restart();
    ASSERT_TRUE(HistorySnapshot::take() == first);
    const std::chrono::microseconds delay(static_cast<long>(1200.0 * requestMs.count() * (k + within(rng)) / runs));
    SCOPED_TRACE("cancel after " + std::to_string(delay.count()) + " us");
    std::vector<unsigned char> mask(src.size(), 123);
    std::atomic<bool> go{false};
    std::thread canceller([&] {
      while (!go.load()) std::this_thread::yield();
      std::this_thread::sleep_for(delay);
      cancelSegmentation();
    });
    LogCapture log;
    go = true;
    edit(mask);
    canceller.join();
    cancelled += ends.stopped(log, argb, mask, 123);
  }
  std::printf("%d of %d requests cancelled; request %.0f ms\n", cancelled, runs, requestMs.count());
  EXPECT_GT(cancelled, 0);
}

// The cancel stays raised until a reset or a new engine: every request in
// between ends without a mask, and an exit asked for after a cancelled
// request still tears the engine down at the end of the next one.
TEST_F(RobustnessTest, CancelStaysRaisedUntilResetOrANewEngine) {
  Scene s(120, 90);
  s.start();
  const HistorySnapshot first = HistorySnapshot::take();
  std::vector<unsigned int> argb(s.pixels());
  std::vector<unsigned char> mask(s.pixels());
  // The request's result and whether it found an object.
  const auto edit = [&](int result = 0) {
    std::fill(mask.begin(), mask.end(), 9);
    s.mark();
    EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), result);
    return objectPixels(mask) > 0;
  };
  cancelSegmentation();
  EXPECT_FALSE(edit() || edit());
  EXPECT_TRUE(HistorySnapshot::take() == first);
  resetSegmentationInterface();  // lowers the cancel
  EXPECT_TRUE(edit());
  cancelSegmentation();  // a new engine lowers it as well
  initSegmentationEngine(0);
  EXPECT_TRUE(edit());
  cancelSegmentation();
  EXPECT_FALSE(edit());
  exitSegmentation();
  EXPECT_FALSE(edit(-1));
  EXPECT_EQ(pHybrid, nullptr);
  // doSegmentationBB re-creates the engine: a cancel made before it is gone.
  cancelSegmentation();
  std::fill(mask.begin(), mask.end(), 9);
  EXPECT_EQ(doSegmentationBB(s.w, s.h, s.src.data(), 20, 15, 100, 75, mask.data()), 0);
  EXPECT_GT(objectPixels(mask), 0);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
}

}  // namespace
