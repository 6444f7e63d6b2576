// The shared helper threads: every slot runs exactly once and has finished
// when the call returns, whatever the slot count, when calls come back to
// back, from inside a slot or from two threads at once, and in a forked child.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/ZIRKRows.h"
#include "support/ZIRKWorkers.h"

namespace {

std::atomic<bool> g_elsewhere{false};  // a slot ran on a thread other than the caller's

// Runs `slots` slots, each sleeping `ms`, that count their runs; true when
// each ran once.
bool eachSlotOnce(int slots, int ms = 0) {
  std::vector<std::atomic<int>> runs(static_cast<size_t>(slots));
  const std::thread::id caller = std::this_thread::get_id();
  auto slot = [&](int s) {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    if (std::this_thread::get_id() != caller) g_elsewhere = true;
    runs[static_cast<size_t>(s)].fetch_add(1);
  };
  ZIRK_runSlots(slots, slot);
  for (const std::atomic<int>& r : runs)
    if (r.load() != 1) return false;
  return true;
}

// Slot counts from 0 to 40; thousands of jobs back to back; slow slots (on
// more than one thread when there are two cores); slots that start jobs of
// their own; two threads starting jobs at once; bands and chunks built on
// top cover every item once.
TEST(SharedHelpers, EverySlotRunsOnceFromAnyCaller) {
  for (int slots = 0; slots <= 40; ++slots) ASSERT_TRUE(eachSlotOnce(slots)) << slots << " slots";
  for (int job = 0; job < 3000; ++job) ASSERT_TRUE(eachSlotOnce(2 + job % 3)) << "job " << job;
  for (int job = 0; job < 5; ++job) ASSERT_TRUE(eachSlotOnce(4, 2)) << "slow job " << job;
  EXPECT_TRUE(g_elsewhere.load() || std::thread::hardware_concurrency() < 2);

  std::atomic<int> failures{0};
  auto nested = [&failures](int) { failures += eachSlotOnce(5) ? 0 : 1; };
  ZIRK_runSlots(4, nested);
  auto caller = [&failures] {
    for (int job = 0; job < 500; ++job) failures += eachSlotOnce(3) ? 0 : 1;
  };
  std::thread other(caller);
  caller();
  other.join();
  EXPECT_EQ(failures.load(), 0);

  std::vector<std::atomic<int>> items(1000);
  auto count = [&items](int begin, int end) {
    for (int i = begin; i < end; ++i) items[static_cast<size_t>(i)].fetch_add(1);
  };
  ZIRK_runInBands(1000, 7, count);
  ZIRK_runInChunks(1000, 16, 2, [] { return 0; }, [&count](int, int begin, int end) { count(begin, end); });
  for (const std::atomic<int>& item : items) ASSERT_EQ(item.load(), 2);
}

// A forked child has none of its parent's helpers: its jobs still run every
// slot (on helpers of its own) and it exits cleanly. The thread sanitizer
// and the emulator of the cross-built tests can not fork a threaded process.
TEST(SharedHelpers, AForkedChildRunsItsOwnJobs) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "no fork of a threaded process under the thread sanitizer";
#endif
  if (SEGCORE_EMULATED) GTEST_SKIP() << "no fork of a threaded process under emulation";
  ASSERT_TRUE(eachSlotOnce(4));  // the parent's helpers are up
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    bool ok = true;
    for (int job = 0; job < 200; ++job) ok = ok && eachSlotOnce(2 + job % 4);
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(eachSlotOnce(3));  // and the parent's still work
}

}  // namespace
