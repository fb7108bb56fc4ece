// Recording every command (recordall=1) against real servers: each command
// through tqredis_db_command is an outbound record of its command word and
// first argument, a read's record carries its round trip, and writing the
// statistics records nothing of itself.
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "records/records.h"
#include "support/fixtures.h"
#include "support/server_side.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_out_log;
using tqredis::detail::kRingSize;
using tqtest::RunOn;

namespace {

class RecordAll : public tqtest::ConnectedDevice {
 protected:
  void SetUp() override {
    ConnectedDevice::SetUp();
    tqredis_dbg_cfg(2, 1);  // time statistics: thread ids and elapsed times
    ASSERT_EQ(tqredis_set_option("recordall", 1), 0);
  }
};

class RecordAllOff : public tqtest::ConnectedDevice {};

// The newest outbound record.
const tqredis_op_record &Last() {
  return g_tqredis_out_log
      .records[(g_tqredis_out_log.index + kRingSize - 1) % kRingSize];
}

long long ElapsedUsec(const tqredis_op_record &rec) {
  return static_cast<long long>(rec.elapsed_sec) * 1000000 + rec.elapsed_usec;
}

}  // namespace

TEST_F(RecordAll, APipelinedHsetIsRecordedWithItsKeyAndCommand) {
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                     "HSET %s %s %s", "dev/port/1", "speed", "100");
  ASSERT_EQ(g_tqredis_out_log.total, 1u);
  const tqredis_op_record &rec = Last();
  EXPECT_STREQ(rec.cmd, "hset");
  EXPECT_STREQ(rec.key, "dev/port/1");
  EXPECT_STREQ(rec.db, "redis_de_global");
  EXPECT_EQ(rec.tid, static_cast<int32_t>(syscall(SYS_gettid)));
  EXPECT_EQ(ElapsedUsec(rec), 0);  // a write is not timed
}

TEST_F(RecordAll, AReadIsRecordedWithItsRoundTrip) {
  RunOn(1, "SET name v");
  redisReply *reply =
      tqredis_db_command(1, TQREDIS_OP_READ, -1, 0, "GET %s", "name");
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "v");
  tqredis_free_reply(reply);
  ASSERT_EQ(g_tqredis_out_log.total, 1u);
  const tqredis_op_record &rec = Last();
  EXPECT_STREQ(rec.cmd, "get");
  EXPECT_STREQ(rec.key, "name");
  EXPECT_STREQ(rec.db, "redis_ce_global");
  EXPECT_GT(ElapsedUsec(rec), 0);
}

TEST_F(RecordAll, TheWordIsMatchedInAnyCaseAndTheKeyIsTheArgumentAsSent) {
  // One argument with a blank in it, as hiredis sends a %s.
  tqredis_db_command(2, TQREDIS_OP_WRITE, -1, 0, "sAdd %s %s", "a b", "m");
  EXPECT_STREQ(Last().cmd, "sadd");
  EXPECT_STREQ(Last().key, "a b");
  tqredis_db_command(2, TQREDIS_OP_WRITE, -1, 0, "%s %s", "LPUSH", "list");
  EXPECT_STREQ(Last().cmd, "lpush");
  EXPECT_STREQ(Last().key, "list");
}

TEST_F(RecordAll, ACommandWithoutAKeyCommandIdIsOtherAndMayHaveNoKey) {
  tqredis_free_reply(tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING"));
  EXPECT_STREQ(Last().cmd, "other");
  EXPECT_STREQ(Last().key, "");
  // Names of the table that are no command word are not matched either.
  tqredis_free_reply(
      tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "SMEMBERS %s", "s"));
  EXPECT_STREQ(Last().cmd, "other");
  EXPECT_STREQ(Last().key, "s");
  EXPECT_EQ(g_tqredis_out_log.total, 2u);
}

TEST_F(RecordAll, AKeyLongerThanARecordHoldsIsCut) {
  const std::string key(300, 'k');
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET %s 1", key.c_str());
  EXPECT_EQ(std::string(Last().key), key.substr(0, sizeof(Last().key) - 1));
}

TEST_F(RecordAll, WritingTheStatisticsRecordsNothingOfItself) {
  for (const char *key : {"k1", "k2", "k3"}) {
    tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "HSET %s f v", key);
  }
  tqredis_db_save_log();
  EXPECT_EQ(g_tqredis_out_log.total, 3u);
  EXPECT_EQ(g_tqredis_out_log.count, 3u);
  // A read on the same connection is answered after the pipelined writes.
  tqredis_free_reply(tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING"));
  auto stored = RunOn(2, "GET /arch/mom/recordall_test/out/2");
  ASSERT_NE(stored, nullptr);
  ASSERT_EQ(stored->type, REDIS_REPLY_STRING);
  const std::string text(stored->str, stored->len);
  EXPECT_NE(text.find("-redis_de_global-hset-k3-time=0.0-tid="),
            std::string::npos)
      << text;
  auto total = RunOn(2, "HGET /arch/mom/recordall_test/out/stats cmd_total");
  ASSERT_NE(total, nullptr);
  EXPECT_STREQ(total->str, "3");
}

TEST_F(RecordAll, TheLibrarysOwnOperationsKeepTheirOneRecord) {
  // Expiring keys on the walk: a SCAN page, then a PTTL and a DEL per key
  // that expires, each already an outbound record of the walk's own.
  RunOn(1, "SET walk:1 v PX 5000");
  ASSERT_EQ(tqredis_del_expire_key_pattern(1, "walk:*", 10), 0);
  ASSERT_EQ(g_tqredis_out_log.total, 3u);
  const auto &records = g_tqredis_out_log.records;
  EXPECT_STREQ(records[0].cmd, "scan");
  EXPECT_STREQ(records[0].key, "walk:*");
  EXPECT_STREQ(records[1].cmd, "pttl");
  EXPECT_STREQ(records[1].key, "walk:1");
  EXPECT_STREQ(records[2].cmd, "del");
  EXPECT_STREQ(records[2].key, "walk:1");
  // A client status query: one "clientlistname" record per connection asked.
  tqredis_client_status st[3];
  ASSERT_EQ(tqredis_get_proc_dbstatus(2, "nosuchproc", st), 0);
  EXPECT_EQ(g_tqredis_out_log.total, 5u);  // read and pubsub; no write slot
  EXPECT_STREQ(Last().cmd, "clientlistname");
  EXPECT_STREQ(Last().key, "nosuchproc-pubsub");
}

TEST_F(RecordAllOff, CommandsAreNotRecorded) {
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                     "HSET %s %s %s", "dev/port/1", "speed", "100");
  tqredis_free_reply(tqredis_db_command(0, TQREDIS_OP_READ, -1, 0, "GET x"));
  EXPECT_EQ(g_tqredis_out_log.total, 0u);
}

TEST_F(RecordAllOff, TurnedOnAtRunTimeItRecordsFromTheNextCommand) {
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET a 1");
  ASSERT_EQ(tqredis_set_option("recordall", 1), 0);
  tqredis_db_command(0, TQREDIS_OP_WRITE, -1, 0, "SET b 1");
  EXPECT_EQ(g_tqredis_out_log.total, 1u);
  EXPECT_STREQ(Last().key, "b");
  EXPECT_STREQ(Last().cmd, "set");
}
