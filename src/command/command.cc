// The one road of every command: argument check, slot choice, synchronous
// reads, pipelined writes with their commit threshold, the retry after a
// reconnection, and (by switch) the reading of pipelined writes' replies and
// the recording of every command.

// First, before any header reaches it through hiredis.h: hiredis's string
// buffer functions are C, and their header does not say so.
extern "C" {
#include <hiredis/sds.h>
}

#include "command/command.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "command/format.h"
#include "connect/connect.h"
#include "connect/reader.h"
#include "connect/table.h"
#include "core/config.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::AppendCommand;
using tqredis::detail::DbName;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogError;
using tqredis::detail::kLogWarn;
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

// Writes kept from a connection that was lost before they were written out
// (reconnect=1), waiting for the slot's next connection: whole requests,
// in the order they were appended. Guarded by the global lock.
struct Carried {
  sds bytes;       // NULL when none
  uint32_t count;  // requests in bytes
};
Carried g_carried[TQREDIS_OP_PUBSUB][TQREDIS_DB_NUM] = {};
// Written writes whose replies never came before their connection was lost,
// since load (counted with replies=1 and reconnect=1).
uint32_t g_unconfirmed[TQREDIS_OP_PUBSUB][TQREDIS_DB_NUM] = {};

void AttachCarried(uint32_t op, uint32_t db, struct ReplyLedger &ledger);

// Starts the ledger of slot [op][db] over for the connection the slot holds
// now; a new connection takes the writes carried from the lost one first.
// Out of line: it runs once per connection.
__attribute__((noinline)) ReplyLedger &ResetLedger(uint32_t op, uint32_t db) {
  const tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  ReplyLedger &ledger = g_ledger[op][db];
  ledger.context = slot.context;
  ledger.connect_num = slot.connect_num;
  ledger.sent = 0;
  ledger.read = 0;
  if (slot.context != nullptr && g_carried[op][db].bytes != nullptr)
    AttachCarried(op, db, ledger);
  return ledger;
}

// The ledger of slot [op][db], reset when the slot holds another connection
// than the one counted, as after a drop and a reconnection. Every command
// asks. REQUIRES: op is read or write, the global lock.
inline ReplyLedger &LedgerOf(uint32_t op, uint32_t db) {
  const tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  ReplyLedger &ledger = g_ledger[op][db];
  if (ledger.context == slot.context && ledger.connect_num == slot.connect_num)
    return ledger;
  return ResetLedger(op, db);
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

// With `with_key` false only the word is read (the key stays empty): the
// name kept for a reply needs no more.
RequestWords WordsAt(const redisContext *ctx, size_t at, bool with_key = true) {
  RequestWords words;
  const char *p = ctx->obuf + at;
  const char *end = ctx->obuf + sdslen(ctx->obuf);
  const long argc = ReadHeader(p, end, '*');
  std::string_view *fields[] = {&words.word, &words.key};
  const long wanted = with_key ? 2 : 1;
  for (long i = 0; i < argc && i < wanted; ++i) {
    const long len = ReadHeader(p, end, '$');
    if (len < 0 || len > end - p) break;
    *fields[i] = std::string_view(p, static_cast<size_t>(len));
    p += len + 2;
  }
  return words;
}

// The length of the whole request at `p`, as hiredis formats one ("*N\r\n"
// and N "$L\r\n<L bytes>\r\n"); 0 when it is cut short before `end`.
size_t RequestLength(const char *p, const char *end) {
  const char *q = p;
  const long argc = ReadHeader(q, end, '*');
  if (argc < 0) return 0;
  for (long i = 0; i < argc; ++i) {
    const long len = ReadHeader(q, end, '$');
    if (len < 0 || end - q < len + 2) return 0;
    q += len + 2;
  }
  return static_cast<size_t>(q - p);
}

// The whole requests at the start of [p, p + size): their count, and their
// length in `whole`.
uint32_t CountRequests(const char *p, size_t size, size_t *whole) {
  uint32_t count = 0;
  size_t at = 0;
  while (at < size) {
    const size_t n = RequestLength(p + at, p + size);
    if (n == 0) break;
    at += n;
    ++count;
  }
  *whole = at;
  return count;
}

// Writes out the whole output buffer, as redisBufferWrite() in a loop does,
// except on a failure: the buffer is then left starting at the first request
// not wholly written, so that it holds only whole requests, which can be
// sent again on another connection (the server drops a request it got only
// part of when the connection goes). The context is left in error as hiredis
// leaves it. -1 on failure.
int FlushWhole(redisContext *ctx) {
  if (ctx->err) return -1;
  const size_t len = sdslen(ctx->obuf);
  size_t sent = 0;
  while (sent < len) {
    const ssize_t n = write(ctx->fd, ctx->obuf + sent, len - sent);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    // A blocking socket: EAGAIN is its send time-out, an error as in hiredis.
    const int err = n < 0 ? errno : EIO;
    ctx->err = REDIS_ERR_IO;
    std::snprintf(ctx->errstr, sizeof(ctx->errstr), "%s", std::strerror(err));
    size_t start = 0;
    while (start < sent) {
      const size_t whole = RequestLength(ctx->obuf + start, ctx->obuf + len);
      if (whole == 0 || start + whole > sent) break;
      start += whole;
    }
    sdsrange(ctx->obuf, static_cast<int>(start), -1);
    return -1;
  }
  // As hiredis does: the memory of a large burst is not kept.
  sds fresh = sdsempty();
  if (fresh != nullptr) {
    sdsfree(ctx->obuf);
    ctx->obuf = fresh;
  } else {
    sdsclear(ctx->obuf);
  }
  return 0;
}

// Writes out slot [op][db]'s pending requests; with reconnect=1, so that a
// failure leaves whole requests behind. -1 on failure.
int Flush(redisContext *ctx) {
  if (tqredis::detail::ReconnectOn()) return FlushWhole(ctx);
  // A blocking socket: each write waits until the kernel takes the bytes.
  int done = 0;
  do {
    if (redisBufferWrite(ctx, &done) == REDIS_ERR) return -1;
  } while (!done);
  return 0;
}

// Spare reply blocks of each read and write connection, for the replies of
// pipelined writes that the library reads and drops itself (replies=1): the
// reader builds from them once replies are read, and a reply settled goes
// back. Replies handed to the host are ordinary heap blocks it frees as
// ever. Guarded by the global lock.
tqredis::detail::ReplyPool g_reply_pools[TQREDIS_OP_PUBSUB][TQREDIS_DB_NUM];

// Makes slot [op][db]'s reader build from its pool, if it does not yet and
// no reply is half read.
void PoolReplies(uint32_t op, uint32_t db, redisContext *ctx) {
  tqredis::detail::PoolReader(ctx->reader, &g_reply_pools[op][db]);
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
  // Just returned by the slot's reader: built from the pool when the reader
  // builds from it now.
  const redisContext *ctx = g_tqredis_connect_mng[op][db].context;
  if (reply != nullptr && ctx != nullptr &&
      tqredis::detail::BuildsFrom(ctx->reader, &g_reply_pools[op][db])) {
    tqredis::detail::RecycleReply(&g_reply_pools[op][db], reply);
  } else {
    freeReplyObject(reply);
  }
}

// Reads every reply owed by [op][db], waiting for them; this writes out
// whatever is pending first. -1 when the connection failed.
int ReadAllOwed(uint32_t op, uint32_t db, ReplyLedger &ledger) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  if (Unread(ledger) == 0) return 0;
  if (Flush(slot.context) != 0) return -1;
  PoolReplies(op, db, slot.context);
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
  if (Unread(ledger) != 0) PoolReplies(op, db, ctx);
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

// tqredis_commit_command() on a slot known to be connected, as every slot a
// command runs on is: the flush when due, then, with replies on, the read of
// what has arrived.
int CommitConnected(uint32_t db, uint32_t op, uint32_t flag) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  // With a threshold of 0 every call writes, even with nothing pending.
  const bool due = ((flag & TQREDIS_CMD_COMMIT) && slot.append_cmd_num != 0) ||
                   slot.append_cmd_num >= tqredis::detail::CommitThreshold();
  if (!due) return 0;
  if (Flush(slot.context) != 0) return -1;
  slot.append_cmd_num = 0;
  if (RepliesOn() && op < TQREDIS_OP_PUBSUB)
    return ReadArrived(op, db, LedgerOf(op, db));
  return 0;
}

// The slot a command of `op` on `db` runs on, as tqredis_calc_dbop() says,
// without a call through the exported name.
inline uint32_t CalcDbop(uint32_t db, uint32_t op) {
  if (op != TQREDIS_OP_WRITE) return op;
  // Only a card that is not the master writes through its write slot.
  return tqredis_get_write_connext_stats(db) != 0 ? TQREDIS_OP_WRITE
                                                  : TQREDIS_OP_READ;
}

// The flush a write asks for on connected slot [dbop][db]; with `replies`,
// past the bound it waits for what is owed rather than let it pile up.
// `ledger` is the slot's, NULL for a pubsub slot. -1 on failure.
int CommitWrites(uint32_t db, uint32_t dbop, uint32_t flag, bool replies,
                 ReplyLedger *ledger) {
  int rc = CommitConnected(db, dbop, flag);
  if (rc == 0 && replies && ledger != nullptr && Unread(*ledger) > kMaxUnread)
    rc = ReadAllOwed(dbop, db, *ledger);
  return rc;
}

// What one command does beyond sending, decided once per call.
struct Extras {
  bool replies;     // read the replies of pipelined writes
  bool record;      // record the command
  bool recorded;    // already recorded by an earlier attempt
  size_t read_len;  // bytes of the read appended by the last attempt, or 0
  bool in_place;    // reconnect in place after a loss
};

int RecordStart(uint32_t db, const RequestWords &words, Extras &extras) {
  if (!extras.record || extras.recorded || g_recorder == nullptr) return -1;
  extras.recorded = true;
  return g_recorder->start(db, words.word, words.key);
}

// One attempt at a command on connected slot [dbop][db]. Inlined into its
// two callers: the call's frame cost a GET a fifth of what the library adds
// to it. REQUIRES: the global lock, arguments checked.
inline __attribute__((always_inline)) int Exec(uint32_t db, uint32_t op,
                                               uint32_t dbop, uint32_t flag,
                                               const char *format, va_list ap,
                                               redisReply **reply_out,
                                               Extras &extras) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[dbop][db];
  redisContext *ctx = slot.context;
  extras.read_len = 0;
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
    if (AppendCommand(ctx, format, ap) != REDIS_OK) {
      TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                  "%s[%s] read command fail\r\n", DbName(db),
                  OpName(TQREDIS_OP_READ));
      return -1;
    }
    extras.read_len = sdslen(ctx->obuf) - at;
    const RequestWords words =
        words_needed ? WordsAt(ctx, at, extras.record) : RequestWords{};
    if (ledger != nullptr) Owe(*ledger, extras.replies, words.word);
    const int token = RecordStart(db, words, extras);
    // Reconnecting in place, the requests go out first in whole ones, so
    // that a loss leaves the unsent writes to carry; redisGetReply() then
    // only reads.
    const bool flushed = !extras.in_place || Flush(ctx) == 0;
    if (!flushed || redisGetReply(ctx, &reply) != REDIS_OK ||
        reply == nullptr) {
      TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                  "%s[%s] read command fail\r\n", DbName(db),
                  OpName(TQREDIS_OP_READ));
      return -1;
    }
    if (ledger != nullptr) ++ledger->read;
    extras.read_len = 0;
    if (token != -1) g_recorder->end(token);
    // A synchronous command writes out everything pending before it reads.
    slot.append_cmd_num = 0;
    auto *got = static_cast<redisReply *>(reply);
    // Tested here: a call per read for a level that is nearly always off.
    if (g_tqredis_dbg_level & tqredis::detail::kLogReplyDump)
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
  if (AppendCommand(ctx, format, ap) != REDIS_OK) {
    TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                "%s[%s] write command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  ++slot.append_cmd_num;
  const RequestWords words =
      words_needed ? WordsAt(ctx, at, extras.record) : RequestWords{};
  if (ledger != nullptr) Owe(*ledger, extras.replies, words.word);
  RecordStart(db, words, extras);  // a write is not timed
  if (CommitWrites(db, dbop, flag, extras.replies, ledger) != 0) {
    TQ_LOG_FROM("tqredis_exec_command", __LINE__, kLogError,
                "%s[%s] commit command fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  return 0;
}

// Puts the requests carried from slot [op][db]'s lost connection at the
// head of its new one, counted as owed and as pending writes: they were
// appended before anything the new connection will carry. REQUIRES: the
// global lock; `ledger` just reset for the slot's new context.
void AttachCarried(uint32_t op, uint32_t db, ReplyLedger &ledger) {
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  redisContext *ctx = slot.context;
  Carried &carried = g_carried[op][db];
  const size_t carried_len = sdslen(carried.bytes);
  sds joined = sdscatsds(carried.bytes, ctx->obuf);
  if (joined == nullptr) return;  // out of memory: kept for the next try
  sdsfree(ctx->obuf);
  ctx->obuf = joined;
  const bool named = RepliesOn();
  size_t at = 0;
  while (at < carried_len) {
    Owe(ledger, named, WordsAt(ctx, at, false).word);
    at += RequestLength(ctx->obuf + at, ctx->obuf + carried_len);
  }
  slot.append_cmd_num += carried.count;
  TQ_LOG(kLogWarn,
         "%s[%s] %u unsent commands carried to the new connection\r\n",
         DbName(db), OpName(op), static_cast<unsigned>(carried.count));
  carried = {nullptr, 0};
}

// Before read or write slot [op][db]'s failed connection is dropped in
// place: keeps its whole requests not yet written out for the next
// connection, except the read in flight (`read_len` bytes at the end, 0 for
// none), which its command sends again; with replies=1, counts and logs the
// written requests whose replies will never come. REQUIRES: the global lock.
void Salvage(uint32_t op, uint32_t db, size_t read_len) {
  if (op >= TQREDIS_OP_PUBSUB || db >= TQREDIS_DB_NUM) return;
  redisContext *ctx = g_tqredis_connect_mng[op][db].context;
  if (ctx == nullptr) return;
  ReplyLedger &ledger = LedgerOf(op, db);
  size_t size = sdslen(ctx->obuf);
  // An unsent read is the last request; a sent one left nothing behind.
  if (read_len > 0 && size >= read_len) size -= read_len;
  size_t whole = 0;
  const uint32_t count = CountRequests(ctx->obuf, size, &whole);
  Carried &carried = g_carried[op][db];
  if (count > 0) {
    sds bytes = carried.bytes != nullptr
                    ? sdscatlen(carried.bytes, ctx->obuf, whole)
                    : sdsnewlen(ctx->obuf, whole);
    if (bytes != nullptr) {
      carried = {bytes, carried.count + count};
    } else {
      TQ_LOG(kLogError, "%s[%s] %u unsent commands lost: out of memory\r\n",
             DbName(db), OpName(op), static_cast<unsigned>(count));
    }
  }
  if (!RepliesOn()) return;  // without the replies read, nothing is known
  const uint32_t in_flight = read_len > 0 ? 1 : 0;
  const uint32_t owed = Unread(ledger);
  const uint32_t unconfirmed =
      owed > count + in_flight ? owed - count - in_flight : 0;
  if (unconfirmed == 0) return;
  g_unconfirmed[op][db] += unconfirmed;
  TQ_LOG(kLogError, "%s[%s] %u written commands unconfirmed\r\n", DbName(db),
         OpName(op), static_cast<unsigned>(unconfirmed));
}

// The retry of a write that met a lost connection, on the new one: the
// write itself is among the carried requests, or was written before the
// loss, so only the flush it asked for is done. REQUIRES: the global lock,
// slot [dbop][db] connected.
int FlushCarried(uint32_t db, uint32_t dbop, uint32_t flag, Extras &extras) {
  ReplyLedger &ledger = LedgerOf(dbop, db);  // takes the carried requests
  return CommitWrites(db, dbop, flag, extras.replies, &ledger);
}

// Where a command stands after a failed attempt, reconnecting in place.
struct Retry {
  bool retried;        // tried once more already
  bool write_pending;  // the write that met the loss is carried or written:
                       // it is never appended again, only flushed
};

// Decides what follows a failed attempt of a command of `uop` on slot
// [dbop][db]: true to give up (the call returns NULL), false to reconnect
// the slot and try again. Out of line and cold: a command that succeeds
// never runs it. REQUIRES: the global lock.
__attribute__((noinline, cold)) bool GiveUpAfterFailure(uint32_t db,
                                                        uint32_t uop,
                                                        uint32_t dbop,
                                                        const Extras &extras,
                                                        Retry &retry) {
  const redisContext *failed = g_tqredis_connect_mng[dbop][db].context;
  // A request the connection never took (a bad format): the connection is
  // sound and stays.
  if (extras.in_place && failed != nullptr && failed->err == 0) return true;
  if (extras.in_place) Salvage(dbop, db, extras.read_len);
  // A server that stopped answering: this call fails, the process goes on,
  // and the next call connects the slot again.
  if (tqredis::detail::DropTimedOut(
          db, dbop, uop == TQREDIS_OP_READ ? "reply" : "write")) {
    return true;
  }
  if (!extras.in_place) return false;
  if (retry.retried) {
    // Lost again at once: this call fails, the next use of the slot
    // connects it again.
    tqredis::detail::DropInPlace(db, dbop);
    return true;
  }
  retry.retried = true;
  retry.write_pending = uop != TQREDIS_OP_READ && dbop < TQREDIS_OP_PUBSUB;
  return false;
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

uint32_t UnconfirmedWrites(uint32_t op, uint32_t db) {
  if (op >= TQREDIS_OP_PUBSUB || db >= TQREDIS_DB_NUM) return 0;
  return g_unconfirmed[op][db];
}

}  // namespace tqredis::detail

// REQUIRES: the global lock is held.
int tqredis_commit_command(uint32_t db, uint32_t op, uint32_t flag) {
  if (!tqredis_db_is_connected(db, op)) return 0;
  return CommitConnected(db, op, flag);
}

void tqredis_commit_command_all(void) {
  tqredis::detail::ScopedLock lock;
  const bool replies = RepliesOn();
  const bool in_place = tqredis::detail::ReconnectOn();
  // Pubsub slots carry no pipelined writes of ours worth forcing out here.
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    for (uint32_t op : {TQREDIS_OP_READ, TQREDIS_OP_WRITE}) {
      const bool connected = tqredis_db_is_connected(db, op);
      // A slot restored by another's reconnection takes its carried writes.
      if (in_place && connected) LedgerOf(op, db);
      // A flush reads what has arrived itself; a slot with nothing to flush
      // still gets the idle tick's read of replies that came since. A
      // failure leaves the context in error for the next command to find,
      // or, reconnecting in place, drops it now.
      const bool flushes = g_tqredis_connect_mng[op][db].append_cmd_num != 0;
      int rc = tqredis_commit_command(db, op, TQREDIS_CMD_COMMIT);
      if (replies && !flushes && connected)
        rc = ReadArrived(op, db, LedgerOf(op, db));
      if (rc != 0 && in_place && connected) {
        Salvage(op, db, 0);
        tqredis::detail::DropInPlace(db, op);
      }
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
  return static_cast<int>(CalcDbop(db, op));
}

// REQUIRES: the global lock is held and slot [dbop][db] is connected.
int tqredis_exec_command(uint32_t db, uint32_t op, uint32_t dbop, uint32_t flag,
                         const char *format, va_list ap,
                         redisReply **reply_out) {
  // Only tqredis_db_command() records.
  Extras extras = {RepliesOn(), false, false, 0,
                   tqredis::detail::ReconnectOn()};
  return ExecChecked(db, op, dbop, flag, format, ap, reply_out, extras);
}

redisReply *tqredis_db_command(int db, int op, int ignored, uint32_t flag,
                               const char *format, ...) {
  (void)ignored;  // kept in the signature: callers pass -1
  const auto udb = static_cast<uint32_t>(db);
  const auto uop = static_cast<uint32_t>(op);
  // Checked here first, so that a valid call makes no call to say so.
  if ((udb >= TQREDIS_DB_NUM || uop >= TQREDIS_OP_NUM || format == nullptr) &&
      !tqredis_db_command_param_check(udb, uop, format)) {
    return nullptr;
  }
  redisReply *result = nullptr;
  va_list ap;
  va_start(ap, format);
  {
    tqredis::detail::ScopedLock lock;
    // Read once: a switch turned meanwhile applies from the next command.
    Extras extras = {RepliesOn(), RecordAllOn() && t_unrecorded == 0, false, 0,
                     tqredis::detail::ReconnectOn()};
    Retry retry = {false, false};
    for (;;) {
      // Without a waitlimit this waits for as long as it takes.
      if (!tqredis::detail::WaitForCardinfo(udb, uop, flag)) {
        result = nullptr;
        break;
      }
      // Chosen again after every reconnection: the master may have changed.
      const uint32_t dbop = CalcDbop(udb, uop);
      if (g_tqredis_connect_mng[dbop][udb].context != nullptr) {
        tqredis::detail::ApplyWaitLimit(udb, dbop);
        int rc;
        if (retry.write_pending) {
          rc = FlushCarried(udb, dbop, flag, extras);
        } else {
          // Each attempt reads the arguments from the first one again. The
          // ids and the format were checked above, the slot just now.
          va_list attempt;
          va_copy(attempt, ap);
          rc = Exec(udb, uop, dbop, flag, format, attempt, &result, extras);
          va_end(attempt);
        }
        if (rc != -1) break;
        if (GiveUpAfterFailure(udb, uop, dbop, extras, retry)) {
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
