// Test harness for tqredis-devdb: one emulator per test, in its own folder.
#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace devdbtest {

namespace {

constexpr int kWaitMs = 10000;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Waits until `fd` is readable; false after kWaitMs.
bool WaitReadable(int fd, int64_t deadline) {
  pollfd p{fd, POLLIN, 0};
  const int64_t left = deadline - NowMs();
  return left > 0 && poll(&p, 1, static_cast<int>(left)) > 0;
}

}  // namespace

std::vector<char *> Argv(const std::vector<std::string> &args) {
  std::vector<char *> argv;
  for (const std::string &a : args)
    argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

pid_t Spawn(const std::vector<std::string> &args, int *out_fd) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  std::vector<char *> argv = Argv(args);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  *out_fd = fds[0];
  return pid;
}

Output RunProgram(const std::vector<std::string> &args) {
  Output result;
  int fd = -1;
  const pid_t pid = Spawn(args, &fd);
  if (pid < 0) return result;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) result.out.append(buf, static_cast<size_t>(n));
  close(fd);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.code = WEXITSTATUS(status);
  return result;
}

std::string ReadAtLeast(int fd, size_t wanted) {
  std::string text;
  const int64_t deadline = NowMs() + kWaitMs;
  char buf[4096];
  while (text.size() < wanted && WaitReadable(fd, deadline)) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  return text;
}

std::vector<std::string> ReadLinesUntil(int fd, const std::string &last) {
  std::vector<std::string> lines;
  std::string partial;
  const int64_t deadline = NowMs() + kWaitMs;
  char c;
  while (WaitReadable(fd, deadline) && read(fd, &c, 1) == 1) {
    if (c != '\n') {
      partial.push_back(c);
      continue;
    }
    lines.push_back(partial);
    if (partial == last) break;
    partial.clear();
  }
  return lines;
}

int ConnectRaw(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

void WriteAll(int fd, const std::string &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;  // the peer may drop us mid-way: that is the point
    done += static_cast<size_t>(n);
  }
}

bool ProcessGone(pid_t pid) {
  if (kill(pid, 0) != 0) return true;
  // Reparented to an init that does not reap: a zombie serves nothing.
  FILE *f = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
  if (f == nullptr) return true;
  char state = '?';
  if (std::fscanf(f, "%*d (%*[^)]) %c", &state) != 1) state = '?';
  std::fclose(f);
  return state == 'Z';
}

bool ClosedByPeer(int fd) {
  const int64_t deadline = NowMs() + kWaitMs;
  char buf[4096];
  while (WaitReadable(fd, deadline)) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
    if (n < 0) return false;
  }
  return false;
}

void DevdbTest::StartEmulator(const std::vector<std::string> &extra) {
  signal(SIGPIPE, SIG_IGN);  // tests write to connections the emulator closed
  char templ[] = "/tmp/devdb.XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  dir_ = templ;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<std::string> args = {DEVDB_PATH, "run",        "--dir",
                                   dir_,       "--ready-fd", "3"};
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char *> argv = Argv(args);
  pid_ = fork();
  ASSERT_GE(pid_, 0);
  if (pid_ == 0) {
    // A test that dies must not leave an emulator behind.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(fds[1], 3);
    if (fds[0] != 3) close(fds[0]);
    if (fds[1] != 3) close(fds[1]);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  const std::string said = ReadAtLeast(fds[0], 3);
  close(fds[0]);
  ASSERT_EQ(said, "ok\n");
}

void DevdbTest::TearDown() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the emulator must end cleanly on SIGTERM";
  std::vector<std::string> left;
  if (DIR *d = opendir(dir_.c_str())) {
    while (dirent *e = readdir(d))
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
        left.push_back(e->d_name);
    closedir(d);
  }
  EXPECT_TRUE(left.empty()) << "left behind: " << left.front();
  rmdir(dir_.c_str());
}

ContextPtr DevdbTest::Connect(const char *db) const {
  ContextPtr c(redisConnectUnix(Socket(db).c_str()));
  if (c && c->err == 0) {
    timeval tv{10, 0};
    redisSetTimeout(c.get(), tv);
  }
  return c;
}

ReplyPtr DevdbTest::Command(redisContext *c,
                            const std::vector<std::string> &args) {
  std::vector<const char *> argv;
  std::vector<size_t> lens;
  for (const std::string &a : args) {
    argv.push_back(a.data());
    lens.push_back(a.size());
  }
  return ReplyPtr(static_cast<redisReply *>(redisCommandArgv(
      c, static_cast<int>(argv.size()), argv.data(), lens.data())));
}

ReplyPtr DevdbTest::Next(redisContext *c) {
  void *reply = nullptr;
  if (redisGetReply(c, &reply) != REDIS_OK) return nullptr;
  return ReplyPtr(static_cast<redisReply *>(reply));
}

Output DevdbTest::Ctl(const std::vector<std::string> &args) const {
  std::vector<std::string> all = {DEVDB_PATH, "ctl", "--dir", dir_};
  all.insert(all.end(), args.begin(), args.end());
  return RunProgram(all);
}

}  // namespace devdbtest
