// Requests that do not run to their end: an image allocation that fails, a
// spent budget, a cancel from another thread.
#include <android/log.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "robustness/RobustnessSupport.h"

namespace {

using namespace robustness;

const Call kSegment = [](unsigned int* a, unsigned char* m) { EXPECT_EQ(processSegment(0, 0, 0, a, m), 0); };
const Call kCutOut = [](unsigned int* a, unsigned char* m) { cutOutImage(0, 0, 0, a, m); };
constexpr unsigned char kSweepFill = 0x44;

using Check = std::function<void(const LogCapture& log, const HistorySnapshot& before,
                                 const std::vector<unsigned int>& argb, const std::vector<unsigned char>& mask)>;

// Runs `call` after `prepare` with the n-th event of the trap armed, for n =
// 1, next(1), ... until the call makes fewer events than n. Whatever the
// moment, nothing is written outside the caller's buffers and no result is
// left held; `check` judges the rest.
void sweep(const std::string& what, interpose::Trap trap, const Scene& scene,
           const std::function<void()>& prepare, const Call& call, const Check& check,
           const std::function<int(int)>& next = [](int n) { return n + 1; }) {
  for (int n = 1, runs = 0; runs < 1000; n = next(n), ++runs) {
    SCOPED_TRACE(what + ", event " + std::to_string(n));
    deinitSegmentation();
    resetSegmentationInterface();
    prepare();
    const HistorySnapshot before = HistorySnapshot::take();
    Guarded<unsigned int> argb(scene.pixels(), 0x11111111u, 0xCAFEF00Du);
    Guarded<unsigned char> mask(scene.pixels(), kSweepFill, 0x99);
    LogCapture log;
    interpose::arm(trap, n);
    call(argb.data(), mask.data());
    const int made = interpose::events(trap);
    interpose::arm(trap, 0);
    EXPECT_TRUE(argb.guardsIntact() && mask.guardsIntact());
    EXPECT_EQ(g_resultMask, nullptr);
    if (made < n) {
      EXPECT_GT(n, 1) << "no event at all";
      return;
    }
    check(log, before, argb.inner(), mask.inner());
  }
  ADD_FAILURE() << "no end to the events";
}

// Every image allocation of a call fails in turn: the call returns normally
// with one "abandoned" line, keeps every mask of the history, and `after`
// finds the engine able to run the call again.
void allocSweep(const std::string& function, Scene& scene, const std::function<void()>& prepare,
                const Call& call, const std::function<void()>& after) {
  sweep(function, interpose::kAlloc, scene, prepare, call, [&](const LogCapture& log, auto& before, auto&, auto&) {
    EXPECT_EQ(log.countPrefix("Error", function + ": abandoned after OpenCV error"), 1) << log.dump();
    // A failure after the new mask went in may leave that one as the newest.
    const HistorySnapshot now = HistorySnapshot::take();
    if (!(now == before)) {
      EXPECT_EQ(now.current, (before.current + 1) % 32);
      EXPECT_EQ(now.bottom, before.bottom);
    }
    after();
  });
}

TEST_F(RobustnessTest, FailedAllocationInASegmentationIsAbandonedAndTheNextRuns) {
  // At 300 x 260 (above 76800 pixels) the mask comes back through the refinement.
  for (const auto& size : {std::pair<int, int>{120, 90}, {300, 260}}) {
    Scene s(size.first, size.second);
    allocSweep("processSegment", s, [&] { s.start(), s.mark(); }, kSegment, [&] {
      EXPECT_NE(pHybrid, nullptr);
      EXPECT_EQ(g_cancelTimer, nullptr) << "the failed segmentation's timer is released";
      EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
      const int32_t current = ZIRKSEManageUndoRedo::m_current;
      s.mark();
      s.expectMask(kSegment, true);
      EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (current + 1) % 32);
    });
  }
}

TEST_F(RobustnessTest, FailedAllocationInTheOtherCallsLeavesTheEngineUsable) {
  Scene s(120, 90);
  const auto setSource = [&] { setSourceImage(s.w, s.h, s.src.data()); };
  const auto cutOutWorks = [&] { s.mark(), s.expectMask(kCutOut, false); };
  allocSweep("setSourceImage", s, [] {}, [&](unsigned int*, unsigned char*) { setSource(); }, [&] {
    EXPECT_EQ(ZIRKSEMarker::m_originalImage, nullptr);
    setSource();
    cutOutWorks();
  });
  allocSweep("initSegmentationEngine", s, setSource,
             [](unsigned int*, unsigned char*) { initSegmentationEngine(0); }, [&] {
               EXPECT_EQ(pHybrid, nullptr) << "no half-built engine";
               initSegmentationEngine(0);
               EXPECT_NE(pHybrid, nullptr);
             });
  allocSweep("setMarkerImage", s, [&] { s.start(); }, [&](unsigned int*, unsigned char*) { s.mark(); },
             cutOutWorks);
  allocSweep("cutOutImage", s, [&] { s.start(), s.mark(); }, kCutOut, cutOutWorks);
  for (const auto& step : {std::make_pair("undo", &undo), std::make_pair("redo", &redo)}) {
    const auto prepare = [&] {
      s.start();
      cutOutWorks();
      if (step.second == &redo) s.expectMask(undo, false);
    };
    // The masks are all still there: stepping again shows one of them.
    allocSweep(step.first, s, prepare, step.second, [&] { s.expectMask(step.second, false); });
  }
  const Call rectangle = [&](unsigned int*, unsigned char* m) {
    doSegmentationBB(s.w, s.h, s.src.data(), 20, 15, 100, 75, m);
  };
  allocSweep("doSegmentationBB", s, [] {}, rectangle, [&] { s.expectMask(rectangle, true); });
}

// How a request that may be stopped ends: stopped, it shows the plain source
// with one time-out line and leaves the mask buffer (all `fill`) and the
// history (`first`) alone; otherwise it gives the reference mask, which is
// then the newest in the history (`done`).
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

// The clock jumps past the budget at readings spread over a request and at
// each of its last ones (the clean-up): the request ends stopped and the next
// runs as if it never happened, or, after its last check, as an unhurried
// run. The first mask's patch lies outside the loop, so a mask that skipped
// part of the clean-up differs from the reference.
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
  sweep("budget", interpose::kClock, s, prepare, kSegment,
        [&](const LogCapture& log, const HistorySnapshot&, auto& argb, auto& mask) {
          if (!ends.stopped(log, argb, mask, kSweepFill)) return;
          ++stopped;
          ZIRKSEMarker::m_exitApp = false;  // a time-out raises the cancel, which stays until a reset
          s.mark();
          EXPECT_TRUE(s.expectMask(kSegment, true) == reference);
        },
        [&](int n) { return n < readings - 16 ? std::min(n + readings / 24, readings - 16) : n + 1; });
  EXPECT_GT(stopped, 16);
}

// Cancels from a second thread at random moments of a request at 480 x 360
// (so the refinement runs): the request ends stopped or with exactly the mask
// of an uncancelled run. Under ThreadSanitizer it is the data-race check of
// the cancel.
TEST_F(RobustnessTest, CancelAtRandomMomentsNeverRecordsAWrongMask) {
  Scene s(480, 360);
  s.start();
  const HistorySnapshot first = HistorySnapshot::take();
  const auto t0 = std::chrono::steady_clock::now();
  s.mark();
  const std::vector<unsigned char> reference = s.expectMask(kSegment, true);
  const std::chrono::duration<double, std::milli> requestMs = std::chrono::steady_clock::now() - t0;
  const Ends ends{s.src, first, HistorySnapshot::take(), reference};
  ASSERT_EQ(ends.done.current, (first.current + 1) % 32);

  // Moments at random points of equal stretches of 1.2 times the request.
  const int runs = 12;
  std::mt19937 rng(15);
  std::uniform_real_distribution<double> within(0.0, 1.0);
  int cancelled = 0;
  for (int k = 0; k < runs; ++k) {
    deinitSegmentation();
    s.start();
    ASSERT_TRUE(HistorySnapshot::take() == first);
    const std::chrono::microseconds delay(static_cast<long>(1200.0 * requestMs.count() * (k + within(rng)) / runs));
    SCOPED_TRACE("cancel after " + std::to_string(delay.count()) + " us");
    std::vector<unsigned int> argb(s.pixels(), 0x01020304u);
    std::vector<unsigned char> mask(s.pixels(), 123);
    s.mark();
    std::atomic<bool> go{false};
    std::thread canceller([&] {
      while (!go.load()) std::this_thread::yield();
      std::this_thread::sleep_for(delay);
      cancelSegmentation();
    });
    LogCapture log;
    go = true;
    kSegment(argb.data(), mask.data());
    canceller.join();
    cancelled += ends.stopped(log, argb, mask, 123);
  }
  std::printf("%d of %d requests cancelled; request %.0f ms\n", cancelled, runs, requestMs.count());
  EXPECT_GT(cancelled, 0);
}

// An exit alone asks for nothing. A cancel stays raised until a reset or a
// new engine: every request in between ends without a mask. An exit asked for
// with the cancel raised tears the engine down at the end of the next
// request, which shows the plain source; doSegmentationBB then makes a new
// engine, and a cancel made before it is gone.
TEST_F(RobustnessTest, CancelStaysRaisedUntilResetOrANewEngine) {
  Scene s(120, 90);
  s.start();
  std::vector<unsigned int> argb(s.pixels());
  std::vector<unsigned char> mask(s.pixels());
  // The request's result and whether it found an object.
  const auto edit = [&](int result = 0) {
    std::fill(mask.begin(), mask.end(), 9);
    s.mark();
    EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), result);
    return std::count(mask.begin(), mask.end(), 0) > 0;
  };
  exitSegmentation();
  EXPECT_TRUE(edit());
  EXPECT_TRUE(pHybrid != nullptr && g_exitStatus == 0);
  const HistorySnapshot first = HistorySnapshot::take();
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
  EXPECT_TRUE(pHybrid == nullptr && storage == nullptr && g_exitStatus == 0);
  EXPECT_EQ(argb, s.src);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 9), static_cast<long>(mask.size()));
  EXPECT_FALSE(canUndo() || canRedo());
  cancelSegmentation();
  std::fill(mask.begin(), mask.end(), 9);
  EXPECT_EQ(doSegmentationBB(s.w, s.h, s.src.data(), 20, 15, 100, 75, mask.data()), 0);
  EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
}

}  // namespace
