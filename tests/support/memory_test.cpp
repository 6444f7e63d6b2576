// Tracked allocation: the leak report, misuse of the free functions, and the
// exact log lines of each.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "engine/SegmentationCore.h"
#include "support/ZIRKMemory.h"

namespace {

std::string pointerText(const void* p) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

class TrackedMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    ZIRK_check_memory_status();  // start from an empty stack
    log.clear();
  }
  LogCapture log;
};

TEST_F(TrackedMemory, LeakReportNamesEachLeakedBlockAndEmptiesTheStack) {
  void* first = ZIRK_Malloc(40, "alpha", 11);
  void* second = ZIRK_Calloc(3, 4, "beta", 22);
  void* third = ZIRK_Malloc(7, "gamma", 33);
  ZIRK_Free(first, "alpha", 12);
  ASSERT_TRUE(log.lines().empty()) << log.dump();

  ZIRK_check_memory_status();
  ASSERT_EQ(log.lines().size(), 2u) << log.dump();
  // Newest first; a calloc records count x size.
  EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "TAG_MEM",
                      "Failed to deallocate 7 bytes allocated in function : gamma, Line : 33"),
            1);
  EXPECT_EQ(log.lines()[1].text,
            "Failed to deallocate 12 bytes allocated in function : beta, Line : 22");

  log.clear();
  ZIRK_check_memory_status();
  EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1) << log.dump();
  // The report only forgets the blocks: they are still ours to free.
  free(second);
  free(third);
}

TEST_F(TrackedMemory, UnknownOrNullPointersAreRefusedWithAWarning) {
  void* untracked = ZIRK_Malloc_Msg(16, "plain", 5);
  ZIRK_Free(untracked, "caller", 9);
  ZIRK_Free(nullptr, "caller", 10);
  ZIRK_Free_Msg(nullptr, "caller", 11);
  ASSERT_EQ(log.lines().size(), 3u) << log.dump();
  EXPECT_EQ(log.count(ANDROID_LOG_WARN, "TAG_MEM",
                      "Trying to free invalid pointer : " + pointerText(untracked) +
                          " in function : caller, Line : 9 !"),
            1);
  EXPECT_EQ(log.count(ANDROID_LOG_WARN, "TAG_MEM",
                      "Trying to free invalid pointer : " + pointerText(nullptr) +
                          " in function : caller, Line : 11 !"),
            1);
  // The untracked block was not freed by ZIRK_Free: this free is its only one
  // (a sanitizer build would report a double free otherwise).
  ZIRK_Free_Msg(untracked, "plain", 6);

  // A tracked block is freed once; the second release only warns.
  void* tracked = ZIRK_Malloc(8, "t", 1);
  ZIRK_Free(tracked, "t", 2);
  log.clear();
  ZIRK_Free(tracked, "t", 3);
  EXPECT_EQ(log.countPrefix("TAG_MEM", "Trying to free invalid pointer"), 1) << log.dump();
}

TEST_F(TrackedMemory, ObjectManagersRecordAndForget) {
  int* object = new int(5);
  int* array = new int[4];
  EXPECT_EQ(ZIRK_New_Mngr(object, "make", 1), object);
  EXPECT_EQ(ZIRK_New_Mngr(array, "make", 2), array);
  EXPECT_EQ(ZIRK_New_Mngr(nullptr, "make", 3), nullptr);
  EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "TAG_MEM", "Allocation failed in function : make, Line : 3 !"),
            1);

  EXPECT_EQ(ZIRK_Delete_Mngr(object, "drop", 4), 1);
  EXPECT_EQ(ZIRK_Delete_Array_Mngr(array, "drop", 5), 1);
  log.clear();
  // Forgotten once: a second release is refused.
  EXPECT_EQ(ZIRK_Delete_Mngr(object, "drop", 6), 0);
  EXPECT_EQ(ZIRK_Delete_Array_Mngr(array, "drop", 7), 0);
  EXPECT_EQ(log.count(ANDROID_LOG_WARN, "TAG_MEM",
                      "Trying to delete invalid pointer : " + pointerText(object) +
                          " in function : drop, Line : 6"),
            1);
  EXPECT_EQ(log.count(ANDROID_LOG_WARN, "TAG_MEM",
                      "Trying to delete invalid pointer array: " + pointerText(array) +
                          " in function : drop, Line : 7"),
            1);
  delete object;
  delete[] array;
  ZIRK_check_memory_status();
  EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1);
}

TEST_F(TrackedMemory, FailedAllocationsLogTheirSize) {
  // Sizes no allocator can satisfy. The sanitizer allocators would abort on
  // these instead of returning null, so they are only asked for in plain builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer allocators abort on impossible sizes";
#else
  const unsigned long huge = ~0ul / 2;
  EXPECT_EQ(ZIRK_Malloc_Msg(huge, "big", 1), nullptr);
  EXPECT_EQ(ZIRK_Calloc(huge, 4, "big", 2), nullptr);
  ASSERT_EQ(log.lines().size(), 2u) << log.dump();
  char expected[160];
  std::snprintf(expected, sizeof expected,
                "Failed to allocate %lu bytes in function : big, Line : 1 !", huge);
  EXPECT_EQ(log.lines()[0].text, expected);
  EXPECT_EQ(log.lines()[0].priority, ANDROID_LOG_ERROR);
  std::snprintf(expected, sizeof expected,
                "Failed to allocate %lu bytes in function : big, Line : 2 !", huge * 4);
  EXPECT_EQ(log.lines()[1].text, expected);
  ZIRK_check_memory_status();  // nothing was pushed for the failure
  EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1);
#endif
}

// The engine's own buffers (the message family) are recorded as well: one
// left unreleased is reported with its size, function and line; a released
// one is not, and a block the report has listed can still be freed.
TEST_F(TrackedMemory, LeakReportListsTheEnginesOwnBuffers) {
  void* kept = ZIRK_Malloc_Msg(24, "computeNlinks", 70);
  void* released = ZIRK_Calloc_Msg(5, 8, "initModel", 80);
  ZIRK_Free_Msg(released, "initModel", 81);
  ZIRK_check_memory_status();
  ASSERT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "TAG_MEM",
                      "Failed to deallocate 24 bytes allocated in function : computeNlinks, Line : 70"),
            1);
  log.clear();
  ZIRK_Free_Msg(kept, "computeNlinks", 71);  // forgotten by the report, freed all the same
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

// A whole edit sequence on a reduced image (refinement included), with a
// cancelled request, undo, redo and a rectangle, then the teardown: every
// engine buffer is released again.
TEST_F(TrackedMemory, EditSequenceAndTeardownLeaveNoBuffer) {
  const int w = 330, h = 250;  // more than 76800 pixels: the working image is reduced
  std::vector<unsigned int> argb(static_cast<size_t>(w) * h);
  std::vector<int> marks(argb.size(), 0), brush(argb.size(), 0);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const bool disc = (x - 165) * (x - 165) + (y - 125) * (y - 125) < 70 * 70;
      argb[static_cast<size_t>(y) * w + x] = disc ? 0xFF2040C0u + (x % 7) : 0xFFD0D0A0u - (y % 5);
      if (x >= 80 && x <= 250 && y >= 40 && y <= 210) marks[static_cast<size_t>(y) * w + x] = 4;
      if (x >= 160 && x <= 170 && y >= 120 && y <= 130) brush[static_cast<size_t>(y) * w + x] = 1;
    }
  }
  std::vector<int> path = {80, 40, 250, 40, 250, 210, 80, 210};
  std::vector<unsigned int> preview(argb.size());
  std::vector<unsigned char> mask(argb.size());
  setSourceImage(w, h, argb.data());
  initSegmentationEngine(0);
  setMarkerImage(w, h, marks.data(), 0);
  setCurrentMarkerVector(static_cast<int>(path.size()), path.data());
  processSegment(0, 0, 0, preview.data(), mask.data());
  setMarkerImage(w, h, brush.data(), 3);
  setCurrentMarkerVector(0, nullptr);
  processSegment(0, 0, 0, preview.data(), mask.data());
  cancelSegmentation();
  setMarkerImage(w, h, marks.data(), 0);
  processSegment(0, 0, 0, preview.data(), mask.data());
  resetSegmentationInterface();
  setMarkerImage(w, h, brush.data(), 2);
  cutOutImage(0, 0, 0, preview.data(), mask.data());
  undo(preview.data(), mask.data());
  redo(preview.data(), mask.data());
  doSegmentationBB(w, h, argb.data(), 80, 40, 250, 210, mask.data());
  deinitSegmentation();
  log.clear();
  ZIRK_check_memory_status();
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1) << log.dump();
}

}  // namespace
