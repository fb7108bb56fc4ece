// Runs tqredis-devdb for one test in a folder of its own, and talks to it
// through hiredis, raw sockets and its own control subcommand.
#ifndef TQREDIS_TESTS_TOOLS_DEVDB_HARNESS_H_
#define TQREDIS_TESTS_TOOLS_DEVDB_HARNESS_H_

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace devdbtest {

struct ContextFree {
  void operator()(redisContext *c) const { redisFree(c); }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;
struct ReplyFree {
  void operator()(redisReply *r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

struct Output {
  int code = -1;
  std::string out;
};

// Runs `program` with `args`, collecting its standard output and exit code.
Output RunProgram(const std::vector<std::string> &args);

// Starts a child, returning its pid and a descriptor on its standard output.
pid_t Spawn(const std::vector<std::string> &args, int *out_fd);
// `args` as an execvp() argument vector, NULL-terminated; it points into
// `args`, which must outlive it.
std::vector<char *> Argv(const std::vector<std::string> &args);

// Reads from `fd` until `text` holds `wanted` bytes or 10 s pass.
std::string ReadAtLeast(int fd, size_t wanted);
// Reads lines from `fd` until one equals `last` (10 s at most).
std::vector<std::string> ReadLinesUntil(int fd, const std::string &last);

// A raw unix-socket connection, for exact bytes.
int ConnectRaw(const std::string &path);
void WriteAll(int fd, const std::string &bytes);
// True when `pid` has ended (a zombie counts as ended).
bool ProcessGone(pid_t pid);
// True when the peer closes the connection within 10 s (data before the
// close is skipped).
bool ClosedByPeer(int fd);

class DevdbTest : public testing::Test {
 protected:
  void SetUp() override { StartEmulator({}); }
  void TearDown() override;

  // Runs "tqredis-devdb run" with `extra` options in a fresh folder and
  // waits until it serves.
  void StartEmulator(const std::vector<std::string> &extra);

  std::string Socket(const char *db) const { return dir_ + "/" + db + ".sock"; }
  ContextPtr Connect(const char *db = "redis_host") const;
  ReplyPtr Command(redisContext *c, const std::vector<std::string> &args);
  ReplyPtr Next(redisContext *c);  // the next reply; 10 s at most
  // "tqredis-devdb ctl --dir <folder> args...".
  Output Ctl(const std::vector<std::string> &args) const;

  std::string dir_;
  pid_t pid_ = -1;
};

}  // namespace devdbtest

#endif  // TQREDIS_TESTS_TOOLS_DEVDB_HARNESS_H_
