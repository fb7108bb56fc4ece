// The subscribing pass against real servers: which patterns are sent, when
// the data checks run, what a missing connection and a refusing server do.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/lock.h"
#include "pubsub/registry.h"
#include "support/emulator.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_datacheck;
using tqredis::detail::g_tqredis_pubsub_list;

using tqtest::Logged;
using tqtest::Printed;
using tqtest::SlotDump;

namespace {

constexpr int kLife = TQREDIS_LOG_LIFE;
constexpr int kAllButData =
    TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR;

// Databases the data checks were called with, in call order.
std::vector<uint32_t> g_checked;

int RecordCheck(uint32_t db) {
  g_checked.push_back(db);
  return 0;
}

int IgnoreNotification(tqredis_pmsg *, void *) { return 0; }

pubsub_mng Entry(uint32_t db, const char *pattern) {
  pubsub_mng entry{};
  entry.key_db = db;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", pattern);
  entry.hook = IgnoreNotification;
  return entry;
}

// Runs one command on redis_host, which connects every slot that can be.
void ConnectAll() {
  tqredis_free_reply(
      tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING"));
}

void Pass() { tqredis_db_psubscrible(); }

// Distinct patterns subscribed on the server.
long long NumPat(int db) {
  auto c = tqtest::Direct(db);
  auto r = tqtest::Run(c.get(), "PUBSUB NUMPAT");
  return r && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
}

// Subscribers a message on `channel` reaches.
long long Receivers(int db, const std::string &channel) {
  auto c = tqtest::Direct(db);
  auto r = tqtest::Run(c.get(), "PUBLISH %s x", channel.c_str());
  return r && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
}

// A field of the server's INFO text read as a number; 0 when absent.
long long InfoNumber(int db, const char *section, const std::string &field) {
  auto c = tqtest::Direct(db);
  auto r = tqtest::Run(c.get(), "INFO %s", section);
  const std::string text = r && r->str ? r->str : "";
  const auto at = text.find(field);
  return at == std::string::npos ? 0
                                 : std::stoll(text.substr(at + field.size()));
}

long long PsubscribeCalls(int db) {
  return InfoNumber(db, "commandstats", "cmdstat_psubscribe:calls=");
}

// Every command the server ran, the INFO that asks included.
long long CommandsProcessed(int db) {
  return InfoNumber(db, "stats", "total_commands_processed:");
}

std::string Listing() {
  return Printed([] { tqredis_pubsub_stats_show(); });
}

std::string DataCheckNum(const char *db) {
  const std::string slot = SlotDump("pubsub", db);
  const auto at = slot.find("\tdatacheck_num=");
  return at == std::string::npos
             ? ""
             : slot.substr(at + 1, slot.find('\r', at) - at - 1);
}

std::string Subscribed(const char *db, const char *pattern) {
  return std::string("<tqredis_psubscrible>:>>>>psubscribe ") + db + "@0 " +
         pattern + " ok\r\n";
}

std::string Checked(const char *db) {
  return std::string("<tqredis_db_psubscrible>:>>>>>") + db +
         " data check begin...\r\n<tqredis_db_psubscrible>:>>>>>" + db +
         " data check over\r\n";
}

std::string NotConnected(const char *db) {
  return std::string("<tqredis_psubscrible>:pubsub ") + db +
         " not connected\r\n";
}

class Subscribing : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(servers_.StartAll()); }

  void Init(std::vector<pubsub_mng> entries) {
    ASSERT_EQ(tqredis_init(entries.data(), static_cast<int>(entries.size()),
                           RecordCheck, 2),
              0);
  }

  tqtest::DeviceServers servers_;
};

}  // namespace

TEST_F(Subscribing, FirstPassSubscribesEveryPatternAndRunsTheDataCheckOnce) {
  Init({Entry(0, "a*"), Entry(0, "b*"), Entry(0, "c*")});
  ConnectAll();
  EXPECT_EQ(Logged(kLife, Pass), Subscribed("redis_de_global", "a*") +
                                     Subscribed("redis_de_global", "b*") +
                                     Subscribed("redis_de_global", "c*") +
                                     Checked("redis_de_global") +
                                     Checked("redis_ce_global") +
                                     Checked("redis_host"));
  // The two databases without subscriptions get their check once too.
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_EQ(PsubscribeCalls(0), 3);
  EXPECT_EQ(NumPat(0), 3);
  EXPECT_EQ(NumPat(1), 0);
  EXPECT_EQ(NumPat(2), 0);
  EXPECT_EQ(DataCheckNum("redis_de_global"), "datacheck_num=1");
  EXPECT_EQ(DataCheckNum("redis_ce_global"), "datacheck_num=1");
  EXPECT_EQ(DataCheckNum("redis_host"), "datacheck_num=1");
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=a* flag=1\r\n"
            "\tdbid=0 key_pattern=b* flag=1\r\n"
            "\tdbid=0 key_pattern=c* flag=1\r\n"
            "redis_ce_global datacheck: 1\r\n"
            "redis_ce_global pubsublist:\r\n"
            "redis_host datacheck: 1\r\n"
            "redis_host pubsublist:\r\n");
}

TEST_F(Subscribing, SecondPassSendsNothingAndRunsNoCheck) {
  Init({Entry(0, "a*"), Entry(0, "b*"), Entry(0, "c*")});
  ConnectAll();
  Pass();
  ASSERT_EQ(g_checked.size(), 3u);
  long long before[3];
  for (int db = 0; db < 3; ++db) before[db] = CommandsProcessed(db);
  EXPECT_EQ(Logged(kAllButData, Pass), "");
  // Each server ran only the second INFO since the first.
  for (int db = 0; db < 3; ++db)
    EXPECT_EQ(CommandsProcessed(db), before[db] + 1);
  EXPECT_EQ(PsubscribeCalls(0), 3);
  EXPECT_EQ(g_checked.size(), 3u);
  EXPECT_EQ(DataCheckNum("redis_de_global"), "datacheck_num=1");
}

TEST_F(Subscribing, SubscribedPatternsHearKeyspaceEventsOfLogicalDatabase0) {
  Init({Entry(1, "dev:*")});
  ConnectAll();
  Pass();
  EXPECT_EQ(Receivers(1, "__keyspace@0__:dev:7"), 1);
  EXPECT_EQ(Receivers(1, "__keyspace@1__:dev:7"), 0);
  EXPECT_EQ(Receivers(1, "__keyspace@0__:card:7"), 0);
  EXPECT_EQ(Receivers(0, "__keyspace@0__:dev:7"), 0);
}

TEST_F(Subscribing,
       OneStandingAndTwoNewPatternsAreSubscribedWithoutADataCheck) {
  Init({Entry(0, "a*")});
  ConnectAll();
  Pass();
  ASSERT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
  // The standing node comes first: the walk must not stop at it.
  pubsub_mng more[] = {Entry(0, "b*"), Entry(0, "c*")};
  ASSERT_EQ(tqredis_pubsub_register(more, 2), 0);
  EXPECT_EQ(Logged(kLife, Pass), Subscribed("redis_de_global", "b*") +
                                     Subscribed("redis_de_global", "c*"));
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_EQ(PsubscribeCalls(0), 3);
  EXPECT_EQ(NumPat(0), 3);
  EXPECT_EQ(DataCheckNum("redis_de_global"), "datacheck_num=1");
}

TEST_F(Subscribing, UnconnectedPubsubSlotSkipsEveryNodeAndTheCheckAtLevel4) {
  Init({Entry(0, "a*"), Entry(0, "b*"), Entry(0, "c*")});
  // Only the three refusals, at level 4: nothing at level 2.
  EXPECT_EQ(Logged(kAllButData, Pass), NotConnected("redis_de_global") +
                                           NotConnected("redis_de_global") +
                                           NotConnected("redis_de_global"));
  EXPECT_TRUE(g_checked.empty());
  EXPECT_EQ(NumPat(0), 0);
  EXPECT_EQ(PsubscribeCalls(0), 0);
  EXPECT_EQ(DataCheckNum("redis_de_global"), "datacheck_num=0");
  EXPECT_EQ(DataCheckNum("redis_host"), "datacheck_num=0");
  // Databases without subscriptions are marked done all the same.
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=a* flag=0\r\n"
            "\tdbid=0 key_pattern=b* flag=0\r\n"
            "\tdbid=0 key_pattern=c* flag=0\r\n"
            "redis_ce_global datacheck: 1\r\n"
            "redis_ce_global pubsublist:\r\n"
            "redis_host datacheck: 1\r\n"
            "redis_host pubsublist:\r\n");
}

TEST_F(Subscribing,
       DatabaseWithoutNodesMarkedDoneWhileUnconnectedIsNotCheckedLater) {
  Init({Entry(0, "a*")});
  Pass();
  ConnectAll();
  EXPECT_EQ(Logged(kLife, Pass),
            Subscribed("redis_de_global", "a*") + Checked("redis_de_global"));
  EXPECT_EQ(g_checked, std::vector<uint32_t>{0});
  EXPECT_EQ(DataCheckNum("redis_host"), "datacheck_num=0");
}

TEST_F(Subscribing, DatabaseWithoutNodesIsCheckedOnceOnItsFirstConnectedPass) {
  ASSERT_EQ(tqredis_init(nullptr, 0, RecordCheck, 2), -1);
  ConnectAll();
  EXPECT_EQ(Logged(kLife, Pass), Checked("redis_de_global") +
                                     Checked("redis_ce_global") +
                                     Checked("redis_host"));
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_EQ(Logged(kAllButData, Pass), "");
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_EQ(DataCheckNum("redis_ce_global"), "datacheck_num=1");
  for (int db = 0; db < 3; ++db) EXPECT_EQ(PsubscribeCalls(db), 0);
}

TEST_F(Subscribing, EveryDataCheckRunsInRegistrationOrderForEachDatabase) {
  static std::vector<std::string> calls;
  ASSERT_EQ(tqredis_init(
                nullptr, 0,
                [](uint32_t db) {
                  calls.push_back("first" + std::to_string(db));
                  return 0;
                },
                2),
            -1);
  ASSERT_EQ(tqredis_data_check_register([](uint32_t db) {
              calls.push_back("second" + std::to_string(db));
              return 0;
            }),
            0);
  ConnectAll();
  Pass();
  EXPECT_EQ(calls, (std::vector<std::string>{"first0", "second0", "first1",
                                             "second1", "first2", "second2"}));
  EXPECT_EQ(DataCheckNum("redis_de_global"), "datacheck_num=1");
}

TEST_F(Subscribing, ClearingFlagsOfAConnectedDatabaseIsRefusedAndKeepsThem) {
  Init({Entry(0, "a*"), Entry(0, "b*")});
  ConnectAll();
  Pass();
  const std::string listing = Listing();
  ASSERT_NE(listing.find("key_pattern=b* flag=1\r\n"), std::string::npos);
  const std::string log = Logged(kAllButData, [] {
    tqredis_lock();
    tqredis_psubflag_clear(TQREDIS_DB_DE_GLOBAL);
    tqredis_psubflag_clear(TQREDIS_DB_HOST);
    tqredis_unlock();
  });
  EXPECT_EQ(
      log,
      "<tqredis_psubflag_clear>:connected db[0] not allow to clear flag\r\n"
      "<tqredis_psubflag_clear>:connected db[2] not allow to clear flag\r\n");
  EXPECT_EQ(Listing(), listing);
  EXPECT_EQ(Logged(kAllButData, Pass), "");
  EXPECT_EQ(PsubscribeCalls(0), 2);
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 1, 2}));
}

TEST_F(Subscribing, ClearingFlagsOfAnUnconnectedDatabaseMakesItsCheckDueAgain) {
  Init({Entry(1, "a*"), Entry(1, "b*")});
  // Marked as a pass on a connection would leave them, with none open.
  for (tqredis_pubsub_node *node = g_tqredis_pubsub_list[1].next;
       node != &g_tqredis_pubsub_list[1]; node = node->next) {
    node->flag = 1;
  }
  g_tqredis_datacheck[2] = 1;
  const std::string log = Logged(kAllButData, [] {
    tqredis_lock();
    tqredis_psubflag_clear(TQREDIS_DB_CE_GLOBAL);
    tqredis_psubflag_clear(TQREDIS_DB_HOST);
    tqredis_unlock();
  });
  EXPECT_EQ(log, "");
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=a* flag=0\r\n"
            "\tdbid=0 key_pattern=b* flag=0\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n");
  tqredis_lock();
  EXPECT_EQ(tqredis_db_need_data_check(TQREDIS_DB_HOST), 1);
  EXPECT_EQ(tqredis_db_need_data_check(TQREDIS_DB_HOST), 0);
  tqredis_unlock();
}

TEST_F(Subscribing, NodeIsSubscribedOnceThenAnswers1WithoutSending) {
  Init({Entry(2, "k*")});
  ConnectAll();
  tqredis_pubsub_node *node = g_tqredis_pubsub_list[2].next;
  tqredis_lock();
  EXPECT_EQ(tqredis_psubscrible(node), 0);
  EXPECT_EQ(node->flag, 1);
  EXPECT_EQ(tqredis_psubscrible(node), 1);
  tqredis_unlock();
  EXPECT_EQ(PsubscribeCalls(2), 1);
  EXPECT_EQ(NumPat(2), 1);
}

TEST_F(Subscribing, DuplicatePatternsAreBothSubscribedOnTheOneConnection) {
  Init({Entry(2, "same*"), Entry(2, "same*")});
  ConnectAll();
  EXPECT_EQ(Logged(kLife, Pass),
            Checked("redis_de_global") + Checked("redis_ce_global") +
                Subscribed("redis_host", "same*") +
                Subscribed("redis_host", "same*") + Checked("redis_host"));
  EXPECT_EQ(PsubscribeCalls(2), 2);
  EXPECT_EQ(NumPat(2), 1);
  EXPECT_EQ(Receivers(2, "__keyspace@0__:same1"), 1);
}

TEST_F(Subscribing, BadIdsAndNoNodeAreRefusedWithoutTraffic) {
  Init({Entry(0, "a*")});
  ConnectAll();
  int rv = 0;
  tqredis_lock();
  EXPECT_EQ(Logged(kAllButData, [&] { rv = tqredis_psubscrible(nullptr); }),
            "<tqredis_psubscrible>:input arguments invalid\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(tqredis_db_need_data_check(3), 0);
  EXPECT_EQ(Logged(kAllButData, [] { tqredis_psubflag_clear(3); }), "");
  tqredis_unlock();
  EXPECT_EQ(PsubscribeCalls(0), 0);
}

namespace {

// What each data check read back through the library, and the lock levels
// its thread held when it was called.
std::vector<std::string> g_read;
std::vector<unsigned> g_depths;

int ReadingCheck(uint32_t db) {
  g_depths.push_back(tqredis::detail::LockDepth());
  redisReply *reply =
      tqredis_db_command(static_cast<int>(db), 0, -1, 0, "GET %s", "marker");
  g_read.push_back(reply != nullptr && reply->str != nullptr ? reply->str
                                                             : "?");
  tqredis_free_reply(reply);
  return 0;
}

}  // namespace

TEST_F(Subscribing, DataCheckRunsUnderTheLockAndMayIssueCommands) {
  for (int db = 0; db < 3; ++db) {
    auto c = tqtest::Direct(db);
    tqtest::Run(c.get(), "SET marker m%d", db);
  }
  pubsub_mng table[] = {Entry(0, "a*"), Entry(2, "b*")};
  ASSERT_EQ(tqredis_init(table, 2, ReadingCheck, 2), 0);
  tqredis_get_cardinfo();  // commands on the first two databases need it
  ConnectAll();
  Pass();
  EXPECT_EQ(g_read, (std::vector<std::string>{"m0", "m1", "m2"}));
  EXPECT_EQ(g_depths, (std::vector<unsigned>{1, 1, 1}));
  EXPECT_EQ(tqredis::detail::LockDepth(), 0u);
}

TEST_F(Subscribing, ServerRefusingAPatternEndsTheProcessAfterCopyingTheLog) {
  Init({Entry(0, "a*"), Entry(0, "b*")});
  ConnectAll();
  {
    // The server lets the default user subscribe to that one pattern only.
    auto c = tqtest::Direct(0);
    auto r = tqtest::Run(c.get(), "ACL SETUSER default resetchannels %s",
                         "&__keyspace@0__:a*");
    ASSERT_TRUE(r && r->type == REDIS_REPLY_STATUS);
  }
  EXPECT_EXIT(Pass(), ::testing::ExitedWithCode(0), "");
  const std::string copy =
      tqtest::ReadFile("/var/tmp/coredump/subscribe_test.limitlog");
  const auto ok = copy.find(">:>>>>psubscribe redis_de_global@0 a* ok\r\n");
  const auto drop =
      copy.find(">:>>>>redis_de_global[pubsub] disconnect[error=0 ]\r\n");
  const auto exit_line =
      copy.find(">:>>>>exit for disconnecting from redis_de_global\r\n");
  ASSERT_NE(ok, std::string::npos) << copy;
  ASSERT_NE(drop, std::string::npos) << copy;
  ASSERT_NE(exit_line, std::string::npos) << copy;
  EXPECT_LT(ok, drop);
  EXPECT_LT(drop, exit_line);
  EXPECT_EQ(copy.find("data check"), std::string::npos) << copy;
  EXPECT_EQ(copy.find("b* ok"), std::string::npos) << copy;
}

// A database whose server refuses connections at start: its patterns wait,
// and are made, with its data check, on the first pass after its pubsub
// connection comes up.
TEST(SubscribingLate, DatabaseDownAtStartIsSubscribedAndCheckedOnceItComesUp) {
  tqtest::DeviceEmulator emulator;
  ASSERT_TRUE(emulator.Start());
  ASSERT_EQ(emulator.Ctl({"refuse", "redis_ce_global", "0"}).exit_code, 0);
  pubsub_mng table[] = {Entry(1, "dev:*"), Entry(1, "card:*")};
  ASSERT_EQ(tqredis_init(table, 2, RecordCheck, 2), 0);
  tqredis_get_cardinfo();
  ConnectAll();
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_PUBSUB),
            0);
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_PUBSUB),
            1);

  EXPECT_EQ(Logged(kAllButData, Pass),
            Checked("redis_de_global") + NotConnected("redis_ce_global") +
                NotConnected("redis_ce_global") + Checked("redis_host"));
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 2}));

  ASSERT_EQ(emulator.Ctl({"clear", "all"}).exit_code, 0);
  tqredis_free_reply(
      tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ, -1, 0, "PING"));
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_PUBSUB),
            1);

  EXPECT_EQ(Logged(kAllButData, Pass),
            Subscribed("redis_ce_global", "dev:*") +
                Subscribed("redis_ce_global", "card:*") +
                Checked("redis_ce_global"));
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 2, 1}));
  EXPECT_EQ(NumPat(1), 2);
  EXPECT_EQ(Receivers(1, "__keyspace@0__:card:3"), 1);
  EXPECT_EQ(DataCheckNum("redis_ce_global"), "datacheck_num=1");

  EXPECT_EQ(Logged(kAllButData, Pass), "");
  EXPECT_EQ(g_checked, (std::vector<uint32_t>{0, 2, 1}));
}
