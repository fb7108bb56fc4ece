// Test helpers: stdout capture, files, replies from RESP bytes, and child
// processes that load the library under a process name of their own.
#ifndef TQREDIS_TESTS_SUPPORT_SUPPORT_H_
#define TQREDIS_TESTS_SUPPORT_SUPPORT_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tqredis.h"

namespace tqtest {

// Redirects file descriptor 1 (and flushes stdio around it) until Finish().
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture &) = delete;
  StdoutCapture &operator=(const StdoutCapture &) = delete;
  // Restores stdout and returns everything written meanwhile.
  std::string Finish();

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
};

// Whole file, or "" when it cannot be read.
std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, std::string_view content);
// mkdir -p.
void MakeDirs(const std::string &path);

// "/tmp/tqredis/<this process's library name>.<suffix>".
std::string LogPath(const char *suffix);

// Lines of `text` split after each "\n" (the "\n" kept with its line).
std::vector<std::string> Lines(const std::string &text);

struct ReplyFree {
  void operator()(redisReply *r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;
// Builds a reply with hiredis's reader from RESP bytes; null on bad input.
ReplyPtr ParseReply(std::string_view resp);

struct ChildResult {
  int exit_code = -1;  // -1 when the child did not exit normally
  std::string out;     // its standard output
};
// Runs argv[0] (a path) with its arguments and waits for it.
ChildResult RunProgram(const std::vector<std::string> &argv);

// Runs the probe program under the process name `name` (through a link of
// that name), with `args` after it; waits for it.
ChildResult RunProbe(const std::string &name,
                     const std::vector<std::string> &args);

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_SUPPORT_H_
