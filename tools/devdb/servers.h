// The stock redis-servers behind the emulator: started as children with no
// TCP port and no persistence, and stopped with it.
#ifndef TQREDIS_TOOLS_DEVDB_SERVERS_H_
#define TQREDIS_TOOLS_DEVDB_SERVERS_H_

#include <sys/types.h>

#include <string>

namespace devdb {

struct ServerProc {
  pid_t pid = -1;      // -1 for a server the emulator attached to
  std::string socket;  // where the server listens
  std::string log;     // its log file, removed on stop
};

// Starts redis-server `program` on `socket` and waits until it answers PING.
// On failure `*error` says why and no process is left.
bool StartServer(const std::string &program, const std::string &socket,
                 const std::string &log, ServerProc *server,
                 std::string *error);

// Turns keyspace notifications on in a server the emulator did not start.
bool PrepareAttached(const std::string &socket, std::string *error);

// Stops a started server (SIGTERM, then SIGKILL after 5 s) and reaps it;
// removes its log. Does nothing for an attached one.
void StopServer(ServerProc *server);

// True when a started server has exited since; reaps it.
bool ServerExited(ServerProc *server);

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_SERVERS_H_
