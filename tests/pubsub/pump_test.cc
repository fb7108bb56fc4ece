// The notification pump against the device database emulator: real keyspace
// notifications carrying their values, injected bursts and malformed
// replies, the idle flush and the statistics tick.
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "pubsub/pump.h"
#include "records/records.h"
#include "support/emulator.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_idle_ticks;
using tqredis::detail::g_tqredis_in_log;
using tqredis::detail::g_tqredis_pubsub_reading;

namespace {

// What a hook saw; the value is rendered while the reply still lives.
struct Seen {
  std::string hook;  // "sub" or "all"
  uint32_t db;
  std::string key;
  int32_t cmd;
  std::string value;
  uint32_t reserved;
};
std::vector<Seen> g_seen;

std::string Render(const redisReply *r) {
  if (r == nullptr) return "NULL";
  switch (r->type) {
    case REDIS_REPLY_NIL:
      return "nil";
    case REDIS_REPLY_ARRAY: {
      std::string out = "[";
      for (size_t i = 0; i < r->elements; ++i)
        out += (i ? " " : "") + Render(r->element[i]);
      return out + "]";
    }
    case REDIS_REPLY_INTEGER:
      return std::to_string(r->integer);
    default:
      return std::string(r->str, r->len);
  }
}

void Record(const char *hook, const tqredis_pmsg *pmsg) {
  g_seen.push_back({hook, pmsg->db, pmsg->key, pmsg->cmd, Render(pmsg->value),
                    pmsg->reserved});
}

int SubscriptionHook(tqredis_pmsg *pmsg, void *arg) {
  Record(static_cast<const char *>(arg), pmsg);
  return 0;
}

int ProcessHook(tqredis_pmsg *pmsg, void *arg) {
  Record(static_cast<const char *>(arg), pmsg);
  return 0;
}

// Reads the key back through the library from inside the hook, which runs
// with the global lock held.
int ReadingHook(tqredis_pmsg *pmsg, void *) {
  redisReply *reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                         0, "GET %s", pmsg->key);
  Seen seen{"read", pmsg->db, pmsg->key, pmsg->cmd, Render(reply), 0};
  g_seen.push_back(seen);
  tqredis_free_reply(reply);
  return 0;
}

int IgnoreDataCheck(uint32_t) { return 0; }

char kSub[] = "sub";
char kAll[] = "all";

pubsub_mng Entry(uint32_t db, const char *pattern, tqredis_pmsg_hook_f hook) {
  pubsub_mng entry{};
  entry.key_db = db;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", pattern);
  entry.hook = hook;
  entry.hook_arg = kSub;
  return entry;
}

class Pump : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(emulator_.Start()); }

  // Registers `entries`, connects every slot and subscribes.
  void Subscribe(std::vector<pubsub_mng> entries) {
    ASSERT_EQ(tqredis_init(entries.data(), static_cast<int>(entries.size()),
                           IgnoreDataCheck, 2),
              0);
    tqredis_free_reply(
        tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "PING"));
    tqredis_db_psubscrible();
  }

  // Pumps until `count` hook calls were seen, 100 calls (10 s) at most.
  void PumpUntil(size_t count) {
    for (int i = 0; i < 100 && g_seen.size() < count; ++i) tqredis_pubsub();
  }

  tqtest::DeviceEmulator emulator_;
};

TEST_F(Pump, SetIsDeliveredWithItsValueToTheSubscriptionThenTheProcessHook) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  ASSERT_EQ(tqredis_pmsg_hook_register(ProcessHook, kAll), 0);
  auto direct = tqtest::Direct(2);
  tqtest::Run(direct.get(), "SET k1 v1");
  const std::string log =
      tqtest::Logged(TQREDIS_LOG_DATA, [this] { PumpUntil(2); });
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].hook, "sub");
  EXPECT_EQ(g_seen[1].hook, "all");
  for (const Seen &seen : g_seen) {
    EXPECT_EQ(seen.db, 2u);
    EXPECT_EQ(seen.key, "k1");
    EXPECT_EQ(seen.cmd, TQREDIS_KEYCMD_SET);
    EXPECT_EQ(seen.value, "v1");
    EXPECT_EQ(seen.reserved, 0u);
  }
  EXPECT_NE(log.find("<tqredis_db_deal_pmsg>:pmessage over[db=redis_host "
                     "pattern=k* key=k1 "
                     "cmd=set]\r\n"),
            std::string::npos)
      << log;
  // Each notification handled is an inbound operation.
  EXPECT_EQ(g_tqredis_in_log.total, 1u);
  EXPECT_STREQ(g_tqredis_in_log.records[0].key, "k1");
  EXPECT_STREQ(g_tqredis_in_log.records[0].cmd, "set");
  EXPECT_STREQ(g_tqredis_in_log.records[0].db, "redis_host");
}

TEST_F(Pump, KeysOfEveryDatabaseComeWithTheirDatabaseId) {
  Subscribe(
      {Entry(0, "a*", SubscriptionHook), Entry(1, "b*", SubscriptionHook)});
  tqtest::Run(tqtest::Direct(1).get(), "SET b1 x");
  PumpUntil(1);
  tqtest::Run(tqtest::Direct(0).get(), "SET a1 y");
  PumpUntil(2);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].db, 1u);
  EXPECT_EQ(g_seen[0].key, "b1");
  EXPECT_EQ(g_seen[1].db, 0u);
  EXPECT_EQ(g_seen[1].key, "a1");
}

TEST_F(Pump, DeletedKeyIsDeliveredWithANilValueAfterReplyInvalid) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  auto direct = tqtest::Direct(2);
  tqtest::Run(direct.get(), "SET k2 v");
  PumpUntil(1);
  tqtest::Run(direct.get(), "DEL k2");
  const std::string log =
      tqtest::Logged(TQREDIS_LOG_ERROR, [this] { PumpUntil(2); });
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[1].cmd, TQREDIS_KEYCMD_DEL);
  EXPECT_EQ(g_seen[1].key, "k2");
  EXPECT_EQ(g_seen[1].value, "nil");
  EXPECT_EQ(log, "<tqredis_check_pubsub_reply>:reply invalid\r\n");
}

TEST_F(Pump, HashSetAndExpiryEventsMapToTheirKeyCommandIds) {
  Subscribe({Entry(2, "*", SubscriptionHook)});
  auto direct = tqtest::Direct(2);
  tqtest::Run(direct.get(), "HSET h f1 v1");
  tqtest::Run(direct.get(), "SADD s m1");
  PumpUntil(2);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].cmd, TQREDIS_KEYCMD_HSET);
  EXPECT_EQ(g_seen[0].key, "h");
  EXPECT_EQ(g_seen[0].value, "[f1 v1]");
  EXPECT_EQ(g_seen[1].cmd, TQREDIS_KEYCMD_SADD);
  EXPECT_EQ(g_seen[1].value, "[m1]");
  // SET with PX gives "set" and "expire" now and "expired" once it lapses.
  tqtest::Run(direct.get(), "SET e v PX 50");
  PumpUntil(5);
  ASSERT_EQ(g_seen.size(), 5u);
  EXPECT_EQ(g_seen[2].cmd, TQREDIS_KEYCMD_SET);
  EXPECT_EQ(g_seen[3].cmd, TQREDIS_KEYCMD_EXPIRE);
  EXPECT_EQ(g_seen[4].cmd, TQREDIS_KEYCMD_EXPIRED);
  EXPECT_EQ(g_seen[4].key, "e");
  EXPECT_EQ(g_seen[4].value, "nil");
}

TEST_F(Pump, EventOutsideTheTableIsOther) {
  Subscribe({Entry(2, "*", SubscriptionHook)});
  tqtest::Run(tqtest::Direct(2).get(), "APPEND ap x");  // event "append"
  PumpUntil(1);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].cmd, TQREDIS_KEYCMD_OTHER);
  EXPECT_EQ(g_seen[0].value, "x");
}

TEST_F(Pump, HookMayIssueACommandUnderTheRecursiveLock) {
  Subscribe({Entry(2, "k*", ReadingHook)});
  tqtest::Run(tqtest::Direct(2).get(), "SET k3 fresh");
  PumpUntil(1);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].hook, "read");
  EXPECT_EQ(g_seen[0].value, "fresh");
}

TEST_F(Pump, NotificationForAPatternNotRegisteredIsDroppedSilently) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  ASSERT_EQ(tqredis_pmsg_hook_register(ProcessHook, kAll), 0);
  const auto out =
      emulator_.Ctl({"inject", "redis_host",
                     "*5\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:z*"
                     "\\r\\n$17\\r\\n__keyspace@0__:"
                     "zz\\r\\n$3\\r\\nset\\r\\n$1\\r\\nv\\r\\n"});
  ASSERT_EQ(out.exit_code, 0) << out.out;
  const std::string log = tqtest::Logged(
      0xFF & ~TQREDIS_LOG_DUMP, [] { EXPECT_EQ(tqredis_pubsub(), 0); });
  EXPECT_TRUE(g_seen.empty());
  EXPECT_EQ(log, "");
  EXPECT_EQ(g_tqredis_in_log.total, 0u);
}

// Three notifications written in one piece: one readable event, one socket
// read, all three delivered in order by one call.
TEST_F(Pump, ThreeNotificationsInOneReadAreDeliveredInOneCall) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  std::string bytes;
  for (const char *key : {"ka", "kb", "kc"}) {
    bytes += std::string(
                 "*5\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:k*"
                 "\\r\\n$17\\r\\n") +
             "__keyspace@0__:" + key + "\\r\\n$3\\r\\nset\\r\\n$1\\r\\n" +
             key[1] + "\\r\\n";
  }
  const auto out = emulator_.Ctl({"inject", "redis_host", bytes});
  ASSERT_EQ(out.exit_code, 0) << out.out;
  ASSERT_EQ(out.out, "1\n");  // our one subscribed connection
  EXPECT_EQ(tqredis_pubsub(), 0);
  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[0].key, "ka");
  EXPECT_EQ(g_seen[1].key, "kb");
  EXPECT_EQ(g_seen[2].key, "kc");
  EXPECT_EQ(g_seen[2].value, "c");
  EXPECT_EQ(g_tqredis_pubsub_reading, 0u);  // drained to the end
}

// One escaped notification through `pattern` for key `key`, value "v".
std::string Through(const std::string &pattern, const std::string &key) {
  const std::string channel = "__keyspace@0__:" + pattern;
  const std::string key_channel = "__keyspace@0__:" + key;
  return "*5\\r\\n$8\\r\\npmessage\\r\\n$" + std::to_string(channel.size()) +
         "\\r\\n" + channel + "\\r\\n$" + std::to_string(key_channel.size()) +
         "\\r\\n" + key_channel + "\\r\\n$3\\r\\nset\\r\\n$1\\r\\nv\\r\\n";
}

char kFirst[] = "first";
char kSecond[] = "second";
char kOther[] = "other";

pubsub_mng EntryWith(const char *pattern, char *arg) {
  pubsub_mng entry = Entry(2, pattern, SubscriptionHook);
  entry.hook_arg = arg;
  return entry;
}

// Each notification goes to the first subscription with its pattern's exact
// text, whichever came before it: patterns sharing a first letter or a
// prefix, and two subscriptions of the same text, the first one only.
TEST_F(Pump, EachNotificationGoesToTheFirstSubscriptionOfItsExactPattern) {
  Subscribe({EntryWith("k*", kFirst), EntryWith("ka*", kOther),
             EntryWith("m*", kOther), EntryWith("k*", kSecond),
             EntryWith("k", kSecond)});
  const std::vector<std::pair<std::string, std::string>> sent = {
      {"k*", "k1"}, {"k*", "k2"}, {"ka*", "ka1"}, {"k*", "k3"},
      {"m*", "m1"}, {"k", "k"},   {"k*", "k4"},   {"x*", "x1"},
      {"k*", "k5"}, {"", "e"},    {"k**", "k6"},  {"m*", "m2"}};
  std::string bytes;
  for (const auto &[pattern, key] : sent) bytes += Through(pattern, key);
  ASSERT_EQ(emulator_.Ctl({"inject", "redis_host", bytes}).exit_code, 0);
  PumpUntil(9);
  std::vector<std::string> got;
  for (const Seen &seen : g_seen) got.push_back(seen.hook + ":" + seen.key);
  EXPECT_EQ(got,
            (std::vector<std::string>{"first:k1", "first:k2", "other:ka1",
                                      "first:k3", "other:m1", "second:k",
                                      "first:k4", "first:k5", "other:m2"}));
}

// Notifications of one escaped piece for the emulator's inject: keys k0..,
// values whose length varies, so that replies end anywhere in a read.
std::string Burst(int count, int long_value_at = -1) {
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    const std::string key = "k" + std::to_string(i);
    const std::string value =
        i == long_value_at ? std::string(3000, 'L')
                           : std::string(static_cast<size_t>(i % 37), 'v');
    bytes +=
        "*5\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:k*"
        "\\r\\n$" +
        std::to_string(15 + key.size()) + "\\r\\n__keyspace@0__:" + key +
        "\\r\\n$3\\r\\nset\\r\\n$" + std::to_string(value.size()) + "\\r\\n" +
        value + "\\r\\n";
  }
  return bytes;
}

// More than one socket read of notifications, each given to the reader in
// slices: every one is delivered whole, in order, with its value.
TEST_F(Pump, BurstOfManyReadsIsDeliveredWholeAndInOrder) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  constexpr int kCount = 700;
  const auto out =
      emulator_.Ctl({"inject", "redis_host", Burst(kCount, /*long*/ 350)});
  ASSERT_EQ(out.exit_code, 0) << out.out;
  ASSERT_EQ(out.out, "1\n");
  PumpUntil(kCount);
  ASSERT_EQ(g_seen.size(), static_cast<size_t>(kCount));
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(g_seen[i].key, "k" + std::to_string(i));
    ASSERT_EQ(g_seen[i].value,
              i == 350 ? std::string(3000, 'L') : std::string(i % 37, 'v'))
        << i;
  }
  EXPECT_EQ(g_tqredis_pubsub_reading, 0u);
  EXPECT_EQ(g_tqredis_in_log.total, static_cast<uint32_t>(kCount));
}

// Pumps in a child until the lost pubsub connection ends it through the
// fatal path (status 0; 3 if it never does) and returns the copy of the
// limited log it left.
std::string PumpUntilTheLossEndsIt() {
  EXPECT_EXIT(
      {
        for (int i = 0; i < 100; ++i) tqredis_pubsub();
        std::exit(3);
      },
      ::testing::ExitedWithCode(0), "");
  return tqtest::ReadFile("/var/tmp/coredump/pump_test.limitlog");
}

TEST_F(Pump, ServerClosingThePubsubConnectionIsItsError) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  ASSERT_EQ(emulator_.Ctl({"close", "redis_host"}).exit_code, 0);
  const std::string copy = PumpUntilTheLossEndsIt();
  EXPECT_NE(copy.find(">:>>>>redis_host[pubsub] disconnect[error=3 Server "
                      "closed the connection]\r\n"),
            std::string::npos)
      << copy;
}

// Bytes no reply can start with, after two good notifications of the same
// read: both are delivered, then the connection fails as hiredis fails it.
TEST_F(Pump, ProtocolErrorAfterGoodNotificationsIsTheConnectionsError) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  ASSERT_EQ(emulator_.Ctl({"inject", "redis_host", Burst(2) + "?junk\\r\\n"})
                .exit_code,
            0);
  const std::string copy = PumpUntilTheLossEndsIt();
  EXPECT_NE(copy.find(">:>>>>redis_host[pubsub] disconnect[error=4 Protocol "
                      "error, got \"?\" as reply type byte]\r\n"),
            std::string::npos)
      << copy;
}

struct Malformed {
  const char *name;
  const char *bytes;     // RESP, escaped for the emulator's inject
  const char *messages;  // what levels 8 logs, prefix reduced
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const Malformed &shape, std::ostream *os) { *os << shape.name; }

class PumpMalformed : public Pump,
                      public ::testing::WithParamInterface<Malformed> {};

// Each is logged, dropped, and leaves the connection serving.
TEST_P(PumpMalformed, IsRejectedWithItsMessageAndTheConnectionStays) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  const auto out = emulator_.Ctl({"inject", "redis_host", GetParam().bytes});
  ASSERT_EQ(out.exit_code, 0) << out.out;
  const std::string log =
      tqtest::Logged(TQREDIS_LOG_ERROR, [] { EXPECT_EQ(tqredis_pubsub(), 0); });
  EXPECT_EQ(log, GetParam().messages);
  EXPECT_TRUE(g_seen.empty());
  tqtest::Run(tqtest::Direct(2).get(), "SET k9 after");
  PumpUntil(1);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].value, "after");
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PumpMalformed,
    ::testing::Values(
        Malformed{
            "FourElements",
            "*4\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:k*\\r\\n$"
            "17\\r\\n__"
            "keyspace@0__:k1\\r\\n$3\\r\\nset\\r\\n",
            "<tqredis_check_pubsub_reply>:pmessage error[type=2 size=4]\r\n"
            "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        Malformed{
            "NotAnArray", "+pmessage\\r\\n",
            "<tqredis_check_pubsub_reply>:pmessage error[type=5 size=0]\r\n"
            "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        Malformed{"NullPatternChannel",
                  "*5\\r\\n$8\\r\\npmessage\\r\\n$-1\\r\\n$17\\r\\n__keyspace@"
                  "0__:k1\\r\\n$3\\r\\n"
                  "set\\r\\n$1\\r\\nv\\r\\n",
                  "<tqredis_check_pubsub_reply>:reply invalid\r\n"
                  "<tqredis_check_pubsub_reply>:element[1] is null\r\n"
                  "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        Malformed{"NullEvent",
                  "*5\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:k*"
                  "\\r\\n$17\\r\\n__"
                  "keyspace@0__:k1\\r\\n$-1\\r\\n$1\\r\\nv\\r\\n",
                  "<tqredis_check_pubsub_reply>:reply invalid\r\n"
                  "<tqredis_check_pubsub_reply>:element[3] is null\r\n"
                  "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        Malformed{"KeyChannelWithoutColon",
                  "*5\\r\\n$8\\r\\npmessage\\r\\n$17\\r\\n__keyspace@0__:k*"
                  "\\r\\n$2\\r\\nk1\\r\\n$"
                  "3\\r\\nset\\r\\n$1\\r\\nv\\r\\n",
                  "<tqredis_check_pubsub_reply>:element[2] invalid\r\n"
                  "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        Malformed{"PatternChannelWithoutColon",
                  "*5\\r\\n$8\\r\\npmessage\\r\\n$2\\r\\nk*\\r\\n$"
                  "2\\r\\nk1\\r\\n$3\\r\\nset\\r\\n$"
                  "1\\r\\nv\\r\\n",
                  "<tqredis_check_pubsub_reply>:element[1] invalid\r\n"
                  "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"},
        // Passes only the first check (it holds a nil): read as if it had
        // five elements it would be read past its end.
        Malformed{
            "ShortWithANil",
            "*3\\r\\n$8\\r\\npmessage\\r\\n$-1\\r\\n$17\\r\\n__keyspace@0__:"
            "k1\\r\\n",
            "<tqredis_check_pubsub_reply>:reply invalid\r\n"
            "<tqredis_check_pubsub_reply>:pmessage error[type=2 size=3]\r\n"
            "<tqredis_db_deal_pmsg>:pmessage invalid\r\n"}),
    [](const ::testing::TestParamInfo<Malformed> &shape) {
      return shape.param.name;
    });

TEST_F(Pump, LosingTheLivePubsubConnectionEndsTheProcessAfterCopyingTheLog) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  ASSERT_EQ(emulator_.Ctl({"close", "redis_host"}).exit_code, 0);
  EXPECT_EXIT(
      {
        for (int i = 0; i < 100; ++i) tqredis_pubsub();
        std::exit(3);  // not reached when the loss is noticed
      },
      ::testing::ExitedWithCode(0), "");
  const std::string copy =
      tqtest::ReadFile("/var/tmp/coredump/pump_test.limitlog");
  EXPECT_NE(copy.find(">:>>>>redis_host[pubsub] disconnect[error="),
            std::string::npos)
      << copy;
  EXPECT_NE(copy.find(">:>>>>exit for disconnecting from redis_host\r\n"),
            std::string::npos)
      << copy;
}

TEST_F(Pump, IdleWaitFlushesPipelinedWrites) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0, "SET %s %s",
                     "idle", "flushed");
  auto direct = tqtest::Direct(2);
  auto before = tqtest::Run(direct.get(), "EXISTS idle");
  ASSERT_NE(before, nullptr);
  EXPECT_EQ(before->integer, 0);  // still in the pipeline
  EXPECT_EQ(tqredis_pubsub(), 0);
  auto after = tqtest::Run(direct.get(), "GET idle");
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(Render(after.get()), "flushed");
  EXPECT_EQ(g_tqredis_idle_ticks, 1);
}

TEST_F(Pump, WithNothingConnectedAWaitIsAnIdleTick) {
  tqredis_init(nullptr, 0, nullptr, 2);
  fd_set set;
  EXPECT_EQ(tqredis_reste_fdset(&set), -1);
  EXPECT_EQ(tqredis_pubsub(), 0);
  EXPECT_EQ(g_tqredis_idle_ticks, 1);
}

TEST_F(Pump, SixHundredthIdleWaitWritesTheStatisticsAndRestartsTheCount) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  g_tqredis_idle_ticks = 598;
  auto direct = tqtest::Direct(2);
  EXPECT_EQ(tqredis_pubsub(), 0);  // the 599th: nothing written
  EXPECT_EQ(g_tqredis_idle_ticks, 599);
  EXPECT_EQ(tqredis_pubsub(), 0);  // the 600th: written into the pipeline
  EXPECT_EQ(g_tqredis_idle_ticks, 0);
  EXPECT_EQ(
      tqtest::Run(direct.get(), "EXISTS /arch/mom/pump_test/in/stats")->integer,
      0);
  EXPECT_EQ(tqredis_pubsub(), 0);  // the next wait flushes it
  EXPECT_EQ(
      tqtest::Run(direct.get(), "EXISTS /arch/mom/pump_test/in/stats")->integer,
      1);
  EXPECT_EQ(tqtest::Run(direct.get(), "EXISTS /arch/mom/pump_test/out/stats")
                ->integer,
            1);
  EXPECT_EQ(g_tqredis_idle_ticks, 1);
}

TEST_F(Pump, FileDescriptorsOfConnectedPubsubSlotsAreWaitedFor) {
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  fd_set set;
  int highest = -1;
  for (uint32_t db = 0; db < 3; ++db) {
    const int fd = tqredis_get_context(db, TQREDIS_OP_PUBSUB)->fd;
    if (fd > highest) highest = fd;
  }
  EXPECT_EQ(tqredis_reste_fdset(&set), highest);
  for (uint32_t db = 0; db < 3; ++db)
    EXPECT_TRUE(FD_ISSET(tqredis_get_context(db, TQREDIS_OP_PUBSUB)->fd, &set));
  EXPECT_FALSE(FD_ISSET(
      tqredis_get_context(TQREDIS_DB_HOST, TQREDIS_OP_READ)->fd, &set));
}

// Hardening: FD_SET beyond the set's size would write past it.
TEST_F(Pump, PubsubDescriptorBeyondTheFdSetIsLeftOutOfTheWait) {
  struct rlimit limit = {2048, 2048};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  // Every descriptor below FD_SETSIZE taken: the connections get higher ones.
  while (dup(0) < FD_SETSIZE) {
  }
  Subscribe({Entry(2, "k*", SubscriptionHook)});
  const int fd = tqredis_get_context(TQREDIS_DB_HOST, TQREDIS_OP_PUBSUB)->fd;
  ASSERT_GE(fd, FD_SETSIZE);
  fd_set set;
  std::string log = tqtest::Logged(
      TQREDIS_LOG_ERROR, [&set] { EXPECT_EQ(tqredis_reste_fdset(&set), -1); });
  EXPECT_NE(log.find("<tqredis_reste_fdset>:redis_host pubsub fd=" +
                     std::to_string(fd) + " out of fd_set, not waited for\r\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(tqredis_pubsub(), 0);  // a plain wait
  EXPECT_EQ(g_tqredis_idle_ticks, 1);
}

}  // namespace
