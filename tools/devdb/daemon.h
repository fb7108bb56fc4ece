// Running the emulator: in the foreground, in the background with a pid
// file, and stopping or asking after a background one.
#ifndef TQREDIS_TOOLS_DEVDB_DAEMON_H_
#define TQREDIS_TOOLS_DEVDB_DAEMON_H_

#include <cstddef>
#include <string>
#include <vector>

#include "topology.h"

namespace devdb {

struct RunOptions {
  std::string dir = kDefaultDir;
  std::string attach[kDbCount];  // a running server's socket, or empty
  std::string redis_server = "redis-server";
  std::string log;  // background output; empty: discarded
  size_t max_request = 64u << 20;
  int ready_fd = -1;  // gets "ok\n" once serving, or the reason it failed
};

// Serves in this process until SIGTERM, SIGINT or SIGHUP, then stops its
// servers and removes its sockets, pid file and private folder. Exit code.
int Serve(const RunOptions &options);
// Serves in a detached child; returns once it serves (0) or failed (1).
int Start(const RunOptions &options);
// Stops the emulator of `dir`, waiting until it is gone. 0 also when none
// was running.
int Stop(const std::string &dir);
// 0 and its pid on stdout when the emulator of `dir` runs; 3 otherwise.
int Status(const std::string &dir);
// Serves in a child while `command` (a program looked up in PATH, then its
// arguments) runs, then stops the child. Returns the command's exit status,
// 128 + N when signal N ended it, 127 when it was not found, 126 when it
// could not be run, and 125, without running it, when the emulator did not
// start.
int RunCommand(const RunOptions &options,
               const std::vector<const char *> &command);

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_DAEMON_H_
