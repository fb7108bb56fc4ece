// "CLIENT LIST <name>" answers the device's status line, or "offline".
#include <hiredis/hiredis.h>

#include <cstdio>
#include <string>

#include "harness.h"

namespace devdbtest {
namespace {

// The reader's scan format, blanks and all: a line must give all 24 fields.
#define RUN41 "                                         "
static_assert(sizeof RUN41 - 1 == 41);
#define SCAN_FORMAT                                                     \
  "id=%d addr=%s fd=%d name=%s age=%lld idle=%lld flags=%s db=%d" RUN41 \
  "sub=%d psub=%d multi=%d cmd_num=%lld cmd_per_sec=%lld" RUN41         \
  "in_bytes=%lld out_bytes=%lld in_bps=%lld out_bps=%lld" RUN41         \
  "qbuf=%llu qbuf-free=%llu obl=%llu oll=%llu omem=%llu" RUN41          \
  "events=%s cmd=%s\n"

struct Status {
  int id, fd, db, sub, psub, multi;
  char addr[256], name[256], flags[256], events[256], cmd[256];
  long long age, idle, cmd_num, cmd_per_sec, in_bytes, out_bytes, in_bps,
      out_bps;
  unsigned long long qbuf, qbuf_free, obl, oll, omem;
};

int Scan(const std::string &line, Status *s) {
  return std::sscanf(
      line.c_str(), SCAN_FORMAT, &s->id, s->addr, &s->fd, s->name, &s->age,
      &s->idle, s->flags, &s->db, &s->sub, &s->psub, &s->multi, &s->cmd_num,
      &s->cmd_per_sec, &s->in_bytes, &s->out_bytes, &s->in_bps, &s->out_bps,
      &s->qbuf, &s->qbuf_free, &s->obl, &s->oll, &s->omem, s->events, s->cmd);
}

std::string Formatted(const char *format, const char *arg) {
  char *cmd = nullptr;
  const int len = redisFormatCommand(&cmd, format, arg);
  std::string bytes(cmd, static_cast<size_t>(len));
  redisFreeCommand(cmd);
  return bytes;
}

using DevdbClientList = DevdbTest;

TEST_F(DevdbClientList, NamedConnectionGetsALineWithAll24Fields) {
  ContextPtr named = Connect();
  Command(named.get(), {"CLIENT", "SETNAME", "proc-read"});
  Command(named.get(), {"SET", "a", "1"});
  ContextPtr asker = Connect();
  ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST", "proc-read"});
  ASSERT_TRUE(r);
  ASSERT_EQ(r->type, REDIS_REPLY_STRING);
  const std::string line(r->str, r->len);
  Status s{};
  ASSERT_EQ(Scan(line, &s), 24) << line;
  EXPECT_EQ(line.back(), '\n');
  EXPECT_EQ(std::string(s.name), "proc-read");
  EXPECT_EQ(std::string(s.addr), Socket("redis_host") + ":0");
  EXPECT_GT(s.fd, 2);
  EXPECT_GT(s.id, 0);
  EXPECT_EQ(s.db, 0);
  EXPECT_EQ(s.sub, 0);
  EXPECT_EQ(s.psub, 0);
  EXPECT_EQ(s.multi, -1);
  EXPECT_EQ(std::string(s.cmd), "set");
  // Counted by the emulator: two requests in, two "+OK\r\n" out.
  EXPECT_EQ(s.cmd_num, 2);
  EXPECT_EQ(s.in_bytes, static_cast<long long>(
                            Formatted("CLIENT SETNAME %s", "proc-read").size() +
                            Formatted("SET a %s", "1").size()));
  EXPECT_EQ(s.out_bytes, 10);
}

TEST_F(DevdbClientList, UnknownNameAnswersOffline) {
  ContextPtr asker = Connect();
  ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST", "nobody-read"});
  ASSERT_TRUE(r);
  ASSERT_EQ(r->type, REDIS_REPLY_STRING);
  EXPECT_EQ(std::string(r->str, r->len), "offline");
}

TEST_F(DevdbClientList, NameOfAClosedConnectionAnswersOffline) {
  {
    ContextPtr named = Connect();
    Command(named.get(), {"CLIENT", "SETNAME", "brief-write"});
  }
  ContextPtr asker = Connect();
  // The server notices the close a moment later; ask until it has.
  std::string answer;
  for (int i = 0; i < 1000 && answer != "offline"; ++i) {
    ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST", "brief-write"});
    ASSERT_TRUE(r);
    answer.assign(r->str, r->len);
  }
  EXPECT_EQ(answer, "offline");
}

TEST_F(DevdbClientList, NameIsMatchedWholeNotAsAPrefix) {
  ContextPtr named = Connect();
  Command(named.get(), {"CLIENT", "SETNAME", "proc-readx"});
  ContextPtr asker = Connect();
  ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST", "proc-read"});
  ASSERT_TRUE(r);
  EXPECT_EQ(std::string(r->str, r->len), "offline");
}

TEST_F(DevdbClientList, PipelinedRequestsKeepTheirRepliesInOrder) {
  const int raw = ConnectRaw(Socket("redis_host"));
  ASSERT_GE(raw, 0);
  WriteAll(raw,
           "*3\r\n$6\r\nCLIENT\r\n$7\r\nSETNAME\r\n$6\r\npipe-r\r\n"
           "*3\r\n$6\r\nCLIENT\r\n$4\r\nLIST\r\n$7\r\nnobody1\r\n"
           "*3\r\n$6\r\nCLIENT\r\n$4\r\nLIST\r\n$6\r\npipe-r\r\n"
           "*1\r\n$4\r\nPING\r\n");
  const std::string head = "+OK\r\n$7\r\noffline\r\n$";
  std::string got = ReadAtLeast(raw, head.size());
  ASSERT_EQ(got.substr(0, head.size()), head);
  // Then the status line of pipe-r, seen after its SETNAME, then PONG.
  while (got.size() < 7 || got.substr(got.size() - 7) != "+PONG\r\n") {
    const std::string more = ReadAtLeast(raw, 1);
    ASSERT_FALSE(more.empty()) << got;
    got += more;
  }
  EXPECT_NE(got.find("name=pipe-r "), std::string::npos) << got;
  EXPECT_EQ(got.find("+PONG"), got.size() - 7);
  close(raw);
}

TEST_F(DevdbClientList, SubscribedConnectionShowsItsPatternCount) {
  ContextPtr named = Connect();
  Command(named.get(), {"CLIENT", "SETNAME", "proc-pubsub"});
  Command(named.get(), {"PSUBSCRIBE", "__keyspace@0__:a*"});
  ReplyPtr second = Command(named.get(), {"PSUBSCRIBE", "__keyspace@0__:b*"});
  ASSERT_TRUE(second);
  ContextPtr asker = Connect();
  ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST", "proc-pubsub"});
  ASSERT_TRUE(r);
  Status s{};
  ASSERT_EQ(Scan(std::string(r->str, r->len), &s), 24);
  EXPECT_EQ(s.psub, 2);
  EXPECT_EQ(s.sub, 0);
  EXPECT_EQ(std::string(s.cmd), "psubscribe");
}

TEST_F(DevdbClientList, PlainClientListIsTheServersOwn) {
  ContextPtr asker = Connect();
  ReplyPtr r = Command(asker.get(), {"CLIENT", "LIST"});
  ASSERT_TRUE(r);
  ASSERT_EQ(r->type, REDIS_REPLY_STRING);
  EXPECT_NE(std::string(r->str, r->len).find("cmd=client|list"),
            std::string::npos);
}

TEST_F(DevdbClientList, RedisCliGetsOfflineForAnUnknownName) {
  const Output o = RunProgram({"redis-cli", "-s", Socket("redis_host"),
                               "CLIENT", "LIST", "ghost-read"});
  EXPECT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "offline");  // printed raw: its output is no terminal
}

}  // namespace
}  // namespace devdbtest
