// The test-controlled gettimeofday and cvCreateImage (see RobustnessSupport.h).
#include <dlfcn.h>
#include <sys/time.h>

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <atomic>
#include <ctime>

#include "robustness/RobustnessSupport.h"

namespace {

// The calls since it was armed, and the one armed (0: none).
struct Trap {
  std::atomic<int> at{0}, calls{0};
  int next() { return calls.fetch_add(1) + 1; }
  void arm(int n) {
    calls = 0;
    at = n;
  }
};

Trap g_clock, g_alloc;
std::atomic<long> g_jumpSeconds{0};

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) {
  const int at = g_clock.at.load();
  const long offset = at > 0 && g_clock.next() >= at ? g_jumpSeconds.load() : 0;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tv->tv_sec = now.tv_sec + offset;
  tv->tv_usec = now.tv_nsec / 1000;
  return 0;
}

// OpenCV's, except that the armed call throws as a failed allocation does.
extern "C" IplImage* cvCreateImage(CvSize size, int depth, int channels) {
  using CreateImageFn = IplImage* (*)(CvSize, int, int);
  static const auto real = reinterpret_cast<CreateImageFn>(dlsym(RTLD_NEXT, "cvCreateImage"));
  if (g_alloc.next() == g_alloc.at.load())
    cv::error(cv::Error::StsNoMem, "Failed to allocate (injected)", "cvCreateImage", __FILE__, __LINE__);
  return real(size, depth, channels);
}

namespace interpose {

void jumpClockAt(int n, long seconds) {
  g_jumpSeconds = seconds;
  g_clock.arm(n);
}
void failCreateImageAt(int n) { g_alloc.arm(n); }
int clockReadings() { return g_clock.calls.load(); }
int createImageCalls() { return g_alloc.calls.load(); }
void reset() {
  g_clock.arm(0);
  g_alloc.arm(0);
}

}  // namespace interpose
