// Wall-clock timers on gettimeofday, a scoped stage logger, and the time
// budget of one segmentation.
//
// The budget is what matters to behaviour: segment() starts g_cancelTimer,
// and both its iteration loop and the max-flow loop give up once more than
// kSegmentationBudgetMs have passed (or a cancel was asked for).
// Every timer function tolerates a null timer: no effect, or a negative
// sentinel result, so a failed allocation never fires the time-out.
#pragma once

#include <sys/time.h>

#include "support/export.h"

// A timer record, created zeroed on the heap by create_timer().
struct ZIRKTimer {
  struct timeval start;  // time of start_cpu_timer
  struct timeval stop;   // time of stop_cpu_timer, or of the last query while running
  double startUs;        // start in microseconds, written by each query
  double stopUs;         // stop in microseconds, written by each query
  int stopped;           // 1 after stop_cpu_timer, 0 after start_cpu_timer
};

// The budget of one segmentation, in milliseconds.
constexpr double kSegmentationBudgetMs = 10000.0;

extern "C" {
SEGCORE_EXPORT ZIRKTimer* create_timer();
SEGCORE_EXPORT void destroy_timer(ZIRKTimer* timer);
SEGCORE_EXPORT void start_cpu_timer(ZIRKTimer* timer);
SEGCORE_EXPORT void stop_cpu_timer(ZIRKTimer* timer);
// A running timer is read up to now and keeps running; a stopped one reads
// the same value every time. Null gives -1.0, -0.001 and -1e-6.
SEGCORE_EXPORT double get_elapsed_time_in_microsec(ZIRKTimer* timer);
SEGCORE_EXPORT double get_elapsed_time_in_millisec(ZIRKTimer* timer);
SEGCORE_EXPORT double get_elapsed_time_in_sec(ZIRKTimer* timer);
}

// Creates g_timer and returns it; exit_timer() frees it (without nulling).
SEGCORE_EXPORT ZIRKTimer* init_timer();
SEGCORE_EXPORT void exit_timer();

// True when the timer has run for more than the segmentation budget.
// Queries the timer (a running timer keeps running).
SEGCORE_EXPORT bool ZIRK_budgetSpent(ZIRKTimer* timer);

// Logs "<name> =<milliseconds>" with tag "GTime" when it goes out of scope.
class SEGCORE_EXPORT CGElapsedTime {
 public:
  explicit CGElapsedTime(const char* name);
  ~CGElapsedTime();
  CGElapsedTime(const CGElapsedTime&) = delete;
  CGElapsedTime& operator=(const CGElapsedTime&) = delete;

 private:
  struct timeval m_start;
  const char* m_name;  // not owned
};

// The segmentation's budget timer: created and started by segment(),
// destroyed by its clean-up (not nulled).
extern SEGCORE_EXPORT ZIRKTimer* g_cancelTimer;
extern SEGCORE_EXPORT ZIRKTimer* g_timer;
extern SEGCORE_EXPORT ZIRKTimer* g_totalTimer;

// Stage-time slots in milliseconds, open to profiling builds; the engine
// leaves them at zero.
extern SEGCORE_EXPORT double g_t_TotalTime;
extern SEGCORE_EXPORT double g_t_colEst;
extern SEGCORE_EXPORT double g_t_tAndNLinks;
extern SEGCORE_EXPORT double g_t_maxflow;
extern SEGCORE_EXPORT double g_t_nLinksComputation;
extern SEGCORE_EXPORT double g_t_colUpd;
extern SEGCORE_EXPORT double g_t_preProcess;
extern SEGCORE_EXPORT double g_t_postProcess;
