// Turning registered subscriptions into pattern subscriptions on each
// database's pubsub connection, and the data checks after each (re)making.
#include "connect/connect.h"
#include "connect/table.h"
#include "core/clock.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/result.h"
#include "pubsub/pubsub.h"
#include "pubsub/registry.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::g_tqredis_data_check_list;
using tqredis::detail::g_tqredis_datacheck;
using tqredis::detail::g_tqredis_pubsub_list;
using tqredis::detail::kFail;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;
using tqredis::detail::kLogWarn;
using tqredis::detail::PubsubListEmpty;

// REQUIRES: the global lock.
int tqredis_psubscrible(tqredis_pubsub_node *node) {
  if (node == nullptr || node->key_db >= TQREDIS_DB_NUM) {
    TQ_LOG(kLogError, "input arguments invalid\r\n");
    return kFail;
  }
  const uint32_t db = node->key_db;
  if (!tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) {
    TQ_LOG(kLogWarn, "pubsub %s not connected\r\n", DbName(db));
    return kFail;
  }
  if (node->flag) return 1;
  // Keyspace events of logical database 0, whatever the connection's id.
  auto *reply = static_cast<redisReply *>(
      redisCommand(tqredis_get_context(db, TQREDIS_OP_PUBSUB),
                   "PSUBSCRIBE __keyspace@%d__:%s",
                   static_cast<int>(node->dbid), node->key_pattern));
  int rv = 0;
  if (tqredis_check_reply(reply)) {
    node->flag = 1;
    TQ_LOG(kLogLife, ">>>>psubscribe %s@%d %s ok\r\n", DbName(db),
           static_cast<int>(node->dbid), node->key_pattern);
  } else {
    // Logged first: dropping a live connection ends the process.
    TQ_LOG(kLogError, "psubscribe %s@%d %s fail\r\n", DbName(db),
           static_cast<int>(node->dbid), node->key_pattern);
    // A connection that refused one subscription is not trusted with the
    // others: drop it, so every pattern is made again on a new one.
    tqredis_disconnect(TQREDIS_OP_PUBSUB, db);
    tqredis_psubflag_clear(db);
    rv = kFail;
  }
  if (reply != nullptr) tqredis_free_reply(reply);
  return rv;
}

namespace {

// Every node of `db` is to be subscribed again, and a database without
// nodes is to have its data check again. REQUIRES: the global lock.
void ForgetSubscriptions(uint32_t db) {
  tqredis_pubsub_list_init();
  if (PubsubListEmpty(db)) {
    g_tqredis_datacheck[db] = 0;
    return;
  }
  tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
  for (tqredis_pubsub_node *node = head->next; node != head; node = node->next)
    node->flag = 0;
}

}  // namespace

// REQUIRES: the global lock.
void tqredis_psubflag_clear(uint32_t db) {
  if (db >= TQREDIS_DB_NUM) return;
  // While connected the server still holds the subscriptions: forgetting
  // them here would subscribe every pattern twice.
  if (tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) {
    TQ_LOG(kLogError, "connected db[%d] not allow to clear flag\r\n",
           static_cast<int>(db));
    return;
  }
  ForgetSubscriptions(db);
}

// REQUIRES: the global lock.
int tqredis_db_need_data_check(uint32_t db) {
  if (db >= TQREDIS_DB_NUM) return 0;
  tqredis_pubsub_list_init();
  if (PubsubListEmpty(db)) {
    if (g_tqredis_datacheck[db]) return 0;
    g_tqredis_datacheck[db] = 1;
    return 1;
  }
  // Every node is tried, without an early stop: one pass makes them all.
  bool standing = false;
  tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
  for (tqredis_pubsub_node *node = head->next; node != head;
       node = node->next) {
    if (tqredis_psubscrible(node) == 1) standing = true;
  }
  return standing ? 0 : 1;
}

namespace {

// The connect count of the pubsub connection that each database's
// subscriptions were last made on (0: none yet). Reconnecting in place, a
// connection with another count holds none of them. Guarded by the lock.
uint32_t g_subscribed_on[TQREDIS_DB_NUM] = {};
// When the pump last tried to connect a lost pubsub connection again
// (monotonic ns; 0: never). Guarded by the global lock.
int64_t g_last_try[TQREDIS_DB_NUM] = {};
constexpr int64_t kRetryNs = 1000000000;  // one try a second

uint32_t PubsubConnectNum(uint32_t db) {
  return g_tqredis_connect_mng[TQREDIS_OP_PUBSUB][db].connect_num;
}

// Makes the missing subscriptions of `db` and, when none stood, runs the
// data checks. REQUIRES: the global lock.
void SubscribeAndCheck(uint32_t db) {
  const bool connected = tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB);
  // A connection made since the subscriptions were: they went with the old
  // one, and what changed meanwhile is read again by the data checks.
  if (connected && g_subscribed_on[db] != 0 &&
      g_subscribed_on[db] != PubsubConnectNum(db) &&
      tqredis::detail::ReconnectOn()) {
    ForgetSubscriptions(db);
  }
  // Evaluated first: it makes the subscriptions.
  const bool check = tqredis_db_need_data_check(db) == 1;
  if (!tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) return;
  g_subscribed_on[db] = PubsubConnectNum(db);
  if (!check) return;
  // Logged as the host's pass, whichever of it or the pump runs the checks.
  TQ_LOG_FROM("tqredis_db_psubscrible", __LINE__, kLogLife,
              ">>>>>%s data check begin...\r\n", DbName(db));
  const tqredis_data_check_node *head = &g_tqredis_data_check_list;
  for (const tqredis_data_check_node *node = head->next; node != head;
       node = node->next) {
    node->data_check_f(db);  // its result is the host's affair
  }
  TQ_LOG_FROM("tqredis_db_psubscrible", __LINE__, kLogLife,
              ">>>>>%s data check over\r\n", DbName(db));
  tqredis_datacheck_num_inc(db);
}

}  // namespace

void tqredis_db_psubscrible(void) {
  tqredis::detail::ScopedLock lock;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) SubscribeAndCheck(db);
}

namespace tqredis::detail {

void RestorePubsub() {
  const uint32_t lost = PubsubLostBits();
  if (lost == 0) return;
  ScopedLock lock;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    if ((lost & (1u << db)) == 0) continue;
    if (!tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) {
      const int64_t now = MonotonicNsec();
      if (g_last_try[db] != 0 && now - g_last_try[db] < kRetryNs) continue;
      g_last_try[db] = now;
      tqredis_connect(db, TQREDIS_OP_PUBSUB);
      DeliverConnEvents();
      if (!tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) continue;
    }
    SubscribeAndCheck(db);
    // A subscription refused drops the connection again: tried next second.
    if (tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) {
      g_last_try[db] = 0;
      PubsubRestored(db);
    }
  }
}

}  // namespace tqredis::detail
