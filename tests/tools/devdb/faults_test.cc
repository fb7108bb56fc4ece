// Faults on demand through "tqredis-devdb ctl", each one undone again.
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace devdbtest {
namespace {

using DevdbFaults = DevdbTest;

std::string Text(const ReplyPtr &r) {
  return r ? std::string(r->str, r->len) : std::string("<no reply>");
}

TEST_F(DevdbFaults, PingErrorAnswersAnErrorUntilCleared) {
  ContextPtr c = Connect();
  const Output set = Ctl({"ping-error", "redis_host"});
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.out, "OK\n");
  ReplyPtr r = Command(c.get(), {"PING"});
  ASSERT_TRUE(r);
  EXPECT_EQ(r->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(Text(r), "ERR devdb fault: PING");
  ASSERT_EQ(Ctl({"clear", "redis_host"}).code, 0);
  r = Command(c.get(), {"PING"});
  EXPECT_EQ(r->type, REDIS_REPLY_STATUS);
  EXPECT_EQ(Text(r), "PONG");
}

TEST_F(DevdbFaults, PingErrorUsesTheGivenText) {
  ASSERT_EQ(Ctl({"ping-error", "redis_host", "LOADING not yet"}).code, 0);
  ContextPtr c = Connect();
  ReplyPtr r = Command(c.get(), {"PING"});
  EXPECT_EQ(r->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(Text(r), "LOADING not yet");
}

TEST_F(DevdbFaults, PingStatusAnswersTheNextNPingsThenPong) {
  ASSERT_EQ(Ctl({"ping-status", "redis_host", "2"}).code, 0);
  ContextPtr c = Connect();
  for (const char *want : {"LOADING", "LOADING", "PONG"}) {
    ReplyPtr r = Command(c.get(), {"PING"});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->type, REDIS_REPLY_STATUS);
    EXPECT_EQ(Text(r), want);
  }
}

TEST_F(DevdbFaults, PingStatusUsesTheGivenText) {
  ASSERT_EQ(Ctl({"ping-status", "1", "1", "BUSY"}).code, 0);
  ContextPtr c = Connect("redis_ce_global");
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "BUSY");
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, PingFaultLeavesOtherDatabasesAlone) {
  ASSERT_EQ(Ctl({"ping-error", "redis_host"}).code, 0);
  ContextPtr c = Connect("redis_de_global");
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, CloseDropsEveryClientOfTheDatabaseOnly) {
  ContextPtr a = Connect();
  ContextPtr b = Connect();
  ContextPtr other = Connect("redis_de_global");
  ASSERT_TRUE(Command(a.get(), {"PING"}));
  ASSERT_TRUE(Command(b.get(), {"PING"}));
  ASSERT_TRUE(Command(other.get(), {"PING"}));
  const Output o = Ctl({"close", "redis_host"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "2\n");
  EXPECT_FALSE(Command(a.get(), {"PING"}));
  EXPECT_FALSE(Command(b.get(), {"PING"}));
  EXPECT_EQ(Text(Command(other.get(), {"PING"})), "PONG");
  ContextPtr fresh = Connect();
  EXPECT_EQ(Text(Command(fresh.get(), {"PING"})), "PONG");
}

// Connections named as tqredis names them, "<process>-<kind>", and some
// that only look alike.
TEST_F(DevdbFaults, CloseOfAKindDropsOnlyConnectionsNamedForIt) {
  ContextPtr read = Connect();
  ContextPtr write = Connect();
  ContextPtr pubsub = Connect();
  ContextPtr unnamed = Connect();
  ContextPtr lookalike = Connect();
  ContextPtr other_db = Connect("redis_de_global");
  ASSERT_EQ(Text(Command(read.get(), {"CLIENT", "SETNAME", "proc-read"})),
            "OK");
  ASSERT_EQ(Text(Command(write.get(), {"CLIENT", "SETNAME", "proc-write"})),
            "OK");
  ASSERT_EQ(Text(Command(pubsub.get(), {"CLIENT", "SETNAME", "proc-pubsub"})),
            "OK");
  ASSERT_EQ(
      Text(Command(lookalike.get(), {"CLIENT", "SETNAME", "proc-read-x"})),
      "OK");
  ASSERT_EQ(Text(Command(other_db.get(), {"CLIENT", "SETNAME", "proc-read"})),
            "OK");
  ASSERT_TRUE(Command(pubsub.get(), {"PSUBSCRIBE", "__keyspace@0__:*"}));
  ASSERT_TRUE(Command(unnamed.get(), {"PING"}));

  Output o = Ctl({"close", "redis_host", "read"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "1\n");
  EXPECT_FALSE(Command(read.get(), {"PING"}));
  EXPECT_EQ(Text(Command(write.get(), {"PING"})), "PONG");
  EXPECT_EQ(Text(Command(unnamed.get(), {"PING"})), "PONG");
  EXPECT_EQ(Text(Command(lookalike.get(), {"PING"})), "PONG");
  EXPECT_EQ(Text(Command(other_db.get(), {"PING"})), "PONG");

  o = Ctl({"close", "redis_host", "pubsub"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "1\n");
  EXPECT_FALSE(Next(pubsub.get()));
  EXPECT_EQ(Text(Command(write.get(), {"PING"})), "PONG");

  o = Ctl({"close", "all", "write"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "1\n");
  EXPECT_FALSE(Command(write.get(), {"PING"}));
  EXPECT_EQ(Text(Command(other_db.get(), {"PING"})), "PONG");

  // Nothing left of the kind: nothing closed, and no error.
  o = Ctl({"close", "redis_host", "pubsub"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "0\n");
  EXPECT_EQ(Text(Command(unnamed.get(), {"PING"})), "PONG");
  EXPECT_EQ(Text(Command(lookalike.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, CloseOfAKindOnAllDatabasesCountsEveryOneClosed) {
  ContextPtr host = Connect();
  ContextPtr de = Connect("redis_de_global");
  ContextPtr ce = Connect("redis_ce_global");
  ASSERT_EQ(Text(Command(host.get(), {"CLIENT", "SETNAME", "a-read"})), "OK");
  ASSERT_EQ(Text(Command(de.get(), {"CLIENT", "SETNAME", "b-read"})), "OK");
  ASSERT_EQ(Text(Command(ce.get(), {"CLIENT", "SETNAME", "c-write"})), "OK");
  const Output o = Ctl({"close", "all", "read"});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "2\n");
  EXPECT_FALSE(Command(host.get(), {"PING"}));
  EXPECT_FALSE(Command(de.get(), {"PING"}));
  EXPECT_EQ(Text(Command(ce.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, CloseWithAnUnknownKindClosesNothing) {
  ContextPtr c = Connect();
  ASSERT_EQ(Text(Command(c.get(), {"CLIENT", "SETNAME", "proc-read"})), "OK");
  ContextPtr ctl(redisConnectUnix((dir_ + "/tqredis-devdb.ctl").c_str()));
  ASSERT_TRUE(ctl);
  ASSERT_EQ(ctl->err, 0);
  for (const char *kind : {"reader", "READ", ""}) {
    ReplyPtr r = Command(ctl.get(), {"close", "redis_host", kind});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->type, REDIS_REPLY_ERROR) << kind;
    EXPECT_EQ(Text(r), "ERR unknown connection kind (read, write, pubsub)");
  }
  ReplyPtr r = Command(ctl.get(), {"close", "redis_host", "read", "more"});
  ASSERT_TRUE(r);
  EXPECT_EQ(Text(r), "ERR unknown control command or wrong arguments");
  EXPECT_EQ(Ctl({"close", "redis_host", "reader"}).code, 1);
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, RefuseMakesConnectingFailUntilCleared) {
  ContextPtr before = Connect();
  ASSERT_EQ(Ctl({"refuse", "redis_host", "0"}).code, 0);
  ContextPtr refused = Connect();
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->err, 0);
  EXPECT_EQ(std::string(refused->errstr), "Connection refused");
  EXPECT_EQ(Text(Command(before.get(), {"PING"})), "PONG")
      << "a connection made before stays";
  ASSERT_EQ(Ctl({"clear", "redis_host"}).code, 0);
  ContextPtr after = Connect();
  ASSERT_EQ(after->err, 0);
  EXPECT_EQ(Text(Command(after.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, RefuseForAWhileEndsByItself) {
  ASSERT_EQ(Ctl({"refuse", "redis_host", "50"}).code, 0);
  ContextPtr c;
  for (int i = 0; i < 1000; ++i) {
    c = Connect();
    if (c->err == 0) break;
    usleep(10000);
  }
  ASSERT_EQ(c->err, 0);
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, StallSwallowsRequestsUnansweredUntilCleared) {
  const int raw = ConnectRaw(Socket("redis_host"));
  const Output set = Ctl({"stall", "redis_host", "0"});
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.out, "OK\n");
  WriteAll(raw, "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
  WriteAll(raw, "*1\r\n$4\r\nPING\r\n");
  // Once the control answers, both requests have been read: the emulator
  // is one thread and reads what a poll finds before the next poll.
  EXPECT_EQ(Ctl({"faults"}).out,
            "redis_de_global ping-error=off ping-status=0 refuse=off\n"
            "redis_ce_global ping-error=off ping-status=0 refuse=off\n"
            "redis_host ping-error=off ping-status=0 refuse=off stall=on\n");
  ASSERT_EQ(Ctl({"clear", "redis_host"}).code, 0);
  EXPECT_EQ(Ctl({"faults"}).out,
            "redis_de_global ping-error=off ping-status=0 refuse=off\n"
            "redis_ce_global ping-error=off ping-status=0 refuse=off\n"
            "redis_host ping-error=off ping-status=0 refuse=off\n");
  // Had the SET or the PING been answered, their replies would come first;
  // had the SET reached the server, GET would find the key.
  WriteAll(raw, "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n");
  EXPECT_EQ(ReadAtLeast(raw, 5), "$-1\r\n");
  close(raw);
}

TEST_F(DevdbFaults, StallLeavesOtherDatabasesAlone) {
  ASSERT_EQ(Ctl({"stall", "redis_host", "0"}).code, 0);
  ContextPtr c = Connect("redis_de_global");
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, StallForAWhileEndsByItself) {
  ContextPtr c = Connect();
  ASSERT_EQ(Ctl({"stall", "redis_host", "50"}).code, 0);
  for (int i = 0; i < 1000; ++i) {
    if (Ctl({"faults"}).out.find("stall=on") == std::string::npos) break;
    usleep(10000);
  }
  // What came in after the stall ended is answered again.
  EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, InjectedPmessagesInOneWriteReachSubscribersInOrder) {
  ContextPtr sub = Connect();
  Command(sub.get(), {"PSUBSCRIBE", "__keyspace@0__:*"});
  ContextPtr plain = Connect();
  std::string three;
  for (const char *key : {"a", "b", "c"})
    three += std::string(
                 "*5\\r\\n$8\\r\\npmessage\\r\\n$16\\r\\n__keyspace@0__:*"
                 "\\r\\n$16\\r\\n__keyspace@0__:") +
             key + "\\r\\n$3\\r\\nset\\r\\n$1\\r\\n" + key + "\\r\\n";
  const Output o = Ctl({"inject", "redis_host", three});
  ASSERT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "1\n") << "only the subscribed connection";
  for (const char *key : {"a", "b", "c"}) {
    ReplyPtr n = Next(sub.get());
    ASSERT_TRUE(n);
    ASSERT_EQ(n->elements, 5u);
    EXPECT_EQ(std::string(n->element[2]->str),
              std::string("__keyspace@0__:") + key);
    EXPECT_EQ(std::string(n->element[4]->str), key);
  }
  EXPECT_EQ(Text(Command(plain.get(), {"PING"})), "PONG");
}

TEST_F(DevdbFaults, InjectedMalformedBytesArriveUnchanged) {
  const int raw = ConnectRaw(Socket("redis_host"));
  WriteAll(raw, "*2\r\n$10\r\nPSUBSCRIBE\r\n$1\r\n*\r\n");
  const std::string confirm = "*3\r\n$10\r\npsubscribe\r\n$1\r\n*\r\n:1\r\n";
  ASSERT_EQ(ReadAtLeast(raw, confirm.size()), confirm);
  const Output o = Ctl({"inject", "redis_host",
                        "*4\\r\\n$8\\r\\npmessage\\r\\n$1\\r\\n*\\r\\n\\x00"});
  ASSERT_EQ(o.code, 0);
  const std::string expected =
      std::string("*4\r\n$8\r\npmessage\r\n$1\r\n*\r\n") + '\0';
  EXPECT_EQ(ReadAtLeast(raw, expected.size()), expected);
  close(raw);
}

TEST_F(DevdbFaults, ClearAllUndoesEveryFault) {
  ASSERT_EQ(Ctl({"ping-error", "all"}).code, 0);
  ASSERT_EQ(Ctl({"ping-status", "all", "5"}).code, 0);
  ASSERT_EQ(Ctl({"refuse", "redis_ce_global", "0"}).code, 0);
  EXPECT_EQ(Ctl({"faults"}).out,
            "redis_de_global ping-error=on ping-status=5 refuse=off\n"
            "redis_ce_global ping-error=on ping-status=5 refuse=on\n"
            "redis_host ping-error=on ping-status=5 refuse=off\n");
  ASSERT_EQ(Ctl({"clear", "all"}).code, 0);
  EXPECT_EQ(Ctl({"faults"}).out,
            "redis_de_global ping-error=off ping-status=0 refuse=off\n"
            "redis_ce_global ping-error=off ping-status=0 refuse=off\n"
            "redis_host ping-error=off ping-status=0 refuse=off\n");
  for (const char *db : {"redis_de_global", "redis_ce_global", "redis_host"}) {
    ContextPtr c = Connect(db);
    ASSERT_EQ(c->err, 0) << db;
    EXPECT_EQ(Text(Command(c.get(), {"PING"})), "PONG") << db;
  }
}

TEST_F(DevdbFaults, UnknownControlCommandFails) {
  EXPECT_EQ(Ctl({"explode", "redis_host"}).code, 1);
  EXPECT_EQ(Ctl({"ping-error", "redis_nowhere"}).code, 1);
  EXPECT_EQ(Ctl({"ping"}).out, "PONG\n");
}

}  // namespace
}  // namespace devdbtest
