// The forwarding loop: one thread, one poll() over every socket.
#include "proxy.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "pmessage.h"

namespace devdb {

namespace {

// A client that does not read its replies stops us reading its server past
// this much; the server's own output limits then decide its fate.
constexpr size_t kHighWater = 16u << 20;
constexpr size_t kReadChunk = 64 * 1024;
constexpr char kClientIdRequest[] = "*2\r\n$6\r\nCLIENT\r\n$2\r\nID\r\n";

bool FillAddress(const std::string &path, sockaddr_un *addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

int ConnectUnix(const std::string &path) {
  sockaddr_un addr;
  if (!FillAddress(path, &addr)) return -1;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Sends what the socket takes now; false when the peer is gone.
bool WriteSome(int fd, std::string *buf, long long *counter) {
  size_t done = 0;
  bool ok = true;
  while (done < buf->size()) {
    const ssize_t n = send(fd, buf->data() + done, buf->size() - done,
                           MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    ok = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    break;
  }
  buf->erase(0, done);
  if (counter != nullptr) *counter += static_cast<long long>(done);
  return ok;
}

bool IsSubscribe(const redisReply *request) {
  return ArgIs(request, 0, "subscribe") || ArgIs(request, 0, "psubscribe") ||
         ArgIs(request, 0, "ssubscribe");
}

bool IsUnsubscribe(const redisReply *request) {
  return ArgIs(request, 0, "unsubscribe") ||
         ArgIs(request, 0, "punsubscribe") || ArgIs(request, 0, "sunsubscribe");
}

// A subscription's message, which no request asked for.
bool IsPush(const redisReply *reply) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements < 3 ||
      reply->element[0]->type != REDIS_REPLY_STRING)
    return false;
  const std::string_view kind(reply->element[0]->str, reply->element[0]->len);
  return kind == "message" || kind == "pmessage" || kind == "smessage";
}

// The server's answer to (un)subscribing: kind, channel, count in force.
bool IsSubscriptionCount(const redisReply *reply) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3 ||
      reply->element[0]->type != REDIS_REPLY_STRING ||
      reply->element[2]->type != REDIS_REPLY_INTEGER)
    return false;
  const std::string_view kind(reply->element[0]->str, reply->element[0]->len);
  return kind.size() >= 9 &&
         kind.substr(kind.size() - 9) == "subscribe";  // also "unsubscribe"
}

void Log(std::string_view db, const char *what, const char *why) {
  std::fprintf(stderr, "tqredis-devdb: %.*s: %s: %s\n",
               static_cast<int>(db.size()), db.data(), what, why);
}

}  // namespace

Proxy::Proxy(ProxyOptions options) : options_(std::move(options)) {}

Proxy::~Proxy() {
  for (auto &c : conns_) CloseConn(c.get());
  for (auto &k : ctls_)
    if (k->fd >= 0) close(k->fd);
  for (int db = 0; db < kDbCount; ++db) {
    if (dbs_[db].listen_fd >= 0) close(dbs_[db].listen_fd);
    if (dbs_[db].admin != nullptr) redisFree(dbs_[db].admin);
    unlink(options_.listen_paths[db].c_str());
  }
  if (ctl_fd_ >= 0) {
    close(ctl_fd_);
    unlink(options_.ctl_path.c_str());
  }
}

bool Proxy::Listen(int db, std::string *error) {
  const std::string &path =
      db < kDbCount ? options_.listen_paths[db] : options_.ctl_path;
  sockaddr_un addr;
  if (!FillAddress(path, &addr)) {
    *error = "socket path too long: " + path;
    return false;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
      listen(fd, 128) != 0) {
    *error = "cannot listen on " + path + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  if (db < kDbCount)
    dbs_[db].listen_fd = fd;
  else
    ctl_fd_ = fd;
  return true;
}

bool Proxy::Open(std::string *error) {
  for (int db = 0; db < kDbCount; ++db) {
    if (Admin(db) == nullptr) {
      *error = "cannot connect to " + options_.server_paths[db];
      return false;
    }
    if (!Listen(db, error)) return false;
  }
  return Listen(kDbCount, error);
}

redisContext *Proxy::Admin(int db) {
  redisContext *&admin = dbs_[db].admin;
  if (admin != nullptr && admin->err != 0) {
    redisFree(admin);
    admin = nullptr;
  }
  if (admin == nullptr) {
    admin = redisConnectUnix(options_.server_paths[db].c_str());
    if (admin != nullptr && admin->err != 0) {
      redisFree(admin);
      admin = nullptr;
    }
    // Sending the script by its digest saves the server hashing its text
    // for every notification; without it the text goes each time.
    dbs_[db].lookup_sha.clear();
    const std::string_view script = LookupScript();
    ReplyPtr sha(admin == nullptr ? nullptr
                                  : static_cast<redisReply *>(redisCommand(
                                        admin, "SCRIPT LOAD %b", script.data(),
                                        script.size())));
    if (sha && sha->type == REDIS_REPLY_STRING)
      dbs_[db].lookup_sha.assign(sha->str, sha->len);
  }
  return admin;
}

void Proxy::Accept(int db) {
  for (;;) {
    const int fd = accept4(dbs_[db].listen_fd, nullptr, nullptr,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    const int up = ConnectUnix(options_.server_paths[db]);
    if (up < 0) {
      Log(kDbNames[db], "refused a client", "server unreachable");
      close(fd);
      continue;
    }
    auto c = std::make_unique<Conn>();
    c->db = db;
    c->fd = fd;
    c->up_fd = up;
    c->guard = std::make_unique<RequestGuard>(options_.max_request);
    // The server's id for our connection ties its client-list line to the
    // figures counted here; the reply is kept back from the client.
    c->to_server = kClientIdRequest;
    c->pending.push_back({Pending::kOwnId, 1, {}});
    Flush(c.get());
    conns_.push_back(std::move(c));
  }
}

void Proxy::Drop(Conn *c, const char *reason) {
  Log(kDbNames[c->db], "dropped a client", reason);
  c->dead = true;
}

void Proxy::CloseConn(Conn *c) {
  if (c->fd >= 0) close(c->fd);
  if (c->up_fd >= 0) close(c->up_fd);
  c->fd = c->up_fd = -1;
  c->dead = true;
}

void Proxy::ReadClient(Conn *c) {
  char buf[kReadChunk];
  const ssize_t n = read(c->fd, buf, sizeof buf);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
    c->dead = true;
    return;
  }
  if (n < 0) return;
  c->figures.in_bytes += n;
  if (!c->guard->Check(buf, static_cast<size_t>(n))) {
    Drop(c, "not a request, or one past the limits");
    return;
  }
  if (!c->from_client.Feed(buf, static_cast<size_t>(n))) {
    Drop(c, "no memory");
    return;
  }
  for (;;) {
    ReplyPtr request;
    std::string_view raw;
    const FrameReader::Result r = c->from_client.Next(&request, &raw);
    if (r == FrameReader::kNeedMore) break;
    if (r == FrameReader::kError) {
      Drop(c, c->from_client.Error());
      return;
    }
    HandleRequest(c, request.get(), raw);
    if (c->dead) return;
  }
  if (c->from_client.Pending() > options_.max_request) {
    Drop(c, "request too large");
    return;
  }
  DrainLocal(c);
  Flush(c);
}

void Proxy::HandleRequest(Conn *c, const redisReply *request,
                          std::string_view raw) {
  // An empty or nil array asks nothing; the server would skip it too.
  if ((request->type == REDIS_REPLY_ARRAY && request->elements == 0) ||
      request->type == REDIS_REPLY_NIL)
    return;
  if (!IsRequest(request)) {
    Drop(c, "a request that is not an array of bulk strings");
    return;
  }
  ++c->figures.cmd_num;
  // Swallowed: nothing reaches the server and nothing is owed, so the
  // replies after the stall still match the requests made after it.
  // The clock is read again: the stall may have run out during the wait.
  const Faults &faults = dbs_[c->db].faults;
  if (faults.stalling &&
      (faults.stall_until_ms == 0 || NowMs() < faults.stall_until_ms))
    return;
  // In subscribe mode the server refuses CLIENT LIST; let it say so.
  if (!c->sub_mode && request->elements == 3 && ArgIs(request, 0, "client") &&
      ArgIs(request, 1, "list")) {
    c->pending.push_back(
        {Pending::kClientList, 0, std::string(ArgText(request, 2))});
    return;
  }
  if (ArgIs(request, 0, "ping")) {
    std::string reply;
    if (AnswerPing(&dbs_[c->db].faults, &reply)) {
      c->pending.push_back({Pending::kBytes, 0, std::move(reply)});
      return;
    }
  }
  long long replies = 1;
  if (IsSubscribe(request)) {
    c->sub_requested = true;
    replies = static_cast<long long>(request->elements) - 1;
  } else if (IsUnsubscribe(request) && request->elements > 1) {
    replies = static_cast<long long>(request->elements) - 1;
  }
  c->to_server.append(raw);
  if (!c->pending.empty() && c->pending.back().kind == Pending::kUpstream)
    c->pending.back().replies += replies;
  else
    c->pending.push_back({Pending::kUpstream, replies, {}});
}

void Proxy::ReadServer(Conn *c) {
  char buf[kReadChunk];
  const ssize_t n = read(c->up_fd, buf, sizeof buf);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
    // The server closed (QUIT, CLIENT KILL, its own limits): what it sent
    // before still reaches the client.
    c->closing = true;
    Flush(c);
    return;
  }
  if (n < 0) return;
  if (!c->from_server.Feed(buf, static_cast<size_t>(n))) {
    Drop(c, "no memory");
    return;
  }
  std::vector<Frame> frames;
  for (;;) {
    Frame frame;
    std::string_view raw;
    const FrameReader::Result r = c->from_server.Next(&frame.reply, &raw);
    if (r == FrameReader::kNeedMore) break;
    if (r == FrameReader::kError) {
      Drop(c, "unreadable server reply");
      return;
    }
    Classify(c, &frame);
    if (!frame.rewrite) frame.raw.assign(raw);
    frames.push_back(std::move(frame));
  }
  // One pipelined round of look-ups for every pmessage of this read keeps
  // the notifications in order at the cost of one round trip per read.
  redisContext *admin = nullptr;
  for (Frame &f : frames) {
    KeyRef ref;
    if (!f.rewrite || !KeyOfPmessage(f.reply.get(), &ref)) continue;
    if (admin == nullptr && (admin = Admin(c->db)) == nullptr) break;
    const char *argv[5];
    size_t argvlen[5];
    const int argc = LookupArgv(ref, dbs_[c->db].lookup_sha, argv, argvlen);
    if (redisAppendCommandArgv(admin, argc, argv, argvlen) != REDIS_OK) break;
    f.lookup = true;
  }
  for (Frame &f : frames) {
    if (!f.lookup) continue;
    void *value = nullptr;
    if (redisGetReply(admin, &value) != REDIS_OK) {
      Log(kDbNames[c->db], "value look-up failed", admin->errstr);
      break;
    }
    f.value.reset(static_cast<redisReply *>(value));
  }
  // A SCRIPT FLUSH on the server forgets the script: ask those again with
  // its text, and load it again for the next time.
  for (Frame &f : frames) {
    KeyRef ref;
    if (!f.value || f.value->type != REDIS_REPLY_ERROR ||
        std::strncmp(f.value->str, "NOSCRIPT", 8) != 0 ||
        !KeyOfPmessage(f.reply.get(), &ref))
      continue;
    const char *argv[5];
    size_t argvlen[5];
    const int argc = LookupArgv(ref, {}, argv, argvlen);
    f.value.reset(static_cast<redisReply *>(
        redisCommandArgv(admin, argc, argv, argvlen)));
    ReplyPtr(static_cast<redisReply *>(redisCommand(admin, "SCRIPT LOAD %b",
                                                    LookupScript().data(),
                                                    LookupScript().size())));
  }
  for (Frame &f : frames) Deliver(c, &f);
  DrainLocal(c);
  Flush(c);
}

void Proxy::Classify(Conn *c, Frame *frame) {
  const redisReply *reply = frame->reply.get();
  if (c->sub_mode && IsPush(reply)) {
    frame->push = true;
    frame->rewrite = IsPmessage(reply);
  } else if (c->sub_requested && IsSubscriptionCount(reply)) {
    c->sub_mode = reply->element[2]->integer > 0;
  } else if (reply->type == REDIS_REPLY_STATUS &&
             std::string_view(reply->str, reply->len) == "RESET") {
    c->sub_mode = false;
  }
}

void Proxy::Deliver(Conn *c, Frame *frame) {
  if (frame->push) {
    if (frame->rewrite)
      AppendPmessage5(&c->to_client, frame->reply.get(), frame->value.get());
    else
      c->to_client.append(frame->raw);
    return;
  }
  DrainLocal(c);
  if (!c->pending.empty()) {
    Pending &due = c->pending.front();
    if (due.kind == Pending::kOwnId) {
      if (frame->reply->type == REDIS_REPLY_INTEGER)
        c->server_id = frame->reply->integer;
      c->pending.pop_front();
      return;
    }
    if (due.kind == Pending::kUpstream && --due.replies <= 0)
      c->pending.pop_front();
  }
  c->to_client.append(frame->raw);
}

void Proxy::DrainLocal(Conn *c) {
  while (!c->pending.empty()) {
    Pending &due = c->pending.front();
    if (due.kind == Pending::kBytes)
      c->to_client.append(due.data);
    else if (due.kind == Pending::kClientList)
      AppendBulk(&c->to_client, ClientStatus(c, due.data));
    else
      return;
    c->pending.pop_front();
  }
}

std::string Proxy::ClientStatus(const Conn *c, const std::string &name) {
  // Asked when its turn comes, so a CLIENT SETNAME pipelined before it has
  // been carried out by then.
  redisContext *admin = Admin(c->db);
  ReplyPtr list(admin != nullptr ? static_cast<redisReply *>(
                                       redisCommand(admin, "CLIENT LIST"))
                                 : nullptr);
  if (!list || list->type != REDIS_REPLY_STRING) return std::string(kOffline);
  const std::string_view line =
      FindClientLine(std::string_view(list->str, list->len), name);
  if (line.empty()) return std::string(kOffline);
  const std::string_view id = FieldOf(line, "id");
  for (const auto &other : conns_) {
    if (other->dead || other->db != c->db || other->server_id < 0 ||
        std::to_string(other->server_id) != id)
      continue;
    // The client sees the device's socket and its own connection, not the
    // emulator's private one.
    return FormatStatusLine(line, options_.listen_paths[c->db] + ":0",
                            other->fd, other->figures);
  }
  // Not a client of ours (someone on the server's private socket).
  const std::string fd(FieldOf(line, "fd"));
  return FormatStatusLine(line, FieldOf(line, "addr"), std::atoi(fd.c_str()),
                          ClientFigures{});
}

bool Proxy::ServerIdsOfKind(int db, std::string_view kind,
                            std::vector<long long> *ids) {
  // The server's own list, not the requests seen here: a name takes effect
  // when the server carries the request out, however it was given.
  redisContext *admin = Admin(db);
  ReplyPtr list(admin != nullptr ? static_cast<redisReply *>(
                                       redisCommand(admin, "CLIENT LIST"))
                                 : nullptr);
  if (!list || list->type != REDIS_REPLY_STRING) return false;
  const std::string_view text(list->str, list->len);
  const std::string suffix = "-" + std::string(kind);
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    const std::string_view name = FieldOf(line, "name");
    if (name.size() < suffix.size() ||
        name.substr(name.size() - suffix.size()) != suffix)
      continue;
    const std::string id(FieldOf(line, "id"));
    if (!id.empty()) ids->push_back(std::atoll(id.c_str()));
  }
  return true;
}

void Proxy::Flush(Conn *c) {
  if (c->dead) return;
  if (!c->to_server.empty() && !WriteSome(c->up_fd, &c->to_server, nullptr)) {
    c->closing = true;
    c->to_server.clear();
  }
  if (!c->to_client.empty() &&
      !WriteSome(c->fd, &c->to_client, &c->figures.out_bytes)) {
    c->dead = true;
    return;
  }
  if (c->closing && c->to_client.empty()) c->dead = true;
}

void Proxy::AcceptCtl() {
  for (;;) {
    const int fd =
        accept4(ctl_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    auto k = std::make_unique<CtlConn>();
    k->fd = fd;
    ctls_.push_back(std::move(k));
  }
}

void Proxy::ReadCtl(CtlConn *k) {
  char buf[kReadChunk];
  const ssize_t n = read(k->fd, buf, sizeof buf);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
    k->dead = true;
    return;
  }
  if (n < 0) return;
  if (!k->in.Feed(buf, static_cast<size_t>(n))) {
    k->dead = true;
    return;
  }
  for (;;) {
    ReplyPtr request;
    std::string_view raw;
    const FrameReader::Result r = k->in.Next(&request, &raw);
    if (r == FrameReader::kNeedMore) break;
    if (r == FrameReader::kError || !IsRequest(request.get())) {
      k->dead = true;
      return;
    }
    Control(request.get(), &k->out);
  }
  if (k->in.Pending() > options_.max_request ||
      !WriteSome(k->fd, &k->out, nullptr))
    k->dead = true;
}

void Proxy::Control(const redisReply *request, std::string *reply) {
  const size_t argc = request->elements;
  const std::string_view verb = ArgText(request, 0);
  if (verb == "ping" && argc == 1) {
    AppendStatus(reply, "PONG");
    return;
  }
  if (verb == "faults" && argc == 1) {
    std::string text;
    for (int db = 0; db < kDbCount; ++db) {
      const Faults &f = dbs_[db].faults;
      char line[160];
      std::snprintf(line, sizeof line,
                    "%.*s ping-error=%s ping-status=%lld refuse=%s\n",
                    static_cast<int>(kDbNames[db].size()), kDbNames[db].data(),
                    f.ping_error ? "on" : "off", f.ping_status_left,
                    f.refusing ? "on" : "off");
      text += line;
      // Only while in force, so the line reads as before otherwise.
      if (f.stalling) text.insert(text.size() - 1, " stall=on");
    }
    AppendBulk(reply, text);
    return;
  }
  int first = 0;
  int last = -1;
  if (argc < 2 || !ParseDbRange(ArgText(request, 1), &first, &last)) {
    AppendError(reply, argc < 2 ? "ERR unknown control command or no database"
                                : "ERR unknown database");
    return;
  }
  long long number = 0;
  if (verb == "ping-error" && argc <= 3) {
    for (int db = first; db <= last; ++db) {
      dbs_[db].faults.ping_error = true;
      dbs_[db].faults.ping_error_text = argc == 3
                                            ? std::string(ArgText(request, 2))
                                            : std::string(kDefaultPingError);
    }
    AppendStatus(reply, "OK");
  } else if (verb == "ping-status" && (argc == 3 || argc == 4) &&
             ParseCount(ArgText(request, 2), &number)) {
    for (int db = first; db <= last; ++db) {
      dbs_[db].faults.ping_status_left = number;
      dbs_[db].faults.ping_status_text = argc == 4
                                             ? std::string(ArgText(request, 3))
                                             : std::string(kDefaultPingStatus);
    }
    AppendStatus(reply, "OK");
  } else if (verb == "close" && (argc == 2 || argc == 3)) {
    std::string_view kind;
    if (argc == 3) {
      kind = ArgText(request, 2);
      if (kind != "read" && kind != "write" && kind != "pubsub") {
        AppendError(reply, "ERR unknown connection kind (read, write, pubsub)");
        return;
      }
    }
    long long closed = 0;
    for (int db = first; db <= last; ++db) {
      std::vector<long long> ids;
      if (!kind.empty() && !ServerIdsOfKind(db, kind, &ids)) {
        AppendError(reply, "ERR cannot read the client list of " +
                               std::string(kDbNames[db]));
        return;
      }
      for (auto &c : conns_) {
        if (c->dead || c->db != db) continue;
        if (!kind.empty() &&
            std::find(ids.begin(), ids.end(), c->server_id) == ids.end())
          continue;
        CloseConn(c.get());
        ++closed;
      }
    }
    AppendInteger(reply, closed);
  } else if (verb == "refuse" && argc == 3 &&
             ParseCount(ArgText(request, 2), &number)) {
    for (int db = first; db <= last; ++db) {
      Db &d = dbs_[db];
      d.faults.refusing = true;
      d.faults.refuse_until_ms = number > 0 ? NowMs() + number : 0;
      // The socket file stays, so connecting fails with "connection
      // refused" as it does when a server is down.
      if (d.listen_fd >= 0) close(d.listen_fd);
      d.listen_fd = -1;
    }
    AppendStatus(reply, "OK");
  } else if (verb == "stall" && argc == 3 &&
             ParseCount(ArgText(request, 2), &number)) {
    for (int db = first; db <= last; ++db) {
      dbs_[db].faults.stalling = true;
      dbs_[db].faults.stall_until_ms = number > 0 ? NowMs() + number : 0;
    }
    AppendStatus(reply, "OK");
  } else if (verb == "inject" && argc == 3) {
    std::string bytes;
    if (!DecodeEscapes(ArgText(request, 2), &bytes)) {
      AppendError(reply, "ERR bad escape in the bytes");
      return;
    }
    long long reached = 0;
    for (auto &c : conns_) {
      if (c->dead || !c->sub_mode || c->db < first || c->db > last) continue;
      c->to_client.append(bytes);
      Flush(c.get());
      ++reached;
    }
    AppendInteger(reply, reached);
  } else if (verb == "clear" && argc == 2) {
    for (int db = first; db <= last; ++db) {
      dbs_[db].faults.ping_error = false;
      dbs_[db].faults.ping_status_left = 0;
      dbs_[db].faults.stalling = false;
      if (dbs_[db].faults.refusing) {
        dbs_[db].faults.refusing = false;
        std::string error;
        if (!Listen(db, &error)) Log(kDbNames[db], "listen", error.c_str());
      }
    }
    AppendStatus(reply, "OK");
  } else {
    AppendError(reply, "ERR unknown control command or wrong arguments");
  }
}

void Proxy::SampleRates(int64_t now) {
  if (now < next_sample_ms_) return;
  for (auto &c : conns_) {
    ClientFigures &f = c->figures;
    f.cmd_per_sec = f.cmd_num - c->last.cmd_num;
    f.in_bps = f.in_bytes - c->last.in_bytes;
    f.out_bps = f.out_bytes - c->last.out_bytes;
    c->last = f;
  }
  next_sample_ms_ = now + 1000;
}

void Proxy::ExpireFaults(int64_t now) {
  for (int db = 0; db < kDbCount; ++db) {
    Faults &f = dbs_[db].faults;
    if (f.stalling && f.stall_until_ms != 0 && now >= f.stall_until_ms)
      f.stalling = false;
    if (!f.refusing || f.refuse_until_ms == 0 || now < f.refuse_until_ms)
      continue;
    f.refusing = false;
    std::string error;
    if (!Listen(db, &error)) Log(kDbNames[db], "listen", error.c_str());
  }
}

int Proxy::Timeout(int64_t now) const {
  int64_t wait = next_sample_ms_ - now;
  for (const Db &d : dbs_) {
    if (d.faults.refusing && d.faults.refuse_until_ms != 0)
      wait = std::min(wait, d.faults.refuse_until_ms - now);
    if (d.faults.stalling && d.faults.stall_until_ms != 0)
      wait = std::min(wait, d.faults.stall_until_ms - now);
  }
  return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(wait, 1000)));
}

void Proxy::Run(const volatile sig_atomic_t *stop, const sigset_t *wait_mask,
                const std::function<bool()> &healthy) {
  enum Role { kListen, kCtlListen, kCtl, kClient, kServer };
  struct Target {
    Role role;
    int index;
  };
  std::vector<pollfd> fds;
  std::vector<Target> targets;
  while (*stop == 0 && healthy()) {
    const int64_t now = NowMs();
    ExpireFaults(now);
    SampleRates(now);
    fds.clear();
    targets.clear();
    auto add = [&](int fd, short events, Role role, int index) {
      fds.push_back({fd, events, 0});
      targets.push_back({role, index});
    };
    for (int db = 0; db < kDbCount; ++db)
      if (dbs_[db].listen_fd >= 0) add(dbs_[db].listen_fd, POLLIN, kListen, db);
    add(ctl_fd_, POLLIN, kCtlListen, 0);
    for (size_t i = 0; i < ctls_.size(); ++i)
      add(ctls_[i]->fd,
          static_cast<short>(POLLIN | (ctls_[i]->out.empty() ? 0 : POLLOUT)),
          kCtl, static_cast<int>(i));
    for (size_t i = 0; i < conns_.size(); ++i) {
      const Conn &c = *conns_[i];
      short client = c.to_client.empty() ? 0 : POLLOUT;
      if (!c.closing && c.to_server.size() < kHighWater) client |= POLLIN;
      short server = c.to_server.empty() ? 0 : POLLOUT;
      if (!c.closing && c.to_client.size() < kHighWater) server |= POLLIN;
      add(c.fd, client, kClient, static_cast<int>(i));
      add(c.up_fd, server, kServer, static_cast<int>(i));
    }
    const int wait = Timeout(now);
    const timespec ts{wait / 1000, (wait % 1000) * 1000000L};
    const int ready = ppoll(fds.data(), fds.size(), &ts, wait_mask);
    if (ready < 0) {
      if (errno == EINTR) continue;
      Log("devdb", "poll", std::strerror(errno));
      return;
    }
    for (size_t i = 0; i < fds.size() && ready > 0; ++i) {
      const short ev = fds[i].revents;
      if (ev == 0) continue;
      const Target t = targets[i];
      switch (t.role) {
        case kListen:
          if (dbs_[t.index].listen_fd == fds[i].fd) Accept(t.index);
          break;
        case kCtlListen:
          AcceptCtl();
          break;
        case kCtl: {
          CtlConn *k = ctls_[static_cast<size_t>(t.index)].get();
          if (k->dead) break;
          if (ev & (POLLIN | POLLHUP | POLLERR))
            ReadCtl(k);
          else if (!WriteSome(k->fd, &k->out, nullptr))
            k->dead = true;
          break;
        }
        case kClient:
        case kServer: {
          Conn *c = conns_[static_cast<size_t>(t.index)].get();
          if (c->dead) break;
          if (ev & (POLLIN | POLLHUP | POLLERR)) {
            if (t.role == kClient)
              ReadClient(c);
            else
              ReadServer(c);
          }
          if (!c->dead && (ev & POLLOUT)) Flush(c);
          break;
        }
      }
    }
    for (auto &c : conns_)
      if (c->dead) CloseConn(c.get());
    conns_.erase(std::remove_if(
                     conns_.begin(), conns_.end(),
                     [](const std::unique_ptr<Conn> &c) { return c->fd < 0; }),
                 conns_.end());
    for (auto &k : ctls_)
      if (k->dead && k->fd >= 0) {
        close(k->fd);
        k->fd = -1;
      }
    ctls_.erase(std::remove_if(ctls_.begin(), ctls_.end(),
                               [](const std::unique_ptr<CtlConn> &k) {
                                 return k->fd < 0;
                               }),
                ctls_.end());
  }
}

}  // namespace devdb
