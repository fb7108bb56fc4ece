// A card that is not the master: its writes to the first two databases take
// the write slot, which the command path connects through the reconnection
// thread, reading the card information again on each try.
#include <string>

#include <gtest/gtest.h>

#include "connect/cardinfo.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_cardinfo;

namespace {

class NotMaster : public tqtest::ConnectedDevice {
 protected:
  void SetUp() override {
    ConnectedDevice::SetUp();
    if (HasFatalFailure()) return;
    // This card becomes node 1 while the master stays node 0.
    g_tqredis_cardinfo.my_node = 1;
  }
};

}  // namespace

TEST_F(NotMaster, WritesToTheFirstTwoDatabasesChooseTheWriteSlot) {
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_DE_GLOBAL), 1);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 1);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE), 1);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_HOST, TQREDIS_OP_WRITE), 0);
}

TEST_F(NotMaster, WriteConnectsTheWriteSlotRereadingTheCardInformation) {
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 0);
  const std::string log = tqtest::Logged(TQREDIS_LOG_LIFE, [] {
    tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, -1,
                       TQREDIS_CMD_COMMIT, "SET %s %s", "k", "v");
  });
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 1);
  const std::string expected =
      "<tqredis_db_try_reconnect>:>>>>redis_de_global[write flag=1] try to "
      "reconnect\r\n"
      "<tqredis_reconnect_thread>:>>>>redis_de_global[write] reconnect thread "
      "enter...\r\n"
      "<tqredis_get_cardinfo>:>>>>get cardinfo, db_bitmap=0x7 my_node=0x1 "
      "master_node=0\r\n";
  EXPECT_EQ(log.compare(0, expected.size(), expected), 0) << log;
  EXPECT_NE(
      log.find("<tqredis_reconnect_thread>:>>>>redis_de_global write reconnect "
               "thread quit\r\n"),
      std::string::npos)
      << log;
  EXPECT_NE(log.find("<tqredis_db_reconnect>:>>>>redis_de_global[write] "
                     "reconnect finish\r\n"),
            std::string::npos)
      << log;
}

TEST_F(NotMaster, SweepConnectsWriteSlotsOfTheFirstTwoDatabasesOnly) {
  tqredis_db_connect();
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 1);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE), 1);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_HOST, TQREDIS_OP_WRITE), 0);
  EXPECT_EQ(tqtest::ClientNames(1),
            "pipeline_test-read pipeline_test-pubsub pipeline_test-write");
  tqredis_db_command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE, -1,
                     TQREDIS_CMD_COMMIT, "SET %s %s", "k", "v");
  auto c = tqtest::Direct(1);
  redisReply *r = nullptr;
  for (int i = 0; i < 200; ++i) {
    auto got = tqtest::Run(c.get(), "EXISTS k");
    if (got && got->integer == 1) {
      r = reinterpret_cast<redisReply *>(1);
      break;
    }
  }
  EXPECT_NE(r, nullptr) << "the write did not reach the server";
}

TEST_F(NotMaster, MasterChangeWithALiveWriteSlotEndsTheProcess) {
  tqredis_db_connect();
  ASSERT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 1);
  g_tqredis_cardinfo.master_node = 5;  // the master moved
  EXPECT_EXIT(tqredis_get_cardinfo(), ::testing::ExitedWithCode(0), "");
}
