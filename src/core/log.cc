// The two bounded log files, their writer, and the time stamp of every line.
#include "core/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/config.h"
#include "tqredis.h"

namespace {

constexpr char kLogDir[] = "/tmp/tqredis/";
// A file at or past this position is written again from its start.
constexpr long kLogFileBound = 32769;
constexpr unsigned long kPowersOfTen[] = {1, 10, 100, 1000, 10000, 100000};

// Opened once by tqredis_dbg_init(), never closed: they live as long as the
// process. NULL when the open failed; their levels are then dropped.
FILE *g_tqredis_limitlog_fp = nullptr;
FILE *g_tqredis_unlimitlog_fp = nullptr;

// Opened as fopen(path, "w+") would, except that a symbolic link planted at
// the path is not followed: the open fails (its levels are then dropped)
// rather than truncating and writing whatever file the link names.
FILE *OpenLog(const char *suffix) {
  char path[128];
  std::snprintf(path, sizeof(path), "%s%s.%s", kLogDir, g_tqredis_proc_name,
                suffix);
  const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0666);
  if (fd < 0) return nullptr;
  FILE *fp = fdopen(fd, "w+");
  if (fp == nullptr) close(fd);
  return fp;
}

}  // namespace

namespace tqredis::detail {

namespace {

// `width` decimal digits of `value`, zero-padded. REQUIRES: value fits.
char *PutDigits(char *out, unsigned value, int width) {
  for (int i = width - 1; i >= 0; --i) {
    out[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  return out + width;
}

bool InRange(int value, int low, int high) {
  return value >= low && value <= high;
}

// Writes "YYYYMMDD_hh:mm:ss." of `tm` into `out` (at least 18 bytes) when
// every field fits its printed width; returns 18, or 0 when one does not (a
// clock far off), which leaves the stamp to snprintf.
uint8_t FormatDate(const struct tm &tm, char *out) {
  const int year = tm.tm_year + 1900;
  if (!InRange(year, 0, 9999) || !InRange(tm.tm_mon, 0, 98) ||
      !InRange(tm.tm_mday, 0, 99) || !InRange(tm.tm_hour, 0, 99) ||
      !InRange(tm.tm_min, 0, 99) || !InRange(tm.tm_sec, 0, 99)) {
    return 0;
  }
  char *p = PutDigits(out, static_cast<unsigned>(year), 4);
  p = PutDigits(p, static_cast<unsigned>(tm.tm_mon + 1), 2);
  p = PutDigits(p, static_cast<unsigned>(tm.tm_mday), 2);
  *p++ = '_';
  p = PutDigits(p, static_cast<unsigned>(tm.tm_hour), 2);
  *p++ = ':';
  p = PutDigits(p, static_cast<unsigned>(tm.tm_min), 2);
  *p++ = ':';
  p = PutDigits(p, static_cast<unsigned>(tm.tm_sec), 2);
  *p++ = '.';
  return static_cast<uint8_t>(p - out);
}

// The last second this thread turned into local time, with the zone it was
// turned in: the zone's offset, its daylight flag and its two names, as the C
// library left them after the conversion. A tzset() that installs another
// zone changes at least one of them.
struct Calendar {
  bool valid;
  time_t sec;
  long zone;
  int daylight;
  const char *names[2];
  struct tm local;
  char date[19];
  uint8_t date_len;
};
thread_local Calendar t_calendar;

bool SameZone(const Calendar &calendar) {
  return calendar.zone == ::timezone && calendar.daylight == ::daylight &&
         calendar.names[0] == ::tzname[0] && calendar.names[1] == ::tzname[1];
}

}  // namespace

LocalTime LocalNow() {
  LocalTime time;
  gettimeofday(&time.now, nullptr);
  Calendar &calendar = t_calendar;
  const time_t seconds = time.now.tv_sec;
  if (!calendar.valid || calendar.sec != seconds || !SameZone(calendar)) {
    std::memset(&calendar.local, 0, sizeof(calendar.local));
    localtime_r(&seconds, &calendar.local);
    calendar.sec = seconds;
    calendar.zone = ::timezone;
    calendar.daylight = ::daylight;
    calendar.names[0] = ::tzname[0];
    calendar.names[1] = ::tzname[1];
    calendar.date_len = FormatDate(calendar.local, calendar.date);
    calendar.valid = true;
  }
  time.local = calendar.local;
  std::memcpy(time.date, calendar.date, sizeof(time.date));
  time.date_len = calendar.date_len;
  return time;
}

size_t FormatStamp(const LocalTime &time, bool pad_usec, char *out,
                   size_t size) {
  const struct tm &tm = time.local;
  const int year = tm.tm_year + 1900;
  const auto usec = static_cast<unsigned long>(time.now.tv_usec);
  // Every field within its printed width: the common case, by hand. Anything
  // else (a clock far off) goes through snprintf, which gives the same text.
  if (size >= 25 && time.date_len == 18 && usec < 1000000) {
    std::memcpy(out, time.date, 18);
    int digits = 6;
    if (!pad_usec) {
      for (digits = 1; digits < 6 && usec >= kPowersOfTen[digits]; ++digits) {
      }
    }
    char *p = PutDigits(out + 18, static_cast<unsigned>(usec), digits);
    *p = '\0';
    return static_cast<size_t>(p - out);
  }
  const int n =
      pad_usec ? std::snprintf(out, size, "%04d%02d%02d_%02d:%02d:%02d.%06lu",
                               year, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                               tm.tm_min, tm.tm_sec, usec)
               : std::snprintf(out, size, "%04d%02d%02d_%02d:%02d:%02d.%lu",
                               year, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                               tm.tm_min, tm.tm_sec, usec);
  if (n < 0) {
    out[0] = '\0';
    return 0;
  }
  return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

}  // namespace tqredis::detail

int tqredis_dbg_init(void) {
  // Made here when missing, so that a process on a fresh system still logs.
  mkdir(kLogDir, 0777);
  g_tqredis_limitlog_fp = OpenLog("limitlog");
  g_tqredis_unlimitlog_fp = OpenLog("unlimitlog");
  tqredis::detail::ReadConfig();
  return 0;
}

FILE *tqredis_get_log_fp(uint32_t level) {
  if ((level & tqredis::detail::FileLevel()) == 0) return nullptr;
  switch (level) {
    case TQREDIS_LOG_LIFE:
    case TQREDIS_LOG_WARN:
    case TQREDIS_LOG_ERROR:
      return g_tqredis_limitlog_fp;
    case TQREDIS_LOG_DATA:
    case TQREDIS_LOG_DUMP:
      return g_tqredis_unlimitlog_fp;
    default:
      return nullptr;  // a combination of bits is never written
  }
}

// Takes no lock: lines of threads that do not hold the global lock may
// interleave, which costs less than a lock on every line.
int tqredis_dbg_logfile(uint32_t level, const char *format, ...) {
  FILE *fp = tqredis_get_log_fp(level);
  if (fp == nullptr) return 0;
  // Keep the file bounded: overwrite the oldest lines from the start; the
  // tail of older lines stays behind the write position.
  if (std::ftell(fp) >= kLogFileBound) std::fseek(fp, 0, SEEK_SET);

  char stamp[32];
  // A real date takes 24 characters; the bound only guards the buffer.
  size_t len = tqredis::detail::FormatStamp(tqredis::detail::LocalNow(), true,
                                            stamp, 31);
  stamp[len++] = ' ';
  std::fwrite(stamp, 1, len, fp);

  va_list ap;
  va_start(ap, format);
  std::vfprintf(fp, format, ap);
  va_end(ap);
  // Flushed at once, so the file holds the latest events if the process dies.
  return std::fflush(fp);
}
