// The client status of a process's connections, as the database servers
// report it for "CLIENT LIST <process>-<operation>".
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "command/command.h"
#include "connect/connect.h"
#include "core/keycmd.h"
#include "core/log.h"
#include "core/names.h"
#include "core/result.h"
#include "records/records.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::kKeyCmd_clientlistname;
using tqredis::detail::kLogData;
using tqredis::detail::kLogError;
using tqredis::detail::OpName;

// The record is filled in the caller's memory: its layout must not move.
// 64-bit fields after 32-bit ones are 4-byte aligned on i386 and 8-byte
// aligned on MIPS o32, ARM EABI and x86_64, so each target has its own.
// clang-format off
// X(field, offset on i386, offset where 64-bit fields are 8-byte aligned)
#define TQ_STATUS_OFFSETS(X) \
  X(online, 0, 0)            \
  X(id, 4, 4)                \
  X(addr, 8, 8)              \
  X(fd, 72, 72)              \
  X(name, 76, 76)            \
  X(age, 140, 144)           \
  X(idle, 148, 152)          \
  X(flags, 156, 160)         \
  X(db, 220, 224)            \
  X(sub, 224, 228)           \
  X(psub, 228, 232)          \
  X(multi, 232, 236)         \
  X(cmd_num, 236, 240)       \
  X(cmd_per_sec, 244, 248)   \
  X(in_bytes, 252, 256)      \
  X(out_bytes, 260, 264)     \
  X(in_bps, 268, 272)        \
  X(out_bps, 276, 280)       \
  X(qbuf, 284, 288)          \
  X(qbuf_free, 292, 296)     \
  X(obl, 300, 304)           \
  X(oll, 308, 312)           \
  X(omem, 316, 320)          \
  X(events, 324, 328)        \
  X(cmd, 388, 392)
// clang-format on

#if defined(__i386__) || defined(__mips__) || defined(__arm__)
#if defined(__i386__)
#define TQ_STATUS_LAYOUT(i386, aligned8) (i386)
#define TQ_STATUS_SIZE 452
#else
#define TQ_STATUS_LAYOUT(i386, aligned8) (aligned8)
#define TQ_STATUS_SIZE 456
#endif
#elif defined(__x86_64__)
#define TQ_STATUS_LAYOUT(i386, aligned8) (aligned8)
#define TQ_STATUS_SIZE 456
#endif

#ifdef TQ_STATUS_SIZE
#define TQ_STATUS_AT(field, i386, aligned8)               \
  static_assert(offsetof(tqredis_client_status, field) == \
                    TQ_STATUS_LAYOUT(i386, aligned8),     \
                #field " moved");
TQ_STATUS_OFFSETS(TQ_STATUS_AT)
static_assert(sizeof(tqredis_client_status) == TQ_STATUS_SIZE,
              "record size changed");
#undef TQ_STATUS_AT
#endif

namespace {

static_assert(sizeof(long long) == 8 && sizeof(unsigned long long) == 8,
              "figures are 64-bit");

// The servers' status line. Every text field is bounded at 63 characters,
// one less than its field, so no reply can overrun the record; an over-long
// token that is not the last stops the scan at the next literal, so the
// count of 24 still decides. The four runs of blanks match any white space.
#define TQ_BLANKS "                                         "
#define TQ_STATUS_FORMAT                                           \
  "id=%d addr=%63s fd=%d name=%63s age=%lld idle=%lld flags=%63s " \
  "db=%d" TQ_BLANKS                                                \
  "sub=%d psub=%d multi=%d cmd_num=%lld "                          \
  "cmd_per_sec=%lld" TQ_BLANKS                                     \
  "in_bytes=%lld out_bytes=%lld in_bps=%lld "                      \
  "out_bps=%lld" TQ_BLANKS                                         \
  "qbuf=%llu qbuf-free=%llu obl=%llu oll=%llu "                    \
  "omem=%llu" TQ_BLANKS "events=%63s cmd=%63s\n"
static_assert(sizeof(TQ_BLANKS) - 1 == 41, "runs of 41 blanks");
constexpr int kStatusFields = 24;

}  // namespace

int tqredis_parse_dbstatus(const char *str, size_t len,
                           tqredis_client_status *st) {
  if (str == nullptr || st == nullptr) {
    TQ_LOG(kLogData, "input arguments invalid\n");
    return 0;
  }
  // Bounded by len: the empty string compares equal as well.
  if (std::strncmp(str, "offline", len) == 0) {
    TQ_LOG(kLogData, "offline\n");
    return 0;
  }
  const int rv = std::sscanf(
      str, TQ_STATUS_FORMAT, &st->id, st->addr, &st->fd, st->name, &st->age,
      &st->idle, st->flags, &st->db, &st->sub, &st->psub, &st->multi,
      &st->cmd_num, &st->cmd_per_sec, &st->in_bytes, &st->out_bytes,
      &st->in_bps, &st->out_bps, &st->qbuf, &st->qbuf_free, &st->obl, &st->oll,
      &st->omem, st->events, st->cmd);
  if (rv != kStatusFields) {
    TQ_LOG(kLogData, "status str invalid, rv=%d %s\n", rv, str);
    return 0;
  }
  return 1;
}

int tqredis_get_proc_dbstatus(uint32_t db, const char *proc,
                              tqredis_client_status st[3]) {
  if (proc == nullptr || proc[0] == '\0' || st == nullptr) {
    TQ_LOG(kLogError, "input arguments invalid\r\n");
    return tqredis::detail::kBadArgs;
  }
  // db is left to the command path, which refuses an unknown one.
  for (uint32_t op = 0; op < TQREDIS_OP_NUM; ++op) {
    const char *op_name = OpName(op);
    // A card that writes `db` through its read connection has no write
    // client to ask about.
    if (op == TQREDIS_OP_WRITE && tqredis_get_write_connext_stats(db) == 0) {
      st[op].online = 0;
      continue;
    }
    // At most 127 bytes with its terminator; the query itself is not cut.
    char client[128];
    std::snprintf(client, sizeof client - 1, "%s-%s", proc, op_name);
    tqredis_db_out_log(client, kKeyCmd_clientlistname, db, 0);
    // Flag 2: a client that cannot be asked now is reported offline rather
    // than waited for.
    redisReply *reply = nullptr;
    {
      const tqredis::detail::UnrecordedScope recorded_above;
      reply = tqredis_db_command(static_cast<int>(db), TQREDIS_OP_READ, -1,
                                 TQREDIS_CMD_NO_RECONNECT, "CLIENT LIST %s-%s",
                                 proc, op_name);
    }
    char *text = nullptr;
    int len = 0;
    const int rv = tqredis_get_key_reply_strval(reply, &text, &len);
    if (rv != 0) {
      st[op].online = 0;
      TQ_LOG(kLogData, "get %s-%s status fail, rv=%d\n", proc, op_name, rv);
    } else {
      tqredis_client_status &s = st[op];
      s.online = static_cast<uint8_t>(
          tqredis_parse_dbstatus(text, static_cast<size_t>(len), &s));
      if (s.online == 0) {
        TQ_LOG(kLogData, "%s-%s offline\n", proc, op_name);
      } else {
        TQ_LOG(kLogData,
               "%s-%s online: id=%d addr=%s fd=%d name=%s age=%lld"
               "idle=%lld flags=%s db=%d sub=%d psub=%d multi=%d "
               "cmd_num=%lld cmd_per_sec=%lld in_bytes=%lld out_bytes=%lld "
               "in_bps=%lld out_bps=%lld qbuf=%llu qbuf-free=%llu obl=%llu "
               "oll=%llu omem=%llu events=%s cmd=%s\r\n",
               proc, op_name, s.id, s.addr, s.fd, s.name, s.age, s.idle,
               s.flags, s.db, s.sub, s.psub, s.multi, s.cmd_num, s.cmd_per_sec,
               s.in_bytes, s.out_bytes, s.in_bps, s.out_bps, s.qbuf,
               s.qbuf_free, s.obl, s.oll, s.omem, s.events, s.cmd);
      }
    }
    tqredis_free_reply(reply);
  }
  return 0;
}
