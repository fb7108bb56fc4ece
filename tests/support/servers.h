// Real redis-server processes on the device's three socket paths, for tests
// that run in a private mount namespace (see private_ns.sh).
#ifndef TQREDIS_TESTS_SUPPORT_SERVERS_H_
#define TQREDIS_TESTS_SUPPORT_SERVERS_H_

#include <sys/types.h>

#include <string>

#include "support/support.h"
#include "tqredis.h"

namespace tqtest {

extern const char *const kSocketPaths[3];

// One stock redis-server on a unix socket: port 0, no persistence, keyspace
// notifications on. Stopped by pid when destroyed.
class RedisServer {
 public:
  RedisServer() = default;
  ~RedisServer() { Stop(); }
  RedisServer(const RedisServer &) = delete;
  RedisServer &operator=(const RedisServer &) = delete;
  // Starts it and waits until it answers PING; false if it never does.
  bool Start(const std::string &socket_path);
  // SIGTERM and wait; the socket file goes with the server.
  void Stop();
  // SIGKILL and wait: the socket file stays behind, as after a crash.
  void Kill();
  // SIGSTOP (true) or SIGCONT (false): a frozen server reads nothing, so a
  // client's writes fill its socket and then block.
  void Freeze(bool frozen);
  bool running() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

// The device's three databases, each on its own server.
class DeviceServers {
 public:
  bool StartAll();
  bool Start(int db) { return servers_[db].Start(kSocketPaths[db]); }
  void Stop(int db) { servers_[db].Stop(); }
  void Kill(int db) { servers_[db].Kill(); }
  void Freeze(int db, bool frozen) { servers_[db].Freeze(frozen); }

 private:
  RedisServer servers_[3];
};

// A direct hiredis connection to database `db`, to look at the server's side.
struct ContextFree {
  void operator()(redisContext *c) const { redisFree(c); }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;
ContextPtr Direct(int db);

// Runs one command on a direct connection; null when the connection failed.
ReplyPtr Run(redisContext *c, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// The names of the server's clients, in its CLIENT LIST order, joined by " ".
std::string ClientNames(int db);

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_SERVERS_H_
