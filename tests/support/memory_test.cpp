// Tracked allocation: the leak report and misuse of the free functions. (The
// robustness tests check that the engine leaves no tracked buffer behind.)
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "support/ZIRKMemory.h"

namespace {

std::string leakLine(int bytes, const char* function, int line) {
  return "Failed to deallocate " + std::to_string(bytes) + " bytes allocated in function : " +
         function + ", Line : " + std::to_string(line);
}

std::string refusal(const char* what, const void* p, const char* function, int line) {
  char buf[160];
  std::snprintf(buf, sizeof buf, "Trying to %s %p in function : %s, Line : %d", what, p, function, line);
  return buf;
}

class TrackedMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    ZIRK_check_memory_status();  // start from an empty stack
    log.clear();
  }
  // The captured lines are exactly these: the first `warnings` of them
  // warnings, the others errors. Clears the capture.
  void expectLines(const std::vector<std::string>& texts, size_t warnings) {
    ASSERT_EQ(log.lines().size(), texts.size()) << log.dump();
    for (size_t i = 0; i < texts.size(); ++i) {
      EXPECT_EQ(log.lines()[i].text, texts[i]);
      EXPECT_EQ(log.lines()[i].priority, i < warnings ? ANDROID_LOG_WARN : ANDROID_LOG_ERROR);
    }
    log.clear();
  }
  void expectNoLeak() {
    log.clear();
    ZIRK_check_memory_status();
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1) << log.dump();
  }
  LogCapture log;
};

// The report lists each unreleased block with its size (count x size for a
// calloc), function and line: the tracked blocks newest first, then the
// engine's own buffers; afterwards the stack is empty, and a listed block can
// still be freed.
TEST_F(TrackedMemory, LeakReportNamesEachLeakedBlockAndEmptiesTheStack) {
  void* first = ZIRK_Malloc(40, "alpha", 11);
  void* second = ZIRK_Calloc(3, 4, "beta", 22);
  void* third = ZIRK_Malloc(7, "gamma", 33);
  void* kept = ZIRK_Malloc_Msg(24, "computeNlinks", 70);
  ZIRK_Free_Msg(ZIRK_Calloc_Msg(5, 8, "initModel", 80), "initModel", 81);
  ZIRK_Free(first, "alpha", 12);
  ASSERT_TRUE(log.lines().empty()) << log.dump();

  ZIRK_check_memory_status();
  expectLines({leakLine(7, "gamma", 33), leakLine(12, "beta", 22), leakLine(24, "computeNlinks", 70)}, 0);
  expectNoLeak();
  free(second);
  free(third);
  log.clear();
  ZIRK_Free_Msg(kept, "computeNlinks", 71);  // forgotten by the report, freed all the same
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

// Frees and deletes of pointers the stack does not hold are refused with a
// warning and free nothing (a sanitizer build reports any double free); a
// failed allocation is logged with its size and leaves no record.
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
  std::vector<std::string> expected = {refusal("free invalid pointer :", untracked, "caller", 9) + " !",
                                       refusal("free invalid pointer :", nullptr, "caller", 11) + " !",
                                       refusal("delete invalid pointer :", object, "drop", 6),
                                       refusal("delete invalid pointer array:", array, "drop", 7),
                                       "Allocation failed in function : make, Line : 3 !"};
  // The sanitizer allocators abort on impossible sizes instead of returning null.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const unsigned long huge = ~0ul / 2;
  EXPECT_EQ(ZIRK_Malloc_Msg(huge, "big", 1), nullptr);
  EXPECT_EQ(ZIRK_Calloc(huge, 4, "big", 2), nullptr);
  expected.push_back("Failed to allocate " + std::to_string(huge) + " bytes in function : big, Line : 1 !");
  expected.push_back("Failed to allocate " + std::to_string(4 * huge) + " bytes in function : big, Line : 2 !");
#endif
  expectLines(expected, 4);
  ZIRK_Free_Msg(untracked, "plain", 6);  // its only free
  delete object;
  delete[] array;
  expectNoLeak();
}

}  // namespace
