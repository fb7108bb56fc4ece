// Starting, watching and stopping the redis-servers behind the emulator.
#include "servers.h"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "faults.h"
#include "resp.h"

namespace devdb {

namespace {

// Events of every class ("A") on the keyspace channels ("K"), which the
// device's servers publish, and on the keyevent channels ("E") as well.
constexpr char kNotifyEvents[] = "KEA";

bool Answers(const std::string &socket) {
  timeval tv{0, 200000};
  redisContext *c = redisConnectUnixWithTimeout(socket.c_str(), tv);
  bool ok = false;
  if (c != nullptr && c->err == 0) {
    ReplyPtr reply(static_cast<redisReply *>(redisCommand(c, "PING")));
    ok = reply && reply->type == REDIS_REPLY_STATUS &&
         std::strcmp(reply->str, "PONG") == 0;
  }
  if (c != nullptr) redisFree(c);
  return ok;
}

}  // namespace

bool StartServer(const std::string &program, const std::string &socket,
                 const std::string &log, ServerProc *server,
                 std::string *error) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    *error = std::string("fork: ") + std::strerror(errno);
    return false;
  }
  if (pid == 0) {
    // The server must not outlive the emulator, even one killed outright.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    // The emulator blocks its stop signals between polls; the server must
    // not inherit that, or SIGTERM would never reach it.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null_fd = open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
      dup2(null_fd, 0);
      dup2(null_fd, 1);
      dup2(null_fd, 2);
      if (null_fd > 2) close(null_fd);
    }
    execlp(program.c_str(), program.c_str(), "--port", "0", "--unixsocket",
           socket.c_str(), "--unixsocketperm", "700", "--save", "",
           "--appendonly", "no", "--notify-keyspace-events", kNotifyEvents,
           "--daemonize", "no", "--logfile", log.c_str(), "--loglevel",
           "warning", static_cast<char *>(nullptr));
    _exit(127);
  }
  server->pid = pid;
  server->socket = socket;
  server->log = log;
  const int64_t deadline = NowMs() + 10000;
  while (NowMs() < deadline) {
    if (ServerExited(server)) {
      *error = program + " exited at start (see " + log + ")";
      return false;
    }
    if (Answers(socket)) return true;
    usleep(5000);
  }
  *error = program + " did not answer on " + socket;
  StopServer(server);
  return false;
}

bool PrepareAttached(const std::string &socket, std::string *error) {
  timeval tv{1, 0};
  redisContext *c = redisConnectUnixWithTimeout(socket.c_str(), tv);
  if (c == nullptr || c->err != 0) {
    *error = "cannot connect to " + socket;
    if (c != nullptr) redisFree(c);
    return false;
  }
  ReplyPtr reply(static_cast<redisReply *>(
      redisCommand(c, "CONFIG SET notify-keyspace-events %s", kNotifyEvents)));
  const bool ok = reply && reply->type == REDIS_REPLY_STATUS;
  if (!ok) *error = "cannot enable keyspace notifications on " + socket;
  redisFree(c);
  return ok;
}

void StopServer(ServerProc *server) {
  if (server->pid <= 0) return;
  kill(server->pid, SIGTERM);
  const int64_t deadline = NowMs() + 5000;
  int status = 0;
  while (waitpid(server->pid, &status, WNOHANG) == 0) {
    if (NowMs() >= deadline) {
      kill(server->pid, SIGKILL);
      waitpid(server->pid, &status, 0);
      break;
    }
    usleep(2000);
  }
  server->pid = -1;
  unlink(server->socket.c_str());  // gone already unless it was killed
  unlink(server->log.c_str());
}

bool ServerExited(ServerProc *server) {
  if (server->pid <= 0) return false;
  int status = 0;
  if (waitpid(server->pid, &status, WNOHANG) != server->pid) return false;
  server->pid = -1;
  return true;
}

}  // namespace devdb
