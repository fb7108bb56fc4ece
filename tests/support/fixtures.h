// Test fixtures shared by the tests that run commands against real servers
// or a scripted one.
#ifndef TQREDIS_TESTS_SUPPORT_FIXTURES_H_
#define TQREDIS_TESTS_SUPPORT_FIXTURES_H_

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/reply_peer.h"
#include "support/servers.h"
#include "tqredis.h"

namespace tqtest {

// Initialises the library with the lock on, connects every slot and reads
// the card information: after it no command waits.
inline void ConnectDevice() {
  tqredis_init(nullptr, 0, nullptr, 2);
  tqredis_db_connect();
  tqredis_get_cardinfo();
}

// Three stock servers on the device paths and the device connected.
class ConnectedDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(servers_.StartAll());
    ConnectDevice();
  }
  DeviceServers servers_;
};

// The first database answered by a scripted peer, for replies a stock
// server never gives; stock servers for the other two. A test hands the
// script to Serve(), which starts the peer and then connects the device.
class ScriptedDatabase : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(servers_.Start(TQREDIS_DB_CE_GLOBAL));
    ASSERT_TRUE(servers_.Start(TQREDIS_DB_HOST));
  }
  void Serve(std::vector<ReplyPeer::Rule> rules) {
    peer_ = std::make_unique<ReplyPeer>(kSocketPaths[TQREDIS_DB_DE_GLOBAL],
                                        std::move(rules));
    ASSERT_TRUE(peer_->listening());
    ConnectDevice();
    Connected();
  }
  // What a suite adds once the device is connected.
  virtual void Connected() {}
  DeviceServers servers_;
  std::unique_ptr<ReplyPeer> peer_;
};

// The host database's server is missing when the first command needs it and
// starts later; the other two servers run throughout. Nothing is connected
// and tqredis_init() is not called until a test says so.
class LateHostServer : public ::testing::Test {
 protected:
  // Starts the first two servers and initialises the library with
  // `init_flag`; then sends PING to the host database, whose server another
  // thread starts `delay` later, and expects the PONG the command waited for.
  void PingTheHostServerStartedAfter(std::chrono::seconds delay,
                                     int init_flag) {
    ASSERT_TRUE(servers_.Start(TQREDIS_DB_DE_GLOBAL));
    ASSERT_TRUE(servers_.Start(TQREDIS_DB_CE_GLOBAL));
    tqredis_init(nullptr, 0, nullptr, init_flag);
    std::thread starter([this, delay] {
      std::this_thread::sleep_for(delay);
      servers_.Start(TQREDIS_DB_HOST);
    });
    redisReply *reply =
        tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING");
    starter.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(reply->str, "PONG");
    tqredis_free_reply(reply);
  }
  DeviceServers servers_;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_FIXTURES_H_
