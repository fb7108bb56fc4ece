// Times to live: PEXPIRE one key, and the two per-key functions of the
// pattern walk (give a time to live, delete keys that have one).
#include <cstdint>

#include "command/command.h"
#include "connect/connect.h"
#include "core/keycmd.h"
#include "core/log.h"
#include "core/options.h"
#include "core/result.h"
#include "records/records.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;
using tqredis::detail::kKeyCmd_del;
using tqredis::detail::kKeyCmd_pexpire;
using tqredis::detail::kKeyCmd_pttl;
using tqredis::detail::kLogData;

namespace {

// The operation a key write is sent with. Where writes travel on the read
// connection (redis_host always, every database on the master card, and
// until the card information is known), the command layer never reads a
// write's reply, so the next read on that connection would be handed it:
// within a walk that is the next PTTL, read as the next key's time to live,
// or the next SCAN. Such writes go on the read path instead, on the same
// connection, and their replies are consumed by Consume(). A card with its
// own write connections pipelines them as ordinary writes, and so does every
// card with replies=1, where the command layer reads the writes' replies
// before the next read.
int KeyWriteOp(uint32_t db) {
  if (tqredis::detail::OptionValue(tqredis::detail::kOpt_replies) != 0)
    return TQREDIS_OP_WRITE;
  return tqredis_get_write_connext_stats(db) == 1 ? TQREDIS_OP_WRITE
                                                  : TQREDIS_OP_READ;
}

// Frees the reply of a key write sent on the read path; a pipelined write
// has none. The result of a key write is not reported to the caller.
void Consume(redisReply *reply) {
  if (reply != nullptr) tqredis_free_reply(reply);
}

// "PEXPIRE %s %d", written out at once.
void SendPexpire(uint32_t db, const char *key, int ageing_time) {
  const tqredis::detail::UnrecordedScope recorded_by_caller;
  Consume(tqredis_db_command(static_cast<int>(db), KeyWriteOp(db), -1,
                             TQREDIS_CMD_COMMIT, "PEXPIRE %s %d", key,
                             ageing_time));
}

}  // namespace

int tqredis_pexpire_key(uint32_t db, const char *key, int ageing_time) {
  if (db >= TQREDIS_DB_NUM || key == nullptr || ageing_time <= 0) {
    TQ_LOG(kLogData, "input arguments invalid: db=%d ageing_time=%d\n",
           static_cast<int>(db), ageing_time);
    return kBadArgs;
  }
  const int slot = tqredis_db_out_log(key, kKeyCmd_pexpire, db, 0);
  SendPexpire(db, key, ageing_time);
  if (slot != -1) tqredis_db_out_log_stat(static_cast<uint32_t>(slot));
  return 0;
}

int tqredis_key_pexpire(int db, const char *key, void *arg) {
  // The walk has already checked db and pattern, and the time to live is
  // sent as it is. Only what would be dereferenced is refused.
  if (key == nullptr || arg == nullptr) {
    TQ_LOG(kLogData, "input arguments invalid: db=%d\n", db);
    return 0;
  }
  const int ageing_time = *static_cast<const int *>(arg);
  // Started, never ended: the walk times nothing per key.
  tqredis_db_out_log(key, kKeyCmd_pexpire, static_cast<uint32_t>(db), 0);
  SendPexpire(static_cast<uint32_t>(db), key, ageing_time);
  return 0;
}

int tqredis_expire_key_del(int db, const char *key, void * /*arg*/) {
  if (key == nullptr) {
    TQ_LOG(kLogData, "PTTL get expire time fail, rv=%d\n", kBadArgs);
    return kFail;
  }
  const auto udb = static_cast<uint32_t>(db);
  // Each command below is recorded by the tqredis_db_out_log() before it.
  const tqredis::detail::UnrecordedScope recorded_here;
  tqredis_db_out_log(key, kKeyCmd_pttl, udb, 0);
  redisReply *reply =
      tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "PTTL %s", key);
  int ttl = 0;
  const int rv = tqredis_get_key_reply_intval(reply, &ttl, 10);
  if (rv != 0) {
    TQ_LOG(kLogData, "PTTL get expire time fail, rv=%d\n", rv);
    tqredis_free_reply(reply);
    return kFail;
  }
  // 0 or more: the key exists and expires. -1 (no expiry) and -2 (no such
  // key) are left alone. The key may change between the read and the DEL.
  if (ttl >= 0) {
    tqredis_db_out_log(key, kKeyCmd_del, udb, 0);
    Consume(tqredis_db_command(db, KeyWriteOp(udb), -1, 0, "DEL %s", key));
  }
  tqredis_free_reply(reply);
  return 0;
}
