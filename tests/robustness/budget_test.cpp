// The 10-second budget of a segmentation and the cancel. (A cancel from
// another thread in the middle of a request: the demo server's test.)
// The budget test makes time fly instead of waiting: Interpose.cpp's
// gettimeofday adds two seconds at every reading, so the request overruns
// its budget within its first iterations however fast the machine is.
#include <android/log.h>

#include <algorithm>
#include <chrono>

#include "common/LogCapture.h"
#include "robustness/RobustnessSupport.h"

namespace {

using robustness::HistorySnapshot;
using robustness::RobustnessTest;

constexpr const char* kTimeoutLine = "Segmentation canceled due to timeout";

// One edit with a loop around the box: markers, path, request.
int loopEdit(int w, int h, int x1, int y1, int x2, int y2, unsigned int* argb, unsigned char* mask) {
  robustness::markLoop(w, h, x1, y1, x2, y2);
  return processSegment(0, 0, 0, argb, mask);
}

int objectPixels(const std::vector<unsigned char>& mask) {
  return static_cast<int>(std::count(mask.begin(), mask.end(), 0));
}

TEST_F(RobustnessTest, RequestOverItsBudgetEndsWithoutResultAndTheEngineGoesOn) {
  const int w = 120, h = 90;
  std::vector<unsigned int> src = robustness::discScene(w, h);
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  std::vector<unsigned int> argb(src.size());
  std::vector<unsigned char> mask(src.size(), 9);
  ASSERT_EQ(loopEdit(w, h, 20, 15, 100, 75, argb.data(), mask.data()), 0);
  const int firstObject = objectPixels(mask);
  ASSERT_GT(firstObject, 0);
  const HistorySnapshot before = HistorySnapshot::take();

  // A brush stroke that would remove a part, run on a clock that races.
  robustness::Guarded<unsigned int> preview(src.size(), 0x01010101u, 0xFEEDFACEu);
  robustness::Guarded<unsigned char> untouched(src.size(), 77, 0x5A);
  std::vector<int> marks = robustness::boxMarks(w, h, 55, 40, 65, 50, 1);
  setMarkerImage(w, h, marks.data(), 3);
  setCurrentMarkerVector(0, nullptr);
  {
    LogCapture log;
    interpose::setClockStep(2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(processSegment(0, 0, 0, preview.data(), untouched.data()), 0);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    interpose::setClockStep(0);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Error", kTimeoutLine), 1) << log.dump();
    EXPECT_LT(taken.count(), 5.0) << "the request ended on its own budget, not on real time";
  }
  EXPECT_EQ(untouched.inner(), std::vector<unsigned char>(src.size(), 77)) << "no mask";
  EXPECT_EQ(preview.inner(), src) << "the plain (opaque) source is shown";
  EXPECT_TRUE(preview.guardsIntact() && untouched.guardsIntact());
  EXPECT_TRUE(HistorySnapshot::take() == before) << "the history is unchanged";
  EXPECT_EQ(g_cancelTimer, nullptr);
  // A time-out raises the cancel, which stays until a reset; lowered here so
  // that the next request builds on the same history.
  ZIRKSEMarker::m_exitApp = false;

  LogCapture log;
  std::fill(mask.begin(), mask.end(), 9);
  EXPECT_EQ(loopEdit(w, h, 20, 15, 100, 75, argb.data(), mask.data()), 0);
  EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Error", kTimeoutLine), 0) << log.dump();
  EXPECT_GT(objectPixels(mask), firstObject / 2);
  EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, (before.current + 1) % 32);
  EXPECT_TRUE(canUndo());
}

// The cancel stays raised until a reset or a new engine: every request in
// between ends without a mask, and an exit asked for after a cancelled
// request still tears the engine down at the end of the next one.
TEST_F(RobustnessTest, CancelStaysRaisedUntilResetOrANewEngine) {
  const int w = 120, h = 90;
  std::vector<unsigned int> src = robustness::discScene(w, h);
  std::vector<unsigned int> argb(src.size());
  std::vector<unsigned char> mask(src.size(), 9);
  setSourceImage(w, h, src.data());
  initSegmentationEngine(0);
  const auto edit = [&] {
    std::fill(mask.begin(), mask.end(), 9);
    return loopEdit(w, h, 20, 15, 100, 75, argb.data(), mask.data());
  };

  cancelSegmentation();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(edit(), 0);
    EXPECT_EQ(objectPixels(mask), 0) << "request " << i << " ran despite the cancel";
    EXPECT_EQ(ZIRKSEManageUndoRedo::m_current, ZIRKSEManageUndoRedo::m_bottom);
  }
  resetSegmentationInterface();  // lowers the cancel
  EXPECT_EQ(edit(), 0);
  EXPECT_GT(objectPixels(mask), 0);

  cancelSegmentation();  // a new engine lowers it as well
  initSegmentationEngine(0);
  EXPECT_EQ(edit(), 0);
  EXPECT_GT(objectPixels(mask), 0);

  // An exit asked for right after a cancelled request is not lost.
  cancelSegmentation();
  EXPECT_EQ(edit(), 0);
  exitSegmentation();
  EXPECT_EQ(edit(), -1);
  EXPECT_EQ(pHybrid, nullptr);

  // doSegmentationBB re-creates the engine: a cancel made before it is gone.
  std::fill(mask.begin(), mask.end(), 9);
  cancelSegmentation();
  EXPECT_EQ(doSegmentationBB(w, h, src.data(), 20, 15, 100, 75, mask.data()), 0);
  EXPECT_GT(objectPixels(mask), 0);
  EXPECT_FALSE(ZIRKSEMarker::m_exitApp);
}

}  // namespace
