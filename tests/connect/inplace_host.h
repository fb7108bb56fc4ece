// A host process for the tests of reconnecting in place: the emulator, the
// switch on, the connection-event hook recorded, and a host with the lock on
// that watches "k*" on each database from a card that is not the master.
#ifndef TQREDIS_TESTS_CONNECT_INPLACE_HOST_H_
#define TQREDIS_TESTS_CONNECT_INPLACE_HOST_H_

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connect/cardinfo.h"
#include "core/lock.h"
#include "support/conn_events.h"
#include "support/emulator.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

namespace tqtest {

inline constexpr const char *kDb[3] = {"redis_de_global", "redis_ce_global",
                                       "redis_host"};
inline constexpr const char *kOp[3] = {"read", "write", "pubsub"};

// True while the library's lock is held, by this thread or by the thread
// that waits for this one (the reconnection thread runs for its starter).
inline bool LibraryLockHeld() {
  if (tqredis::detail::LockDepth() > 0) return true;
  const int rc = pthread_mutex_trylock(&tqredis::detail::g_tqredis_mutex);
  if (rc == 0) pthread_mutex_unlock(&tqredis::detail::g_tqredis_mutex);
  return rc == EBUSY;
}

inline std::string Text(const redisReply *r) {
  if (r == nullptr) return "<null>";
  if (r->type == REDIS_REPLY_NIL) return "<nil>";
  return r->str != nullptr ? std::string(r->str, r->len) : "<no text>";
}

// The value of `key` in database `db`, read from outside the library.
inline std::string ServerValue(int db, const std::string &key) {
  auto c = tqtest::Direct(db);
  auto r = tqtest::Run(c.get(), "GET %s", key.c_str());
  return Text(r.get());
}

// Waits until the server holds `want` for `key` (a pipelined write is
// written out, then carried out by the server at its own pace).
inline std::string AwaitServerValue(int db, const std::string &key,
                                    const std::string &want) {
  std::string got;
  for (int i = 0; i < 500; ++i) {
    got = ServerValue(db, key);
    if (got == want) break;
    usleep(10 * 1000);
  }
  return got;
}

// The lines of `log` that say a connection was lost or restored, or that
// writes went unconfirmed, without their "<func>:" prefix.
inline std::string ReconnectLines(const std::string &log) {
  static const std::regex prefix(R"(^<\w+>:)");
  std::string out;
  for (const std::string &line : tqtest::Lines(log)) {
    if (line.find("connection lost, reconnect in place") == std::string::npos &&
        line.find("connection restored") == std::string::npos &&
        line.find("written commands unconfirmed") == std::string::npos)
      continue;
    out += std::regex_replace(line, prefix, "");
  }
  return out;
}

class InPlace : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator_.Start());
    ASSERT_EQ(tqredis_set_option("reconnect", 1), 0);
    events_.Register(LibraryLockHeld);
    ASSERT_EQ(events_.registered(), 0);
    tqtest::HostView::Get().SetSink(&events_);
  }
  void TearDown() override { tqtest::HostView::Get().SetSink(nullptr); }

  // A host with the lock on that watches "k*" on each database, on a card
  // that is not the master: every slot of the table is in use. The first
  // data checks have run and no connection event has been seen.
  void StartHost() {
    std::vector<pubsub_mng> table = {tqtest::WatchEntry(0, "k*"),
                                     tqtest::WatchEntry(1, "k*"),
                                     tqtest::WatchEntry(2, "k*")};
    ASSERT_EQ(tqredis_init(table.data(), 3, tqtest::HostView::DataCheck, 2), 0);
    tqredis_db_connect();
    tqredis_get_cardinfo();
    tqredis::detail::g_tqredis_cardinfo.my_node = 1;  // the master stays node 0
    tqredis_db_connect();
    tqredis_db_psubscrible();
    for (uint32_t db = 0; db < 3; ++db) {
      ASSERT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_READ), 1) << db;
      ASSERT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB), 1) << db;
      ASSERT_EQ(tqredis_db_is_connected(db, TQREDIS_OP_WRITE), db < 2 ? 1 : 0);
      ASSERT_EQ(tqtest::HostView::Get().Checks(db), 1) << db;
    }
    const std::string proc = g_tqredis_proc_name;
    ASSERT_EQ(tqtest::ClientNames(1),
              proc + "-read " + proc + "-pubsub " + proc + "-write");
    ASSERT_EQ(events_.Count(), 0u) << tqtest::ToString(events_.All());
  }

  // "tqredis-devdb ctl close <db> <kind>": exactly one connection closed.
  void Close(uint32_t db, uint32_t op) {
    const auto done = emulator_.Ctl({"close", kDb[db], kOp[op]});
    ASSERT_EQ(done.exit_code, 0) << done.out;
    ASSERT_EQ(done.out, "1\n");
  }

  // Sets `key` to `value` on every database from outside, then pumps until
  // every subscription hook has received it.
  void ExpectNotified(const std::string &key, const std::string &value) {
    for (int db = 0; db < 3; ++db) {
      auto c = tqtest::Direct(db);
      auto r = tqtest::Run(c.get(), "SET %s %s", key.c_str(), value.c_str());
      ASSERT_EQ(Text(r.get()), "OK") << kDb[db];
    }
    const bool all = tqtest::PumpUntil([&] {
      for (uint32_t db = 0; db < 3; ++db)
        if (tqtest::HostView::Get().Seen(db, key) != value) return false;
      return true;
    });
    for (uint32_t db = 0; db < 3; ++db)
      EXPECT_EQ(tqtest::HostView::Get().Seen(db, key), value) << kDb[db];
    EXPECT_TRUE(all);
  }

  // Pumps until the pubsub slot of every database has been restored
  // `restores` times.
  bool PumpUntilPubsubRestored(int restores) {
    return tqtest::PumpUntil([&] {
      for (uint32_t db = 0; db < 3; ++db)
        if (events_.Count(db, TQREDIS_OP_PUBSUB, 1) < restores) return false;
      return true;
    });
  }

  tqtest::DeviceEmulator emulator_;
  tqtest::ConnEvents events_;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_CONNECT_INPLACE_HOST_H_
