// Timers: a running timer counts, a stopped one holds, no timer reads as a
// negative sentinel, and the scoped timer logs its stage. (The max-flow tests
// check the segmentation budget.)
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "common/LogCapture.h"
#include "support/ZIRKTimer.h"

namespace {

TEST(Timer, ReadsSentinelsAndScopedLog) {
  const auto sleep = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
  ZIRKTimer* t = create_timer();
  start_cpu_timer(t);
  sleep(2);
  EXPECT_GE(get_elapsed_time_in_microsec(t), 2000.0);
  stop_cpu_timer(t);
  const double ms = get_elapsed_time_in_millisec(t);
  sleep(2);
  EXPECT_EQ(get_elapsed_time_in_millisec(t), ms) << "a stopped timer holds";
  EXPECT_DOUBLE_EQ(get_elapsed_time_in_sec(t), ms * 0.001);
  destroy_timer(t);

  EXPECT_TRUE(get_elapsed_time_in_microsec(nullptr) < 0 && get_elapsed_time_in_millisec(nullptr) < 0 &&
              get_elapsed_time_in_sec(nullptr) < 0 && !ZIRK_budgetSpent(nullptr));
  start_cpu_timer(nullptr);
  stop_cpu_timer(nullptr);
  destroy_timer(nullptr);

  LogCapture log;
  {
    CGElapsedTime scope("stage");
    sleep(5);
  }
  ASSERT_EQ(log.countPrefix("GTime", "stage ="), 1) << log.dump();
  const double logged = std::strtod(log.lines()[0].text.c_str() + 7, nullptr);
  EXPECT_TRUE(logged >= 5.0 && logged < 1000.0) << logged;
}

}  // namespace
