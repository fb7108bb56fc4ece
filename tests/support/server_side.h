// What the servers and the trace saw, for tests of key operations: command
// counts from a server's own statistics, and trace lines without their time.
#ifndef TQREDIS_TESTS_SUPPORT_SERVER_SIDE_H_
#define TQREDIS_TESTS_SUPPORT_SERVER_SIDE_H_

#include <cstdarg>
#include <regex>
#include <string>

#include "support/servers.h"

namespace tqtest {

// Runs one command on a connection of its own to database `db`'s server.
inline ReplyPtr RunOn(int db, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
inline ReplyPtr RunOn(int db, const char *format, ...) {
  auto c = Direct(db);
  if (c == nullptr) return nullptr;
  va_list ap;
  va_start(ap, format);
  void *reply = redisvCommand(c.get(), format, ap);
  va_end(ap);
  return ReplyPtr(static_cast<redisReply *>(reply));
}

// How many times database `db`'s server ran `command` (lower case), from
// "INFO commandstats"; -1 when the server cannot be asked.
inline long long CommandCalls(int db, const std::string &command) {
  auto info = RunOn(db, "INFO commandstats");
  if (info == nullptr || info->type != REDIS_REPLY_STRING) return -1;
  const std::string text(info->str, info->len);
  const std::string tag = "cmdstat_" + command + ":calls=";
  const auto at = text.find(tag);
  return at == std::string::npos ? 0 : std::stoll(text.substr(at + tag.size()));
}

// Console lines with the start time of ">>>>IN_LOG"/">>>>OUT_LOG" trace
// lines taken out, so that they compare exactly.
inline std::string WithoutTimes(const std::string &log) {
  static const std::regex time(R"((>>>>(?:IN|OUT)_LOG) \S+ )");
  return std::regex_replace(log, time, "$1 ");
}

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_SERVER_SIDE_H_
