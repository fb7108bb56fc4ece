// The emulator's parts one by one: framing, status lines, pmessages, faults.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "faults.h"
#include "pmessage.h"
#include "resp.h"
#include "status_line.h"

namespace devdb {
namespace {

std::vector<std::string> Frames(const std::string &bytes, size_t step) {
  FrameReader reader;
  std::vector<std::string> frames;
  for (size_t pos = 0; pos < bytes.size(); pos += step) {
    EXPECT_TRUE(
        reader.Feed(bytes.data() + pos, std::min(step, bytes.size() - pos)));
    ReplyPtr reply;
    std::string_view raw;
    while (reader.Next(&reply, &raw) == FrameReader::kFrame)
      frames.emplace_back(raw);
  }
  EXPECT_EQ(reader.Pending(), 0u);
  return frames;
}

TEST(DevdbFrames, EachFrameKeepsItsBytesHoweverTheInputIsCut) {
  const std::vector<std::string> want = {
      "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$5\r\nvalue\r\n",
      "+OK\r\n",
      ":42\r\n",
      "$-1\r\n",
      "*2\r\n*1\r\n:1\r\n$0\r\n\r\n",
      "-ERR no\r\n"};
  std::string all;
  for (const std::string &f : want) all += f;
  for (size_t step : {1, 2, 3, 7, 1000}) EXPECT_EQ(Frames(all, step), want);
}

TEST(DevdbFrames, LongPipelinesStayExactAcrossCompaction) {
  std::vector<std::string> want;
  std::string all;
  for (int i = 0; i < 20000; ++i) {
    const std::string v = std::to_string(i);
    want.push_back("$" + std::to_string(v.size()) + "\r\n" + v + "\r\n");
    all += want.back();
  }
  EXPECT_EQ(Frames(all, 4096), want);
}

TEST(DevdbFrames, TextThatIsNotRespIsAnError) {
  FrameReader reader;
  ASSERT_TRUE(reader.Feed("hello\r\n", 7));
  ReplyPtr reply;
  std::string_view raw;
  EXPECT_EQ(reader.Next(&reply, &raw), FrameReader::kError);
}

TEST(DevdbFrames, RequestMustBeAnArrayOfBulkStrings) {
  FrameReader reader;
  const std::string bytes = "*2\r\n$4\r\nPING\r\n:1\r\n*1\r\n$4\r\nping\r\n";
  ASSERT_TRUE(reader.Feed(bytes.data(), bytes.size()));
  ReplyPtr reply;
  std::string_view raw;
  ASSERT_EQ(reader.Next(&reply, &raw), FrameReader::kFrame);
  EXPECT_FALSE(IsRequest(reply.get()));
  ASSERT_EQ(reader.Next(&reply, &raw), FrameReader::kFrame);
  EXPECT_TRUE(IsRequest(reply.get()));
  EXPECT_TRUE(ArgIs(reply.get(), 0, "ping"));
  EXPECT_FALSE(ArgIs(reply.get(), 1, "ping"));
}

TEST(DevdbReplies, NestedReplyIsWrittenBackAsIs) {
  FrameReader reader;
  const std::string bytes =
      "*4\r\n$1\r\na\r\n:7\r\n*2\r\n+st\r\n-er\r\n$-1\r\n";
  ASSERT_TRUE(reader.Feed(bytes.data(), bytes.size()));
  ReplyPtr reply;
  std::string_view raw;
  ASSERT_EQ(reader.Next(&reply, &raw), FrameReader::kFrame);
  std::string out;
  AppendReply(&out, reply.get());
  EXPECT_EQ(out, bytes);
}

ReplyPtr Parse(const std::string &bytes) {
  FrameReader reader;
  reader.Feed(bytes.data(), bytes.size());
  ReplyPtr reply;
  std::string_view raw;
  reader.Next(&reply, &raw);
  return reply;
}

std::string Pmessage(const std::string &pattern, const std::string &channel,
                     const std::string &message) {
  std::string out = "*4\r\n";
  for (const std::string &s :
       {std::string("pmessage"), pattern, channel, message})
    AppendBulk(&out, s);
  return out;
}

TEST(DevdbPmessage, FifthElementFollowsTheFourOfTheServer) {
  ReplyPtr p = Parse(Pmessage("__keyspace@0__:*", "__keyspace@0__:k", "set"));
  ASSERT_TRUE(IsPmessage(p.get()));
  ReplyPtr value = Parse("*2\r\n$1\r\nf\r\n$1\r\nv\r\n");
  std::string out;
  AppendPmessage5(&out, p.get(), value.get());
  EXPECT_EQ(out,
            "*5\r\n$8\r\npmessage\r\n$16\r\n__keyspace@0__:*\r\n$16\r\n"
            "__keyspace@0__:k\r\n$3\r\nset\r\n*2\r\n$1\r\nf\r\n$1\r\nv\r\n");
}

TEST(DevdbPmessage, MissingOrFailedValueIsNil) {
  ReplyPtr p = Parse(Pmessage("*", "__keyspace@0__:k", "del"));
  std::string out;
  AppendPmessage5(&out, p.get(), nullptr);
  EXPECT_EQ(out.substr(out.size() - 5), "$-1\r\n");
  ReplyPtr error = Parse("-ERR busy\r\n");
  out.clear();
  AppendPmessage5(&out, p.get(), error.get());
  EXPECT_EQ(out.substr(out.size() - 5), "$-1\r\n");
}

TEST(DevdbPmessage, KeyspaceChannelNamesKeyAndDatabase) {
  ReplyPtr p = Parse(Pmessage("*", "__keyspace@3__:a:b", "set"));
  KeyRef ref;
  ASSERT_TRUE(KeyOfPmessage(p.get(), &ref));
  EXPECT_EQ(ref.key, "a:b");
  EXPECT_EQ(ref.db, "3");
}

TEST(DevdbPmessage, KeyeventChannelNamesTheKeyInItsMessage) {
  ReplyPtr p = Parse(Pmessage("*", "__keyevent@0__:set", "the:key"));
  KeyRef ref;
  ASSERT_TRUE(KeyOfPmessage(p.get(), &ref));
  EXPECT_EQ(ref.key, "the:key");
  EXPECT_EQ(ref.db, "0");
}

TEST(DevdbPmessage, OtherChannelsNameNoKey) {
  KeyRef ref;
  EXPECT_FALSE(KeyOfPmessage(Parse(Pmessage("*", "news", "x")).get(), &ref));
  EXPECT_FALSE(
      KeyOfPmessage(Parse(Pmessage("*", "__keyspace@x__:k", "x")).get(), &ref));
  EXPECT_FALSE(
      KeyOfPmessage(Parse(Pmessage("*", "__keyspace@0", "x")).get(), &ref));
}

TEST(DevdbPmessage, ThreeElementMessageIsNotAPmessage) {
  EXPECT_FALSE(
      IsPmessage(Parse("*3\r\n$7\r\nmessage\r\n$1\r\nc\r\n$1\r\nm\r\n").get()));
  EXPECT_FALSE(IsPmessage(
      Parse("*4\r\n$8\r\npmessage\r\n$1\r\np\r\n$1\r\nc\r\n:1\r\n").get()));
}

constexpr char kServerLine[] =
    "id=7 addr=/tmp/x/redis_host.sock:0 laddr=/tmp/x/redis_host.sock:0 fd=9 "
    "name=app-pubsub age=12 idle=3 flags=P db=0 sub=1 psub=2 ssub=0 "
    "multi=-1 qbuf=0 qbuf-free=20474 argv-mem=0 multi-mem=0 rbs=1024 rbp=5 "
    "obl=0 oll=0 omem=0 tot-mem=22400 events=r cmd=psubscribe user=default "
    "redir=-1 resp=2";

TEST(DevdbStatusLine, LineHasTheDeviceFieldsInOrder) {
  ClientFigures f;
  f.cmd_num = 5;
  f.cmd_per_sec = 1;
  f.in_bytes = 300;
  f.out_bytes = 400;
  f.in_bps = 30;
  f.out_bps = 40;
  EXPECT_EQ(
      FormatStatusLine(kServerLine, "/tmp/redis/redis_host.sock:0", 11, f),
      "id=7 addr=/tmp/redis/redis_host.sock:0 fd=11 name=app-pubsub "
      "age=12 idle=3 flags=P db=0 sub=1 psub=2 multi=-1 cmd_num=5 "
      "cmd_per_sec=1 in_bytes=300 out_bytes=400 in_bps=30 out_bps=40 "
      "qbuf=0 qbuf-free=20474 obl=0 oll=0 omem=0 events=r "
      "cmd=psubscribe\n");
}

TEST(DevdbStatusLine, EmptyWordAndMissingNumberKeepTheLineReadable) {
  const std::string line =
      FormatStatusLine("id=1 name=x events= flags=N", "a:0", 5, {});
  EXPECT_NE(line.find(" events=- "), std::string::npos) << line;
  EXPECT_NE(line.find(" age=0 "), std::string::npos) << line;
  EXPECT_NE(line.find(" cmd=-\n"), std::string::npos) << line;
}

TEST(DevdbStatusLine, ClientIsFoundByItsWholeName) {
  const std::string list = std::string("id=1 name=app-read cmd=get\n") +
                           kServerLine + "\nid=9 name= cmd=x\n";
  EXPECT_EQ(FindClientLine(list, "app-pubsub"), kServerLine);
  EXPECT_EQ(FindClientLine(list, "app-read"), "id=1 name=app-read cmd=get");
  EXPECT_EQ(FindClientLine(list, "app"), "");
  EXPECT_EQ(FindClientLine(list, ""), "");
}

TEST(DevdbStatusLine, FieldIsMatchedByItsWholeKey) {
  EXPECT_EQ(FieldOf(kServerLine, "qbuf"), "0");
  EXPECT_EQ(FieldOf(kServerLine, "qbuf-free"), "20474");
  EXPECT_EQ(FieldOf(kServerLine, "sub"), "1");
  EXPECT_EQ(FieldOf(kServerLine, "nothing"), "");
}

TEST(DevdbFaultState, StatusFaultCountsDownBeforeTheError) {
  Faults f;
  f.ping_status_left = 2;
  f.ping_status_text = "LOADING";
  f.ping_error = true;
  f.ping_error_text = "ERR down";
  std::string out;
  EXPECT_TRUE(AnswerPing(&f, &out));
  EXPECT_TRUE(AnswerPing(&f, &out));
  EXPECT_TRUE(AnswerPing(&f, &out));
  EXPECT_EQ(out, "+LOADING\r\n+LOADING\r\n-ERR down\r\n");
  f.ping_error = false;
  EXPECT_FALSE(AnswerPing(&f, &out));
}

TEST(DevdbFaultState, EscapesDecodeToTheirBytes) {
  std::string out;
  ASSERT_TRUE(DecodeEscapes("a\\r\\n\\t\\0\\\\\\x41\\xff", &out));
  EXPECT_EQ(out, std::string("a\r\n\t\0\\A\xff", 8));
  for (const char *bad : {"\\", "\\x4", "\\xZZ", "\\q"}) {
    std::string ignored;
    EXPECT_FALSE(DecodeEscapes(bad, &ignored)) << bad;
  }
}

TEST(DevdbFaultState, DatabaseIsNamedOrNumberedOrAll) {
  int first = -1;
  int last = -1;
  ASSERT_TRUE(ParseDbRange("redis_ce_global", &first, &last));
  EXPECT_EQ(first, 1);
  EXPECT_EQ(last, 1);
  ASSERT_TRUE(ParseDbRange("2", &first, &last));
  EXPECT_EQ(first, 2);
  ASSERT_TRUE(ParseDbRange("all", &first, &last));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(last, 2);
  EXPECT_FALSE(ParseDbRange("3", &first, &last));
  EXPECT_FALSE(ParseDbRange("redis", &first, &last));
}

}  // namespace
}  // namespace devdb

namespace devdb {
namespace {

TEST(DevdbGuard, RequestsPassHoweverTheyAreCut) {
  const std::string bytes =
      "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$0\r\n\r\n*0\r\n*-1\r\n*1\r\n$"
      "4\r\nPING\r\n";
  for (size_t step : {1, 2, 5, 100}) {
    RequestGuard guard(64);
    for (size_t pos = 0; pos < bytes.size(); pos += step)
      ASSERT_TRUE(
          guard.Check(bytes.data() + pos, std::min(step, bytes.size() - pos)))
          << "step " << step << " at " << pos;
  }
}

TEST(DevdbGuard, AbsurdCountsAndLengthsAreRefusedAtTheirHeader) {
  for (const char *bad :
       {"*2147483647\r\n", "*1048577\r\n", "*1\r\n$65\r\n", "*1\r\n*1\r\n",
        "*1\r\n:1\r\n", "*1\r\n$-1\r\n", "PING\r\n", "*1\n",
        "*1234567890123456789012345678901234\r\n"}) {
    RequestGuard guard(64);
    EXPECT_FALSE(guard.Check(bad, std::strlen(bad))) << bad;
  }
}

TEST(DevdbGuard, BulkMustEndInCrLf) {
  RequestGuard guard(64);
  EXPECT_FALSE(guard.Check("*1\r\n$1\r\nab\r\n*", 14));
}

}  // namespace
}  // namespace devdb
