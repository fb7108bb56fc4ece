// Debug levels, the file mask and the one logging idiom of every call site.
#ifndef TQREDIS_SRC_DEBUG_LOG_H_
#define TQREDIS_SRC_DEBUG_LOG_H_

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "tqredis.h"

// File mask: a message of level L goes to a log file when it has L.
// Written by the constructor and tqredis_dbg_cfg(); read without a lock.
extern "C" uint32_t g_tqredis_file_level;
// Non-zero: records carry thread ids and elapsed times.
extern "C" uint32_t g_tqredis_timestat;

namespace tqredis::detail {

// One bit per class of message; every call site uses exactly one.
enum LogLevel : uint32_t {
  kLogData = TQREDIS_LOG_DATA,
  kLogLife = TQREDIS_LOG_LIFE,
  kLogWarn = TQREDIS_LOG_WARN,
  kLogError = TQREDIS_LOG_ERROR,
  kLogReplyDump = TQREDIS_LOG_DUMP,
};

// The time of day and its local calendar form, read together.
struct LocalTime {
  struct timeval now;
  struct tm local;
};
LocalTime LocalNow();

// Reads configuration lines from `fp` into the settings, as done at load
// from "/data/tqredis/<process name>.dbg". Any bytes are accepted.
void ReadConfigStream(FILE *fp);

// The prefix of every line: process name, calling function, source line.
#define TQREDIS_LOG_PREFIX "[%s]<%s, %d>:"

}  // namespace tqredis::detail

// TQ_LOG(level, "literal format", args...): prints "[proc]<func, line>:" and
// the message on stdout when the console mask has `level` (tested before any
// formatting), then hands the same line to the file writer, which tests the
// file mask. An expression whose value is the file writer's result.
// Arguments are evaluated twice: pass no side effects, and copy errno first.
#define TQ_LOG(level, fmt, ...) \
  TQ_LOG_FROM(__func__, __LINE__, level, fmt, ##__VA_ARGS__)

// The same for a helper that logs on behalf of the exported function named
// `func`, whose name the line must carry.
#define TQ_LOG_FROM(func, line, level, fmt, ...)                             \
  (((g_tqredis_dbg_level & (level))                                          \
        ? static_cast<void>(std::printf(TQREDIS_LOG_PREFIX fmt,              \
                                        g_tqredis_proc_name, (func), (line), \
                                        ##__VA_ARGS__))                      \
        : static_cast<void>(0)),                                             \
   tqredis_dbg_logfile((level), TQREDIS_LOG_PREFIX fmt, g_tqredis_proc_name, \
                       (func), (line), ##__VA_ARGS__))

#endif  // TQREDIS_SRC_DEBUG_LOG_H_
