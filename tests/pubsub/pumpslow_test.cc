// The statistics write of the notification pump, at the pace a device sees
// it: 600 idle waits of 100 ms, about one minute.
#include <gtest/gtest.h>

#include "pubsub/pump.h"
#include "support/emulator.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_idle_ticks;

namespace {

int IgnoreDataCheck(uint32_t) { return 0; }

TEST(IdleStatistics, SixHundredIdleWaitsWriteTheStatisticsOnce) {
  tqtest::DeviceEmulator emulator;
  ASSERT_TRUE(emulator.Start());
  tqredis_init(nullptr, 0, IgnoreDataCheck, 2);
  tqredis_free_reply(
      tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING"));
  auto direct = tqtest::Direct(2);
  for (int i = 0; i < 599; ++i) ASSERT_EQ(tqredis_pubsub(), 0);
  EXPECT_EQ(g_tqredis_idle_ticks, 599);
  // The 600th wait hands the writes to the pipeline; the next one flushes.
  ASSERT_EQ(tqredis_pubsub(), 0);
  EXPECT_EQ(g_tqredis_idle_ticks, 0);
  EXPECT_EQ(tqtest::Run(direct.get(), "EXISTS /arch/mom/pumpslow_test/in/stats")
                ->integer,
            0);
  ASSERT_EQ(tqredis_pubsub(), 0);
  auto total = tqtest::Run(direct.get(),
                           "HGET /arch/mom/pumpslow_test/in/stats cmd_total");
  ASSERT_NE(total, nullptr);
  ASSERT_EQ(total->type, REDIS_REPLY_STRING);
  EXPECT_STREQ(total->str, "0");
  auto peak = tqtest::Run(direct.get(),
                          "HGET /arch/mom/pumpslow_test/out/stats cmd_peak");
  ASSERT_NE(peak, nullptr);
  ASSERT_EQ(peak->type, REDIS_REPLY_STRING);
  EXPECT_STREQ(peak->str, "----time=0.0-tid=0");
  EXPECT_EQ(g_tqredis_idle_ticks, 1);
}

}  // namespace
