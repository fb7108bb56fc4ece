// Reconnecting in place: the lost/restored state of each slot, its restore
// count, and the host's connection-event hook.
#include <pthread.h>

#include <atomic>

#include "connect/inplace.h"

#include "connect/connect.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "core/result.h"
#include "tqredis.h"

namespace {

// Guarded by the global lock, like the table.
struct SlotLife {
  bool lost;            // dropped in place, not connected since
  bool restore_untold;  // restored, the hook not yet called for it
  uint32_t restores;    // since load
};
SlotLife g_life[TQREDIS_OP_NUM][TQREDIS_DB_NUM] = {};

// Bit db set while database db's pubsub connection waits for the pump to
// restore it and its subscriptions; read by the pump without the lock.
std::atomic<uint32_t> g_pubsub_lost{0};

// The host's hook and its argument, replaced and read as one pair under a
// mutex of their own: registration may come from any thread, without the
// global lock, and the mutex is never held while the hook runs.
struct ConnHook {
  tqredis_conn_hook_f hook;
  void *arg;
};
ConnHook g_conn_hook = {nullptr, nullptr};
pthread_mutex_t g_conn_hook_mutex = PTHREAD_MUTEX_INITIALIZER;

ConnHook GetConnHook() {
  tqredis::detail::MutexLock lock(&g_conn_hook_mutex);
  return g_conn_hook;
}

void Tell(uint32_t db, uint32_t op, int up) {
  const ConnHook hook = GetConnHook();
  if (hook.hook != nullptr) hook.hook(db, op, up, hook.arg);
}

}  // namespace

namespace tqredis::detail {

void MarkLost(uint32_t db, uint32_t op) {
  g_life[op][db].lost = true;
  if (op == TQREDIS_OP_PUBSUB)
    g_pubsub_lost.fetch_or(1u << db, std::memory_order_relaxed);
  Tell(db, op, 0);
}

uint32_t PubsubLostBits() {
  return g_pubsub_lost.load(std::memory_order_relaxed);
}

void PubsubRestored(uint32_t db) {
  if (db < TQREDIS_DB_NUM)
    g_pubsub_lost.fetch_and(~(1u << db), std::memory_order_relaxed);
}

bool SlotLost(uint32_t db, uint32_t op) {
  return db < TQREDIS_DB_NUM && op < TQREDIS_OP_NUM && g_life[op][db].lost;
}

uint32_t SlotRestores(uint32_t db, uint32_t op) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) return 0;
  return g_life[op][db].restores;
}

void NoteConnected(uint32_t db, uint32_t op) {
  SlotLife &life = g_life[op][db];
  if (!life.lost) return;
  life.lost = false;
  life.restore_untold = true;
  ++life.restores;
  TQ_LOG(kLogLife, ">>>>%s[%s] connection restored, restores=%u\r\n",
         DbName(db), OpName(op), static_cast<unsigned>(life.restores));
}

void DeliverConnEvents() {
  for (uint32_t op = 0; op < TQREDIS_OP_NUM; ++op) {
    for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
      SlotLife &life = g_life[op][db];
      if (!life.restore_untold) continue;
      life.restore_untold = false;
      Tell(db, op, 1);
    }
  }
}

}  // namespace tqredis::detail

int tqredis_conn_hook_register(tqredis_conn_hook_f hook, void *arg) {
  tqredis::detail::MutexLock lock(&g_conn_hook_mutex);
  g_conn_hook = {hook, hook != nullptr ? arg : nullptr};
  return tqredis::detail::kOk;
}
