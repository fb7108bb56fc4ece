// The one road of every command: argument check, slot choice, synchronous
// reads, pipelined writes with their commit threshold, the retry after a
// reconnection, and (by switch) the reading of pipelined writes' replies and
// the recording of every command.
#include "command/command.h"

#include <hiredis/sds.h>
#include <poll.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "connect/connect.h"
#include "connect/table.h"
#include "core/config.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogError;
using tqredis::detail::kOpt_recordall;
using tqredis::detail::kOpt_replies;
using tqredis::detail::OpName;
using tqredis::detail::OptionValue;

namespace {

// Past this many unread replies on one connection, a write waits to read
// them all: the server keeps each unread reply in memory for us.
constexpr uint32_t kMaxUnread = 1024;
// One name per reply that can be owed at once: kMaxUnread, plus the write
// that crosses it.
constexpr uint32_t kNameRing = kMaxUnread + 1;

// The name of command number `seq` of a connection, cut to 11 characters.
// Valid only while `seq` matches: an entry left by an earlier command, or by
// one sent with replies off, is never taken for the current one.
struct SentName {
  uint32_t seq;
  char name[12];
};
static_assert(sizeof(SentName) == 16);

// The replies one read or write connection owes us. Counted whatever the
// switch, so that turning replies on at run time knows what is pending; the
// names are kept only with replies on. Every command on a connection gets
// exactly one reply, in order, so sent - read (modulo 2^32) is what is owed.
struct ReplyLedger {
  // The connection counted: another one (a reconnection) starts from zero.
  const redisContext *context;
  uint32_t connect_num;
  uint32_t sent;    // commands appended to it
  uint32_t read;    // replies read from it
  uint32_t errors;  // error replies to pipelined writes, kept for life
  SentName names[kNameRing];  // command seq at names[seq % kNameRing]
};

// [op][db] for the read and write slots; pubsub replies belong to the pump.
// Guarded by the global lock, like the table. Static and zero at load: the
// pages of a ring are touched only once replies=1 writes names into them.
ReplyLedger g_ledger[TQREDIS_OP_PUBSUB][TQREDIS_DB_NUM];

const tqredis::detail::CommandRecorder *g_recorder = nullptr;
// Live UnrecordedScopes of this thread.
thread_local unsigned t_unrecorded = 0;

bool RepliesOn() { return OptionValue(kOpt_replies) != 0; }
bool RecordAllOn() { return OptionValue(kOpt_recordall) != 0; }

// The ledger of slot [op][db], reset when the slot holds another connection
// than the one counted, as after a drop and a reconnection. REQUIRES: op is
// read or write, the global lock.
ReplyLedger &LedgerOf(uint32_t op, uint32_t db) {
  const tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  ReplyLedger &ledger = g_ledger[op][db];
  if (ledger.context != slot.context ||
      ledger.connect_num != slot.connect_num) {
    ledger.context = slot.context;
    ledger.connect_num = slot.connect_num;
    ledger.sent = 0;
    ledger.read = 0;
  }
  return ledger;
}

uint32_t Unread(const ReplyLedger &ledger) { return ledger.sent - ledger.read; }

// The first word and first argument of the request hiredis formatted at
// offset `at` of the context's output buffer ("*N\r\n$L\r\n<word>\r\n$L\r\n
// <key>\r\n..."), read as sent, whatever the format made of them.
struct RequestWords {
  std::string_view word;
  std::string_view key;
};

// Reads "<lead><digits>\r\n" at *p; the number, or -1.
long ReadHeader(const char *&p, const char *end, char lead) {
  if (p >= end || *p != lead) return -1;
  long n = 0;
  for (++p; p < end && *p >= '0' && *p <= '9'; ++p) n = n * 10 + (*p - '0');
  if (end - p < 2 || p[0] != '\r' || p[1] != '\n') return -1;
  p += 2;
  return n;
}

RequestWords WordsAt(const redisContext *ctx, size_t at) {
  RequestWords words;
  const char *p = ctx->obuf + at;
  const char *end = ctx->obuf + sdslen(ctx->obuf);
  const long argc = ReadHeader(p, end, '*');
  std::string_view *fields[] = {&words.word, &words.key};
  for (long i = 0; i < argc && i < 2; ++i) {
    const long len = ReadHeader(p, end, '$');
    if (len < 0 || len > end - p) break;
    *fields[i] = std::string_view(p, static_cast<size_t>(len));
    p += len + 2;
  }
  return words;
}

// Takes one reply owed by [op][db], the oldest: an error is logged with the
// name of the write it answers and counted.
void SettleReply(uint32_t op, uint32_t db, ReplyLedger &ledger,
                 redisReply *reply) {
  const uint32_t seq = ledger.read++;
  if (reply != nullptr && reply->type == REDIS_REPLY_ERROR) {
    ++ledger.errors;
    const SentName &sent = ledger.names[seq % kNameRing];
    const bool known = sent.seq == seq && sent.name[0] != '\0';
    TQ_LOG(kLogError, "%s[%s] %s error reply: %s\r\n", DbName(db), OpName(op),
           known ? sent.name : "(unknown)",
           reply->str != nullptr ? reply->str : "");
  }
  freeReplyObject(reply);
}

// Reads every reply owed by [op][db], waiting for them; this writes out
// whatever is pending first. -1 when the connection failed.
int ReadAllOwed(uint32_t op, uint32_t db, ReplyLedger &ledger) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  if (Unread(ledger) == 0) return 0;
  while (Unread(ledger) != 0) {
    void *reply = nullptr;
    if (redisGetReply(slot.context, &reply) != REDIS_OK) return -1;
    SettleReply(op, db, ledger, static_cast<redisReply *>(reply));
  }
  // Every command sent has been answered, so none is left unwritten.
  slot.append_cmd_num = 0;
  return 0;
}

// Reads the replies owed by [op][db] that have already arrived, never
// waiting. -1 when the connection failed or the server closed it.
int ReadArrived(uint32_t op, uint32_t db, ReplyLedger &ledger) {
  redisContext *ctx = g_tqredis_connect_mng[op][db].context;
  while (Unread(ledger) != 0) {
    void *reply = nullptr;
    if (redisGetReplyFromReader(ctx, &reply) != REDIS_OK) return -1;
    if (reply != nullptr) {
      SettleReply(op, db, ledger, static_cast<redisReply *>(reply));
      continue;
    }
    struct pollfd ready = {ctx->fd, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) return 0;  // nothing more (or EINTR)
    if (redisBufferRead(ctx) != REDIS_OK) return -1;
  }
  return 0;
}

// Counts command `seq`'s reply as owed, keeping its name with replies on.
void Owe(ReplyLedger &ledger, bool named, std::string_view word) {
  const uint32_t seq = ledger.sent++;
  if (!named) return;
  SentName &entry = ledger.names[seq % kNameRing];
  entry.seq = seq;
  const size_t n = word.size() < sizeof(entry.name) - 1
                       ? word.size()
                       : sizeof(entry.name) - 1;
  word.copy(entry.name, n);  // an empty view may have no data pointer
  entry.name[n] = '\0';
}

// What one command does beyond sending, decided once per call.
struct Extras {
  bool replies;   // read the replies of pipelined writes
  bool record;    // record the command
  bool recorded;  // already recorded by an earlier attempt
};

int RecordStart(uint32_t db, const RequestWords &words, Extras &extras) {
  if (!extras.record || extras.recorded || g_recorder == nullptr) return -1;
  extras.recorded = true;
  return g_recorder->start(db, words.word, words.key);
}

// One attempt at a command on connected slot [dbop][db]. REQUIRES: the
// global lock, arguments checked.
int Exec(uint32_t db, uint32_t op, uint32_t dbop, uint32_t flag,
         const char *format, va_list ap, redisReply **reply_out,
         Extras &extras) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[dbop][db];
  redisContext *ctx = slot.context;
  // Pubsub slots are answered to the pump, which reads them itself.
  ReplyLedger *ledger =
      dbop < TQREDIS_OP_PUBSUB ? &LedgerOf(dbop, db) : nullptr;
  const bool words_needed = extras.record || (extras.replies && ledger);
  if (op == TQREDIS_OP_READ) {
    // Older replies first, so that this command receives its own.
    if (extras.replies && ledger != nullptr &&
        ReadAllOwed(dbop, db, *ledger) != 0) {
      TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                  "%s[%s] read command fail\r\n", DbName(db),
                  OpName(TQREDIS_OP_READ));
      return -1;
    }
    const size_t at = sdslen(ctx->obuf);
    // What redisvCommand() does, split so that the request can be read
    // between its formatting and its sending.
    void *reply = nullptr;
    if (redisvAppendCommand(ctx, format, ap) != REDIS_OK) {
      TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                  "%s[%s] read command fail\r\n", DbName(db),
                  OpName(TQREDIS_OP_READ));
      return -1;
    }
    const RequestWords words = words_needed ? WordsAt(ctx, at) : RequestWords{};
    if (ledger != nullptr) Owe(*ledger, extras.replies, words.word);
    const int token = RecordStart(db, words, extras);
    if (redisGetReply(ctx, &reply) != REDIS_OK || reply == nullptr) {
      TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                  "%s[%s] read command fail\r\n", DbName(db),
                  OpName(TQREDIS_OP_READ));
      return -1;
    }
    if (ledger != nullptr) ++ledger->read;
    if (token != -1) g_recorder->end(token);
    // A synchronous command writes out everything pending before it reads.
    slot.append_cmd_num = 0;
    auto *got = static_cast<redisReply *>(reply);
    tqredis_print_reply(got);
    if (reply_out != nullptr) {
      *reply_out = got;  // the caller frees it
    } else {
      freeReplyObject(got);
    }
    return 0;
  }
  // With replies off, replies of appended commands are never read on read
  // and write slots.
  const size_t at = sdslen(ctx->obuf);
  if (redisvAppendCommand(ctx, format, ap) != REDIS_OK) {
    TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                "%s[%s] write command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  ++slot.append_cmd_num;
  const RequestWords words = words_needed ? WordsAt(ctx, at) : RequestWords{};
  if (ledger != nullptr) Owe(*ledger, extras.replies, words.word);
  RecordStart(db, words, extras);  // a write is not timed
  int rc = tqredis_commit_command(db, dbop, flag);
  // Past the bound, wait for what is owed rather than let it pile up.
  if (rc == 0 && extras.replies && ledger != nullptr &&
      Unread(*ledger) > kMaxUnread) {
    rc = ReadAllOwed(dbop, db, *ledger);
  }
  if (rc != 0) {
    TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                "%s[%s] commit command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  return 0;
}

// Exec() after checking what it would dereference.
int ExecChecked(uint32_t db, uint32_t op, uint32_t dbop, uint32_t flag,
                const char *format, va_list ap, redisReply **reply_out,
                Extras &extras) {
  if (db >= TQREDIS_DB_NUM || dbop >= TQREDIS_OP_NUM || format == nullptr ||
      g_tqredis_connect_mng[dbop][db].context == nullptr) {
    TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                "input arguments invalid, db=%d op=%d\r\n",
                static_cast<int>(db), static_cast<int>(dbop));
    return -1;
  }
  return Exec(db, op, dbop, flag, format, ap, reply_out, extras);
}

}  // namespace

namespace tqredis::detail {

void SetCommandRecorder(const CommandRecorder *recorder) {
  g_recorder = recorder;
}

UnrecordedScope::UnrecordedScope() { ++t_unrecorded; }
UnrecordedScope::~UnrecordedScope() { --t_unrecorded; }

uint32_t UnreadReplies(uint32_t op, uint32_t db) {
  if (op >= TQREDIS_OP_PUBSUB || db >= TQREDIS_DB_NUM) return 0;
  return Unread(LedgerOf(op, db));
}

uint32_t ReplyErrors(uint32_t op, uint32_t db) {
  if (op >= TQREDIS_OP_PUBSUB || db >= TQREDIS_DB_NUM) return 0;
  return g_ledger[op][db].errors;
}

}  // namespace tqredis::detail

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
  if (RepliesOn() && op < TQREDIS_OP_PUBSUB)
    return ReadArrived(op, db, LedgerOf(op, db));
  return 0;
}

void tqredis_commit_command_all(void) {
  tqredis::detail::ScopedLock lock;
  const bool replies = RepliesOn();
  // Pubsub slots carry no pipelined writes of ours worth forcing out here.
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    for (uint32_t op : {TQREDIS_OP_READ, TQREDIS_OP_WRITE}) {
      // A flush reads what has arrived itself; a slot with nothing to flush
      // still gets the idle tick's read of replies that came since. A
      // failure leaves the context in error for the next command to find.
      const bool flushes = g_tqredis_connect_mng[op][db].append_cmd_num != 0;
      tqredis_commit_command(db, op, TQREDIS_CMD_COMMIT);
      if (replies && !flushes && tqredis_db_is_connected(db, op))
        ReadArrived(op, db, LedgerOf(op, db));
    }
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
  // Only tqredis_db_command() records.
  Extras extras = {RepliesOn(), false, false};
  return ExecChecked(db, op, dbop, flag, format, ap, reply_out, extras);
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
    // Read once: a switch turned meanwhile applies from the next command.
    Extras extras = {RepliesOn(), RecordAllOn() && t_unrecorded == 0, false};
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
        const int rc =
            ExecChecked(udb, uop, dbop, flag, format, attempt, &result, extras);
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
