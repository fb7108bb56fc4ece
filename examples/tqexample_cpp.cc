// tqexample_cpp: the same kind of device process from C++, kept small. It
// watches one family of keys in redis_host, replays what exists, and prints
// the changes a second thread makes.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "tqredis.h"

namespace {

// A reply the process owns, freed once whatever it holds.
struct ReplyFree {
  void operator()(redisReply *reply) const { tqredis_free_reply(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

std::atomic<int> g_seen{0};

// Hooks are plain C function pointers and must not throw: nothing may cross
// the library's C interface as an exception.
int OnSensor(tqredis_pmsg *pmsg, void *arg) noexcept {
  char *text = nullptr;
  int len = 0;
  const std::string value =
      tqredis_get_key_reply_strval(pmsg->value, &text, &len) == 0
          ? std::string(text, static_cast<size_t>(len))
          : std::string("(gone)");
  std::printf("  %s %-7s %-20s %s\n", static_cast<const char *>(arg),
              g_tqredis_keycmd_str[pmsg->cmd], pmsg->key, value.c_str());
  std::fflush(stdout);
  ++g_seen;
  return 0;
}

char g_live[] = "change";
char g_replayed[] = "replay";

int DataCheck(uint32_t db) noexcept {
  if (db == TQREDIS_DB_HOST) {
    tqredis_scan_key_pattern(db, "example:sensor:*", 32, OnSensor, g_replayed,
                             TQREDIS_SCAN_STRING);
  }
  return 0;
}

// A command on redis_host whose reply the caller owns. Writes go on the read
// path: their replies are then read, and never left in front of a later read.
Reply Set(const char *key, const char *value) {
  return Reply(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                  "SET %s %s", key, value));
}

}  // namespace

int main() {
  pubsub_mng table[] = {
      {TQREDIS_DB_HOST, "example:sensor:*", OnSensor, g_live}};
  tqredis_init(table, 1, DataCheck, 2);  // two threads: lock on

  Set("example:sensor:temp", "41");
  std::printf("%s: replay, then live changes\n", g_tqredis_proc_name);
  tqredis_db_psubscrible();  // subscribes and replays

  std::atomic<bool> done{false};
  std::thread writer([&done] {
    const char *const readings[] = {"42", "44", "43"};
    for (const char *reading : readings) {
      Set("example:sensor:temp", reading);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    Reply(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                             "DEL example:sensor:temp"));
    done = true;
  });

  // The main loop, bounded: all changes seen, or 5 s.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while ((!done || g_seen < 5) && std::chrono::steady_clock::now() < deadline) {
    tqredis_db_psubscrible();
    tqredis_pubsub();
  }
  writer.join();

  Reply value(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                 "EXISTS example:sensor:temp"));
  int exists = -1;
  tqredis_get_key_reply_intval(value.get(), &exists, 10);
  std::printf("%d notifications; the sensor key exists: %d\n", g_seen.load(),
              exists);
  return g_seen == 5 && exists == 0 ? 0 : 1;
}
