// tqsoak: a device process for scripts/soak-reconnect.sh. It writes and
// watches continuously on all three databases with reconnect=1 (safe=1),
// the lock on, one thread pumping notifications, two writing and one
// reading, on a card that is not the master, so that it uses every kind of
// connection. It remembers the last value its hooks saw for each watched
// key (notifications and the data checks' replays alike).
//
//   tqsoak --ready FILE --dump FILE
//
// Once subscribed it writes "ready" to the ready file. On SIGUSR1 it stops
// writing and reading, has every lost connection restored, pumps until no
// notification came for half a second, and writes the dump file: one line
// "key <db> <key> <value>" per key seen, then "figure <name> <value>"
// lines. It goes on pumping until SIGTERM, then exits 0.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connect/cardinfo.h"
#include "tqredis.h"

namespace {

// Two families per database, so that a restored connection has more than
// one pattern to subscribe again: the writers' keys and the reader's.
constexpr const char *kPatterns[] = {"soak:w:*", "soak:r:*"};
constexpr int kKeysPerWriter = 24;

volatile sig_atomic_t g_quiesce = 0;
volatile sig_atomic_t g_stop = 0;

void OnSignal(int sig) {
  if (sig == SIGUSR1)
    g_quiesce = 1;
  else
    g_stop = 1;
}

// Everything the hooks learn. The library calls them with its lock held;
// this mutex is never held while calling the library.
struct View {
  std::mutex mutex;
  std::map<std::string, std::string> seen;  // "<db> <key>" -> value
  long notifications = 0;
  long replayed = 0;
  long data_checks[3] = {};
  long losses = 0;
  long restores = 0;
  long restores_of[3] = {};  // by kind of connection
  long broken = 0;           // a restore without a loss before it, or the like
  int down[3][3] = {};       // 1 while slot [op][db] is lost
  std::chrono::steady_clock::time_point last_notification;
};
View g_view;

std::string ValueText(const redisReply *value) {
  if (value == nullptr || value->type == REDIS_REPLY_NIL) return "(nil)";
  if (value->type == REDIS_REPLY_STRING)
    return std::string(value->str, value->len);
  if (value->type == REDIS_REPLY_INTEGER) return std::to_string(value->integer);
  return "(type" + std::to_string(value->type) + ")";
}

void Remember(const tqredis_pmsg *pmsg) {
  const std::string key = std::to_string(pmsg->db) + " " + pmsg->key;
  g_view.seen[key] = ValueText(pmsg->value);
}

int OnChange(tqredis_pmsg *pmsg, void *) {
  std::lock_guard<std::mutex> hold(g_view.mutex);
  Remember(pmsg);
  ++g_view.notifications;
  g_view.last_notification = std::chrono::steady_clock::now();
  return 0;
}

int OnReplay(tqredis_pmsg *pmsg, void *) {
  std::lock_guard<std::mutex> hold(g_view.mutex);
  Remember(pmsg);
  ++g_view.replayed;
  return 0;
}

// After each (re)subscription of a database: read back what exists, so a
// change missed while the connection was away is seen all the same.
int DataCheck(uint32_t db) {
  {
    std::lock_guard<std::mutex> hold(g_view.mutex);
    if (db < 3) ++g_view.data_checks[db];
  }
  for (const char *pattern : kPatterns)
    tqredis_scan_key_pattern(db, pattern, 100, OnReplay, nullptr,
                             TQREDIS_SCAN_STRING);
  return 0;
}

void OnConnection(uint32_t db, uint32_t op, int up, void *) {
  std::lock_guard<std::mutex> hold(g_view.mutex);
  if (db >= 3 || op >= 3) {
    ++g_view.broken;
    return;
  }
  int &down = g_view.down[op][db];
  if ((up != 0) != (down == 1)) ++g_view.broken;
  down = up ? 0 : 1;
  if (up) {
    ++g_view.restores;
    ++g_view.restores_of[op];
  } else {
    ++g_view.losses;
  }
}

bool AnyLost() {
  std::lock_guard<std::mutex> hold(g_view.mutex);
  for (auto &op : g_view.down)
    for (int lost : op)
      if (lost) return true;
  return false;
}

std::atomic<bool> g_working{true};
std::atomic<long> g_writes{0};
std::atomic<long> g_reads{0};
std::atomic<long> g_failed_reads{0};
std::atomic<long> g_wrong_replies{0};

void Writer(int id) {
  for (long i = 0; g_working.load(); ++i) {
    const int db = static_cast<int>(i % 3);
    tqredis_db_command(
        db, TQREDIS_OP_WRITE, -1, i % 4 == 3 ? TQREDIS_CMD_COMMIT : 0,
        "SET soak:w:%d:%ld %d-%ld", id, i % kKeysPerWriter, id, i);
    ++g_writes;
    usleep(1000);
  }
}

void Reader() {
  for (long i = 0; g_working.load(); ++i) {
    const int db = static_cast<int>(i % 3);
    redisReply *r = i % 2 == 0 ? tqredis_db_command(db, TQREDIS_OP_READ, -1, 0,
                                                    "INCR soak:r:%d", db)
                               : tqredis_db_command(db, TQREDIS_OP_READ, -1, 0,
                                                    "GET soak:w:%ld:%ld", i % 2,
                                                    i % kKeysPerWriter);
    ++g_reads;
    // NULL: a read whose second try met another loss. Any reply of the
    // wrong type would be another command's.
    if (r == nullptr) {
      ++g_failed_reads;
    } else if (i % 2 == 0 ? r->type != REDIS_REPLY_INTEGER
                          : r->type != REDIS_REPLY_STRING &&
                                r->type != REDIS_REPLY_NIL) {
      ++g_wrong_replies;
    }
    tqredis_free_reply(r);
    usleep(1000);
  }
}

bool WriteFileAtomically(const std::string &path, const std::string &text) {
  const std::string tmp = path + ".tmp";
  FILE *f = std::fopen(tmp.c_str(), "w");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (std::fclose(f) != 0 || !ok) return false;
  return std::rename(tmp.c_str(), path.c_str()) == 0;
}

// Uses every slot until none is lost, then pumps until notifications have
// been quiet for half a second.
void Quiesce() {
  for (int round = 0; round < 600 && AnyLost(); ++round) {
    for (int db = 0; db < 3; ++db) {
      tqredis_free_reply(
          tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "PING"));
      tqredis_db_command(db, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                         "SET soak:end %d", round);
    }
    tqredis_pubsub();
  }
  tqredis_commit_command_all();
  {
    std::lock_guard<std::mutex> hold(g_view.mutex);
    g_view.last_notification = std::chrono::steady_clock::now();
  }
  for (;;) {
    tqredis_pubsub();
    std::lock_guard<std::mutex> hold(g_view.mutex);
    if (std::chrono::steady_clock::now() - g_view.last_notification >
        std::chrono::milliseconds(500))
      break;
  }
}

std::string Dump() {
  std::string out;
  std::lock_guard<std::mutex> hold(g_view.mutex);
  for (const auto &kv : g_view.seen)
    out += "key " + kv.first + " " + kv.second + "\n";
  auto figure = [&out](const char *name, long value) {
    out += std::string("figure ") + name + " " + std::to_string(value) + "\n";
  };
  figure("losses", g_view.losses);
  figure("restores", g_view.restores);
  for (int op = 0; op < 3; ++op) {
    const std::string name = std::string("restores_") + g_tqredis_opstr[op];
    figure(name.c_str(), g_view.restores_of[op]);
  }
  figure("broken", g_view.broken);
  figure("notifications", g_view.notifications);
  figure("replayed", g_view.replayed);
  for (int db = 0; db < 3; ++db) {
    const std::string name = std::string("datachecks_") + g_tqredis_dbstr[db];
    figure(name.c_str(), g_view.data_checks[db]);
  }
  figure("writes", g_writes.load());
  figure("reads", g_reads.load());
  figure("failed_reads", g_failed_reads.load());
  figure("wrong_replies", g_wrong_replies.load());
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  std::string ready_path;
  std::string dump_path;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--ready") == 0)
      ready_path = argv[i + 1];
    else if (std::strcmp(argv[i], "--dump") == 0)
      dump_path = argv[i + 1];
  }
  if (ready_path.empty() || dump_path.empty()) {
    std::fprintf(stderr, "usage: tqsoak --ready FILE --dump FILE\n");
    return 2;
  }
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnSignal;
  sigaction(SIGUSR1, &sa, nullptr);
  // SIGINT is left as it came: the soak script starts this process with it
  // ignored and ends the run itself on Ctrl-C.
  sigaction(SIGTERM, &sa, nullptr);

  tqredis_set_option("safe", 1);
  tqredis_conn_hook_register(OnConnection, nullptr);
  std::vector<pubsub_mng> table;
  for (uint32_t db = 0; db < 3; ++db) {
    for (const char *pattern : kPatterns) {
      pubsub_mng entry{};
      entry.key_db = db;
      std::snprintf(entry.key_pattern, sizeof entry.key_pattern, "%s", pattern);
      entry.hook = OnChange;
      table.push_back(entry);
    }
  }
  tqredis_init(table.data(), static_cast<int>(table.size()), DataCheck, 2);
  tqredis_db_connect();
  tqredis_get_cardinfo();
  {
    // A card that is not the master writes the first two databases through
    // connections of their own: every kind of connection is in use.
    tqredis_lock();
    tqredis::detail::g_tqredis_cardinfo.my_node = 1;
    tqredis_unlock();
  }
  tqredis_db_connect();
  tqredis_db_psubscrible();
  if (!WriteFileAtomically(ready_path, "ready\n")) {
    std::perror(ready_path.c_str());
    return 1;
  }

  std::thread writers[2] = {std::thread(Writer, 0), std::thread(Writer, 1)};
  std::thread reader(Reader);
  bool dumped = false;
  while (!g_stop) {
    if (g_quiesce && !dumped) {
      g_working = false;
      for (auto &w : writers) w.join();
      reader.join();
      Quiesce();
      std::printf("tqsoak: quiet, statistics follow\n");
      tqredis_basic_stats_show();
      std::fflush(stdout);
      if (!WriteFileAtomically(dump_path, Dump())) {
        std::perror(dump_path.c_str());
        return 1;
      }
      dumped = true;
    }
    tqredis_pubsub();
  }
  if (!dumped) {
    g_working = false;
    for (auto &w : writers) w.join();
    reader.join();
  }
  return 0;
}
