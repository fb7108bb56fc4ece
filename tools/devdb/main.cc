// tqredis-devdb: stock redis-servers behind the device's sockets, speaking as
// the device's database servers do. Command line and control client.
#include <hiredis/hiredis.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "daemon.h"
#include "faults.h"
#include "resp.h"
#include "topology.h"

namespace {

constexpr char kUsage[] =
    "usage: tqredis-devdb run|start [options]\n"
    "       tqredis-devdb run [options] -- COMMAND [ARG...]\n"
    "       tqredis-devdb stop|status [--dir DIR]\n"
    "       tqredis-devdb ctl [--dir DIR] COMMAND [ARG...]\n"
    "options:\n"
    "  --dir DIR            folder of the sockets (default /tmp/redis)\n"
    "  --attach DB=SOCKET   use the redis-server on SOCKET for DB instead of\n"
    "                       starting one (DB: redis_de_global, "
    "redis_ce_global,\n"
    "                       redis_host)\n"
    "  --redis-server PROG  the server program (default redis-server)\n"
    "  --max-request BYTES  largest request a client may send (default 64 "
    "MiB)\n"
    "  --log FILE           where start and run -- send the emulator's "
    "messages\n"
    "  --ready-fd FD        run writes \"ok\" there once it serves\n"
    "run -- COMMAND: serves while COMMAND runs, then stops; exits with its\n"
    "  status (125: the emulator did not start; 126, 127: COMMAND did not)\n"
    "control commands (DB: a name, 0..2, or all):\n"
    "  ping | faults\n"
    "  ping-error DB [TEXT]       answer PING with the error TEXT\n"
    "  ping-status DB N [TEXT]    answer the next N PINGs with status TEXT\n"
    "                             (default LOADING)\n"
    "  close DB [KIND]            close every client connection; with KIND\n"
    "                             (read, write, pubsub) those named *-KIND\n"
    "  refuse DB MS               refuse connections for MS ms (0: until "
    "clear)\n"
    "  stall DB MS                swallow every request, answering none, for "
    "MS ms\n"
    "                             (0: until clear)\n"
    "  inject DB BYTES            send BYTES (escapes \\r \\n \\t \\0 \\\\ "
    "\\xHH)\n"
    "                             to every subscribed connection\n"
    "  clear DB                   undo ping-error, ping-status, refuse and "
    "stall\n";

int Usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

bool ParseNumber(const char *text, long long *value) {
  return devdb::ParseCount(text, value);
}

int Ctl(const std::string &dir, const std::vector<const char *> &args) {
  if (args.empty()) return Usage();
  const std::string path = devdb::CtlPath(dir);
  redisContext *c = redisConnectUnix(path.c_str());
  if (c == nullptr || c->err != 0) {
    std::fprintf(stderr, "tqredis-devdb: not running in %s (%s)\n", dir.c_str(),
                 c != nullptr ? c->errstr : "no memory");
    if (c != nullptr) redisFree(c);
    return 1;
  }
  std::vector<size_t> lens;
  for (const char *a : args) lens.push_back(std::strlen(a));
  devdb::ReplyPtr reply(static_cast<redisReply *>(
      redisCommandArgv(c, static_cast<int>(args.size()),
                       const_cast<const char **>(args.data()), lens.data())));
  int code = 0;
  if (!reply) {
    std::fprintf(stderr, "tqredis-devdb: %s\n", c->errstr);
    code = 1;
  } else if (reply->type == REDIS_REPLY_ERROR) {
    std::fprintf(stderr, "tqredis-devdb: %s\n", reply->str);
    code = 1;
  } else if (reply->type == REDIS_REPLY_INTEGER) {
    std::printf("%lld\n", reply->integer);
  } else if (reply->type == REDIS_REPLY_STRING ||
             reply->type == REDIS_REPLY_STATUS) {
    std::fwrite(reply->str, 1, reply->len, stdout);
    if (reply->len == 0 || reply->str[reply->len - 1] != '\n')
      std::fputc('\n', stdout);
  }
  redisFree(c);
  return code;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return Usage();
  const std::string_view verb = argv[1];
  devdb::RunOptions options;
  std::vector<const char *> rest;
  std::vector<const char *> command;
  bool has_command = false;
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool has_value = i + 1 < argc;
    // Everything after "--" is the command run serves for, taken as it is.
    if (verb == "run" && arg == "--" && rest.empty()) {
      has_command = true;
      command.assign(argv + i + 1, argv + argc);
      break;
    }
    // Options come before the control command's own words.
    if (!rest.empty() || arg.substr(0, 2) != "--") {
      rest.push_back(argv[i]);
      continue;
    }
    if (!has_value) return Usage();
    const char *value = argv[++i];
    long long number = 0;
    if (arg == "--dir") {
      options.dir = value;
    } else if (arg == "--redis-server") {
      options.redis_server = value;
    } else if (arg == "--log") {
      options.log = value;
    } else if (arg == "--max-request" && ParseNumber(value, &number) &&
               number > 0) {
      options.max_request = static_cast<size_t>(number);
    } else if (arg == "--ready-fd" && ParseNumber(value, &number)) {
      options.ready_fd = static_cast<int>(number);
    } else if (arg == "--attach") {
      const std::string_view pair = value;
      const size_t eq = pair.find('=');
      int first = 0;
      int last = -1;
      if (eq == std::string_view::npos || eq + 1 == pair.size() ||
          !devdb::ParseDbRange(pair.substr(0, eq), &first, &last) ||
          first != last)
        return Usage();
      options.attach[first] = std::string(pair.substr(eq + 1));
    } else {
      return Usage();
    }
  }
  if (verb == "ctl") return Ctl(options.dir, rest);
  if (!rest.empty()) return Usage();
  if (has_command) {
    return command.empty() ? Usage() : devdb::RunCommand(options, command);
  }
  if (verb == "run") return devdb::Serve(options);
  if (verb == "start") return devdb::Start(options);
  if (verb == "stop") return devdb::Stop(options.dir);
  if (verb == "status") return devdb::Status(options.dir);
  return Usage();
}
