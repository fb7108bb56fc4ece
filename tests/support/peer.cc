// A scripted peer on a unix socket.
#include "support/peer.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <hiredis/hiredis.h>

namespace tqtest {

ScriptedPeer::ScriptedPeer(const std::string &path,
                           std::vector<std::string> ping_replies)
    : path_(path), ping_replies_(std::move(ping_replies)) {
  unlink(path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
  bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
  listen(listen_fd_, 8);
  if (pipe(stop_fds_) != 0) stop_fds_[0] = stop_fds_[1] = -1;
  thread_ = std::thread([this] { Serve(); });
}

ScriptedPeer::~ScriptedPeer() {
  if (write(stop_fds_[1], "x", 1) < 0) {
  }
  thread_.join();
  close(listen_fd_);
  close(stop_fds_[0]);
  close(stop_fds_[1]);
  unlink(path_.c_str());
}

void ScriptedPeer::Serve() {
  int client = -1;
  redisReader *reader = nullptr;
  for (;;) {
    pollfd fds[2] = {{stop_fds_[0], POLLIN, 0},
                     {client >= 0 ? client : listen_fd_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;
    if (fds[0].revents) break;
    if (!fds[1].revents) continue;
    if (client < 0) {
      client = accept(listen_fd_, nullptr, nullptr);
      reader = redisReaderCreate();
      continue;
    }
    char buf[4096];
    const ssize_t n = read(client, buf, sizeof(buf));
    if (n <= 0) {
      close(client);
      client = -1;
      redisReaderFree(reader);
      reader = nullptr;
      continue;
    }
    redisReaderFeed(reader, buf, static_cast<size_t>(n));
    void *parsed = nullptr;
    while (redisReaderGetReply(reader, &parsed) == REDIS_OK && parsed != nullptr) {
      auto *command = static_cast<redisReply *>(parsed);
      std::string answer = "+OK\r\n";
      if (command->type == REDIS_REPLY_ARRAY && command->elements > 0 &&
          strcasecmp(command->element[0]->str, "PING") == 0) {
        const size_t i = static_cast<size_t>(pings_++);
        answer = ping_replies_[i < ping_replies_.size() ? i : ping_replies_.size() - 1];
      }
      freeReplyObject(command);
      if (write(client, answer.data(), answer.size()) < 0) break;
    }
  }
  if (client >= 0) close(client);
  if (reader != nullptr) redisReaderFree(reader);
}

}  // namespace tqtest
