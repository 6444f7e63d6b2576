// Allocation failures inside a request. Interpose.cpp's cvCreateImage throws,
// at a chosen call, the cv::Exception OpenCV throws when memory runs out.
// Each sweep makes every image allocation of one exported call fail in turn:
// the call must return normally with one "abandoned" line, write nothing
// outside the caller's buffers, keep every mask of the history and leave the
// engine able to run the call again.
#include <string>

#include "robustness/RobustnessSupport.h"

namespace {

using namespace robustness;

// `after` checks that the engine can do the call again.
void allocSweep(const std::string& function, Scene& scene, const std::function<void()>& prepare,
                const Call& call, const std::function<void()>& after) {
  sweep(function, interpose::kAlloc, scene, prepare, call, [&](const SweepRun& run) {
          EXPECT_EQ(run.log.countPrefix("Error", function + ": abandoned after OpenCV error"), 1)
              << run.log.dump();
          // The history keeps every mask it had; a failure after the new
          // mask went in may leave that one as the newest.
          const HistorySnapshot now = HistorySnapshot::take();
          if (!(now == run.before)) {
            EXPECT_EQ(now.current, (run.before.current + 1) % 32);
            EXPECT_EQ(now.bottom, run.before.bottom);
          }
          after();
        });
}

const Call kCutOut = [](unsigned int* a, unsigned char* m) { cutOutImage(0, 0, 0, a, m); };

TEST_F(RobustnessTest, FailedAllocationInASegmentationIsAbandonedAndTheNextRuns) {
  // 120 x 90: the working image is the source. 300 x 260 (above 76800
  // pixels): it is reduced, and the mask comes back through the
  // full-resolution refinement.
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

}  // namespace
