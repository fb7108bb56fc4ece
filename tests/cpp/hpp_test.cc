// The C++ header: owned replies and their moves, typed getters with the
// library's codes, commands against real servers, subscription tables of
// lambdas fed by the emulator's notifications, key replay and the lock guard.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.hpp"

using namespace std::chrono_literals;
using tqredis::Notification;
using tqredis::Reply;
using tqredis::ReplyView;
using tqredis::Result;
using tqtest::Logged;

// ---- What holds at compile time ------------------------------------------

namespace {

// Whether each text getter, and view(), may be called on an expression of
// type T (Reply: a temporary; Reply &: a named one).
template <typename T, typename = void>
struct HasStr : std::false_type {};
template <typename T>
struct HasStr<T, std::void_t<decltype(std::declval<T>().Str())>>
    : std::true_type {};
template <typename T, typename = void>
struct HasStrAt : std::false_type {};
template <typename T>
struct HasStrAt<T, std::void_t<decltype(std::declval<T>().StrAt(0))>>
    : std::true_type {};
template <typename T, typename = void>
struct HasStrByField : std::false_type {};
template <typename T>
struct HasStrByField<T,
                     std::void_t<decltype(std::declval<T>().StrByField("f"))>>
    : std::true_type {};
template <typename T, typename = void>
struct HasView : std::false_type {};
template <typename T>
struct HasView<T, std::void_t<decltype(std::declval<T>().view())>>
    : std::true_type {};
template <typename T, typename = void>
struct HasInt : std::false_type {};
template <typename T>
struct HasInt<T, std::void_t<decltype(std::declval<T>().Int())>>
    : std::true_type {};

template <typename T>
constexpr bool kPinned =
    !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T> &&
    !std::is_move_constructible_v<T> && !std::is_move_assignable_v<T>;

}  // namespace

// A reply has one owner: moved, never copied.
static_assert(!std::is_copy_constructible_v<Reply>);
static_assert(!std::is_copy_assignable_v<Reply>);
static_assert(std::is_nothrow_move_constructible_v<Reply>);
static_assert(std::is_nothrow_move_assignable_v<Reply>);
static_assert(std::is_nothrow_destructible_v<Reply>);
static_assert(!std::is_convertible_v<redisReply *, Reply>);  // explicit
// Text out of a temporary reply would dangle: only a named Reply gives it.
static_assert(HasStr<Reply &>::value && !HasStr<Reply>::value);
static_assert(HasStrAt<Reply &>::value && !HasStrAt<Reply>::value);
static_assert(HasStrByField<Reply &>::value && !HasStrByField<Reply>::value);
static_assert(HasView<const Reply &>::value && !HasView<Reply>::value);
static_assert(HasInt<Reply>::value);  // a number outlives its reply
// A view borrows: copying it is copying a pointer, texts included.
static_assert(std::is_trivially_copyable_v<ReplyView>);
static_assert(HasStr<ReplyView>::value);
static_assert(std::is_trivially_copyable_v<Result<int>>);
static_assert(!std::is_convertible_v<Result<int>, bool>);  // explicit
// Registered callables, the lock and a notification stay where they are.
static_assert(kPinned<tqredis::Subscriptions>);
static_assert(kPinned<tqredis::LockGuard>);
static_assert(!std::is_copy_constructible_v<Notification>);
static_assert(!std::is_move_constructible_v<Notification>);
// Both forms of a command give an owned reply.
static_assert(
    std::is_same_v<decltype(tqredis::Command(0, 0, 0, "PING")), Reply>);
static_assert(
    std::is_same_v<decltype(TQREDIS_COMMAND(0, 0, 0, "GET %s", "k")), Reply>);
// The codes are the C calls'.
static_assert(tqredis::kOk == 0 && tqredis::kFail == -1 &&
              tqredis::kBadArgs == -2 && tqredis::kNoMemory == -3 &&
              tqredis::kWrongType == -4 && tqredis::kNoField == -5);

// ---- Frees, counted ------------------------------------------------------
// The library frees replies with hiredis's freeReplyObject(). This binary
// exports its own (see tests/CMakeLists.txt), which the library's calls
// reach first: it counts the frees of one watched reply and hands every call
// on to hiredis.

namespace {
std::atomic<const void *> g_watched{nullptr};
std::atomic<int> g_watched_frees{0};
}  // namespace

extern "C" __attribute__((visibility("default"))) void freeReplyObject(
    void *reply) {
  using FreeFn = void (*)(void *);
  static const FreeFn next =
      reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "freeReplyObject"));
  if (reply != nullptr && reply == g_watched.load()) ++g_watched_frees;
  next(reply);
}

namespace {

// A reply built from RESP bytes, owned by nobody yet.
redisReply *Raw(std::string_view resp) {
  redisReply *reply = tqtest::ParseReply(resp).release();
  EXPECT_NE(reply, nullptr) << "bad RESP in the test: " << resp;
  return reply;
}

// The same, watched: g_watched_frees counts its frees from now on.
redisReply *Watched(std::string_view resp) {
  redisReply *reply = Raw(resp);
  g_watched = reply;
  g_watched_frees = 0;
  return reply;
}

Reply Owned(std::string_view resp) { return Reply(Raw(resp)); }

template <typename T>
::testing::AssertionResult Fails(const Result<T> &result, int code) {
  if (result.ok()) return ::testing::AssertionFailure() << "it succeeded";
  if (result.code() != code) {
    return ::testing::AssertionFailure() << "code " << result.code();
  }
  if (static_cast<bool>(result) || result.as_optional().has_value() ||
      result.value() != T{}) {
    return ::testing::AssertionFailure() << "a failure carries a value";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

// ---- Reply: ownership and moves ------------------------------------------

TEST(CppReply, DestructionFreesTheReplyOnce) {
  {
    Reply reply(Watched(":1\r\n"));
    EXPECT_EQ(g_watched_frees, 0);
  }
  EXPECT_EQ(g_watched_frees, 1);
}

TEST(CppReply, MoveConstructionLeavesTheSourceEmptyAndTheTargetFreesOnce) {
  redisReply *raw = Watched(":1\r\n");
  Reply target;
  {
    Reply source(raw);
    target = Reply(std::move(source));
    EXPECT_EQ(source.get(), nullptr);  // NOLINT(bugprone-use-after-move)
    EXPECT_FALSE(source);
  }
  EXPECT_EQ(g_watched_frees, 0) << "the emptied source freed the reply";
  EXPECT_EQ(target.get(), raw);
  target.reset();
  EXPECT_EQ(g_watched_frees, 1);
}

TEST(CppReply, MoveAssignmentFreesTheOldReplyAndTakesTheNew) {
  Reply target(Watched(":1\r\n"));
  redisReply *incoming = Raw(":2\r\n");
  target = Reply(incoming);
  EXPECT_EQ(g_watched_frees, 1);
  EXPECT_EQ(target.get(), incoming);
  g_watched = incoming;
  g_watched_frees = 0;
  target = Reply();
  EXPECT_EQ(g_watched_frees, 1);
  EXPECT_EQ(target.get(), nullptr);
}

TEST(CppReply, SelfMoveAssignmentKeepsTheReply) {
  redisReply *raw = Watched(":1\r\n");
  Reply reply(raw);
  Reply &alias = reply;
  reply = std::move(alias);
  EXPECT_EQ(g_watched_frees, 0);
  EXPECT_EQ(reply.get(), raw);
}

TEST(CppReply, ReleaseHandsTheReplyOutUnfreed) {
  redisReply *raw = Watched(":1\r\n");
  redisReply *out = nullptr;
  {
    Reply reply(raw);
    out = reply.release();
    EXPECT_EQ(reply.get(), nullptr);
  }
  EXPECT_EQ(out, raw);
  EXPECT_EQ(g_watched_frees, 0);
  tqredis_free_reply(out);  // the caller's now
  EXPECT_EQ(g_watched_frees, 1);
}

TEST(CppReply, ResetFreesWhatItHeldAndTakesTheNewReply) {
  Reply reply(Watched(":1\r\n"));
  redisReply *next = Raw(":2\r\n");
  reply.reset(next);
  EXPECT_EQ(g_watched_frees, 1);
  EXPECT_EQ(reply.get(), next);
  EXPECT_EQ(reply.Int().value(), 2);
}

TEST(CppReply, EmptyReplyFreesNothingAndLogsNothing) {
  // The C call logs a NULL it is given; an empty Reply never hands it one.
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [] { tqredis_free_reply(nullptr); }),
            "<tqredis_free_reply>:reply = NULL\r\n");
  const std::string log = Logged(TQREDIS_LOG_DATA, [] {
    Reply empty;
    Reply moved_from(Raw(":1\r\n"));
    Reply taker(std::move(moved_from));
    empty.reset();
    Reply from_null(nullptr);
  });
  EXPECT_EQ(log, "");
}

TEST(CppReply, ViewBorrowsWithoutFreeing) {
  Reply reply(Watched("$2\r\nab\r\n"));
  {
    const ReplyView view = reply.view();
    EXPECT_EQ(view.get(), reply.get());
    EXPECT_EQ(view.Str().value(), "ab");
  }
  { const ReplyView loose(reply.get()); }
  EXPECT_EQ(g_watched_frees, 0);
  EXPECT_EQ(reply.Str().value(), "ab");
}

// ---- Typed getters: values and codes -------------------------------------

TEST(CppGetters, IntReadsIntegerAndStringReplies) {
  const Reply integer = Owned(":42\r\n");
  const Result<int> value = integer.Int();
  ASSERT_TRUE(value.ok());
  EXPECT_TRUE(static_cast<bool>(value));
  EXPECT_EQ(value.code(), 0);
  EXPECT_EQ(value.value(), 42);
  EXPECT_EQ(value.as_optional(), std::optional<int>(42));
  EXPECT_EQ(value.value_or(7), 42);
  EXPECT_EQ(Owned("$3\r\n-17\r\n").Int().value(), -17);
  EXPECT_EQ(Owned("$2\r\nff\r\n").Int(16).value(), 255);
  EXPECT_EQ(Owned("$4\r\n0x10\r\n").Int(0).value(), 16);
  EXPECT_EQ(Owned("$2\r\n10\r\n").Int().value(), 10);  // base 10 by default
  // The low 32 bits of a wider integer, as the C getter stores them.
  EXPECT_EQ(Owned(":4294967297\r\n").Int().value(), 1);
}

TEST(CppGetters, IntKeepsTheLibraryCodes) {
  EXPECT_TRUE(Fails(Owned("+OK\r\n").Int(), -4));
  EXPECT_TRUE(Fails(Owned("*1\r\n:1\r\n").Int(), -4));
  EXPECT_TRUE(Fails(Owned("$-1\r\n").Int(), -2));  // nil: unusable
  EXPECT_TRUE(Fails(Owned("-ERR no\r\n").Int(), -2));
  EXPECT_TRUE(Fails(Owned(":1\r\n").Int(-1), -2));
  EXPECT_TRUE(Fails(Reply().Int(), -2));
  EXPECT_EQ(Owned("+OK\r\n").Int().value_or(7), 7);
}

TEST(CppGetters, StrReturnsTheTextWithItsLengthPointingIntoTheReply) {
  const Reply reply = Owned(std::string_view("$5\r\na\0b\0c\r\n", 11));
  const Result<std::string_view> text = reply.Str();
  ASSERT_TRUE(text.ok());
  EXPECT_EQ(text.value(), std::string_view("a\0b\0c", 5));
  EXPECT_EQ(text.value().data(), reply->str);
  const Reply empty_text = Owned("$0\r\n\r\n");
  EXPECT_TRUE(empty_text.Str().ok());
  EXPECT_EQ(empty_text.Str().value(), "");
}

TEST(CppGetters, StrKeepsTheLibraryCodes) {
  // Text getters exist on named replies only.
  const Reply integer = Owned(":1\r\n");
  const Reply status = Owned("+OK\r\n");
  const Reply array = Owned("*1\r\n$1\r\na\r\n");
  const Reply nil = Owned("$-1\r\n");
  const Reply error = Owned("-ERR no\r\n");
  const Reply empty;
  EXPECT_TRUE(Fails(integer.Str(), -4));
  EXPECT_TRUE(Fails(status.Str(), -4));
  EXPECT_TRUE(Fails(array.Str(), -4));
  EXPECT_TRUE(Fails(nil.Str(), -2));
  EXPECT_TRUE(Fails(error.Str(), -2));
  EXPECT_TRUE(Fails(empty.Str(), -2));
}

TEST(CppGetters, ElementGettersReadOneElementOfAnArray) {
  const Reply array = Owned("*2\r\n:7\r\n$2\r\nab\r\n");
  EXPECT_EQ(array.IntAt(0).value(), 7);
  EXPECT_EQ(array.StrAt(1).value(), "ab");
  EXPECT_EQ(array.IntAt(1, 16).value(), 0xab);
  EXPECT_TRUE(Fails(array.StrAt(0), -4));
  EXPECT_TRUE(Fails(array.IntAt(2), -2));
  EXPECT_TRUE(Fails(array.StrAt(-1), -2));
  EXPECT_TRUE(Fails(array.IntAt(0, -1), -2));
  const Reply text = Owned("$2\r\nab\r\n");
  EXPECT_TRUE(Fails(text.StrAt(0), -2));
  // One unusable element refuses every index.
  const Reply holed = Owned("*2\r\n:7\r\n$-1\r\n");
  EXPECT_TRUE(Fails(holed.IntAt(0), -2));
}

TEST(CppGetters, FieldGettersReadAFieldValueArray) {
  const Reply hash =
      Owned("*4\r\n$1\r\na\r\n$1\r\n1\r\n$1\r\nb\r\n$2\r\nx2\r\n");
  EXPECT_EQ(hash.IntByField("a").value(), 1);
  EXPECT_EQ(hash.StrByField("b").value(), "x2");
  EXPECT_TRUE(Fails(hash.IntByField("c"), -5));
  EXPECT_TRUE(Fails(hash.StrByField("A"), -5));  // case-sensitive
  EXPECT_TRUE(Fails(hash.StrByField(nullptr), -2));
  EXPECT_TRUE(Fails(hash.IntByField("a", -1), -2));
  const Reply text = Owned("$1\r\na\r\n");
  EXPECT_TRUE(Fails(text.StrByField("a"), -4));
  EXPECT_TRUE(Fails(text.IntByField("a"), -4));
}

TEST(CppGetters, SizesAreNulloptWhereTheCCallsGiveMinusOne) {
  EXPECT_EQ(Owned("*3\r\n:1\r\n:2\r\n:3\r\n").SetSize(), 3);
  EXPECT_EQ(Owned("*0\r\n").SetSize(), std::nullopt);  // empty: not 0
  EXPECT_EQ(Owned("$1\r\na\r\n").SetSize(), std::nullopt);
  EXPECT_EQ(Reply().SetSize(), std::nullopt);
  EXPECT_EQ(Owned("*4\r\n:1\r\n:2\r\n:3\r\n:4\r\n").HashSize(), 2);
  EXPECT_EQ(Owned("*3\r\n:1\r\n:2\r\n:3\r\n").HashSize(), std::nullopt);
  EXPECT_EQ(Owned("*0\r\n").HashSize(), std::nullopt);
}

TEST(CppGetters, UsableIsTheLibraryCheck) {
  EXPECT_TRUE(Owned(":1\r\n").Usable());
  EXPECT_TRUE(Owned("+OK\r\n").Usable());
  EXPECT_FALSE(Owned("$-1\r\n").Usable());
  EXPECT_FALSE(Owned("*2\r\n:1\r\n$-1\r\n").Usable());
  EXPECT_FALSE(Reply().Usable());
}

TEST(CppGetters, FailureLogsExactlyWhatTheCGetterLogs) {
  const Reply hash = Owned("*2\r\n$1\r\na\r\n$1\r\n1\r\n");
  const Reply integer = Owned(":5\r\n");
  char *text = nullptr;
  int len = 0;
  int value = 0;
  const std::string by_c = Logged(TQREDIS_LOG_DATA, [&] {
    tqredis_get_key_reply_intval(integer.get(), &value, -3);
    tqredis_get_key_reply_strval(integer.get(), &text, &len);
    tqredis_get_key_array_reply_intval(hash.get(), 5, &value, 10);
    tqredis_get_key_reply_strval_by_field(hash.get(), "zz", &text, &len);
  });
  const std::string by_cpp = Logged(TQREDIS_LOG_DATA, [&] {
    (void)integer.Int(-3);
    (void)integer.Str();
    (void)hash.IntAt(5);
    (void)hash.StrByField("zz");
  });
  EXPECT_NE(by_c, "");
  EXPECT_EQ(by_cpp, by_c);
}

// ---- Notification ----------------------------------------------------------

TEST(CppNotification, AccessorsReadTheLibraryRecord) {
  Reply value = Owned("$3\r\nhot\r\n");
  tqredis_pmsg pmsg{};
  pmsg.db = 1;
  std::snprintf(pmsg.key, sizeof(pmsg.key), "%s", "card:7");
  pmsg.cmd = TQREDIS_KEYCMD_SMERMBERS;
  pmsg.value = value.get();
  const Notification n(&pmsg);
  EXPECT_EQ(n.db(), 1u);
  EXPECT_EQ(n.key(), "card:7");
  EXPECT_EQ(n.key().data()[n.key().size()], '\0');
  EXPECT_EQ(n.cmd(), 19);
  EXPECT_STREQ(n.cmd_name(), "smermbers");  // as the library spells it
  EXPECT_EQ(n.value().get(), value.get());
  EXPECT_EQ(n.value().Str().value(), "hot");
  EXPECT_EQ(n.get(), &pmsg);
  pmsg.cmd = 99;  // never given by the library; still no read out of range
  EXPECT_STREQ(n.cmd_name(), "other");
}

// ---- Commands against real servers -----------------------------------------

namespace {
class CppCommand : public tqtest::ConnectedDevice {};

// What database `db` holds at `key`, read on a connection of the test's own.
std::string ServerValue(int db, const char *key) {
  auto direct = tqtest::Direct(db);
  auto reply = tqtest::Run(direct.get(), "GET %s", key);
  if (!reply) return "(no reply)";
  if (reply->type != REDIS_REPLY_STRING) return "(not a string)";
  return std::string(reply->str, reply->len);
}
}  // namespace

TEST_F(CppCommand, ReadReturnsTheReplyOwned) {
  Reply set = tqredis::Command(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "SET %s %s",
                               "cpp:k", "v 1");
  ASSERT_TRUE(set);
  EXPECT_EQ(set->type, REDIS_REPLY_STATUS);
  EXPECT_STREQ(set->str, "OK");
  EXPECT_EQ(ServerValue(TQREDIS_DB_HOST, "cpp:k"), "v 1");
  Reply get =
      tqredis::Command(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "GET %s", "cpp:k");
  EXPECT_EQ(get.Str().value(), "v 1");
}

TEST_F(CppCommand, ScalarArgumentsOfEachKindReachTheServer) {
  const int small = -42;
  const long long big = 1234567890123LL;
  const unsigned short count = 7;
  const Reply r1 = tqredis::Command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, 0,
                                    "SET n:%d %lld", small, big);
  const Reply r2 = tqredis::Command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, 0,
                                    "SET c %u:%.1f", count, 2.5);
  EXPECT_EQ(ServerValue(TQREDIS_DB_DE_GLOBAL, "n:-42"), "1234567890123");
  EXPECT_EQ(ServerValue(TQREDIS_DB_DE_GLOBAL, "c"), "7:2.5");
}

TEST_F(CppCommand, CommandWithoutArgumentsSendsTheFormat) {
  const Reply pong =
      tqredis::Command(TQREDIS_DB_CE_GLOBAL, TQREDIS_OP_READ, 0, "PING");
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->type, REDIS_REPLY_STATUS);
  EXPECT_STREQ(pong->str, "PONG");
  EXPECT_TRUE(Fails(pong.Str(), -4)) << "a status is not a string reply";
}

TEST_F(CppCommand, CheckedMacroIsTheSameCall) {
  const Reply set = TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0,
                                    "SET %s %d", "cpp:n", 17);
  ASSERT_TRUE(set);
  EXPECT_STREQ(set->str, "OK");
  const Reply get =
      TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "GET cpp:n");
  EXPECT_EQ(get.Int().value(), 17);
}

TEST_F(CppCommand, ErrorReplyIsReturnedForTheCallerToCheck) {
  const Reply reply =
      tqredis::Command(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "NOSUCH %s", "x");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->type, REDIS_REPLY_ERROR);
  EXPECT_FALSE(reply.Usable());
  EXPECT_TRUE(Fails(reply.Str(), -2));
}

TEST_F(CppCommand, RefusedArgumentsGiveAnEmptyReplyAndTheLibraryMessage) {
  Reply reply(Raw(":1\r\n"));  // shows that the result replaced it
  const std::string log = Logged(TQREDIS_LOG_ERROR, [&] {
    reply = tqredis::Command(3, TQREDIS_OP_READ, 0, "GET %s", "k");
  });
  EXPECT_FALSE(reply);
  EXPECT_EQ(log,
            "<tqredis_db_command_param_check>:input arguments invalid, db=3 "
            "op=0\r\n");
}

TEST_F(CppCommand, WriteGivesAnEmptyReplyAndReachesTheServerOnCommit) {
  const Reply reply =
      tqredis::Command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE,
                       TQREDIS_CMD_COMMIT, "SET %s %s", "w", "written");
  EXPECT_FALSE(reply);
  // Written out at once; the server takes it in a moment later.
  std::string value;
  for (int i = 0; i < 200 && (value = ServerValue(0, "w")) != "written"; ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(value, "written");
}

// ---- Key replay
// --------------------------------------------------------------

namespace {
// What a callable saw: key, key command name and value, rendered while the
// record lives.
struct Seen {
  std::string who;
  uint32_t db;
  std::string key;
  std::string cmd;
  std::string value;
  bool operator==(const Seen &o) const {
    return who == o.who && db == o.db && key == o.key && cmd == o.cmd &&
           value == o.value;
  }
};
void PrintTo(const Seen &s, std::ostream *os) {
  *os << "{" << s.who << " " << s.db << " " << s.key << " " << s.cmd << " "
      << s.value << "}";
}
Seen See(const char *who, const Notification &n) {
  const Result<std::string_view> text = n.value().Str();
  return {who, n.db(), std::string(n.key()), n.cmd_name(),
          text ? std::string(text.value())
               : "(" + std::to_string(text.code()) + ")"};
}

class CppReplay : public tqtest::ConnectedDevice {};
}  // namespace

TEST_F(CppReplay, EveryMatchingKeyReachesTheCallableWithItsValue) {
  auto direct = tqtest::Direct(TQREDIS_DB_HOST);
  tqtest::Run(direct.get(), "SET x:1 one");
  tqtest::Run(direct.get(), "SET x:2 two");
  tqtest::Run(direct.get(), "SET y:1 other");
  std::vector<Seen> seen;  // captured by reference: the call is its life
  const int rc = tqredis::ReplayKeys(
      TQREDIS_DB_HOST, "x:*", 1, TQREDIS_SCAN_STRING,
      [&seen](const Notification &n) { seen.push_back(See("replay", n)); });
  EXPECT_EQ(rc, 0);
  std::sort(seen.begin(), seen.end(),
            [](const Seen &a, const Seen &b) { return a.key < b.key; });
  EXPECT_EQ(seen, (std::vector<Seen>{{"replay", 2, "x:1", "set", "one"},
                                     {"replay", 2, "x:2", "set", "two"}}));
}

TEST_F(CppReplay, NullCallableIsRefusedAsTheCCallRefusesANullCallback) {
  void (*none)(const Notification &) = nullptr;
  std::function<void(const Notification &)> empty;
  std::vector<int> rc;
  const std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    rc.push_back(tqredis::ReplayKeys(2, "x:*", 10, 0, none));
    rc.push_back(tqredis::ReplayKeys(2, "x:*", 10, 0, empty));
  });
  EXPECT_EQ(rc, (std::vector<int>{-2, -2}));
  EXPECT_EQ(log,
            "<tqredis_scan_key_pattern>:input arguments invalid, db=2 "
            "count=10\r\n"
            "<tqredis_scan_key_pattern>:input arguments invalid, db=2 "
            "count=10\r\n");
}

// ---- Subscription tables -------------------------------------------------

namespace {

int IgnoreDataCheck(uint32_t) { return 0; }

// A callable that counts its live instances, to see who destroys it.
std::atomic<int> g_live_probes{0};
struct Probe {
  std::vector<Seen> *seen;
  explicit Probe(std::vector<Seen> *s) : seen(s) { ++g_live_probes; }
  Probe(const Probe &o) : seen(o.seen) { ++g_live_probes; }
  Probe(Probe &&o) noexcept : seen(o.seen) { ++g_live_probes; }
  Probe &operator=(const Probe &) = delete;
  ~Probe() { --g_live_probes; }
  void operator()(const Notification &n) const {
    seen->push_back(See("probe", n));
  }
};

// The entries the library registered, as its statistics list them.
std::string RegisteredPatterns() {
  return tqtest::Printed([] { tqredis_pubsub_stats_show(); });
}

std::string LinesWith(const std::string &text, const std::string &needle) {
  std::string found;
  for (const std::string &line : tqtest::Lines(text))
    if (line.find(needle) != std::string::npos) found += line;
  return found;
}

// Notifications with values come from the emulator.
class CppSubscriptions : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(emulator_.Start()); }

  // Connects every slot and subscribes what was registered.
  static void Subscribe() {
    const Reply pong =
        tqredis::Command(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0, "PING");
    ASSERT_TRUE(pong);
    tqredis_db_psubscrible();
  }

  // Pumps until `seen` holds `count` records, 100 calls (10 s) at most.
  static void PumpUntil(const std::vector<Seen> &seen, size_t count) {
    for (int i = 0; i < 100 && seen.size() < count; ++i) tqredis_pubsub();
  }

  tqtest::DeviceEmulator emulator_;
};

// What the tables' callables saw. A global: a registered callable may run as
// long as the process does.
std::vector<Seen> g_seen;

}  // namespace

TEST_F(CppSubscriptions, NotificationReachesTheCallableOfItsPatternOnly) {
  tqredis::Subscriptions table;
  ASSERT_EQ(
      table.Add(TQREDIS_DB_HOST, "a:*",
                [](const Notification &n) { g_seen.push_back(See("a", n)); }),
      0);
  ASSERT_EQ(
      table.Add(TQREDIS_DB_HOST, "b:*",
                [](const Notification &n) { g_seen.push_back(See("b", n)); }),
      0);
  ASSERT_EQ(
      table.Add(TQREDIS_DB_DE_GLOBAL, "b:*",
                [](const Notification &n) { g_seen.push_back(See("b0", n)); }),
      0);
  ASSERT_EQ(table.Init(IgnoreDataCheck, 2), 0);
  EXPECT_TRUE(table.registered());
  Subscribe();
  auto direct = tqtest::Direct(TQREDIS_DB_HOST);
  tqtest::Run(direct.get(), "SET b:1 v1");
  PumpUntil(g_seen, 1);
  tqtest::Run(direct.get(), "SET a:1 v2");
  tqtest::Run(direct.get(), "DEL b:1");
  PumpUntil(g_seen, 3);
  EXPECT_EQ(g_seen, (std::vector<Seen>{{"b", 2, "b:1", "set", "v1"},
                                       {"a", 2, "a:1", "set", "v2"},
                                       {"b", 2, "b:1", "del", "(-2)"}}));
}

TEST_F(CppSubscriptions, RegisteredCallablesOutliveTheTable) {
  {
    tqredis::Subscriptions table;
    ASSERT_EQ(table.Add(TQREDIS_DB_HOST, "k*", Probe(&g_seen)), 0);
    EXPECT_EQ(g_live_probes, 1);
    ASSERT_EQ(table.Init(IgnoreDataCheck, 2), 0);
  }
  EXPECT_EQ(g_live_probes, 1) << "the library's callable was destroyed";
  Subscribe();
  auto direct = tqtest::Direct(TQREDIS_DB_HOST);
  tqtest::Run(direct.get(), "SET k1 after");
  PumpUntil(g_seen, 1);
  EXPECT_EQ(g_seen, (std::vector<Seen>{{"probe", 2, "k1", "set", "after"}}));
}

TEST(CppSubscriptionTable, UnregisteredTableDestroysItsCallables) {
  std::vector<Seen> seen;
  {
    tqredis::Subscriptions table;
    Probe probe(&seen);
    ASSERT_EQ(table.Add(0, "a*", probe), 0);         // copied in
    ASSERT_EQ(table.Add(1, "b*", Probe(&seen)), 0);  // moved in
    EXPECT_EQ(g_live_probes, 3);
  }
  EXPECT_EQ(g_live_probes, 0);
}

TEST(CppSubscriptionTable,
     RegistrationThatKeptNothingLeavesTheCallablesToTheTable) {
  std::vector<Seen> seen;
  {
    tqredis::Subscriptions table;
    ASSERT_EQ(table.Add(2, "k*", Probe(&seen)), 0);
    // Without a data check the library registers no subscription.
    EXPECT_EQ(table.Init(nullptr, 0), -2);
    EXPECT_TRUE(table.registered());
    EXPECT_EQ(LinesWith(RegisteredPatterns(), "key_pattern="), "");
    EXPECT_EQ(g_live_probes, 1);
  }
  EXPECT_EQ(g_live_probes, 0);
}

TEST(CppSubscriptionTable, EntriesFollowTheCallablesInOrder) {
  std::vector<std::string> calls;
  tqredis::Subscriptions table;
  ASSERT_EQ(table.Add(0, "first:*",
                      [&calls](const Notification &n) {
                        calls.push_back("first " + std::string(n.key()));
                      }),
            0);
  ASSERT_EQ(table.Add(2, std::string(127, 'p'),
                      [&calls](const Notification &n) {
                        calls.push_back("second " + std::string(n.key()));
                      }),
            0);
  ASSERT_EQ(table.size(), 2);
  const pubsub_mng *entries = table.table();
  EXPECT_EQ(entries[0].key_db, 0u);
  EXPECT_STREQ(entries[0].key_pattern, "first:*");
  EXPECT_EQ(entries[1].key_db, 2u);
  EXPECT_EQ(std::string(entries[1].key_pattern), std::string(127, 'p'));
  EXPECT_NE(entries[0].hook_arg, entries[1].hook_arg);
  EXPECT_EQ(tqredis_pubsub_mng_check(const_cast<pubsub_mng *>(&entries[0])), 1);
  // Each entry's hook calls its own callable with the record.
  tqredis_pmsg pmsg{};
  std::snprintf(pmsg.key, sizeof(pmsg.key), "%s", "k");
  EXPECT_EQ(entries[1].hook(&pmsg, entries[1].hook_arg), 0);
  EXPECT_EQ(entries[0].hook(&pmsg, entries[0].hook_arg), 0);
  EXPECT_EQ(calls, (std::vector<std::string>{"second k", "first k"}));
}

TEST(CppSubscriptionTable, AddRefusesWhatTheLibraryWouldSkipOrCut) {
  tqredis::Subscriptions table;
  auto fn = [](const Notification &) {};
  void (*none)(const Notification &) = nullptr;
  std::function<void(const Notification &)> empty;
  EXPECT_EQ(table.Add(3, "k*", fn), -2);
  EXPECT_EQ(table.Add(2, std::string(128, 'p'), fn), -2);
  EXPECT_EQ(table.Add(2, std::string_view("k\0x", 3), fn), -2);
  EXPECT_EQ(table.Add(2, "k*", none), -2);
  EXPECT_EQ(table.Add(2, "k*", empty), -2);
  EXPECT_EQ(table.size(), 0);
  EXPECT_EQ(table.Add(2, "", fn), 0);  // as the library takes it
  EXPECT_EQ(table.Add(2, "k*", +fn), 0);
  EXPECT_EQ(table.Add(2, "k*", std::function<void(const Notification &)>(fn)),
            0);
  EXPECT_EQ(table.size(), 3);
}

TEST(CppSubscriptionTable, TableIsRegisteredOnceAndThenClosed) {
  tqredis::Subscriptions table;
  ASSERT_EQ(table.Add(0, "once:*", [](const Notification &) {}), 0);
  EXPECT_FALSE(table.registered());
  EXPECT_EQ(table.Init(IgnoreDataCheck, 0), 0);
  EXPECT_EQ(table.Init(IgnoreDataCheck, 0), -1);
  EXPECT_EQ(table.Register(), -1);
  EXPECT_EQ(table.Add(0, "later:*", [](const Notification &) {}), -1);
  EXPECT_EQ(table.size(), 1);
  EXPECT_EQ(LinesWith(RegisteredPatterns(), "key_pattern="),
            "\tdbid=0 key_pattern=once:* flag=0\r\n");
}

TEST(CppSubscriptionTable, RegisterAddsToAnInitialisedLibrary) {
  tqredis_init(nullptr, 0, IgnoreDataCheck, 0);
  tqredis::Subscriptions table;
  ASSERT_EQ(table.Add(1, "late:*", [](const Notification &) {}), 0);
  EXPECT_EQ(table.Register(), 0);
  EXPECT_EQ(LinesWith(RegisteredPatterns(), "key_pattern="),
            "\tdbid=0 key_pattern=late:* flag=0\r\n");
  EXPECT_NE(RegisteredPatterns().find("redis_ce_global pubsublist:\r\n\tdbid=0 "
                                      "key_pattern=late:*"),
            std::string::npos);
}

TEST(CppSubscriptionTable, EmptyTableRegistersAsANullOne) {
  tqredis::Subscriptions table;
  EXPECT_EQ(table.table(), nullptr);
  EXPECT_EQ(table.Init(IgnoreDataCheck, 0), -1);  // as tqredis_init(NULL, 0)
  EXPECT_EQ(g_tqredis_init_ok, 1);
}

// ---- Lock guard ------------------------------------------------------------

namespace {

// True when another thread can take and release the lock (it finishes).
// While this thread holds it, the other waits: released here to join it.
bool OtherThreadGetsTheLock(int held) {
  std::atomic<bool> got{false};
  std::thread other([&] {
    tqredis_lock();
    got = true;
    tqredis_unlock();
  });
  // A sleep can only let a broken lock pass, never fail a correct one.
  std::this_thread::sleep_for(50ms);
  const bool result = got;
  if (!result) {
    for (int i = 0; i < held; ++i) tqredis_unlock();
    other.join();
    for (int i = 0; i < held; ++i) tqredis_lock();
    return false;
  }
  other.join();
  return true;
}

}  // namespace

TEST(CppLockGuard, HoldsTheEnabledLockForItsScope) {
  tqredis_init(nullptr, 0, nullptr, 2);
  {
    tqredis::LockGuard lock;
    EXPECT_FALSE(OtherThreadGetsTheLock(1));
  }
  EXPECT_TRUE(OtherThreadGetsTheLock(0));
}

TEST(CppLockGuard, NestedGuardsReleaseOneLevelEach) {
  tqredis_init(nullptr, 0, nullptr, 2);
  {
    tqredis::LockGuard outer;
    {
      tqredis::LockGuard inner;
      EXPECT_FALSE(OtherThreadGetsTheLock(2));
    }
    EXPECT_FALSE(OtherThreadGetsTheLock(1))
        << "the inner guard released the outer one's level";
  }
  EXPECT_TRUE(OtherThreadGetsTheLock(0));
}

TEST(CppLockGuard, HoldsNothingBeforeTheLockIsEnabled) {
  tqredis::LockGuard lock;
  EXPECT_TRUE(OtherThreadGetsTheLock(0));
}

TEST(CppLockGuard, HoldsNothingWithoutTheLockFlag) {
  tqredis_init(nullptr, 0, nullptr, 1);
  tqredis::LockGuard lock;
  EXPECT_TRUE(OtherThreadGetsTheLock(0));
}

TEST(CppLockGuard, GuardMadeBeforeTheLockWasEnabledReleasesNothing) {
  {
    tqredis::LockGuard early;
    tqredis_init(nullptr, 0, nullptr, 2);
    tqredis::LockGuard late;
    EXPECT_FALSE(OtherThreadGetsTheLock(1));
  }
  // Both gone: the late guard's level released, the early one's never taken.
  EXPECT_TRUE(OtherThreadGetsTheLock(0));
  tqredis_lock();
  EXPECT_FALSE(OtherThreadGetsTheLock(1));
  tqredis_unlock();
}

TEST(CppOptions, TypedSettersSetTheSwitchesTheCCallsRead) {
  using namespace std::chrono_literals;
  EXPECT_EQ(tqredis::options::SetWaitLimit(1500ms), 0);
  EXPECT_EQ(tqredis_get_option("waitlimit"), 1500);
  EXPECT_EQ(tqredis::options::WaitLimit(), 1500ms);
  EXPECT_EQ(tqredis::options::SetReplies(true), 0);
  EXPECT_TRUE(tqredis::options::Replies());
  EXPECT_EQ(tqredis::options::SetHookWarn(300ms), 0);
  EXPECT_EQ(tqredis_get_option("hookwarn"), 300);
  EXPECT_EQ(tqredis::options::SetExitStatus(3), 0);
  EXPECT_EQ(tqredis::options::ExitStatus(), 3);
  EXPECT_EQ(tqredis::options::SetKeepCopies(2), 0);
  EXPECT_EQ(tqredis::options::KeepCopies(), 2);
  EXPECT_FALSE(tqredis::options::RecordAll());
  EXPECT_FALSE(tqredis::options::Reconnect());
  EXPECT_FALSE(tqredis::options::Safe());
  EXPECT_EQ(tqredis::options::SetSafe(true), 0);
  EXPECT_TRUE(tqredis::options::RecordAll());  // not set itself: safe value
  EXPECT_TRUE(tqredis::options::Reconnect());
  EXPECT_EQ(tqredis::options::ExitStatus(), 3);  // set itself: kept
  EXPECT_EQ(tqredis::options::SetReconnect(false), 0);
  EXPECT_EQ(tqredis_get_option("reconnect"), 0);
}

TEST(CppOptions, OutOfRangeValuesAreRefusedWithTheCCode) {
  using namespace std::chrono_literals;
  EXPECT_EQ(tqredis::options::SetExitStatus(256), -1);
  EXPECT_EQ(tqredis::options::SetWaitLimit(-1ms), -1);
  EXPECT_EQ(tqredis::options::ExitStatus(), 0);
  EXPECT_EQ(tqredis::options::WaitLimit(), 0ms);
}
