// Reading the replies of pipelined writes (replies=1) against real servers:
// a read after writes receives its own reply, the server keeps no pile of
// unread replies, error replies to writes are logged and counted, and the
// expiring delete keeps its DELs pipelined. With the switch off, the unread
// replies stay as they always have.
#include <string>

#include <gtest/gtest.h>

#include "command/command.h"
#include "connect/connect.h"
#include "connect/table.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/server_side.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::UnreadReplies;
using tqtest::Logged;
using tqtest::RunOn;
using tqtest::SlotDump;

namespace {

constexpr char kClientName[] = "replies_test-read";

class Replies : public tqtest::ConnectedDevice {
 protected:
  void SetUp() override {
    ConnectedDevice::SetUp();
    ASSERT_EQ(tqredis_set_option("replies", 1), 0);
    // The master card: writes to every database share the read connection.
    ASSERT_EQ(tqredis_calc_dbop(0, TQREDIS_OP_WRITE), TQREDIS_OP_READ);
  }
};

class RepliesOff : public tqtest::ConnectedDevice {};

long long Exists(int db, const char *key) {
  auto r = RunOn(db, "EXISTS %s", key);
  return r ? r->integer : -100;
}

// SETs of "k<i>" to "v<i>", pipelined on database 0, then a GET of "mine",
// which was set to "own" beforehand: what the GET returned.
std::string GetAfterPipelinedSets(int sets) {
  RunOn(0, "SET mine own");
  for (int i = 0; i < sets; ++i) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET k%d v%d", i, i);
  }
  redisReply *reply =
      tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET %s", "mine");
  if (reply == nullptr) return "(null)";
  const std::string got = reply->type == REDIS_REPLY_STRING
                              ? std::string(reply->str, reply->len)
                              : "type " + std::to_string(reply->type) + " " +
                                    (reply->str ? reply->str : "");
  tqredis_free_reply(reply);
  return got;
}

// The "omem=" figure of this process's read connection to database `db`, or
// -1 when the server does not list it.
long long Omem(int db) {
  auto list = RunOn(db, "CLIENT LIST");
  if (list == nullptr || list->type != REDIS_REPLY_STRING) return -1;
  const std::string text(list->str, list->len);
  const auto name = text.find(std::string(" name=") + kClientName + " ");
  if (name == std::string::npos) return -1;
  const auto omem = text.find(" omem=", name);
  if (omem == std::string::npos) return -1;
  return std::stoll(text.substr(omem + 6));
}

}  // namespace

TEST_F(Replies, GetAfterOnePipelinedSetReturnsItsOwnValue) {
  EXPECT_EQ(GetAfterPipelinedSets(1), "own");
  EXPECT_EQ(Exists(0, "k0"), 1);
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
}

TEST_F(Replies, GetAfterThirtyOnePipelinedSetsReturnsItsOwnValue) {
  EXPECT_EQ(GetAfterPipelinedSets(31), "own");
  EXPECT_EQ(Exists(0, "k30"), 1);
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
}

TEST_F(Replies, GetAfterThirtyTwoPipelinedSetsReturnsItsOwnValue) {
  EXPECT_EQ(GetAfterPipelinedSets(32), "own");
  EXPECT_EQ(Exists(0, "k31"), 1);
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
}

TEST_F(Replies, GetAfterAThousandPipelinedSetsReturnsItsOwnValue) {
  EXPECT_EQ(GetAfterPipelinedSets(1000), "own");
  EXPECT_EQ(Exists(0, "k999"), 1);
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
}

// Past 1024 unread replies a write waits for them: the server never holds
// more than that for us, whatever the number of writes.
TEST_F(Replies, AMillionPipelinedSetsLeaveTheServerNoPileOfReplies) {
  for (int i = 0; i < 1000000; ++i) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET k %d", i);
  }
  EXPECT_LE(UnreadReplies(TQREDIS_OP_READ, 0), 1024u);
  const long long omem = Omem(0);
  EXPECT_GE(omem, 0);
  EXPECT_LT(omem, 64 * 1024);
  redisReply *reply = tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET k");
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "999999");
  tqredis_free_reply(reply);
}

TEST_F(Replies, TheBlockingReadStartsPastTheBoundOf1024) {
  tqredis_set_cmd_commit_thres(100000);  // nothing goes out on its own
  for (int i = 0; i < 1024; ++i) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET k %d", i);
  }
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 1024u);
  EXPECT_EQ(Exists(0, "k"), 0);  // all still in the pipeline
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET k %d", 1024);
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
  auto value = RunOn(0, "GET k");
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value->str, "1024");
  EXPECT_NE(SlotDump("read", "redis_de_global").find("\tappend_cmd_num=0\r\n"),
            std::string::npos);
}

TEST_F(Replies, AFlushReadsTheRepliesThatAlreadyArrived) {
  for (int i = 0; i < 32; ++i) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET a%d x", i);
  }
  ASSERT_EQ(Exists(0, "a31"), 1);  // answered: the replies wait in our socket
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT, "SET b x");
  // At most the reply of the SET just written out can still be owed.
  EXPECT_LE(UnreadReplies(TQREDIS_OP_READ, 0), 1u);
  ASSERT_EQ(Exists(0, "b"), 1);
  tqredis_commit_command_all();  // the idle tick
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
}

TEST_F(Replies, AnErrorReplyToAWriteIsLoggedWithItsDatabaseAndNameAndCounted) {
  RunOn(0, "SET text abc");
  const std::string log = Logged(TQREDIS_LOG_ERROR, [] {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "INCR %s", "text");
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET %s %s", "other", "1");
    redisReply *reply =
        tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET %s", "text");
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(reply->str, "abc");
    tqredis_free_reply(reply);
  });
  EXPECT_EQ(log,
            "<SettleReply>:redis_de_global[read] INCR error reply: ERR value "
            "is not an integer or out of range\r\n");
  EXPECT_NE(SlotDump("read", "redis_de_global").find("\treply_errors=1\r\n"),
            std::string::npos);
}

// The counts appear in the statistics only with the switch on.
TEST_F(Replies, TheStatisticsShowUnreadRepliesAndErrorsPerConnection) {
  RunOn(1, "SET text abc");
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "INCR text");
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "INCR text");
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "SET x 1");
  const std::string before = SlotDump("read", "redis_ce_global");
  EXPECT_NE(before.find("\tdatacheck_num=0\r\n\tunread_replies=3\r\n"
                        "\treply_errors=0\r\n"),
            std::string::npos)
      << before;
  tqredis_free_reply(tqredis_db_command(1, TQREDIS_OP_READ, -1, 0, "PING"));
  const std::string after = SlotDump("read", "redis_ce_global");
  EXPECT_NE(after.find("\tunread_replies=0\r\n\treply_errors=2\r\n"),
            std::string::npos)
      << after;
  // Pubsub connections are answered to the pump: no counts there.
  EXPECT_EQ(SlotDump("pubsub", "redis_ce_global").find("unread_replies"),
            std::string::npos);
  ASSERT_EQ(tqredis_set_option("replies", 0), 0);
  EXPECT_EQ(SlotDump("read", "redis_ce_global").find("unread_replies"),
            std::string::npos);
}

// Writes sent before the switch was turned on are counted too.
TEST_F(RepliesOff, TurnedOnAtRunTimeTheNextReadStillReceivesItsOwnReply) {
  RunOn(0, "SET mine own");
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "INCR mine");
  ASSERT_EQ(tqredis_set_option("replies", 1), 0);
  std::string log;
  log = Logged(TQREDIS_LOG_ERROR, [] {
    redisReply *reply =
        tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET %s", "mine");
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(reply->str, "own");
    tqredis_free_reply(reply);
  });
  // Its name was not kept: it was sent with the switch off.
  EXPECT_EQ(log,
            "<SettleReply>:redis_de_global[read] (unknown) error reply: ERR "
            "value is not an integer or out of range\r\n");
}

TEST_F(RepliesOff, AReadAfterAPipelinedSetReceivesTheSetsOk) {
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  redisReply *reply = tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET a");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->type, REDIS_REPLY_STATUS);
  EXPECT_STREQ(reply->str, "OK");
  tqredis_free_reply(reply);
}

TEST_F(RepliesOff, AnErrorReplyToAWriteIsNeitherLoggedNorShown) {
  RunOn(0, "SET text abc");
  const std::string log = Logged(TQREDIS_LOG_ERROR, [] {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "INCR text");
    redisReply *reply = tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "PING");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->type, REDIS_REPLY_ERROR);  // the INCR's, handed on
    tqredis_free_reply(reply);
  });
  EXPECT_EQ(log, "");
  const std::string dump = tqtest::Printed([] { tqredis_basic_stats_show(); });
  EXPECT_EQ(dump.find("unread_replies"), std::string::npos);
  EXPECT_EQ(dump.find("reply_errors"), std::string::npos);
}

// A connection replaced under the count (dropped and connected again) owes
// nothing: its replies went with it.
TEST_F(Replies, ANewConnectionOnTheSlotStartsFromNoUnreadReply) {
  tqredis_set_cmd_commit_thres(100000);
  for (int i = 0; i < 5; ++i) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET k %d", i);
  }
  ASSERT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 5u);
  tqredis_conn_slot &slot = g_tqredis_connect_mng[TQREDIS_OP_READ][0];
  redisFree(slot.context);
  slot.context = nullptr;
  ASSERT_EQ(tqredis_connect(0, TQREDIS_OP_READ), 0);
  slot.append_cmd_num = 0;
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 0u);
  RunOn(0, "SET mine own");
  redisReply *reply = tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET mine");
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "own");
  tqredis_free_reply(reply);
  EXPECT_EQ(Exists(0, "k"), 0);  // never written out
}

// PTTLs of 5000, -1, -2 (no such key) and 5000: exactly the two expiring keys
// go, their DELs pipelined as writes (the last still waits in the pipeline
// until the idle tick) and no PTTL is handed a DEL's reply.
TEST_F(Replies, TheExpiringDeleteKeepsItsDelsPipelined) {
  RunOn(0, "SET a v PX 5000");
  RunOn(0, "SET b v");
  RunOn(0, "SET d v PX 5000");
  for (const char *key : {"a", "b", "c", "d"}) {
    EXPECT_EQ(tqredis_expire_key_del(0, key, nullptr), 0) << key;
  }
  EXPECT_EQ(Exists(0, "a"), 0);  // written out by the PTTL that followed
  EXPECT_EQ(Exists(0, "d"), 1);  // still pipelined
  EXPECT_EQ(UnreadReplies(TQREDIS_OP_READ, 0), 1u);
  tqredis_commit_command_all();
  EXPECT_EQ(Exists(0, "d"), 0);
  EXPECT_EQ(Exists(0, "b"), 1);
  EXPECT_EQ(tqtest::CommandCalls(0, "del"), 2);
  redisReply *reply = tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET b");
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "v");
  tqredis_free_reply(reply);
}

// Off, the DELs go as reads so that their replies are consumed at once.
TEST_F(RepliesOff, TheExpiringDeleteSendsItsDelsAsReadsOnTheMasterCard) {
  RunOn(0, "SET a v PX 5000");
  RunOn(0, "SET d v PX 5000");
  for (const char *key : {"a", "d"}) {
    EXPECT_EQ(tqredis_expire_key_del(0, key, nullptr), 0) << key;
  }
  EXPECT_EQ(Exists(0, "a"), 0);
  EXPECT_EQ(Exists(0, "d"), 0);  // nothing waits in a pipeline
}
