// The reconnection thread's progress over a server that stays down for over
// a minute. Slow: it waits as long as the device would.
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using namespace std::chrono_literals;

TEST(ReconnectSlow, ServerDownForSixtyFiveSecondsLogsTwoProgressLinesThenQuits) {
  tqtest::DeviceServers servers;
  ASSERT_TRUE(servers.Start(0));
  ASSERT_TRUE(servers.Start(1));
  tqredis_init(nullptr, 0, nullptr, 0);
  std::thread starter([&servers] {
    std::this_thread::sleep_for(65s);
    servers.Start(2);
  });
  redisReply *reply = tqredis_db_command(2, 0, -1, 0, "PING");
  starter.join();
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(reply->str, "PONG");
  tqredis_free_reply(reply);
  const std::string log = tqtest::Messages(tqtest::ReadFile(tqtest::LogPath("limitlog")));
  const std::string enter =
      "<tqredis_reconnect_thread>:>>>>redis_host[read] reconnect thread enter...\r\n";
  const std::string progress = "<tqredis_reconnect_thread>:>>>>redis_host read try to reconnect\r\n";
  const std::string quit =
      "<tqredis_reconnect_thread>:>>>>redis_host read reconnect thread quit\r\n";
  const std::string finish = "<tqredis_db_reconnect>:>>>>redis_host[read] reconnect finish\r\n";
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
