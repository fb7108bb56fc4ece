// Process management: the pid file, the background start, stop and status,
// serving for the lifetime of one command, and the orderly end that leaves
// no process, socket or file behind.
#include "daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "faults.h"
#include "proxy.h"
#include "servers.h"

namespace devdb {

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

bool MakeDirs(const std::string &path, mode_t mode) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    const std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Removes the plain files of a folder and the folder, as a crashed run may
// have left them.
void RemoveFolder(const std::string &path) {
  if (DIR *d = opendir(path.c_str())) {
    while (dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") unlink((path + "/" + name).c_str());
    }
    closedir(d);
  }
  rmdir(path.c_str());
}

pid_t ReadPid(const std::string &dir) {
  FILE *f = std::fopen(PidPath(dir).c_str(), "r");
  if (f == nullptr) return -1;
  long pid = -1;
  if (std::fscanf(f, "%ld", &pid) != 1) pid = -1;
  std::fclose(f);
  return pid > 0 ? static_cast<pid_t>(pid) : -1;
}

// A zombie counts as gone: it serves nothing and only waits to be reaped.
bool IsAlive(pid_t pid) {
  if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
  FILE *f = std::fopen(path, "r");
  if (f == nullptr) return true;
  char state = '?';
  if (std::fscanf(f, "%*d (%*[^)]) %c", &state) != 1) state = '?';
  std::fclose(f);
  return state != 'Z';
}

bool WritePid(const std::string &dir) {
  const std::string path = PidPath(dir);
  const std::string temp = path + ".new";
  FILE *f = std::fopen(temp.c_str(), "w");
  if (f == nullptr) return false;
  std::fprintf(f, "%ld\n", static_cast<long>(getpid()));
  if (std::fclose(f) != 0) return false;
  return rename(temp.c_str(), path.c_str()) == 0;
}

void Report(int fd, const std::string &text) {
  if (fd < 0) return;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0 && errno != EINTR) break;
    if (n > 0) done += static_cast<size_t>(n);
  }
}

int Fail(int ready_fd, const std::string &why) {
  std::fprintf(stderr, "tqredis-devdb: %s\n", why.c_str());
  Report(ready_fd, why + "\n");
  return 1;
}

// The command that RunCommand() started, until it has ended, else 0. Set
// with the stop signals blocked; read by their handler.
volatile sig_atomic_t g_command_pid = 0;
// The last stop signal RunCommand()'s process received, else 0.
volatile sig_atomic_t g_wrapper_signal = 0;

constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

// A stop signal sent to the wrapper alone is passed on to the command. One
// the terminal sent (SI_KERNEL) went to the whole foreground process group,
// the command included, so the command does not get it twice.
void PassOn(int sig, siginfo_t *info, void *) {
  const int saved = errno;
  g_wrapper_signal = sig;
  const pid_t pid = g_command_pid;
  if (pid > 0 && info->si_code != SI_KERNEL) kill(pid, sig);
  errno = saved;
}

// In a forked emulator: standard input from /dev/null, standard output and
// error to the log file when one is named, else to the caller's standard
// error (`keep_stderr`) or to /dev/null.
void RedirectStdio(const std::string &log, bool keep_stderr) {
  const int in = open("/dev/null", O_RDONLY);
  const int out = !log.empty()
                      ? open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)
                  : keep_stderr ? dup(2)
                                : open("/dev/null", O_WRONLY);
  if (in >= 0) dup2(in, 0);
  if (out >= 0) {
    dup2(out, 1);
    dup2(out, 2);
  }
  if (in > 2) close(in);
  if (out > 2) close(out);
}

void Reap(pid_t pid, int *status) {
  while (waitpid(pid, status, 0) < 0 && errno == EINTR) {
  }
}

// Ends an emulator child and reaps it; its Serve() removes what it made.
void StopChild(pid_t pid) {
  kill(pid, SIGTERM);
  int status = 0;
  Reap(pid, &status);
}

// Serve() in a child, returned once it serves; -1 when it did not start, or
// when a stop signal came first (then it is stopped again). The child gets a
// process group of its own, so that the terminal's Ctrl-C reaches the
// command but not the emulator the command may still need while it winds
// up; and the kernel ends it if the wrapper dies. Its messages go to the
// log, else to the wrapper's stderr: stdout stays the command's.
pid_t SpawnEmulator(const RunOptions &options) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "tqredis-devdb: pipe: %s\n", std::strerror(errno));
    return -1;
  }
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    std::fprintf(stderr, "tqredis-devdb: fork: %s\n", std::strerror(errno));
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    return -1;
  }
  if (pid == 0) {
    // Until Serve() installs its own, a stop signal must end the child, not
    // run the wrapper's handler.
    for (int sig : kStopSignals) signal(sig, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    setpgid(0, 0);
    // Out of the terminal's foreground group, a write to the terminal must
    // not stop the emulator.
    signal(SIGTTOU, SIG_IGN);
    close(pipe_fds[0]);
    RedirectStdio(options.log, /*keep_stderr=*/true);
    RunOptions child = options;
    child.ready_fd = pipe_fds[1];
    _exit(Serve(child));
  }
  setpgid(pid, pid);  // also here: whichever runs first
  close(pipe_fds[1]);
  std::string said;
  char buf[512];
  while (g_wrapper_signal == 0) {
    const ssize_t n = read(pipe_fds[0], buf, sizeof buf);
    if (n > 0) {
      said.append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;
  }
  close(pipe_fds[0]);
  if (g_wrapper_signal != 0) {
    StopChild(pid);
    return -1;
  }
  if (said == "ok\n") return pid;
  int status = 0;
  Reap(pid, &status);
  // Without a log the child has said why on our stderr already.
  if (!options.log.empty()) {
    std::fprintf(stderr, "tqredis-devdb: did not start: %s",
                 said.empty() ? "no reason given\n" : said.c_str());
  }
  return -1;
}

// The command's exit status as a shell reports it.
int ExitCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 1;
}

}  // namespace

int Serve(const RunOptions &options) {
  const int ready_fd = options.ready_fd;
  // The servers we start must not hold the readiness pipe open.
  if (ready_fd >= 0) fcntl(ready_fd, F_SETFD, FD_CLOEXEC);
  const std::string &dir = options.dir;
  if (!MakeDirs(dir, 0755))
    return Fail(ready_fd, "cannot create " + dir + ": " + std::strerror(errno));
  const pid_t other = ReadPid(dir);
  if (other > 0 && other != getpid() && IsAlive(other))
    return Fail(ready_fd, "already running in " + dir + " (pid " +
                              std::to_string(other) + ")");
  RemoveFolder(PrivateDir(dir));
  if (mkdir(PrivateDir(dir).c_str(), 0700) != 0)
    return Fail(ready_fd, "cannot create " + PrivateDir(dir));

  // Stop signals are blocked except inside the poll wait, so a stop is
  // never lost between a check and the wait.
  sigset_t stops;
  sigset_t wait_mask;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGHUP);
  sigprocmask(SIG_BLOCK, &stops, &wait_mask);
  sigdelset(&wait_mask, SIGTERM);
  sigdelset(&wait_mask, SIGINT);
  sigdelset(&wait_mask, SIGHUP);
  struct sigaction act {};
  act.sa_handler = OnStopSignal;
  sigemptyset(&act.sa_mask);
  sigaction(SIGTERM, &act, nullptr);
  sigaction(SIGINT, &act, nullptr);
  sigaction(SIGHUP, &act, nullptr);
  signal(SIGPIPE, SIG_IGN);

  ServerProc servers[kDbCount];
  ProxyOptions proxy_options;
  proxy_options.ctl_path = CtlPath(dir);
  proxy_options.max_request = options.max_request;
  std::string error;
  bool ok = true;
  for (int db = 0; db < kDbCount && ok; ++db) {
    proxy_options.listen_paths[db] = ListenPath(dir, db);
    if (!options.attach[db].empty()) {
      proxy_options.server_paths[db] = options.attach[db];
      ok = PrepareAttached(options.attach[db], &error);
    } else {
      proxy_options.server_paths[db] = ServerPath(dir, db);
      ok = StartServer(
          options.redis_server, ServerPath(dir, db),
          PrivateDir(dir) + "/" + std::string(kDbNames[db]) + ".log",
          &servers[db], &error);
    }
  }
  int code = 0;
  {
    Proxy proxy(proxy_options);
    if (ok) ok = proxy.Open(&error);
    if (ok && !WritePid(dir)) {
      error = "cannot write " + PidPath(dir);
      ok = false;
    }
    if (ok) {
      Report(ready_fd, "ok\n");
      if (ready_fd >= 0) close(ready_fd);
      bool died = false;
      proxy.Run(&g_stop, &wait_mask, [&servers, &died] {
        for (int db = 0; db < kDbCount; ++db) {
          if (!ServerExited(&servers[db])) continue;
          std::fprintf(stderr, "tqredis-devdb: the server of %.*s exited\n",
                       static_cast<int>(kDbNames[db].size()),
                       kDbNames[db].data());
          died = true;
        }
        return !died;
      });
      if (died) code = 1;
    } else {
      code = Fail(ready_fd, error);
    }
  }  // clients are cut before their servers go
  for (ServerProc &server : servers) StopServer(&server);
  RemoveFolder(PrivateDir(dir));
  if (ReadPid(dir) == getpid()) unlink(PidPath(dir).c_str());
  return code;
}

int Start(const RunOptions &options) {
  const pid_t other = ReadPid(options.dir);
  if (other > 0 && IsAlive(other)) {
    std::fprintf(stderr, "tqredis-devdb: already running in %s (pid %ld)\n",
                 options.dir.c_str(), static_cast<long>(other));
    return 1;
  }
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return 1;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return 1;
  if (pid == 0) {
    close(pipe_fds[0]);
    setsid();
    RedirectStdio(options.log, /*keep_stderr=*/false);
    RunOptions child = options;
    child.ready_fd = pipe_fds[1];
    std::fflush(nullptr);
    _exit(Serve(child));
  }
  close(pipe_fds[1]);
  std::string said;
  char buf[512];
  for (;;) {
    const ssize_t n = read(pipe_fds[0], buf, sizeof buf);
    if (n > 0) {
      said.append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;
  }
  close(pipe_fds[0]);
  if (said == "ok\n") return 0;
  int status = 0;
  waitpid(pid, &status, 0);
  std::fprintf(stderr, "tqredis-devdb: did not start: %s",
               said.empty() ? "no reason given\n" : said.c_str());
  return 1;
}

int Stop(const std::string &dir) {
  const pid_t pid = ReadPid(dir);
  if (!IsAlive(pid)) {
    std::printf("tqredis-devdb: not running in %s\n", dir.c_str());
    return 0;
  }
  kill(pid, SIGTERM);
  const int64_t deadline = NowMs() + 15000;
  while (IsAlive(pid)) {
    if (NowMs() >= deadline) {
      std::fprintf(stderr, "tqredis-devdb: pid %ld did not stop\n",
                   static_cast<long>(pid));
      return 1;
    }
    usleep(5000);
  }
  return 0;
}

int RunCommand(const RunOptions &options,
               const std::vector<const char *> &command) {
  struct sigaction act {};
  act.sa_sigaction = PassOn;
  // No SA_RESTART: a stop signal must end the wait for the emulator.
  act.sa_flags = SA_SIGINFO;
  sigemptyset(&act.sa_mask);
  for (int sig : kStopSignals) sigaction(sig, &act, nullptr);

  const pid_t emulator = SpawnEmulator(options);
  if (emulator < 0) return g_wrapper_signal != 0 ? 128 + g_wrapper_signal : 125;

  // Blocked from the last check until the command's pid is recorded, so a
  // stop signal either keeps the command from starting or is passed on.
  sigset_t stops;
  sigset_t old_mask;
  sigemptyset(&stops);
  for (int sig : kStopSignals) sigaddset(&stops, sig);
  sigprocmask(SIG_BLOCK, &stops, &old_mask);
  int err_fds[2] = {-1, -1};
  if (g_wrapper_signal != 0 || pipe2(err_fds, O_CLOEXEC) != 0) {
    const int code = g_wrapper_signal != 0 ? 128 + g_wrapper_signal : 126;
    if (code == 126)
      std::fprintf(stderr, "tqredis-devdb: pipe: %s\n", std::strerror(errno));
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    StopChild(emulator);
    return code;
  }
  std::vector<char *> argv;
  for (const char *word : command) argv.push_back(const_cast<char *>(word));
  argv.push_back(nullptr);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig : kStopSignals) sigaction(sig, &dfl, nullptr);
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    close(err_fds[0]);
    execvp(argv[0], argv.data());
    // The wrapper reports it: the child's stderr may be anything by now.
    const int err = errno;
    if (write(err_fds[1], &err, sizeof err) != sizeof err) _exit(126);
    _exit(err == ENOENT ? 127 : 126);
  }
  const int fork_errno = errno;
  if (pid > 0) g_command_pid = pid;
  sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  close(err_fds[1]);
  if (pid < 0) {
    close(err_fds[0]);
    std::fprintf(stderr, "tqredis-devdb: fork: %s\n",
                 std::strerror(fork_errno));
    StopChild(emulator);
    return 126;
  }

  // The pipe closes on a successful exec; an errno arrives otherwise.
  int exec_errno = 0;
  ssize_t n;
  while ((n = read(err_fds[0], &exec_errno, sizeof exec_errno)) < 0 &&
         errno == EINTR) {
  }
  close(err_fds[0]);
  int code = 0;
  if (n == sizeof exec_errno) {
    if (exec_errno == ENOENT && std::strchr(command[0], '/') == nullptr) {
      std::fprintf(stderr, "tqredis-devdb: %s: command not found\n",
                   command[0]);
    } else {
      std::fprintf(stderr, "tqredis-devdb: %s: %s\n", command[0],
                   std::strerror(exec_errno));
    }
    code = exec_errno == ENOENT ? 127 : 126;
  }
  // Wait without reaping, so that the handler never signals a process that
  // was given the command's pid after it ended.
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 &&
         errno == EINTR) {
  }
  sigprocmask(SIG_BLOCK, &stops, nullptr);
  g_command_pid = 0;
  sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  int status = 0;
  Reap(pid, &status);
  if (n != sizeof exec_errno) code = ExitCode(status);
  StopChild(emulator);
  return code;
}

int Status(const std::string &dir) {
  const pid_t pid = ReadPid(dir);
  if (!IsAlive(pid)) {
    std::printf("tqredis-devdb: not running in %s\n", dir.c_str());
    return 3;
  }
  std::printf("tqredis-devdb: running in %s, pid %ld\n", dir.c_str(),
              static_cast<long>(pid));
  return 0;
}

}  // namespace devdb
