#include "support/ZIRKTimer.h"

#include <android/log.h>

#include "support/ZIRKMemory.h"

ZIRKTimer* g_cancelTimer = nullptr;
ZIRKTimer* g_timer = nullptr;
ZIRKTimer* g_totalTimer = nullptr;

double g_t_TotalTime = 0.0;
double g_t_colEst = 0.0;
double g_t_tAndNLinks = 0.0;
double g_t_maxflow = 0.0;
double g_t_nLinksComputation = 0.0;
double g_t_colUpd = 0.0;
double g_t_preProcess = 0.0;
double g_t_postProcess = 0.0;

namespace {

double toMicroseconds(const struct timeval& t) {
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
}

// Elapsed microseconds; a running timer is read up to now.
double elapsedUs(ZIRKTimer* timer) {
  if (timer->stopped == 0) gettimeofday(&timer->stop, nullptr);
  timer->startUs = toMicroseconds(timer->start);
  timer->stopUs = toMicroseconds(timer->stop);
  return timer->stopUs - timer->startUs;
}

}  // namespace

ZIRKTimer* create_timer() {
  return static_cast<ZIRKTimer*>(ZIRK_Calloc_Msg(1, sizeof(ZIRKTimer), "create_timer", 27));
}

void destroy_timer(ZIRKTimer* timer) {
  if (timer == nullptr) return;
  ZIRK_Free_Msg(timer, "destroy_timer", 48);
}

ZIRKTimer* init_timer() {
  g_timer = create_timer();
  return g_timer;
}

void exit_timer() {
  if (g_timer != nullptr) ZIRK_Free_Msg(g_timer, "destroy_timer", 48);
}

void start_cpu_timer(ZIRKTimer* timer) {
  if (timer == nullptr) return;
  timer->stopped = 0;
  gettimeofday(&timer->start, nullptr);
}

void stop_cpu_timer(ZIRKTimer* timer) {
  if (timer == nullptr) return;
  timer->stopped = 1;
  gettimeofday(&timer->stop, nullptr);
}

double get_elapsed_time_in_microsec(ZIRKTimer* timer) {
  if (timer == nullptr) return -1.0;
  return elapsedUs(timer);
}

double get_elapsed_time_in_millisec(ZIRKTimer* timer) {
  if (timer == nullptr) return -0.001;
  return elapsedUs(timer) * 0.001;
}

double get_elapsed_time_in_sec(ZIRKTimer* timer) {
  if (timer == nullptr) return -1e-6;
  return elapsedUs(timer) * 1e-6;
}

bool ZIRK_budgetSpent(ZIRKTimer* timer) {
  return get_elapsed_time_in_millisec(timer) > kSegmentationBudgetMs;
}

CGElapsedTime::CGElapsedTime(const char* name) : m_name(name) { gettimeofday(&m_start, nullptr); }

CGElapsedTime::~CGElapsedTime() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  long dsec = static_cast<long>(now.tv_sec - m_start.tv_sec);
  long dusec = static_cast<long>(now.tv_usec - m_start.tv_usec);
  if (dusec < 0) {
    --dsec;
    dusec += 1000000;
  }
  const float ms = static_cast<float>(static_cast<double>(dsec) * 1000.0 +
                                      static_cast<double>(dusec) * 0.001);
  __android_log_print(ANDROID_LOG_INFO, "GTime", "%s =%f", m_name, static_cast<double>(ms));
}
