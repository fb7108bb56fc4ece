// Connecting slots to real servers: the PING probe, client names, the sweep,
// and the fatal path of a lost live connection.
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "support/peer.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::Logged;
using tqtest::Printed;
using tqtest::SlotDump;

namespace {

class Connect : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(servers_.StartAll()); }
  tqtest::DeviceServers servers_;
};

long long CommandsProcessed(int db) {
  auto c = tqtest::Direct(db);
  auto info = tqtest::Run(c.get(), "INFO stats");
  const std::string text = info ? info->str : "";
  const auto at = text.find("total_commands_processed:");
  return at == std::string::npos ? -1 : std::stoll(text.substr(at + 25));
}

}  // namespace

TEST_F(Connect, SlotConnectsAndIsNamedAfterProcessAndOperation) {
  std::string log;
  log = Logged(TQREDIS_LOG_LIFE, [] {
    EXPECT_EQ(tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  });
  EXPECT_EQ(log,
            "<tqredis_connect>:>>>>redis_host read[mode=0 "
            "path=/tmp/redis/redis_host.sock "
            "hostname= hostport=0] connected\r\n");
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ), 1);
  EXPECT_NE(tqredis_get_context(TQREDIS_DB_HOST, TQREDIS_OP_READ), nullptr);
  EXPECT_EQ(tqtest::ClientNames(2), "connect_test-read");
  EXPECT_NE(SlotDump("read", "redis_host").find("\tconnect_num=1\r\n"),
            std::string::npos);
}

TEST_F(Connect, ConnectingAConnectedSlotSendsNothingAndCountsNothing) {
  ASSERT_EQ(tqredis_connect(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_PUBSUB), 0);
  const long long before = CommandsProcessed(0);
  EXPECT_EQ(tqredis_connect(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_PUBSUB), 0);
  // The second INFO counts the first one, and nothing else.
  EXPECT_EQ(CommandsProcessed(0), before + 1);
  EXPECT_NE(SlotDump("pubsub", "redis_de_global").find("\tconnect_num=1\r\n"),
            std::string::npos);
}

TEST_F(Connect,
       SweepConnectsReadAndPubsubButNeverWriteBeforeTheCardInformation) {
  tqredis_db_connect();
  for (int db = 0; db < 3; ++db) {
    EXPECT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_READ), 1);
    EXPECT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB), 1);
    EXPECT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_WRITE), 0);
    EXPECT_EQ(tqtest::ClientNames(db), "connect_test-read connect_test-pubsub");
  }
}

TEST_F(Connect, SweepNeverConnectsAWriteSlotOnTheMasterCard) {
  tqredis_get_cardinfo();
  tqredis_db_connect();
  for (int db = 0; db < 3; ++db)
    EXPECT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_WRITE), 0);
  EXPECT_EQ(tqtest::ClientNames(0), "connect_test-read connect_test-pubsub");
}

TEST_F(Connect, SweepSkipsPubsubOfADatabaseWhoseReadSlotFails) {
  servers_.Stop(1);
  tqredis_db_connect();
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ), 0);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_PUBSUB),
            0);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_PUBSUB), 1);
}

TEST_F(Connect, RefusedConnectionLogsHiredisErrorText) {
  servers_.Kill(1);  // the socket file stays: the connect is refused
  int rv = 0;
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] {
                     rv = tqredis_connect(TQREDIS_DB_CE_GLOBAL,
                                          TQREDIS_OP_PUBSUB);
                   }),
            "<tqredis_connect_redis>:connect redis_ce_global pubsub[mode=0 "
            "path=/tmp/redis/redis_ce_global.sock hostname=0x100001 "
            "hostport=0] error: "
            "Connection refused\r\n");
  EXPECT_EQ(rv, -1);
}

TEST_F(Connect, PingAnsweredWithAnErrorFailsTheConnect) {
  servers_.Stop(2);
  tqtest::ScriptedPeer peer(tqtest::kSocketPaths[2], {"-ERR loading\r\n"});
  int rv = 0;
  const std::string log = Logged(TQREDIS_LOG_WARN | TQREDIS_LOG_LIFE, [&] {
    rv = tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ);
  });
  EXPECT_EQ(log, "<tqredis_db_wait_ready>:redis_host read ping fail\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  EXPECT_EQ(peer.pings(), 1);
}

TEST_F(Connect, PingAnsweredWithAnotherStatusIsProbedAgainEverySecond) {
  servers_.Stop(2);
  tqtest::ScriptedPeer peer(tqtest::kSocketPaths[2],
                            {"+LOADING\r\n", "+LOADING\r\n", "+PONG\r\n"});
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_WARN | TQREDIS_LOG_LIFE, [&] {
    rv = tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ);
  });
  EXPECT_EQ(log,
            "<tqredis_db_wait_ready>:redis_host read try to ping...\r\n"
            "<tqredis_db_wait_ready>:redis_host read try to ping...\r\n"
            "<tqredis_connect>:>>>>redis_host read[mode=0 "
            "path=/tmp/redis/redis_host.sock "
            "hostname= hostport=0] connected\r\n");
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(peer.pings(), 3);
}

TEST_F(Connect, NameTheServerRefusesFailsTheConnect) {
  // A blank is not allowed in a client name: the server refuses it.
  const auto child =
      tqtest::RunProbe("a b", {"cfg", "1", "15", "connect", "2", "0"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("connect=-1\n"), std::string::npos) << child.out;
  const std::string log = tqtest::ReadFile("/tmp/tqredis/a b.limitlog");
  EXPECT_NE(log.find("]<tqredis_set_client_name, "), std::string::npos) << log;
  EXPECT_NE(log.find(">:redis_host read client setname fail\r\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(tqtest::ClientNames(2), "");
}

TEST_F(Connect, DisconnectingALiveSlotEndsTheProcessAfterCopyingTheLog) {
  ASSERT_EQ(tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  EXPECT_EXIT(tqredis_disconnect(TQREDIS_OP_READ, TQREDIS_DB_HOST),
              ::testing::ExitedWithCode(0), "");
  const std::string copy =
      tqtest::ReadFile("/var/tmp/coredump/connect_test.limitlog");
  EXPECT_NE(copy.find(">:>>>>redis_host[read] disconnect[error=0 ]\r\n"),
            std::string::npos)
      << copy;
  EXPECT_NE(copy.find(">:>>>>exit for disconnecting from redis_host\r\n"),
            std::string::npos)
      << copy;
}

TEST_F(Connect, CommandOnAConnectionWhoseServerDiedEndsTheProcess) {
  tqredis_init(nullptr, 0, nullptr, 0);
  ASSERT_EQ(tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  servers_.Kill(2);
  EXPECT_EXIT(
      tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING"),
      ::testing::ExitedWithCode(0), "");
  const std::string copy =
      tqtest::ReadFile("/var/tmp/coredump/connect_test.limitlog");
  EXPECT_NE(copy.find(">:>>>>redis_host[read flag=0] try to reconnect\r\n"),
            std::string::npos)
      << copy;
  EXPECT_NE(copy.find(">:>>>>exit for disconnecting from redis_host\r\n"),
            std::string::npos);
}

TEST_F(Connect, ExitCopiesTheLogOfANameWithShellCharactersWithoutAShell) {
  const std::string name = "a b;touch zz";
  unlink("zz");
  const auto child = tqtest::RunProbe(name, {"exit", "1"});
  EXPECT_EQ(child.exit_code, 0);
  const std::string copy =
      tqtest::ReadFile("/var/tmp/coredump/" + name + ".limitlog");
  EXPECT_NE(copy.find(">:>>>>exit for disconnecting from redis_ce_global\r\n"),
            std::string::npos)
      << copy;
  EXPECT_NE(access("zz", F_OK), 0) << "the name ran as a command";
}
