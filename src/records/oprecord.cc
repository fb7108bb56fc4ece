// The operation rings, their peaks and the snapshot pairs, and the three ways
// out of them: into redis_host, onto the console, and (through the tracing
// calls) into a caller's buffer.
#include "records/records.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "command/command.h"
#include "core/config.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/result.h"
#include "core/state.h"
#include "tqredis.h"

using tqredis::detail::DbName;

namespace tqredis::detail {
tqredis_op_log g_tqredis_in_log;
tqredis_op_log g_tqredis_out_log;
tqredis_op_snap g_tqredis_snap;
tqredis_op_snap g_tqredis_ham_snap;
}  // namespace tqredis::detail

using tqredis::detail::g_tqredis_ham_snap;
using tqredis::detail::g_tqredis_in_log;
using tqredis::detail::g_tqredis_out_log;
using tqredis::detail::g_tqredis_snap;
using tqredis::detail::kFail;
using tqredis::detail::kOk;
using tqredis::detail::kRingSize;

// Records are handed to callers as raw memory: the layout is the same on every
// target (no pointers, only 32-bit words and text).
static_assert(offsetof(tqredis_op_record, tid) == 0);
static_assert(offsetof(tqredis_op_record, time) == 4);
static_assert(offsetof(tqredis_op_record, db) == 36);
static_assert(offsetof(tqredis_op_record, key) == 68);
static_assert(offsetof(tqredis_op_record, cmd) == 196);
static_assert(offsetof(tqredis_op_record, start_sec) == 228);
static_assert(offsetof(tqredis_op_record, start_usec) == 232);
static_assert(offsetof(tqredis_op_record, elapsed_sec) == 236);
static_assert(offsetof(tqredis_op_record, elapsed_usec) == 240);
static_assert(sizeof(tqredis_op_record) == 244);
static_assert(offsetof(tqredis_op_snap, in) == 0);
static_assert(offsetof(tqredis_op_snap, out) == 244);
static_assert(sizeof(tqredis_op_snap) == 488);

namespace tqredis::detail {

namespace {

// The calling thread's id, asked of the kernel once per thread: a system call
// on every record and every end doubled the cost of timing an operation.
// 0 means not asked yet. A forked child's thread has a new id, so the child
// forgets the one it inherited.
thread_local int32_t t_kernel_tid = 0;

void ForgetTidInChild() { t_kernel_tid = 0; }

[[maybe_unused]] const int g_tid_fork_handler =
    pthread_atfork(nullptr, nullptr, ForgetTidInChild);

}  // namespace

int32_t KernelTid() {
  if (t_kernel_tid == 0)
    t_kernel_tid = static_cast<int32_t>(syscall(SYS_gettid));
  return t_kernel_tid;
}

}  // namespace tqredis::detail

namespace {

constexpr char kStatsRoot[] = "/arch/mom";

// Operations on these key spaces are never recorded.
constexpr const char *kUnrecordedKeys[] = {"arch/ham", "arch/at"};

const char *KeyCmdName(int keycmd) {
  return keycmd >= 0 && keycmd < TQREDIS_KEYCMD_NUM
             ? g_tqredis_keycmd_str[keycmd]
             : "invalid_keycmd";
}

// Copies at most N-1 characters into a zeroed field: its last byte stays 0.
template <size_t N>
void CopyField(char (&field)[N], const char *text) {
  std::memcpy(field, text, strnlen(text, N - 1));
}

// Every unrecorded space begins with the same letter.
constexpr char kUnrecordedFirst = 'a';
static_assert(kUnrecordedKeys[0][0] == kUnrecordedFirst &&
              kUnrecordedKeys[1][0] == kUnrecordedFirst);

// True when `key` holds one of kUnrecordedKeys anywhere. One pass over the
// key; the spaces are tried only where their first letter is.
bool Unrecorded(const char *key) {
  for (const char *p = key; *p != '\0'; ++p) {
    if (*p != kUnrecordedFirst) continue;
    for (const char *space : kUnrecordedKeys) {
      size_t i = 0;
      while (space[i] != '\0' && p[i] == space[i]) ++i;
      if (space[i] == '\0') return true;
    }
  }
  return false;
}

// 32-bit fields printed with "%lu": widened through their unsigned 32-bit
// value, so a 64-bit host shows what the 32-bit target shows.
unsigned long Wide(int32_t value) {
  return static_cast<unsigned long>(static_cast<uint32_t>(value));
}

// A record as it is stored and shown, "<time>-<db>-<cmd>-<key>" followed by
// "-time=<s>.<us>-tid=<tid>" (microseconds unpadded) or only "-tid=<tid>".
// Text fields are read within their own size, so a record filled by a caller
// without terminators cannot make this read past it.
struct RecordText {
  char text[320];
};
enum class Elapsed { kShown, kHidden };

RecordText Describe(const tqredis_op_record &rec, Elapsed elapsed) {
  RecordText out{};
  const int n = std::snprintf(out.text, sizeof(out.text), "%.*s-%.*s-%.*s-%.*s",
                              static_cast<int>(sizeof(rec.time) - 1), rec.time,
                              static_cast<int>(sizeof(rec.db) - 1), rec.db,
                              static_cast<int>(sizeof(rec.cmd) - 1), rec.cmd,
                              static_cast<int>(sizeof(rec.key) - 1), rec.key);
  // At most 224 characters of text: the tail always fits.
  const size_t used = n < 0 ? 0 : static_cast<size_t>(n);
  if (elapsed == Elapsed::kShown) {
    std::snprintf(out.text + used, sizeof(out.text) - used,
                  "-time=%lu.%lu-tid=%d", Wide(rec.elapsed_sec),
                  Wide(rec.elapsed_usec), static_cast<int>(rec.tid));
  } else {
    std::snprintf(out.text + used, sizeof(out.text) - used, "-tid=%d",
                  static_cast<int>(rec.tid));
  }
  return out;
}

// Visits the valid records of a ring oldest first, numbered from 0: slots
// 0..count-1 while the ring fills, then from `index` round the ring. Bounds
// are forced into range, so a ring handed in by a caller cannot be overrun.
template <typename Visit>
void ForEachOldestFirst(const tqredis_op_log &log, Visit &&visit) {
  const uint32_t count = log.count < kRingSize ? log.count : kRingSize;
  uint32_t slot = count < kRingSize ? 0 : log.index % kRingSize;
  for (uint32_t n = 0; n < count; ++n) {
    visit(static_cast<int>(n), log.records[slot]);
    slot = (slot + 1) % kRingSize;
  }
}

}  // namespace

int tqredis_db_cmd_record(tqredis_op_record *rec, const char *key, int keycmd,
                          int db) {
  if (rec == nullptr || key == nullptr) return kFail;
  if (Unrecorded(key)) return kFail;
  const tqredis::detail::LocalTime time = tqredis::detail::LocalNow();
  const struct timeval &now = time.now;

  // Zeroed first: a reused slot keeps no bytes of its previous record, and a
  // snapshot handed out holds nothing but this operation.
  tqredis::detail::ClearRecord(rec);
  rec->tid = tqredis::detail::TimeStat() ? tqredis::detail::KernelTid() : 0;
  // At most 30 characters; a date that does not fit is cut, never overrun.
  tqredis::detail::FormatStamp(time, false, rec->time, sizeof(rec->time) - 1);
  CopyField(rec->db, DbName(static_cast<uint32_t>(db)));
  CopyField(rec->key, key);
  CopyField(rec->cmd, KeyCmdName(keycmd));
  rec->start_sec = static_cast<uint32_t>(now.tv_sec);
  rec->start_usec = static_cast<uint32_t>(now.tv_usec);
  return kOk;
}

uint32_t tqredis_db_log_index_update(tqredis_op_log *log) {
  if (log == nullptr) return 0;
  const bool filling = log->count < kRingSize;
  log->index = (log->index + 1) % kRingSize;
  if (filling) ++log->count;
  ++log->total;  // wraps at 2^32, shown signed
  return filling ? 1 : 0;
}

// Every command goes to redis_host as a pipelined write that gives up rather
// than reconnect; the replies are never read.
void tqredis_db_write_log(tqredis_op_log *log, const char *dir) {
  if (log == nullptr || dir == nullptr) return;
  // With recordall=1 each write below would be recorded into the ring being
  // written out, a record per record.
  const tqredis::detail::UnrecordedScope unrecorded;
  const RecordText peak = Describe(log->peak, Elapsed::kShown);
  tqredis_db_command(
      TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_NO_RECONNECT,
      "HMSET %s/%s/%s/stats cmd_total %d cmd_peak %s", kStatsRoot,
      g_tqredis_proc_name, dir, static_cast<int>(log->total), peak.text);
  // Keys past count-1 left by an earlier, fuller ring stay as they are.
  ForEachOldestFirst(*log, [dir](int n, const tqredis_op_record &rec) {
    tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1,
                       TQREDIS_CMD_NO_RECONNECT, "SET %s/%s/%s/%d %s",
                       kStatsRoot, g_tqredis_proc_name, dir, n,
                       Describe(rec, Elapsed::kShown).text);
  });
}

void tqredis_db_save_log(void) {
  tqredis::detail::ScopedLock lock;
  tqredis_db_write_log(&g_tqredis_in_log, "in");
  tqredis_db_write_log(&g_tqredis_out_log, "out");
}

void tqredis_db_print_log(tqredis_op_log *log, const char *name) {
  if (log == nullptr) return;
  std::printf("%s cmd_total=%d cmd_peak=%s:\r\n", name ? name : "",
              static_cast<int>(log->total),
              Describe(log->peak, Elapsed::kShown).text);
  ForEachOldestFirst(*log, [](int n, const tqredis_op_record &rec) {
    std::printf("\t%s/%d %s\r\n", g_tqredis_proc_name, n,
                Describe(rec, Elapsed::kShown).text);
  });
}

void tqredis_db_print_snap(tqredis_op_snap *snap, const char *name) {
  if (snap == nullptr) return;
  std::printf("%s:\r\n", name ? name : "");
  std::printf("\t%s/in %s\r\n", g_tqredis_proc_name,
              Describe(snap->in, Elapsed::kHidden).text);
  std::printf("\t%s/out %s\r\n", g_tqredis_proc_name,
              Describe(snap->out, Elapsed::kHidden).text);
}

void tqredis_db_show_log(void) {
  tqredis::detail::ScopedLock lock;
  tqredis_db_print_log(&g_tqredis_in_log, "in_log");
  tqredis_db_print_log(&g_tqredis_out_log, "out_log");
  tqredis_db_print_snap(&g_tqredis_snap, "snap");
  tqredis_db_print_snap(&g_tqredis_ham_snap, "ham_snap");
}
