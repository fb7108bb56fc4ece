// Load-time state, tqredis_init and the basic statistics dump.
#include <signal.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"
#include "tqredis.h"

namespace {

const char kStamp[] = R"(\d{8}_\d{2}:\d{2}:\d{2}\.\d{6} )";

std::string ExpectedSlot(const char *op, const char *db, const char *path,
                         const char *host) {
  return std::string("    [") + op + "][" + db + "]\r\n" +
         "\tcontext=(nil)\r\n\tmode=0\r\n\tunixpath=" + path +
         "\r\n\thostname=" + host +
         "\r\n\thostport=0\r\n\tappend_cmd_num=0\r\n\tconnect_num=0\r\n"
         "\tdatacheck_num=0\r\n";
}

std::string ExpectedDump(int initok) {
  std::string out =
      "basic:\r\n\tprocname=state_test\r\n\tinitok=" + std::to_string(initok) +
      "\r\nconnect_mng:\r\n";
  for (const char *op : {"read", "write", "pubsub"}) {
    out += ExpectedSlot(op, "redis_de_global",
                        "/tmp/redis/redis_de_global.sock", "0x100000");
    out += ExpectedSlot(op, "redis_ce_global",
                        "/tmp/redis/redis_ce_global.sock", "0x100001");
    out += ExpectedSlot(op, "redis_host", "/tmp/redis/redis_host.sock", "");
  }
  return out;
}

}  // namespace

TEST(ProcName, IsTheBinaryNameWithoutItsNewline) {
  EXPECT_STREQ(g_tqredis_proc_name, "state_test");
}

TEST(ProcName, ParsingAgainGivesTheSameName) {
  EXPECT_EQ(tqredis_parse_proc_name(), 0);
  EXPECT_STREQ(g_tqredis_proc_name, "state_test");
}

TEST(NameTables, HoldTheDatabaseAndOperationNames) {
  EXPECT_STREQ(g_tqredis_dbstr[0], "redis_de_global");
  EXPECT_STREQ(g_tqredis_dbstr[1], "redis_ce_global");
  EXPECT_STREQ(g_tqredis_dbstr[2], "redis_host");
  EXPECT_STREQ(g_tqredis_opstr[0], "read");
  EXPECT_STREQ(g_tqredis_opstr[1], "write");
  EXPECT_STREQ(g_tqredis_opstr[2], "pubsub");
}

TEST(NameTables, KeyCommandTableKeepsItsOrderAndMisspellings) {
  const char *expected[28] = {
      "set",    "del",       "hset",           "hdel",    "sadd",    "srem",
      "spop",   "zadd",      "zrem",           "expire",  "expired", "lpush",
      "rpush",  "lrem",      "flushdb",        "get",     "hmget",   "hgetall",
      "lindex", "smermbers", "sismermber",     "pexpire", "scan",    "bgsave",
      "psetex", "pttl",      "clientlistname", "other"};
  for (int id = 0; id < 28; ++id) {
    EXPECT_STREQ(g_tqredis_keycmd_str[id], expected[id]) << "id " << id;
  }
}

TEST(Constructor, LogsEnterAsTheFirstLimitedLogLine) {
  const std::string log = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  EXPECT_TRUE(std::regex_match(
      log,
      std::regex(
          std::string("^") + kStamp +
          R"(\[state_test\]<tqredis_initial, \d+>:>>>>state_test enter\r\n$)")))
      << log;
}

TEST(Constructor, LeavesInitNotDoneAndWritesNothingUnlimited) {
  EXPECT_EQ(g_tqredis_init_ok, 0);
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("unlimitlog")), "");
}

int NoDataCheck(uint32_t) { return 0; }
pubsub_mng g_one_entry[1] = {
    {2, "k*", [](tqredis_pmsg *, void *) { return 0; }, nullptr}};

TEST(Init, SetsInitOkAndLogsFlagAndResult) {
  EXPECT_EQ(tqredis_init(g_one_entry, 1, NoDataCheck, 2), 0);
  EXPECT_EQ(g_tqredis_init_ok, 1);
  const auto lines =
      tqtest::Lines(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  ASSERT_EQ(lines.size(), 3u);  // enter, the subscription, init
  EXPECT_NE(lines[1].find(">:psub register redis_host k*\r\n"),
            std::string::npos)
      << lines[1];
  EXPECT_TRUE(std::regex_match(
      lines[2],
      std::regex(
          std::string("^") + kStamp +
          R"(\[state_test\]<tqredis_init, \d+>:>>>>tqredis\[flag=0x2\] init, rv=0\r\n$)")))
      << lines[2];
}

TEST(Init, FlagZeroPrintsTheFlagAsPlainZero) {
  g_tqredis_dbg_level = TQREDIS_LOG_LIFE;
  tqtest::StdoutCapture capture;
  tqredis_init(g_one_entry, 1, NoDataCheck, 0);
  const std::string out = capture.Finish();
  EXPECT_TRUE(std::regex_match(
      out,
      std::regex(
          R"(^\[state_test\]<tqredis_pubsub_register, \d+>:psub register redis_host k\*\r\n)"
          R"(\[state_test\]<tqredis_init, \d+>:>>>>tqredis\[flag=0\] init, rv=0\r\n$)")))
      << out;
}

TEST(Init, IgnoresSigpipe) {
  struct sigaction before;
  sigaction(SIGPIPE, nullptr, &before);
  ASSERT_EQ(before.sa_handler, SIG_DFL);
  tqredis_init(nullptr, 0, nullptr, 0);
  struct sigaction after;
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
}

TEST(Init, CalledTwiceRunsTwice) {
  EXPECT_EQ(tqredis_init(g_one_entry, 1, NoDataCheck, 0), 0);
  EXPECT_EQ(tqredis_init(g_one_entry, 1, NoDataCheck, 2), 0);
  const auto lines =
      tqtest::Lines(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  ASSERT_EQ(lines.size(), 5u);  // each call registers its table again
  EXPECT_NE(lines[2].find(">>>>tqredis[flag=0] init, rv=0\r\n"),
            std::string::npos);
  EXPECT_NE(lines[4].find(">>>>tqredis[flag=0x2] init, rv=0\r\n"),
            std::string::npos);
}

TEST(DbExist, AllThreeDatabasesExist) {
  EXPECT_EQ(tqredis_db_exist(TQREDIS_DB_DE_GLOBAL), 1);
  EXPECT_EQ(tqredis_db_exist(TQREDIS_DB_CE_GLOBAL), 1);
  EXPECT_EQ(tqredis_db_exist(TQREDIS_DB_HOST), 1);
}

TEST(DbExist, BitThreeIsClear) { EXPECT_EQ(tqredis_db_exist(3), 0); }

TEST(DbExist, IdIsTakenModulo32) {
  EXPECT_EQ(tqredis_db_exist(32), tqredis_db_exist(TQREDIS_DB_DE_GLOBAL));
  EXPECT_EQ(tqredis_db_exist(32), 1);
  EXPECT_EQ(tqredis_db_exist(34), 1);
  EXPECT_EQ(tqredis_db_exist(35), 0);
  EXPECT_EQ(tqredis_db_exist(0xFFFFFFFFu), 0);
}

TEST(BasicStats, DumpsStateAndAllNineSlotsAfterLoad) {
  tqtest::StdoutCapture capture;
  tqredis_basic_stats_show();
  const std::string out = capture.Finish();
  EXPECT_EQ(out, ExpectedDump(0));
  EXPECT_EQ(tqtest::Lines(out).size(), 4u + 9u * 9u);
}

TEST(BasicStats, ShowsInitOkAfterInit) {
  tqredis_init(nullptr, 0, nullptr, 2);
  tqtest::StdoutCapture capture;
  tqredis_basic_stats_show();
  EXPECT_EQ(capture.Finish(), ExpectedDump(1));
}

TEST(BasicStats, IgnoresTheDebugMasks) {
  g_tqredis_dbg_level = 0;
  tqtest::StdoutCapture capture;
  tqredis_basic_stats_show();
  EXPECT_EQ(capture.Finish(), ExpectedDump(0));
}

TEST(ConnectMng, RefillingKeepsTheSameEndpoints) {
  tqredis_init_connect_mng();
  tqtest::StdoutCapture capture;
  tqredis_basic_stats_show();
  EXPECT_EQ(capture.Finish(), ExpectedDump(0));
}

TEST(Init, HandsBackTheRegistrationResultAndStillSetsInitOk) {
  // No data check: the registration refuses, init still completes.
  EXPECT_EQ(tqredis_init(g_one_entry, 1, nullptr, 0), -2);
  EXPECT_EQ(g_tqredis_init_ok, 1);
  const auto lines =
      tqtest::Lines(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.back().find(">>>>tqredis[flag=0] init, rv=-2\r\n"),
            std::string::npos)
      << lines.back();
}
