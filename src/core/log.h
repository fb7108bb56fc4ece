// Debug levels, the log files and the one logging idiom of every call site.
#ifndef TQREDIS_SRC_CORE_LOG_H_
#define TQREDIS_SRC_CORE_LOG_H_

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "core/config.h"
#include "tqredis.h"

namespace tqredis::detail {

// One bit per class of message; every call site uses exactly one.
enum LogLevel : uint32_t {
  kLogData = TQREDIS_LOG_DATA,
  kLogLife = TQREDIS_LOG_LIFE,
  kLogWarn = TQREDIS_LOG_WARN,
  kLogError = TQREDIS_LOG_ERROR,
  kLogReplyDump = TQREDIS_LOG_DUMP,
};

// The time of day and its local calendar form, read together. `date` holds
// "YYYYMMDD_hh:mm:ss." of `local` (date_len 18) when every field fits its
// printed width, else nothing (date_len 0).
struct LocalTime {
  struct timeval now;
  struct tm local;
  char date[19];
  uint8_t date_len;
};
// The calendar fields and the date text are kept per thread for the rest
// of the second they were made in, as long as the time zone stays the one
// they were made in: localtime_r() reads the zone once anyway, so only a
// tzset() changes it, and that is seen at the next call.
LocalTime LocalNow();

// Writes the stamp "YYYYMMDD_hh:mm:ss." of `time` and its microseconds,
// zero-padded to six digits when `pad_usec`, else unpadded, into `out`
// (NUL-terminated, cut to size - 1 characters). Returns the length written.
// Formats by hand: this runs on every recorded operation and logged line.
size_t FormatStamp(const LocalTime &time, bool pad_usec, char *out,
                   size_t size);

// The prefix of every line: process name, calling function, source line.
#define TQREDIS_LOG_PREFIX "[%s]<%s, %d>:"

}  // namespace tqredis::detail

// TQ_LOG(level, "literal format", args...): prints "[proc]<func, line>:" and
// the message on stdout when the console mask has `level`, and hands the same
// line to the file writer when the file mask has it. Both masks are tested
// here, before any call or formatting, so a site whose level no mask selects
// costs two loads and two tests. An expression whose value is the file
// writer's result, 0 when it is not called.
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
   ((::tqredis::detail::FileLevel() & (level))                               \
        ? tqredis_dbg_logfile((level), TQREDIS_LOG_PREFIX fmt,               \
                              g_tqredis_proc_name, (func), (line),           \
                              ##__VA_ARGS__)                                 \
        : 0))

#endif  // TQREDIS_SRC_CORE_LOG_H_
