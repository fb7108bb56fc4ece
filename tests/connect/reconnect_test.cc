// The reconnection thread's progress over a server that stays down for over
// a minute. Slow: it waits as long as the device would.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/fixtures.h"
#include "support/logged.h"
#include "tqredis.h"

using namespace std::chrono_literals;

namespace {

class ReconnectSlow : public tqtest::LateHostServer {};

}  // namespace

TEST_F(ReconnectSlow,
       ServerDownForSixtyFiveSecondsLogsTwoProgressLinesThenQuits) {
  ASSERT_NO_FATAL_FAILURE(PingTheHostServerStartedAfter(65s, 0));
  const std::string log =
      tqtest::Messages(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  const std::string enter =
      "<tqredis_reconnect_thread>:>>>>redis_host[read] reconnect thread "
      "enter...\r\n";
  const std::string progress =
      "<tqredis_reconnect_thread>:>>>>redis_host read try to reconnect\r\n";
  const std::string quit =
      "<tqredis_reconnect_thread>:>>>>redis_host read reconnect thread "
      "quit\r\n";
  const std::string finish =
      "<tqredis_db_reconnect>:>>>>redis_host[read] reconnect finish\r\n";
  const auto at_enter = log.find(enter);
  ASSERT_NE(at_enter, std::string::npos) << log;
  const auto first = log.find(progress, at_enter);
  ASSERT_NE(first, std::string::npos) << log;
  const auto second = log.find(progress, first + 1);
  ASSERT_NE(second, std::string::npos) << log;
  EXPECT_EQ(log.find(progress, second + 1), std::string::npos) << log;
  const auto at_quit = log.find(quit, second);
  ASSERT_NE(at_quit, std::string::npos) << log;
  EXPECT_NE(log.find(finish, at_quit), std::string::npos) << log;
}
