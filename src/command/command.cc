// The one road of every command: argument check, slot choice, synchronous
// reads, pipelined writes with their commit threshold, and the retry after a
// reconnection.
#include "command/command.h"

#include <cstdarg>
#include <cstdint>

#include "connect/connect.h"
#include "connect/table.h"
#include "core/config.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogError;
using tqredis::detail::OpName;

// REQUIRES: the global lock is held.
int tqredis_commit_command(uint32_t db, uint32_t op, uint32_t flag) {
  if (!tqredis_db_is_connected(db, op)) return 0;
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  // With a threshold of 0 every call writes, even with nothing pending.
  const bool due = ((flag & TQREDIS_CMD_COMMIT) && slot.append_cmd_num != 0) ||
                   slot.append_cmd_num >= tqredis::detail::CommitThreshold();
  if (!due) return 0;
  // A blocking socket: each write waits until the kernel takes the bytes.
  int done = 0;
  do {
    if (redisBufferWrite(slot.context, &done) == REDIS_ERR) return -1;
  } while (!done);
  slot.append_cmd_num = 0;
  return 0;
}

void tqredis_commit_command_all(void) {
  tqredis::detail::ScopedLock lock;
  // Pubsub slots carry no pipelined writes of ours worth forcing out here.
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    tqredis_commit_command(db, TQREDIS_OP_READ, TQREDIS_CMD_COMMIT);
    tqredis_commit_command(db, TQREDIS_OP_WRITE, TQREDIS_CMD_COMMIT);
  }
}

int tqredis_db_command_param_check(uint32_t db, uint32_t op,
                                   const char *format) {
  if (db < TQREDIS_DB_NUM && op < TQREDIS_OP_NUM && format != nullptr) return 1;
  TQ_LOG(kLogError, "input arguments invalid, db=%d op=%d\r\n",
         static_cast<int>(db), static_cast<int>(op));
  return 0;
}

int tqredis_calc_dbop(uint32_t db, uint32_t op) {
  if (op != TQREDIS_OP_WRITE) return static_cast<int>(op);
  // Only a card that is not the master writes through its write slot.
  return tqredis_get_write_connext_stats(db) != 0 ? TQREDIS_OP_WRITE
                                                  : TQREDIS_OP_READ;
}

// REQUIRES: the global lock is held and slot [dbop][db] is connected.
int tqredis_exec_command(uint32_t db, uint32_t op, uint32_t dbop, uint32_t flag,
                         const char *format, va_list ap,
                         redisReply **reply_out) {
  if (db >= TQREDIS_DB_NUM || dbop >= TQREDIS_OP_NUM || format == nullptr ||
      g_tqredis_connect_mng[dbop][db].context == nullptr) {
    TQ_LOG(kLogError, "input arguments invalid, db=%d op=%d\r\n",
           static_cast<int>(db), static_cast<int>(dbop));
    return -1;
  }
  tqredis_conn_slot &slot = g_tqredis_connect_mng[dbop][db];
  if (op == TQREDIS_OP_READ) {
    auto *reply =
        static_cast<redisReply *>(redisvCommand(slot.context, format, ap));
    if (reply == nullptr) {
      TQ_LOG(kLogError, "%s[%s] read command fail\r\n", DbName(db),
             OpName(TQREDIS_OP_READ));
      return -1;
    }
    // A synchronous command writes out everything pending before it reads.
    slot.append_cmd_num = 0;
    tqredis_print_reply(reply);
    if (reply_out != nullptr) {
      *reply_out = reply;  // the caller frees it
    } else {
      freeReplyObject(reply);
    }
    return 0;
  }
  // Replies of appended commands are never read on read and write slots.
  if (redisvAppendCommand(slot.context, format, ap) != REDIS_OK) {
    TQ_LOG(kLogError, "%s[%s] write command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  ++slot.append_cmd_num;
  if (tqredis_commit_command(db, dbop, flag) != 0) {
    TQ_LOG(kLogError, "%s[%s] commit command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  return 0;
}

redisReply *tqredis_db_command(int db, int op, int ignored, uint32_t flag,
                               const char *format, ...) {
  (void)ignored;  // kept in the signature: callers pass -1
  const auto udb = static_cast<uint32_t>(db);
  const auto uop = static_cast<uint32_t>(op);
  if (!tqredis_db_command_param_check(udb, uop, format)) return nullptr;
  redisReply *result = nullptr;
  va_list ap;
  va_start(ap, format);
  {
    tqredis::detail::ScopedLock lock;
    for (;;) {
      // Without a waitlimit this waits for as long as it takes.
      if (!tqredis::detail::WaitCardinfo(udb, uop, flag)) {
        result = nullptr;
        break;
      }
      // Chosen again after every reconnection: the master may have changed.
      const auto dbop = static_cast<uint32_t>(tqredis_calc_dbop(udb, uop));
      if (tqredis_db_is_connected(udb, dbop)) {
        tqredis::detail::ApplyWaitLimit(udb, dbop);
        // Each attempt reads the arguments from the first one again.
        va_list attempt;
        va_copy(attempt, ap);
        const int rc = tqredis_exec_command(udb, uop, dbop, flag, format,
                                            attempt, &result);
        va_end(attempt);
        if (rc != -1) break;
        // A server that stopped answering: this call fails, the process
        // goes on, and the next call connects the slot again.
        if (tqredis::detail::DropTimedOut(
                udb, dbop, uop == TQREDIS_OP_READ ? "reply" : "write")) {
          result = nullptr;
          break;
        }
      }
      if (tqredis_db_try_reconnect(udb, dbop, flag) == -1) {
        result = nullptr;
        break;
      }
    }
  }
  va_end(ap);
  return result;
}
