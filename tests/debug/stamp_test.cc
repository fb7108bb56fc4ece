// The time stamp of a log line, under a clock the test controls.
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"
#include "tqredis.h"

namespace {
std::atomic<bool> g_fake{false};
std::atomic<long> g_fake_sec{0};
std::atomic<long> g_fake_usec{0};
}  // namespace

// Takes the place of the C library's clock for the whole process, the
// library included; the real clock answers while no fake time is set.
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

namespace {

std::string StampOfNextLine(long sec, long usec) {
  setenv("TZ", "UTC0", 1);
  tzset();
  g_fake_sec = sec;
  g_fake_usec = usec;
  g_fake = true;
  const std::string before = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  tqredis_dbg_logfile(TQREDIS_LOG_LIFE, "x\r\n");
  g_fake = false;
  return tqtest::ReadFile(tqtest::LogPath("limitlog")).substr(before.size());
}

}  // namespace

TEST(Stamp, MicrosecondsArePaddedToSixDigits) {
  // 2024-03-02 09:05:03 UTC.
  EXPECT_EQ(StampOfNextLine(1709370303, 42), "20240302_09:05:03.000042 x\r\n");
}

TEST(Stamp, FullMicrosecondsAndTwoDigitFields) {
  // 2025-12-31 23:59:59 UTC.
  EXPECT_EQ(StampOfNextLine(1767225599, 999999), "20251231_23:59:59.999999 x\r\n");
}

TEST(Stamp, UsesLocalTime) {
  setenv("TZ", "UTC0", 1);
  tzset();
  g_fake_sec = 1709370303;
  g_fake_usec = 0;
  g_fake = true;
  setenv("TZ", "XYZ-2", 1);  // two hours east of UTC
  tzset();
  const std::string before = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  tqredis_dbg_logfile(TQREDIS_LOG_LIFE, "x\r\n");
  g_fake = false;
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("limitlog")).substr(before.size()),
            "20240302_11:05:03.000000 x\r\n");
}
