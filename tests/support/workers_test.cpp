// The shared helper threads: every slot runs exactly once, whatever the
// slot count, when calls come back to back, from inside a slot or from two
// threads at once, and in a forked child.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support/ZIRKRows.h"
#include "support/ZIRKWorkers.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SEGCORE_TEST_CLANG_TSAN 1
#endif
#endif
#ifndef SEGCORE_TEST_CLANG_TSAN
#define SEGCORE_TEST_CLANG_TSAN 0
#endif

namespace {

// Runs `slots` slots that count their runs; true when each ran once.
bool eachSlotOnce(int slots) {
  std::vector<std::atomic<int>> runs(static_cast<size_t>(slots));
  auto slot = [&runs](int s) { runs[static_cast<size_t>(s)].fetch_add(1); };
  ZIRK_runSlots(slots, slot);
  for (const std::atomic<int>& r : runs)
    if (r.load() != 1) return false;
  return true;
}

// Slot counts from 0 to 40, thousands of jobs back to back (a helper late
// for one job must not run a slot of the next), slots that start jobs of
// their own, and two threads starting jobs at once; bands and chunks built
// on top cover every item once. Slots on more than one thread are seen
// when the machine has two cores.
TEST(SharedHelpers, EverySlotRunsOnceFromAnyCaller) {
  for (int slots = 0; slots <= 40; ++slots) ASSERT_TRUE(eachSlotOnce(slots)) << slots << " slots";
  for (int job = 0; job < 3000; ++job) ASSERT_TRUE(eachSlotOnce(2 + job % 3)) << "job " << job;

  std::atomic<int> nestedOk{0};
  auto outer = [&nestedOk](int) { nestedOk += eachSlotOnce(5) ? 1 : 0; };
  ZIRK_runSlots(4, outer);
  EXPECT_EQ(nestedOk.load(), 4);

  std::atomic<int> failures{0};
  auto caller = [&failures] {
    for (int job = 0; job < 500; ++job) failures += eachSlotOnce(3) ? 0 : 1;
  };
  std::thread other(caller);
  caller();
  other.join();
  EXPECT_EQ(failures.load(), 0);

  std::vector<std::atomic<int>> items(1000);
  ZIRK_runInBands(1000, 7, [&items](int begin, int end) {
    for (int i = begin; i < end; ++i) items[static_cast<size_t>(i)].fetch_add(1);
  });
  ZIRK_runInChunks(1000, 16, 2, [] { return 0; }, [&items](int, int begin, int end) {
    for (int i = begin; i < end; ++i) items[static_cast<size_t>(i)].fetch_add(1);
  });
  for (const std::atomic<int>& item : items) ASSERT_EQ(item.load(), 2);

  // Slow slots: every one has finished when the call returns, and with two
  // cores they ran on more than one thread.
  std::set<std::thread::id> seen;
  std::mutex lock;
  std::vector<std::atomic<int>> finished(4);
  auto slow = [&](int s) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::lock_guard<std::mutex> hold(lock);
    seen.insert(std::this_thread::get_id());
    finished[static_cast<size_t>(s)].fetch_add(1);
  };
  for (int job = 0; job < 5; ++job) {
    ZIRK_runSlots(4, slow);
    for (std::atomic<int>& f : finished) {
      ASSERT_EQ(f.exchange(0), 1) << "job " << job;
    }
  }
  if (std::thread::hardware_concurrency() > 1) {
    EXPECT_GE(seen.size(), 2u);
  }
}

// A forked child has none of its parent's helpers: its jobs still run every
// slot (on helpers of its own) and it exits cleanly.
TEST(SharedHelpers, AForkedChildRunsItsOwnJobs) {
#if defined(__SANITIZE_THREAD__) || SEGCORE_TEST_CLANG_TSAN
  GTEST_SKIP() << "the thread sanitizer can not start threads after a multi-threaded fork";
#endif
  // The emulator that runs the cross-built tests aborts a child forked
  // from a process with threads.
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
