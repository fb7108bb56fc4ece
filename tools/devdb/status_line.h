// The device's one-line client status: built from a line of the server's own
// client list plus the figures the emulator counts per connection.
#ifndef TQREDIS_TOOLS_DEVDB_STATUS_LINE_H_
#define TQREDIS_TOOLS_DEVDB_STATUS_LINE_H_

#include <string>
#include <string_view>

namespace devdb {

// What the emulator counts itself for one client connection. Rates are per
// second over the last whole second.
struct ClientFigures {
  long long cmd_num = 0;
  long long cmd_per_sec = 0;
  long long in_bytes = 0;
  long long out_bytes = 0;
  long long in_bps = 0;
  long long out_bps = 0;
};

// The answer for a client that has no connection of the asked name.
inline constexpr std::string_view kOffline = "offline";

// The line of a server's client list (lines of "key=value" words) whose
// name is exactly `name`, without its end of line; empty when none is.
std::string_view FindClientLine(std::string_view list, std::string_view name);
// The value of `key=` in one client-list line; empty when absent.
std::string_view FieldOf(std::string_view line, std::string_view key);
// The device's status line for the client of `server_line`, ending in "\n".
// `addr` and `fd` are the ones the client sees (the emulator's side).
std::string FormatStatusLine(std::string_view server_line,
                             std::string_view addr, int fd,
                             const ClientFigures &figures);

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_STATUS_LINE_H_
