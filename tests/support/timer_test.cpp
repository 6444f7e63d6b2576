// Timers: running and stopped reads, null sentinels, the budget, the scoped log.
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

TEST(Timer, RunningTimerAdvancesAndStoppedTimerHolds) {
  ZIRKTimer* t = create_timer();
  ASSERT_NE(t, nullptr);
  start_cpu_timer(t);
  sleepMs(2);
  const double a = get_elapsed_time_in_microsec(t);
  sleepMs(2);
  EXPECT_GE(a, 2000.0);
  EXPECT_GT(get_elapsed_time_in_microsec(t), a);
  EXPECT_EQ(t->stopped, 0);

  stop_cpu_timer(t);
  const double us = get_elapsed_time_in_microsec(t);
  sleepMs(2);
  EXPECT_EQ(get_elapsed_time_in_microsec(t), us);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_millisec(t), us * 0.001);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), us * 1e-6);
  EXPECT_EQ(t->stopUs - t->startUs, us);
  destroy_timer(t);

  // No timer: negative sentinels, no budget spent, nothing to release.
  EXPECT_EQ(get_elapsed_time_in_microsec(nullptr), -1.0);
  EXPECT_EQ(get_elapsed_time_in_millisec(nullptr), -0.001);
  EXPECT_EQ(get_elapsed_time_in_sec(nullptr), -1e-6);
  start_cpu_timer(nullptr);
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);
  EXPECT_FALSE(ZIRK_budgetSpent(nullptr));
  ASSERT_EQ(init_timer(), g_timer);
  exit_timer();
  g_timer = nullptr;
  exit_timer();
}

TEST(Timer, BudgetIsSpentOnlyAfterTenSeconds) {
  ZIRKTimer* t = create_timer();
  start_cpu_timer(t);
  EXPECT_FALSE(ZIRK_budgetSpent(t));
  t->start.tv_sec -= 9;  // started 9 s ago
  EXPECT_FALSE(ZIRK_budgetSpent(t));
  t->start.tv_sec -= 2;  // 11 s ago
  EXPECT_TRUE(ZIRK_budgetSpent(t));
  EXPECT_EQ(t->stopped, 0);  // a query does not stop a running timer
  destroy_timer(t);
}

TEST(Timer, ScopedTimeLogsNameAndMilliseconds) {
  LogCapture log;
  {
    CGElapsedTime scope("stage");
    sleepMs(30);
  }
  ASSERT_EQ(log.lines().size(), 1u) << log.dump();
  const std::string& text = log.lines()[0].text;
  ASSERT_EQ(log.countPrefix("GTime", "stage ="), 1) << text;
  const double ms = std::strtod(text.c_str() + 7, nullptr);
  EXPECT_GE(ms, 30.0);
  EXPECT_LT(ms, 1000.0);
}

}  // namespace
