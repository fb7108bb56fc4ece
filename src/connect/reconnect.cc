// The reconnection thread, started and joined by the command path; it tries
// once a second until its slot is connected.
#include <pthread.h>

#include <cstring>

#include "connect/connect.h"
#include "core/clock.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;
using tqredis::detail::OpName;

namespace {
// A progress line after every this many one-second tries.
constexpr int kTriesPerReport = 30;
}  // namespace

int tqredis_db_try_reconnect(uint32_t db, uint32_t op, uint32_t flag) {
  TQ_LOG(kLogLife, ">>>>%s[%s flag=%d] try to reconnect\r\n", DbName(db),
         OpName(op), static_cast<int>(flag));
  // A slot that still holds a live connection ends the process here, unless
  // the reconnect switch has it dropped in place.
  tqredis_disconnect(op, db);
  if (flag & TQREDIS_CMD_NO_RECONNECT) return -1;
  tqredis_db_reconnect(db, op);
  // Only a waitlimit makes the thread give up before the slot is connected.
  if (tqredis::detail::WaitLimitMs() > 0 && !tqredis_db_is_connected(db, op)) {
    return -1;
  }
  return 0;
}

// The connecting work runs in a thread of its own, yet the caller waits for
// it: the design is synchronous, and the caller keeps holding the lock.
int tqredis_db_reconnect(uint32_t db, uint32_t op) {
  // Lives in this frame: the thread is joined before it goes.
  tqredis_reconnect_arg arg = {db, op};
  pthread_t thread;
  for (;;) {
    const int rc =
        pthread_create(&thread, nullptr, tqredis_reconnect_thread, &arg);
    if (rc == 0) break;
    TQ_LOG(kLogError, "%s[%s] reconnect thread create fail, errno=%s\r\n",
           DbName(db), OpName(op), std::strerror(rc));
    select_sleep(1, 0);
  }
  pthread_join(thread, nullptr);
  // Back in the thread that holds the lock: the host may hear of restores.
  tqredis::detail::DeliverConnEvents();
  return TQ_LOG(kLogLife, ">>>>%s[%s] reconnect finish\r\n", DbName(db),
                OpName(op));
}

int tqredis_get_reconnect_db_op(void *arg, uint32_t *db, uint32_t *op) {
  if (arg == nullptr || db == nullptr || op == nullptr) {
    TQ_LOG(kLogError, "input arguments error\r\n");
    return -1;
  }
  const tqredis_reconnect_arg *ids = static_cast<tqredis_reconnect_arg *>(arg);
  if (ids->op >= TQREDIS_OP_NUM || ids->db >= TQREDIS_DB_NUM) {
    TQ_LOG(kLogError, "input arguments invalid, op=%d db=%d\r\n",
           static_cast<int>(ids->op), static_cast<int>(ids->db));
    return -1;
  }
  *db = ids->db;
  *op = ids->op;
  return 0;
}

// Runs without the lock: the thread that starts it holds the lock and joins
// it. It ends when its slot is connected, or with a waitlimit after it.
void *tqredis_reconnect_thread(void *arg) {
  uint32_t db = 0;
  uint32_t op = 0;
  if (tqredis_get_reconnect_db_op(arg, &db, &op) != 0) return nullptr;
  TQ_LOG(kLogLife, ">>>>%s[%s] reconnect thread enter...\r\n", DbName(db),
         OpName(op));
  const long limit = tqredis::detail::WaitLimitMs();
  const int64_t deadline =
      limit > 0 ? tqredis::detail::DeadlineAfterMs(limit) : 0;
  for (;;) {
    for (int i = 0; i < kTriesPerReport; ++i) {
      if (tqredis_db_is_connected(db, op)) {
        TQ_LOG(kLogLife, ">>>>%s %s reconnect thread quit\r\n", DbName(db),
               OpName(op));
        return nullptr;
      }
      // Whether and how a write slot connects depends on the master.
      if (db != TQREDIS_DB_HOST && op == TQREDIS_OP_WRITE &&
          tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_READ)) {
        tqredis_get_cardinfo();
      }
      tqredis_db_connect_nolock();
      if (limit <= 0) {
        select_sleep(1, 0);
        continue;
      }
      if (tqredis_db_is_connected(db, op)) continue;  // reported above
      if (tqredis::detail::DeadlinePassed(deadline)) {
        TQ_LOG(kLogError, "%s %s wait for reconnect gave up after %ld ms\r\n",
               DbName(db), OpName(op), limit);
        return nullptr;
      }
      tqredis::detail::SleepUntilAtMost(deadline);
    }
    TQ_LOG(kLogLife, ">>>>%s %s try to reconnect\r\n", DbName(db), OpName(op));
  }
}
