// Commands through tqredis_db_command against real servers: reads, pipelined
// writes and their threshold, slot choice, blocking waits and threads.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixtures.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using namespace std::chrono_literals;
using tqtest::Logged;
using tqtest::Printed;
using tqtest::SlotDump;

namespace {

unsigned Pending(const char *op, const char *db) {
  const std::string slot = SlotDump(op, db);
  const auto at = slot.find("\tappend_cmd_num=");
  return at == std::string::npos
             ? 9999u
             : static_cast<unsigned>(std::stoul(slot.substr(at + 16)));
}

long long DbSize(int db) {
  auto c = tqtest::Direct(db);
  auto r = tqtest::Run(c.get(), "DBSIZE");
  return r ? r->integer : -1;
}

// Waits until the server has taken in what was written to it.
long long DbSizeReaching(int db, long long expected) {
  long long size = -1;
  for (int i = 0; i < 200 && (size = DbSize(db)) != expected; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  return size;
}

class Command : public tqtest::ConnectedDevice {};

}  // namespace

TEST_F(Command, ReadReturnsTheReplyToTheCaller) {
  redisReply *reply =
      tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, -1, 0, "PING");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->type, REDIS_REPLY_STATUS);
  EXPECT_STREQ(reply->str, "PONG");
  tqredis_free_reply(reply);
}

TEST_F(Command, ErrorReplyIsReturnedForTheCallerToCheck) {
  redisReply *reply = tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ,
                                         -1, 0, "NOSUCHCOMMAND %s", "x");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(tqredis_check_reply(reply), 0);
  tqredis_free_reply(reply);
}

TEST_F(Command, ArgumentsAreSentAsWholeStrings) {
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 1, "SET %s %s", "k",
                     "a b");
  redisReply *reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                         0, "STRLEN %s", "k");
  // The pipelined SET's own reply comes first on this connection.
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "OK");
  tqredis_free_reply(reply);
  reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->integer, 3);
  tqredis_free_reply(reply);
}

TEST_F(Command, LaterReadReceivesTheOldestUnreadReply) {
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 1, "SET %s %s",
                     "key", "value");
  redisReply *first = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                         0, "GET %s", "key");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->type, REDIS_REPLY_STATUS);  // the SET's "OK"
  EXPECT_STREQ(first->str, "OK");
  tqredis_free_reply(first);
  redisReply *second = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                          0, "GET %s", "key");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->type, REDIS_REPLY_STRING);  // the first GET's "value"
  EXPECT_STREQ(second->str, "value");
  tqredis_free_reply(second);
}

TEST_F(Command, ReadWritesOutPendingWritesAndResetsTheCount) {
  for (int i = 0; i < 3; ++i)
    tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0, "SET k%d v",
                       i);
  EXPECT_EQ(Pending("read", "redis_host"), 3u);
  EXPECT_EQ(DbSize(2), 0);
  redisReply *reply =
      tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "DBSIZE");
  ASSERT_NE(reply, nullptr);
  tqredis_free_reply(reply);
  EXPECT_EQ(Pending("read", "redis_host"), 0u);
  EXPECT_EQ(DbSizeReaching(2, 3), 3);
}

TEST_F(Command, ThirtyOneWritesWaitAndTheThirtySecondWritesAll) {
  for (int i = 0; i < 31; ++i) {
    EXPECT_EQ(tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0,
                                 "SET k%d %d", i, i),
              nullptr);
  }
  EXPECT_EQ(Pending("read", "redis_de_global"), 31u);
  EXPECT_EQ(DbSize(0), 0)
      << "nothing may reach the server before the threshold";
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0,
                     "SET k31 31");
  EXPECT_EQ(Pending("read", "redis_de_global"), 0u);
  EXPECT_EQ(DbSizeReaching(0, 32), 32);
}

TEST_F(Command, ThresholdOfOneWritesEveryCommand) {
  tqredis_set_cmd_commit_thres(1);
  tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  EXPECT_EQ(Pending("read", "redis_ce_global"), 0u);
  EXPECT_EQ(DbSizeReaching(1, 1), 1);
}

TEST_F(Command, ConfigurationTypeThreeSetsTheThreshold) {
  tqredis_dbg_cfg(3, 2);
  tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  EXPECT_EQ(Pending("read", "redis_ce_global"), 1u);
  tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET b 1");
  EXPECT_EQ(Pending("read", "redis_ce_global"), 0u);
  EXPECT_EQ(DbSizeReaching(1, 2), 2);
}

TEST_F(Command, CommitFlagWritesAtOnceWhateverTheThreshold) {
  tqredis_set_cmd_commit_thres(1000);
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1,
                     TQREDIS_CMD_COMMIT, "SET b 1");
  EXPECT_EQ(Pending("read", "redis_de_global"), 0u);
  EXPECT_EQ(DbSizeReaching(0, 2), 2);
}

TEST_F(Command, CommitAllWritesEveryReadAndWriteSlot) {
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0, "SET b 1");
  tqredis_commit_command_all();
  EXPECT_EQ(Pending("read", "redis_de_global"), 0u);
  EXPECT_EQ(Pending("read", "redis_host"), 0u);
  EXPECT_EQ(DbSizeReaching(0, 1), 1);
  EXPECT_EQ(DbSizeReaching(2, 1), 1);
}

TEST_F(Command, WritesOnTheMasterCardTravelOnTheReadSlot) {
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  EXPECT_EQ(Pending("read", "redis_de_global"), 1u);
  EXPECT_EQ(Pending("read", "redis_host"), 1u);
  EXPECT_EQ(Pending("write", "redis_de_global"), 0u);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 0);
  EXPECT_EQ(tqtest::ClientNames(0), "command_test-read command_test-pubsub");
}

TEST_F(Command, PubsubCommandIsAppendedOnThePubsubSlot) {
  tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_PUBSUB, -1,
                     TQREDIS_CMD_COMMIT, "PSUBSCRIBE %s", "__keyspace@0__:x*");
  EXPECT_EQ(Pending("pubsub", "redis_ce_global"), 0u);
  auto c = tqtest::Direct(1);
  long long patterns = -1;
  for (int i = 0; i < 200 && patterns != 1; ++i) {
    auto r = tqtest::Run(c.get(), "PUBSUB NUMPAT");
    patterns = r ? r->integer : -1;
    if (patterns != 1) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(patterns, 1);
}

TEST_F(Command, ThreadsShareTheConnectionsSafelyWithTheLockOn) {
  constexpr int kThreads = 4;
  constexpr int kEach = 200;
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&bad, t] {
      for (int i = 0; i < kEach; ++i) {
        redisReply *r = tqredis_db_command(
            TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, -1, 0, "INCR counter");
        if (r == nullptr || r->type != REDIS_REPLY_INTEGER) ++bad;
        tqredis_free_reply(r);
        tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0,
                           "SADD members %d-%d", t, i);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  tqredis_commit_command_all();
  EXPECT_EQ(bad, 0);
  auto c0 = tqtest::Direct(0);
  auto counter = tqtest::Run(c0.get(), "GET counter");
  ASSERT_NE(counter, nullptr);
  EXPECT_STREQ(counter->str, "800");
  auto c2 = tqtest::Direct(2);
  long long members = -1;
  for (int i = 0; i < 200 && members != kThreads * kEach; ++i) {
    auto r = tqtest::Run(c2.get(), "SCARD members");
    members = r ? r->integer : -1;
    if (members != kThreads * kEach) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(members, kThreads * kEach);
  EXPECT_EQ(Pending("read", "redis_host"), 0u);
}

namespace {

// Servers as a test chooses; nothing connected, tqredis_init() not called.
class CommandWait : public tqtest::LateHostServer {};

}  // namespace

TEST_F(CommandWait,
       NoReconnectFlagOnAnUnconnectedSlotGivesUpAfterOneDisconnect) {
  ASSERT_TRUE(servers_.Start(0));
  ASSERT_TRUE(servers_.Start(2));
  tqredis_init(nullptr, 0, nullptr, 0);
  tqredis_db_connect();
  tqredis_get_cardinfo();
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ), 0);
  redisReply *reply = reinterpret_cast<redisReply *>(1);
  EXPECT_EQ(Logged(0xff,
                   [&] {
                     reply = tqredis_db_command(
                         TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ, -1,
                         TQREDIS_CMD_NO_RECONNECT, "PING");
                   }),
            "<tqredis_db_try_reconnect>:>>>>redis_ce_global[read flag=2] try "
            "to reconnect\r\n");
  EXPECT_EQ(reply, nullptr);
}

TEST_F(CommandWait, CallBeforeInitBlocksUntilInitIsDone) {
  ASSERT_TRUE(servers_.StartAll());
  std::atomic<bool> done{false};
  redisReply *reply = nullptr;
  std::thread caller([&] {
    reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING");
    done = true;
  });
  std::this_thread::sleep_for(1500ms);
  EXPECT_FALSE(done) << "a command must wait for tqredis_init()";
  tqredis_init(nullptr, 0, nullptr, 2);
  caller.join();
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "PONG");
  tqredis_free_reply(reply);
  const std::string log = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  EXPECT_NE(
      log.find(">:redis_host operate before mom init[0] or context init, \r\n"),
      std::string::npos);
}

TEST_F(CommandWait, ServerAbsentAtFirstCommandIsWaitedForUntilItComes) {
  ASSERT_NO_FATAL_FAILURE(PingTheHostServerStartedAfter(3s, 2));
  const std::string log =
      tqtest::Messages(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  EXPECT_NE(log.find("<tqredis_db_try_reconnect>:>>>>redis_host[read flag=0] "
                     "try to reconnect\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<tqredis_reconnect_thread>:>>>>redis_host[read] "
                     "reconnect thread enter...\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<tqredis_reconnect_thread>:>>>>redis_host read reconnect "
                     "thread quit\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(
      log.find(
          "<tqredis_db_reconnect>:>>>>redis_host[read] reconnect finish\r\n"),
      std::string::npos)
      << log;
}
