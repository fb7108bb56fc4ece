// Reports of slow hooks: a subscription hook, the process-wide hook and a
// replay callback that run longer than hookwarn are each named at level 8
// with the database, pattern and key; fast hooks and a switch left off are
// silent.
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::Logged;

namespace {

int g_calls = 0;

// Sleeps 300 ms: far past a limit of 100 ms on any machine.
int SlowHook(tqredis_pmsg *, void *) {
  ++g_calls;
  usleep(300 * 1000);
  return 0;
}

int FastHook(tqredis_pmsg *, void *) {
  ++g_calls;
  return 0;
}

int IgnoreDataCheck(uint32_t) { return 0; }

pubsub_mng Entry(uint32_t db, const char *pattern, tqredis_pmsg_hook_f hook) {
  pubsub_mng entry{};
  entry.key_db = db;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", pattern);
  entry.hook = hook;
  return entry;
}

// The level-8 lines of `log` with their time replaced by "N", after
// checking that each time is at least `at_least` ms.
std::string SlowLines(const std::string &log, long at_least) {
  static const std::regex took(R"( hook took (\d+) ms\[)");
  std::string out;
  for (const std::string &line : tqtest::Lines(log)) {
    std::smatch match;
    if (std::regex_search(line, match, took)) {
      EXPECT_GE(std::stol(match[1].str()), at_least) << line;
      out += std::regex_replace(line, took, " hook took N ms[");
    } else {
      out += line;
    }
  }
  return out;
}

class HookWarn : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(emulator_.Start()); }

  void Subscribe(tqredis_pmsg_hook_f hook) {
    std::vector<pubsub_mng> entries = {Entry(2, "k*", hook)};
    ASSERT_EQ(tqredis_init(entries.data(), 1, IgnoreDataCheck, 2), 0);
    tqredis_free_reply(tqredis_db_command(2, 0, -1, 0, "PING"));
    tqredis_db_psubscrible();
  }

  // Sets k1 from outside and pumps until `calls` hook calls were seen, 100
  // pumps (10 s) at most; returns the level-8 lines logged meanwhile.
  std::string Notify(int calls) {
    tqtest::Run(tqtest::Direct(2).get(), "SET k1 v1");
    return Logged(TQREDIS_LOG_ERROR, [calls] {
      for (int i = 0; i < 100 && g_calls < calls; ++i) tqredis_pubsub();
    });
  }

  tqtest::DeviceEmulator emulator_;
};

}  // namespace

TEST_F(HookWarn, SlowSubscriptionHookIsReported) {
  ASSERT_EQ(tqredis_set_option("hookwarn", 100), 0);
  Subscribe(SlowHook);
  const std::string log = Notify(1);
  EXPECT_EQ(g_calls, 1);
  EXPECT_EQ(SlowLines(log, 300),
            "<tqredis_db_deal_pmsg>:subscription hook took N ms[db=redis_host "
            "pattern=k* key=k1]\r\n");
}

TEST_F(HookWarn, SlowProcessWideHookIsReportedWithTheSubscriptionsPattern) {
  ASSERT_EQ(tqredis_set_option("hookwarn", 100), 0);
  Subscribe(FastHook);
  ASSERT_EQ(tqredis_pmsg_hook_register(SlowHook, nullptr), 0);
  const std::string log = Notify(2);
  EXPECT_EQ(g_calls, 2);
  EXPECT_EQ(SlowLines(log, 300),
            "<tqredis_db_deal_pmsg>:process hook took N ms[db=redis_host "
            "pattern=k* key=k1]\r\n");
}

TEST_F(HookWarn, FastHooksAreNotReported) {
  ASSERT_EQ(tqredis_set_option("hookwarn", 100), 0);
  Subscribe(FastHook);
  ASSERT_EQ(tqredis_pmsg_hook_register(FastHook, nullptr), 0);
  EXPECT_EQ(Notify(2), "");
  EXPECT_EQ(g_calls, 2);
}

TEST_F(HookWarn, OffSlowHooksAreNotReported) {
  ASSERT_EQ(tqredis_get_option("hookwarn"), 0);
  Subscribe(SlowHook);
  ASSERT_EQ(tqredis_pmsg_hook_register(SlowHook, nullptr), 0);
  EXPECT_EQ(Notify(2), "");
  EXPECT_EQ(g_calls, 2);
}

TEST_F(HookWarn, SlowReplayCallbackAndHookAreReportedWithTheWalksPattern) {
  ASSERT_EQ(tqredis_set_option("hookwarn", 100), 0);
  tqredis_init(nullptr, 0, IgnoreDataCheck, 2);  // no subscription: -2
  tqtest::Run(tqtest::Direct(2).get(), "SET kr v");
  ASSERT_EQ(tqredis_pmsg_hook_register(SlowHook, nullptr), 0);
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_ERROR, [&rv] {
    rv = tqredis_scan_key_pattern(2, "kr*", 10, SlowHook, nullptr,
                                  TQREDIS_SCAN_STRING);
  });
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(g_calls, 2);
  EXPECT_EQ(SlowLines(log, 300),
            "<tqredis_scan_key_get>:replay hook took N ms[db=redis_host "
            "pattern=kr* key=kr]\r\n"
            "<tqredis_scan_key_get>:process hook took N ms[db=redis_host "
            "pattern=kr* key=kr]\r\n");
}

TEST_F(HookWarn, SlowHookOnAWalksScanRecordIsReported) {
  ASSERT_EQ(tqredis_set_option("hookwarn", 100), 0);
  tqredis_init(nullptr, 0, IgnoreDataCheck, 2);  // no subscription: -2
  ASSERT_EQ(tqredis_pmsg_hook_register(SlowHook, nullptr), 0);
  int rv = -1;
  const std::string log = Logged(TQREDIS_LOG_ERROR, [&rv] {
    rv = tqredis_key_pattern_walkthrough(2, "none*", 10, nullptr, nullptr);
  });
  EXPECT_EQ(rv, 0);
  EXPECT_GE(g_calls, 1);
  const std::string line =
      "<tqredis_key_pattern_walkthrough>:process hook took N ms[db=redis_host "
      "pattern=none* key=none*]\r\n";
  std::string expected;
  for (int i = 0; i < g_calls; ++i) expected += line;
  EXPECT_EQ(SlowLines(log, 300), expected);
}
