// The connection table, its accessors and the command path's checks, with no
// server anywhere.
#include <string>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "tqredis.h"

using tqtest::Logged;
using tqtest::Printed;
using tqtest::SlotDump;

namespace {}  // namespace

TEST(ConnectMng, NothingIsConnectedAfterLoad) {
  for (uint32_t op = 0; op < 3; ++op) {
    for (uint32_t db = 0; db < 3; ++db) {
      EXPECT_EQ(tqredis_db_is_connected(db, op), 0);
      EXPECT_EQ(tqredis_get_context(db, op), nullptr);
    }
  }
}

TEST(ConnectMng, IsConnectedRejectsABadOpNamingOpFirst) {
  int rv = -1;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR,
             [&] { rv = tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, 3); }),
      "<tqredis_db_is_connected>:input arguments invalid, op=3 db=0\r\n");
  EXPECT_EQ(rv, 0);
}

TEST(ConnectMng, GetContextRejectsABadDatabase) {
  redisContext *ctx = reinterpret_cast<redisContext *>(1);
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] { ctx = tqredis_get_context(3, TQREDIS_OP_READ); }),
            "<tqredis_get_context>:input arguments invalid, op=0 db=3\r\n");
  EXPECT_EQ(ctx, nullptr);
}

TEST(ConnectMng, RefreshSwitchesOnlyTheWriteSlotsOfTheFirstTwoDatabases) {
  tqredis_refresh_write_connect_mng(0, 1234);
  const std::string tcp_fields =
      "\tcontext=(nil)\r\n\tmode=1\r\n\tunixpath=/tmp/redis/"
      "redis_de_global.sock\r\n"
      "\thostname=0x100000\r\n\thostport=1234\r\n\tappend_cmd_num=0\r\n"
      "\tconnect_num=0\r\n\tdatacheck_num=0\r\n";
  EXPECT_EQ(SlotDump("write", "redis_de_global"), tcp_fields);
  EXPECT_NE(SlotDump("write", "redis_ce_global").find("\tmode=1\r\n"),
            std::string::npos);
  EXPECT_NE(SlotDump("write", "redis_ce_global").find("\thostport=1234\r\n"),
            std::string::npos);
  EXPECT_NE(SlotDump("write", "redis_host").find("\tmode=0\r\n\tunixpath"),
            std::string::npos);
  EXPECT_NE(SlotDump("read", "redis_de_global").find("\tmode=0\r\n"),
            std::string::npos);
  tqredis_refresh_write_connect_mng(7, 99);  // any non-zero: back to unix mode
  EXPECT_NE(SlotDump("write", "redis_de_global").find("\tmode=0\r\n"),
            std::string::npos);
  EXPECT_NE(SlotDump("write", "redis_de_global").find("\thostport=0\r\n"),
            std::string::npos);
}

TEST(ConnectMng, OnlyTheLowByteOfLocalCounts) {
  tqredis_refresh_write_connect_mng(static_cast<uint8_t>(0x100), 5);
  EXPECT_NE(SlotDump("write", "redis_ce_global").find("\tmode=1\r\n"),
            std::string::npos);
}

TEST(ConnectMng, HostNeverNeedsAWriteConnection) {
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_HOST), 0);
}

TEST(ConnectMng, WriteNeedIsUnknownBeforeTheCardInformation) {
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_DE_GLOBAL), -1);
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_CE_GLOBAL), -1);
  EXPECT_EQ(tqredis_get_write_connext_stats(77), -1);
}

TEST(ConnectMng, DatacheckCountOnlyOnThePubsubRow) {
  tqredis_datacheck_num_inc(TQREDIS_DB_CE_GLOBAL);
  tqredis_datacheck_num_inc(TQREDIS_DB_CE_GLOBAL);
  tqredis_datacheck_num_inc(5);  // out of range: ignored
  EXPECT_NE(SlotDump("pubsub", "redis_ce_global").find("\tdatacheck_num=2\r\n"),
            std::string::npos);
  EXPECT_NE(SlotDump("read", "redis_ce_global").find("\tdatacheck_num=0\r\n"),
            std::string::npos);
}

TEST(Connect, UnknownModeIsRefusedNamingTheOperation) {
  tqredis_conn_slot slot{};
  slot.mode = 5;
  redisContext *ctx = reinterpret_cast<redisContext *>(1);
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] {
                     ctx = tqredis_connect_redis(TQREDIS_DB_DE_GLOBAL,
                                                 TQREDIS_OP_WRITE, &slot);
                   }),
            "<tqredis_connect_redis>:write connect mode[5] error\r\n");
  EXPECT_EQ(ctx, nullptr);
}

TEST(Connect, MissingSocketGivesTheConnectErrorLine) {
  int rv = 0;
  EXPECT_EQ(
      Logged(
          TQREDIS_LOG_ERROR,
          [&] { rv = tqredis_connect(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ); }),
      "<tqredis_connect_redis>:connect redis_ce_global read[mode=0 "
      "path=/tmp/redis/redis_ce_global.sock hostname=0x100001 hostport=0] "
      "error: "
      "No such file or directory\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ), 0);
}

TEST(Disconnect, BadIdsAreLoggedOperationFirst) {
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR, [] { tqredis_disconnect(TQREDIS_OP_READ, 3); }),
      "<tqredis_disconnect>:input arguments invalid, op=0 db=3\r\n");
}

TEST(Disconnect, NeverConnectedSlotIsLeftAloneAndTheProcessGoesOn) {
  EXPECT_EQ(Logged(0xff,
                   [] {
                     tqredis_disconnect(TQREDIS_OP_WRITE, TQREDIS_DB_DE_GLOBAL);
                   }),
            "");
}

TEST(Reconnect, NoReconnectFlagGivesUpAtOnceWithoutAThread) {
  int rv = 0;
  EXPECT_EQ(Logged(0xff,
                   [&] {
                     rv = tqredis_db_try_reconnect(TQREDIS_DB_HOST,
                                                   TQREDIS_OP_READ, 2);
                   }),
            "<tqredis_db_try_reconnect>:>>>>redis_host[read flag=2] try to "
            "reconnect\r\n");
  EXPECT_EQ(rv, -1);
}

TEST(Reconnect, ArgumentReaderRejectsNullAndBadIds) {
  uint32_t db = 9;
  uint32_t op = 9;
  tqredis_reconnect_arg bad = {3, 0};
  tqredis_reconnect_arg good = {1, 2};
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR,
             [&] {
               EXPECT_EQ(tqredis_get_reconnect_db_op(nullptr, &db, &op), -1);
               EXPECT_EQ(tqredis_get_reconnect_db_op(&bad, &db, &op), -1);
             }),
      "<tqredis_get_reconnect_db_op>:input arguments error\r\n"
      "<tqredis_get_reconnect_db_op>:input arguments invalid, op=0 db=3\r\n");
  EXPECT_EQ(db, 9u);
  EXPECT_EQ(op, 9u);
  EXPECT_EQ(tqredis_get_reconnect_db_op(&good, &db, &op), 0);
  EXPECT_EQ(db, 1u);
  EXPECT_EQ(op, 2u);
}

TEST(Reconnect, ThreadWithABadArgumentEndsAtOnce) {
  tqredis_reconnect_arg bad = {0, 7};
  EXPECT_EQ(tqredis_reconnect_thread(&bad), nullptr);
  EXPECT_EQ(tqredis_reconnect_thread(nullptr), nullptr);
}

TEST(Command, ParamCheckNamesDatabaseAndOperation) {
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR,
             [] {
               EXPECT_EQ(
                   tqredis_db_command_param_check(3, TQREDIS_OP_READ, "GET k"),
                   0);
               EXPECT_EQ(tqredis_db_command_param_check(TQREDIS_DB_DE_GLOBAL, 3,
                                                        "GET k"),
                         0);
               EXPECT_EQ(tqredis_db_command_param_check(
                             TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE, nullptr),
                         0);
               EXPECT_EQ(tqredis_db_command_param_check(
                             TQREDIS_DB_HOST, TQREDIS_OP_PUBSUB, "GET k"),
                         1);
             }),
      "<tqredis_db_command_param_check>:input arguments invalid, db=3 op=0\r\n"
      "<tqredis_db_command_param_check>:input arguments invalid, db=0 op=3\r\n"
      "<tqredis_db_command_param_check>:input arguments invalid, db=1 "
      "op=1\r\n");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-security"
TEST(Command, BadArgumentsReturnNullWithoutBlockingEvenBeforeInit) {
  const char *no_format = nullptr;
  EXPECT_EQ(tqredis_db_command(3, TQREDIS_OP_READ, -1, 0, "GET k"), nullptr);
  EXPECT_EQ(tqredis_db_command(TQREDIS_DB_DE_GLOBAL, 3, -1, 0, "GET k"),
            nullptr);
  EXPECT_EQ(tqredis_db_command(-1, TQREDIS_OP_READ, -1, 0, "GET k"), nullptr);
  EXPECT_EQ(tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, -1, 0,
                               no_format),
            nullptr);
}
#pragma GCC diagnostic pop

TEST(Command, CommitOnAnUnconnectedSlotDoesNothing) {
  EXPECT_EQ(tqredis_commit_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, 1),
            0);
  EXPECT_EQ(tqredis_commit_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, 0), 0);
  tqredis_commit_command_all();
}

TEST(Command, SlotChoiceBeforeTheCardInformationIsRead) {
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ), 0);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_PUBSUB), 2);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE),
            1);  // unknown master: the write slot
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_HOST, TQREDIS_OP_WRITE),
            0);  // redis_host: always the read slot
}

TEST(Command, ExecOnAnUnconnectedSlotFailsInsteadOfCrashing) {
  va_list none{};
  redisReply *reply = nullptr;
  EXPECT_EQ(tqredis_exec_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, 0, 0,
                                 "PING", none, &reply),
            -1);
  EXPECT_EQ(reply, nullptr);
}
