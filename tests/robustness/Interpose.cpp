// The test-controlled gettimeofday and cvCreateImage (see RobustnessSupport.h).
#include <dlfcn.h>
#include <sys/time.h>

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <atomic>
#include <ctime>

#include "robustness/RobustnessSupport.h"

namespace {

// Per trap: the event armed (0: none) and the events since the arming.
std::atomic<int> g_at[2], g_events[2];

// The number of this event when the trap is armed, else 0.
int event(interpose::Trap trap) { return g_at[trap].load() > 0 ? g_events[trap].fetch_add(1) + 1 : 0; }

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) {
  const int n = event(interpose::kClock);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tv->tv_sec = now.tv_sec + (n > 0 && n >= g_at[interpose::kClock].load() ? 20 : 0);
  tv->tv_usec = now.tv_nsec / 1000;
  return 0;
}

// OpenCV's, except that the armed call throws as a failed allocation does.
extern "C" IplImage* cvCreateImage(CvSize size, int depth, int channels) {
  using CreateImageFn = IplImage* (*)(CvSize, int, int);
  static const auto real = reinterpret_cast<CreateImageFn>(dlsym(RTLD_NEXT, "cvCreateImage"));
  const int n = event(interpose::kAlloc);
  if (n > 0 && n == g_at[interpose::kAlloc].load())
    cv::error(cv::Error::StsNoMem, "Failed to allocate (injected)", "cvCreateImage", __FILE__, __LINE__);
  return real(size, depth, channels);
}

namespace interpose {

void arm(Trap trap, int n) {
  g_events[trap] = 0;
  g_at[trap] = n;
}
int events(Trap trap) { return g_events[trap].load(); }
void reset() { arm(kClock, 0), arm(kAlloc, 0); }

}  // namespace interpose
