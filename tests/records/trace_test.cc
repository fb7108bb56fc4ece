// Start and end marks of operations: the trace lines, elapsed times and
// peaks, and the snapshot pair with its thread test.
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <regex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/log.h"
#include "records/records.h"
#include "support/clock.h"
#include "support/logged.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_file_level;
using tqredis::detail::g_tqredis_ham_snap;
using tqredis::detail::g_tqredis_in_log;
using tqredis::detail::g_tqredis_out_log;
using tqredis::detail::g_tqredis_snap;
using tqredis::detail::g_tqredis_timestat;

namespace {

using tqtest::Logged;

// 2024-03-02 09:05:03 UTC.
constexpr long kT0 = 1709370303;

int32_t Gettid() { return static_cast<int32_t>(syscall(SYS_gettid)); }

bool IsZero(const void *p, size_t n) {
  const auto *bytes = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

bool SameRecord(const tqredis_op_record &a, const tqredis_op_record &b) {
  return std::memcmp(&a, &b, sizeof(a)) == 0;
}

// Runs `call` on a thread of its own and returns that thread's kernel id.
template <typename F>
int32_t OnAnotherThread(F &&call) {
  int32_t tid = 0;
  std::thread([&] {
    tid = Gettid();
    call();
  }).join();
  return tid;
}

class Trace : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    tzset();
    tqtest::SetClock(kT0, 42);
  }
  void TearDown() override {
    tqtest::UseRealClock();
    g_tqredis_timestat = 0;
  }
};

using InLog = Trace;
using OutLog = Trace;
using LogStat = Trace;
using Snapshot = Trace;

}  // namespace

TEST_F(InLog, RecordsIntoTheInboundRingAndTracesAtLevelOne) {
  int slot = -2;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] { slot = tqredis_db_in_log("/some/key", 1, 2, 1); }),
            "<tqredis_db_in_log>:>>>>IN_LOG 20240302_09:05:03.42 redis_host "
            "del /some/key flag=0x1 tid=0\r\n");
  EXPECT_EQ(slot, 0);
  EXPECT_EQ(g_tqredis_in_log.index, 1u);
  EXPECT_EQ(g_tqredis_in_log.count, 1u);
  EXPECT_EQ(g_tqredis_in_log.total, 1u);
  EXPECT_STREQ(g_tqredis_in_log.records[0].key, "/some/key");
  EXPECT_EQ(g_tqredis_out_log.total, 0u);
}

TEST_F(OutLog, RecordsIntoTheOutboundRingAndTracesFlagZeroAsZero) {
  int slot = -2;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] { slot = tqredis_db_out_log("/a/b", 21, 0, 0); }),
            "<tqredis_db_out_log>:>>>>OUT_LOG 20240302_09:05:03.42 "
            "redis_de_global pexpire /a/b flag=0 tid=0\r\n");
  EXPECT_EQ(slot, 0);
  EXPECT_EQ(g_tqredis_out_log.total, 1u);
  EXPECT_STREQ(g_tqredis_out_log.records[0].cmd, "pexpire");
  EXPECT_EQ(g_tqredis_in_log.total, 0u);
}

TEST_F(Trace, TraceLineIsOnlyAtLevelOne) {
  EXPECT_EQ(Logged(0xff & ~TQREDIS_LOG_DATA,
                   [] { tqredis_db_in_log("/k", 0, 0, 0); }),
            "");
}

TEST_F(Trace, TraceLineCarriesThePrefixAndGoesToTheUnlimitedFile) {
  g_tqredis_timestat = 1;
  const uint32_t saved_file = g_tqredis_file_level;
  g_tqredis_file_level = TQREDIS_LOG_DATA;
  const std::string before = tqtest::ReadFile(tqtest::LogPath("unlimitlog"));
  const uint32_t saved = g_tqredis_dbg_level;
  g_tqredis_dbg_level = TQREDIS_LOG_DATA;
  tqtest::StdoutCapture capture;
  tqredis_db_out_log("/k", 26, 1, 0x10);
  const std::string out = capture.Finish();
  g_tqredis_dbg_level = saved;
  g_tqredis_file_level = saved_file;
  const std::string message =
      ">>>>OUT_LOG 20240302_09:05:03.42 redis_ce_global clientlistname /k "
      "flag=0x10 tid=" +
      std::to_string(Gettid()) + "\r\n";
  const std::regex line(R"(\[trace_test\]<tqredis_db_out_log, \d+>:)");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(out, m, line)) << out;
  EXPECT_EQ(m.position(0), 0);
  EXPECT_EQ(m.suffix().str(), message);
  const std::string file =
      tqtest::ReadFile(tqtest::LogPath("unlimitlog")).substr(before.size());
  // The file line: the stamp (same clock), a blank, then the console line.
  EXPECT_EQ(file, "20240302_09:05:03.000042 " + out);
}

TEST_F(InLog, SuccessiveStartsReturnSuccessiveSlotsAndWrapAfterThirtyTwo) {
  for (int i = 0; i < 70; ++i) {
    EXPECT_EQ(tqredis_db_in_log("/k", 0, 0, 0), i % 32);
  }
  EXPECT_EQ(g_tqredis_in_log.count, 32u);
  EXPECT_EQ(g_tqredis_in_log.index, 70u % 32);
  EXPECT_EQ(g_tqredis_in_log.total, 70u);
}

TEST_F(InLog, NeverRecordedKeyTracesTheOlderSlotsTimeAndTidAndChangesNothing) {
  g_tqredis_timestat = 1;
  // Slot 0 is recorded on another thread, then the ring goes once round.
  tqtest::SetClock(kT0, 7);
  const int32_t other =
      OnAnotherThread([] { tqredis_db_in_log("/first", 0, 0, 0); });
  tqtest::SetClock(kT0, 8);
  for (int i = 1; i < 32; ++i) tqredis_db_in_log("/k", 0, 0, 0);
  ASSERT_EQ(g_tqredis_in_log.index, 0u);
  const tqredis_op_log ring = g_tqredis_in_log;
  const tqredis_op_snap snap = g_tqredis_snap;
  tqtest::SetClock(kT0 + 9, 99);
  int slot = 0;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] { slot = tqredis_db_in_log("/arch/ham/x", 4, 1, 0); }),
            "<tqredis_db_in_log>:>>>>IN_LOG 20240302_09:05:03.7 "
            "redis_ce_global sadd /arch/ham/x flag=0 tid=" +
                std::to_string(other) + "\r\n");
  EXPECT_EQ(slot, -1);
  EXPECT_EQ(std::memcmp(&ring, &g_tqredis_in_log, sizeof(ring)), 0);
  EXPECT_EQ(std::memcmp(&snap, &g_tqredis_snap, sizeof(snap)), 0);
}

TEST_F(OutLog, NeverRecordedKeyOnAFreshRingTracesAnEmptySlot) {
  int slot = 0;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] { slot = tqredis_db_out_log("arch/at/y", 1, 2, 0); }),
            "<tqredis_db_out_log>:>>>>OUT_LOG  redis_host del arch/at/y "
            "flag=0 tid=0\r\n");
  EXPECT_EQ(slot, -1);
  EXPECT_EQ(g_tqredis_out_log.total, 0u);
  EXPECT_EQ(g_tqredis_out_log.index, 0u);
  EXPECT_EQ(g_tqredis_out_log.count, 0u);
}

TEST_F(InLog, InvalidArgumentsReturnMinusOneAndLogAtLevelEight) {
  int rv[3] = {0, 0, 0};
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] {
                     rv[0] = tqredis_db_in_log("/k", 5, 3, 0);
                     rv[1] = tqredis_db_in_log("/k", 28, 2, 0);
                     rv[2] = tqredis_db_in_log(nullptr, 1, 0, 0);
                   }),
            "<tqredis_db_in_log>:input arguments invalid, db=3 keycmd=5\r\n"
            "<tqredis_db_in_log>:input arguments invalid, db=2 keycmd=28\r\n"
            "<tqredis_db_in_log>:input arguments invalid, db=0 keycmd=1\r\n");
  EXPECT_EQ(rv[0], -1);
  EXPECT_EQ(rv[1], -1);
  EXPECT_EQ(rv[2], -1);
  EXPECT_TRUE(IsZero(&g_tqredis_in_log, sizeof(g_tqredis_in_log)));
  // Refused before anything is recorded, so no trace line either.
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [] { tqredis_db_in_log("/k", 5, 3, 0); }),
            "");
}

TEST_F(OutLog, InvalidArgumentsReturnMinusOneAndLogAtLevelEight) {
  int rv = 0;
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] { rv = tqredis_db_out_log("/k", 0xffffffffu, 7, 1); }),
            "<tqredis_db_out_log>:input arguments invalid, db=7 keycmd=-1\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_TRUE(IsZero(&g_tqredis_out_log, sizeof(g_tqredis_out_log)));
  EXPECT_TRUE(IsZero(&g_tqredis_snap, sizeof(g_tqredis_snap)));
}

TEST_F(InLog, InvalidDatabaseIsRefusedWithoutTakingTheLock) {
  tqredis_init(nullptr, 0, nullptr, 2);  // the lock is switched on
  std::promise<void> held;
  std::promise<void> release;
  std::thread holder([&] {
    tqredis_lock();
    held.set_value();
    release.get_future().wait();
    tqredis_unlock();
  });
  held.get_future().wait();
  std::promise<int> result;
  auto done = result.get_future();
  std::thread caller(
      [&] { result.set_value(tqredis_db_in_log("/k", 1, 3, 0)); });
  // Another thread holds the lock: a call that took it would still wait.
  const bool returned =
      done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  release.set_value();
  caller.join();
  holder.join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(done.get(), -1);
}

TEST_F(Snapshot, InboundStartFillsTheInboundHalfAndEmptiesTheOutboundHalf) {
  tqredis_db_in_log("/in/1", 0, 0, 0);
  tqredis_db_out_log("/out/1", 1, 1, 1);
  ASSERT_STREQ(g_tqredis_snap.out.key, "/out/1");
  tqtest::SetClock(kT0, 50);
  const int slot = tqredis_db_in_log("/in/2", 2, 2, 1);
  EXPECT_TRUE(SameRecord(g_tqredis_snap.in, g_tqredis_in_log.records[slot]));
  EXPECT_STREQ(g_tqredis_snap.in.key, "/in/2");
  EXPECT_TRUE(IsZero(&g_tqredis_snap.out, sizeof(g_tqredis_snap.out)));
}

TEST_F(Snapshot, OutboundStartFillsTheOutboundHalfOnlyWithFlagBitZero) {
  tqredis_db_in_log("/in", 0, 0, 0);
  const tqredis_op_record in = g_tqredis_snap.in;
  tqredis_db_out_log("/out/flag0", 1, 1, 0);
  tqredis_db_out_log("/out/flag2", 1, 1, 2);
  EXPECT_TRUE(IsZero(&g_tqredis_snap.out, sizeof(g_tqredis_snap.out)));
  const int slot = tqredis_db_out_log("/out/flag3", 1, 1, 3);
  EXPECT_TRUE(SameRecord(g_tqredis_snap.out, g_tqredis_out_log.records[slot]));
  tqredis_db_out_log("/out/later", 1, 1, 0);
  EXPECT_STREQ(g_tqredis_snap.out.key, "/out/flag3");
  EXPECT_TRUE(SameRecord(g_tqredis_snap.in, in));  // never touched by writes
}

TEST_F(Snapshot, IsCopiedKeptAsHamSnapAndEmptied) {
  tqredis_db_in_log("/in", 0, 0, 0);
  tqredis_db_out_log("/out", 1, 2, 1);
  const tqredis_op_snap pair = g_tqredis_snap;
  tqredis_op_snap buf;
  std::memset(&buf, 0x5a, sizeof(buf));
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_EQ(std::memcmp(&buf, &pair, sizeof(buf)), 0);
  EXPECT_EQ(std::memcmp(&g_tqredis_ham_snap, &pair, sizeof(pair)), 0);
  EXPECT_TRUE(IsZero(&g_tqredis_snap, sizeof(g_tqredis_snap)));
  EXPECT_STREQ(buf.in.key, "/in");
  EXPECT_STREQ(buf.out.key, "/out");
}

TEST_F(Snapshot, SecondConsecutiveCallReturnsZerosAndZeroesHamSnap) {
  tqredis_db_in_log("/in", 0, 0, 0);
  tqredis_db_out_log("/out", 1, 2, 1);
  tqredis_op_snap buf;
  ASSERT_EQ(tqredis_get_db_op_snap(&buf), 0);
  ASSERT_FALSE(IsZero(&g_tqredis_ham_snap, sizeof(g_tqredis_ham_snap)));
  std::memset(&buf, 0x5a, sizeof(buf));
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_TRUE(IsZero(&buf, sizeof(buf)));
  EXPECT_TRUE(IsZero(&g_tqredis_ham_snap, sizeof(g_tqredis_ham_snap)));
  EXPECT_TRUE(IsZero(&g_tqredis_snap, sizeof(g_tqredis_snap)));
}

TEST_F(Snapshot, PairFromTwoThreadsIsHandedOutAsZerosButStillKept) {
  g_tqredis_timestat = 1;
  const int32_t a = OnAnotherThread([] { tqredis_db_in_log("/in", 0, 0, 0); });
  const int32_t b =
      OnAnotherThread([] { tqredis_db_out_log("/out", 1, 2, 1); });
  ASSERT_NE(a, b);
  tqredis_op_snap buf;
  std::memset(&buf, 0x5a, sizeof(buf));
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_TRUE(IsZero(&buf, sizeof(buf)));
  EXPECT_EQ(g_tqredis_ham_snap.in.tid, a);
  EXPECT_EQ(g_tqredis_ham_snap.out.tid, b);
  EXPECT_STREQ(g_tqredis_ham_snap.in.key, "/in");
  EXPECT_STREQ(g_tqredis_ham_snap.out.key, "/out");
  EXPECT_TRUE(IsZero(&g_tqredis_snap, sizeof(g_tqredis_snap)));
}

TEST_F(Snapshot, PairFromOneThreadIsHandedOutWithItsTid) {
  g_tqredis_timestat = 1;
  tqredis_db_in_log("/in", 0, 0, 0);
  tqredis_db_out_log("/out", 1, 2, 1);
  tqredis_op_snap buf;
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_EQ(buf.in.tid, Gettid());
  EXPECT_EQ(buf.out.tid, Gettid());
  EXPECT_STREQ(buf.out.key, "/out");
}

TEST_F(Snapshot, HalfPairWithTimeStatisticsIsHandedOut) {
  g_tqredis_timestat = 1;
  OnAnotherThread([] { tqredis_db_in_log("/in", 0, 0, 0); });
  tqredis_op_snap buf;
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_STREQ(buf.in.key, "/in");
  EXPECT_NE(buf.in.tid, 0);
  EXPECT_TRUE(IsZero(&buf.out, sizeof(buf.out)));
}

TEST_F(Snapshot, WithoutTimeStatisticsAPairFromTwoThreadsPasses) {
  OnAnotherThread([] { tqredis_db_in_log("/in", 0, 0, 0); });
  OnAnotherThread([] { tqredis_db_out_log("/out", 1, 2, 1); });
  tqredis_op_snap buf;
  EXPECT_EQ(tqredis_get_db_op_snap(&buf), 0);
  EXPECT_EQ(buf.in.tid, 0);
  EXPECT_EQ(buf.out.tid, 0);
  EXPECT_STREQ(buf.in.key, "/in");
  EXPECT_STREQ(buf.out.key, "/out");
}

TEST_F(Snapshot, NullBufferGivesMinusTwoAndLogsAtLevelEight) {
  tqredis_db_in_log("/in", 0, 0, 0);
  const tqredis_op_snap pair = g_tqredis_snap;
  int rv = 0;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR, [&] { rv = tqredis_get_db_op_snap(nullptr); }),
      "<tqredis_get_db_op_snap>:input arguments invalid\r\n");
  EXPECT_EQ(rv, -2);
  EXPECT_EQ(std::memcmp(&pair, &g_tqredis_snap, sizeof(pair)), 0);
  EXPECT_TRUE(IsZero(&g_tqredis_ham_snap, sizeof(g_tqredis_ham_snap)));
}

TEST_F(LogStat, MeasuresElapsedTimeBorrowingASecond) {
  g_tqredis_timestat = 1;
  tqtest::SetClock(kT0, 600000);
  const int slot = tqredis_db_in_log("/k", 0, 0, 0);
  tqtest::SetClock(kT0 + 1, 100000);
  tqredis_db_in_log_stat(static_cast<uint32_t>(slot));
  const tqredis_op_record &rec = g_tqredis_in_log.records[slot];
  EXPECT_EQ(rec.elapsed_sec, 0);
  EXPECT_EQ(rec.elapsed_usec, 500000);
  EXPECT_TRUE(SameRecord(g_tqredis_in_log.peak, rec));
}

TEST_F(LogStat, StrictlyLongerOperationBecomesThePeakAndAnEqualOneDoesNot) {
  g_tqredis_timestat = 1;
  std::strcpy(g_tqredis_in_log.peak.key, "/previous");
  g_tqredis_in_log.peak.elapsed_sec = 1;
  g_tqredis_in_log.peak.elapsed_usec = 499999;

  tqtest::SetClock(kT0, 250000);
  const int slow = tqredis_db_in_log("/slow", 0, 0, 0);
  tqtest::SetClock(kT0 + 1, 750000);  // 1.5 s later
  tqredis_db_in_log_stat(static_cast<uint32_t>(slow));
  const tqredis_op_record first = g_tqredis_in_log.records[slow];
  EXPECT_EQ(first.elapsed_sec, 1);
  EXPECT_EQ(first.elapsed_usec, 500000);
  EXPECT_TRUE(SameRecord(g_tqredis_in_log.peak, first));

  tqtest::SetClock(kT0 + 10, 0);
  const int same = tqredis_db_in_log("/same", 0, 0, 0);
  tqtest::SetClock(kT0 + 11, 500000);
  tqredis_db_in_log_stat(static_cast<uint32_t>(same));
  EXPECT_EQ(g_tqredis_in_log.records[same].elapsed_sec, 1);
  EXPECT_EQ(g_tqredis_in_log.records[same].elapsed_usec, 500000);
  EXPECT_TRUE(SameRecord(g_tqredis_in_log.peak, first));
}

TEST_F(LogStat, SecondsAreComparedBeforeMicroseconds) {
  g_tqredis_timestat = 1;
  g_tqredis_out_log.peak.elapsed_sec = 0;
  g_tqredis_out_log.peak.elapsed_usec = 999999;
  tqtest::SetClock(kT0, 0);
  const int longer = tqredis_db_out_log("/one-second", 0, 0, 0);
  tqtest::SetClock(kT0 + 1, 0);
  tqredis_db_out_log_stat(static_cast<uint32_t>(longer));
  EXPECT_STREQ(g_tqredis_out_log.peak.key, "/one-second");

  g_tqredis_out_log.peak.elapsed_sec = 2;
  g_tqredis_out_log.peak.elapsed_usec = 0;
  std::strcpy(g_tqredis_out_log.peak.key, "/two-seconds");
  tqtest::SetClock(kT0, 0);
  const int shorter = tqredis_db_out_log("/almost-two", 0, 0, 0);
  tqtest::SetClock(kT0 + 1, 999999);
  tqredis_db_out_log_stat(static_cast<uint32_t>(shorter));
  EXPECT_EQ(g_tqredis_out_log.records[shorter].elapsed_usec, 999999);
  EXPECT_STREQ(g_tqredis_out_log.peak.key, "/two-seconds");
  EXPECT_EQ(g_tqredis_in_log.peak.elapsed_sec, 0);  // the other ring's own
}

TEST_F(LogStat, EndOnAnotherThreadMeasuresNothing) {
  g_tqredis_timestat = 1;
  const int slot = tqredis_db_in_log("/k", 0, 0, 0);
  tqtest::SetClock(kT0 + 5, 0);
  OnAnotherThread(
      [slot] { tqredis_db_in_log_stat(static_cast<uint32_t>(slot)); });
  EXPECT_EQ(g_tqredis_in_log.records[slot].elapsed_sec, 0);
  EXPECT_EQ(g_tqredis_in_log.records[slot].elapsed_usec, 0);
  EXPECT_TRUE(IsZero(&g_tqredis_in_log.peak, sizeof(g_tqredis_in_log.peak)));
}

TEST_F(LogStat, WithoutTimeStatisticsTheEndReturnsAtOnce) {
  const int slot = tqredis_db_in_log("/off", 0, 0, 0);
  EXPECT_EQ(g_tqredis_in_log.records[slot].tid, 0);
  tqtest::SetClock(kT0 + 5, 0);
  tqredis_db_in_log_stat(static_cast<uint32_t>(slot));
  EXPECT_EQ(g_tqredis_in_log.records[slot].elapsed_sec, 0);

  // Recorded with them on, ended with them off: still nothing measured,
  // though the thread matches.
  g_tqredis_timestat = 1;
  const int on = tqredis_db_in_log("/on", 0, 0, 0);
  g_tqredis_timestat = 0;
  tqtest::SetClock(kT0 + 9, 0);
  tqredis_db_in_log_stat(static_cast<uint32_t>(on));
  EXPECT_EQ(g_tqredis_in_log.records[on].elapsed_sec, 0);
  EXPECT_TRUE(IsZero(&g_tqredis_in_log.peak, sizeof(g_tqredis_in_log.peak)));
}

TEST_F(LogStat, SlotFortyLogsTheInvalidIndexOnlyWithTimeStatistics) {
  EXPECT_EQ(Logged(0xff,
                   [] {
                     tqredis_db_in_log_stat(40);
                     tqredis_db_out_log_stat(40);
                   }),
            "");
  g_tqredis_timestat = 1;
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [] {
                     tqredis_db_in_log_stat(40);
                     tqredis_db_out_log_stat(32);
                     tqredis_db_log_stat(nullptr, 0);
                   }),
            "<tqredis_db_log_stat>:input arguments invalid, index=40\r\n"
            "<tqredis_db_log_stat>:input arguments invalid, index=32\r\n"
            "<tqredis_db_log_stat>:input arguments invalid, index=0\r\n");
}

TEST_F(LogStat, OutboundEndMeasuresTheOutboundRingOnly) {
  g_tqredis_timestat = 1;
  tqredis_db_in_log("/in", 0, 0, 0);
  const int slot = tqredis_db_out_log("/out", 1, 2, 0);
  tqtest::SetClock(kT0 + 2, 42);
  tqredis_db_out_log_stat(static_cast<uint32_t>(slot));
  EXPECT_EQ(g_tqredis_out_log.records[slot].elapsed_sec, 2);
  EXPECT_EQ(g_tqredis_out_log.records[slot].elapsed_usec, 0);
  EXPECT_STREQ(g_tqredis_out_log.peak.key, "/out");
  EXPECT_EQ(g_tqredis_in_log.records[0].elapsed_sec, 0);
  EXPECT_TRUE(IsZero(&g_tqredis_in_log.peak, sizeof(g_tqredis_in_log.peak)));
}
