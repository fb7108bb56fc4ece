// "run -- COMMAND": the emulator serves exactly as long as the command runs,
// the command's status comes back, and nothing is left behind.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace devdbtest {
namespace {

struct Result {
  int code = -1;  // exit code; 128 + N when signal N ended the wrapper
  std::string out;
  std::string err;
};

int Code(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Reads both pipes to their end.
void Drain(int out_fd, int err_fd, Result *result) {
  pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  std::string *into[2] = {&result->out, &result->err};
  int open_count = 2;
  char buf[4096];
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        into[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
}

// A wrapper started in a process group of its own, with pipes on its stdout
// and stderr.
struct Wrapper {
  pid_t pid = -1;
  int out = -1;
  int err = -1;
};

Wrapper Start(const std::vector<std::string> &args) {
  Wrapper w;
  int out[2];
  int err[2];
  if (pipe(out) != 0 || pipe(err) != 0) return w;
  std::vector<char *> argv = Argv(args);
  w.pid = fork();
  if (w.pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    close(out[0]);
    close(out[1]);
    close(err[0]);
    close(err[1]);
    execv(argv[0], argv.data());
    _exit(99);
  }
  close(out[1]);
  close(err[1]);
  w.out = out[0];
  w.err = err[0];
  return w;
}

Result Finish(Wrapper *w) {
  Result result;
  Drain(w->out, w->err, &result);
  int status = 0;
  if (waitpid(w->pid, &status, 0) == w->pid) result.code = Code(status);
  return result;
}

Result RunWrapped(const std::vector<std::string> &args) {
  Wrapper w = Start(args);
  return Finish(&w);
}

std::vector<std::string> Entries(const std::string &dir) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
        names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

// Processes other than this one whose command line mentions `text`: the
// emulator and its redis-servers all name the folder.
std::vector<std::string> ProcessesMentioning(const std::string &text) {
  std::vector<std::string> found;
  DIR *d = opendir("/proc");
  if (d == nullptr) return found;
  const std::string self = std::to_string(getpid());
  while (dirent *e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.find_first_not_of("0123456789") != std::string::npos ||
        name == self)
      continue;
    std::ifstream f("/proc/" + name + "/cmdline");
    std::stringstream text_of;
    text_of << f.rdbuf();
    std::string line = text_of.str();
    for (char &c : line)
      if (c == '\0') c = ' ';
    if (line.find(text) != std::string::npos &&
        !ProcessGone(static_cast<pid_t>(std::stol(name))))
      found.push_back(name + ": " + line);
  }
  closedir(d);
  return found;
}

// Waits, 10 s at most, for what an orphaned emulator does on its own.
template <typename Done>
bool WaitFor(Done done) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(10000);
  }
  return true;
}

// The first `count` lines from `fd`, fewer when 10 s pass first.
std::vector<std::string> ReadLines(int fd, size_t count) {
  std::vector<std::string> lines;
  std::string line;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (lines.size() < count && std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char c;
    if (read(fd, &c, 1) != 1) break;
    if (c != '\n') {
      line.push_back(c);
      continue;
    }
    lines.push_back(line);
    line.clear();
  }
  return lines;
}

// The pid in "tqredis-devdb: running in DIR, pid N".
pid_t PidIn(const std::string &status_line) {
  const size_t at = status_line.rfind("pid ");
  return at == std::string::npos
             ? -1
             : static_cast<pid_t>(std::atol(status_line.c_str() + at + 4));
}

class DevdbRun : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/devdb.XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
  }
  void TearDown() override {
    RunProgram({DEVDB_PATH, "stop", "--dir", dir_});
    rmdir(dir_.c_str());
  }
  // "tqredis-devdb run --dir <folder> -- command...".
  std::vector<std::string> RunArgs(const std::vector<std::string> &command) {
    std::vector<std::string> args = {DEVDB_PATH, "run", "--dir", dir_, "--"};
    args.insert(args.end(), command.begin(), command.end());
    return args;
  }
  // A shell script as the command; $0 is the emulator program, $1 the
  // folder.
  std::vector<std::string> Script(const std::string &script) {
    return RunArgs({"/bin/sh", "-c", script, DEVDB_PATH, dir_});
  }
  // Nothing of the emulator remains: no file in the folder, no process.
  void ExpectNothingLeft() {
    EXPECT_EQ(Entries(dir_), std::vector<std::string>{});
    EXPECT_EQ(ProcessesMentioning(dir_), std::vector<std::string>{});
  }
  std::string dir_;
};

TEST_F(DevdbRun, CommandRunsAgainstTheEmulatorAndItsStatusIsReturned) {
  const Result r = RunWrapped(Script(
      R"("$0" status --dir "$1" && "$0" ctl --dir "$1" ping && exit 7)"));
  EXPECT_EQ(r.code, 7);
  EXPECT_EQ(r.err, "");
  const std::string running = "tqredis-devdb: running in " + dir_ + ", pid ";
  ASSERT_EQ(r.out.compare(0, running.size(), running), 0) << r.out;
  const size_t eol = r.out.find('\n');
  ASSERT_NE(eol, std::string::npos);
  EXPECT_EQ(r.out.substr(eol + 1), "PONG\n");
  const pid_t emulator = PidIn(r.out.substr(0, eol));
  ASSERT_GT(emulator, 0);
  EXPECT_TRUE(ProcessGone(emulator));
  ExpectNothingLeft();
}

TEST_F(DevdbRun, SuccessAndFailureOfTheCommandAreReturned) {
  EXPECT_EQ(RunWrapped(RunArgs({"true"})).code, 0);
  EXPECT_EQ(RunWrapped(RunArgs({"false"})).code, 1);
  EXPECT_EQ(RunWrapped(Script("exit 255")).code, 255);
  ExpectNothingLeft();
}

TEST_F(DevdbRun, CommandGetsItsArgumentsUnchanged) {
  const Result r = RunWrapped(
      RunArgs({"printf", "[%s]", "--dir", "two words", "", "--", "-x"}));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "[--dir][two words][][--][-x]");
}

TEST_F(DevdbRun, CommandNotFoundIs127WithItsName) {
  const Result r = RunWrapped(RunArgs({"tqredis-no-such-command", "x"}));
  EXPECT_EQ(r.code, 127);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "tqredis-devdb: tqredis-no-such-command: command not found\n");
  ExpectNothingLeft();
}

TEST_F(DevdbRun, MissingProgramPathIs127) {
  const Result r = RunWrapped(RunArgs({"/nonexistent/program"}));
  EXPECT_EQ(r.code, 127);
  EXPECT_EQ(r.err,
            "tqredis-devdb: /nonexistent/program: No such file or directory\n");
  ExpectNothingLeft();
}

TEST_F(DevdbRun, FileThatCannotBeExecutedIs126) {
  const std::string file = dir_ + ".txt";
  ASSERT_TRUE(std::ofstream(file) << "not a program\n");
  ASSERT_EQ(chmod(file.c_str(), 0644), 0);
  const Result r = RunWrapped(RunArgs({file}));
  unlink(file.c_str());
  EXPECT_EQ(r.code, 126);
  EXPECT_EQ(r.err, "tqredis-devdb: " + file + ": Permission denied\n");
  ExpectNothingLeft();
}

TEST_F(DevdbRun, EmulatorThatCannotStartIs125AndTheCommandDoesNotRun) {
  const Result r =
      RunWrapped({DEVDB_PATH, "run", "--dir", dir_, "--redis-server",
                  "/nonexistent/redis", "--", "echo", "ran"});
  EXPECT_EQ(r.code, 125);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "tqredis-devdb: /nonexistent/redis exited at start (see " +
                       dir_ + "/tqredis-devdb.d/redis_de_global.log)\n");
  ExpectNothingLeft();
}

TEST_F(DevdbRun, FolderServedByAnotherEmulatorIs125) {
  ASSERT_EQ(RunProgram({DEVDB_PATH, "start", "--dir", dir_}).code, 0);
  const Output status = RunProgram({DEVDB_PATH, "status", "--dir", dir_});
  const pid_t other = PidIn(status.out);
  ASSERT_GT(other, 0);
  const Result r = RunWrapped(RunArgs({"echo", "ran"}));
  EXPECT_EQ(r.code, 125);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "tqredis-devdb: already running in " + dir_ + " (pid " +
                       std::to_string(other) + ")\n");
  EXPECT_EQ(RunProgram({DEVDB_PATH, "status", "--dir", dir_}).out, status.out)
      << "the other emulator still serves";
}

TEST_F(DevdbRun, LogOptionTakesTheEmulatorsMessages) {
  const std::string log = dir_ + ".log";
  const Result r =
      RunWrapped({DEVDB_PATH, "run", "--dir", dir_, "--log", log,
                  "--redis-server", "/nonexistent/redis", "--", "echo", "ran"});
  std::stringstream logged;
  logged << std::ifstream(log).rdbuf();
  unlink(log.c_str());
  const std::string why = "/nonexistent/redis exited at start (see " + dir_ +
                          "/tqredis-devdb.d/redis_de_global.log)\n";
  EXPECT_EQ(r.code, 125);
  EXPECT_EQ(r.err, "tqredis-devdb: did not start: " + why);
  EXPECT_EQ(logged.str(), "tqredis-devdb: " + why);
}

TEST_F(DevdbRun, SeparatorWithoutCommandIsAUsageError) {
  EXPECT_EQ(RunWrapped({DEVDB_PATH, "run", "--dir", dir_, "--"}).code, 2);
  EXPECT_EQ(RunWrapped({DEVDB_PATH, "start", "--dir", dir_, "--", "true"}).code,
            2);
  ExpectNothingLeft();
}

// The command prints the emulator's status line and its own pid, then
// becomes a long sleep that only a signal ends.
constexpr char kSleeper[] =
    R"("$0" status --dir "$1" && echo $$ && exec sleep 1000)";

TEST_F(DevdbRun, TermToTheWrapperEndsTheCommandThenTheEmulator) {
  Wrapper w = Start(Script(kSleeper));
  const std::vector<std::string> lines = ReadLines(w.out, 2);
  ASSERT_EQ(lines.size(), 2u);
  const pid_t emulator = PidIn(lines[0]);
  const pid_t command = static_cast<pid_t>(std::atol(lines[1].c_str()));
  ASSERT_GT(emulator, 0);
  ASSERT_GT(command, 0);
  ASSERT_EQ(kill(w.pid, SIGTERM), 0);
  const Result r = Finish(&w);
  EXPECT_EQ(r.code, 128 + SIGTERM) << "the command's death by the signal";
  EXPECT_TRUE(ProcessGone(command));
  EXPECT_TRUE(ProcessGone(emulator));
  ExpectNothingLeft();
}

TEST_F(DevdbRun, InterruptToTheWrapperIsPassedOnToTheCommand) {
  Wrapper w = Start(Script(kSleeper));
  const std::vector<std::string> lines = ReadLines(w.out, 2);
  ASSERT_EQ(lines.size(), 2u);
  const pid_t command = static_cast<pid_t>(std::atol(lines[1].c_str()));
  ASSERT_EQ(kill(w.pid, SIGINT), 0);
  const Result r = Finish(&w);
  EXPECT_EQ(r.code, 128 + SIGINT);
  EXPECT_TRUE(ProcessGone(command));
  ExpectNothingLeft();
}

TEST_F(DevdbRun, KilledWrapperStillStopsTheEmulator) {
  Wrapper w = Start(Script(kSleeper));
  const std::vector<std::string> lines = ReadLines(w.out, 2);
  ASSERT_EQ(lines.size(), 2u);
  const pid_t emulator = PidIn(lines[0]);
  const pid_t command = static_cast<pid_t>(std::atol(lines[1].c_str()));
  ASSERT_EQ(kill(w.pid, SIGKILL), 0);
  kill(command, SIGKILL);  // an orphan now: nothing else would end it
  Finish(&w);
  EXPECT_TRUE(WaitFor([&] { return ProcessGone(emulator); }));
  EXPECT_TRUE(WaitFor([&] { return ProcessesMentioning(dir_).empty(); }));
  ExpectNothingLeft();
}

// Ctrl-C at a terminal goes to the whole foreground group. The emulator is
// not in it: it keeps serving while the command handles the interrupt (here
// by asking the emulator), and stops once the command has ended.
TEST_F(DevdbRun, CtrlCAtTheTerminalLeavesTheEmulatorToTheCommand) {
  const std::vector<std::string> args =
      Script(R"(trap '"$0" ctl --dir "$1" ping; exit 3' INT; echo ready; )"
             R"(while :; do sleep 0.1; done)");
  std::vector<char *> argv = Argv(args);
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(argv[0], argv.data());
    _exit(99);
  }
  std::string seen;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  char buf[512];
  while (seen.find("ready\r\n") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) break;
    seen.append(buf, static_cast<size_t>(n));
  }
  ASSERT_NE(seen.find("ready\r\n"), std::string::npos) << seen;
  ASSERT_EQ(write(master, "\x03", 1), 1);  // the terminal's interrupt key
  seen.clear();
  for (;;) {
    const ssize_t n = read(master, buf, sizeof buf);
    if (n > 0) {
      seen.append(buf, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;  // EIO once the terminal's last user has gone
    }
  }
  close(master);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(Code(status), 3);
  EXPECT_NE(seen.find("PONG\r\n"), std::string::npos) << seen;
  EXPECT_EQ(seen.find("PONG"), seen.rfind("PONG"))
      << "the interrupt reached the command once: " << seen;
  ExpectNothingLeft();
}

}  // namespace
}  // namespace devdbtest
