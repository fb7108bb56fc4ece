// The test clock and the gettimeofday() that reads it.
#include "support/clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace {
std::atomic<bool> g_fake{false};
std::atomic<long> g_fake_sec{0};
std::atomic<long> g_fake_usec{0};
}  // namespace

namespace tqtest {

void SetClock(long sec, long usec) {
  g_fake_sec = sec;
  g_fake_usec = usec;
  g_fake = true;
}

void UseRealClock() { g_fake = false; }

}  // namespace tqtest

// Exported so that the shared library's calls resolve to it as well.
extern "C" __attribute__((visibility("default"))) int gettimeofday(
    struct timeval *__restrict tv, void *__restrict) {
  if (g_fake) {
    tv->tv_sec = g_fake_sec;
    tv->tv_usec = g_fake_usec;
    return 0;
  }
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  tv->tv_sec = ts.tv_sec;
  tv->tv_usec = ts.tv_nsec / 1000;
  return 0;
}
