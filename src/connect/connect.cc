// Connecting a slot, proving the server answers, naming the client, the sweep
// over all slots, and the fatal path taken when a live connection is lost.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "connect/cardinfo.h"
#include "connect/connect.h"
#include "connect/inplace.h"
#include "connect/reader.h"
#include "connect/table.h"
#include "core/clock.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/options.h"
#include "core/state.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::g_applied;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;
using tqredis::detail::kLogWarn;
using tqredis::detail::OpName;

namespace {

// Where the limited log is kept when the process ends on a lost connection.
constexpr char kCoredumpDir[] = "/var/tmp/coredump/";
// The connection of a fatal path entered through tqredis_exit() itself.
constexpr uint32_t kOpUnknown = TQREDIS_OP_NUM;

// Set while this thread runs the fatal path, whose statistics write may lose
// another connection.
thread_local bool t_fatal_path_running = false;
// The fatal path, defined at the end of the file.
[[noreturn]] void ExitOnLostConnection(uint32_t op, uint32_t db);

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

AppliedTimeout g_applied[TQREDIS_OP_NUM][TQREDIS_DB_NUM] = {};

void SleepUntilAtMost(int64_t deadline) {
  const int64_t left_ns = deadline - MonotonicNsec();
  if (left_ns <= 0) return;
  if (left_ns >= 1000000000) {
    select_sleep(1, 0);
  } else {
    // Rounded up, so that the sleep reaches the deadline.
    select_sleep(0, static_cast<int>((left_ns + 999) / 1000));
  }
}

void SetSlotTimeout(uint32_t db, uint32_t op, long ms) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) return;
  redisContext *ctx = g_tqredis_connect_mng[op][db].context;
  if (ctx == nullptr) return;
  AppliedTimeout &applied = g_applied[op][db];
  const long have = applied.context == ctx ? applied.ms : 0;
  if (have == ms) return;
  SetSocketTimeout(ctx, ms);
  applied = {ctx, ms};
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
  // Reconnecting in place, a dropped slot is a loss the host hears of.
  if (ReconnectOn()) MarkLost(db, op);
  return true;
}

void DropInPlace(uint32_t db, uint32_t op) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) return;
  tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
  if (slot.context == nullptr) return;
  TQ_LOG(kLogError,
         "%s[%s] connection lost, reconnect in place[error=%d %s]\r\n",
         DbName(db), OpName(op), slot.context->err, slot.context->errstr);
  redisFree(slot.context);
  slot.context = nullptr;
  g_applied[op][db] = {nullptr, 0};
  MarkLost(db, op);
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
      limit > 0 ? tqredis::detail::DeadlineAfterMs(limit) : 0;
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
      if (tqredis::detail::DeadlinePassed(deadline)) {
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
  tqredis::detail::NoteConnected(db, op);
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
      // Reconnecting in place, a lost pubsub slot is the pump's to restore,
      // in the pump's thread, which reads it without the lock, and with
      // its subscriptions.
      if (!(tqredis::detail::ReconnectOn() &&
            tqredis::detail::SlotLost(db, TQREDIS_OP_PUBSUB))) {
        rv = tqredis_connect(db, TQREDIS_OP_PUBSUB);
        if (rv != 0) continue;
      }
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
  tqredis::detail::DeliverConnEvents();
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
  // By switch, the process goes on and the slot is connected again on its
  // next use; never while the fatal path is already under way.
  if (tqredis::detail::ReconnectOn() && !t_fatal_path_running) {
    tqredis::detail::DropInPlace(db, op);
    return;
  }
  redisFree(slot.context);
  slot.context = nullptr;
  // A connection lost while the fatal path writes the statistics: the path
  // already under way ends the process; starting it again would recurse.
  if (t_fatal_path_running) return;
  // The fatal path (a kept behaviour, listed in the README).
  ExitOnLostConnection(op, db);
}

void tqredis_exit(uint32_t db) { ExitOnLostConnection(kOpUnknown, db); }

namespace {

// Set once at load by the layer that owns the statistics; read by the fatal
// path of any thread.
std::atomic<tqredis::detail::FatalHook> g_fatal_hook{nullptr};

// The copy's file name of the limited log: "<name>.limitlog", or with
// keepcopies on "<name>.<pid>.<YYYYmmdd-HHMMSS>.limitlog" (local time).
void CopyName(bool stamped, char *out, size_t size) {
  if (!stamped) {
    std::snprintf(out, size, "%s.limitlog", g_tqredis_proc_name);
    return;
  }
  const time_t now = std::time(nullptr);
  struct tm local;
  std::memset(&local, 0, sizeof(local));
  localtime_r(&now, &local);
  char stamp[32];
  if (std::strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &local) == 0) {
    stamp[0] = '\0';
  }
  std::snprintf(out, size, "%s.%ld.%s.limitlog", g_tqredis_proc_name,
                static_cast<long>(getpid()), stamp);
}

// Whether `n` characters of `text` are all decimal digits.
bool Digits(const char *text, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

// A stamped copy of this process name's limited log: exactly
// "<name>.<digits>.<8 digits>-<6 digits>.limitlog". On a match, `stamp`
// points at the time in the name and `pid` holds the number before it. Any
// other file, a copy of another name included, never matches.
bool StampedCopy(const char *file, const char **stamp,
                 unsigned long long *pid) {
  static constexpr char kSuffix[] = ".limitlog";
  static constexpr size_t kStampLen = 15;  // YYYYmmdd-HHMMSS
  const size_t name_len = std::strlen(g_tqredis_proc_name);
  if (std::strncmp(file, g_tqredis_proc_name, name_len) != 0 ||
      file[name_len] != '.') {
    return false;
  }
  const char *digits = file + name_len + 1;
  const char *dot = std::strchr(digits, '.');
  if (dot == nullptr || dot == digits || dot - digits > 19 ||
      !Digits(digits, static_cast<size_t>(dot - digits))) {
    return false;
  }
  const char *time = dot + 1;
  if (std::strlen(time) != kStampLen + sizeof(kSuffix) - 1 ||
      !Digits(time, 8) || time[8] != '-' || !Digits(time + 9, 6) ||
      std::strcmp(time + kStampLen, kSuffix) != 0) {
    return false;
  }
  *stamp = time;
  *pid = std::strtoull(digits, nullptr, 10);
  return true;
}

// Removes the oldest stamped copies (by the time in their names, then the
// pid) until at most `keep` remain. Rescans the folder for each removal: no
// memory to allocate on the way out, and the folder holds few files.
void PruneCopies(long keep) {
  for (;;) {
    DIR *dir = opendir(kCoredumpDir);
    if (dir == nullptr) return;
    long count = 0;
    char oldest[256] = "";
    char oldest_stamp[16] = "";
    unsigned long long oldest_pid = 0;
    // readdir is safe on a stream this thread alone opened (readdir_r is
    // deprecated).
    // cppcheck-suppress readdirCalled
    while (const struct dirent *entry = readdir(dir)) {
      const char *stamp;
      unsigned long long pid;
      if (!StampedCopy(entry->d_name, &stamp, &pid)) continue;
      ++count;
      const int order = std::strncmp(stamp, oldest_stamp, 15);
      if (oldest[0] == '\0' || order < 0 || (order == 0 && pid < oldest_pid)) {
        std::snprintf(oldest, sizeof(oldest), "%s", entry->d_name);
        std::memcpy(oldest_stamp, stamp, 15);
        oldest_stamp[15] = '\0';
        oldest_pid = pid;
      }
    }
    closedir(dir);
    if (count <= keep) return;
    char path[sizeof(kCoredumpDir) + sizeof(oldest)];
    std::snprintf(path, sizeof(path), "%s%s", kCoredumpDir, oldest);
    if (unlink(path) != 0) return;  // never loop on a file that stays
  }
}

// Opens the copy as "cp -f" would: truncated when it exists, else created
// 0666 (less the umask); a file that cannot be opened is removed and created
// again. A symbolic link at the copy's name is replaced, never written
// through. -1 when the folder is missing or refuses the file.
int OpenCopy(const char *path) {
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  int fd = open(path, flags, 0666);
  if (fd >= 0 || errno == ENOENT || errno == ENOTDIR) return fd;
  if (unlink(path) != 0) return -1;
  return open(path, flags | O_EXCL, 0666);
}

// Copies the limited log into the coredump folder with plain reads and
// writes: no child process, no shell, no PATH. A symbolic link at the log
// path is refused (level 8); a missing log or folder fails quietly, as the
// copy always has (nothing in the log, no copy).
void CopyLimitLog(uint32_t db) {
  char source[128];
  std::snprintf(source, sizeof(source), "%s/%s.limitlog", "/tmp/tqredis/",
                g_tqredis_proc_name);
  const int in = open(source, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (in < 0) {
    if (errno == ELOOP) {
      TQ_LOG_FROM("tqredis_exit", __LINE__, kLogError,
                  "%s limitlog %s is a symbolic link, not copied\r\n",
                  DbName(db), source);
    }
    return;
  }
  const long keep =
      tqredis::detail::OptionValue(tqredis::detail::kOpt_keepcopies);
  char name[128];
  CopyName(keep > 0, name, sizeof(name));
  char target[sizeof(kCoredumpDir) + sizeof(name)];
  std::snprintf(target, sizeof(target), "%s%s", kCoredumpDir, name);
  const int out = OpenCopy(target);
  if (out >= 0) {
    char buf[4096];
    for (;;) {
      const ssize_t n = read(in, buf, sizeof(buf));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      ssize_t done = 0;
      while (done < n) {
        const ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) break;
        done += w;
      }
      if (done < n) break;  // a full disk keeps what was written
    }
    close(out);
    if (keep > 0) PruneCopies(keep);
  }
  close(in);
}

[[noreturn]] void ExitOnLostConnection(uint32_t op, uint32_t db) {
  t_fatal_path_running = true;
  TQ_LOG_FROM("tqredis_exit", __LINE__, kLogLife,
              ">>>>exit for disconnecting from %s\r\n", DbName(db));
  const long status =
      tqredis::detail::OptionValue(tqredis::detail::kOpt_exitstatus);
  if (status != 0) {
    if (op == kOpUnknown) {
      TQ_LOG_FROM("tqredis_exit", __LINE__, kLogError,
                  "%s connection lost, exit with status %ld\r\n", DbName(db),
                  status);
    } else {
      TQ_LOG_FROM("tqredis_exit", __LINE__, kLogError,
                  "%s[%s] connection lost, exit with status %ld\r\n",
                  DbName(db), OpName(op), status);
    }
    const tqredis::detail::FatalHook hook =
        g_fatal_hook.load(std::memory_order_acquire);
    if (hook != nullptr) hook();
  }
  // Each line is flushed as it is written; this makes sure of it before the
  // file is read.
  std::fflush(nullptr);
  CopyLimitLog(db);
  std::exit(static_cast<int>(status));
}

}  // namespace

namespace tqredis::detail {

void SetFatalHook(FatalHook hook) {
  g_fatal_hook.store(hook, std::memory_order_release);
}

}  // namespace tqredis::detail
