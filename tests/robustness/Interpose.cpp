// The test-controlled gettimeofday and cvCreateImage (see RobustnessSupport.h).
#include <dlfcn.h>
#include <sys/time.h>

#include <opencv2/core.hpp>
#include <opencv2/core/core_c.h>

#include <atomic>
#include <ctime>

#include "robustness/RobustnessSupport.h"

namespace {

std::atomic<long> g_stepSeconds{0};
std::atomic<long> g_offsetSeconds{0};
std::atomic<int> g_failAt{0};
std::atomic<int> g_calls{0};

}  // namespace

// The real clock plus an offset that grows by the step at every reading.
extern "C" int gettimeofday(struct timeval* tv, void*) {
  const long offset = g_offsetSeconds.fetch_add(g_stepSeconds.load()) + g_stepSeconds.load();
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
  if (g_calls.fetch_add(1) + 1 == g_failAt.load()) {
    cv::error(cv::Error::StsNoMem, "Failed to allocate (injected)", "cvCreateImage", __FILE__,
              __LINE__);
  }
  return real(size, depth, channels);
}

namespace interpose {

void setClockStep(long seconds) { g_stepSeconds = seconds; }
void failCreateImageAt(int n) {
  g_calls = 0;
  g_failAt = n;
}
int createImageCalls() { return g_calls.load(); }
void reset() {
  g_stepSeconds = 0;
  g_offsetSeconds = 0;
  g_failAt = 0;
  g_calls = 0;
}

}  // namespace interpose
