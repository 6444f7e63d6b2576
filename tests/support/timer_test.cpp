// Timers: a running timer counts, a stopped one holds, and no timer reads as
// a negative sentinel. (The max-flow and pipeline tests check the budget.)
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/ZIRKTimer.h"

namespace {

TEST(Timer, CountsHoldsWhenStoppedAndReadsSentinelsWithoutATimer) {
  ZIRKTimer* t = create_timer();
  start_cpu_timer(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  stop_cpu_timer(t);
  const double ms = get_elapsed_time_in_millisec(t);
  EXPECT_GE(ms, 2.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_microsec(t), ms * 1000.0) << "a stopped timer holds";
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), ms * 0.001);
  destroy_timer(t);
  EXPECT_TRUE(get_elapsed_time_in_microsec(nullptr) < 0 && get_elapsed_time_in_millisec(nullptr) < 0 &&
              get_elapsed_time_in_sec(nullptr) < 0 && !ZIRK_budgetSpent(nullptr));
  start_cpu_timer(nullptr);
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);
}

}  // namespace
