// tqredis-stat: shows the operation statistics that device processes write
// into redis_host under "/arch/mom", read through the library itself.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "record.h"
#include "tqredis.h"

namespace {

constexpr char kRoot[] = "/arch/mom/";

void Usage(FILE *to) {
  std::fprintf(to,
               "usage: tqredis-stat [--json] [--watch SECONDS [--count N]] "
               "[PROCESS]\n"
               "  without PROCESS: every process under /arch/mom in "
               "redis_host, with its\n"
               "  totals and peak operations; with PROCESS: its last records, "
               "oldest first.\n");
}

// Owns one reply of the library.
struct Reply {
  redisReply *r;
  explicit Reply(redisReply *reply) : r(reply) {}
  ~Reply() {
    if (r != nullptr) tqredis_free_reply(r);
  }
  Reply(const Reply &) = delete;
  Reply &operator=(const Reply &) = delete;
};

// The process name in "/arch/mom/<name>/<in|out>/stats", or "".
std::string NameOf(const std::string &key) {
  if (key.compare(0, std::strlen(kRoot), kRoot) != 0) return "";
  for (const char *tail : {"/in/stats", "/out/stats"}) {
    const size_t len = std::strlen(tail);
    if (key.size() > std::strlen(kRoot) + len &&
        key.compare(key.size() - len, len, tail) == 0) {
      return key.substr(std::strlen(kRoot),
                        key.size() - len - std::strlen(kRoot));
    }
  }
  return "";
}

// Every process that has a stats hash, sorted by name. False when a SCAN
// reply was unusable.
bool ListNames(std::set<std::string> *names) {
  std::string cursor = "0";
  do {
    Reply scan(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                  "SCAN %s MATCH /arch/mom/*/stats COUNT 256",
                                  cursor.c_str()));
    char *text = nullptr;
    int len = 0;
    if (tqredis_get_key_array_reply_strval(scan.r, 0, &text, &len) != 0 ||
        scan.r->elements != 2 ||
        scan.r->element[1]->type != REDIS_REPLY_ARRAY) {
      return false;
    }
    cursor.assign(text, static_cast<size_t>(len));
    const redisReply *keys = scan.r->element[1];
    for (size_t i = 0; i < keys->elements; ++i) {
      if (keys->element[i]->type != REDIS_REPLY_STRING) continue;
      const std::string name = NameOf(keys->element[i]->str);
      if (!name.empty()) names->insert(name);
    }
  } while (cursor != "0");
  return true;
}

tqstat::Ring ReadRing(const std::string &name, const char *dir,
                      bool with_records) {
  tqstat::Ring ring;
  const std::string base = kRoot + name + "/" + dir + "/";
  Reply stats(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                 "HGETALL %sstats", base.c_str()));
  int total = 0;
  char *peak = nullptr;
  int peak_len = 0;
  if (tqredis_get_key_reply_intval_by_field(stats.r, "cmd_total", &total, 10) !=
          0 ||
      tqredis_get_key_reply_strval_by_field(stats.r, "cmd_peak", &peak,
                                            &peak_len) != 0) {
    return ring;
  }
  ring.present = true;
  ring.total = total;
  ring.peak = tqstat::ParseRecord(
      std::string_view(peak, static_cast<size_t>(peak_len)));
  if (!with_records) return ring;
  const int count = tqstat::RecordCount(ring.total);
  for (int n = 0; n < count; ++n) {
    Reply rec(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                 "GET %s%d", base.c_str(), n));
    char *text = nullptr;
    int len = 0;
    // A missing record keeps an empty raw text and shows as missing.
    ring.records.push_back(
        rec.r != nullptr && rec.r->type == REDIS_REPLY_STRING &&
                tqredis_get_key_reply_strval(rec.r, &text, &len) == 0
            ? tqstat::ParseRecord(
                  std::string_view(text, static_cast<size_t>(len)))
            : tqstat::Record{});
  }
  return ring;
}

// One view on stdout; false when the statistics could not be read.
bool Show(const char *process, bool json) {
  if (process == nullptr) {
    std::set<std::string> names;
    if (!ListNames(&names)) {
      std::fprintf(stderr,
                   "tqredis-stat: redis_host gave an unusable SCAN reply\n");
      return false;
    }
    std::vector<tqstat::Process> processes;
    for (const std::string &name : names) {
      processes.push_back(
          {name, ReadRing(name, "in", false), ReadRing(name, "out", false)});
    }
    std::fputs(json ? tqstat::OverviewJson(processes).c_str()
                    : tqstat::OverviewTable(processes).c_str(),
               stdout);
    return true;
  }
  const tqstat::Process p{process, ReadRing(process, "in", true),
                          ReadRing(process, "out", true)};
  if (!p.in.present && !p.out.present) {
    std::fprintf(stderr,
                 "tqredis-stat: no statistics of process \"%s\" under "
                 "/arch/mom\n",
                 process);
    return false;
  }
  std::fputs(
      json ? tqstat::ProcessJson(p).c_str() : tqstat::ProcessTable(p).c_str(),
      stdout);
  return true;
}

bool ParseCount(const char *text, long *out) {
  char *end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 1 || value > 86400) return false;
  *out = value;
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  bool json = false;
  long watch = 0;
  long count = 0;  // 0: until interrupted
  static const option kOptions[] = {{"json", no_argument, nullptr, 'j'},
                                    {"watch", required_argument, nullptr, 'w'},
                                    {"count", required_argument, nullptr, 'c'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  for (int c;
       (c = getopt_long(argc, argv, "jw:c:h", kOptions, nullptr)) != -1;) {
    switch (c) {
      case 'j':
        json = true;
        break;
      case 'w':
        if (!ParseCount(optarg, &watch)) {
          std::fprintf(stderr,
                       "tqredis-stat: --watch takes 1..86400 seconds\n");
          return 2;
        }
        break;
      case 'c':
        if (!ParseCount(optarg, &count)) {
          std::fprintf(stderr, "tqredis-stat: --count takes 1..86400\n");
          return 2;
        }
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  if (argc - optind > 1 || (count > 0 && watch == 0)) {
    Usage(stderr);
    return 2;
  }
  const char *process = optind < argc ? argv[optind] : nullptr;

  // No subscriptions and no data check (-2 is expected): the viewer only
  // reads. Connecting first turns a server that is not there into an error
  // instead of the command path's endless wait.
  tqredis_init(nullptr, 0, nullptr, 0);
  if (tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ) != 0) {
    std::fprintf(stderr, "tqredis-stat: cannot reach redis_host\n");
    return 1;
  }
  for (long round = 1;; ++round) {
    if (watch > 0) {
      if (isatty(STDOUT_FILENO) && !json) std::fputs("\033[H\033[2J", stdout);
      if (!json) {
        const time_t now = time(nullptr);
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", localtime(&now));
        std::printf("%s, every %lds\n\n", stamp, watch);
      }
    }
    const bool ok = Show(process, json);
    std::fflush(stdout);
    if (watch == 0) return ok ? 0 : 1;
    if (count > 0 && round >= count) return ok ? 0 : 1;
    sleep(static_cast<unsigned>(watch));
  }
}
