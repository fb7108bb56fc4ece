// The operation rings written into redis_host under "/arch/mom", read back
// from a real server.
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/clock.h"
#include "support/servers.h"
#include "tqredis.h"

namespace {

using namespace std::chrono_literals;

// 2024-03-02 09:05:03 UTC.
constexpr long kT0 = 1709370303;

std::string Tid() { return std::to_string(syscall(SYS_gettid)); }

// "/arch/mom/<process>/<dir>/<leaf>".
std::string Key(const char *dir, const std::string &leaf) {
  return std::string("/arch/mom/") + g_tqredis_proc_name + "/" + dir + "/" +
         leaf;
}

class SaveLog : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    tzset();
    ASSERT_TRUE(servers_.StartAll());
    // No data check: -2, and commands may run.
    tqredis_init(nullptr, 0, nullptr, 0);
    host_ = tqtest::Direct(TQREDIS_DB_HOST);
    ASSERT_TRUE(host_);
  }
  // The rings are written without reconnecting: as in the host, whose pump
  // has connected everything by the time it writes them.
  void Connect() {
    tqredis_db_connect();
    tqredis_get_cardinfo();
  }
  void TearDown() override {
    tqtest::UseRealClock();
    tqredis_dbg_cfg(2, 0);
  }

  // Writes both rings, writes the pipeline out and waits until the server
  // has taken in the command that was sent last.
  void SaveAndWaitFor(const std::string &last_key) {
    Connect();
    tqredis_db_save_log();
    tqredis_commit_command_all();
    for (int i = 0; i < 500 && !Exists(last_key); ++i)
      std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(Exists(last_key)) << last_key;
  }

  bool Exists(const std::string &key) {
    auto r = tqtest::Run(host_.get(), "EXISTS %s", key.c_str());
    return r && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
  }
  std::string Get(const std::string &key) {
    auto r = tqtest::Run(host_.get(), "GET %s", key.c_str());
    return r && r->type == REDIS_REPLY_STRING ? r->str : "(none)";
  }
  std::string HGet(const std::string &key, const char *field) {
    auto r = tqtest::Run(host_.get(), "HGET %s %s", key.c_str(), field);
    return r && r->type == REDIS_REPLY_STRING ? r->str : "(none)";
  }
  long long Keys() {
    auto r = tqtest::Run(host_.get(), "DBSIZE");
    return r ? r->integer : -1;
  }

  tqtest::DeviceServers servers_;
  tqtest::ContextPtr host_;
};

}  // namespace

TEST_F(SaveLog, StatsHashAndRecordKeysHoldTheExactValues) {
  tqredis_dbg_cfg(2, 1);
  tqtest::SetClock(kT0, 42);
  const int out = tqredis_db_out_log("/some/key", TQREDIS_KEYCMD_DEL, 2, 0);
  ASSERT_EQ(out, 0);
  tqtest::SetClock(kT0, 1292);  // 1250 microseconds later
  tqredis_db_out_log_stat(static_cast<uint32_t>(out));
  tqtest::SetClock(kT0 + 1, 5);
  const int in = tqredis_db_in_log("/in/key", TQREDIS_KEYCMD_SET, 0, 0);
  ASSERT_EQ(in, 0);
  tqredis_db_in_log_stat(static_cast<uint32_t>(in));  // no time passed
  tqtest::UseRealClock();

  SaveAndWaitFor(Key("out", "0"));
  const std::string tid = Tid();
  const std::string written =
      "20240302_09:05:03.42-redis_host-del-/some/key-time=0.1250-tid=" + tid;
  EXPECT_EQ(HGet(Key("out", "stats"), "cmd_total"), "1");
  EXPECT_EQ(HGet(Key("out", "stats"), "cmd_peak"), written);
  EXPECT_EQ(Get(Key("out", "0")), written);
  EXPECT_EQ(HGet(Key("in", "stats"), "cmd_total"), "1");
  // An operation of no measurable length is not longer than the empty peak.
  EXPECT_EQ(HGet(Key("in", "stats"), "cmd_peak"), "----time=0.0-tid=0");
  EXPECT_EQ(
      Get(Key("in", "0")),
      "20240302_09:05:04.5-redis_de_global-set-/in/key-time=0.0-tid=" + tid);
  EXPECT_EQ(Keys(), 4);
}

TEST_F(SaveLog, WritesTakeThePipelinedPathUntilCommitted) {
  tqredis_db_out_log("/k", TQREDIS_KEYCMD_SET, 2, 0);
  Connect();
  tqredis_db_save_log();
  // Three commands, below the commit threshold: all still in the pipeline.
  EXPECT_EQ(Keys(), 0);
  tqredis_commit_command_all();
  for (int i = 0; i < 500 && Keys() != 3; ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(Keys(), 3);
}

TEST_F(SaveLog, EmptyRingsWriteOnlyTheStatsHashWithAnEmptyPeak) {
  SaveAndWaitFor(Key("out", "stats"));
  EXPECT_EQ(Keys(), 2);
  for (const char *dir : {"in", "out"}) {
    auto r = tqtest::Run(host_.get(), "HGETALL %s", Key(dir, "stats").c_str());
    ASSERT_TRUE(r);
    ASSERT_EQ(r->type, REDIS_REPLY_ARRAY);
    ASSERT_EQ(r->elements, 4u) << dir;
    EXPECT_STREQ(r->element[0]->str, "cmd_total");
    EXPECT_STREQ(r->element[1]->str, "0");
    EXPECT_STREQ(r->element[2]->str, "cmd_peak");
    EXPECT_STREQ(r->element[3]->str, "----time=0.0-tid=0");
  }
}

TEST_F(SaveLog, WrappedRingIsWrittenFromItsOldestRecord) {
  for (int i = 1; i <= 33; ++i) {
    tqtest::SetClock(kT0, i);
    const std::string key = "/k/" + std::to_string(i);
    tqredis_db_out_log(key.c_str(), TQREDIS_KEYCMD_SET, 1, 0);
  }
  tqtest::UseRealClock();
  SaveAndWaitFor(Key("out", "31"));
  EXPECT_EQ(HGet(Key("out", "stats"), "cmd_total"), "33");
  EXPECT_EQ(Get(Key("out", "0")),
            "20240302_09:05:03.2-redis_ce_global-set-/k/2-time=0.0-tid=0");
  EXPECT_EQ(Get(Key("out", "31")),
            "20240302_09:05:03.33-redis_ce_global-set-/k/33-time=0.0-tid=0");
  EXPECT_FALSE(Exists(Key("out", "32")));
  EXPECT_EQ(Keys(), 2 + 32);
}

TEST_F(SaveLog, KeysBeyondTheRecordsLeftFromAFullerWriteStay) {
  tqtest::Run(host_.get(), "SET %s %s", Key("out", "2").c_str(), "older");
  tqtest::Run(host_.get(), "SET %s %s", Key("out", "31").c_str(), "oldest");
  tqtest::SetClock(kT0, 1);
  tqredis_db_out_log("/a", TQREDIS_KEYCMD_SET, 2, 0);
  tqredis_db_out_log("/b", TQREDIS_KEYCMD_SET, 2, 0);
  tqtest::UseRealClock();
  SaveAndWaitFor(Key("out", "1"));
  EXPECT_EQ(Get(Key("out", "0")),
            "20240302_09:05:03.1-redis_host-set-/a-time=0.0-tid=0");
  EXPECT_EQ(Get(Key("out", "1")),
            "20240302_09:05:03.1-redis_host-set-/b-time=0.0-tid=0");
  EXPECT_EQ(Get(Key("out", "2")), "older");
  EXPECT_EQ(Get(Key("out", "31")), "oldest");
}

TEST_F(SaveLog, KeyWithBlanksIsStoredAsOneValue) {
  tqtest::SetClock(kT0, 9);
  tqredis_db_in_log("/a key with blanks", TQREDIS_KEYCMD_HSET, 2, 0);
  tqtest::UseRealClock();
  SaveAndWaitFor(Key("out", "stats"));
  EXPECT_EQ(Get(Key("in", "0")),
            "20240302_09:05:03.9-redis_host-hset-/a key with blanks-time=0.0-"
            "tid=0");
}

TEST_F(SaveLog, WithoutAConnectionNothingIsWrittenAndNothingWaits) {
  tqredis_db_out_log("/k", TQREDIS_KEYCMD_SET, 2, 0);
  tqredis_db_save_log();  // redis_host never connected: every command gives up
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  Connect();
  tqredis_commit_command_all();
  // A marker sent after the commit: once it is in, anything before it is.
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                     "SET %s %s", "marker", "1");
  for (int i = 0; i < 500 && !Exists("marker"); ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(Keys(), 1);
}
