// Allocation failures inside a request. This program's cvCreateImage
// (Interpose.cpp) throws, at a chosen call, the cv::Exception OpenCV throws
// when memory runs out. Each test walks the failure through every image
// allocation of one exported call, one run per allocation: the call must
// return normally with one "abandoned" log line, write nothing outside the
// caller's buffers, keep every mask of the history, and leave the engine
// able to run the same request again. The sanitizer build adds: nothing the
// failed request held is leaked.
#include <android/log.h>

#include <functional>
#include <string>

#include "common/LogCapture.h"
#include "robustness/RobustnessSupport.h"

namespace {

using robustness::Guarded;
using robustness::HistorySnapshot;
using robustness::RobustnessTest;

struct Scene {
  int w, h;
  std::vector<unsigned int> src;
  std::vector<int> marks, path;

  Scene(int w, int h) : w(w), h(h), src(robustness::discScene(w, h)) {
    marks = robustness::boxMarks(w, h, w / 6, h / 6, 5 * w / 6, 5 * h / 6);
    path = {w / 6, h / 6, 5 * w / 6, h / 6, 5 * w / 6, 5 * h / 6, w / 6, 5 * h / 6};
  }
  size_t pixels() const { return src.size(); }
  // Source, engine, and one mask in the history (marked directly).
  void start() {
    setSourceImage(w, h, src.data());
    initSegmentationEngine(0);
    std::vector<int> object = robustness::boxMarks(w, h, w / 2 - 2, h / 2 - 2, w / 2 + 2, h / 2 + 2, 2);
    std::vector<unsigned char> mask(pixels());
    setMarkerImage(w, h, object.data(), 0);
    cutOutImage(0, 0, 0, nullptr, mask.data());
  }
  void mark() {
    setMarkerImage(w, h, marks.data(), 0);
    setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
  }
};

// Runs call with its n-th image allocation failing, for n = 1, 2, ... until
// the call needs fewer allocations than that. prepare sets the engine up
// before each run; after it checks the engine can do the call again.
void sweep(const char* function, const std::function<void()>& prepare,
           const std::function<void(unsigned int*, unsigned char*)>& call, size_t pixels,
           const std::function<void()>& after) {
  int failures = 0;
  for (int n = 1; n < 500; ++n) {
    SCOPED_TRACE(std::string(function) + ", allocation " + std::to_string(n) + " fails");
    deinitSegmentation();
    resetSegmentationInterface();
    prepare();
    const HistorySnapshot before = HistorySnapshot::take();
    Guarded<unsigned int> argb(pixels, 0x11111111u, 0xCAFEF00Du);
    Guarded<unsigned char> mask(pixels, 0x44, 0x99);
    LogCapture log;
    interpose::failCreateImageAt(n);
    call(argb.data(), mask.data());
    const int calls = interpose::createImageCalls();
    interpose::failCreateImageAt(0);
    EXPECT_TRUE(argb.guardsIntact() && mask.guardsIntact());
    EXPECT_EQ(g_resultMask, nullptr);
    if (calls < n) {
      // Every allocation of the call has had its turn.
      EXPECT_GT(failures, 0) << "the call allocates no image at all";
      return;
    }
    ++failures;
    EXPECT_EQ(log.countPrefix("Error", std::string(function) + ": abandoned after OpenCV error"), 1)
        << log.dump();
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
  // 200 x 150: the working image is the source. 360 x 270: it is reduced,
  // and the mask comes back through the full-resolution refinement.
  for (const auto& size : {std::pair<int, int>{200, 150}, {360, 270}}) {
    Scene scene(size.first, size.second);
    sweep(
        "processSegment", [&] { scene.start(), scene.mark(); },
        [](unsigned int* argb, unsigned char* mask) {
          EXPECT_EQ(processSegment(0, 0, 0, argb, mask), 0);
        },
        scene.pixels(),
        [&] {
          EXPECT_NE(pHybrid, nullptr);
          EXPECT_EQ(g_cancelTimer, nullptr) << "the failed segmentation's timer is released";
          EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
          const int32_t current = ZIRKSEManageUndoRedo::m_current;
          std::vector<unsigned int> argb(scene.pixels());
          std::vector<unsigned char> mask(scene.pixels(), 7);
          scene.mark();
          EXPECT_EQ(processSegment(0, 0, 0, argb.data(), mask.data()), 0);
          EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0) << "the next request segments";
          EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (current + 1) % 32);
        });
  }
}

TEST_F(RobustnessTest, FailedAllocationInTheOtherCallsLeavesTheEngineUsable) {
  Scene scene(120, 90);
  const auto cutOutWorks = [&] {
    std::vector<unsigned char> mask(scene.pixels(), 7);
    setMarkerImage(scene.w, scene.h, scene.marks.data(), 0);
    cutOutImage(0, 0, 0, nullptr, mask.data());
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 7), 0);
  };
  sweep(
      "setSourceImage", [] {},
      [&](unsigned int*, unsigned char*) { setSourceImage(scene.w, scene.h, scene.src.data()); },
      scene.pixels(), [&] {
        EXPECT_EQ(ZIRKSEMarker::m_originalImage, nullptr);
        setSourceImage(scene.w, scene.h, scene.src.data());
        cutOutWorks();
      });
  sweep(
      "initSegmentationEngine", [&] { setSourceImage(scene.w, scene.h, scene.src.data()); },
      [](unsigned int*, unsigned char*) { initSegmentationEngine(0); }, scene.pixels(), [&] {
        EXPECT_EQ(pHybrid, nullptr) << "no half-built engine";
        initSegmentationEngine(0);
        EXPECT_NE(pHybrid, nullptr);
      });
  sweep(
      "setMarkerImage", [&] { scene.start(); },
      [&](unsigned int*, unsigned char*) { setMarkerImage(scene.w, scene.h, scene.marks.data(), 0); },
      scene.pixels(), [&] { cutOutWorks(); });
  sweep(
      "cutOutImage", [&] { scene.start(), scene.mark(); },
      [](unsigned int* argb, unsigned char* mask) { cutOutImage(0, 0, 0, argb, mask); },
      scene.pixels(), [&] { cutOutWorks(); });
  for (const auto& step : {std::make_pair("undo", &undo), std::make_pair("redo", &redo)}) {
    sweep(
        step.first,
        [&] {
          scene.start();
          cutOutWorks();
          if (step.second == &redo) undo(std::vector<unsigned int>(scene.pixels()).data(),
                                         std::vector<unsigned char>(scene.pixels()).data());
        },
        [&](unsigned int* argb, unsigned char* mask) { step.second(argb, mask); }, scene.pixels(),
        [&] {
          // The masks are all still there: stepping shows one of them.
          std::vector<unsigned int> argb(scene.pixels());
          std::vector<unsigned char> mask(scene.pixels(), 7);
          step.second(argb.data(), mask.data());
          EXPECT_EQ(std::count(mask.begin(), mask.end(), 7), 0);
        });
  }
  sweep(
      "doSegmentationBB", [] {},
      [&](unsigned int*, unsigned char* mask) {
        doSegmentationBB(scene.w, scene.h, scene.src.data(), 20, 15, 100, 75, mask);
      },
      scene.pixels(), [&] {
        std::vector<unsigned char> mask(scene.pixels(), 7);
        doSegmentationBB(scene.w, scene.h, scene.src.data(), 20, 15, 100, 75, mask.data());
        EXPECT_GT(std::count(mask.begin(), mask.end(), 0), 0);
      });
}

}  // namespace
