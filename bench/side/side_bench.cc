// One figure of tqredis and of bare hiredis side by side, in one process, on
// the same server and socket: within each round the two sides take turns
// slice by slice (ten slices, one scan walk each for scan; the first side
// swaps each slice) and each prints its median and spread over the rounds.
//   tqbench TEST [--rounds R] [--n N] [--side both|bare|tq]
// TEST is get, set, setreplies, notify or scan (setreplies: pipelined SETs
// with replies=1 against bare hiredis reading every reply the same way). The
// servers must already serve /tmp/redis: redis_host and redis_ce_global by
// redis-server, redis_de_global by tqbench_feeder (see bench/run.sh). With
// --side bare or tq only that side runs, once, with callgrind's collection
// switched on around the measured loop only, so that callgrind
// --collect-atstart=no counts the client's instructions of those N operations
// and nothing else.
//
// Output, one line per figure:
//   row <name> <unit> <bare median> <bare spread %> <tq median> <tq spread %>
//       <ratio median> <ratio spread %>
//   allocs <test> <bare per op> <tq per op>
// A spread is half the range of the rounds, in percent of their median. The
// ratio is tqredis over bare hiredis, taken round by round (the two sides of
// one round ran in turns, under the same load) and then its median.
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tqredis.h"

// Heap allocations of the whole process while counting is on. Both sides do
// the same hiredis work, so the difference per operation is what tqredis
// allocates itself. Single-threaded while counting.
namespace {
bool g_counting = false;
unsigned long g_allocs = 0;
}  // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);

__attribute__((visibility("default"))) void *malloc(size_t size) {
  if (g_counting) ++g_allocs;
  return __libc_malloc(size);
}
__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
  if (g_counting) ++g_allocs;
  return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void *realloc(void *ptr, size_t size) {
  if (g_counting) ++g_allocs;
  return __libc_realloc(ptr, size);
}
}

namespace {

constexpr const char *kHostSocket = "/tmp/redis/redis_host.sock";
constexpr const char *kFeederSocket = "/tmp/redis/redis_de_global.sock";
constexpr uint32_t kHost = TQREDIS_DB_HOST;
// Keys the write figure cycles through.
constexpr int kSetKeys = 1000;
constexpr uint32_t kCommitThreshold = 32;
// Notification patterns of the two sides on the feeder.
constexpr const char *kTqPattern = "bench:*";
constexpr const char *kTqChannelPattern = "__keyspace@0__:bench:*";
constexpr const char *kBarePattern = "__keyspace@0__:bare:*";
constexpr const char *kScanPattern = "bench:scan:*";
constexpr int kScanCount = 100;
constexpr long kScanKeys = 5000;

enum class Side { kBare, kTq };

[[noreturn]] void Fail(const char *what) {
  std::fprintf(stderr, "tqbench: %s\n", what);
  std::exit(1);
}

redisContext *Connect(const char *path) {
  redisContext *c = redisConnectUnix(path);
  if (c == nullptr || c->err) Fail("cannot connect");
  return c;
}

void Expect(redisReply *reply) {
  if (reply == nullptr || reply->type == REDIS_REPLY_ERROR) Fail("bad reply");
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// What one measured loop gives.
struct Sample {
  double seconds;
  double cpu_seconds;
  unsigned long allocs;
};

// Runs `loop` with the clocks, the allocation counter and callgrind's
// collection around it and nothing else.
Sample Measure(const std::function<void()> &loop) {
  const double cpu0 = CpuSeconds();
  g_allocs = 0;
  const auto t0 = std::chrono::steady_clock::now();
  CALLGRIND_TOGGLE_COLLECT;
  g_counting = true;
  loop();
  g_counting = false;
  CALLGRIND_TOGGLE_COLLECT;
  const auto t1 = std::chrono::steady_clock::now();
  return {std::chrono::duration<double>(t1 - t0).count(), CpuSeconds() - cpu0,
          g_allocs};
}

// Connections and counters of the run.
struct Context {
  redisContext *bare = nullptr;      // on redis_host
  redisContext *feeder = nullptr;    // control connection to the feeder
  redisContext *bare_sub = nullptr;  // bare subscriber on the feeder
  long delivered = 0;                // notifications seen by the tq hook
  long scanned = 0;                  // keys replayed to the tq callback
};
Context g;

// ---- synchronous read --------------------------------------------------

void GetLoop(Side side, long n) {
  for (long i = 0; i < n; ++i) {
    redisReply *reply = side == Side::kBare
                            ? static_cast<redisReply *>(
                                  redisCommand(g.bare, "GET %s", "bench:get"))
                            : tqredis_db_command(kHost, TQREDIS_OP_READ, -1, 0,
                                                 "GET %s", "bench:get");
    if (reply == nullptr || reply->type != REDIS_REPLY_STRING) Fail("GET");
    freeReplyObject(reply);
  }
}

// ---- pipelined write ---------------------------------------------------

void BareFlush(redisContext *c) {
  int done = 0;
  do {
    if (redisBufferWrite(c, &done) != REDIS_OK) Fail("write");
  } while (!done);
}

// Reads the n "+OK" replies straight off the socket: the server has then
// executed every SET. Both sides end the same way.
void Confirm(redisContext *c, long n) {
  long want = 5 * n;
  char buf[65536];
  while (want > 0) {
    const ssize_t got = read(c->fd, buf, sizeof(buf));
    if (got < 0 && errno == EAGAIN) continue;
    if (got <= 0) Fail("confirm");
    want -= got;
  }
}

void SetLoop(Side side, long n) {
  if (side == Side::kBare) {
    uint32_t pending = 0;
    for (long i = 0; i < n; ++i) {
      redisAppendCommand(g.bare, "SET bench:set:%d %d",
                         static_cast<int>(i % kSetKeys), static_cast<int>(i));
      if (++pending >= kCommitThreshold) {
        BareFlush(g.bare);
        pending = 0;
      }
    }
    BareFlush(g.bare);
    return;
  }
  for (long i = 0; i < n; ++i) {
    if (tqredis_db_command(
            kHost, TQREDIS_OP_WRITE, -1, 0, "SET bench:set:%d %d",
            static_cast<int>(i % kSetKeys), static_cast<int>(i)) != nullptr) {
      Fail("SET returned a reply");
    }
  }
  tqredis_commit_command_all();
}

redisContext *SetContext(Side side) {
  return side == Side::kBare ? g.bare
                             : tqredis_get_context(kHost, TQREDIS_OP_READ);
}

// ---- pipelined write, every reply read --------------------------------

// The bound past which both sides wait for their replies.
constexpr long kMaxUnread = 1024;

// Reads one reply and checks it is the SET's "OK".
void TakeOk(redisReply *reply) {
  if (reply == nullptr || reply->type != REDIS_REPLY_STATUS) Fail("SET reply");
  freeReplyObject(reply);
}

// Bare hiredis doing what replies=1 does: flush at the threshold, then take
// the replies that have arrived without waiting; past 1024 owed, wait for
// them all. Ends with a PING read after every reply, as the tq side does.
void SetRepliesLoop(Side side, long n) {
  if (side == Side::kTq) {
    for (long i = 0; i < n; ++i) {
      if (tqredis_db_command(
              kHost, TQREDIS_OP_WRITE, -1, 0, "SET bench:set:%d %d",
              static_cast<int>(i % kSetKeys), static_cast<int>(i)) != nullptr) {
        Fail("SET returned a reply");
      }
    }
    redisReply *pong =
        tqredis_db_command(kHost, TQREDIS_OP_READ, -1, 0, "PING");
    if (pong == nullptr || pong->type != REDIS_REPLY_STATUS) Fail("PING");
    freeReplyObject(pong);
    return;
  }
  redisContext *c = g.bare;
  uint32_t pending = 0;
  long owed = 0;
  for (long i = 0; i < n; ++i) {
    redisAppendCommand(c, "SET bench:set:%d %d", static_cast<int>(i % kSetKeys),
                       static_cast<int>(i));
    ++owed;
    if (++pending >= kCommitThreshold) {
      BareFlush(c);
      pending = 0;
      while (owed > 0) {
        void *reply = nullptr;
        if (redisGetReplyFromReader(c, &reply) != REDIS_OK) Fail("read");
        if (reply != nullptr) {
          TakeOk(static_cast<redisReply *>(reply));
          --owed;
          continue;
        }
        struct pollfd ready = {c->fd, POLLIN, 0};
        if (poll(&ready, 1, 0) <= 0) break;
        if (redisBufferRead(c) != REDIS_OK) Fail("read");
      }
    }
    if (owed > kMaxUnread) {
      for (; owed > 0; --owed) {
        void *reply = nullptr;
        if (redisGetReply(c, &reply) != REDIS_OK) Fail("read");
        TakeOk(static_cast<redisReply *>(reply));
      }
      pending = 0;
    }
  }
  for (; owed > 0; --owed) {
    void *reply = nullptr;
    if (redisGetReply(c, &reply) != REDIS_OK) Fail("read");
    TakeOk(static_cast<redisReply *>(reply));
  }
  redisReply *pong = static_cast<redisReply *>(redisCommand(c, "PING"));
  if (pong == nullptr || pong->type != REDIS_REPLY_STATUS) Fail("PING");
  freeReplyObject(pong);
}

// ---- notification delivery ---------------------------------------------

int CountingHook(tqredis_pmsg *, void *arg) {
  ++*static_cast<long *>(arg);
  return 0;
}

int NoDataCheck(uint32_t) { return 0; }

void RequestFeed(const char *pattern, long n) {
  if (redisAppendCommand(g.feeder, "FEED %s %ld", pattern, n) != REDIS_OK)
    Fail("feed");
  BareFlush(g.feeder);
}

void FeedDone() {
  void *reply = nullptr;
  if (redisGetReply(g.feeder, &reply) != REDIS_OK) Fail("feeder");
  freeReplyObject(reply);
}

// The plain way to read a pubsub stream: wait until readable, read once,
// take every complete reply.
void BareDrain(long n) {
  long seen = 0;
  while (seen < n) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(g.bare_sub->fd, &set);
    timeval timeout = {0, 100000};
    if (select(g.bare_sub->fd + 1, &set, nullptr, nullptr, &timeout) <= 0)
      continue;
    if (redisBufferRead(g.bare_sub) != REDIS_OK) Fail("bare read");
    void *reply = nullptr;
    while (redisGetReplyFromReader(g.bare_sub, &reply) == REDIS_OK &&
           reply != nullptr) {
      ++seen;
      freeReplyObject(reply);
      reply = nullptr;
    }
  }
}

void NotifyLoop(Side side, long n) {
  if (side == Side::kBare) {
    RequestFeed(kBarePattern, n);
    BareDrain(n);
  } else {
    g.delivered = 0;
    RequestFeed(kTqChannelPattern, n);
    while (g.delivered < n) tqredis_pubsub();
  }
}

// ---- scan replay --------------------------------------------------------

void BareScan() {
  char cursor[32] = "0";
  do {
    auto *page = static_cast<redisReply *>(redisCommand(
        g.bare, "SCAN %s MATCH %s COUNT %d", cursor, kScanPattern, kScanCount));
    if (page == nullptr || page->type != REDIS_REPLY_ARRAY ||
        page->elements != 2)
      Fail("SCAN");
    std::snprintf(cursor, sizeof(cursor), "%s", page->element[0]->str);
    const redisReply *keys = page->element[1];
    for (size_t i = 0; i < keys->elements; ++i) {
      auto *value = static_cast<redisReply *>(
          redisCommand(g.bare, "GET %s", keys->element[i]->str));
      Expect(value);
      ++g.scanned;
      freeReplyObject(value);
    }
    freeReplyObject(page);
  } while (std::strcmp(cursor, "0") != 0);
}

int CountingCallback(tqredis_pmsg *, void *arg) {
  ++*static_cast<long *>(arg);
  return 0;
}

void TqScan() {
  if (tqredis_scan_key_pattern(kHost, kScanPattern, kScanCount,
                               CountingCallback, &g.scanned, 0) != 0)
    Fail("scan replay");
}

// Every key, `passes` times over.
void ScanLoop(Side side, long passes) {
  for (long r = 0; r < passes; ++r) {
    if (side == Side::kBare) {
      BareScan();
    } else {
      TqScan();
    }
  }
}

// ---- the figures --------------------------------------------------------

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// Half the range, in percent of the median.
double Spread(const std::vector<double> &v) {
  const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
  const double median = Median(v);
  return median == 0 ? 0 : (*hi - *lo) / 2 / median * 100;
}

struct Figure {
  const char *name;
  const char *unit;
  // From one sample of n operations to the figure.
  std::function<double(const Sample &, long)> value;
};

void Report(const std::vector<Figure> &figures,
            const std::vector<std::vector<Sample>> &samples, long n,
            const char *test) {
  for (const Figure &f : figures) {
    std::vector<double> side[2];
    for (int s = 0; s < 2; ++s)
      for (const Sample &sample : samples[s])
        side[s].push_back(f.value(sample, n));
    std::vector<double> ratio;
    for (size_t r = 0; r < side[0].size() && r < side[1].size(); ++r)
      ratio.push_back(side[0][r] > 0 ? side[1][r] / side[0][r] : 0);
    std::printf("row %s %s %.6g %.2f %.6g %.2f %.6g %.2f\n", f.name, f.unit,
                Median(side[0]), Spread(side[0]), Median(side[1]),
                Spread(side[1]), Median(ratio), Spread(ratio));
  }
  // Allocations per operation, the lowest round of each side: steady state.
  double allocs[2];
  for (int s = 0; s < 2; ++s) {
    unsigned long lowest = ~0ul;
    for (const Sample &sample : samples[s])
      lowest = std::min(lowest, sample.allocs);
    allocs[s] = static_cast<double>(lowest) / n;
  }
  std::printf("allocs %s %.4f %.4f\n", test, allocs[0], allocs[1]);
}

double PerSecond(const Sample &s, long n) { return n / s.seconds; }
double CpuNsPerOp(const Sample &s, long n) { return s.cpu_seconds * 1e9 / n; }

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(
        stderr,
        "usage: %s get|set|setreplies|notify|scan [--rounds R] [--n N] "
        "[--side both|bare|tq]\n",
        argv[0]);
    return 2;
  }
  const std::string test = argv[1];
  int rounds = 11;
  long n = 0;
  std::string only = "both";
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--rounds") rounds = std::atoi(argv[i + 1]);
    if (flag == "--n") n = std::atol(argv[i + 1]);
    if (flag == "--side") only = argv[i + 1];
  }

  // The host's start: lock on, one subscription on the feeder's database.
  pubsub_mng entry{};
  entry.key_db = TQREDIS_DB_DE_GLOBAL;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", kTqPattern);
  entry.hook = CountingHook;
  entry.hook_arg = &g.delivered;
  tqredis_init(&entry, 1, NoDataCheck, 2);
  tqredis_db_connect();
  tqredis_get_cardinfo();
  tqredis_set_cmd_commit_thres(kCommitThreshold);
  g.bare = Connect(kHostSocket);
  g.feeder = Connect(kFeederSocket);

  std::function<void(Side, long)> loop;
  std::function<void()> before;
  std::function<void(Side, long)> after;
  std::vector<Figure> figures;
  int slices = 10;  // turns of each side per round; n is a multiple
  if (test == "get") {
    if (n == 0) n = 100000;
    Expect(static_cast<redisReply *>(
        redisCommand(g.bare, "SET bench:get %s", "0123456789abcdef")));
    loop = GetLoop;
    figures = {{"read", "GET/s", PerSecond}};
  } else if (test == "set") {
    if (n == 0) n = 1000000;
    loop = SetLoop;
    after = [](Side side, long count) { Confirm(SetContext(side), count); };
    figures = {{"write", "SET/s", PerSecond}};
  } else if (test == "setreplies") {
    if (n == 0) n = 1000000;
    if (tqredis_set_option("replies", 1) != 0) Fail("replies=1");
    loop = SetRepliesLoop;
    figures = {{"write_replies", "SET/s", PerSecond}};
  } else if (test == "notify") {
    if (n == 0) n = 5000000;
    tqredis_db_psubscrible();
    g.bare_sub = Connect(kFeederSocket);
    Expect(static_cast<redisReply *>(
        redisCommand(g.bare_sub, "PSUBSCRIBE %s", kBarePattern)));
    loop = NotifyLoop;
    after = [](Side, long) { FeedDone(); };
    figures = {{"notify_cpu", "ns-cpu/notification", CpuNsPerOp},
               {"notify_rate", "notifications/s", PerSecond}};
  } else if (test == "scan") {
    // Keys replayed per round: the walk over all of them, done again.
    if (n == 0) n = 4 * kScanKeys;
    if (n % kScanKeys != 0) Fail("scan: --n is a multiple of the keys");
    for (long i = 0; i < kScanKeys; ++i) {
      redisAppendCommand(g.bare, "SET bench:scan:%ld %ld", i, i);
    }
    for (long i = 0; i < kScanKeys; ++i) {
      void *reply = nullptr;
      if (redisGetReply(g.bare, &reply) != REDIS_OK) Fail("fill");
      freeReplyObject(reply);
    }
    slices = static_cast<int>(n / kScanKeys);  // one walk a slice
    loop = [](Side side, long count) { ScanLoop(side, count / kScanKeys); };
    figures = {{"scan", "keys/s", PerSecond}};
  } else {
    Fail("unknown test");
  }

  // One short warm-up of each side: connections made, caches and buffers
  // in their steady state.
  for (Side side : {Side::kBare, Side::kTq}) {
    if (only != "both" && only != (side == Side::kBare ? "bare" : "tq"))
      continue;
    const long warm = test == "scan" ? kScanKeys : std::max(1000L, n / 20);
    loop(side, warm);
    if (after) after(side, warm);
  }

  if (only != "both") {
    const Side side = only == "bare" ? Side::kBare : Side::kTq;
    const Sample s = Measure([&] { loop(side, n); });
    if (after) after(side, n);
    std::printf("callgrind %s %s %ld allocs %lu\n", test.c_str(), only.c_str(),
                n, s.allocs);
    return 0;
  }

  // Within a round the two sides take turns slice by slice, the first side
  // swapping each slice, so that both meet the same moments of the machine;
  // a side's round is the sum of its slices.
  if (n % slices != 0) Fail("--n is not a multiple of the slices");
  const long slice = n / slices;
  std::vector<std::vector<Sample>> samples(2);
  for (int r = 0; r < rounds; ++r) {
    Sample round[2] = {};
    for (int k = 0; k < slices; ++k) {
      const bool tq_first = (r + k) % 2 != 0;
      for (Side side : {tq_first ? Side::kTq : Side::kBare,
                        tq_first ? Side::kBare : Side::kTq}) {
        const Sample s = Measure([&] { loop(side, slice); });
        if (after) after(side, slice);
        Sample &sum = round[side == Side::kBare ? 0 : 1];
        sum.seconds += s.seconds;
        sum.cpu_seconds += s.cpu_seconds;
        sum.allocs += s.allocs;
      }
    }
    samples[0].push_back(round[0]);
    samples[1].push_back(round[1]);
  }
  Report(figures, samples, n, test.c_str());
  return 0;
}
