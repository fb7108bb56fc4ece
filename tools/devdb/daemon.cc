// Process management: the pid file, the background start, stop and status,
// and the orderly end that leaves no process, socket or file behind.
#include "daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
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
    const int in = open("/dev/null", O_RDONLY);
    const int out =
        options.log.empty()
            ? open("/dev/null", O_WRONLY)
            : open(options.log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in >= 0) dup2(in, 0);
    if (out >= 0) {
      dup2(out, 1);
      dup2(out, 2);
    }
    if (in > 2) close(in);
    if (out > 2) close(out);
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
