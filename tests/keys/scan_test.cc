// Pattern walks against real servers and a scripted one: every key visited
// over many small SCAN calls, the replay of existing keys by kind, the
// "scan" record per SCAN call, long keys, refused arguments and replies.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixtures.h"
#include "support/logged.h"
#include "support/server_side.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::CommandCalls;
using tqtest::Logged;
using tqtest::ParseReply;
using tqtest::RunOn;
using tqtest::WithoutTimes;

namespace {

// What a callback or hook saw; the value is rendered while the reply lives.
struct Seen {
  std::string who;  // "cb" (replay callback) or "all" (process-wide hook)
  uint32_t db;
  std::string key;
  int32_t cmd;
  std::string value;
  uint32_t reserved;
  const void *record;
};
std::vector<Seen> g_seen;

// Members of a set come back in no fixed order: `sorted` renders them so.
std::string Render(const redisReply *r, bool sorted = false) {
  if (r == nullptr) return "NULL";
  switch (r->type) {
    case REDIS_REPLY_ARRAY: {
      std::vector<std::string> items;
      for (size_t i = 0; i < r->elements; ++i)
        items.push_back(Render(r->element[i]));
      if (sorted) std::sort(items.begin(), items.end());
      std::string out = "[";
      for (size_t i = 0; i < items.size(); ++i)
        out += (i ? " " : "") + items[i];
      return out + "]";
    }
    case REDIS_REPLY_INTEGER:
      return std::to_string(r->integer);
    case REDIS_REPLY_NIL:
      return "nil";
    default:
      return std::string(r->str, r->len);
  }
}

void Note(const char *who, const tqredis_pmsg *p) {
  g_seen.push_back(
      {who, p->db, p->key, p->cmd, Render(p->value, true), p->reserved, p});
}

int Callback(tqredis_pmsg *pmsg, void *arg) {
  EXPECT_STREQ(static_cast<const char *>(arg), "cb-arg");
  Note("cb", pmsg);
  return 0;
}

int ProcessHook(tqredis_pmsg *pmsg, void *) {
  Note("all", pmsg);
  return 0;
}

char kCbArg[] = "cb-arg";

// The walk's per-key function: collects the keys it is handed.
int Visit(int db, const char *key, void *arg) {
  EXPECT_GE(db, 0);
  static_cast<std::vector<std::string> *>(arg)->push_back(key);
  return 0;
}

int ScanRecords() {
  return static_cast<int>(std::count_if(
      g_seen.begin(), g_seen.end(),
      [](const Seen &s) { return s.who == "all" && s.cmd == 22; }));
}

size_t Count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + what.size()))
    ++n;
  return n;
}

// Writes `n` keys "<prefix><i>" on their own connection, in one pipeline.
void MakeKeys(int db, const std::string &prefix, int n) {
  auto c = tqtest::Direct(db);
  ASSERT_NE(c, nullptr);
  for (int i = 0; i < n; ++i)
    redisAppendCommand(c.get(), "SET %s%d v%d", prefix.c_str(), i, i);
  for (int i = 0; i < n; ++i) {
    void *reply = nullptr;
    ASSERT_EQ(redisGetReply(c.get(), &reply), REDIS_OK);
    freeReplyObject(reply);
  }
}

std::set<std::string> Names(const std::string &prefix, int n) {
  std::set<std::string> names;
  for (int i = 0; i < n; ++i) names.insert(prefix + std::to_string(i));
  return names;
}

// Every record the library passes to the process-wide hook lands in g_seen.
void WatchRecords() {
  ASSERT_EQ(tqredis_pmsg_hook_register(ProcessHook, nullptr), 0);
}

class Scan : public tqtest::ConnectedDevice {
 protected:
  void SetUp() override {
    ConnectedDevice::SetUp();
    if (!HasFatalFailure()) WatchRecords();
  }
};

// Replies a stock server never gives.
class ScanPeer : public tqtest::ScriptedDatabase {
 protected:
  void Connected() override { WatchRecords(); }
};

}  // namespace

// ---- Checks of SCAN replies, without a server ----------------------------

TEST(ScanCheck, ReplyWithACursorAndAKeyListIsUsable) {
  auto reply = ParseReply("*2\r\n$2\r\n17\r\n*1\r\n$1\r\nk\r\n");
  std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_check_scan_reply(reply.get()), 1);
    EXPECT_EQ(tqredis_check_scan_key_reply(reply->element[1]), 1);
  });
  EXPECT_EQ(log, "");
}

TEST(ScanCheck, NullReplyFailsTheScanCheck) {
  const std::string log = Logged(TQREDIS_LOG_DATA, [] {
    EXPECT_EQ(tqredis_check_scan_reply(nullptr), 0);
  });
  EXPECT_EQ(log,
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_check_scan_reply>:check scan reply fail\n");
}

TEST(ScanCheck, ErrorReplyFailsTheScanCheck) {
  auto reply = ParseReply("-ERR no scan\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_check_scan_reply(reply.get()), 0);
  });
  EXPECT_EQ(log,
            "<check_reply>:command error: ERR no scan\r\n"
            "<tqredis_check_scan_reply>:check scan reply fail\n");
}

TEST(ScanCheck, ReplyOfAnotherShapeIsInvlaid) {
  auto three = ParseReply("*3\r\n$1\r\n0\r\n*0\r\n$1\r\nx\r\n");
  auto status = ParseReply("+OK\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_check_scan_reply(three.get()), 0);
    EXPECT_EQ(tqredis_check_scan_reply(status.get()), 0);
  });
  EXPECT_EQ(log,
            "<check_reply>:elements zero\r\n"
            "<tqredis_check_scan_reply>:reply invlaid, type=2 elements=3\r\n"
            "<tqredis_check_scan_reply>:reply invlaid, type=5 elements=0\r\n");
}

TEST(ScanCheck, CursorWithoutTextIsInvlaid) {
  auto reply = ParseReply("*2\r\n:0\r\n*1\r\n$1\r\nk\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_check_scan_reply(reply.get()), 0);
  });
  EXPECT_EQ(log, "<tqredis_check_scan_reply>:element[0] invlaid\r\n");
}

TEST(ScanCheck, KeyListMustBeAUsableArray) {
  auto nil = ParseReply("$-1\r\n");
  auto text = ParseReply("$3\r\nabc\r\n");
  auto empty = ParseReply("*0\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_check_scan_key_reply(nil.get()), 0);
    EXPECT_EQ(tqredis_check_scan_key_reply(text.get()), 0);
    EXPECT_EQ(tqredis_check_scan_key_reply(empty.get()), 1);
  });
  EXPECT_EQ(log,
            "<check_reply>:reply nil\r\n"
            "<tqredis_check_scan_key_reply>:scan reply check fail\r\n"
            "<tqredis_check_scan_key_reply>:key subreply invlaid, type=1 "
            "elements=0\r\n"
            "<check_reply>:elements zero\r\n");
}

// ---- Arguments ------------------------------------------------------------

TEST_F(Scan, BadDatabasePatternOrCountIsRefusedWithoutAnyScan) {
  std::vector<std::string> keys;
  std::vector<int> rv;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rv.push_back(tqredis_scan_key_pattern(3, "k*", 10, Callback, kCbArg, 0));
    rv.push_back(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, nullptr, 10,
                                          Callback, kCbArg, 0));
    rv.push_back(tqredis_scan_key_pattern(TQREDIS_DB_CE_GLOBAL, "", 10,
                                          Callback, kCbArg, 0));
    rv.push_back(tqredis_scan_key_pattern(TQREDIS_DB_HOST, "k*", 0, Callback,
                                          kCbArg, 0));
    rv.push_back(
        tqredis_scan_key_pattern(TQREDIS_DB_HOST, "k*", 5, nullptr, kCbArg, 0));
    rv.push_back(tqredis_key_pattern_walkthrough(3, "k*", 10, Visit, &keys));
    rv.push_back(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, nullptr,
                                                 10, Visit, &keys));
    rv.push_back(tqredis_key_pattern_walkthrough(TQREDIS_DB_CE_GLOBAL, "", 10,
                                                 Visit, &keys));
    rv.push_back(tqredis_key_pattern_walkthrough(TQREDIS_DB_HOST, "k*", 0,
                                                 Visit, &keys));
    rv.push_back(tqredis_del_expire_key_pattern(TQREDIS_DB_HOST, "k*", -1));
    rv.push_back(tqredis_pexpire_key_pattern(4, "k*", 1000, 10));
  });
  EXPECT_EQ(rv, std::vector<int>(11, -2));
  EXPECT_EQ(
      log,
      "<tqredis_scan_key_pattern>:input arguments invalid, db=3 count=10\r\n"
      "<tqredis_scan_key_pattern>:input arguments invalid, db=0 count=10\r\n"
      "<tqredis_scan_key_pattern>:input arguments invalid, db=1 count=10\r\n"
      "<tqredis_scan_key_pattern>:input arguments invalid, db=2 count=0\r\n"
      "<tqredis_scan_key_pattern>:input arguments invalid, db=2 count=5\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=3 "
      "count=10\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=0 "
      "count=10\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=1 "
      "count=10\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=2 "
      "count=0\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=2 "
      "count=-1\r\n"
      "<tqredis_key_pattern_walkthrough>:input arguments invalid, db=4 "
      "count=10\r\n");
  for (int db = 0; db < 3; ++db) EXPECT_EQ(CommandCalls(db, "scan"), 0) << db;
  EXPECT_TRUE(g_seen.empty());
  EXPECT_TRUE(keys.empty());
}

TEST_F(Scan, WalkWithoutAFunctionStillFeedsTheHook) {
  MakeKeys(0, "k", 3);
  EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "k*", 10,
                                            nullptr, nullptr),
            0);
  EXPECT_EQ(ScanRecords(), static_cast<int>(CommandCalls(0, "scan")));
  EXPECT_GE(ScanRecords(), 1);
}

TEST_F(Scan, ReplayWithoutACallbackDirectlyReadsNothing) {
  MakeKeys(1, "k", 2);
  auto keys = ParseReply("*2\r\n$2\r\nk0\r\n$2\r\nk1\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    tqredis_scan_key_get(TQREDIS_DB_CE_GLOBAL, keys.get(), nullptr, nullptr, 0);
    tqredis_scan_key_get(3, keys.get(), Callback, kCbArg, 0);
  });
  EXPECT_EQ(log,
            "<tqredis_scan_key_get>:input arguments invalid, db=1\r\n"
            "<tqredis_scan_key_get>:input arguments invalid, db=3\r\n");
  EXPECT_EQ(CommandCalls(1, "get"), 0);
  EXPECT_TRUE(g_seen.empty());
}

// ---- Walks ----------------------------------------------------------------

TEST_F(Scan, EmptyDatabaseEndsAfterOneScanPassingOneScanRecordToTheHook) {
  std::vector<std::string> keys;
  EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_CE_GLOBAL, "nothing:*",
                                            10, Visit, &keys),
            0);
  EXPECT_EQ(CommandCalls(1, "scan"), 1);
  EXPECT_TRUE(keys.empty());
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].who, "all");
  EXPECT_EQ(g_seen[0].db, 1u);
  EXPECT_EQ(g_seen[0].key, "nothing:*");
  EXPECT_EQ(g_seen[0].cmd, 22);
  EXPECT_EQ(g_seen[0].value, "NULL");
  EXPECT_EQ(g_seen[0].reserved, 0u);
}

TEST_F(Scan, WalkOverHundredsOfKeysWithASmallCountVisitsEveryMatchingKey) {
  MakeKeys(0, "a:", 300);
  MakeKeys(0, "b:", 40);
  std::vector<std::string> keys;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&keys] {
    EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "a:*", 7,
                                              Visit, &keys),
              0);
  });
  EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()), Names("a:", 300));
  const long long scans = CommandCalls(0, "scan");
  EXPECT_GT(scans, 10);
  // One record to the hook and one trace line per SCAN call.
  EXPECT_EQ(ScanRecords(), scans);
  EXPECT_EQ(static_cast<long long>(Count(
                WithoutTimes(log),
                "<tqredis_db_out_log>:>>>>OUT_LOG redis_de_global scan a:* "
                "flag=0 tid=0\r\n")),
            scans);
  for (const Seen &s : g_seen) {
    EXPECT_EQ(s.key, "a:*");
    EXPECT_EQ(s.db, 0u);
  }
}

TEST_F(Scan, WalkHandsTheFunctionTheWholeKeyAndTheHookThePatternCutTo127) {
  const std::string key(200, 'x');
  const std::string pattern = std::string(149, 'x') + "*";
  RunOn(2, "SET %s v", key.c_str());
  std::vector<std::string> keys;
  EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_HOST, pattern.c_str(),
                                            50, Visit, &keys),
            0);
  EXPECT_EQ(keys, std::vector<std::string>{key});
  ASSERT_GE(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].key, pattern.substr(0, 127));
}

// ---- Replay ---------------------------------------------------------------

TEST_F(Scan, ReplayOfStringKeysHandsEachValueToTheCallbackThenTheHook) {
  MakeKeys(2, "s:", 3);
  std::string log = Logged(TQREDIS_LOG_DATA, [] {
    EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_HOST, "s:*", 2, Callback,
                                       kCbArg, 0),
              0);
  });
  ASSERT_EQ(g_seen.size(), 6u);
  std::set<std::string> delivered;
  for (size_t i = 0; i < g_seen.size(); i += 2) {
    const Seen &cb = g_seen[i];
    const Seen &all = g_seen[i + 1];
    EXPECT_EQ(cb.who, "cb");
    EXPECT_EQ(all.who, "all");
    EXPECT_EQ(all.record, cb.record);  // the same record
    EXPECT_EQ(all.key, cb.key);
    EXPECT_EQ(cb.db, 2u);
    EXPECT_EQ(cb.cmd, 0);
    EXPECT_EQ(cb.reserved, 0u);
    EXPECT_EQ(cb.value, "v" + cb.key.substr(2));
    EXPECT_EQ(all.value, cb.value);
    delivered.insert(cb.key);
    // Each key is traced in, marked as replayed.
    EXPECT_NE(WithoutTimes(log).find(
                  "<tqredis_db_in_log>:>>>>IN_LOG redis_host set " + cb.key +
                  " flag=0x1 tid=0\r\n"),
              std::string::npos)
        << log;
  }
  EXPECT_EQ(delivered, Names("s:", 3));
  EXPECT_EQ(CommandCalls(2, "get"), 3);
}

TEST_F(Scan, ReplayOfTwoHashKeysCallsTheCallbackTwiceWithTheirHgetallReplies) {
  RunOn(1, "HSET h:1 f1 a");
  RunOn(1, "HSET h:2 f2 b");
  EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_CE_GLOBAL, "h:*", 10, Callback,
                                     kCbArg, 1),
            0);
  ASSERT_EQ(g_seen.size(), 4u);
  const std::string first = g_seen[0].key;
  const std::string second = first == "h:1" ? "h:2" : "h:1";
  const auto value = [](const std::string &key) {
    return key == "h:1" ? "[a f1]" : "[b f2]";  // rendered sorted
  };
  const std::vector<std::string> order = {"cb", "all", "cb", "all"};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(g_seen[i].who, order[i]);
    EXPECT_EQ(g_seen[i].key, i < 2 ? first : second);
    EXPECT_EQ(g_seen[i].cmd, 2);
    EXPECT_EQ(g_seen[i].value, value(g_seen[i].key));
  }
  EXPECT_EQ(CommandCalls(1, "hgetall"), 2);
}

TEST_F(Scan, ReplayOfSetKeysReadsTheirMembers) {
  RunOn(0, "SADD set:1 m1 m2");
  EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "set:*", 10,
                                     Callback, kCbArg, 2),
            0);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].who, "cb");
  EXPECT_EQ(g_seen[0].cmd, 4);
  EXPECT_EQ(g_seen[0].value, "[m1 m2]");
  EXPECT_EQ(g_seen[1].who, "all");
  EXPECT_EQ(CommandCalls(0, "smembers"), 1);
}

TEST_F(Scan, ReplayOfKindThreeSendsOnlyTheScans) {
  MakeKeys(2, "k", 20);
  EXPECT_EQ(
      tqredis_scan_key_pattern(TQREDIS_DB_HOST, "k*", 3, Callback, kCbArg, 3),
      0);
  EXPECT_TRUE(g_seen.empty());
  EXPECT_GT(CommandCalls(2, "scan"), 1);
  for (const char *read : {"get", "hgetall", "smembers"})
    EXPECT_EQ(CommandCalls(2, read), 0) << read;
}

TEST_F(Scan, ReplaySkipsAKeyWhoseValueCannotBeRead) {
  RunOn(0, "SET m:string v");
  RunOn(0, "HSET m:hash f v");
  std::string log = Logged(TQREDIS_LOG_DATA, [] {
    EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "m:*", 10,
                                       Callback, kCbArg, 0),
              0);
  });
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].key, "m:string");
  EXPECT_NE(log.find("<check_reply>:command error: WRONGTYPE"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<tqredis_scan_key_get>:check value reply fail\n"),
            std::string::npos)
      << log;
}

TEST_F(Scan, ReplayedKeyLongerThan127CharactersReachesTheCallbackCut) {
  const std::string key(200, 'y');
  RunOn(2, "SET %s v", key.c_str());
  EXPECT_EQ(
      tqredis_scan_key_pattern(TQREDIS_DB_HOST, "y*", 10, Callback, kCbArg, 0),
      0);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].key, key.substr(0, 127));
  EXPECT_EQ(g_seen[1].key, key.substr(0, 127));
  EXPECT_EQ(g_seen[0].value, "v");
}

// ---- Refused SCAN replies ---------------------------------------------------

TEST_F(Scan, ErrorReplyToScanEndsBothWalksWithMinusOne) {
  RunOn(0, "SET k v");
  auto acl = RunOn(0, "ACL SETUSER default -scan");
  ASSERT_NE(acl, nullptr);
  ASSERT_EQ(acl->type, REDIS_REPLY_STATUS);
  std::vector<std::string> keys;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "k*", 10, Callback,
                                       kCbArg, 0),
              -1);
    EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "k*", 10,
                                              Visit, &keys),
              -1);
  });
  EXPECT_TRUE(g_seen.empty());
  EXPECT_TRUE(keys.empty());
  const std::string error = "<check_reply>:command error: NOPERM";
  const std::string fail = "<tqredis_check_scan_reply>:check scan reply fail\n";
  EXPECT_EQ(Count(log, error), 2u) << log;
  EXPECT_EQ(Count(log, fail), 2u) << log;
  EXPECT_LT(log.find(error), log.find(fail));
}

TEST_F(Scan, DeleteOfExpiringKeysDeletesOnlyTheKeyWithATimeToLive) {
  RunOn(0, "SET e:a v PX 5000");
  RunOn(0, "SET e:b v");
  RunOn(0, "SET e:c v");
  // e:c goes before its PTTL is read, so that it answers -2.
  ASSERT_EQ(tqredis_pmsg_hook_register(
                [](tqredis_pmsg *, void *) {
                  tqtest::RunOn(0, "UNLINK e:c");
                  return 0;
                },
                nullptr),
            0);
  EXPECT_EQ(tqredis_del_expire_key_pattern(TQREDIS_DB_DE_GLOBAL, "e:*", 100),
            0);
  tqredis_commit_command_all();
  EXPECT_EQ(RunOn(0, "EXISTS e:a")->integer, 0);
  EXPECT_EQ(RunOn(0, "EXISTS e:b")->integer, 1);
  EXPECT_EQ(CommandCalls(0, "pttl"), 3);
  EXPECT_EQ(CommandCalls(0, "del"), 1);
}

TEST_F(Scan, PexpireOverHundredsOfKeysGivesEachMatchingKeyTheTime) {
  MakeKeys(1, "p:", 300);
  MakeKeys(1, "q:", 10);
  // The time comes before the count.
  EXPECT_EQ(tqredis_pexpire_key_pattern(TQREDIS_DB_CE_GLOBAL, "p:*", 60000, 5),
            0);
  EXPECT_EQ(CommandCalls(1, "pexpire"), 300);
  EXPECT_EQ(ScanRecords(), CommandCalls(1, "scan"));
  EXPECT_GT(CommandCalls(1, "scan"), 30);
  auto c = tqtest::Direct(1);
  for (int i = 0; i < 300; ++i) {
    auto ttl = tqtest::Run(c.get(), "PTTL p:%d", i);
    ASSERT_NE(ttl, nullptr);
    EXPECT_GT(ttl->integer, 1000) << i;
    EXPECT_LE(ttl->integer, 60000) << i;
  }
  EXPECT_EQ(tqtest::Run(c.get(), "PTTL q:3")->integer, -1);
}

TEST_F(Scan, PexpireWalkSendsATimeOfZeroAsItIs) {
  MakeKeys(2, "z:", 5);
  EXPECT_EQ(tqredis_pexpire_key_pattern(TQREDIS_DB_HOST, "z:*", 0, 10), 0);
  EXPECT_EQ(CommandCalls(2, "pexpire"), 5);
  EXPECT_EQ(RunOn(2, "DBSIZE")->integer, 0);  // a time of 0 deletes
}

// ---- Replies a stock server never gives ------------------------------------

TEST_F(ScanPeer, CursorIsReadInAnyBaseAndSentBackInDecimal) {
  Serve({{"SCAN ",
          {"*2\r\n$4\r\n0x1f\r\n*1\r\n$2\r\nk1\r\n",
           "*2\r\n$1\r\n0\r\n*1\r\n$2\r\nk2\r\n"}}});
  std::vector<std::string> keys;
  EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "k*", 5,
                                            Visit, &keys),
            0);
  EXPECT_EQ(keys, (std::vector<std::string>{"k1", "k2"}));
  EXPECT_EQ(peer_->Commands("SCAN"),
            (std::vector<std::string>{"SCAN 0 MATCH k* COUNT 5",
                                      "SCAN 31 MATCH k* COUNT 5"}));
}

TEST_F(ScanPeer, BadKeyListEndsTheWalkAfterTheKeysOfEarlierCalls) {
  Serve({{"SCAN ",
          {"*2\r\n$1\r\n9\r\n*2\r\n$2\r\nk1\r\n$2\r\nk2\r\n",
           "*2\r\n$1\r\n0\r\n:7\r\n"}}});
  std::vector<std::string> keys;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&keys] {
    EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "k*", 5,
                                              Visit, &keys),
              -1);
  });
  EXPECT_EQ(keys, (std::vector<std::string>{"k1", "k2"}));
  EXPECT_EQ(ScanRecords(), 2);  // the hook saw the second call before its keys
  EXPECT_NE(log.find("<tqredis_check_scan_key_reply>:key subreply invlaid, "
                     "type=3 elements=0\r\n"),
            std::string::npos)
      << log;
}

TEST_F(ScanPeer, BadKeyListSkipsThatPageOfTheReplay) {
  Serve({{"SCAN ",
          {"*2\r\n$1\r\n5\r\n:7\r\n", "*2\r\n$1\r\n0\r\n*1\r\n$2\r\nk3\r\n"}},
         {"GET k3", {"$2\r\nv3\r\n"}}});
  EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "k*", 5, Callback,
                                     kCbArg, 0),
            0);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].key, "k3");
  EXPECT_EQ(g_seen[0].value, "v3");
  EXPECT_EQ(peer_->Commands("SCAN").size(), 2u);
}

TEST_F(ScanPeer, ErrorOnALaterScanEndsTheReplayAfterKeysAlreadyDelivered) {
  Serve({{"SCAN ", {"*2\r\n$1\r\n4\r\n*1\r\n$2\r\nk1\r\n", "-ERR gone\r\n"}},
         {"GET k1", {"$2\r\nv1\r\n"}}});
  EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "k*", 5, Callback,
                                     kCbArg, 0),
            -1);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].key, "k1");
}

TEST_F(ScanPeer, KeyElementsWithoutTextAreSkipped) {
  Serve({{"SCAN ", {"*2\r\n$1\r\n0\r\n*2\r\n:5\r\n$2\r\nk1\r\n"}},
         {"GET k1", {"$2\r\nv1\r\n"}}});
  std::vector<std::string> keys;
  EXPECT_EQ(tqredis_key_pattern_walkthrough(TQREDIS_DB_DE_GLOBAL, "k*", 5,
                                            Visit, &keys),
            0);
  EXPECT_EQ(keys, std::vector<std::string>{"k1"});
  g_seen.clear();
  EXPECT_EQ(tqredis_scan_key_pattern(TQREDIS_DB_DE_GLOBAL, "k*", 5, Callback,
                                     kCbArg, 0),
            0);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].key, "k1");
  EXPECT_EQ(peer_->Commands("GET"), std::vector<std::string>{"GET k1"});
}
