// Connecting a slot, proving the server answers, naming the client, the sweep
// over all slots, and the fatal path taken when a live connection is lost.
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "connect/cardinfo.h"
#include "connect/connect.h"
#include "connect/reader.h"
#include "connect/table.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "core/state.h"
#include "reply/reply.h"
#include "tqredis.h"

extern char **environ;

using tqredis::detail::DbName;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;
using tqredis::detail::kLogWarn;
using tqredis::detail::OpName;

namespace {

// Where the limited log is kept when the process ends on a lost connection.
constexpr char kCoredumpDir[] = "/var/tmp/coredump/";

// The reply of a command the library sends and reads itself. NULL when the
// connection failed.
redisReply *Command(redisContext *ctx, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
redisReply *Command(redisContext *ctx, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  void *reply = redisvCommand(ctx, format, ap);
  va_end(ap);
  return static_cast<redisReply *>(reply);
}

// The socket time-out each slot's context was given, so that a command pays
// one compare, not a system call, when the limit has not changed. A context
// not recorded here has none (hiredis sets none on a blocking socket).
// Guarded by the global lock, like the table.
struct AppliedTimeout {
  const redisContext *context;
  long ms;
};
AppliedTimeout g_applied[TQREDIS_OP_NUM][TQREDIS_DB_NUM] = {};

// Both directions of the socket; 0 takes the time-out away.
void SetSocketTimeout(redisContext *ctx, long ms) {
  const struct timeval tv = {static_cast<time_t>(ms / 1000),
                             static_cast<suseconds_t>((ms % 1000) * 1000)};
  redisSetTimeout(ctx, tv);
}

// True when the context's last socket call ran out of its time-out: hiredis
// then keeps the text of EAGAIN as its error, and the context is unusable.
bool TimedOut(const redisContext *ctx) {
  return ctx->err == REDIS_ERR_IO &&
         std::strcmp(ctx->errstr, std::strerror(EAGAIN)) == 0;
}

}  // namespace

namespace tqredis::detail {

int64_t MonotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long WaitLimitMs() { return OptionValue(kOpt_waitlimit); }

void SleepUntilAtMost(int64_t deadline_ms) {
  const int64_t left = deadline_ms - MonotonicMs();
  if (left <= 0) return;
  if (left >= 1000) {
    select_sleep(1, 0);
  } else {
    select_sleep(0, static_cast<int>(left * 1000));
  }
}

void ApplyWaitLimit(uint32_t db, uint32_t op) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) return;
  redisContext *ctx = g_tqredis_connect_mng[op][db].context;
  if (ctx == nullptr) return;
  const long want = op == TQREDIS_OP_PUBSUB ? 0 : WaitLimitMs();
  AppliedTimeout &applied = g_applied[op][db];
  const long have = applied.context == ctx ? applied.ms : 0;
  if (have == want) return;
  SetSocketTimeout(ctx, want);
  applied = {ctx, want};
}

bool DropTimedOut(uint32_t db, uint32_t op, const char *what) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) return false;
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  redisContext *ctx = slot.context;
  const AppliedTimeout &applied = g_applied[op][db];
  if (ctx == nullptr || applied.context != ctx || applied.ms <= 0 ||
      !TimedOut(ctx)) {
    return false;
  }
  TQ_LOG(kLogError, "%s %s wait for %s gave up after %ld ms\r\n", DbName(db),
         OpName(op), what, applied.ms);
  redisFree(ctx);
  slot.context = nullptr;
  g_applied[op][db] = {nullptr, 0};
  return true;
}

}  // namespace tqredis::detail

redisContext *tqredis_connect_redis(uint32_t db, uint32_t op,
                                    tqredis_conn_slot *slot) {
  if (slot == nullptr) return nullptr;
  const struct timeval timeout = {1, 0};
  redisContext *ctx = nullptr;
  switch (slot->mode) {
    case 0:
      ctx = redisConnectUnixWithTimeout(slot->unixpath, timeout);
      break;
    case 1:
      ctx = redisConnectWithTimeout(slot->hostname, slot->hostport, timeout);
      break;
    default:
      TQ_LOG(kLogError, "%s connect mode[%d] error\r\n", OpName(op),
             static_cast<int>(slot->mode));
      return nullptr;
  }
  if (ctx == nullptr) {
    TQ_LOG(kLogError,
           "connect %s %s[mode=%d path=%s] error: can't allocate redis "
           "context\r\n",
           DbName(db), OpName(op), static_cast<int>(slot->mode),
           slot->unixpath);
    return nullptr;
  }
  if (ctx->err) {
    TQ_LOG(
        kLogError,
        "connect %s %s[mode=%d path=%s hostname=%s hostport=%d] error: %s\r\n",
        DbName(db), OpName(op), static_cast<int>(slot->mode), slot->unixpath,
        slot->hostname, static_cast<int>(slot->hostport), ctx->errstr);
    redisFree(ctx);
    return nullptr;
  }
  // Before the first reply: no server may make this process allocate an
  // array of its choosing.
  tqredis::detail::BoundReader(ctx->reader);
  return ctx;
}

// A server that answers but not yet with "PONG" (still loading, say) is
// probed again every second until it does.
// With a waitlimit, the probing stops after it.
int tqredis_db_wait_ready(uint32_t db, uint32_t op, redisContext *ctx) {
  if (ctx == nullptr) return -1;
  const long limit = tqredis::detail::WaitLimitMs();
  const int64_t deadline =
      limit > 0 ? tqredis::detail::MonotonicMs() + limit : 0;
  for (;;) {
    redisReply *reply = Command(ctx, "PING");
    if (tqredis_check_reply(reply) == 0) {
      tqredis_free_reply(reply);
      TQ_LOG(kLogWarn, "%s %s ping fail\r\n", DbName(db), OpName(op));
      return -1;
    }
    const bool pong =
        reply->str != nullptr && std::strcmp(reply->str, "PONG") == 0;
    tqredis_free_reply(reply);
    if (pong) return 0;
    if (limit > 0) {
      if (tqredis::detail::MonotonicMs() >= deadline) {
        TQ_LOG(kLogError, "%s %s wait for PONG gave up after %ld ms\r\n",
               DbName(db), OpName(op), limit);
        return -1;
      }
      tqredis::detail::SleepUntilAtMost(deadline);
    } else {
      select_sleep(1, 0);
    }
    TQ_LOG(kLogLife, "%s %s try to ping...\r\n", DbName(db), OpName(op));
  }
}

int tqredis_set_client_name(uint32_t db, uint32_t op, redisContext *ctx) {
  if (ctx == nullptr) return -1;
  redisReply *reply =
      Command(ctx, "CLIENT SETNAME %s-%s", g_tqredis_proc_name, OpName(op));
  if (tqredis_check_reply(reply) == 0) {
    tqredis_free_reply(reply);
    TQ_LOG(kLogError, "%s %s client setname fail\r\n", DbName(db), OpName(op));
    return -1;
  }
  tqredis_free_reply(reply);
  return 0;
}

int tqredis_connect(uint32_t db, uint32_t op) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) {
    TQ_LOG(kLogError, "input arguments invalid, op=%d db=%d\r\n",
           static_cast<int>(op), static_cast<int>(db));
    return -1;
  }
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  if (slot.context != nullptr) return 0;  // idempotent, no traffic
  redisContext *ctx = tqredis_connect_redis(db, op, &slot);
  if (ctx == nullptr) return -1;
  // With a waitlimit the handshake is bounded too, even on a pubsub slot.
  const long limit = tqredis::detail::WaitLimitMs();
  if (limit > 0) SetSocketTimeout(ctx, limit);
  // The name is set only once the server has proved it answers.
  if (tqredis_db_wait_ready(db, op, ctx) != 0 ||
      tqredis_set_client_name(db, op, ctx) != 0) {
    redisFree(ctx);
    return -1;
  }
  if (limit > 0 && op == TQREDIS_OP_PUBSUB) SetSocketTimeout(ctx, 0);
  g_applied[op][db] = {ctx, op == TQREDIS_OP_PUBSUB ? 0 : limit};
  TQ_LOG(kLogLife,
         ">>>>%s %s[mode=%d path=%s hostname=%s hostport=%d] connected\r\n",
         DbName(db), OpName(op), static_cast<int>(slot.mode), slot.unixpath,
         slot.hostname, static_cast<int>(slot.hostport));
  slot.context = ctx;
  ++slot.connect_num;
  return 0;
}

// Runs without the lock: either tqredis_db_connect() holds it, or the
// reconnection thread runs while its starter holds it.
int tqredis_db_connect_nolock(void) {
  int rv = 0;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    if (tqredis_db_exist(db)) {
      // No pubsub or write attempt for a database whose read slot is down.
      rv = tqredis_connect(db, TQREDIS_OP_READ);
      if (rv != 0) continue;
      rv = tqredis_connect(db, TQREDIS_OP_PUBSUB);
      if (rv != 0) continue;
    }
    if (tqredis_cardinfo_is_readed() &&
        tqredis_get_write_connext_stats(db) == 1) {
      rv = tqredis_connect(db, TQREDIS_OP_WRITE);
    }
  }
  return rv;
}

void tqredis_db_connect(void) {
  tqredis::detail::ScopedLock lock;
  tqredis_db_connect_nolock();
}

void tqredis_disconnect(uint32_t op, uint32_t db) {
  if (op >= TQREDIS_OP_NUM || db >= TQREDIS_DB_NUM) {
    TQ_LOG(kLogError, "input arguments invalid, op=%d db=%d\r\n",
           static_cast<int>(op), static_cast<int>(db));
    return;
  }
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  if (slot.context == nullptr) return;
  TQ_LOG(kLogLife, ">>>>%s[%s] disconnect[error=%d %s]\r\n", DbName(db),
         OpName(op), slot.context->err, slot.context->errstr);
  redisFree(slot.context);
  slot.context = nullptr;
  // The fatal path (a kept behaviour, listed in the README).
  tqredis_exit(db);
}

void tqredis_exit(uint32_t db) {
  TQ_LOG(kLogLife, ">>>>exit for disconnecting from %s\r\n", DbName(db));
  // The same copy as "cp -f /tmp/tqredis//<name>.limitlog /var/tmp/coredump/",
  // run without a shell so that no character of the process name can break
  // the copy or run a command. The doubled slash is harmless.
  char source[128];
  std::snprintf(source, sizeof(source), "%s/%s.limitlog", "/tmp/tqredis/",
                g_tqredis_proc_name);
  char cp[] = "cp";
  char force[] = "-f";
  char target[sizeof(kCoredumpDir)];
  std::memcpy(target, kCoredumpDir, sizeof(kCoredumpDir));
  char *argv[] = {cp, force, source, target, nullptr};
  pid_t pid;
  if (posix_spawnp(&pid, "cp", nullptr, nullptr, argv, environ) == 0) {
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  std::exit(0);
}
