// The library's pure pieces, one at a time, with the global lock on as a
// threaded host has it: the log call site whose level no mask selects, one
// log file line, an operation record's start and end, the reply checks and
// getters, the notification checks and the event-name lookup.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "core/keycmd.h"
#include "core/log.h"
#include "tqredis.h"

namespace {

using tqredis::detail::g_tqredis_file_level;
using tqredis::detail::g_tqredis_timestat;
using tqredis::detail::kLogData;
using tqredis::detail::kLogLife;

// A reply as hiredis builds it from the bytes a server sends; the caller
// frees it.
redisReply *Parse(const std::string &resp) {
  redisReader *reader = redisReaderCreate();
  redisReaderFeed(reader, resp.data(), resp.size());
  void *reply = nullptr;
  redisReaderGetReply(reader, &reply);
  redisReaderFree(reader);
  return static_cast<redisReply *>(reply);
}

struct Masks {
  Masks(uint32_t console, uint32_t file) {
    g_tqredis_dbg_level = console;
    g_tqredis_file_level = file;
  }
  ~Masks() {
    g_tqredis_dbg_level = 0;
    g_tqredis_file_level = TQREDIS_LOG_LIFE;
  }
};

// Sixteen sites an iteration, each behind a compiler barrier as a site is
// behind other code in a caller: one site alone is under a cycle, and a loop
// of nothing else measures its own alignment more than the site. Reported
// per site (items).
void LogSiteOff(benchmark::State &state) {
  Masks masks(0, TQREDIS_LOG_LIFE);  // level 1 in neither mask
  constexpr int kSites = 16;
  const char *key = "/device/port/1/state";
  int i = 0;
  for (auto _ : state) {
    for (int site = 0; site < kSites; ++site) {
      benchmark::ClobberMemory();
      benchmark::DoNotOptimize(
          TQ_LOG(kLogData, ">>>>%s %d key=%s\r\n", "bench", ++i, key));
    }
  }
  state.SetItemsProcessed(state.iterations() * kSites);
}
BENCHMARK(LogSiteOff);

void LogFileLine(benchmark::State &state) {
  Masks masks(0, TQREDIS_LOG_LIFE);
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        TQ_LOG(kLogLife, ">>>>%s connect ok, n=%d\r\n", "redis_host", ++i));
  }
}
BENCHMARK(LogFileLine);

// The floor under LogFileLine: a line of the same length formatted and
// flushed through stdio to a file in the same folder, with no library.
void FileLineStdioOnly(benchmark::State &state) {
  FILE *fp = std::fopen("/tmp/tqredis/tqbench_micro.floor", "w");
  if (fp == nullptr) {
    state.SkipWithError("cannot open /tmp/tqredis/tqbench_micro.floor");
    return;
  }
  int i = 0;
  for (auto _ : state) {
    if (std::ftell(fp) >= 32769) std::fseek(fp, 0, SEEK_SET);
    std::fprintf(fp,
                 "20240302_09:05:03.000042 [%s]<%s, %d>:>>>>%s connect "
                 "ok, n=%d\r\n",
                 "tqbench_micro", "LogFileLine", 60, "redis_host", ++i);
    benchmark::DoNotOptimize(std::fflush(fp));
  }
  std::fclose(fp);
}
BENCHMARK(FileLineStdioOnly);

void OpRecord(benchmark::State &state, uint32_t timestat) {
  g_tqredis_timestat = timestat;
  for (auto _ : state) {
    const int slot = tqredis_db_in_log("/device/port/1/state",
                                       TQREDIS_KEYCMD_SET, TQREDIS_DB_HOST, 0);
    tqredis_db_in_log_stat(static_cast<uint32_t>(slot));
  }
  g_tqredis_timestat = 0;
}
BENCHMARK_CAPTURE(OpRecord, TimeStatOff, 0)->Name("OpRecordTimeStatOff");
BENCHMARK_CAPTURE(OpRecord, TimeStatOn, 1)->Name("OpRecordTimeStatOn");

void CheckReplyString(benchmark::State &state) {
  redisReply *reply = Parse("$5\r\nhello\r\n");
  for (auto _ : state) benchmark::DoNotOptimize(tqredis_check_reply(reply));
  freeReplyObject(reply);
}
BENCHMARK(CheckReplyString);

void GetStrval(benchmark::State &state) {
  redisReply *reply = Parse("$5\r\nhello\r\n");
  char *str = nullptr;
  int len = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tqredis_get_key_reply_strval(reply, &str, &len));
  }
  freeReplyObject(reply);
}
BENCHMARK(GetStrval);

void GetIntval(benchmark::State &state) {
  redisReply *reply = Parse("$5\r\n12345\r\n");
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tqredis_get_key_reply_intval(reply, &value, 10));
  }
  freeReplyObject(reply);
}
BENCHMARK(GetIntval);

// HGETALL of eight fields; the field looked up is the last one.
void GetIntvalByField(benchmark::State &state) {
  std::string resp = "*16\r\n";
  for (int i = 0; i < 8; ++i) {
    resp += "$6\r\nfield" + std::to_string(i) + "\r\n$3\r\n10" +
            std::to_string(i) + "\r\n";
  }
  redisReply *reply = Parse(resp);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tqredis_get_key_reply_intval_by_field(reply, "field7", &value, 10));
  }
  freeReplyObject(reply);
}
BENCHMARK(GetIntvalByField);

void GetArrayStrval(benchmark::State &state) {
  redisReply *reply = Parse("*3\r\n$1\r\na\r\n$1\r\nb\r\n$1\r\nc\r\n");
  char *str = nullptr;
  int len = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tqredis_get_key_array_reply_strval(reply, 2, &str, &len));
  }
  freeReplyObject(reply);
}
BENCHMARK(GetArrayStrval);

// One notification as the device's servers send it: checked, then read.
void PmessageCheckAndRead(benchmark::State &state) {
  redisReply *reply = Parse(
      "*5\r\n$8\r\npmessage\r\n$22\r\n__keyspace@0__:bench:*\r\n"
      "$22\r\n__keyspace@0__:bench:1\r\n$3\r\nset\r\n$5\r\nvalue\r\n");
  tqredis_pmsg pmsg{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(tqredis_check_pubsub_reply(reply));
    benchmark::DoNotOptimize(tqredis_get_pmsg_by_reply(reply, &pmsg));
  }
  freeReplyObject(reply);
}
BENCHMARK(PmessageCheckAndRead);

void EventLookup(benchmark::State &state, const char *name) {
  std::string_view event(name);
  for (auto _ : state) {
    benchmark::DoNotOptimize(event);
    benchmark::DoNotOptimize(tqredis::detail::KeyCmdFromEvent(event));
  }
}
BENCHMARK_CAPTURE(EventLookup, Set, "set")->Name("EventLookupFirst");
BENCHMARK_CAPTURE(EventLookup, Expired, "expired")->Name("EventLookupExpired");
BENCHMARK_CAPTURE(EventLookup, Unknown, "rename_from")
    ->Name("EventLookupUnknown");

}  // namespace

int main(int argc, char **argv) {
  // The lock on, as a threaded host has it; no subscriptions.
  tqredis_init(nullptr, 0, nullptr, 2);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
