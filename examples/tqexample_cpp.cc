// tqexample_cpp: the same kind of device process from C++, kept small, on
// tqredis.hpp. It watches one family of keys in redis_host, replays what
// exists, and prints the changes a second thread makes. Built without
// exceptions or RTTI, as device processes often are.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tqredis.hpp"

namespace {

std::atomic<int> g_seen{0};

// One line per notification. Runs inside the library's hook, with the
// global lock held: it reads only what the notification carries.
void Print(const char *what, const tqredis::Notification &n) {
  const tqredis::Result<std::string_view> text = n.value().Str();
  const std::string value = text ? std::string(text.value()) : "(gone)";
  std::printf("  %s %-7s %-20s %s\n", what, n.cmd_name(), n.key().data(),
              value.c_str());
  std::fflush(stdout);
  ++g_seen;
}

// The data check has no argument of its own: a plain function. The replay's
// callable lives for the call only, so it could capture anything.
int DataCheck(uint32_t db) {
  if (db == TQREDIS_DB_HOST) {
    tqredis::ReplayKeys(
        db, "example:sensor:*", 32, TQREDIS_SCAN_STRING,
        [](const tqredis::Notification &n) { Print("replay", n); });
  }
  return 0;
}

// Writes on redis_host go on the read path: their replies are then read,
// and never left in front of a later read. The Reply frees each one.
void Set(const char *key, const char *value) {
  TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "SET %s %s", key, value);
}

}  // namespace

int main() {
  {
    // The table may go once registered: the library keeps its callables.
    tqredis::Subscriptions table;
    table.Add(TQREDIS_DB_HOST, "example:sensor:*",
              [](const tqredis::Notification &n) { Print("change", n); });
    table.Init(DataCheck, 2);  // two threads: lock on
  }

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
    TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0,
                    "DEL example:sensor:temp");
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

  const tqredis::Reply exists = TQREDIS_COMMAND(
      TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "EXISTS example:sensor:temp");
  const int count = exists.Int().value_or(-1);
  std::printf("%d notifications; the sensor key exists: %d\n", g_seen.load(),
              count);
  return g_seen == 5 && count == 0 ? 0 : 1;
}
