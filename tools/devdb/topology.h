// The three databases and where their sockets, control socket, pid file and
// private servers live under the emulator's folder.
#ifndef TQREDIS_TOOLS_DEVDB_TOPOLOGY_H_
#define TQREDIS_TOOLS_DEVDB_TOPOLOGY_H_

#include <string>
#include <string_view>

namespace devdb {

inline constexpr int kDbCount = 3;
// Database ids index this table; clients find each database at
// "<folder>/<name>.sock".
inline constexpr std::string_view kDbNames[kDbCount] = {
    "redis_de_global", "redis_ce_global", "redis_host"};
inline constexpr char kDefaultDir[] = "/tmp/redis";

inline std::string ListenPath(const std::string &dir, int db) {
  return dir + "/" + std::string(kDbNames[db]) + ".sock";
}
inline std::string CtlPath(const std::string &dir) {
  return dir + "/tqredis-devdb.ctl";
}
inline std::string PidPath(const std::string &dir) {
  return dir + "/tqredis-devdb.pid";
}
// The emulator's own redis-servers keep their sockets and logs here; it is
// removed when the emulator stops.
inline std::string PrivateDir(const std::string &dir) {
  return dir + "/tqredis-devdb.d";
}
inline std::string ServerPath(const std::string &dir, int db) {
  return PrivateDir(dir) + "/" + std::string(kDbNames[db]) + ".sock";
}

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_TOPOLOGY_H_
