// Timers: running and stopped reads in three units, the 10-second budget, the
// null timer's sentinels and the scoped log line.
#include <android/log.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "common/LogCapture.h"
#include "support/ZIRKTimer.h"

namespace {

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

TEST(Timer, ReadsBudgetSentinelsAndScopedLog) {
  ZIRKTimer* t = create_timer();
  start_cpu_timer(t);
  sleepMs(2);
  EXPECT_GE(get_elapsed_time_in_microsec(t), 2000.0);
  EXPECT_FALSE(ZIRK_budgetSpent(t));
  t->start.tv_sec -= 9;  // started 9 s ago
  EXPECT_FALSE(ZIRK_budgetSpent(t));
  t->start.tv_sec -= 2;  // 11 s ago
  EXPECT_TRUE(ZIRK_budgetSpent(t));
  EXPECT_EQ(t->stopped, 0) << "a query does not stop a running timer";
  stop_cpu_timer(t);
  const double us = get_elapsed_time_in_microsec(t);
  sleepMs(2);
  EXPECT_EQ(get_elapsed_time_in_microsec(t), us) << "a stopped timer holds";
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_millisec(t), us * 0.001);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), us * 1e-6);
  destroy_timer(t);

  // No timer: negative sentinels, no budget spent, nothing to release.
  EXPECT_EQ(get_elapsed_time_in_microsec(nullptr), -1.0);
  EXPECT_EQ(get_elapsed_time_in_millisec(nullptr), -0.001);
  EXPECT_EQ(get_elapsed_time_in_sec(nullptr), -1e-6);
  EXPECT_FALSE(ZIRK_budgetSpent(nullptr));
  start_cpu_timer(nullptr);
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);

  LogCapture log;
  {
    CGElapsedTime scope("stage");
    sleepMs(5);
  }
  ASSERT_EQ(log.countPrefix("GTime", "stage ="), 1) << log.dump();
  const double ms = std::strtod(log.lines()[0].text.c_str() + 7, nullptr);
  EXPECT_GE(ms, 5.0);
  EXPECT_LT(ms, 1000.0);
}

}  // namespace
