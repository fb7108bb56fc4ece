// Notifications through the emulator carry the key's value as a fifth element.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "harness.h"

namespace devdbtest {
namespace {

class DevdbPubsub : public DevdbTest {
 protected:
  // A connection subscribed to every key of logical database 0.
  ContextPtr Subscribe(const std::string &pattern = "__keyspace@0__:*") {
    ContextPtr sub = Connect();
    ReplyPtr ok = Command(sub.get(), {"PSUBSCRIBE", pattern});
    EXPECT_TRUE(ok && ok->type == REDIS_REPLY_ARRAY && ok->elements == 3);
    return sub;
  }
  // The next notification of `event`, skipping others (EXPIRE, for one).
  ReplyPtr NextEvent(redisContext *sub, const std::string &event) {
    for (;;) {
      ReplyPtr r = Next(sub);
      if (!r) return r;
      if (r->type == REDIS_REPLY_ARRAY && r->elements >= 4 &&
          event == r->element[3]->str)
        return r;
    }
  }
  static std::vector<std::string> Strings(const redisReply *array) {
    std::vector<std::string> out;
    for (size_t i = 0; i < array->elements; ++i)
      out.emplace_back(array->element[i]->str, array->element[i]->len);
    return out;
  }
};

TEST_F(DevdbPubsub, SetNotificationIsTheExactFiveElementFrame) {
  const int raw = ConnectRaw(Socket("redis_host"));
  ASSERT_GE(raw, 0);
  WriteAll(raw, "*2\r\n$10\r\nPSUBSCRIBE\r\n$16\r\n__keyspace@0__:*\r\n");
  const std::string confirm =
      "*3\r\n$10\r\npsubscribe\r\n$16\r\n__keyspace@0__:*\r\n:1\r\n";
  ASSERT_EQ(ReadAtLeast(raw, confirm.size()), confirm);
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "k", "v"});
  const std::string expected =
      "*5\r\n$8\r\npmessage\r\n$16\r\n__keyspace@0__:*\r\n"
      "$16\r\n__keyspace@0__:k\r\n$3\r\nset\r\n$1\r\nv\r\n";
  EXPECT_EQ(ReadAtLeast(raw, expected.size()), expected);
  close(raw);
}

TEST_F(DevdbPubsub, SetNotificationCarriesTheNewValue) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "/a/b", "hello world"});
  ReplyPtr n = NextEvent(sub.get(), "set");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  EXPECT_EQ(
      Strings(n.get()),
      (std::vector<std::string>{"pmessage", "__keyspace@0__:*",
                                "__keyspace@0__:/a/b", "set", "hello world"}));
  EXPECT_EQ(n->element[4]->type, REDIS_REPLY_STRING);
}

TEST_F(DevdbPubsub, HsetNotificationCarriesFieldValuePairs) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"HSET", "h", "f1", "v1", "f2", "v2"});
  ReplyPtr n = NextEvent(sub.get(), "hset");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  ASSERT_EQ(n->element[4]->type, REDIS_REPLY_ARRAY);
  EXPECT_EQ(Strings(n->element[4]),
            (std::vector<std::string>{"f1", "v1", "f2", "v2"}));
}

TEST_F(DevdbPubsub, SaddNotificationCarriesTheMembers) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"SADD", "s", "m2", "m1"});
  ReplyPtr n = NextEvent(sub.get(), "sadd");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  ASSERT_EQ(n->element[4]->type, REDIS_REPLY_ARRAY);
  std::vector<std::string> members = Strings(n->element[4]);
  std::sort(members.begin(), members.end());  // a set has no order
  EXPECT_EQ(members, (std::vector<std::string>{"m1", "m2"}));
}

TEST_F(DevdbPubsub, RpushNotificationCarriesTheElementsInOrder) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"RPUSH", "l", "x", "y", "z"});
  ReplyPtr n = NextEvent(sub.get(), "rpush");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  ASSERT_EQ(n->element[4]->type, REDIS_REPLY_ARRAY);
  EXPECT_EQ(Strings(n->element[4]), (std::vector<std::string>{"x", "y", "z"}));
}

TEST_F(DevdbPubsub, ZaddNotificationCarriesMembersWithScores) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"ZADD", "z", "2", "b", "1.5", "a"});
  ReplyPtr n = NextEvent(sub.get(), "zadd");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  ASSERT_EQ(n->element[4]->type, REDIS_REPLY_ARRAY);
  EXPECT_EQ(Strings(n->element[4]),
            (std::vector<std::string>{"a", "1.5", "b", "2"}));
}

TEST_F(DevdbPubsub, DelNotificationCarriesNil) {
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "gone", "1"});
  ContextPtr sub = Subscribe();
  Command(writer.get(), {"DEL", "gone"});
  ReplyPtr n = NextEvent(sub.get(), "del");
  ASSERT_TRUE(n);
  ASSERT_EQ(n->elements, 5u);
  EXPECT_EQ(std::string(n->element[2]->str), "__keyspace@0__:gone");
  EXPECT_EQ(n->element[4]->type, REDIS_REPLY_NIL);
}

TEST_F(DevdbPubsub, ExpiredNotificationCarriesNil) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "brief", "1", "PX", "20"});
  ReplyPtr n = NextEvent(sub.get(), "expired");
  ASSERT_TRUE(n) << "no expired event";
  ASSERT_EQ(n->elements, 5u);
  EXPECT_EQ(std::string(n->element[2]->str), "__keyspace@0__:brief");
  EXPECT_EQ(n->element[4]->type, REDIS_REPLY_NIL);
}

TEST_F(DevdbPubsub, PipelinedWritesArriveInOrderWithTheirValues) {
  ContextPtr sub = Subscribe();
  ContextPtr writer = Connect();
  constexpr int kKeys = 200;
  for (int i = 0; i < kKeys; ++i) {
    const std::string key = "k" + std::to_string(i);
    const std::string value = std::to_string(i);
    redisAppendCommand(writer.get(), "SET %s %s", key.c_str(), value.c_str());
  }
  for (int i = 0; i < kKeys; ++i) Next(writer.get());
  for (int i = 0; i < kKeys; ++i) {
    ReplyPtr n = Next(sub.get());
    ASSERT_TRUE(n);
    ASSERT_EQ(n->elements, 5u);
    EXPECT_EQ(std::string(n->element[2]->str),
              "__keyspace@0__:k" + std::to_string(i));
    EXPECT_EQ(std::string(n->element[4]->str), std::to_string(i));
  }
}

TEST_F(DevdbPubsub, KeyeventChannelCarriesTheValueOfTheKeyItNames) {
  ContextPtr sub = Subscribe("__keyevent@0__:set");
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "ev", "42"});
  ReplyPtr n = Next(sub.get());
  ASSERT_TRUE(n);
  EXPECT_EQ(Strings(n.get()),
            (std::vector<std::string>{"pmessage", "__keyevent@0__:set",
                                      "__keyevent@0__:set", "ev", "42"}));
}

TEST_F(DevdbPubsub, PublishedMessageOnAPlainChannelStaysThreeElements) {
  ContextPtr sub = Connect();
  Command(sub.get(), {"SUBSCRIBE", "news"});
  ContextPtr writer = Connect();
  Command(writer.get(), {"PUBLISH", "news", "hi"});
  ReplyPtr n = Next(sub.get());
  ASSERT_TRUE(n);
  EXPECT_EQ(Strings(n.get()),
            (std::vector<std::string>{"message", "news", "hi"}));
}

TEST_F(DevdbPubsub, OtherDatabasesHaveTheirOwnKeys) {
  ContextPtr sub = Subscribe();
  ContextPtr other = Connect("redis_de_global");
  Command(other.get(), {"SET", "k", "elsewhere"});
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "k", "here"});
  ReplyPtr n = NextEvent(sub.get(), "set");
  ASSERT_TRUE(n);
  EXPECT_EQ(std::string(n->element[4]->str), "here");
}

TEST_F(DevdbPubsub, RedisCliPrintsTheFifthElement) {
  int out = -1;
  const pid_t cli = Spawn({"redis-cli", "-s", Socket("redis_host"),
                           "PSUBSCRIBE", "__keyspace@0__:*"},
                          &out);
  ASSERT_GT(cli, 0);
  // The confirmation's count, printed once the subscription stands.
  const std::vector<std::string> head = ReadLinesUntil(out, "1");
  ASSERT_EQ(head,
            (std::vector<std::string>{"psubscribe", "__keyspace@0__:*", "1"}));
  ContextPtr writer = Connect();
  Command(writer.get(), {"SET", "cli", "seen"});
  EXPECT_EQ(ReadLinesUntil(out, "seen"),
            (std::vector<std::string>{"pmessage", "__keyspace@0__:*",
                                      "__keyspace@0__:cli", "set", "seen"}));
  kill(cli, SIGTERM);
  waitpid(cli, nullptr, 0);
  close(out);
}

}  // namespace
}  // namespace devdbtest
