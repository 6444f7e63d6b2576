// Tracked allocation: the leak report and misuse of the free functions. (The
// robustness tests check that the engine leaves no tracked buffer behind.)
#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "support/ZIRKMemory.h"

namespace {

class TrackedMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    ZIRK_check_memory_status();  // start from an empty stack
    log.clear();
  }
  // The captured lines' priorities, in order; clears the capture.
  std::vector<int> priorities() {
    std::vector<int> p;
    for (const LogLine& l : log.lines()) p.push_back(l.priority);
    log.clear();
    return p;
  }
  void expectNoLeak() {
    ZIRK_check_memory_status();
    EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1) << log.dump();
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    log.clear();
  }
  LogCapture log;
};

// The report lists each unreleased block with its size (count x size for a
// calloc), function and line: the tracked blocks newest first, then the
// engine's own buffers; afterwards the stack is empty, and a listed block can
// still be freed without a complaint.
TEST_F(TrackedMemory, LeakReportNamesEachLeakedBlockAndEmptiesTheStack) {
  void* first = ZIRK_Malloc(40, "alpha", 11);
  void* second = ZIRK_Calloc(3, 4, "beta", 22);
  void* kept = ZIRK_Malloc_Msg(24, "computeNlinks", 70);
  ZIRK_Free_Msg(ZIRK_Calloc_Msg(5, 8, "initModel", 80), "initModel", 81);
  ZIRK_Free(first, "alpha", 12);
  ASSERT_TRUE(log.lines().empty()) << log.dump();
  ZIRK_check_memory_status();
  std::vector<std::string> texts;
  for (const LogLine& l : log.lines()) texts.push_back(l.text);
  const std::string leak = "Failed to deallocate ";
  EXPECT_EQ(texts, (std::vector<std::string>{leak + "12 bytes allocated in function : beta, Line : 22",
                                             leak + "24 bytes allocated in function : computeNlinks, Line : 70"}));
  EXPECT_EQ(priorities(), (std::vector<int>{ANDROID_LOG_ERROR, ANDROID_LOG_ERROR}));
  expectNoLeak();
  free(second);
  ZIRK_Free_Msg(kept, "computeNlinks", 71);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

// Frees and deletes of pointers the stack does not hold are refused with a
// warning and free nothing (a sanitizer build reports any double free); a
// failed allocation is logged as an error and leaves no record.
TEST_F(TrackedMemory, MisusedFreesAndFailedAllocationsAreLogged) {
  void* untracked = ZIRK_Malloc_Msg(16, "plain", 5);  // the other family's block
  int* object = new int(5);
  int* array = new int[4];
  EXPECT_EQ(ZIRK_New_Mngr(object, "make", 1), object);
  EXPECT_EQ(ZIRK_New_Mngr(array, "make", 2), array);
  EXPECT_EQ(ZIRK_Delete_Mngr(object, "drop", 4), 1);
  EXPECT_EQ(ZIRK_Delete_Array_Mngr(array, "drop", 5), 1);
  ASSERT_TRUE(log.lines().empty()) << log.dump();

  ZIRK_Free(untracked, "caller", 9);
  ZIRK_Free_Msg(nullptr, "caller", 11);
  EXPECT_EQ(ZIRK_Delete_Mngr(object, "drop", 6), 0);
  EXPECT_EQ(ZIRK_Delete_Array_Mngr(array, "drop", 7), 0);
  EXPECT_EQ(ZIRK_New_Mngr(nullptr, "make", 3), nullptr);
  std::vector<int> expected(4, ANDROID_LOG_WARN);
  expected.push_back(ANDROID_LOG_ERROR);
  // The sanitizer allocators abort on impossible sizes instead of returning null.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_EQ(ZIRK_Malloc_Msg(~0ul / 2, "big", 1), nullptr);
  EXPECT_EQ(ZIRK_Calloc(~0ul / 2, 4, "big", 2), nullptr);
  expected.insert(expected.end(), 2, ANDROID_LOG_ERROR);
#endif
  EXPECT_EQ(priorities(), expected);
  ZIRK_Free_Msg(untracked, "plain", 6);  // its only free
  delete object;
  delete[] array;
  expectNoLeak();
}

}  // namespace
