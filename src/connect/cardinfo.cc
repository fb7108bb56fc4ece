// The card information: which databases exist, this card's node, the master,
// and the wait that holds commands until they are known.
#include "connect/cardinfo.h"

#include <cstdio>

#include "connect/connect.h"
#include "connect/table.h"
#include "core/clock.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_cardinfo;
using tqredis::detail::kLogLife;
using tqredis::detail::kUnknownNode;

namespace {
// What the reading step finds: one card, its own master.
constexpr uint32_t kNode = 0;
constexpr uint32_t kAllDatabases = 7;
}  // namespace

namespace tqredis::detail {
tqredis_cardinfo g_tqredis_cardinfo = {kAllDatabases, kUnknownNode,
                                       kUnknownNode};
}  // namespace tqredis::detail

void tqredis_cardinfo_init(void) {
  g_tqredis_cardinfo.db_bitmap = kAllDatabases;
  g_tqredis_cardinfo.my_node = kUnknownNode;
  g_tqredis_cardinfo.master_node = kUnknownNode;
}

int tqredis_cardinfo_is_readed(void) {
  return g_tqredis_cardinfo.db_bitmap != 0 &&
                 g_tqredis_cardinfo.my_node != kUnknownNode &&
                 g_tqredis_cardinfo.master_node != kUnknownNode
             ? 1
             : 0;
}

int tqredis_parse_cardinfo(void) {
  if (g_tqredis_cardinfo.master_node == kNode) return 0;  // nothing changed
  // A new master: write connections to the old one must go (a live one ends
  // the process: see the README's kept behaviours).
  tqredis_disconnect(TQREDIS_OP_WRITE, TQREDIS_DB_DE_GLOBAL);
  tqredis_disconnect(TQREDIS_OP_WRITE, TQREDIS_DB_CE_GLOBAL);
  TQ_LOG(kLogLife, ">>>>master change, last_master=%#x master_node=%#x \r\n",
         g_tqredis_cardinfo.master_node, kNode);
  g_tqredis_cardinfo.db_bitmap = kAllDatabases;
  g_tqredis_cardinfo.my_node = kNode;
  g_tqredis_cardinfo.master_node = kNode;
  tqredis_refresh_write_connect_mng(1, 0);
  return 0;
}

int tqredis_get_cardinfo(void) {
  const int rv = tqredis_parse_cardinfo();
  TQ_LOG(kLogLife,
         ">>>>get cardinfo, db_bitmap=%#x my_node=%#x master_node=%#x\r\n",
         g_tqredis_cardinfo.db_bitmap, g_tqredis_cardinfo.my_node,
         g_tqredis_cardinfo.master_node);
  return rv;
}

// REQUIRES: the global lock is held (when enabled); it is released only for
// the one-second sleep.
int tqredis_wait_cardinfo_ready(uint32_t db) {
  if (g_tqredis_init_ok && tqredis_get_write_connext_stats(db) != -1) return 1;
  TQ_LOG(kLogLife, "%s operate before mom init[%d] or context init, \r\n",
         tqredis::detail::DbName(db), g_tqredis_init_ok);
  // Before tqredis_init() nothing is connected: the caller just waits.
  if (g_tqredis_init_ok) {
    tqredis_db_connect();
    if (tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ)) {
      tqredis_get_cardinfo();
    }
  }
  // Let the other threads run while we wait. A thread that came in while the
  // lock was off holds nothing and takes nothing.
  if (tqredis::detail::LockDepth() > 0) {
    tqredis_unlock();
    select_sleep(1, 0);
    tqredis_lock();
  } else {
    select_sleep(1, 0);
  }
  return 0;
}

namespace tqredis::detail {

// The same steps as tqredis_wait_cardinfo_ready(), against a deadline: the
// sleep ends at it, and the state is checked once more after the attempt,
// so that a success just before the deadline is not thrown away.
bool WaitCardinfo(uint32_t db, uint32_t op, uint32_t flag) {
  const long limit = WaitLimitMs();
  if (limit <= 0) {
    while (!tqredis_wait_cardinfo_ready(db)) {
    }
    return true;
  }
  const int64_t deadline = DeadlineAfterMs(limit);
  for (;;) {
    if (g_tqredis_init_ok && tqredis_get_write_connext_stats(db) != -1) {
      return true;
    }
    TQ_LOG(kLogLife, "%s operate before mom init[%d] or context init, \r\n",
           DbName(db), g_tqredis_init_ok);
    if (g_tqredis_init_ok) {
      tqredis_db_connect();
      if (tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ)) {
        tqredis_get_cardinfo();
      }
      if (tqredis_get_write_connext_stats(db) != -1) return true;
    }
    const char *what = g_tqredis_init_ok ? "cardinfo" : "init";
    if (flag & TQREDIS_CMD_NO_RECONNECT) {
      TQ_LOG(kLogError, "%s %s wait for %s gave up at once (no reconnect)\r\n",
             DbName(db), OpName(op), what);
      return false;
    }
    if (DeadlinePassed(deadline)) {
      TQ_LOG(kLogError, "%s %s wait for %s gave up after %ld ms\r\n",
             DbName(db), OpName(op), what, limit);
      return false;
    }
    if (LockDepth() > 0) {
      tqredis_unlock();
      SleepUntilAtMost(deadline);
      tqredis_lock();
    } else {
      SleepUntilAtMost(deadline);
    }
  }
}

}  // namespace tqredis::detail

void tqredis_cardinfo_stats_show(void) {
  tqredis::detail::ScopedLock lock;
  std::printf("cardinfo:\r\n");
  std::printf("\tdb_bitmap=%#x\r\n", g_tqredis_cardinfo.db_bitmap);
  std::printf("\tmy_node=%#x\r\n", g_tqredis_cardinfo.my_node);
  std::printf("\tmaster_node=%#x\r\n", g_tqredis_cardinfo.master_node);
}

int tqredis_db_exist(uint32_t db) {
  // No range check on purpose: any id names a bit, modulo the word.
  return static_cast<int>((g_tqredis_cardinfo.db_bitmap >> (db % 32)) & 1u);
}
