// A scripted peer on a unix socket, for the protocol answers a stock server
// cannot give: PING answered with an error, or with a status other than
// "PONG" a few times before "PONG".
#ifndef TQREDIS_TESTS_SUPPORT_PEER_H_
#define TQREDIS_TESTS_SUPPORT_PEER_H_

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace tqtest {

class ScriptedPeer {
 public:
  // Listens on `path`. The n-th PING gets ping_replies[n] (raw RESP; the last
  // one again once the list is used up); every other command gets "+OK".
  ScriptedPeer(const std::string &path, std::vector<std::string> ping_replies);
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer &) = delete;
  ScriptedPeer &operator=(const ScriptedPeer &) = delete;
  int pings() const { return pings_; }

 private:
  void Serve();
  std::string path_;
  std::vector<std::string> ping_replies_;
  int listen_fd_ = -1;
  int stop_fds_[2] = {-1, -1};
  std::atomic<int> pings_{0};
  std::thread thread_;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_PEER_H_
