// The notification pump: the host's loop calls tqredis_pubsub() again and
// again; it waits for keyspace notifications, checks and delivers them, and
// does the library's idle work when nothing comes.
#include "pubsub/pump.h"

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "command/command.h"
#include "connect/connect.h"
#include "connect/reader.h"
#include "connect/table.h"
#include "core/clock.h"
#include "core/keycmd.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "core/result.h"
#include "core/state.h"
#include "pubsub/pubsub.h"
#include "pubsub/registry.h"
#include "records/records.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::kLogData;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;

namespace tqredis::detail {
int32_t g_tqredis_idle_ticks = 0;
uint32_t g_tqredis_pubsub_reading = 0;
}  // namespace tqredis::detail

using tqredis::detail::g_tqredis_idle_ticks;
using tqredis::detail::g_tqredis_pubsub_list;
using tqredis::detail::g_tqredis_pubsub_list_inited;
using tqredis::detail::g_tqredis_pubsub_reading;
using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;

namespace {

// A notification: kind, subscribed pattern channel, key channel, event,
// value.
constexpr size_t kPmessageElements = 5;
constexpr size_t kPatternChannel = 1;
constexpr size_t kKeyChannel = 2;
constexpr size_t kEvent = 3;
constexpr size_t kValue = 4;
// Idle waits between two writes of the operation statistics (one minute
// at the earliest).
constexpr int32_t kIdleTicksPerSave = 600;
constexpr long kWaitUsec = 100000;

// The spare reply objects of each database's pubsub connection, kept from one
// connection to the next. Guarded by the global lock, as the pump's reads.
tqredis::detail::ReplyPool g_reply_pools[TQREDIS_DB_NUM];

// What one read of a pubsub socket brought in and its reader has not been
// given yet. The reader is given it a slice at a time: once it has parsed a
// kilobyte, hiredis moves the rest of its buffer to the front after every
// reply, so a whole read handed over at once would be moved again for each
// of the hundred notifications it holds. Bytes are pending only while the
// pump drains one database; they belong to the connection they were read
// from and are dropped with it. Guarded by the global lock.
struct Inbound {
  const redisContext *context;
  uint32_t connect_num;
  size_t start;  // bytes[start, end) are pending
  size_t end;
  char bytes[16 * 1024];  // one read, as hiredis reads
};
Inbound g_inbound[TQREDIS_DB_NUM];
constexpr size_t kSlice = 1024;

// The context's error, as hiredis sets it when its own read fails.
void SetReadError(redisContext *context, int type, const char *text) {
  context->err = type;
  const size_t len = strnlen(text, sizeof(context->errstr) - 1);
  std::memcpy(context->errstr, text, len);
  context->errstr[len] = '\0';
}

// One read of the socket into `in`, as redisBufferRead() does it: an
// interrupted read (or one that would block a non-blocking socket) reads
// nothing and succeeds; an error or the server's close fails the context.
int ReadSocket(redisContext *context, Inbound &in) {
  if (context->err) return REDIS_ERR;
  const ssize_t n = read(context->fd, in.bytes, sizeof(in.bytes));
  if (n < 0) {
    if ((errno == EAGAIN && !(context->flags & REDIS_BLOCK)) ||
        errno == EINTR) {
      return REDIS_OK;
    }
    SetReadError(context, REDIS_ERR_IO, std::strerror(errno));
    return REDIS_ERR;
  }
  if (n == 0) {
    SetReadError(context, REDIS_ERR_EOF, "Server closed the connection");
    return REDIS_ERR;
  }
  in.start = 0;
  in.end = static_cast<size_t>(n);
  return REDIS_OK;
}

// The next complete reply of `context` into *out (NULL: none yet): what its
// reader holds, then the pending bytes of `in`. With `may_read`, as
// redisGetReply() on a blocking context: what is waiting to be written goes
// out first, then the socket is read until a reply is complete.
int NextReply(redisContext *context, Inbound &in, bool may_read, void **out) {
  redisReader *reader = context->reader;
  bool flushed = false;
  for (;;) {
    if (redisReaderGetReply(reader, out) != REDIS_OK) {
      SetReadError(context, reader->err, reader->errstr);
      in.start = in.end;
      return REDIS_ERR;
    }
    if (*out != nullptr) return REDIS_OK;
    if (in.start < in.end) {
      const size_t n = std::min(kSlice, in.end - in.start);
      if (redisReaderFeed(reader, in.bytes + in.start, n) != REDIS_OK) {
        SetReadError(context, reader->err, reader->errstr);
        in.start = in.end;
        return REDIS_ERR;
      }
      in.start += n;
      continue;
    }
    if (!may_read || !(context->flags & REDIS_BLOCK)) return REDIS_OK;
    if (!flushed) {
      int done = 0;
      do {
        if (redisBufferWrite(context, &done) == REDIS_ERR) return REDIS_ERR;
      } while (!done);
      flushed = true;
    }
    if (ReadSocket(context, in) != REDIS_OK) return REDIS_ERR;
  }
}

std::string_view Text(const redisReply *reply) {
  return reply->str != nullptr ? std::string_view(reply->str, reply->len)
                               : std::string_view();
}

// The text of a channel after its first ':' ("__keyspace@0__:<rest>").
// REQUIRES: the channel contains ':' (checked by the shape check).
std::string_view AfterColon(const redisReply *channel) {
  const std::string_view text = Text(channel);
  return text.substr(text.find(':') + 1);
}

bool HasColon(const redisReply *channel) {
  return Text(channel).find(':') != std::string_view::npos;
}

}  // namespace

int tqredis_reste_fdset(fd_set *set) {
  FD_ZERO(set);
  int max_fd = -1;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    if (!tqredis_db_is_connected(db, TQREDIS_OP_PUBSUB)) continue;
    const int fd = tqredis_get_context(db, TQREDIS_OP_PUBSUB)->fd;
    // Hardening: FD_SET past the set's size would write beyond it.
    if (fd < 0 || fd >= FD_SETSIZE) {
      TQ_LOG(kLogError, "%s pubsub fd=%d out of fd_set, not waited for\r\n",
             DbName(db), fd);
      continue;
    }
    FD_SET(fd, set);
    if (fd > max_fd) max_fd = fd;
  }
  return max_fd;
}

int tqredis_pubsub(void) {
  if (tqredis::detail::ReconnectOn()) tqredis::detail::RestorePubsub();
  struct timeval timeout = {0, kWaitUsec};
  fd_set set;
  // Nothing connected: nfds 0, and select is a plain 100 ms sleep.
  const int nfds = tqredis_reste_fdset(&set) + 1;
  const int ready = select(nfds, &set, nullptr, nullptr, &timeout);
  if (ready < 0) {
    const int err = errno;
    TQ_LOG(kLogError, "slect fail for %s\r\n", std::strerror(err));
    return kFail;
  }
  if (ready == 0) {
    // Idle: pipelined writes wait at most one wait for their flush.
    tqredis_commit_command_all();
    // Activity does not reset the count, so a busy process still saves.
    if (++g_tqredis_idle_ticks >= kIdleTicksPerSave) {
      g_tqredis_idle_ticks = 0;
      tqredis_db_save_log();
    }
    return 0;
  }
  tqredis::detail::ScopedLock lock;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    // Checked again under the lock: a slot may have gone since the wait.
    const redisContext *context = tqredis_get_context(db, TQREDIS_OP_PUBSUB);
    if (context == nullptr || context->fd < 0 || context->fd >= FD_SETSIZE ||
        !FD_ISSET(context->fd, &set)) {
      continue;
    }
    tqredis_get_pubsub(db);
  }
  return 0;
}

// REQUIRES: the global lock.
int tqredis_get_pubsub(uint32_t db) {
  redisReply *reply = nullptr;
  int rv;
  while ((rv = tqredis_get_pubsub_reply(db, &reply)) == 0) {
    // Asked before the hooks run: one of them may drop the connection.
    const redisContext *context = tqredis_get_context(db, TQREDIS_OP_PUBSUB);
    const bool pooled =
        reply != nullptr && context != nullptr &&
        tqredis::detail::BuildsFrom(context->reader, &g_reply_pools[db]);
    tqredis_db_deal_pmsg(db, reply);
    if (pooled) {
      tqredis::detail::RecycleReply(&g_reply_pools[db], reply);
    } else {
      tqredis_free_reply(reply);
    }
  }
  if (rv == 1) return 1;
  const int err = errno;
  // Logged first: dropping a live connection ends the process (unless the
  // reconnect switch keeps it going; the next call restores the slot).
  TQ_LOG(kLogLife, ">>>>%s pubsubdb disconnect, error=%s\r\n", DbName(db),
         std::strerror(err));
  tqredis_disconnect(TQREDIS_OP_PUBSUB, db);
  tqredis_psubflag_clear(db);
  return rv;
}

// REQUIRES: the global lock.
int tqredis_get_pubsub_reply(uint32_t db, redisReply **reply) {
  redisContext *context = tqredis_get_context(db, TQREDIS_OP_PUBSUB);
  if (context == nullptr || reply == nullptr) return REDIS_ERR;
  *reply = nullptr;
  // From the first reply the pump reads on, the reader builds from the pool
  // (the handshake's replies were hiredis's own).
  tqredis::detail::PoolReader(context->reader, &g_reply_pools[db]);
  Inbound &in = g_inbound[db];
  const uint32_t connect_num =
      tqredis::detail::g_tqredis_connect_mng[TQREDIS_OP_PUBSUB][db].connect_num;
  if (in.context != context || in.connect_num != connect_num) {
    // Another connection: what an earlier one left is not its stream.
    in.context = context;
    in.connect_num = connect_num;
    in.start = in.end = 0;
  }
  void *parsed = nullptr;
  if (g_tqredis_pubsub_reading == 0) {
    // The socket is readable: one read, then whatever it completed.
    g_tqredis_pubsub_reading = 1;
    const int rv = NextReply(context, in, true, &parsed);
    *reply = static_cast<redisReply *>(parsed);
    return rv;
  }
  // Parse only what the last read brought in; no socket read.
  const int rv = NextReply(context, in, false, &parsed);
  if (rv != REDIS_OK || parsed != nullptr) {
    *reply = static_cast<redisReply *>(parsed);
    return rv;
  }
  g_tqredis_pubsub_reading = 0;
  return 1;
}

int tqredis_check_pubsub_reply(redisReply *reply) {
  if (reply == nullptr) {
    TQ_LOG(kLogError, "reply invalid\r\n");
    return 0;
  }
  // A nil or error value (the event of a deleted key) fails the whole
  // check but is still a notification to deliver. Its shape is checked all
  // the same, so that a reply accepted here can always be read.
  if (!tqredis_check_reply(reply)) TQ_LOG(kLogError, "reply invalid\r\n");
  if (reply->type != REDIS_REPLY_ARRAY ||
      reply->elements != kPmessageElements || reply->element == nullptr) {
    TQ_LOG(kLogError, "pmessage error[type=%d size=%zu]\r\n", reply->type,
           reply->elements);
    return 0;
  }
  for (size_t i = 0; i < kValue; ++i) {
    if (!tqredis_check_reply(reply->element[i])) {
      TQ_LOG(kLogError, "element[%d] is null\r\n", static_cast<int>(i));
      return 0;
    }
  }
  for (size_t i : {kPatternChannel, kKeyChannel}) {
    if (!HasColon(reply->element[i])) {
      TQ_LOG(kLogError, "element[%d] invalid\r\n", static_cast<int>(i));
      return 0;
    }
  }
  return 1;
}

int tqredis_get_pmsg_by_reply(redisReply *reply, tqredis_pmsg *pmsg) {
  if (reply == nullptr || pmsg == nullptr || reply->type != REDIS_REPLY_ARRAY ||
      reply->elements != kPmessageElements || reply->element == nullptr ||
      reply->element[kKeyChannel] == nullptr ||
      reply->element[kEvent] == nullptr ||
      !HasColon(reply->element[kKeyChannel])) {
    TQ_LOG(kLogError, "input arguments invalid\r\n");
    return kBadArgs;
  }
  const std::string_view key = AfterColon(reply->element[kKeyChannel]);
  // Cut at 127 characters or at an embedded NUL, whichever comes first.
  const size_t len =
      strnlen(key.data(), std::min(key.size(), sizeof(pmsg->key) - 1));
  std::memcpy(pmsg->key, key.data(), len);
  pmsg->key[len] = '\0';
  pmsg->cmd = tqredis::detail::KeyCmdFromEvent(Text(reply->element[kEvent]));
  pmsg->value = reply->element[kValue];
  return 0;
}

namespace tqredis::detail {

int CallHookTimed(const HookSite &site, tqredis_pmsg_hook_f hook,
                  tqredis_pmsg *pmsg, void *arg) {
  const long limit_ms = OptionValue(kOpt_hookwarn);
  if (limit_ms <= 0) return hook(pmsg, arg);
  const int64_t start = MonotonicNsec();
  const int rv = hook(pmsg, arg);
  const int64_t took = MonotonicNsec() - start;
  if (took > static_cast<int64_t>(limit_ms) * 1000000) {
    // The record is read after the hook returned: its key may have been
    // changed by the hook, yet it is the hook's own record to change.
    TQ_LOG_FROM(site.func, site.line, kLogError,
                "%s hook took %lld ms[db=%s pattern=%.*s key=%.*s]\r\n",
                site.which, static_cast<long long>(took / 1000000),
                DbName(pmsg->db), static_cast<int>(site.pattern.size()),
                site.pattern.data(), static_cast<int>(sizeof(pmsg->key) - 1),
                pmsg->key);
  }
  return rv;
}

int CallProcessHookTimed(const HookSite &site, tqredis_pmsg *pmsg) {
  // Read as one pair: another thread may replace it meanwhile.
  const PmsgHook hook = GetPmsgHook();
  return hook.hook != nullptr ? CallHookTimed(site, hook.hook, pmsg, hook.arg)
                              : 0;
}

}  // namespace tqredis::detail

int tqredis_call_pmsg_hook(tqredis_pmsg *pmsg) {
  return tqredis::detail::CallProcessHookTimed(
      {__func__, __LINE__, "process", std::string_view("")}, pmsg);
}

namespace {

// What delivery reads of a notification that passed the check: the texts
// after the first ':' of its two channels.
struct Channels {
  std::string_view pattern;
  std::string_view key;
};

// Where the first ':' of a text reply is, or npos. A byte loop: channels
// are short and the ':' comes early.
size_t ColonIn(const redisReply *channel) {
  const char *text = channel->str;
  for (size_t i = 0; i < channel->len; ++i)
    if (text[i] == ':') return i;
  return std::string_view::npos;
}

bool IsText(const redisReply *r) {
  return r != nullptr && r->type == REDIS_REPLY_STRING && r->str != nullptr;
}

// True when `reply` is a notification that tqredis_check_pubsub_reply()
// accepts without a word: five elements, the first four texts, the value a
// text, an integer or a status, a ':' in both channels. Everything else
// (a nil value included) goes through the full check, which says what it
// found.
bool PlainPmessage(const redisReply *reply, Channels *out) {
  if (reply == nullptr || reply->type != REDIS_REPLY_ARRAY ||
      reply->elements != kPmessageElements || reply->element == nullptr) {
    return false;
  }
  redisReply *const *e = reply->element;
  if (!IsText(e[0]) || !IsText(e[kPatternChannel]) || !IsText(e[kKeyChannel]) ||
      !IsText(e[kEvent])) {
    return false;
  }
  const redisReply *value = e[kValue];
  if (value == nullptr ||
      !(IsText(value) || value->type == REDIS_REPLY_INTEGER ||
        value->type == REDIS_REPLY_STATUS)) {
    return false;
  }
  const size_t pattern_colon = ColonIn(e[kPatternChannel]);
  const size_t key_colon = ColonIn(e[kKeyChannel]);
  if (pattern_colon == std::string_view::npos ||
      key_colon == std::string_view::npos) {
    return false;
  }
  out->pattern = Text(e[kPatternChannel]).substr(pattern_colon + 1);
  out->key = Text(e[kKeyChannel]).substr(key_colon + 1);
  return true;
}

// Zeroes `*pmsg` with vector stores (see ClearRecord() in records.h).
void ClearPmsg(tqredis_pmsg *pmsg) {
  static const tqredis_pmsg kEmpty = {};
  const tqredis_pmsg *empty = &kEmpty;
  asm("" : "+r"(empty));
  *pmsg = *empty;
}

// The subscription each database's notifications came through last, with
// the length of its pattern. Nodes are never removed and their patterns
// never change, so the pointer stays valid; and since nodes are only
// appended, the first node with a given text stays the first. Guarded by
// the global lock.
struct LastMatch {
  tqredis_pubsub_node *node;
  size_t len;
};
LastMatch g_last_match[TQREDIS_DB_NUM];

// The first node of `db`'s list whose pattern is exactly `pattern`, or NULL.
// REQUIRES: the lists were made, the global lock.
tqredis_pubsub_node *SubscriptionOf(uint32_t db, std::string_view pattern) {
  LastMatch &last = g_last_match[db];
  if (last.node != nullptr && last.len == pattern.size() &&
      std::memcmp(last.node->key_pattern, pattern.data(), last.len) == 0) {
    return last.node;
  }
  tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
  for (tqredis_pubsub_node *node = head->next; node != head;
       node = node->next) {
    // The first byte first: most nodes differ there.
    if (!pattern.empty() && node->key_pattern[0] != pattern[0]) continue;
    if (pattern != node->key_pattern) continue;
    last = {node, pattern.size()};
    return node;
  }
  return nullptr;
}

}  // namespace

int tqredis_db_deal_pmsg(uint32_t db, redisReply *reply) {
  Channels channels;
  if (db >= TQREDIS_DB_NUM) {
    TQ_LOG(kLogError, "pmessage invalid\r\n");
    tqredis_print_reply(reply);
    return kBadArgs;
  }
  if (!PlainPmessage(reply, &channels)) {
    if (!tqredis_check_pubsub_reply(reply)) {
      TQ_LOG(kLogError, "pmessage invalid\r\n");
      tqredis_print_reply(reply);
      return kBadArgs;
    }
    channels = {AfterColon(reply->element[kPatternChannel]),
                AfterColon(reply->element[kKeyChannel])};
  }
  // What tqredis_get_pmsg_by_reply() makes of a reply that passed the check,
  // in a record zeroed whole, as the hooks have always been handed it.
  tqredis_pmsg pmsg;
  ClearPmsg(&pmsg);
  // Cut at 127 characters or at an embedded NUL, whichever comes first.
  const std::string_view key = channels.key;
  const size_t limit = std::min(key.size(), sizeof(pmsg.key) - 1);
  for (size_t i = 0; i < limit && key[i] != '\0'; ++i) pmsg.key[i] = key[i];
  pmsg.cmd = tqredis::detail::KeyCmdFromEvent(Text(reply->element[kEvent]));
  pmsg.value = reply->element[kValue];
  pmsg.reserved = 0;
  pmsg.db = db;
  // The server echoes the pattern as subscribed: the first node with that
  // exact text is the subscription it came through.
  const std::string_view pattern = channels.pattern;
  if (!g_tqredis_pubsub_list_inited) return 0;  // nothing registered
  tqredis_pubsub_node *node = SubscriptionOf(db, pattern);
  if (node == nullptr) return 0;  // no longer ours: dropped silently
  const int index =
      tqredis_db_in_log(pmsg.key, static_cast<uint32_t>(pmsg.cmd), db, 0);
  tqredis::detail::CallHookTimed({__func__, __LINE__, "subscription", pattern},
                                 node->hook, &pmsg, node->hook_arg);
  // Only the subscription's own hook is timed in the statistics.
  if (index != -1) tqredis_db_in_log_stat(static_cast<uint32_t>(index));
  tqredis::detail::CallProcessHookTimed(
      {__func__, __LINE__, "process", pattern}, &pmsg);
  TQ_LOG(kLogData, "pmessage over[db=%s pattern=%.*s key=%s cmd=%s]\r\n",
         DbName(db), static_cast<int>(pattern.size()), pattern.data(), pmsg.key,
         g_tqredis_keycmd_str[pmsg.cmd]);
  return 0;
}
