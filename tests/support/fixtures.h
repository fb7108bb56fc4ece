// Test fixtures shared by the tests that run commands against real servers.
#ifndef TQREDIS_TESTS_SUPPORT_FIXTURES_H_
#define TQREDIS_TESTS_SUPPORT_FIXTURES_H_

#include <gtest/gtest.h>

#include "support/servers.h"
#include "tqredis.h"

namespace tqtest {

// Three stock servers on the device paths, the library initialised with
// the lock on, every slot connected and the card information read: no
// command waits.
class ConnectedDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(servers_.StartAll());
    tqredis_init(nullptr, 0, nullptr, 2);
    tqredis_db_connect();
    tqredis_get_cardinfo();
  }
  DeviceServers servers_;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_FIXTURES_H_
