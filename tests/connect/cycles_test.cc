// Losses and restores in a row leave the process as they found it: the same
// open descriptors, the same live heap, one connection per slot on each
// server. The short run is the one the memory checkers run (valgrind and
// the address sanitizer's leak check at exit).
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connect/inplace_host.h"
#include "support/conn_events.h"
#include "support/heap_count.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::HeapFigures;

namespace {

// The descriptors open in this process, the one that reads them left out.
int OpenDescriptors() {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int n = 0;
  while (readdir(dir) != nullptr) ++n;
  closedir(dir);
  return n - 3;  // ".", ".." and the folder's own descriptor
}

// One slot a cycle loses: every read and write slot in turn, and every
// tenth cycle a subscription connection (restored by the pump at most once
// a second per database, so they are kept few).
struct Step {
  uint32_t db;
  uint32_t op;
};
constexpr Step kRound[] = {{2, TQREDIS_OP_READ},  {1, TQREDIS_OP_WRITE},
                           {0, TQREDIS_OP_READ},  {0, TQREDIS_OP_WRITE},
                           {1, TQREDIS_OP_READ},  {2, TQREDIS_OP_READ},
                           {1, TQREDIS_OP_WRITE}, {0, TQREDIS_OP_READ},
                           {0, TQREDIS_OP_WRITE}, {0, TQREDIS_OP_PUBSUB}};
constexpr int kRoundSize = sizeof(kRound) / sizeof(kRound[0]);

class Cycles : public tqtest::InPlace {
 protected:
  void SetUp() override {
    InPlace::SetUp();
    if (HasFatalFailure()) return;
    // A restore on the command path then takes no one-second step.
    ASSERT_EQ(tqredis_set_option("waitlimit", 5000), 0);
    ASSERT_NO_FATAL_FAILURE(StartHost());
  }

  // Cycle `i`: close one connection, then use the slot as a host would so
  // that the library meets the loss and restores it. The keys written are
  // not watched: the subscription connections read only their own
  // confirmations, as after every restore.
  void Cycle(int i) {
    Step step = kRound[i % kRoundSize];
    if (step.op == TQREDIS_OP_PUBSUB) step.db = (i / kRoundSize) % 3;
    const std::string db = tqtest::kDb[step.db];
    ASSERT_EQ(tqtest::EmulatorCtl({"close", db, tqtest::kOp[step.op]}), 1)
        << "cycle " << i;
    const int before = events_.Count(step.db, step.op, 1);
    if (step.op == TQREDIS_OP_READ) {
      redisReply *r = tqredis_db_command(static_cast<int>(step.db),
                                         TQREDIS_OP_READ, -1, 0, "PING");
      ASSERT_EQ(tqtest::Text(r), "PONG") << "cycle " << i;
      tqredis_free_reply(r);
    } else if (step.op == TQREDIS_OP_WRITE) {
      tqredis_db_command(static_cast<int>(step.db), TQREDIS_OP_WRITE, -1,
                         TQREDIS_CMD_COMMIT, "SET zcycle %d", i % 10);
    } else {
      ASSERT_TRUE(tqtest::PumpUntil([&] {
        return events_.Count(step.db, step.op, 1) == before + 1;
      })) << "cycle "
          << i;
    }
    ASSERT_EQ(events_.Count(step.db, step.op, 1), before + 1) << "cycle " << i;
  }

  // `cycles` forced closes in a row after one warm-up round that has
  // restored every slot once (so that each is as a restore leaves it):
  // descriptors and heap as before, and the servers see one connection per
  // slot.
  void Run(int cycles) {
    // Each subscription connection once, the other slots twice.
    for (int i = 0; i < 3 * kRoundSize; ++i) ASSERT_NO_FATAL_FAILURE(Cycle(i));
    const int fds_before = OpenDescriptors();
    const HeapFigures heap_before = tqtest::HeapNow();
    for (int i = 0; i < cycles; ++i) ASSERT_NO_FATAL_FAILURE(Cycle(i));
    const HeapFigures heap_after = tqtest::HeapNow();
    const int fds_after = OpenDescriptors();
    EXPECT_EQ(fds_after, fds_before);
    if (tqtest::HeapCounted()) {
      // A leak shows in the count of live blocks. Their bytes may move a
      // little without one: a buffer that lives on (a reader's, a pool's)
      // keeps whatever capacity its last burst gave it, and the allocator
      // rounds sizes differently on each ABI (16 bytes apart on 32-bit
      // MIPS). Growth with every cycle would still show far beyond this.
      constexpr long long kCapacitySlack = 1024;
      const long long moved =
          std::llabs(heap_after.bytes - heap_before.bytes);
      EXPECT_EQ(heap_after.blocks, heap_before.blocks);
      EXPECT_LE(moved, kCapacitySlack)
          << "before " << heap_before.bytes << " after " << heap_after.bytes;
      if (heap_after.blocks != heap_before.blocks || moved > kCapacitySlack)
        tqtest::FlagToMemoryChecker("the live heap changed across the cycles");
    }
    EXPECT_FALSE(events_.Broken()) << tqtest::ToString(events_.All());
    for (const auto &slot : events_.PerSlot()) {
      const std::string &seq = slot.second;
      EXPECT_EQ(seq.size() % 2, 0u) << slot.first << " " << seq;
    }
    const std::string proc = g_tqredis_proc_name;
    for (int db = 0; db < 3; ++db) {
      std::string want = proc + "-read " + proc + "-pubsub";
      if (db < 2) want += " " + proc + "-write";
      // The server's own order is by connection id: sort to compare.
      std::string names = tqtest::ClientNames(db);
      for (int i = 0; i < 100 && Sorted(names) != Sorted(want); ++i) {
        usleep(10 * 1000);  // a closed connection the server has not reaped
        names = tqtest::ClientNames(db);
      }
      EXPECT_EQ(Sorted(names), Sorted(want)) << tqtest::kDb[db];
    }
    // The subscriptions still deliver.
    ASSERT_NO_FATAL_FAILURE(ExpectNotified("kend", "end"));
  }

  static std::string Sorted(const std::string &names) {
    std::vector<std::string> words;
    size_t at = 0;
    while (at < names.size()) {
      size_t end = names.find(' ', at);
      if (end == std::string::npos) end = names.size();
      words.push_back(names.substr(at, end - at));
      at = end + 1;
    }
    std::sort(words.begin(), words.end());
    std::string out;
    for (const std::string &w : words) out += w + " ";
    return out;
  }
};

}  // namespace

TEST_F(Cycles, TwoHundredForcedClosesLeaveDescriptorsAndHeapAsTheyWere) {
  Run(200);
}

TEST_F(Cycles, FiftyForcedClosesLeakNothing) { Run(50); }
