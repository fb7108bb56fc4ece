// The global lock, disabled until tqredis_init(flag & 2), and select_sleep.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/support.h"
#include "tqredis.h"

using namespace std::chrono_literals;

namespace {

// True when another thread can take and release the lock (it finishes).
bool OtherThreadGetsTheLock() {
  std::atomic<bool> got{false};
  std::thread other([&] {
    tqredis_lock();
    got = true;
    tqredis_unlock();
  });
  // A sleep can only let a broken lock pass, never fail a correct one.
  std::this_thread::sleep_for(50ms);
  const bool result = got;
  if (!result) {
    tqredis_unlock();  // free the waiting thread before joining it
    other.join();
    tqredis_lock();
    return false;
  }
  other.join();
  return result;
}

}  // namespace

TEST(GlobalLock, DisabledLockNeverBlocksBeforeInit) {
  tqredis_lock();
  tqredis_lock();
  EXPECT_TRUE(OtherThreadGetsTheLock());
  tqredis_unlock();
  tqredis_unlock();
}

TEST(GlobalLock, InitWithFlagZeroLeavesTheLockDisabled) {
  tqredis_init(nullptr, 0, nullptr, 0);
  tqredis_lock();
  EXPECT_TRUE(OtherThreadGetsTheLock());
  tqredis_unlock();
}

TEST(GlobalLock, OtherFlagBitsDoNotEnableTheLock) {
  tqredis_init(nullptr, 0, nullptr, 1 | 4 | 8 | 0x80000000u);
  tqredis_lock();
  EXPECT_TRUE(OtherThreadGetsTheLock());
  tqredis_unlock();
}

TEST(GlobalLock, UnlockWithoutLockWhileDisabledDoesNothing) {
  tqredis_unlock();
  tqredis_lock();
  tqredis_unlock();
  EXPECT_TRUE(OtherThreadGetsTheLock());
}

TEST(GlobalLock, EnabledLockExcludesOtherThreads) {
  tqredis_init(nullptr, 0, nullptr, 2);
  tqredis_lock();
  EXPECT_FALSE(OtherThreadGetsTheLock());
  tqredis_unlock();
  EXPECT_TRUE(OtherThreadGetsTheLock());
}

TEST(GlobalLock, EnabledLockIsRecursiveAndNeedsOneUnlockPerLock) {
  tqredis_init(nullptr, 0, nullptr, 2);
  tqredis_lock();
  tqredis_lock();
  std::atomic<bool> got{false};
  std::thread other([&] {
    tqredis_lock();
    got = true;
    tqredis_unlock();
  });
  tqredis_unlock();
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got) << "one unlock must not release a lock taken twice";
  tqredis_unlock();
  other.join();
  EXPECT_TRUE(got);
}

TEST(GlobalLock, StatisticsDumpWaitsForTheLock) {
  tqredis_init(nullptr, 0, nullptr, 2);
  tqredis_lock();
  std::atomic<bool> done{false};
  std::string out;
  std::thread other([&] {
    tqtest::StdoutCapture capture;
    tqredis_basic_stats_show();
    out = capture.Finish();
    done = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(done);
  tqredis_unlock();
  other.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(out.rfind("basic:\r\n", 0), 0u);
}

TEST(SelectSleep, ZeroReturnsAtOnceWithZero) { EXPECT_EQ(select_sleep(0, 0), 0); }

TEST(SelectSleep, ShortSleepReturnsZero) { EXPECT_EQ(select_sleep(0, 1000), 0); }

TEST(SelectSleep, InvalidTimeReturnsSelectsError) {
  EXPECT_EQ(select_sleep(0, -1), -1);
}
