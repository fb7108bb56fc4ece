// Captures the console lines a call logs, with the "[proc]<func, N>:" prefix
// reduced to "<func>:" so that tests read the messages themselves.
#ifndef TQREDIS_TESTS_SUPPORT_LOGGED_H_
#define TQREDIS_TESTS_SUPPORT_LOGGED_H_

#include <regex>
#include <string>

#include "support/support.h"
#include "tqredis.h"

namespace tqtest {

inline std::string Messages(const std::string &out) {
  static const std::regex prefix(R"(\[[^\]\n]*\]<(\w+), \d+>:)");
  return std::regex_replace(out, prefix, "<$1>:");
}

// Runs `call` with the console mask `levels` and returns what it logged.
template <typename F>
std::string Logged(uint32_t levels, F &&call) {
  const uint32_t saved = g_tqredis_dbg_level;
  g_tqredis_dbg_level = levels;
  StdoutCapture capture;
  call();
  const std::string out = capture.Finish();
  g_tqredis_dbg_level = saved;
  return Messages(out);
}

// Runs `call` and returns what it printed, masks untouched.
template <typename F>
std::string Printed(F &&call) {
  StdoutCapture capture;
  call();
  return capture.Finish();
}

// Runs `call` with only the reply dump on the console and returns the dump
// as printed.
template <typename F>
std::string Dumped(F &&call) {
  const uint32_t saved = g_tqredis_dbg_level;
  g_tqredis_dbg_level = TQREDIS_LOG_DUMP;
  const std::string out = Printed(call);
  g_tqredis_dbg_level = saved;
  return out;
}

// The eight field lines of slot [op][db] in the statistics dump.
inline std::string SlotDump(const char *op, const char *db) {
  const std::string dump = Printed([] { tqredis_basic_stats_show(); });
  const std::string header = std::string("    [") + op + "][" + db + "]\r\n";
  const auto at = dump.find(header);
  if (at == std::string::npos) return "";
  const auto from = at + header.size();
  const auto next = dump.find("    [", from);
  return dump.substr(
      from, next == std::string::npos ? std::string::npos : next - from);
}

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_LOGGED_H_
