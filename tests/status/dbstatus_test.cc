// Querying the client status of a process: the test process itself and a
// name nobody uses against the device database emulator, status lines cut
// short and refused arguments against a scripted database, and a stock
// server that does not know the query.
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connect/cardinfo.h"
#include "support/emulator.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/server_side.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_cardinfo;

using tqtest::Logged;
using tqtest::WithoutTimes;

namespace {

int IgnoreDataCheck(uint32_t) { return 0; }
int IgnoreNotification(tqredis_pmsg *, void *) { return 0; }

// Three records filled with a pattern, so that untouched fields show.
struct Records {
  Records() { std::memset(st, 0x5a, sizeof(st)); }
  tqredis_client_status st[3];
};

// The field `key` of the server's own client-list line for client `name`.
std::string ServerField(int db, const std::string &name,
                        const std::string &key) {
  auto list = tqtest::RunOn(db, "CLIENT LIST");
  if (list == nullptr || list->type != REDIS_REPLY_STRING) return "?";
  const std::regex line("(^|\n)([^\n]* name=" + name + " [^\n]*)");
  std::smatch m;
  const std::string text(list->str, list->len);
  if (!std::regex_search(text, m, line)) return "?";
  const std::regex field("(^| )" + key + "=([^ ]*)");
  std::smatch f;
  const std::string found = m[2].str();
  return std::regex_search(found, f, field) ? f[2].str() : "?";
}

class Dbstatus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator_.Start());
    // One subscription, so that the pubsub client has figures of its own.
    pubsub_mng entry{};
    entry.key_db = 2;
    std::strcpy(entry.key_pattern, "k*");
    entry.hook = IgnoreNotification;
    ASSERT_EQ(tqredis_init(&entry, 1, IgnoreDataCheck, 2), 0);
    tqredis_db_connect();
    tqredis_get_cardinfo();
    tqredis_db_psubscrible();
  }
  tqtest::DeviceEmulator emulator_;
};

}  // namespace

TEST_F(Dbstatus, OwnProcessShowsReadAndPubsubOnlineWithTheirFigures) {
  Records r;
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rv = tqredis_get_proc_dbstatus(TQREDIS_DB_HOST, g_tqredis_proc_name, r.st);
  });
  ASSERT_EQ(rv, 0);
  const std::string proc = g_tqredis_proc_name;
  const tqredis_client_status &read = r.st[0];
  const tqredis_client_status &pubsub = r.st[2];
  EXPECT_EQ(read.online, 1);
  EXPECT_EQ(pubsub.online, 1);
  EXPECT_EQ(std::string(read.name), proc + "-read");
  EXPECT_EQ(std::string(pubsub.name), proc + "-pubsub");
  // The server's own figures for the same clients.
  EXPECT_EQ(std::to_string(read.id), ServerField(2, proc + "-read", "id"));
  EXPECT_EQ(std::to_string(pubsub.id), ServerField(2, proc + "-pubsub", "id"));
  EXPECT_STREQ(read.addr, "/tmp/redis/redis_host.sock:0");
  EXPECT_EQ(pubsub.psub, 1);
  EXPECT_EQ(read.psub, 0);
  EXPECT_STREQ(pubsub.flags, "PU");  // a pubsub client on a unix socket
  EXPECT_STREQ(pubsub.cmd, "psubscribe");
  EXPECT_GT(read.cmd_num, 0);
  EXPECT_GT(read.in_bytes, 0);
  // This card writes redis_host through its read client: the write slot
  // is not asked for and only its online byte changes.
  EXPECT_EQ(r.st[1].online, 0);
  EXPECT_EQ(r.st[1].id, 0x5a5a5a5a);
  const std::string trace = WithoutTimes(log);
  EXPECT_NE(
      trace.find("<tqredis_db_out_log>:>>>>OUT_LOG redis_host clientlistname " +
                 proc + "-read flag=0 tid=0\r\n"),
      std::string::npos)
      << trace;
  EXPECT_EQ(trace.find("clientlistname " + proc + "-write"), std::string::npos);
  const std::regex online(
      "<tqredis_get_proc_dbstatus>:" + proc +
      "-read online: id=" + std::to_string(read.id) +
      " addr=/tmp/redis/redis_host.sock:0 fd=\\d+ name=" + proc +
      "-read age=\\d+idle=\\d+ flags=U db=0 sub=0 psub=0 "
      "multi=-1 cmd_num=\\d+ cmd_per_sec=\\d+ in_bytes=\\d+ "
      "out_bytes=\\d+ in_bps=\\d+ out_bps=\\d+ qbuf=\\d+ "
      "qbuf-free=\\d+ obl=\\d+ oll=\\d+ omem=\\d+ events=r "
      "cmd=\\S+\r\n");
  EXPECT_TRUE(std::regex_search(log, online)) << log;
}

TEST_F(Dbstatus, ProcessNobodyUsesIsOfflineEverywhere) {
  Records r;
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rv = tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "nobody", r.st);
  });
  EXPECT_EQ(rv, 0);
  for (const tqredis_client_status &s : r.st) EXPECT_EQ(s.online, 0);
  EXPECT_EQ(WithoutTimes(log),
            "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global clientlistname "
            "nobody-read flag=0 tid=0\r\n"
            "<tqredis_parse_dbstatus>:offline\n"
            "<tqredis_get_proc_dbstatus>:nobody-read offline\n"
            "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global clientlistname "
            "nobody-pubsub flag=0 tid=0\r\n"
            "<tqredis_parse_dbstatus>:offline\n"
            "<tqredis_get_proc_dbstatus>:nobody-pubsub offline\n");
}

TEST_F(Dbstatus, EmptyOrNullArgumentsAreRefusedWithoutAnyQuery) {
  Records r;
  std::vector<int> rv;
  const std::string log = Logged(TQREDIS_LOG_DATA | TQREDIS_LOG_ERROR, [&] {
    rv.push_back(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "", r.st));
    rv.push_back(
        tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, nullptr, r.st));
    rv.push_back(
        tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "nobody", nullptr));
  });
  EXPECT_EQ(rv, std::vector<int>(3, -2));
  EXPECT_EQ(log,
            "<tqredis_get_proc_dbstatus>:input arguments invalid\r\n"
            "<tqredis_get_proc_dbstatus>:input arguments invalid\r\n"
            "<tqredis_get_proc_dbstatus>:input arguments invalid\r\n");
  EXPECT_EQ(r.st[0].online, 0x5a);
}

TEST_F(Dbstatus, DatabaseThreeIsRefusedByTheCommandPathAndReadsOffline) {
  Records r;
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rv = tqredis_get_proc_dbstatus(3, g_tqredis_proc_name, r.st);
  });
  EXPECT_EQ(rv, 0);
  for (const tqredis_client_status &s : r.st) EXPECT_EQ(s.online, 0);
  const std::string proc = g_tqredis_proc_name;
  // Database 3 is taken for one without write clients of its own: no
  // write query.
  EXPECT_EQ(log.find("-write"), std::string::npos) << log;
  for (const char *op : {"read", "pubsub"}) {
    EXPECT_NE(log.find("<tqredis_get_proc_dbstatus>:get " + proc + "-" + op +
                       " status fail, rv=-2\n"),
              std::string::npos)
        << op << "\n"
        << log;
  }
}

namespace {

// A scripted database 0, for status lines no server writes.
class DbstatusPeer : public tqtest::ScriptedDatabase {};

// A stock server has no client-list query by name.
class DbstatusStock : public tqtest::ConnectedDevice {};

std::string Bulk(const std::string &s) {
  return "$" + std::to_string(s.size()) + "\r\n" + s + "\r\n";
}

const char kLine[] =
    "id=5 addr=/tmp/redis/redis_de_global.sock:0 fd=12 name=p-pubsub age=1 "
    "idle=0 flags=P db=0 sub=0 psub=3 multi=-1 cmd_num=4 cmd_per_sec=0 "
    "in_bytes=300 out_bytes=200 in_bps=0 out_bps=0 qbuf=0 qbuf-free=0 obl=0 "
    "oll=0 omem=0 events=r cmd=psubscribe\n";

}  // namespace

TEST_F(DbstatusPeer, LineCutShortAfterOmemIsOfflineWithItsCount) {
  const std::string cut =
      "id=4 addr=/tmp/redis/redis_de_global.sock:0 fd=11 name=p-read age=1 "
      "idle=0 flags=N db=0 sub=0 psub=0 multi=-1 cmd_num=4 cmd_per_sec=0 "
      "in_bytes=300 out_bytes=200 in_bps=0 out_bps=0 qbuf=0 qbuf-free=0 obl=0 "
      "oll=0 omem=0";
  Serve({{"CLIENT LIST p-read", {Bulk(cut)}},
         {"CLIENT LIST p-pubsub", {Bulk(kLine)}}});
  Records r;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "p", r.st), 0);
  });
  EXPECT_EQ(r.st[0].online, 0);
  EXPECT_EQ(r.st[2].online, 1);
  EXPECT_EQ(r.st[2].psub, 3);
  EXPECT_NE(log.find("<tqredis_parse_dbstatus>:status str invalid, rv=22 " +
                     cut + "\n<tqredis_get_proc_dbstatus>:p-read offline\n"),
            std::string::npos)
      << log;
}

TEST_F(DbstatusPeer, MasterCardAsksOnlyForReadAndPubsub) {
  Serve({{"CLIENT LIST ", {Bulk("offline")}}});
  Records r;
  EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "p", r.st), 0);
  EXPECT_EQ(
      peer_->Commands("CLIENT LIST"),
      (std::vector<std::string>{"CLIENT LIST p-read", "CLIENT LIST p-pubsub"}));
  EXPECT_EQ(r.st[1].online, 0);
}

TEST_F(DbstatusPeer, CardThatIsNotTheMasterAsksForItsWriteClientToo) {
  Serve({{"CLIENT LIST p-write", {Bulk(kLine)}},
         {"CLIENT LIST ", {Bulk("offline")}}});
  g_tqredis_cardinfo.my_node = 1;  // the master stays node 0
  Records r;
  EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "p", r.st), 0);
  EXPECT_EQ(
      peer_->Commands("CLIENT LIST"),
      (std::vector<std::string>{"CLIENT LIST p-read", "CLIENT LIST p-write",
                                "CLIENT LIST p-pubsub"}));
  EXPECT_EQ(r.st[0].online, 0);
  EXPECT_EQ(r.st[1].online, 1);
  EXPECT_EQ(r.st[2].online, 0);
}

TEST_F(DbstatusPeer, EmptyProcSendsNothing) {
  Serve({});
  Records r;
  EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "", r.st), -2);
  EXPECT_TRUE(peer_->Commands("CLIENT LIST").empty());
}

TEST_F(DbstatusPeer, EmptyReplyIsOffline) {
  Serve({{"CLIENT LIST ", {Bulk("")}}});
  Records r;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "p", r.st), 0);
  });
  EXPECT_EQ(r.st[0].online, 0);
  EXPECT_EQ(r.st[2].online, 0);
  EXPECT_EQ(log.find("status str invalid"), std::string::npos);
  EXPECT_NE(log.find("<tqredis_parse_dbstatus>:offline\n"
                     "<tqredis_get_proc_dbstatus>:p-read offline\n"),
            std::string::npos)
      << log;
}

TEST_F(DbstatusPeer, StatusReplyIsAFailedQuery) {
  Serve({{"CLIENT LIST ", {"+OK\r\n"}}});
  Records r;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, "p", r.st), 0);
  });
  EXPECT_EQ(r.st[0].online, 0);
  EXPECT_NE(
      log.find("<tqredis_get_key_reply>:reply type error, type=5\n"
               "<tqredis_get_proc_dbstatus>:get p-read status fail, rv=-4\n"),
      std::string::npos)
      << log;
}

// The stock server answers the query by name with an error.
TEST_F(DbstatusStock, ServerWithoutTheQueryLeavesEveryClientOffline) {
  Records r;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_get_proc_dbstatus(TQREDIS_DB_CE_GLOBAL,
                                        g_tqredis_proc_name, r.st),
              0);
  });
  EXPECT_EQ(r.st[0].online, 0);
  EXPECT_EQ(r.st[2].online, 0);
  const std::string proc = g_tqredis_proc_name;
  EXPECT_NE(log.find("<check_reply>:command error: ERR "), std::string::npos)
      << log;
  EXPECT_NE(log.find("<tqredis_get_proc_dbstatus>:get " + proc +
                     "-read status fail, rv=-2\n"),
            std::string::npos)
      << log;
}

TEST_F(DbstatusPeer, LongProcessNameIsTracedCutAndQueriedWhole) {
  Serve({{"CLIENT LIST ", {Bulk("offline")}}});
  const std::string proc(200, 'p');
  Records r;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(
        tqredis_get_proc_dbstatus(TQREDIS_DB_DE_GLOBAL, proc.c_str(), r.st), 0);
  });
  EXPECT_NE(WithoutTimes(log).find("clientlistname " + std::string(126, 'p') +
                                   " flag=0 tid=0\r\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(peer_->Commands("CLIENT LIST").front(),
            "CLIENT LIST " + proc + "-read");
}
