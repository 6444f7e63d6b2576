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

TEST(Timer, RunningTimerAdvancesAndStoppedTimerHolds) {
  ZIRKTimer* t = create_timer();
  ASSERT_NE(t, nullptr);
  start_cpu_timer(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const double a = get_elapsed_time_in_microsec(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const double b = get_elapsed_time_in_microsec(t);
  EXPECT_GE(a, 2000.0);
  EXPECT_GT(b, a);
  EXPECT_EQ(t->stopped, 0);

  stop_cpu_timer(t);
  const double us = get_elapsed_time_in_microsec(t);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(get_elapsed_time_in_microsec(t), us);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_millisec(t), us * 0.001);
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), us * 1e-6);
  EXPECT_EQ(t->stopUs - t->startUs, us);
  destroy_timer(t);
}

TEST(Timer, NullTimerGivesNegativeSentinelsAndNeverSpendsTheBudget) {
  EXPECT_EQ(get_elapsed_time_in_microsec(nullptr), -1.0);
  EXPECT_EQ(get_elapsed_time_in_millisec(nullptr), -0.001);
  EXPECT_EQ(get_elapsed_time_in_sec(nullptr), -1e-6);
  start_cpu_timer(nullptr);
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);
  EXPECT_FALSE(ZIRK_budgetSpent(nullptr));
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

TEST(Timer, GlobalTimerLifecycle) {
  ZIRKTimer* t = init_timer();
  ASSERT_EQ(t, g_timer);
  exit_timer();
  g_timer = nullptr;
  exit_timer();  // nothing to free
}

TEST(Timer, ScopedTimeLogsNameAndMilliseconds) {
  LogCapture log;
  {
    CGElapsedTime scope("stage");
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  ASSERT_EQ(log.lines().size(), 1u) << log.dump();
  const LogLine& line = log.lines()[0];
  EXPECT_EQ(line.priority, ANDROID_LOG_INFO);
  EXPECT_EQ(line.tag, "GTime");
  ASSERT_EQ(line.text.rfind("stage =", 0), 0u) << line.text;
  const std::string number = line.text.substr(7);
  EXPECT_EQ(number.size() - number.find('.'), 7u) << "six decimals, as %f prints";
  const double ms = std::strtod(number.c_str(), nullptr);
  EXPECT_GE(ms, 30.0);
  EXPECT_LT(ms, 1000.0);
}

}  // namespace
