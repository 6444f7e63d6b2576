// Allocation failures inside a request. Interpose.cpp's cvCreateImage throws,
// at a chosen call, the cv::Exception OpenCV throws when memory runs out.
// Each sweep makes every image allocation of one exported call fail in turn:
// the call must return normally with one "abandoned" line, write nothing
// outside the caller's buffers, keep every mask of the history and leave the
// engine able to run the call again. The sanitizer build adds: no leak.
#include <android/log.h>

#include <functional>
#include <string>

#include "common/LogCapture.h"
#include "robustness/RobustnessSupport.h"

namespace {

using robustness::HistorySnapshot;
using robustness::RobustnessTest;

using Call = std::function<void(unsigned int*, unsigned char*)>;

// The disc scene, marked for a loop around the middle two thirds.
struct Scene {
  int w, h;
  std::vector<unsigned int> src;

  Scene(int w, int h) : w(w), h(h), src(robustness::discScene(w, h)) {}
  size_t pixels() const { return src.size(); }
  void mark() { robustness::markLoop(w, h, w / 6, h / 6, 5 * w / 6, 5 * h / 6); }
  // Source, engine, and one mask in the history (marked directly).
  void start() {
    setSourceImage(w, h, src.data());
    initSegmentationEngine(0);
    std::vector<int> object = robustness::boxMarks(w, h, w / 2 - 2, h / 2 - 2, w / 2 + 2, h / 2 + 2, 2);
    std::vector<unsigned char> mask(pixels());
    setMarkerImage(w, h, object.data(), 0);
    cutOutImage(0, 0, 0, nullptr, mask.data());
  }
  // Runs a call that must write every pixel of the mask (and find an object).
  void expectMask(const Call& call, bool object) {
    std::vector<unsigned int> argb(pixels());
    std::vector<unsigned char> mask(pixels(), 7);
    call(argb.data(), mask.data());
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 7), 0);
    EXPECT_TRUE(!object || std::count(mask.begin(), mask.end(), 0) > 0) << "no object";
  }
  void cutOutWorks() {
    mark();
    expectMask([](unsigned int* a, unsigned char* m) { cutOutImage(0, 0, 0, a, m); }, false);
  }
};

// Runs call with its n-th image allocation failing, for n = 1, 2, ... until
// the call needs fewer allocations than that. prepare sets the engine up
// before each run; after checks the engine can do the call again.
void sweep(const std::string& function, Scene& scene, const std::function<void()>& prepare,
           const Call& call, const std::function<void()>& after) {
  for (int n = 1; n < 500; ++n) {
    SCOPED_TRACE(function + ", allocation " + std::to_string(n) + " fails");
    deinitSegmentation();
    resetSegmentationInterface();
    prepare();
    const HistorySnapshot before = HistorySnapshot::take();
    robustness::Guarded<unsigned int> argb(scene.pixels(), 0x11111111u, 0xCAFEF00Du);
    robustness::Guarded<unsigned char> mask(scene.pixels(), 0x44, 0x99);
    LogCapture log;
    interpose::failCreateImageAt(n);
    call(argb.data(), mask.data());
    const int calls = interpose::createImageCalls();
    interpose::failCreateImageAt(0);
    EXPECT_TRUE(argb.guardsIntact() && mask.guardsIntact());
    EXPECT_EQ(g_resultMask, nullptr);
    if (calls < n) {  // every allocation of the call has had its turn
      EXPECT_GT(n, 1) << "the call allocates no image at all";
      return;
    }
    EXPECT_EQ(log.countPrefix("Error", function + ": abandoned after OpenCV error"), 1) << log.dump();
    // The history keeps every mask it had; a failure after the new mask went
    // in may leave that one as the newest.
    const HistorySnapshot now = HistorySnapshot::take();
    if (!(now == before)) {
      EXPECT_EQ(now.current, (before.current + 1) % 32);
      EXPECT_EQ(now.bottom, before.bottom);
    }
    after();
  }
  ADD_FAILURE() << "no end to the allocations";
}

TEST_F(RobustnessTest, FailedAllocationInASegmentationIsAbandonedAndTheNextRuns) {
  // 120 x 90: the working image is the source. 300 x 260 (above 76800
  // pixels): it is reduced, and the mask comes back through the
  // full-resolution refinement. Both make the same allocations as larger scenes.
  for (const auto& size : {std::pair<int, int>{120, 90}, {300, 260}}) {
    Scene scene(size.first, size.second);
    const auto segment = [](unsigned int* a, unsigned char* m) {
      EXPECT_EQ(processSegment(0, 0, 0, a, m), 0);
    };
    sweep("processSegment", scene, [&] { scene.start(), scene.mark(); }, segment, [&] {
      EXPECT_NE(pHybrid, nullptr);
      EXPECT_EQ(g_cancelTimer, nullptr) << "the failed segmentation's timer is released";
      EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
      const int32_t current = ZIRKSEManageUndoRedo::m_current;
      scene.mark();
      scene.expectMask(segment, true);
      EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (current + 1) % 32);
    });
  }
}

TEST_F(RobustnessTest, FailedAllocationInTheOtherCallsLeavesTheEngineUsable) {
  Scene s(120, 90);
  const auto setSource = [&] { setSourceImage(s.w, s.h, s.src.data()); };
  sweep("setSourceImage", s, [] {}, [&](unsigned int*, unsigned char*) { setSource(); }, [&] {
    EXPECT_EQ(ZIRKSEMarker::m_originalImage, nullptr);
    setSource();
    s.cutOutWorks();
  });
  sweep("initSegmentationEngine", s, setSource,
        [](unsigned int*, unsigned char*) { initSegmentationEngine(0); }, [&] {
          EXPECT_EQ(pHybrid, nullptr) << "no half-built engine";
          initSegmentationEngine(0);
          EXPECT_NE(pHybrid, nullptr);
        });
  sweep("setMarkerImage", s, [&] { s.start(); }, [&](unsigned int*, unsigned char*) { s.mark(); },
        [&] { s.cutOutWorks(); });
  sweep("cutOutImage", s, [&] { s.start(), s.mark(); },
        [](unsigned int* a, unsigned char* m) { cutOutImage(0, 0, 0, a, m); },
        [&] { s.cutOutWorks(); });
  for (const auto& step : {std::make_pair("undo", &undo), std::make_pair("redo", &redo)}) {
    const auto prepare = [&] {
      s.start();
      s.cutOutWorks();
      std::vector<unsigned int> argb(s.pixels());
      std::vector<unsigned char> mask(s.pixels());
      if (step.second == &redo) undo(argb.data(), mask.data());
    };
    // The masks are all still there: stepping again shows one of them.
    sweep(step.first, s, prepare, step.second, [&] { s.expectMask(step.second, false); });
  }
  const auto rectangle = [&](unsigned int*, unsigned char* m) {
    doSegmentationBB(s.w, s.h, s.src.data(), 20, 15, 100, 75, m);
  };
  sweep("doSegmentationBB", s, [] {}, rectangle, [&] { s.expectMask(rectangle, true); });
}

}  // namespace
