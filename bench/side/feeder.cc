// A stand-in server on a unix socket for the notification figures: it
// answers the few commands a client sends while connecting (PING with
// "+PONG", PSUBSCRIBE with its acknowledgement, anything else with "+OK")
// and, on "FEED <pattern> <count>" from any connection, writes <count>
// pre-encoded 5-element pmessages of that pattern to the connection that
// subscribed it, as fast as the socket takes them, then answers "+OK" to the
// requester. The stream is the same bytes whoever subscribed.
//   tqbench_feeder SOCKET_PATH
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Distinct keys in one pre-encoded block; the block is written again and
// again until the count is reached.
constexpr int kKeysPerBlock = 1000;

std::mutex g_mutex;
std::map<std::string, int> g_subscribers;  // pattern -> descriptor

bool WriteAll(int fd, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string Bulk(const std::string &text) {
  return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

// One pmessage as a server with values in its notifications sends it:
// kind, pattern, channel, event, value.
std::string Pmessage(const std::string &pattern, int i) {
  const std::string prefix = pattern.substr(0, pattern.find(':') + 1);
  const std::string key = "bench:" + std::to_string(i);
  return "*5\r\n" + Bulk("pmessage") + Bulk(pattern) + Bulk(prefix + key) +
         Bulk("set") + Bulk("value-" + std::to_string(i));
}

void Feed(const std::string &pattern, long count) {
  int fd = -1;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_subscribers.find(pattern);
    if (it != g_subscribers.end()) fd = it->second;
  }
  if (fd < 0) return;
  std::vector<std::string> messages;
  std::string block;
  for (int i = 0; i < kKeysPerBlock; ++i) {
    messages.push_back(Pmessage(pattern, i));
    block += messages.back();
  }
  long sent = 0;
  for (; sent + kKeysPerBlock <= count; sent += kKeysPerBlock) {
    if (!WriteAll(fd, block.data(), block.size())) return;
  }
  for (int i = 0; sent < count; ++i, ++sent) {
    if (!WriteAll(fd, messages[i].data(), messages[i].size())) return;
  }
}

// Reads RESP multi-bulk commands; each is a list of arguments.
class CommandReader {
 public:
  explicit CommandReader(int fd) : fd_(fd) {}
  bool Next(std::vector<std::string> *args) {
    args->clear();
    std::string line;
    if (!Line(&line) || line.empty() || line[0] != '*') return false;
    const long n = std::strtol(line.c_str() + 1, nullptr, 10);
    for (long i = 0; i < n; ++i) {
      if (!Line(&line) || line.empty() || line[0] != '$') return false;
      const long len = std::strtol(line.c_str() + 1, nullptr, 10);
      std::string arg;
      if (!Bytes(static_cast<size_t>(len) + 2, &arg)) return false;
      arg.resize(static_cast<size_t>(len));
      args->push_back(arg);
    }
    return true;
  }

 private:
  bool Fill() {
    char chunk[4096];
    const ssize_t n = read(fd_, chunk, sizeof(chunk));
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }
  bool Line(std::string *line) {
    size_t end;
    while ((end = buffer_.find("\r\n")) == std::string::npos) {
      if (!Fill()) return false;
    }
    *line = buffer_.substr(0, end);
    buffer_.erase(0, end + 2);
    return true;
  }
  bool Bytes(size_t size, std::string *out) {
    while (buffer_.size() < size) {
      if (!Fill()) return false;
    }
    *out = buffer_.substr(0, size);
    buffer_.erase(0, size);
    return true;
  }
  int fd_;
  std::string buffer_;
};

void Serve(int fd) {
  CommandReader reader(fd);
  std::vector<std::string> args;
  while (reader.Next(&args)) {
    if (args.empty()) break;
    std::string name = args[0];
    for (char &c : name) c = static_cast<char>(std::toupper(c));
    std::string answer = "+OK\r\n";
    if (name == "PING") {
      answer = "+PONG\r\n";
    } else if (name == "PSUBSCRIBE" && args.size() >= 2) {
      answer = "*3\r\n" + Bulk("psubscribe") + Bulk(args[1]) + ":1\r\n";
      std::lock_guard<std::mutex> lock(g_mutex);
      g_subscribers[args[1]] = fd;
    } else if (name == "FEED" && args.size() >= 3) {
      Feed(args[1], std::strtol(args[2].c_str(), nullptr, 10));
    }
    if (!WriteAll(fd, answer.data(), answer.size())) break;
  }
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (auto it = g_subscribers.begin(); it != g_subscribers.end();) {
      it = it->second == fd ? g_subscribers.erase(it) : std::next(it);
    }
  }
  close(fd);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s SOCKET_PATH\n", argv[0]);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", argv[1]);
  unlink(argv[1]);
  if (listener < 0 ||
      bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
      listen(listener, 16) != 0) {
    std::perror("tqbench_feeder");
    return 1;
  }
  for (;;) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) continue;
    std::thread(Serve, fd).detach();
  }
}
