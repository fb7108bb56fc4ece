// The forwarding loop: client connections on the device's sockets, each
// paired with a connection to its database's server, plus the control socket.
#ifndef TQREDIS_TOOLS_DEVDB_PROXY_H_
#define TQREDIS_TOOLS_DEVDB_PROXY_H_

#include <hiredis/hiredis.h>
#include <signal.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "faults.h"
#include "resp.h"
#include "status_line.h"
#include "topology.h"

namespace devdb {

struct ProxyOptions {
  std::string listen_paths[kDbCount];  // the device's sockets
  std::string server_paths[kDbCount];  // where each server listens
  std::string ctl_path;
  // A client whose unfinished request grows past this is dropped: nothing
  // else bounds what a broken or hostile client makes the emulator hold.
  size_t max_request = 64u << 20;
};

class Proxy {
 public:
  explicit Proxy(ProxyOptions options);
  ~Proxy();  // closes every connection and removes the sockets it made
  Proxy(const Proxy &) = delete;
  Proxy &operator=(const Proxy &) = delete;

  // Listens on the device's sockets and the control socket, and opens the
  // connections used for value look-ups. False with `*error` on failure.
  bool Open(std::string *error);
  // Serves until `*stop` is set by a signal handler. Signals are taken only
  // inside the wait, with `wait_mask` in force. Between waits `healthy` is
  // asked whether to go on (false once a server died).
  void Run(const volatile sig_atomic_t *stop, const sigset_t *wait_mask,
           const std::function<bool()> &healthy);

 private:
  // What a client is owed, in the order it asked.
  struct Pending {
    enum Kind {
      kOwnId,       // the server's reply to our CLIENT ID: kept, not sent on
      kUpstream,    // `replies` replies of the server, sent on untouched
      kBytes,       // a reply made here (`data`)
      kClientList,  // the status of client `data`, made when its turn comes
    };
    Kind kind;
    long long replies = 0;
    std::string data;
  };
  struct Conn {
    int db = 0;
    int fd = -1;     // the client's connection
    int up_fd = -1;  // ours to the server
    long long server_id = -1;
    std::unique_ptr<RequestGuard> guard;
    FrameReader from_client;
    FrameReader from_server;
    std::string to_client;
    std::string to_server;
    std::deque<Pending> pending;
    bool sub_requested = false;  // has sent a subscribe command
    bool sub_mode = false;       // subscribed to at least one channel
    bool closing = false;        // server gone: close once to_client is out
    bool dead = false;
    ClientFigures figures;
    ClientFigures last;  // figures at the last rate sample
  };
  struct CtlConn {
    int fd = -1;
    FrameReader in;
    std::string out;
    bool dead = false;
  };
  struct Db {
    int listen_fd = -1;
    redisContext *admin = nullptr;  // look-ups and client lists, blocking
    std::string lookup_sha;         // the look-up script as admin loaded it
    Faults faults;
  };
  struct Frame {
    ReplyPtr reply;
    std::string raw;
    bool push = false;     // a message of a subscription, owed nobody
    bool rewrite = false;  // a pmessage to send with its value
    bool lookup = false;   // its value is looked up
    ReplyPtr value;
  };

  bool Listen(int db, std::string *error);
  redisContext *Admin(int db);
  void Accept(int db);
  void ReadClient(Conn *c);
  void HandleRequest(Conn *c, const redisReply *request, std::string_view raw);
  void ReadServer(Conn *c);
  void Classify(Conn *c, Frame *frame);
  void Deliver(Conn *c, Frame *frame);
  void DrainLocal(Conn *c);
  std::string ClientStatus(const Conn *c, const std::string &name);
  // The server's ids of the clients of `db` whose name ends in "-<kind>";
  // false when the server's client list cannot be read.
  bool ServerIdsOfKind(int db, std::string_view kind,
                       std::vector<long long> *ids);
  void Flush(Conn *c);
  void Drop(Conn *c, const char *reason);
  void CloseConn(Conn *c);
  void AcceptCtl();
  void ReadCtl(CtlConn *k);
  void Control(const redisReply *request, std::string *reply);
  void SampleRates(int64_t now);
  void ExpireFaults(int64_t now);
  int Timeout(int64_t now) const;

  ProxyOptions options_;
  Db dbs_[kDbCount];
  int ctl_fd_ = -1;
  std::vector<std::unique_ptr<Conn>> conns_;
  std::vector<std::unique_ptr<CtlConn>> ctls_;
  int64_t next_sample_ms_ = 0;
};

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_PROXY_H_
