// The budget check between iterations leaves the budget timer running, so the
// max-flow of the next iteration still sees time pass.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "engine/ZIRKSEMarker.h"
#include "segmenter/ZIRKSEHybrid.h"
#include "support/ZIRKTimer.h"

namespace {

TEST(SegmentBudgetCheck, TimerKeepsRunningAfterTheIterationCheck) {
  ZIRKSEMarker::m_exitApp = false;
  g_cancelTimer = create_timer();
  start_cpu_timer(g_cancelTimer);
  ZIRKSEHybrid hybrid;
  EXPECT_FALSE(hybrid.cancelSegmentation());
  const double first = get_elapsed_time_in_millisec(g_cancelTimer);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_GE(get_elapsed_time_in_millisec(g_cancelTimer), first + 4.0);

  g_cancelTimer->start.tv_sec -= 11;  // the budget is now spent
  EXPECT_TRUE(ZIRK_shouldStopSegmentation());
  EXPECT_TRUE(hybrid.cancelSegmentation());
  destroy_timer(g_cancelTimer);
  g_cancelTimer = nullptr;
}

}  // namespace
