// Operation records and rings: what a record holds, how a ring advances and
// wraps, and how rings and snapshot pairs are printed.
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/log.h"
#include "records/records.h"
#include "support/clock.h"
#include "support/logged.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_in_log;
using tqredis::detail::g_tqredis_out_log;
using tqredis::detail::g_tqredis_timestat;

namespace {

using tqtest::Printed;

// 2024-03-02 09:05:03 UTC.
constexpr long kT0 = 1709370303;

int32_t Gettid() { return static_cast<int32_t>(syscall(SYS_gettid)); }

std::string Proc() { return g_tqredis_proc_name; }

class Record : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    tzset();
    tqtest::SetClock(kT0, 42);
  }
  void TearDown() override { tqtest::UseRealClock(); }
};

using Ring = Record;
using Print = Record;

bool AllBytes(const void *p, size_t n, unsigned char value) {
  const auto *bytes = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i)
    if (bytes[i] != value) return false;
  return true;
}

}  // namespace

TEST_F(Record, FillsEveryFieldForAnOperationStartingNow) {
  tqredis_op_record rec;
  std::memset(&rec, 0x5a, sizeof(rec));
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "/some/key", TQREDIS_KEYCMD_DEL,
                                  TQREDIS_DB_HOST),
            0);
  EXPECT_EQ(rec.tid, 0);
  EXPECT_STREQ(rec.time, "20240302_09:05:03.42");
  EXPECT_STREQ(rec.db, "redis_host");
  EXPECT_STREQ(rec.key, "/some/key");
  EXPECT_STREQ(rec.cmd, "del");
  EXPECT_EQ(rec.start_sec, static_cast<uint32_t>(kT0));
  EXPECT_EQ(rec.start_usec, 42u);
  EXPECT_EQ(rec.elapsed_sec, 0);
  EXPECT_EQ(rec.elapsed_usec, 0);
}

TEST_F(Record, MicrosecondsAreNotZeroPadded) {
  tqredis_op_record rec;
  tqtest::SetClock(kT0, 5);
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", 0, 0), 0);
  EXPECT_STREQ(rec.time, "20240302_09:05:03.5");
  tqtest::SetClock(kT0, 0);
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", 0, 0), 0);
  EXPECT_STREQ(rec.time, "20240302_09:05:03.0");
  // 2025-12-31 23:59:59.999999 UTC: the widest time of day.
  tqtest::SetClock(1767225599, 999999);
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", 0, 0), 0);
  EXPECT_STREQ(rec.time, "20251231_23:59:59.999999");
}

TEST_F(Record, TimeIsLocalTime) {
  setenv("TZ", "XYZ-2", 1);  // two hours east of UTC
  tzset();
  tqredis_op_record rec;
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", 0, 0), 0);
  EXPECT_STREQ(rec.time, "20240302_11:05:03.42");
}

TEST_F(Record, KeysUnderArchHamOrArchAtAreNeverRecordedAndLeaveTheRecordAlone) {
  for (const char *key :
       {"/arch/ham/x", "arch/at/y", "/a/arch/attr", "arch/ham", "xarch/atx"}) {
    tqredis_op_record rec;
    std::memset(&rec, 0x5a, sizeof(rec));
    EXPECT_EQ(tqredis_db_cmd_record(&rec, key, 0, 0), -1) << key;
    EXPECT_TRUE(AllBytes(&rec, sizeof(rec), 0x5a)) << key;
  }
}

TEST_F(Record, NeighboursOfTheUnrecordedKeySpacesAreRecorded) {
  tqredis_op_record rec;
  for (const char *key :
       {"/arch/mom/x", "arch/a/t", "/arch/HAM/x", "arch-at"}) {
    EXPECT_EQ(tqredis_db_cmd_record(&rec, key, 0, 0), 0) << key;
    EXPECT_STREQ(rec.key, key);
  }
}

TEST_F(Record, KeyOf200CharactersKeepsItsFirst127) {
  std::string key;
  for (int i = 0; i < 200; ++i) key += static_cast<char>('a' + i % 26);
  tqredis_op_record rec;
  ASSERT_EQ(tqredis_db_cmd_record(&rec, key.c_str(), 0, 0), 0);
  EXPECT_EQ(std::string(rec.key), key.substr(0, 127));
  EXPECT_EQ(rec.key[127], '\0');
}

TEST_F(Record, EveryNameOfTheTablesIsCopied) {
  tqredis_op_record rec;
  for (int db = 0; db < TQREDIS_DB_NUM; ++db) {
    for (int cmd = 0; cmd < TQREDIS_KEYCMD_NUM; ++cmd) {
      ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", cmd, db), 0);
      EXPECT_STREQ(rec.db, g_tqredis_dbstr[db]);
      EXPECT_STREQ(rec.cmd, g_tqredis_keycmd_str[cmd]);
    }
  }
  EXPECT_STREQ(rec.cmd, "other");
}

TEST_F(Record, OutOfRangeIdsAreNamedInvalidRatherThanReadPastTheTables) {
  tqredis_op_record rec;
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", TQREDIS_KEYCMD_NUM, 3), 0);
  EXPECT_STREQ(rec.db, "invalid_db");
  EXPECT_STREQ(rec.cmd, "invalid_keycmd");
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", -1, -1), 0);
  EXPECT_STREQ(rec.db, "invalid_db");
  EXPECT_STREQ(rec.cmd, "invalid_keycmd");
}

TEST_F(Record, ReusedRecordKeepsNoBytesOfTheOlderOne) {
  tqredis_op_record rec;
  std::memset(&rec, 0x5a, sizeof(rec));
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "/k", 0, 0), 0);
  EXPECT_TRUE(AllBytes(rec.key + 3, sizeof(rec.key) - 3, 0));
  EXPECT_TRUE(AllBytes(rec.db + 15, sizeof(rec.db) - 15, 0));
  EXPECT_TRUE(AllBytes(rec.cmd + 3, sizeof(rec.cmd) - 3, 0));
  EXPECT_TRUE(AllBytes(rec.time + 20, sizeof(rec.time) - 20, 0));
}

TEST_F(Record, ThreadIdIsTheRecordingThreadsKernelIdWithTimeStatistics) {
  g_tqredis_timestat = 1;
  tqredis_op_record rec;
  int32_t tid = 0;
  std::thread([&] {
    tid = Gettid();
    tqredis_db_cmd_record(&rec, "k", 0, 0);
  }).join();
  EXPECT_EQ(rec.tid, tid);
  EXPECT_NE(rec.tid, static_cast<int32_t>(getpid()));
  EXPECT_EQ(tqredis::detail::KernelTid(), Gettid());
}

TEST_F(Record, ThreadIdIsZeroWithoutTimeStatistics) {
  g_tqredis_timestat = 0;
  tqredis_op_record rec;
  std::memset(&rec, 0x5a, sizeof(rec));
  ASSERT_EQ(tqredis_db_cmd_record(&rec, "k", 0, 0), 0);
  EXPECT_EQ(rec.tid, 0);
}

TEST_F(Record, NullRecordOrKeyIsRefused) {
  tqredis_op_record rec;
  std::memset(&rec, 0x5a, sizeof(rec));
  EXPECT_EQ(tqredis_db_cmd_record(nullptr, "k", 0, 0), -1);
  EXPECT_EQ(tqredis_db_cmd_record(&rec, nullptr, 0, 0), -1);
  EXPECT_TRUE(AllBytes(&rec, sizeof(rec), 0x5a));
}

TEST_F(Ring, AdvanceCountsUpToThirtyTwoThenOnlyMovesTheIndex) {
  tqredis_op_log log;
  std::memset(&log, 0, sizeof(log));
  for (uint32_t i = 1; i <= 32; ++i) {
    EXPECT_EQ(tqredis_db_log_index_update(&log), 1u) << i;
    EXPECT_EQ(log.index, i % 32);
    EXPECT_EQ(log.count, i);
    EXPECT_EQ(log.total, i);
  }
  EXPECT_EQ(tqredis_db_log_index_update(&log), 0u);
  EXPECT_EQ(log.index, 1u);
  EXPECT_EQ(log.count, 32u);
  EXPECT_EQ(log.total, 33u);
  EXPECT_EQ(tqredis_db_log_index_update(nullptr), 0u);
}

TEST_F(Ring, TotalWrapsAndPrintsSigned) {
  tqredis_op_log log;
  std::memset(&log, 0, sizeof(log));
  log.count = 32;
  log.total = 0xffffffffu;
  tqredis_db_log_index_update(&log);
  EXPECT_EQ(log.total, 0u);
  log.total = 0x80000000u;
  log.count = 0;
  EXPECT_EQ(Printed([&] { tqredis_db_print_log(&log, "l"); }),
            "l cmd_total=-2147483648 cmd_peak=----time=0.0-tid=0:\r\n");
}

TEST_F(Ring, KeyUnderArchHamLeavesRingIndexCountAndTotalUnchanged) {
  ASSERT_EQ(tqredis_db_out_log("/a", 0, 0, 0), 0);
  const tqredis_op_log before = g_tqredis_out_log;
  EXPECT_EQ(tqredis_db_out_log("/arch/ham/x", 0, 0, 0), -1);
  EXPECT_EQ(tqredis_db_out_log("arch/at/y", 0, 0, 0), -1);
  EXPECT_EQ(std::memcmp(&before, &g_tqredis_out_log, sizeof(before)), 0);
  EXPECT_EQ(g_tqredis_out_log.index, 1u);
  EXPECT_EQ(g_tqredis_out_log.count, 1u);
  EXPECT_EQ(g_tqredis_out_log.total, 1u);
}

TEST_F(Ring, ThirtyThreeRecordsWrapAndPrintFromTheSecondRecordMade) {
  for (int i = 1; i <= 33; ++i) {
    tqtest::SetClock(kT0, i);
    const std::string key = "/k/" + std::to_string(i);
    EXPECT_EQ(tqredis_db_out_log(key.c_str(), TQREDIS_KEYCMD_SET,
                                 TQREDIS_DB_CE_GLOBAL, 0),
              (i - 1) % 32);
  }
  EXPECT_EQ(g_tqredis_out_log.count, 32u);
  EXPECT_EQ(g_tqredis_out_log.index, 1u);
  EXPECT_EQ(g_tqredis_out_log.total, 33u);
  std::string expected = "out cmd_total=33 cmd_peak=----time=0.0-tid=0:\r\n";
  for (int n = 0; n < 32; ++n) {
    const std::string i = std::to_string(n + 2);
    expected += "\t" + Proc() + "/" + std::to_string(n) +
                " 20240302_09:05:03." + i + "-redis_ce_global-set-/k/" + i +
                "-time=0.0-tid=0\r\n";
  }
  EXPECT_EQ(Printed([] { tqredis_db_print_log(&g_tqredis_out_log, "out"); }),
            expected);
}

TEST_F(Ring, WhileFillingTheRecordsPrintFromSlotZero) {
  tqtest::SetClock(kT0, 7);
  tqredis_db_in_log("/first", TQREDIS_KEYCMD_HSET, 0, 0);
  tqtest::SetClock(kT0 + 1, 8);
  tqredis_db_in_log("/second", TQREDIS_KEYCMD_EXPIRED, 1, 0);
  EXPECT_EQ(
      Printed([] { tqredis_db_print_log(&g_tqredis_in_log, "in_log"); }),
      "in_log cmd_total=2 cmd_peak=----time=0.0-tid=0:\r\n"
      "\t" +
          Proc() +
          "/0 "
          "20240302_09:05:03.7-redis_de_global-hset-/first-time=0.0-tid=0\r\n"
          "\t" +
          Proc() +
          "/1 "
          "20240302_09:05:04.8-redis_ce_global-expired-/"
          "second-time=0.0-tid=0\r\n");
}

TEST_F(Ring, EmptyRingPrintsOnlyItsHeaderWithFourEmptyPeakFields) {
  EXPECT_EQ(Printed([] { tqredis_db_print_log(&g_tqredis_in_log, "in_log"); }),
            "in_log cmd_total=0 cmd_peak=----time=0.0-tid=0:\r\n");
}

TEST_F(Ring, WithoutTimeStatisticsRecordsAndPeakCarryTidAndElapsedZero) {
  g_tqredis_timestat = 0;
  const int slot = tqredis_db_out_log("/k", TQREDIS_KEYCMD_DEL, 2, 0);
  ASSERT_EQ(slot, 0);
  tqtest::SetClock(kT0 + 3, 0);
  tqredis_db_out_log_stat(static_cast<uint32_t>(slot));
  const tqredis_op_record &rec = g_tqredis_out_log.records[0];
  EXPECT_EQ(rec.tid, 0);
  EXPECT_EQ(rec.elapsed_sec, 0);
  EXPECT_EQ(rec.elapsed_usec, 0);
  EXPECT_TRUE(AllBytes(&g_tqredis_out_log.peak, sizeof(tqredis_op_record), 0));
  EXPECT_EQ(Printed([] { tqredis_db_print_log(&g_tqredis_out_log, "o"); }),
            "o cmd_total=1 cmd_peak=----time=0.0-tid=0:\r\n"
            "\t" +
                Proc() +
                "/0 20240302_09:05:03.42-redis_host-del-/k-time=0.0-tid=0\r\n");
}

TEST_F(Print, PeakAndElapsedShowUnpaddedMicrosecondsAndTheTid) {
  tqredis_op_log log;
  std::memset(&log, 0, sizeof(log));
  tqredis_db_cmd_record(&log.records[0], "/some/key", TQREDIS_KEYCMD_DEL, 2);
  log.records[0].elapsed_usec = 1250;
  log.records[0].tid = 812;
  log.peak = log.records[0];
  tqredis_db_log_index_update(&log);
  EXPECT_EQ(Printed([&] { tqredis_db_print_log(&log, "x"); }),
            "x cmd_total=1 "
            "cmd_peak=20240302_09:05:03.42-redis_host-del-/some/"
            "key-time=0.1250-tid=812:\r\n"
            "\t" +
                Proc() +
                "/0 "
                "20240302_09:05:03.42-redis_host-del-/some/"
                "key-time=0.1250-tid=812\r\n");
}

TEST_F(Print, ElapsedWordsPrintAsTheirUnsigned32BitValues) {
  tqredis_op_log log;
  std::memset(&log, 0, sizeof(log));
  log.peak.elapsed_sec = -1;
  log.peak.elapsed_usec = -2;
  log.peak.tid = -3;
  EXPECT_EQ(
      Printed([&] { tqredis_db_print_log(&log, "x"); }),
      "x cmd_total=0 cmd_peak=----time=4294967295.4294967294-tid=-3:\r\n");
}

TEST_F(Print, UnterminatedFieldsAreReadWithinTheirSize) {
  tqredis_op_log log;
  std::memset(&log, 'x', sizeof(log));
  log.peak.elapsed_sec = 0;
  log.peak.elapsed_usec = 0;
  log.peak.tid = 0;
  log.count = 0;
  log.total = 0;
  EXPECT_EQ(Printed([&] { tqredis_db_print_log(&log, "x"); }),
            "x cmd_total=0 cmd_peak=" + std::string(31, 'x') + "-" +
                std::string(31, 'x') + "-" + std::string(31, 'x') + "-" +
                std::string(127, 'x') + "-time=0.0-tid=0:\r\n");
}

TEST_F(Print, CountAndIndexOutOfRangeAreBounded) {
  tqredis_op_log log;
  std::memset(&log, 0, sizeof(log));
  log.count = 1000;
  log.index = 33;  // taken modulo 32: slot 1 is the oldest
  std::strcpy(log.records[1].key, "/oldest");
  std::strcpy(log.records[0].key, "/newest");
  const auto lines =
      tqtest::Lines(Printed([&] { tqredis_db_print_log(&log, "x"); }));
  ASSERT_EQ(lines.size(), 33u);
  EXPECT_EQ(lines[1], "\t" + Proc() + "/0 ---/oldest-time=0.0-tid=0\r\n");
  EXPECT_EQ(lines[32], "\t" + Proc() + "/31 ---/newest-time=0.0-tid=0\r\n");
}

TEST_F(Print, SnapshotShowsBothHalvesWithTidButNoElapsed) {
  tqredis_op_snap snap;
  std::memset(&snap, 0, sizeof(snap));
  tqredis_db_cmd_record(&snap.in, "/in/key", TQREDIS_KEYCMD_SET, 0);
  snap.in.tid = 77;
  snap.in.elapsed_sec = 5;
  tqtest::SetClock(kT0 + 60, 123456);
  tqredis_db_cmd_record(&snap.out, "/out/key", TQREDIS_KEYCMD_PEXPIRE, 2);
  EXPECT_EQ(
      Printed([&] { tqredis_db_print_snap(&snap, "snap"); }),
      "snap:\r\n"
      "\t" +
          Proc() +
          "/in 20240302_09:05:03.42-redis_de_global-set-/in/key-tid=77\r\n"
          "\t" +
          Proc() +
          "/out "
          "20240302_09:06:03.123456-redis_host-pexpire-/out/key-tid=0\r\n");
}

TEST_F(Print, EmptySnapshotShowsEmptyFields) {
  tqredis_op_snap snap;
  std::memset(&snap, 0, sizeof(snap));
  EXPECT_EQ(Printed([&] { tqredis_db_print_snap(&snap, "ham_snap"); }),
            "ham_snap:\r\n\t" + Proc() + "/in ----tid=0\r\n\t" + Proc() +
                "/out ----tid=0\r\n");
}

TEST_F(Print, NullRingOrSnapshotPrintsNothing) {
  EXPECT_EQ(Printed([] {
              tqredis_db_print_log(nullptr, "x");
              tqredis_db_print_snap(nullptr, "x");
              tqredis_db_write_log(nullptr, "in");
              tqredis_db_write_log(&g_tqredis_in_log, nullptr);
            }),
            "");
}

TEST_F(Print, ShowLogPrintsBothRingsThenTheSnapshotThenTheHandedOverOne) {
  tqredis_db_in_log("/in/a", TQREDIS_KEYCMD_SET, 0, 0);
  tqtest::SetClock(kT0, 43);
  tqredis_db_out_log("/out/b", TQREDIS_KEYCMD_DEL, 1, 1);
  tqredis_op_snap taken;
  ASSERT_EQ(tqredis_get_db_op_snap(&taken), 0);
  tqtest::SetClock(kT0, 44);
  tqredis_db_in_log("/in/c", TQREDIS_KEYCMD_HDEL, 2, 0);
  const std::string p = Proc();
  EXPECT_EQ(
      Printed([] { tqredis_db_show_log(); }),
      "in_log cmd_total=2 cmd_peak=----time=0.0-tid=0:\r\n"
      "\t" +
          p +
          "/0 20240302_09:05:03.42-redis_de_global-set-/in/a-time=0.0-tid=0\r\n"
          "\t" +
          p +
          "/1 20240302_09:05:03.44-redis_host-hdel-/in/c-time=0.0-tid=0\r\n"
          "out_log cmd_total=1 cmd_peak=----time=0.0-tid=0:\r\n"
          "\t" +
          p +
          "/0 "
          "20240302_09:05:03.43-redis_ce_global-del-/out/b-time=0.0-tid=0\r\n"
          "snap:\r\n"
          "\t" +
          p +
          "/in 20240302_09:05:03.44-redis_host-hdel-/in/c-tid=0\r\n"
          "\t" +
          p +
          "/out ----tid=0\r\n"
          "ham_snap:\r\n"
          "\t" +
          p +
          "/in 20240302_09:05:03.42-redis_de_global-set-/in/a-tid=0\r\n"
          "\t" +
          p + "/out 20240302_09:05:03.43-redis_ce_global-del-/out/b-tid=0\r\n");
}

TEST_F(Print, ShowStatsIsConnectionsThenCardInformationThenSubscriptions) {
  const std::string basic = Printed([] { tqredis_basic_stats_show(); });
  const std::string cardinfo = Printed([] { tqredis_cardinfo_stats_show(); });
  const std::string pubsub = Printed([] { tqredis_pubsub_stats_show(); });
  ASSERT_NE(basic.find("basic:\r\n"), std::string::npos);
  ASSERT_NE(cardinfo.find("cardinfo:"), std::string::npos);
  ASSERT_NE(pubsub.find("datacheck:"), std::string::npos);
  EXPECT_EQ(Printed([] { tqredis_db_show_stats(); }),
            basic + cardinfo + pubsub);
}
