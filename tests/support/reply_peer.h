// A scripted database on a unix socket that answers commands from a script,
// for replies a stock server never gives (a PTTL of exactly 0, a status line
// cut short, a SCAN reply of the wrong shape). Serves any number of clients
// at once, so the library's read and pubsub connections both come up.
#ifndef TQREDIS_TESTS_SUPPORT_REPLY_PEER_H_
#define TQREDIS_TESTS_SUPPORT_REPLY_PEER_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <hiredis/hiredis.h>

namespace tqtest {

class ReplyPeer {
 public:
  // A command whose words, joined by single blanks and with the first word
  // upper-cased, start with `prefix` gets the n-th of `answers` (raw RESP;
  // the last one again once they are used up). The first matching rule
  // wins. Unmatched commands: PING gets "+PONG", anything else "+OK".
  struct Rule {
    std::string prefix;
    std::vector<std::string> answers;
  };

  ReplyPeer(const std::string &path, std::vector<Rule> rules)
      : path_(path), rules_(std::move(rules)), used_(rules_.size(), 0) {
    unlink(path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    listening_ = listen_fd_ >= 0 &&
                 bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr),
                      sizeof(addr)) == 0 &&
                 listen(listen_fd_, 16) == 0 && pipe(stop_fds_) == 0;
    if (listening_) thread_ = std::thread([this] { Serve(); });
  }

  ~ReplyPeer() {
    if (thread_.joinable()) {
      if (write(stop_fds_[1], "x", 1) < 0) {
      }
      thread_.join();
    }
    for (int fd : {listen_fd_, stop_fds_[0], stop_fds_[1]})
      if (fd >= 0) close(fd);
    unlink(path_.c_str());
  }

  ReplyPeer(const ReplyPeer &) = delete;
  ReplyPeer &operator=(const ReplyPeer &) = delete;

  bool listening() const { return listening_; }

  // Every command received so far, in order, as "WORD arg arg".
  std::vector<std::string> Commands() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return commands_;
  }

  // The received commands that start with `prefix`.
  std::vector<std::string> Commands(const std::string &prefix) const {
    std::vector<std::string> out;
    for (const std::string &c : Commands())
      if (c.compare(0, prefix.size(), prefix) == 0) out.push_back(c);
    return out;
  }

 private:
  struct Client {
    int fd;
    redisReader *reader;
  };

  std::string Answer(const redisReply *command) {
    std::string text;
    for (size_t i = 0; i < command->elements; ++i) {
      const redisReply *word = command->element[i];
      if (word->str == nullptr) continue;
      std::string w(word->str, word->len);
      if (i == 0)
        for (char &ch : w) ch = static_cast<char>(std::toupper(ch));
      text += (i ? " " : "") + w;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    commands_.push_back(text);
    for (size_t r = 0; r < rules_.size(); ++r) {
      const Rule &rule = rules_[r];
      if (text.compare(0, rule.prefix.size(), rule.prefix) != 0) continue;
      const size_t n = used_[r]++;
      return rule
          .answers[n < rule.answers.size() ? n : rule.answers.size() - 1];
    }
    return text == "PING" ? "+PONG\r\n" : "+OK\r\n";
  }

  // Answers every complete command a client sent; false when it is gone.
  bool ServeClient(Client &client) {
    char buf[4096];
    const ssize_t n = read(client.fd, buf, sizeof(buf));
    if (n <= 0) return false;
    redisReaderFeed(client.reader, buf, static_cast<size_t>(n));
    void *parsed = nullptr;
    while (redisReaderGetReply(client.reader, &parsed) == REDIS_OK &&
           parsed != nullptr) {
      auto *command = static_cast<redisReply *>(parsed);
      std::string answer = "-ERR not a request\r\n";
      if (command->type == REDIS_REPLY_ARRAY && command->elements > 0)
        answer = Answer(command);
      freeReplyObject(command);
      parsed = nullptr;
      if (write(client.fd, answer.data(), answer.size()) < 0) return false;
    }
    return true;
  }

  void Serve() {
    std::vector<Client> clients;
    for (;;) {
      std::vector<pollfd> fds{{stop_fds_[0], POLLIN, 0},
                              {listen_fd_, POLLIN, 0}};
      for (const Client &c : clients) fds.push_back({c.fd, POLLIN, 0});
      if (poll(fds.data(), fds.size(), -1) < 0) continue;
      if (fds[0].revents) break;
      for (size_t i = fds.size(); i-- > 2;) {
        if (!fds[i].revents) continue;
        Client &client = clients[i - 2];
        if (!ServeClient(client)) {
          close(client.fd);
          redisReaderFree(client.reader);
          clients.erase(clients.begin() + static_cast<long>(i - 2));
        }
      }
      if (fds[1].revents) {
        const int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd >= 0) clients.push_back({fd, redisReaderCreate()});
      }
    }
    for (Client &c : clients) {
      close(c.fd);
      redisReaderFree(c.reader);
    }
  }

  std::string path_;
  std::vector<Rule> rules_;
  std::vector<size_t> used_;
  int listen_fd_ = -1;
  int stop_fds_[2] = {-1, -1};
  bool listening_ = false;
  mutable std::mutex mutex_;
  std::vector<std::string> commands_;
  std::thread thread_;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_REPLY_PEER_H_
