// Times to live against real servers: PEXPIRE reaching the server, the PTTL
// rule of the expiring delete, refused arguments, the trace of each command,
// and the write path on a card that has write connections of its own.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connect/cardinfo.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/server_side.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_cardinfo;

using tqtest::CommandCalls;
using tqtest::Logged;
using tqtest::RunOn;
using tqtest::SlotDump;
using tqtest::WithoutTimes;

namespace {

long long Pttl(int db, const char *key) {
  auto r = RunOn(db, "PTTL %s", key);
  return r ? r->integer : -100;
}

long long Exists(int db, const char *key) {
  auto r = RunOn(db, "EXISTS %s", key);
  return r ? r->integer : -100;
}

std::string Pending(const char *op, const char *db) {
  const std::string slot = SlotDump(op, db);
  const auto at = slot.find("\tappend_cmd_num=");
  return at == std::string::npos
             ? "?"
             : slot.substr(at + 16, slot.find('\r', at) - at - 16);
}

class Expire : public tqtest::ConnectedDevice {};

}  // namespace

TEST_F(Expire,
       PexpireKeyRefusesDatabaseThreeANullKeyAndTimesBelowOneSendingNothing) {
  int rv[4] = {};
  const std::string log = Logged(TQREDIS_LOG_DATA | TQREDIS_LOG_ERROR, [&rv] {
    rv[0] = tqredis_pexpire_key(3, "k", 2000);
    rv[1] = tqredis_pexpire_key(TQREDIS_DB_DE_GLOBAL, nullptr, 2000);
    rv[2] = tqredis_pexpire_key(TQREDIS_DB_DE_GLOBAL, "k", 0);
    rv[3] = tqredis_pexpire_key(TQREDIS_DB_CE_GLOBAL, "k", -7);
  });
  for (int r : rv) EXPECT_EQ(r, -2);
  EXPECT_EQ(
      log,
      "<tqredis_pexpire_key>:input arguments invalid: db=3 ageing_time=2000\n"
      "<tqredis_pexpire_key>:input arguments invalid: db=0 ageing_time=2000\n"
      "<tqredis_pexpire_key>:input arguments invalid: db=0 ageing_time=0\n"
      "<tqredis_pexpire_key>:input arguments invalid: db=1 ageing_time=-7\n");
  for (int db = 0; db < 3; ++db)
    EXPECT_EQ(CommandCalls(db, "pexpire"), 0) << db;
}

TEST_F(Expire, PexpireKeyGivesTheKeyItsTimeToLiveAtOnceTracedAsPexpire) {
  RunOn(0, "SET k v");
  std::string log = Logged(TQREDIS_LOG_DATA, [] {
    EXPECT_EQ(tqredis_pexpire_key(TQREDIS_DB_DE_GLOBAL, "k", 2000), 0);
  });
  const long long ttl = Pttl(0, "k");
  EXPECT_GT(ttl, 0);
  EXPECT_LE(ttl, 2000);
  EXPECT_EQ(CommandCalls(0, "pexpire"), 1);
  EXPECT_EQ(WithoutTimes(log),
            "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global pexpire k flag=0 "
            "tid=0\r\n");
}

TEST_F(Expire, PexpireKeyWritesOutWritesWaitingOnItsConnection) {
  tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1, 0, "SET %s %s",
                     "waiting", "1");
  ASSERT_EQ(Pending("read", "redis_de_global"), "1");
  ASSERT_EQ(Exists(0, "waiting"), 0);
  RunOn(0, "SET k v");
  EXPECT_EQ(tqredis_pexpire_key(TQREDIS_DB_DE_GLOBAL, "k", 2000), 0);
  EXPECT_EQ(Pending("read", "redis_de_global"), "0");
  EXPECT_EQ(Exists(0, "waiting"), 1);
  EXPECT_GT(Pttl(0, "k"), 0);
}

TEST_F(Expire, PexpireKeySendsAnEmptyKeyAsItIs) {
  EXPECT_EQ(tqredis_pexpire_key(TQREDIS_DB_CE_GLOBAL, "", 1000), 0);
  EXPECT_EQ(CommandCalls(1, "pexpire"), 1);
}

TEST_F(Expire, KeyPexpireSendsTheTimeItsArgumentPointsTo) {
  RunOn(2, "SET k v");
  int ageing = 3000;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&ageing] {
    EXPECT_EQ(tqredis_key_pexpire(TQREDIS_DB_HOST, "k", &ageing), 0);
  });
  const long long ttl = Pttl(2, "k");
  EXPECT_GT(ttl, 2000);
  EXPECT_LE(ttl, 3000);
  EXPECT_EQ(
      WithoutTimes(log),
      "<tqredis_db_out_log>:>>>>OUT_LOG redis_host pexpire k flag=0 tid=0\r\n");
}

TEST_F(Expire, KeyPexpireSendsZeroAndNegativeTimesAsTheyAre) {
  RunOn(0, "SET zero v");
  RunOn(0, "SET negative v");
  int zero = 0;
  int negative = -5;
  EXPECT_EQ(tqredis_key_pexpire(TQREDIS_DB_DE_GLOBAL, "zero", &zero), 0);
  EXPECT_EQ(tqredis_key_pexpire(TQREDIS_DB_DE_GLOBAL, "negative", &negative),
            0);
  // The server deletes a key whose time to live is not positive.
  EXPECT_EQ(CommandCalls(0, "pexpire"), 2);
  EXPECT_EQ(Exists(0, "zero"), 0);
  EXPECT_EQ(Exists(0, "negative"), 0);
}

TEST_F(Expire, KeyPexpireWithoutATimeSendsNothing) {
  EXPECT_EQ(tqredis_key_pexpire(TQREDIS_DB_DE_GLOBAL, "k", nullptr), 0);
  EXPECT_EQ(tqredis_key_pexpire(TQREDIS_DB_DE_GLOBAL, nullptr, nullptr), 0);
  EXPECT_EQ(CommandCalls(0, "pexpire"), 0);
}

TEST_F(Expire, ExpireKeyDelDeletesAKeyThatHasATimeToLive) {
  RunOn(0, "SET a v PX 5000");
  const std::string log = Logged(TQREDIS_LOG_DATA, [] {
    EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_DE_GLOBAL, "a", nullptr), 0);
  });
  tqredis_commit_command_all();
  EXPECT_EQ(Exists(0, "a"), 0);
  EXPECT_EQ(CommandCalls(0, "del"), 1);
  EXPECT_EQ(
      WithoutTimes(log),
      "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global pttl a flag=0 tid=0\r\n"
      "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global del a flag=0 "
      "tid=0\r\n");
}

TEST_F(Expire, ExpireKeyDelSendsOnlyThePttlForAKeyWithoutExpiryOrAMissingKey) {
  RunOn(1, "SET b v");
  EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_CE_GLOBAL, "b", nullptr), 0);
  EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_CE_GLOBAL, "c", nullptr), 0);
  tqredis_commit_command_all();
  EXPECT_EQ(Exists(1, "b"), 1);
  EXPECT_EQ(CommandCalls(1, "pttl"), 2);
  EXPECT_EQ(CommandCalls(1, "del"), 0);
}

// A delete sent after the first key must not be taken for the next key's
// time to live, nor left for a later read.
TEST_F(Expire, ExpireKeyDelOverSeveralKeysDeletesOnlyTheExpiringOne) {
  RunOn(2, "SET a v PX 5000");
  RunOn(2, "SET b v");
  for (const char *key : {"a", "b", "c"}) {
    EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_HOST, key, nullptr), 0) << key;
  }
  tqredis_commit_command_all();
  EXPECT_EQ(Exists(2, "a"), 0);
  EXPECT_EQ(Exists(2, "b"), 1);
  EXPECT_EQ(CommandCalls(2, "del"), 1);
  redisReply *reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                         0, "GET %s", "b");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->type, REDIS_REPLY_STRING);
  EXPECT_STREQ(reply->str, "v");
  tqredis_free_reply(reply);
}

TEST_F(Expire, ExpireKeyDelWithoutAPttlReplyFailsAfterRvMinusTwo) {
  int rv = 0;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&rv] {
    rv = tqredis_expire_key_del(3, "k", nullptr);
  });
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(log,
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"
            "<tqredis_expire_key_del>:PTTL get expire time fail, rv=-2\n"
            "<tqredis_free_reply>:reply = NULL\r\n");
}

TEST_F(Expire, ExpireKeyDelWithANullKeyFailsSendingNothing) {
  int rv = 0;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&rv] {
    rv = tqredis_expire_key_del(TQREDIS_DB_DE_GLOBAL, nullptr, nullptr);
  });
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(log, "<tqredis_expire_key_del>:PTTL get expire time fail, rv=-2\n");
  EXPECT_EQ(CommandCalls(0, "pttl"), 0);
}

// A database answering from a script, for a PTTL of exactly 0, which a
// server gives only within the last millisecond of a key's life.
class ExpirePeer : public tqtest::ScriptedDatabase {
 protected:
  void SetUp() override {
    ScriptedDatabase::SetUp();
    if (HasFatalFailure()) return;
    Serve({{"PTTL zero", {":0\r\n"}},
           {"PTTL none", {":-1\r\n"}},
           {"DEL ", {":1\r\n"}}});
  }
};

TEST_F(ExpirePeer, ExpireKeyDelDeletesAKeyWhosePttlIsZero) {
  EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_DE_GLOBAL, "zero", nullptr), 0);
  tqredis_commit_command_all();
  EXPECT_EQ(peer_->Commands("PTTL"), std::vector<std::string>{"PTTL zero"});
  EXPECT_EQ(peer_->Commands("DEL"), std::vector<std::string>{"DEL zero"});
}

TEST_F(ExpirePeer, ExpireKeyDelSendsNoDeleteForPttlMinusOne) {
  EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_DE_GLOBAL, "none", nullptr), 0);
  tqredis_commit_command_all();
  EXPECT_EQ(peer_->Commands("PTTL"), std::vector<std::string>{"PTTL none"});
  EXPECT_TRUE(peer_->Commands("DEL").empty());
}

// A card that is not the master writes the first two databases through
// write connections of their own: there the delete is an ordinary pipelined
// write that waits for the commit threshold.
class ExpireNotMaster : public Expire {
 protected:
  void SetUp() override {
    Expire::SetUp();
    g_tqredis_cardinfo.my_node = 1;  // the master stays node 0
    tqredis_db_connect();            // the write slots come up
  }
};

TEST_F(ExpireNotMaster, TheDeleteWaitsInTheWritePipelineUntilItIsCommitted) {
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 1);
  RunOn(0, "SET a v PX 5000");
  EXPECT_EQ(tqredis_expire_key_del(TQREDIS_DB_DE_GLOBAL, "a", nullptr), 0);
  EXPECT_EQ(Pending("write", "redis_de_global"), "1");
  EXPECT_EQ(Exists(0, "a"), 1);
  tqredis_commit_command_all();
  EXPECT_EQ(Pending("write", "redis_de_global"), "0");
  for (int i = 0; i < 200 && Exists(0, "a") != 0; ++i) select_sleep(0, 10000);
  EXPECT_EQ(Exists(0, "a"), 0);
}

TEST_F(ExpireNotMaster, PexpireGoesOutAtOnceOnTheWriteConnection) {
  RunOn(1, "SET k v");
  EXPECT_EQ(tqredis_pexpire_key(TQREDIS_DB_CE_GLOBAL, "k", 4000), 0);
  EXPECT_EQ(Pending("write", "redis_ce_global"), "0");
  for (int i = 0; i < 200 && Pttl(1, "k") < 0; ++i) select_sleep(0, 10000);
  EXPECT_GT(Pttl(1, "k"), 0);
}
