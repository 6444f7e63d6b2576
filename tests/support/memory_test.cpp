// Tracked allocation: the leak report and misuse of the free functions. (The
// robustness tests check that the engine leaves no tracked buffer behind.)
#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/LogCapture.h"
#include "support/ZIRKMemory.h"

namespace {

// Frees of pointers the stack does not hold are refused with a warning (a
// sanitizer build reports any double free); a failed allocation is an error.
// The report lists each unreleased block's size, function and line, newest
// first, then the engine's own buffers, and empties the stack.
TEST(TrackedMemory, MisuseIsRefusedAndTheLeakReportNamesEachLeakedBlock) {
  ZIRK_check_memory_status();  // start from an empty stack
  LogCapture log;
  void* first = ZIRK_Malloc(40, "alpha", 11);
  void* second = ZIRK_Calloc(3, 4, "beta", 22);
  void* third = ZIRK_Malloc(7, "gamma", 33);
  void* engines = ZIRK_Malloc_Msg(24, "computeNlinks", 70);
  ZIRK_Free_Msg(ZIRK_Calloc_Msg(5, 8, "initModel", 80), "initModel", 81);
  ZIRK_Free(first, "alpha", 12);
  int* object = new int(5);
  int* array = new int[4];
  EXPECT_EQ(ZIRK_New_Mngr(object, "make", 1), object);
  EXPECT_EQ(ZIRK_New_Mngr(array, "make", 2), array);
  EXPECT_EQ(ZIRK_Delete_Mngr(object, "drop", 4), 1);
  EXPECT_EQ(ZIRK_Delete_Array_Mngr(array, "drop", 5), 1);
  ASSERT_TRUE(log.lines().empty()) << log.dump();

  ZIRK_Free(engines, "caller", 9);  // the other family's block
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
  ZIRK_check_memory_status();
  expected.insert(expected.end(), 3, ANDROID_LOG_ERROR);
  std::vector<int> got;
  for (const LogLine& l : log.lines()) got.push_back(l.priority);
  ASSERT_EQ(got, expected) << log.dump();
  const std::string leak = "Failed to deallocate ", at = " bytes allocated in function : ";
  EXPECT_EQ(log.lines()[got.size() - 3].text, leak + "7" + at + "gamma, Line : 33");
  EXPECT_EQ(log.lines()[got.size() - 2].text, leak + "12" + at + "beta, Line : 22");
  EXPECT_EQ(log.lines()[got.size() - 1].text, leak + "24" + at + "computeNlinks, Line : 70");

  log.clear();
  ZIRK_check_memory_status();
  free(second);
  free(third);
  ZIRK_Free_Msg(engines, "computeNlinks", 71);  // its only free
  delete object;
  delete[] array;
  ASSERT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(log.count(ANDROID_LOG_INFO, "TAG_MEM", "No memory Leak found "), 1) << log.dump();
}

}  // namespace
