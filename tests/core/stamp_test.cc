// The time stamp of a log line, under a clock the test controls.
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/clock.h"
#include "support/support.h"
#include "tqredis.h"

namespace {

std::string StampOfNextLine(long sec, long usec, const char *zone = "UTC0") {
  setenv("TZ", zone, 1);
  tzset();
  tqtest::SetClock(sec, usec);
  const std::string before = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  tqredis_dbg_logfile(TQREDIS_LOG_LIFE, "x\r\n");
  tqtest::UseRealClock();
  return tqtest::ReadFile(tqtest::LogPath("limitlog")).substr(before.size());
}

}  // namespace

TEST(Stamp, MicrosecondsArePaddedToSixDigits) {
  // 2024-03-02 09:05:03 UTC.
  EXPECT_EQ(StampOfNextLine(1709370303, 42), "20240302_09:05:03.000042 x\r\n");
}

TEST(Stamp, FullMicrosecondsAndTwoDigitFields) {
  // 2025-12-31 23:59:59 UTC.
  EXPECT_EQ(StampOfNextLine(1767225599, 999999),
            "20251231_23:59:59.999999 x\r\n");
}

TEST(Stamp, UsesLocalTime) {
  setenv("TZ", "UTC0", 1);
  tzset();
  // Two hours east of UTC.
  EXPECT_EQ(StampOfNextLine(1709370303, 0, "XYZ-2"),
            "20240302_11:05:03.000000 x\r\n");
}

TEST(Stamp, EachLineOfOneSecondHasItsOwnMicroseconds) {
  EXPECT_EQ(StampOfNextLine(1709370303, 42), "20240302_09:05:03.000042 x\r\n");
  EXPECT_EQ(StampOfNextLine(1709370303, 43), "20240302_09:05:03.000043 x\r\n");
}

TEST(Stamp, TheNextSecondIsTurnedIntoLocalTimeAgain) {
  EXPECT_EQ(StampOfNextLine(1709370303, 999999),
            "20240302_09:05:03.999999 x\r\n");
  EXPECT_EQ(StampOfNextLine(1709370304, 0), "20240302_09:05:04.000000 x\r\n");
  // Back by a day within the process: nothing of the later second is kept.
  EXPECT_EQ(StampOfNextLine(1709283903, 7), "20240301_09:05:03.000007 x\r\n");
}

TEST(Stamp, AZoneSetWithinTheSecondIsSeenAtOnce) {
  EXPECT_EQ(StampOfNextLine(1709370303, 1), "20240302_09:05:03.000001 x\r\n");
  // Two hours east of UTC, within the same second.
  EXPECT_EQ(StampOfNextLine(1709370303, 2, "XYZ-2"),
            "20240302_11:05:03.000002 x\r\n");
}
