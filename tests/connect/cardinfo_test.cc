// The card information and the readiness wait, with no server anywhere.
#include <string>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "tqredis.h"

using tqtest::Logged;
using tqtest::Printed;

TEST(Cardinfo, IsNotReadAfterLoad) {
  EXPECT_EQ(tqredis_cardinfo_is_readed(), 0);
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_DE_GLOBAL), -1);
}

TEST(Cardinfo, StatsAfterLoadShowUnknownNodes) {
  EXPECT_EQ(Printed([] { tqredis_cardinfo_stats_show(); }),
            "cardinfo:\r\n\tdb_bitmap=0x7\r\n\tmy_node=0xffffffff\r\n"
            "\tmaster_node=0xffffffff\r\n");
}

TEST(Cardinfo, FirstReadingLogsAMasterChangeFromUnknownToZero) {
  int rv = -1;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_LIFE, [&] { rv = tqredis_get_cardinfo(); }),
      "<tqredis_parse_cardinfo>:>>>>master change, last_master=0xffffffff "
      "master_node=0 \r\n"
      "<tqredis_get_cardinfo>:>>>>get cardinfo, db_bitmap=0x7 my_node=0 "
      "master_node=0\r\n");
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(tqredis_cardinfo_is_readed(), 1);
}

TEST(Cardinfo, SecondReadingLogsOnlyTheCardinfoLine) {
  tqredis_get_cardinfo();
  EXPECT_EQ(Logged(TQREDIS_LOG_LIFE, [] { tqredis_get_cardinfo(); }),
            "<tqredis_get_cardinfo>:>>>>get cardinfo, db_bitmap=0x7 my_node=0 "
            "master_node=0\r\n");
}

TEST(Cardinfo, FirstReadingPutsTheWriteSlotsBackInUnixMode) {
  tqredis_refresh_write_connect_mng(0, 1234);
  tqredis_get_cardinfo();
  const std::string dump = Printed([] { tqredis_basic_stats_show(); });
  const auto write0 = dump.find("    [write][redis_de_global]\r\n");
  ASSERT_NE(write0, std::string::npos);
  EXPECT_EQ(dump.compare(write0 + 30, 20, "\tcontext=(nil)\r\n\tmod"), 0);
  EXPECT_EQ(dump.find("\tmode=1\r\n"), std::string::npos);
  EXPECT_EQ(dump.find("\thostport=1234\r\n"), std::string::npos);
}

TEST(Cardinfo, OnTheMasterWritesUseTheReadSlot) {
  tqredis_get_cardinfo();
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_DE_GLOBAL), 0);
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_CE_GLOBAL), 0);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE), 0);
  EXPECT_EQ(tqredis_calc_dbop(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_WRITE), 0);
  EXPECT_EQ(
      Printed([] { tqredis_cardinfo_stats_show(); }),
      "cardinfo:\r\n\tdb_bitmap=0x7\r\n\tmy_node=0\r\n\tmaster_node=0\r\n");
}

TEST(Cardinfo, ResetMakesItUnknownAgain) {
  tqredis_get_cardinfo();
  tqredis_cardinfo_init();
  EXPECT_EQ(tqredis_cardinfo_is_readed(), 0);
  EXPECT_EQ(tqredis_get_write_connext_stats(TQREDIS_DB_CE_GLOBAL), -1);
}

TEST(WaitReady, HostPassesAtOnceAfterInit) {
  tqredis_init(nullptr, 0, nullptr, 0);
  EXPECT_EQ(Logged(0xff,
                   [] {
                     EXPECT_EQ(tqredis_wait_cardinfo_ready(TQREDIS_DB_HOST), 1);
                   }),
            "");
}

TEST(WaitReady, BeforeInitWaitsOneSecondWithoutConnecting) {
  int rv = -1;
  EXPECT_EQ(
      Logged(0xff, [&] { rv = tqredis_wait_cardinfo_ready(TQREDIS_DB_HOST); }),
      "<tqredis_wait_cardinfo_ready>:redis_host operate before mom init[0] or "
      "context init, \r\n");
  EXPECT_EQ(rv, 0);
}
