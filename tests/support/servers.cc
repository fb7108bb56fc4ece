// Real redis-server processes for the tests.
#include "support/servers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

namespace tqtest {

const char *const kSocketPaths[3] = {"/tmp/redis/redis_de_global.sock",
                                     "/tmp/redis/redis_ce_global.sock",
                                     "/tmp/redis/redis_host.sock"};

bool RedisServer::Start(const std::string &socket_path) {
  Stop();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, 0);
    dup2(devnull, 1);
    dup2(devnull, 2);
    const char *argv[] = {"redis-server", "--port", "0", "--unixsocket",
                          socket_path.c_str(), "--unixsocketperm", "777",
                          "--save", "", "--appendonly", "no",
                          "--notify-keyspace-events", "KEA", "--dir", "/tmp",
                          "--daemonize", "no", nullptr};
    execvp("redis-server", const_cast<char **>(argv));
    _exit(127);
  }
  if (pid < 0) return false;
  pid_ = pid;
  for (int i = 0; i < 500; ++i) {
    redisContext *c = redisConnectUnix(socket_path.c_str());
    if (c != nullptr && c->err == 0) {
      auto *reply = static_cast<redisReply *>(redisCommand(c, "PING"));
      const bool pong = reply != nullptr && reply->type == REDIS_REPLY_STATUS &&
                        std::strcmp(reply->str, "PONG") == 0;
      if (reply != nullptr) freeReplyObject(reply);
      redisFree(c);
      if (pong) return true;
    } else if (c != nullptr) {
      redisFree(c);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

void RedisServer::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  kill(pid_, SIGCONT);  // a frozen server takes its SIGTERM only once woken
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void RedisServer::Freeze(bool frozen) {
  if (pid_ > 0) kill(pid_, frozen ? SIGSTOP : SIGCONT);
}

void RedisServer::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool DeviceServers::StartAll() {
  for (int db = 0; db < 3; ++db) {
    if (!Start(db)) return false;
  }
  return true;
}

ContextPtr Direct(int db) {
  redisContext *c = redisConnectUnix(kSocketPaths[db]);
  if (c != nullptr && c->err != 0) {
    redisFree(c);
    c = nullptr;
  }
  return ContextPtr(c);
}

ReplyPtr Run(redisContext *c, const char *format, ...) {
  if (c == nullptr) return nullptr;
  va_list ap;
  va_start(ap, format);
  void *reply = redisvCommand(c, format, ap);
  va_end(ap);
  return ReplyPtr(static_cast<redisReply *>(reply));
}

std::string ClientNames(int db) {
  auto c = Direct(db);
  auto list = Run(c.get(), "CLIENT LIST");
  std::string names;
  if (list == nullptr || list->type != REDIS_REPLY_STRING) return names;
  std::istringstream lines(list->str);
  std::string line;
  while (std::getline(lines, line)) {
    const auto at = line.find(" name=");
    if (at == std::string::npos) continue;
    const auto end = line.find(' ', at + 6);
    const std::string name = line.substr(at + 6, end - at - 6);
    if (name.empty()) continue;  // our own direct connection
    if (!names.empty()) names += " ";
    names += name;
  }
  return names;
}

}  // namespace tqtest
