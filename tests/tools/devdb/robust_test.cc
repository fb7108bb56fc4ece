// Bad input from one client closes that client only.
#include <unistd.h>

#include <string>

#include "harness.h"

namespace devdbtest {
namespace {

class DevdbRobust : public DevdbTest {
 protected:
  // Another client, connected before the bad one, still served after it.
  void ExpectOthersServed(redisContext *bystander) {
    ReplyPtr r = Command(bystander, {"SET", "still", "here"});
    ASSERT_TRUE(r);
    EXPECT_EQ(std::string(r->str, r->len), "OK");
    ContextPtr fresh = Connect();
    r = Command(fresh.get(), {"GET", "still"});
    ASSERT_TRUE(r);
    EXPECT_EQ(std::string(r->str, r->len), "here");
  }
  // The bad client's bytes; the emulator must close it.
  void ExpectDropped(const std::string &bytes) {
    ContextPtr bystander = Connect();
    ASSERT_TRUE(Command(bystander.get(), {"PING"}));
    const int raw = ConnectRaw(Socket("redis_host"));
    ASSERT_GE(raw, 0);
    WriteAll(raw, bytes);
    EXPECT_TRUE(ClosedByPeer(raw));
    close(raw);
    ExpectOthersServed(bystander.get());
  }
};

TEST_F(DevdbRobust, GarbageClientIsDroppedAndOthersGoOn) {
  ExpectDropped("hello there\r\n");
}

TEST_F(DevdbRobust, BinaryNoiseIsDropped) {
  ExpectDropped(std::string("*\x01\xff\xfe\r\n\0\0", 8));
}

TEST_F(DevdbRobust, RequestOfIntegersIsDropped) {
  ExpectDropped("*2\r\n:1\r\n:2\r\n");
}

TEST_F(DevdbRobust, HalfFrameThenCloseLeavesOthersAlone) {
  ContextPtr bystander = Connect();
  const int raw = ConnectRaw(Socket("redis_host"));
  WriteAll(raw, "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$5\r\nab");
  close(raw);
  ExpectOthersServed(bystander.get());
}

TEST_F(DevdbRobust, HalfFrameIsCompletedLater) {
  const int raw = ConnectRaw(Socket("redis_host"));
  WriteAll(raw, "*1\r\n$4\r\nPI");
  WriteAll(raw, "NG\r\n");
  EXPECT_EQ(ReadAtLeast(raw, 7), "+PONG\r\n");
  close(raw);
}

TEST_F(DevdbRobust, QuitIsAnsweredBeforeTheClose) {
  const int raw = ConnectRaw(Socket("redis_host"));
  WriteAll(raw, "*1\r\n$4\r\nQUIT\r\n");
  EXPECT_EQ(ReadAtLeast(raw, 5), "+OK\r\n");
  EXPECT_TRUE(ClosedByPeer(raw));
  close(raw);
}

class DevdbSmallLimit : public DevdbRobust {
 protected:
  void SetUp() override { StartEmulator({"--max-request", "4096"}); }
};

TEST_F(DevdbSmallLimit, HugeBulkIsDroppedOnceItOutgrowsTheLimit) {
  std::string bytes = "*2\r\n$3\r\nGET\r\n$1000000000\r\n";
  bytes.append(8192, 'x');
  ExpectDropped(bytes);
}

TEST_F(DevdbSmallLimit, RequestsUnderTheLimitPass) {
  ContextPtr c = Connect();
  const std::string value(3000, 'v');
  ReplyPtr r = Command(c.get(), {"SET", "big", value});
  ASSERT_TRUE(r);
  r = Command(c.get(), {"GET", "big"});
  ASSERT_TRUE(r);
  EXPECT_EQ(std::string(r->str, r->len), value);
}

}  // namespace
}  // namespace devdbtest
