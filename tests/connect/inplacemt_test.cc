// Reconnecting in place in a threaded host, for the thread sanitizer: the
// lock on, one thread pumping, two threads writing and reading, while the
// emulator closes connections under them and refuses new ones for a while.
#include <unistd.h>

#include <atomic>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "connect/inplace_host.h"
#include "support/conn_events.h"
#include "tqredis.h"

namespace {

constexpr int kCloses = 60;

class InPlaceThreads : public tqtest::InPlace {
 protected:
  void SetUp() override {
    InPlace::SetUp();
    if (HasFatalFailure()) return;
    // Every read receives its own reply even where writes share its
    // connection, and the command path's restore takes no one-second step.
    ASSERT_EQ(tqredis_set_option("replies", 1), 0);
    ASSERT_EQ(tqredis_set_option("waitlimit", 5000), 0);
    ASSERT_NO_FATAL_FAILURE(StartHost());
  }

  // Uses every slot until none is left lost: the reads and writes through
  // the command path, the subscription connections through the pump.
  bool RestoreEverySlot() {
    for (int round = 0; round < 50; ++round) {
      bool lost = false;
      for (const auto &slot : events_.PerSlot())
        if (slot.second.back() == '0') lost = true;
      if (!lost) return true;
      for (int db = 0; db < 3; ++db) {
        tqredis_free_reply(
            tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "PING"));
        if (db < 2)
          tqredis_db_command(db, TQREDIS_OP_WRITE, -1, TQREDIS_CMD_COMMIT,
                             "SET zrestore %d", round);
      }
      for (int i = 0; i < 15; ++i) tqredis_pubsub();
    }
    return false;
  }
};

}  // namespace

TEST_F(InPlaceThreads, PumpWritersAndReadersCarryOnWhileConnectionsClose) {
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  std::atomic<long> failed_reads{0};
  std::atomic<long> wrong_replies{0};
  std::atomic<long> writes{0};
  std::thread pump([&] {
    while (!stop.load()) tqredis_pubsub();
  });
  std::thread writer([&] {
    for (int i = 0; !stop.load(); ++i) {
      const int db = i % 3;
      tqredis_db_command(db, TQREDIS_OP_WRITE, -1,
                         i % 8 == 0 ? TQREDIS_CMD_COMMIT : 0, "SET kw%d %d", db,
                         i);
      ++writes;
      // A host's pace, so that the lock goes round the threads.
      usleep(200);
    }
  });
  std::thread reader([&] {
    for (int i = 0; !stop.load(); ++i) {
      const int db = i % 3;
      redisReply *r =
          tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "INCR kr%d", db);
      ++reads;
      // NULL: a read whose retry met another loss. Anything but an integer
      // would be another command's reply.
      if (r == nullptr)
        ++failed_reads;
      else if (r->type != REDIS_REPLY_INTEGER)
        ++wrong_replies;
      tqredis_free_reply(r);
      usleep(200);
    }
  });

  // A close finds nothing while its slot waits for its next use or for the
  // pump: go on until enough connections were closed.
  std::mt19937 random(20240614);
  int closes = 0;
  int refused = 0;
  for (int i = 0; closes < kCloses && i < 5000; ++i) {
    const int db = static_cast<int>(random() % 3);
    int op = static_cast<int>(random() % 3);
    if (db == 2 && op == TQREDIS_OP_WRITE) op = TQREDIS_OP_READ;  // none
    // Now and then the restore meets refused connects for a while.
    if (closes / 20 > refused) {
      tqtest::EmulatorCtl({"refuse", tqtest::kDb[db], "300"});
      ++refused;
    }
    const long long closed =
        tqtest::EmulatorCtl({"close", tqtest::kDb[db], tqtest::kOp[op]});
    if (closed > 0) closes += static_cast<int>(closed);
    usleep(static_cast<useconds_t>(random() % 20) * 1000);
  }
  // Enough traffic after the last close for each thread to meet it.
  const long reads_at_end = reads.load();
  for (int i = 0; i < 500 && reads.load() < reads_at_end + 30; ++i)
    usleep(10 * 1000);
  stop = true;
  const std::thread::id pumping = pump.get_id();
  pump.join();
  // The pump meets the losses of the subscription connections and restores
  // them, in its own thread.
  const std::vector<std::thread::id> pubsub_threads = events_.PubsubThreads();
  size_t elsewhere = 0;
  for (const std::thread::id &id : pubsub_threads)
    if (id != pumping) ++elsewhere;
  EXPECT_EQ(elsewhere, 0u) << "of " << pubsub_threads.size();
  writer.join();
  reader.join();

  EXPECT_GE(closes, kCloses);
  EXPECT_EQ(refused, 2);
  EXPECT_GT(reads.load(), 0);
  EXPECT_GT(writes.load(), 0);
  EXPECT_EQ(wrong_replies.load(), 0);
  EXPECT_TRUE(RestoreEverySlot()) << tqtest::ToString(events_.All());
  EXPECT_FALSE(events_.Broken()) << tqtest::ToString(events_.All());
  for (const auto &slot : events_.PerSlot())
    EXPECT_EQ(slot.second.size() % 2, 0u) << slot.first << " " << slot.second;
  // Each restore of a subscription connection is followed by one data
  // check, unless the connection was lost again before its patterns were
  // subscribed (then the next restore's check covers it); the last restore
  // always has its check.
  static const std::regex checked("c(01c?)*01c|c");
  for (uint32_t db = 0; db < 3; ++db) {
    const std::string trail = events_.PubsubTrail(db);
    EXPECT_TRUE(std::regex_match(trail, checked))
        << tqtest::kDb[db] << " " << trail;
  }
  ASSERT_NO_FATAL_FAILURE(ExpectNotified("kend", "end"));
  std::printf(
      "closes=%d refused=%d reads=%ld (failed %ld) writes=%ld events=%zu\n",
      closes, refused, reads.load(), failed_reads.load(), writes.load(),
      events_.Count());
}
