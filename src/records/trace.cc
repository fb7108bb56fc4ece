// Start and end marks of the key operations: recording into the rings, the
// trace line, elapsed time and peak, the snapshot pair handed to a
// monitoring caller, and the recording of every command with recordall=1.
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "command/command.h"
#include "core/config.h"
#include "core/keycmd.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/result.h"
#include "core/state.h"
#include "records/records.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_ham_snap;
using tqredis::detail::g_tqredis_in_log;
using tqredis::detail::g_tqredis_out_log;
using tqredis::detail::g_tqredis_snap;
using tqredis::detail::kBadArgs;
using tqredis::detail::KernelTid;
using tqredis::detail::kFail;
using tqredis::detail::kLogData;
using tqredis::detail::kLogError;
using tqredis::detail::kOk;
using tqredis::detail::kRingSize;
using tqredis::detail::ScopedLock;

namespace {

enum class Direction { kIn, kOut };

// The start of an operation in either direction, logged on behalf of the
// exported call `func` (at `line`). Inbound: the record becomes the
// snapshot's inbound half and its outbound half is emptied, so the pair
// always reads "this notification, then the write it caused". Outbound: the
// inbound half is never touched, and the record becomes the outbound half
// only when the caller marks it with (flag & 1).
int LogStart(const char *func, int line, Direction dir, const char *key,
             uint32_t keycmd, uint32_t db, uint32_t flag) {
  if (key == nullptr || db >= TQREDIS_DB_NUM || keycmd >= TQREDIS_KEYCMD_NUM) {
    TQ_LOG_FROM(func, line, kLogError,
                "input arguments invalid, db=%d keycmd=%d\r\n",
                static_cast<int>(db), static_cast<int>(keycmd));
    return kFail;
  }
  const bool in = dir == Direction::kIn;
  tqredis_op_log &log = in ? g_tqredis_in_log : g_tqredis_out_log;

  ScopedLock lock;
  const uint32_t slot = log.index % kRingSize;
  tqredis_op_record &rec = log.records[slot];
  int result = kFail;
  if (tqredis_db_cmd_record(&rec, key, static_cast<int>(keycmd),
                            static_cast<int>(db)) == 0) {
    tqredis_db_log_index_update(&log);
    if (in) {
      g_tqredis_snap.in = rec;
      tqredis::detail::ClearRecord(&g_tqredis_snap.out);
    } else if (flag & 1) {
      g_tqredis_snap.out = rec;
    }
    result = static_cast<int>(slot);
  }
  // A key that is never recorded still leaves its trace line, showing the
  // time and thread of the older record that stays in the slot.
  TQ_LOG_FROM(func, line, kLogData, ">>>>%s %s %s %s %s flag=%#x tid=%d\r\n",
              in ? "IN_LOG" : "OUT_LOG", rec.time, g_tqredis_dbstr[db],
              g_tqredis_keycmd_str[keycmd], key, flag,
              static_cast<int>(rec.tid));
  return result;
}

}  // namespace

int tqredis_db_in_log(const char *key, uint32_t keycmd, uint32_t db,
                      uint32_t flag) {
  return LogStart(__func__, __LINE__, Direction::kIn, key, keycmd, db, flag);
}

int tqredis_db_out_log(const char *key, uint32_t keycmd, uint32_t db,
                       uint32_t flag) {
  return LogStart(__func__, __LINE__, Direction::kOut, key, keycmd, db, flag);
}

// The elapsed time is measured only on the thread that recorded the slot:
// another thread's end, or a slot reused by another thread meanwhile, is not
// this operation's. Reuse by the same thread after 32 further records is not
// detected. The time spent waiting for the lock counts as handling time.
void tqredis_db_log_stat(tqredis_op_log *log, uint32_t slot) {
  if (!tqredis::detail::TimeStat()) return;
  if (log == nullptr || slot >= kRingSize) {
    TQ_LOG(kLogError, "input arguments invalid, index=%d\r\n",
           static_cast<int>(slot));
    return;
  }
  ScopedLock lock;
  tqredis_op_record &rec = log->records[slot];
  if (KernelTid() != rec.tid) return;

  struct timeval now;
  gettimeofday(&now, nullptr);
  // In 32-bit words as stored; the difference is taken modulo 2^32, so a
  // clock past 2038 on the target still gives the right small number.
  int32_t sec =
      static_cast<int32_t>(static_cast<uint32_t>(now.tv_sec) - rec.start_sec);
  int32_t usec =
      static_cast<int32_t>(now.tv_usec) - static_cast<int32_t>(rec.start_usec);
  if (usec < 0) {
    sec -= 1;
    usec += 1000000;
  }
  rec.elapsed_sec = sec;
  rec.elapsed_usec = usec;

  // Strictly longer only: an equal time keeps the earlier peak.
  const tqredis_op_record &peak = log->peak;
  if (sec > peak.elapsed_sec ||
      (sec == peak.elapsed_sec && usec > peak.elapsed_usec)) {
    log->peak = rec;
  }
}

void tqredis_db_in_log_stat(uint32_t slot) {
  tqredis_db_log_stat(&g_tqredis_in_log, slot);
}

void tqredis_db_out_log_stat(uint32_t slot) {
  tqredis_db_log_stat(&g_tqredis_out_log, slot);
}

// A pair whose halves two different threads recorded is not one operation
// and its write: it is handed out as zeros, but still kept as "ham_snap" so
// the console shows what was there.
int tqredis_get_db_op_snap(tqredis_op_snap *buf) {
  if (buf == nullptr) {
    TQ_LOG(kLogError, "input arguments invalid\r\n");
    return kBadArgs;
  }
  ScopedLock lock;
  const int32_t in_tid = g_tqredis_snap.in.tid;
  const int32_t out_tid = g_tqredis_snap.out.tid;
  if (in_tid != out_tid && in_tid != 0 && out_tid != 0) {
    std::memset(buf, 0, sizeof(*buf));
  } else {
    *buf = g_tqredis_snap;
  }
  g_tqredis_ham_snap = g_tqredis_snap;
  std::memset(&g_tqredis_snap, 0, sizeof(g_tqredis_snap));
  return kOk;
}

namespace {

// A command as an outbound operation: its word's id, its first argument as
// the key (cut to what a record holds).
int StartCommand(uint32_t db, std::string_view word, std::string_view key) {
  char text[sizeof(tqredis_op_record::key)];
  const size_t n =
      key.size() < sizeof(text) - 1 ? key.size() : sizeof(text) - 1;
  key.copy(text, n);  // an empty view may have no data pointer
  text[n] = '\0';
  return tqredis_db_out_log(
      text, static_cast<uint32_t>(tqredis::detail::KeyCmdFromWord(word)), db,
      0);
}

void EndCommand(int slot) {
  tqredis_db_out_log_stat(static_cast<uint32_t>(slot));
}

constexpr tqredis::detail::CommandRecorder kRecorder = {StartCommand,
                                                        EndCommand};

// Installed while the library loads, before the host can send anything.
[[maybe_unused]] const bool g_recorder_installed =
    (tqredis::detail::SetCommandRecorder(&kRecorder), true);

}  // namespace
