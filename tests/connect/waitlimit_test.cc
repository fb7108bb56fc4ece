// The waitlimit switch: every wait that never ended gives up after the
// limit with a level-8 line, and a silent server no longer ends the process.
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "tqredis.h"

using tqtest::Logged;

namespace {

constexpr long kLimitMs = 1500;
// Far below "for ever", far above any scheduling delay.
constexpr long kSlackMs = 3000;

struct Timed {
  redisReply *reply = nullptr;
  long elapsed_ms = 0;
  std::string log;  // level-8 lines, prefixes reduced to "<func>:"
};

// Runs a command and measures it on the monotonic clock.
template <typename F>
Timed Measure(F &&command) {
  Timed t;
  t.log = Logged(TQREDIS_LOG_ERROR, [&] {
    const auto start = std::chrono::steady_clock::now();
    t.reply = command();
    t.elapsed_ms =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count());
  });
  return t;
}

size_t Count(const std::string &text, const std::string &line) {
  size_t n = 0;
  for (size_t at = text.find(line); at != std::string::npos;
       at = text.find(line, at + line.size())) {
    ++n;
  }
  return n;
}

// The receive time-out of a socket, in milliseconds.
long ReceiveTimeoutMs(int fd) {
  struct timeval tv = {0, 0};
  socklen_t len = sizeof(tv);
  if (getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len) != 0) return -1;
  return static_cast<long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

long SendTimeoutMs(int fd) {
  struct timeval tv = {0, 0};
  socklen_t len = sizeof(tv);
  if (getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len) != 0) return -1;
  return static_cast<long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

std::string Text(const redisReply *r) {
  return r != nullptr && r->str != nullptr ? std::string(r->str, r->len)
                                           : std::string("<no text>");
}

class WaitLimit : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(tqredis_set_option("waitlimit", kLimitMs), 0);
  }
};

// Nothing listens on the device's sockets (a private, empty /tmp/redis).
using WaitLimitNoServer = WaitLimit;

class WaitLimitServed : public WaitLimit {
 protected:
  void SetUp() override {
    WaitLimit::SetUp();
    ASSERT_TRUE(emulator_.Start());
  }
  tqtest::DeviceEmulator emulator_;
};

}  // namespace

TEST_F(WaitLimitNoServer, CommandBeforeInitGivesUpAfterTheLimit) {
  const Timed t =
      Measure([] { return tqredis_db_command(2, 0, -1, 0, "GET k"); });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(t.log,
            "<WaitCardinfo>:redis_host read wait for init gave up after "
            "1500 ms\r\n");
}

TEST_F(WaitLimitNoServer, CommandBeforeInitWithNoReconnectGivesUpAtOnce) {
  const Timed t = Measure([] {
    return tqredis_db_command(0, 1, -1, TQREDIS_CMD_NO_RECONNECT, "SET k v");
  });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_LT(t.elapsed_ms, kLimitMs);
  EXPECT_EQ(t.log,
            "<WaitCardinfo>:redis_de_global write wait for init gave up at "
            "once (no reconnect)\r\n");
}

TEST_F(WaitLimitNoServer, ReadWithNoServerGivesUpAfterTheLimit) {
  tqredis_init(nullptr, 0, nullptr, 0);
  const Timed t =
      Measure([] { return tqredis_db_command(2, 0, -1, 0, "GET k"); });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(Count(t.log,
                  "<tqredis_reconnect_thread>:redis_host read wait for "
                  "reconnect gave up after 1500 ms\r\n"),
            1u)
      << t.log;
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 0);
}

TEST_F(WaitLimitNoServer, CardinfoWaitWithNoServerGivesUpAfterTheLimit) {
  tqredis_init(nullptr, 0, nullptr, 0);
  const Timed t =
      Measure([] { return tqredis_db_command(0, 0, -1, 0, "GET k"); });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(Count(t.log,
                  "<WaitCardinfo>:redis_de_global read wait for cardinfo "
                  "gave up after 1500 ms\r\n"),
            1u)
      << t.log;
}

TEST_F(WaitLimitNoServer, NoReconnectReturnsAtOnceFromTheCardinfoWait) {
  tqredis_init(nullptr, 0, nullptr, 0);
  const Timed t = Measure([] {
    return tqredis_db_command(0, 0, -1, TQREDIS_CMD_NO_RECONNECT, "GET k");
  });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_LT(t.elapsed_ms, kLimitMs);
  EXPECT_EQ(Count(t.log,
                  "<WaitCardinfo>:redis_de_global read wait for cardinfo "
                  "gave up at once (no reconnect)\r\n"),
            1u)
      << t.log;
}

TEST_F(WaitLimitServed, PingProbeGivesUpWhileTheServerAnswersSomethingElse) {
  ASSERT_EQ(emulator_.Ctl({"ping-status", "redis_host", "1000"}).exit_code, 0);
  int rc = 0;
  const Timed t = Measure([&] {
    rc = tqredis_connect(2, 0);
    return nullptr;
  });
  EXPECT_EQ(rc, -1);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(t.log,
            "<tqredis_db_wait_ready>:redis_host read wait for PONG gave up "
            "after 1500 ms\r\n");
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 0);
}

TEST_F(WaitLimitServed, StalledServerMakesAReadReturnNullAndTheProcessGoesOn) {
  tqredis_init(nullptr, 0, nullptr, 0);
  redisReply *r = tqredis_db_command(2, 0, -1, 0, "SET k v");
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);
  ASSERT_EQ(emulator_.Ctl({"stall", "redis_host", "0"}).exit_code, 0);
  const Timed t =
      Measure([] { return tqredis_db_command(2, 0, -1, 0, "GET k"); });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(t.log,
            "<tqredis_exec_command>:redis_host[read] read command fail\r\n"
            "<DropTimedOut>:redis_host read wait for reply gave up after "
            "1500 ms\r\n");
  // Still here: the slot was freed, not the process ended.
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 0);
  ASSERT_EQ(emulator_.Ctl({"clear", "redis_host"}).exit_code, 0);
  r = tqredis_db_command(2, 0, -1, 0, "GET k");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(Text(r), "v");
  freeReplyObject(r);
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 1);
}

// A stock server frozen by SIGSTOP reads nothing: an 8 MB write fills the
// socket and blocks, until the send time-out ends it.
class WaitLimitFrozen : public WaitLimit {
 protected:
  void SetUp() override {
    WaitLimit::SetUp();
    ASSERT_TRUE(servers_.StartAll());
    tqtest::ConnectDevice();
  }
  void TearDown() override { servers_.Freeze(TQREDIS_DB_HOST, false); }
  tqtest::DeviceServers servers_;
};

TEST_F(WaitLimitFrozen, WriteToAServerThatStopsReadingGivesUpAfterTheLimit) {
  redisReply *r = tqredis_db_command(2, 0, -1, 0, "SET k v");
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);
  servers_.Freeze(TQREDIS_DB_HOST, true);
  // Far beyond what a unix socket holds.
  const std::string value(8 << 20, 'x');
  const Timed t = Measure([&] {
    return tqredis_db_command(2, 1, -1, TQREDIS_CMD_COMMIT, "SET big %s",
                              value.c_str());
  });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  // On the master card writes travel on the read connection.
  EXPECT_EQ(t.log,
            "<tqredis_exec_command>:redis_host[write] commit command fail\r\n"
            "<DropTimedOut>:redis_host read wait for write gave up after "
            "1500 ms\r\n");
  // Still here, the slot freed; it connects again once the server reads.
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 0);
  servers_.Freeze(TQREDIS_DB_HOST, false);
  r = tqredis_db_command(2, 0, -1, 0, "GET k");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(Text(r), "v");
  freeReplyObject(r);
  EXPECT_EQ(tqredis_db_is_connected(2, 0), 1);
}

TEST_F(WaitLimitServed, LimitSetAfterConnectingBoundsTheNextRead) {
  ASSERT_EQ(tqredis_set_option("waitlimit", 0), 0);
  tqredis_init(nullptr, 0, nullptr, 0);
  redisReply *r = tqredis_db_command(2, 0, -1, 0, "SET k v");
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);
  const int fd = tqredis_get_context(2, 0)->fd;
  EXPECT_EQ(ReceiveTimeoutMs(fd), 0);
  ASSERT_EQ(tqredis_set_option("waitlimit", kLimitMs), 0);
  ASSERT_EQ(emulator_.Ctl({"stall", "redis_host", "0"}).exit_code, 0);
  const Timed t =
      Measure([] { return tqredis_db_command(2, 0, -1, 0, "GET k"); });
  EXPECT_EQ(t.reply, nullptr);
  EXPECT_GE(t.elapsed_ms, kLimitMs);
  EXPECT_LT(t.elapsed_ms, kLimitMs + kSlackMs);
  EXPECT_EQ(Count(t.log,
                  "<DropTimedOut>:redis_host read wait for reply gave up "
                  "after 1500 ms\r\n"),
            1u)
      << t.log;
}

TEST_F(WaitLimitServed, ReadAndWriteSocketsGetTheLimitPubsubNone) {
  tqredis_init(nullptr, 0, nullptr, 0);
  redisReply *r = tqredis_db_command(2, 0, -1, 0, "PING");
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);
  ASSERT_EQ(tqredis_db_is_connected(2, 2), 1);
  const int read_fd = tqredis_get_context(2, 0)->fd;
  const int pubsub_fd = tqredis_get_context(2, 2)->fd;
  EXPECT_EQ(ReceiveTimeoutMs(read_fd), kLimitMs);
  EXPECT_EQ(SendTimeoutMs(read_fd), kLimitMs);
  // The pump reads it only when select() says so; a time-out would only
  // break a long notification in two.
  EXPECT_EQ(ReceiveTimeoutMs(pubsub_fd), 0);
  EXPECT_EQ(SendTimeoutMs(pubsub_fd), 0);
}

TEST_F(WaitLimitServed, OffLeavesEverySocketWithoutATimeout) {
  ASSERT_EQ(tqredis_set_option("waitlimit", 0), 0);
  tqredis_init(nullptr, 0, nullptr, 0);
  redisReply *r = tqredis_db_command(2, 0, -1, 0, "PING");
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);
  for (int op : {0, 2}) {
    const int fd = tqredis_get_context(2, static_cast<uint32_t>(op))->fd;
    EXPECT_EQ(ReceiveTimeoutMs(fd), 0) << op;
    EXPECT_EQ(SendTimeoutMs(fd), 0) << op;
  }
}
