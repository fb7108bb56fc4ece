// Test helpers shared by every test binary.
#include "support/support.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tqtest {

StdoutCapture::StdoutCapture() {
  std::fflush(stdout);
  char path[] = "/tmp/tqtest-out-XXXXXX";
  file_fd_ = mkstemp(path);
  unlink(path);
  saved_fd_ = dup(1);
  dup2(file_fd_, 1);
}

StdoutCapture::~StdoutCapture() { Finish(); }

std::string StdoutCapture::Finish() {
  if (saved_fd_ < 0) return "";
  std::fflush(stdout);
  dup2(saved_fd_, 1);
  close(saved_fd_);
  saved_fd_ = -1;
  std::string out;
  lseek(file_fd_, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = read(file_fd_, buf, sizeof(buf))) > 0) out.append(buf, n);
  close(file_fd_);
  file_fd_ = -1;
  return out;
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string &path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void MakeDirs(const std::string &path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0777);
  }
}

std::string LogPath(const char *suffix) {
  return std::string("/tmp/tqredis/") + g_tqredis_proc_name + "." + suffix;
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    lines.push_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

ReplyPtr ParseReply(std::string_view resp) {
  redisReader *reader = redisReaderCreate();
  redisReaderFeed(reader, resp.data(), resp.size());
  void *reply = nullptr;
  if (redisReaderGetReply(reader, &reply) != REDIS_OK) reply = nullptr;
  redisReaderFree(reader);
  return ReplyPtr(static_cast<redisReply *>(reply));
}

ChildResult RunProgram(const std::vector<std::string> &argv) {
  ChildResult result;
  if (argv.empty()) return result;
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return result;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[1], 1);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    std::vector<char *> args;
    for (const std::string &arg : argv)
      args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(pipe_fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buf, sizeof(buf))) > 0)
    result.out.append(buf, n);
  close(pipe_fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  return result;
}

ChildResult RunProbe(const std::string &name,
                     const std::vector<std::string> &args) {
  char dir[] = "/tmp/tqtest-probe-XXXXXX";
  if (mkdtemp(dir) == nullptr) return {};
  // The kernel names the process after the file it executes: under an
  // emulator that is the emulator, so the link named `name` points at it and
  // the probe becomes its first argument.
  const bool emulated = TQTEST_EMULATOR[0] != '\0';
  const std::string link = std::string(dir) + "/" + name;
  if (symlink(emulated ? TQTEST_EMULATOR : TQPROBE_PATH, link.c_str()) != 0) {
    rmdir(dir);
    return {};
  }
  std::vector<std::string> argv{link};
  if (emulated) argv.push_back(TQPROBE_PATH);
  argv.insert(argv.end(), args.begin(), args.end());
  ChildResult result = RunProgram(argv);
  unlink(link.c_str());
  rmdir(dir);
  return result;
}

}  // namespace tqtest
