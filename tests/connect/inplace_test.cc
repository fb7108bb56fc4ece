// Reconnecting in place (reconnect=1) against the device database emulator:
// each kind of connection lost to a close, to a close while connecting is
// refused, and to the emulator stopped and started again. The process goes
// on, the connection-event hook sees each loss and restore in order, a lost
// subscription connection is made again with its patterns and one data
// check, and writes that were never sent are sent on the new connection.
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "connect/inplace_host.h"
#include "support/conn_events.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::ConnEvent;
using tqtest::HostView;
using tqtest::PumpUntil;

namespace {

using tqtest::AwaitServerValue;
using tqtest::InPlace;
using tqtest::kDb;
using tqtest::kOp;
using tqtest::LibraryLockHeld;
using tqtest::ReconnectLines;
using tqtest::ServerValue;
using tqtest::Text;

// One kind of connection, on the database whose slot of that kind the
// tests lose.
struct Kind {
  const char *name;
  uint32_t op;
  uint32_t db;
};
constexpr Kind kKinds[] = {{"read", TQREDIS_OP_READ, 2},
                           {"write", TQREDIS_OP_WRITE, 1},
                           {"pubsub", TQREDIS_OP_PUBSUB, 0}};
enum Fault { kClose, kRefuse, kRestart };
constexpr const char *kFaults[] = {"close", "refuse", "restart"};

class InPlaceKinds
    : public InPlace,
      public ::testing::WithParamInterface<std::tuple<int, int>> {
 protected:
  // Uses the kind's connection as a host would, so that the library meets
  // the loss and restores the slot: a read returns the value set before,
  // a write lands, the pump brings the subscriptions back.
  void Use(const Kind &kind, const std::string &value) {
    if (kind.op == TQREDIS_OP_READ) {
      redisReply *r =
          tqredis_db_command(kind.db, TQREDIS_OP_READ, -1, 0, "GET kr");
      EXPECT_EQ(Text(r), value);
      tqredis_free_reply(r);
    } else if (kind.op == TQREDIS_OP_WRITE) {
      EXPECT_EQ(
          tqredis_db_command(kind.db, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                             "SET kw %s", value.c_str()),
          nullptr);
      EXPECT_EQ(AwaitServerValue(kind.db, "kw", value), value);
    } else {
      EXPECT_TRUE(PumpUntil(
          [&] { return events_.Count(kind.db, TQREDIS_OP_PUBSUB, 1) == 1; }));
    }
  }
};

std::string KindsName(
    const ::testing::TestParamInfo<std::tuple<int, int>> &info) {
  return std::string(kKinds[std::get<0>(info.param)].name) + "_" +
         kFaults[std::get<1>(info.param)];
}

}  // namespace

TEST_P(InPlaceKinds, ProcessCarriesOnAndEachLossIsFollowedByItsRestore) {
  const Kind &kind = kKinds[std::get<0>(GetParam())];
  const Fault fault = static_cast<Fault>(std::get<1>(GetParam()));
  ASSERT_NO_FATAL_FAILURE(StartHost());
  const std::string value = std::string("before-") + kFaults[fault];
  auto direct = tqtest::Direct(static_cast<int>(kind.db));
  ASSERT_EQ(Text(tqtest::Run(direct.get(), "SET kr %s", value.c_str()).get()),
            "OK");
  direct.reset();

  std::map<std::string, std::string> expected;
  const std::string slot = std::string(kDb[kind.db]) + "[" + kind.name + "]";
  expected[slot] = "01";
  if (fault == kClose) {
    ASSERT_NO_FATAL_FAILURE(Close(kind.db, kind.op));
  } else if (fault == kRefuse) {
    // Connecting fails for a while after the loss: the restore waits (the
    // command in the reconnection's one-second steps, the pump in its one
    // attempt a second) and the failed attempts are no restores.
    const auto refuse = emulator_.Ctl({"refuse", kDb[kind.db], "1500"});
    ASSERT_EQ(refuse.exit_code, 0) << refuse.out;
    ASSERT_NO_FATAL_FAILURE(Close(kind.db, kind.op));
  } else {
    // Every connection goes; the servers come back empty.
    emulator_.Stop();
    ASSERT_TRUE(emulator_.Start());
    auto again = tqtest::Direct(static_cast<int>(kind.db));
    ASSERT_EQ(Text(tqtest::Run(again.get(), "SET kr %s", value.c_str()).get()),
              "OK");
    for (uint32_t db = 0; db < 3; ++db)
      expected[std::string(kDb[db]) + "[pubsub]"] = "01";
  }

  Use(kind, value);
  if (fault == kRestart) {
    // The pump meets the loss of every subscription connection.
    EXPECT_TRUE(PumpUntilPubsubRestored(1)) << tqtest::ToString(events_.All());
  }
  EXPECT_EQ(events_.PerSlot(), expected) << tqtest::ToString(events_.All());
  EXPECT_FALSE(events_.Broken()) << tqtest::ToString(events_.All());
  EXPECT_EQ(tqredis_db_is_connected(kind.db, kind.op), 1);

  // The data check ran once for each subscription connection made again,
  // after it was.
  for (uint32_t db = 0; db < 3; ++db) {
    const int restored = events_.Count(db, TQREDIS_OP_PUBSUB, 1);
    EXPECT_EQ(HostView::Get().Checks(db), 1 + restored) << kDb[db];
    EXPECT_EQ(events_.PubsubTrail(db), restored ? "c01c" : "c") << kDb[db];
  }
  ASSERT_NO_FATAL_FAILURE(ExpectNotified("kafter", "after-" + value));
  // The restored slot carries commands again, and nothing more was lost.
  if (kind.op != TQREDIS_OP_PUBSUB) Use(kind, value);
  EXPECT_EQ(events_.PerSlot(), expected) << tqtest::ToString(events_.All());
}

INSTANTIATE_TEST_SUITE_P(Faults, InPlaceKinds,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(0, 1, 2)),
                         KindsName);

TEST_F(InPlace, LossAndRestoreAreLoggedAndCountedInTheStatistics) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_EQ(Text(tqtest::Run(tqtest::Direct(2).get(), "SET kr v").get()), "OK");
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  const std::string read_log =
      tqtest::Logged(TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE, [] {
        redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "GET kr");
        EXPECT_EQ(Text(r), "v");
        tqredis_free_reply(r);
      });
  EXPECT_EQ(ReconnectLines(read_log),
            "redis_host[read] connection lost, reconnect in place[error=1 "
            "Broken pipe]\r\n"
            ">>>>redis_host[read] connection restored, restores=1\r\n")
      << read_log;

  ASSERT_NO_FATAL_FAILURE(Close(0, TQREDIS_OP_PUBSUB));
  const std::string pubsub_log =
      tqtest::Logged(TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE, [this] {
        EXPECT_TRUE(PumpUntil(
            [this] { return events_.Count(0, TQREDIS_OP_PUBSUB, 1) == 1; }));
      });
  EXPECT_EQ(ReconnectLines(pubsub_log),
            "redis_de_global[pubsub] connection lost, reconnect in "
            "place[error=3 Server closed the connection]\r\n"
            ">>>>redis_de_global[pubsub] connection restored, restores=1\r\n")
      << pubsub_log;

  // A second loss of the same slot counts on.
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  const std::string again_log = tqtest::Logged(TQREDIS_LOG_LIFE, [] {
    tqredis_free_reply(tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING"));
  });
  EXPECT_EQ(ReconnectLines(again_log),
            ">>>>redis_host[read] connection restored, restores=2\r\n")
      << again_log;

  const std::string read_dump = tqtest::SlotDump("read", "redis_host");
  EXPECT_NE(read_dump.find("\tdatacheck_num=0\r\n\trestores=2\r\n"),
            std::string::npos)
      << read_dump;
  EXPECT_NE(read_dump.find("\tunconfirmed=0\r\n"), std::string::npos)
      << read_dump;
  const std::string pubsub_dump = tqtest::SlotDump("pubsub", "redis_de_global");
  EXPECT_NE(pubsub_dump.find("\tdatacheck_num=2\r\n\trestores=1\r\n"),
            std::string::npos)
      << pubsub_dump;
  EXPECT_EQ(pubsub_dump.find("unconfirmed="), std::string::npos) << pubsub_dump;
  const std::string untouched = tqtest::SlotDump("write", "redis_ce_global");
  EXPECT_NE(untouched.find("\trestores=0\r\n"), std::string::npos) << untouched;
  EXPECT_NE(untouched.find("\tunconfirmed=0\r\n"), std::string::npos)
      << untouched;
  EXPECT_EQ(tqtest::ToString(events_.All()),
            "redis_host[read] down\nredis_host[read] up\n"
            "redis_de_global[pubsub] down\nredis_de_global[pubsub] up\n"
            "redis_host[read] down\nredis_host[read] up\n");
}

// A command's reconnection connects every slot that is missing, but a lost
// subscription connection is the pump's: only the pump restores it, with
// its patterns and one data check, and the host hears of it from there.
TEST_F(InPlace, CommandsReconnectionLeavesALostSubscriptionToThePump) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(Close(0, TQREDIS_OP_PUBSUB));
  // Stops once the pump met the loss, before its next call restores it.
  ASSERT_TRUE(PumpUntil(
      [this] { return events_.Count(0, TQREDIS_OP_PUBSUB, 0) == 1; }));
  ASSERT_EQ(events_.Count(0, TQREDIS_OP_PUBSUB, 1), 0);
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING");
  EXPECT_EQ(Text(r), "PONG");
  tqredis_free_reply(r);
  EXPECT_EQ(tqredis_db_is_connected(0, TQREDIS_OP_PUBSUB), 0);
  EXPECT_EQ(events_.PubsubTrail(0), "c0");
  EXPECT_TRUE(PumpUntil([] { return HostView::Get().Checks(0) == 2; }));
  for (int i = 0; i < 5; ++i) tqredis_pubsub();
  EXPECT_EQ(events_.PubsubTrail(0), "c01c");
  EXPECT_EQ(HostView::Get().Checks(0), 2);
  EXPECT_EQ(events_.PerSlot(), (std::map<std::string, std::string>{
                                   {"redis_de_global[pubsub]", "01"},
                                   {"redis_host[read]", "01"}}));
  EXPECT_FALSE(events_.Broken());
  ASSERT_NO_FATAL_FAILURE(ExpectNotified("kafter", "after"));
  EXPECT_NE(tqtest::SlotDump("pubsub", "redis_de_global")
                .find("\tdatacheck_num=2\r\n\trestores=1\r\n"),
            std::string::npos);
}

TEST_F(InPlace, WaitLimitBoundsARestoreThatCannotConnectAndTheNextUseRestores) {
  ASSERT_EQ(tqredis_set_option("waitlimit", 500), 0);
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_EQ(Text(tqtest::Run(tqtest::Direct(2).get(), "SET kr v").get()), "OK");
  ASSERT_EQ(emulator_.Ctl({"refuse", "redis_host", "0"}).exit_code, 0);
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "GET kr");
  EXPECT_EQ(r, nullptr);
  tqredis_free_reply(r);
  EXPECT_EQ(tqredis_db_is_connected(2, TQREDIS_OP_READ), 0);
  EXPECT_EQ(tqtest::ToString(events_.All()), "redis_host[read] down\n");
  ASSERT_EQ(emulator_.Ctl({"clear", "redis_host"}).exit_code, 0);
  r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "GET kr");
  EXPECT_EQ(Text(r), "v");
  tqredis_free_reply(r);
  EXPECT_EQ(tqtest::ToString(events_.All()),
            "redis_host[read] down\nredis_host[read] up\n");
  EXPECT_FALSE(events_.Broken());
}

// Writes appended below the commit threshold are still in the library when
// the connection goes: they are written on the new one, each exactly once,
// before the command that met the loss.
TEST_F(InPlace, UnsentWritesAreSentOnTheNewConnectionOnce) {
  ASSERT_NO_FATAL_FAILURE(StartHost());
  tqredis_set_cmd_commit_thres(100);
  for (int i = 0; i < 3; ++i)
    tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "INCR kc");
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "RPUSH kl first");
  EXPECT_EQ(ServerValue(1, "kc"), "<nil>") << "written out too early";
  ASSERT_NO_FATAL_FAILURE(Close(1, TQREDIS_OP_WRITE));
  std::string log;
  log = tqtest::Logged(TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE, [] {
    tqredis_db_command(1, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                       "RPUSH kl second");
  });
  // Without replies=1 nothing is known to be unconfirmed.
  EXPECT_EQ(ReconnectLines(log),
            "redis_ce_global[write] connection lost, reconnect in "
            "place[error=1 Broken pipe]\r\n"
            ">>>>redis_ce_global[write] connection restored, restores=1\r\n")
      << log;
  EXPECT_EQ(AwaitServerValue(1, "kc", "3"), "3");
  auto c = tqtest::Direct(1);
  auto list = tqtest::Run(c.get(), "LRANGE kl 0 -1");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->type, REDIS_REPLY_ARRAY);
  ASSERT_EQ(list->elements, 2u);
  EXPECT_EQ(Text(list->element[0]), "first");
  EXPECT_EQ(Text(list->element[1]), "second");
  EXPECT_NE(tqtest::SlotDump("write", "redis_ce_global")
                .find("\tappend_cmd_num=0\r\n"),
            std::string::npos);
  EXPECT_EQ(tqtest::ToString(events_.All()),
            "redis_ce_global[write] down\nredis_ce_global[write] up\n");
}

// With replies=1 the library knows how many written commands were never
// answered: those are counted and logged as unconfirmed; the unsent ones
// still go out.
TEST_F(InPlace, WrittenButUnansweredWritesAreCountedUnconfirmed) {
  ASSERT_EQ(tqredis_set_option("replies", 1), 0);
  ASSERT_NO_FATAL_FAILURE(StartHost());
  tqredis_set_cmd_commit_thres(100);
  // The emulator swallows these five: written, never answered.
  ASSERT_EQ(emulator_.Ctl({"stall", "redis_ce_global", "0"}).exit_code, 0);
  for (int i = 0; i < 5; ++i)
    tqredis_db_command(1, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT, "INCR ku");
  // And these two stay in the library.
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "INCR ku");
  tqredis_db_command(1, TQREDIS_OP_WRITE, -1, 0, "INCR ku");
  ASSERT_NO_FATAL_FAILURE(Close(1, TQREDIS_OP_WRITE));
  ASSERT_EQ(emulator_.Ctl({"clear", "redis_ce_global"}).exit_code, 0);
  const std::string log =
      tqtest::Logged(TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE, [] {
        tqredis_db_command(1, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                           "INCR ku");
      });
  // Counted before the connection is dropped, while its figures are there.
  EXPECT_EQ(ReconnectLines(log),
            "redis_ce_global[write] 5 written commands unconfirmed\r\n"
            "redis_ce_global[write] connection lost, reconnect in "
            "place[error=1 Broken pipe]\r\n"
            ">>>>redis_ce_global[write] connection restored, restores=1\r\n")
      << log;
  // The swallowed five never reached the server; the other three did.
  EXPECT_EQ(AwaitServerValue(1, "ku", "3"), "3");
  const std::string dump = tqtest::SlotDump("write", "redis_ce_global");
  EXPECT_NE(dump.find("\trestores=1\r\n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("\tunconfirmed=5\r\n"), std::string::npos) << dump;
  // The new connection's replies are counted from zero and read.
  redisReply *r = tqredis_db_command(1, TQREDIS_OP_READ, -1, 0, "GET ku");
  EXPECT_EQ(Text(r), "3");
  tqredis_free_reply(r);
}

// On the master card writes share the read connection: appended writes
// below the threshold go out on its new connection before the read that
// met the loss, whose reply is then its own (replies=1).
TEST_F(InPlace, UnsentWritesOnTheReadConnectionGoBeforeTheRetriedRead) {
  ASSERT_EQ(tqredis_set_option("replies", 1), 0);
  std::vector<pubsub_mng> table = {tqtest::WatchEntry(2, "k*")};
  ASSERT_EQ(tqredis_init(table.data(), 1, HostView::DataCheck, 2), 0);
  tqredis_db_connect();
  tqredis_get_cardinfo();
  tqredis_set_cmd_commit_thres(100);
  tqredis_db_command(2, TQREDIS_OP_WRITE, -1, 0, "SET km one");
  tqredis_db_command(2, TQREDIS_OP_WRITE, -1, 0, "APPEND km -two");
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "GET km");
  EXPECT_EQ(Text(r), "one-two");
  tqredis_free_reply(r);
  EXPECT_EQ(tqtest::ToString(events_.All()),
            "redis_host[read] down\nredis_host[read] up\n");
}

TEST_F(InPlace, HookRegisteredAsNullIsNoneAndTheProcessStillCarriesOn) {
  ASSERT_EQ(tqredis_conn_hook_register(nullptr, nullptr), 0);
  ASSERT_NO_FATAL_FAILURE(StartHost());
  ASSERT_NO_FATAL_FAILURE(Close(2, TQREDIS_OP_READ));
  redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING");
  EXPECT_EQ(Text(r), "PONG");
  tqredis_free_reply(r);
  EXPECT_EQ(events_.Count(), 0u);
  EXPECT_NE(tqtest::SlotDump("read", "redis_host").find("\trestores=1\r\n"),
            std::string::npos);
}

// Not the fixture: its own call would count as setting the switch.
TEST(InPlaceSafe, SafeTurnsReconnectOn) {
  tqtest::DeviceEmulator emulator;
  ASSERT_TRUE(emulator.Start());
  EXPECT_EQ(tqredis_get_option("reconnect"), 0);
  ASSERT_EQ(tqredis_set_option("safe", 1), 0);
  EXPECT_EQ(tqredis_get_option("reconnect"), 1);
  tqtest::ConnEvents events;
  events.Register(LibraryLockHeld);
  tqredis_init(nullptr, 0, nullptr, 2);
  redisReply *r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING");
  EXPECT_EQ(Text(r), "PONG");
  tqredis_free_reply(r);
  const auto done = emulator.Ctl({"close", "redis_host", "read"});
  ASSERT_EQ(done.out, "1\n");
  r = tqredis_db_command(2, TQREDIS_OP_READ, -1, 0, "PING");
  EXPECT_EQ(Text(r), "PONG");
  tqredis_free_reply(r);
  EXPECT_EQ(tqtest::ToString(events.All()),
            "redis_host[read] down\nredis_host[read] up\n");
}

TEST_F(InPlace, WithoutTheSwitchTheDumpHasNoRestoresOrUnconfirmed) {
  ASSERT_EQ(tqredis_set_option("reconnect", 0), 0);
  ASSERT_NO_FATAL_FAILURE(StartHost());
  const std::string dump = tqtest::Printed([] { tqredis_basic_stats_show(); });
  EXPECT_EQ(dump.find("restores="), std::string::npos) << dump;
  EXPECT_EQ(dump.find("unconfirmed="), std::string::npos) << dump;
}
