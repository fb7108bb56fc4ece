// Typed getters: values read out of replies, and every way a reply or an
// argument is refused, with the exact messages and result codes.
#include <climits>
#include <cstdint>
#include <initializer_list>
#include <regex>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "support/support.h"
#include "tqredis.h"

using tqtest::ParseReply;
using tqtest::ReplyPtr;
using tqtest::StdoutCapture;

namespace {

// The console lines of a call, with "[getters_test]<func, N>:" reduced to
// "<func>:" so that tests read the messages themselves.
std::string Messages(const std::string &out) {
  return std::regex_replace(
      out, std::regex(R"(\[getters_test\]<(\w+), \d+>:)"), "<$1>:");
}

template <typename F>
std::string Captured(uint32_t level, F &&call) {
  g_tqredis_dbg_level = level;
  StdoutCapture capture;
  call();
  const std::string out = capture.Finish();
  g_tqredis_dbg_level = 0;
  return Messages(out);
}

// Level-1 messages only.
template <typename F>
std::string Logged(F &&call) {
  return Captured(TQREDIS_LOG_DATA, call);
}

// Level-16 dumps only.
template <typename F>
std::string Printed(F &&call) {
  return Captured(TQREDIS_LOG_DUMP, call);
}

// RESP builders, so that replies read as what they hold.
std::string Bulk(std::string_view s) {
  return "$" + std::to_string(s.size()) + "\r\n" + std::string(s) + "\r\n";
}
std::string Int(long long v) { return ":" + std::to_string(v) + "\r\n"; }
std::string Array(std::initializer_list<std::string> items) {
  std::string out = "*" + std::to_string(items.size()) + "\r\n";
  for (const std::string &item : items) out += item;
  return out;
}
const std::string kNil = "$-1\r\n";
const std::string kOk = "+OK\r\n";

ReplyPtr Reply(const std::string &resp) {
  ReplyPtr r = ParseReply(resp);
  EXPECT_TRUE(r != nullptr) << "bad RESP in the test: " << resp;
  return r;
}

// The hash reply a, 1, b, 2.
ReplyPtr HashAB() {
  return Reply(Array({Bulk("a"), Bulk("1"), Bulk("b"), Bulk("2")}));
}

redisReply Bare(int type) {
  redisReply r{};
  r.type = type;
  return r;
}

// Outputs preset to values no getter can produce, to see that a failure
// leaves them alone.
struct Outputs {
  int value = -123456;
  char mark = 'm';
  char *text = &mark;
  int len = -654321;
  void ExpectUntouched() const {
    EXPECT_EQ(value, -123456);
    EXPECT_EQ(text, &mark);
    EXPECT_EQ(len, -654321);
  }
};

}  // namespace

// ---- tqredis_get_key_reply: the core ----------------------------------------

TEST(GetKeyReply, IntegerReplyReadAsIntegerKeepsTheLowThirtyTwoBits) {
  auto r = Reply(Int(4294967338LL));  // 2^32 + 42
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply(r.get(), 0, &out.value, 10, &out.text, &out.len), 0);
  EXPECT_EQ(out.value, 42);
  EXPECT_EQ(out.text, &out.mark);
  EXPECT_EQ(out.len, -654321);
}

TEST(GetKeyReply, IntegerReplyAskedAsTextIsWrongType) {
  auto r = Reply(Int(5));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply(r.get(), 1, &out.value, 10, &out.text, &out.len);
            }),
            "<tqredis_get_key_reply>:redis int reply, valtype=1\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetKeyReply, IntegerReplyWithUnknownValtypeIsWrongTypeNotMinusOne) {
  auto r = Reply(Int(5));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply(r.get(), 7, &out.value, 10, &out.text, &out.len);
            }),
            "<tqredis_get_key_reply>:redis int reply, valtype=7\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetKeyReply, StringReplyIsReadAsIntegerOrAsText) {
  auto r = Reply(Bulk("123"));
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply(r.get(), 0, &out.value, 10, &out.text, &out.len), 0);
  EXPECT_EQ(out.value, 123);
  EXPECT_EQ(out.text, &out.mark);
  EXPECT_EQ(tqredis_get_key_reply(r.get(), 1, &out.value, 10, &out.text, &out.len), 0);
  EXPECT_EQ(out.text, r->str);
  EXPECT_EQ(out.len, 3);
  EXPECT_EQ(out.value, 123);
}

TEST(GetKeyReply, StringReplyWithUnknownValtypeGivesMinusOneSilently) {
  auto r = Reply(Bulk("123"));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply(r.get(), 2, &out.value, 10, &out.text, &out.len);
              EXPECT_EQ(tqredis_get_key_reply(r.get(), -1, &out.value, 10, &out.text, &out.len),
                        -1);
            }),
            "");
  EXPECT_EQ(rc, -1);
  out.ExpectUntouched();
}

TEST(GetKeyReply, StatusArrayNilAndErrorRepliesAreWrongType) {
  auto status = Reply(kOk);
  auto array = Reply(Array({Bulk("1")}));
  auto nil = Reply(kNil);
  auto error = Reply("-ERR no\r\n");
  Outputs out;
  EXPECT_EQ(Logged([&] {
              for (redisReply *r : {status.get(), array.get(), nil.get(), error.get()}) {
                EXPECT_EQ(tqredis_get_key_reply(r, 0, &out.value, 10, &out.text, &out.len), -4);
                EXPECT_EQ(tqredis_get_key_reply(r, 1, &out.value, 10, &out.text, &out.len), -4);
              }
            }),
            "<tqredis_get_key_reply>:reply type error, type=5\n"
            "<tqredis_get_key_reply>:reply type error, type=5\n"
            "<tqredis_get_key_reply>:reply type error, type=2\n"
            "<tqredis_get_key_reply>:reply type error, type=2\n"
            "<tqredis_get_key_reply>:reply type error, type=4\n"
            "<tqredis_get_key_reply>:reply type error, type=4\n"
            "<tqredis_get_key_reply>:reply type error, type=6\n"
            "<tqredis_get_key_reply>:reply type error, type=6\n");
  out.ExpectUntouched();
}

TEST(GetKeyReply, RejectedReplyIsPrintedAtLevelSixteen) {
  auto status = Reply(kOk);
  auto integer = Reply(Int(9));
  Outputs out;
  EXPECT_EQ(Printed([&] {
              tqredis_get_key_reply(status.get(), 0, &out.value, 10, nullptr, nullptr);
              tqredis_get_key_reply(integer.get(), 1, nullptr, 0, &out.text, &out.len);
            }),
            "(status) OK\r\n(integer) 9\n");
  out.ExpectUntouched();
}

TEST(GetKeyReply, AcceptedReplyIsNotPrinted) {
  auto r = Reply(Bulk("7"));
  int value = 0;
  EXPECT_EQ(Printed([&] { tqredis_get_key_reply(r.get(), 0, &value, 10, nullptr, nullptr); }),
            "");
  EXPECT_EQ(value, 7);
}

TEST(GetKeyReply, NullReplyGivesMinusTwoNotACrash) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply(nullptr, 0, &out.value, 10, &out.text, &out.len);
            }),
            "<tqredis_get_key_reply>:reply = NULL\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetKeyReply, MissingOutputIsRefusedByTheConversion) {
  auto integer = Reply(Int(5));
  auto text = Reply(Bulk("5"));
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply(integer.get(), 0, nullptr, 10, &out.text, &out.len), -2);
  EXPECT_EQ(tqredis_get_key_reply(text.get(), 1, &out.value, 10, &out.text, nullptr), -2);
  out.ExpectUntouched();
}

// ---- tqredis_get_key_reply_intval -------------------------------------------

TEST(GetIntval, IntegerReplyOfFortyTwoGivesFortyTwo) {
  auto r = Reply(Int(42));
  int value = 0;
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_get_key_reply_intval(r.get(), &value, 10), 0); }),
            "");
  EXPECT_EQ(value, 42);
}

TEST(GetIntval, HexTextWithBaseZeroGivesThirtyOne) {
  auto r = Reply(Bulk("0x1f"));
  int value = 0;
  EXPECT_EQ(tqredis_get_key_reply_intval(r.get(), &value, 0), 0);
  EXPECT_EQ(value, 31);
}

TEST(GetIntval, BaseGoesUnchangedToTheConversion) {
  auto hex = Reply(Bulk("0x1f"));
  auto bare = Reply(Bulk("1f"));
  auto octal = Reply(Bulk("010"));
  int value = -1;
  EXPECT_EQ(tqredis_get_key_reply_intval(hex.get(), &value, 10), 0);
  EXPECT_EQ(value, 0);  // base 10 stops at the x
  EXPECT_EQ(tqredis_get_key_reply_intval(bare.get(), &value, 16), 0);
  EXPECT_EQ(value, 31);
  EXPECT_EQ(tqredis_get_key_reply_intval(octal.get(), &value, 0), 0);
  EXPECT_EQ(value, 8);
  EXPECT_EQ(tqredis_get_key_reply_intval(octal.get(), &value, 10), 0);
  EXPECT_EQ(value, 10);
}

TEST(GetIntval, NonNumericTextGivesZero) {
  auto r = Reply(Bulk("hello"));
  int value = 99;
  EXPECT_EQ(tqredis_get_key_reply_intval(r.get(), &value, 10), 0);
  EXPECT_EQ(value, 0);
}

TEST(GetIntval, NegativeIntegerReplyStaysNegative) {
  auto r = Reply(Int(-7));
  int value = 0;
  EXPECT_EQ(tqredis_get_key_reply_intval(r.get(), &value, 10), 0);
  EXPECT_EQ(value, -7);
}

TEST(GetIntval, StatusReplyIsWrongTypeFive) {
  auto r = Reply("+17\r\n");
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, 10); }),
            "<tqredis_get_key_reply>:reply type error, type=5\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetIntval, UsableArrayReplyIsWrongTypeTwo) {
  auto r = Reply(Array({Int(1)}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, 10); }),
            "<tqredis_get_key_reply>:reply type error, type=2\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetIntval, EmptyArrayPassesTheCheckThenIsWrongType) {
  auto r = Reply(Array({}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, 10); }),
            "<check_reply>:elements zero\r\n"
            "<tqredis_get_key_reply>:reply type error, type=2\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetIntval, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(nullptr, &out.value, 10); }),
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, NilReplyIsInvalidArgumentsAfterReplyNil) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, 16); }),
            "<check_reply>:reply nil\r\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=16\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, ErrorReplyIsInvalidArguments) {
  auto r = Reply("-ERR 12\r\n");
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, 10); }),
            "<check_reply>:command error: ERR 12\r\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, StringWithoutTextIsInvalidArguments) {
  redisReply r = Bare(REDIS_REPLY_STRING);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(&r, &out.value, 10); }),
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, NegativeBaseIsRefusedBeforeAnythingIsConverted) {
  auto text = Reply(Bulk("12"));
  auto status = Reply(kOk);  // would be -4 if it reached the conversion
  Outputs out;
  int rc_text = 0;
  int rc_status = 0;
  EXPECT_EQ(Logged([&] {
              rc_text = tqredis_get_key_reply_intval(text.get(), &out.value, -1);
              rc_status = tqredis_get_key_reply_intval(status.get(), &out.value, INT_MIN);
            }),
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=-1\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=-2147483648\n");
  EXPECT_EQ(rc_text, -2);
  EXPECT_EQ(rc_status, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, ReplyIsCheckedBeforeTheBase) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), &out.value, -1); }),
            "<check_reply>:reply nil\r\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=-1\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntval, NullOutputIsInvalidArguments) {
  auto r = Reply(Int(3));
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval(r.get(), nullptr, 10); }),
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
}

TEST(GetIntval, RefusedReplyIsPrintedByTheCheckAtLevelSixteen) {
  auto nil = Reply(kNil);
  auto status = Reply("+PONG\r\n");
  int value = 0;
  EXPECT_EQ(Printed([&] {
              tqredis_get_key_reply_intval(nil.get(), &value, 10);
              tqredis_get_key_reply_intval(status.get(), &value, 10);
            }),
            "(nil)\n(status) PONG\r\n");
}

TEST(GetIntval, MessagesAndDumpInterleaveInCallOrder) {
  auto r = Reply(Array({Bulk("x"), kNil}));
  int value = 0;
  EXPECT_EQ(Captured(TQREDIS_LOG_DATA | TQREDIS_LOG_DUMP,
                     [&] { tqredis_get_key_reply_intval(r.get(), &value, 10); }),
            "<check_reply>:reply nil\r\n"
            "<check_reply>:array reply element[1] error\r\n"
            "0) (string) x\r\n1) (nil)\n"
            "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n");
}

// ---- tqredis_get_key_reply_strval -------------------------------------------

TEST(GetStrval, TextPointsIntoTheReply) {
  auto r = Reply(Bulk("hello"));
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_get_key_reply_strval(r.get(), &text, &len), 0);
  EXPECT_EQ(text, r->str);
  EXPECT_EQ(len, 5);
}

TEST(GetStrval, EmbeddedNulKeepsTheFullLength) {
  auto r = Reply(Bulk(std::string_view("ab\0cd", 5)));
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_get_key_reply_strval(r.get(), &text, &len), 0);
  EXPECT_EQ(text, r->str);
  EXPECT_EQ(len, 5);
}

TEST(GetStrval, EmptyTextIsAValue) {
  auto r = Reply(Bulk(""));
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_get_key_reply_strval(r.get(), &text, &len), 0);
  EXPECT_EQ(text, r->str);
  EXPECT_EQ(len, 0);
}

TEST(GetStrval, IntegerReplyIsWrongTypeValtypeOne) {
  auto r = Reply(Int(42));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_strval(r.get(), &out.text, &out.len); }),
            "<tqredis_get_key_reply>:redis int reply, valtype=1\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetStrval, StatusReplyIsWrongType) {
  auto r = Reply(kOk);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_strval(r.get(), &out.text, &out.len); }),
            "<tqredis_get_key_reply>:reply type error, type=5\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetStrval, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_strval(nullptr, &out.text, &out.len); }),
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_get_key_reply_strval>:input arguments invalid\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetStrval, NilReplyIsInvalidArgumentsAfterReplyNil) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_strval(r.get(), &out.text, &out.len); }),
            "<check_reply>:reply nil\r\n"
            "<tqredis_get_key_reply_strval>:input arguments invalid\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetStrval, EachMissingOutputIsInvalidArguments) {
  auto r = Reply(Bulk("x"));
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_reply_strval(r.get(), nullptr, &out.len), -2);
              EXPECT_EQ(tqredis_get_key_reply_strval(r.get(), &out.text, nullptr), -2);
            }),
            "<tqredis_get_key_reply_strval>:input arguments invalid\n"
            "<tqredis_get_key_reply_strval>:input arguments invalid\n");
  out.ExpectUntouched();
}

// ---- tqredis_check_array_reply ----------------------------------------------

TEST(CheckArrayReply, UsableElementGivesOneSilently) {
  auto r = Reply(Array({Bulk("a"), Int(2)}));
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_check_array_reply(r.get(), 0), 1);
              EXPECT_EQ(tqredis_check_array_reply(r.get(), 1), 1);
            }),
            "");
}

TEST(CheckArrayReply, NonArrayIsRefusedWithItsType) {
  auto r = Reply(Bulk("a"));
  auto i = Reply(Int(1));
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_check_array_reply(r.get(), 0), 0);
              EXPECT_EQ(tqredis_check_array_reply(i.get(), 0), 0);
            }),
            "<tqredis_check_array_reply>:not array reply, type=1\n"
            "<tqredis_check_array_reply>:not array reply, type=3\n");
}

TEST(CheckArrayReply, IndexEqualToElementsIsInvalid) {
  auto r = Reply(Array({Bulk("a"), Int(2)}));
  int ok = -1;
  EXPECT_EQ(Logged([&] { ok = tqredis_check_array_reply(r.get(), 2); }),
            "<tqredis_check_array_reply>:index invalid, elements=2 index=2\n");
  EXPECT_EQ(ok, 0);
}

TEST(CheckArrayReply, HugeIndexIsComparedUnsignedAndPrintedSigned) {
  auto r = Reply(Array({Bulk("a"), Int(2)}));
  int ok = -1;
  EXPECT_EQ(Logged([&] { ok = tqredis_check_array_reply(r.get(), UINT32_MAX); }),
            "<tqredis_check_array_reply>:index invalid, elements=2 index=-1\n");
  EXPECT_EQ(ok, 0);
}

TEST(CheckArrayReply, AnyIndexOfAnEmptyArrayIsInvalid) {
  auto r = Reply(Array({}));
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_check_array_reply(r.get(), 0), 0); }),
            "<tqredis_check_array_reply>:index invalid, elements=0 index=0\n");
}

TEST(CheckArrayReply, NilElementIsInvalid) {
  auto r = Reply(Array({Bulk("a"), kNil}));
  int ok = -1;
  EXPECT_EQ(Logged([&] { ok = tqredis_check_array_reply(r.get(), 1); }),
            "<check_reply>:reply nil\r\n<tqredis_check_array_reply>:element[1] invalid\n");
  EXPECT_EQ(ok, 0);
}

TEST(CheckArrayReply, OnlyTheAskedElementIsChecked) {
  auto r = Reply(Array({Bulk("a"), kNil}));
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_check_array_reply(r.get(), 0), 1); }), "");
}

TEST(CheckArrayReply, NestedArrayElementIsCheckedToTheBottom) {
  auto good = Reply(Array({Array({Int(1), Bulk("x")})}));
  auto bad = Reply(Array({Array({Int(1), "-ERR deep\r\n"})}));
  EXPECT_EQ(tqredis_check_array_reply(good.get(), 0), 1);
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_check_array_reply(bad.get(), 0), 0); }),
            "<check_reply>:command error: ERR deep\r\n"
            "<check_reply>:array reply element[1] error\r\n"
            "<tqredis_check_array_reply>:element[0] invalid\n");
}

TEST(CheckArrayReply, UnusableElementIsPrintedAtLevelSixteen) {
  auto r = Reply(Array({Bulk("a"), "-ERR x\r\n"}));
  EXPECT_EQ(Printed([&] { tqredis_check_array_reply(r.get(), 1); }), "(error) ERR x\r\n");
}

TEST(CheckArrayReply, NullReplyIsRefusedNotACrash) {
  int ok = -1;
  EXPECT_EQ(Logged([&] { ok = tqredis_check_array_reply(nullptr, 0); }),
            "<tqredis_check_array_reply>:reply = NULL\r\n");
  EXPECT_EQ(ok, 0);
}

TEST(CheckArrayReply, MissingElementVectorIsRefusedNotACrash) {
  redisReply r = Bare(REDIS_REPLY_ARRAY);
  r.elements = 2;
  int ok = -1;
  EXPECT_EQ(Logged([&] { ok = tqredis_check_array_reply(&r, 1); }),
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_check_array_reply>:element[1] invalid\n");
  EXPECT_EQ(ok, 0);
}

// ---- tqredis_get_key_array_reply_intval -------------------------------------

TEST(GetArrayIntval, ReadsTheElementAtTheIndex) {
  auto r = Reply(Array({Int(5), Bulk("17"), Bulk("0x10")}));
  int value = 0;
  EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 0, &value, 10), 0);
  EXPECT_EQ(value, 5);
  EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 1, &value, 10), 0);
  EXPECT_EQ(value, 17);
  EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 2, &value, 0), 0);
  EXPECT_EQ(value, 16);
}

TEST(GetArrayIntval, IndexEqualToElementsIsIndexInvalidThenArrayInvalid) {
  auto r = Reply(Array({Int(5), Int(6), Int(7)}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 3, &out.value, 10); }),
            "<tqredis_check_array_reply>:index invalid, elements=3 index=3\n"
            "<tqredis_get_key_array_reply_intval>:array reply invalid, index=3\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, HugeIndexIsIndexInvalid) {
  auto r = Reply(Array({Int(5)}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), INT_MAX, &out.value, 10); }),
      "<tqredis_check_array_reply>:index invalid, elements=1 index=2147483647\n"
      "<tqredis_get_key_array_reply_intval>:array reply invalid, index=2147483647\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NilAnywhereIsRefusedByTheArgumentCheckWhicheverIndex) {
  auto r = Reply(Array({Int(1), kNil, Int(3)}));
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10), -2);
              EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 2, &out.value, 10), -2);
            }),
            "<check_reply>:reply nil\r\n<check_reply>:array reply element[1] error\r\n"
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n"
            "<check_reply>:reply nil\r\n<check_reply>:array reply element[1] error\r\n"
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=2 base=10\n");
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NegativeIndexIsInvalidArguments) {
  auto r = Reply(Array({Int(1)}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), -1, &out.value, 10); }),
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=-1 base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NegativeBaseIsInvalidArguments) {
  auto r = Reply(Array({Bulk("12")}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, -16); }),
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=-16\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NullOutputIsInvalidArguments) {
  auto r = Reply(Array({Int(1)}));
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 0, nullptr, 10), -2);
            }),
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n");
}

TEST(GetArrayIntval, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(nullptr, 0, &out.value, 10); }),
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NilReplyIsInvalidArgumentsAfterReplyNil) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<check_reply>:reply nil\r\n"
            "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NonArrayReplyIsArrayInvalid) {
  auto r = Reply(Bulk("5"));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<tqredis_check_array_reply>:not array reply, type=1\n"
            "<tqredis_get_key_array_reply_intval>:array reply invalid, index=0\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, EmptyArrayIsArrayInvalid) {
  auto r = Reply(Array({}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<check_reply>:elements zero\r\n"
            "<tqredis_check_array_reply>:index invalid, elements=0 index=0\n"
            "<tqredis_get_key_array_reply_intval>:array reply invalid, index=0\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, NestedArrayElementIsWrongType) {
  auto r = Reply(Array({Array({Int(1), Int(2)}), Int(3)}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<tqredis_get_key_reply>:reply type error, type=2\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
  EXPECT_EQ(tqredis_get_key_array_reply_intval(r.get(), 1, &out.value, 10), 0);
  EXPECT_EQ(out.value, 3);
}

TEST(GetArrayIntval, NestedEmptyArrayIsLoggedByBothChecksThenWrongType) {
  auto r = Reply(Array({Array({})}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<check_reply>:elements zero\r\n"
            "<check_reply>:elements zero\r\n"
            "<tqredis_get_key_reply>:reply type error, type=2\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, StatusElementIsWrongType) {
  auto r = Reply(Array({"+5\r\n"}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_array_reply_intval(r.get(), 0, &out.value, 10); }),
            "<tqredis_get_key_reply>:reply type error, type=5\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetArrayIntval, RejectedArrayIsPrintedBeforeTheArrayMessage) {
  auto r = Reply(Array({Int(1), Bulk("b")}));
  int value = 0;
  EXPECT_EQ(Captured(TQREDIS_LOG_DATA | TQREDIS_LOG_DUMP,
                     [&] { tqredis_get_key_array_reply_intval(r.get(), 2, &value, 10); }),
            "<tqredis_check_array_reply>:index invalid, elements=2 index=2\n"
            "0) (integer) 1\n1) (string) b\r\n"
            "<tqredis_get_key_array_reply_intval>:array reply invalid, index=2\r\n");
}

TEST(GetArrayIntval, WrongTypeElementIsPrintedAtLevelSixteen) {
  auto r = Reply(Array({kOk}));
  int value = 0;
  EXPECT_EQ(Printed([&] { tqredis_get_key_array_reply_intval(r.get(), 0, &value, 10); }),
            "(status) OK\r\n");
}

// ---- tqredis_get_key_array_reply_strval -------------------------------------

TEST(GetArrayStrval, TextPointsIntoTheElement) {
  auto r = Reply(Array({Int(1), Bulk("hello")}));
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_get_key_array_reply_strval(r.get(), 1, &text, &len), 0);
  EXPECT_EQ(text, r->element[1]->str);
  EXPECT_EQ(len, 5);
}

TEST(GetArrayStrval, IntegerElementIsWrongTypeValtypeOne) {
  auto r = Reply(Array({Int(1), Bulk("hello")}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(r.get(), 0, &out.text, &out.len); }),
      "<tqredis_get_key_reply>:redis int reply, valtype=1\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetArrayStrval, IndexEqualToElementsIsIndexInvalidThenArrayInvalid) {
  auto r = Reply(Array({Bulk("a")}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(r.get(), 1, &out.text, &out.len); }),
      "<tqredis_check_array_reply>:index invalid, elements=1 index=1\n"
      "<tqredis_get_key_array_reply_strval>:array reply invalid, index=1\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayStrval, ArgumentMessageNamesOnlyTheIndex) {
  auto r = Reply(Array({Bulk("a")}));
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_array_reply_strval(r.get(), -5, &out.text, &out.len), -2);
              EXPECT_EQ(tqredis_get_key_array_reply_strval(r.get(), 0, nullptr, &out.len), -2);
              EXPECT_EQ(tqredis_get_key_array_reply_strval(r.get(), 0, &out.text, nullptr), -2);
            }),
            "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=-5\n"
            "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n"
            "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n");
  out.ExpectUntouched();
}

TEST(GetArrayStrval, ErrorAnywhereIsRefusedByTheArgumentCheck) {
  auto r = Reply(Array({Bulk("a"), "-ERR bad\r\n"}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(r.get(), 0, &out.text, &out.len); }),
      "<check_reply>:command error: ERR bad\r\n<check_reply>:array reply element[1] error\r\n"
      "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayStrval, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(nullptr, 0, &out.text, &out.len); }),
      "<tqredis_check_reply>:reply = NULL\r\n"
      "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayStrval, NonArrayReplyIsArrayInvalid) {
  auto r = Reply(kOk);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(r.get(), 0, &out.text, &out.len); }),
      "<tqredis_check_array_reply>:not array reply, type=5\n"
      "<tqredis_get_key_array_reply_strval>:array reply invalid, index=0\r\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetArrayStrval, NestedArrayElementIsWrongType) {
  auto r = Reply(Array({Array({Bulk("x")})}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_array_reply_strval(r.get(), 0, &out.text, &out.len); }),
      "<tqredis_get_key_reply>:reply type error, type=2\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

// ---- tqredis_search_field_element -------------------------------------------

TEST(SearchField, GivesTheValueElementOfTheField) {
  auto r = HashAB();
  EXPECT_EQ(tqredis_search_field_element(r.get(), "a"), r->element[1]);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "b"), r->element[3]);
}

TEST(SearchField, FirstMatchingPairWins) {
  auto r = Reply(Array({Bulk("a"), Bulk("1"), Bulk("a"), Bulk("2")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), "a"), r->element[1]);
}

TEST(SearchField, ValuesAreNeverCompared) {
  auto r = Reply(Array({Bulk("a"), Bulk("b"), Bulk("c"), Bulk("d")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), "b"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "d"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "c"), r->element[3]);
}

TEST(SearchField, ComparisonIsExactAndCaseSensitive) {
  auto r = Reply(Array({Bulk("Name"), Bulk("1")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), "name"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "Nam"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "Names"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), ""), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "Name"), r->element[1]);
}

TEST(SearchField, EmptyFieldNameMatchesAnEmptyField) {
  auto r = Reply(Array({Bulk(""), Bulk("v")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), ""), r->element[1]);
}

TEST(SearchField, OddOrShortArrayHasNoField) {
  auto three = Reply(Array({Bulk("a"), Bulk("1"), Bulk("b")}));
  auto one = Reply(Array({Bulk("a")}));
  auto empty = Reply(Array({}));
  EXPECT_EQ(tqredis_search_field_element(three.get(), "a"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(one.get(), "a"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(empty.get(), "a"), nullptr);
}

TEST(SearchField, UnusableFieldElementIsSkippedAndPrinted) {
  auto r = Reply(Array({kNil, Bulk("1"), Bulk("b"), Bulk("2")}));
  redisReply *found = nullptr;
  EXPECT_EQ(Logged([&] { found = tqredis_search_field_element(r.get(), "b"); }),
            "<check_reply>:reply nil\r\n");
  EXPECT_EQ(found, r->element[3]);
  EXPECT_EQ(Printed([&] { tqredis_search_field_element(r.get(), "b"); }), "(nil)\n");
}

TEST(SearchField, FieldElementWithoutTextIsSkippedNotACrash) {
  auto r = Reply(Array({Int(1), Bulk("x"), Array({Bulk("b")}), Bulk("y"), Bulk("b"), Bulk("z")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), "1"), nullptr);
  EXPECT_EQ(tqredis_search_field_element(r.get(), "b"), r->element[5]);
}

TEST(SearchField, StatusFieldElementIsComparedByItsText) {
  auto r = Reply(Array({"+a\r\n", Bulk("1")}));
  EXPECT_EQ(tqredis_search_field_element(r.get(), "a"), r->element[1]);
}

TEST(SearchField, ValueElementIsNotExamined) {
  auto r = Reply(Array({Bulk("a"), kNil}));
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_search_field_element(r.get(), "a"), r->element[1]); }),
            "");
}

TEST(SearchField, ReplyTypeIsNotLookedAt) {
  redisReply name = Bare(REDIS_REPLY_STRING);
  name.str = const_cast<char *>("a");
  name.len = 1;
  redisReply value = Bare(REDIS_REPLY_INTEGER);
  redisReply *pair[2] = {&name, &value};
  redisReply status = Bare(REDIS_REPLY_STATUS);  // not an array, yet has pairs
  status.elements = 2;
  status.element = pair;
  EXPECT_EQ(tqredis_search_field_element(&status, "a"), &value);
}

TEST(SearchField, MissingElementVectorIsSkippedNotACrash) {
  redisReply r = Bare(REDIS_REPLY_ARRAY);
  r.elements = 2;
  EXPECT_EQ(Logged([&] { EXPECT_EQ(tqredis_search_field_element(&r, "a"), nullptr); }),
            "<tqredis_check_reply>:reply = NULL\r\n");
}

TEST(SearchField, NullReplyOrFieldGivesNullNotACrash) {
  auto r = HashAB();
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_search_field_element(nullptr, "a"), nullptr);
              EXPECT_EQ(tqredis_search_field_element(r.get(), nullptr), nullptr);
            }),
            "<tqredis_search_field_element>:reply = NULL\r\n"
            "<tqredis_search_field_element>:field = NULL\r\n");
}

// ---- tqredis_get_key_reply_by_field: the core -------------------------------

TEST(GetByField, FoundValueIsConvertedWithTheValtype) {
  auto r = Reply(Array({Bulk("n"), Bulk("0x1f"), Bulk("s"), Bulk("text")}));
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply_by_field(r.get(), "n", 0, &out.value, 16, nullptr, nullptr), 0);
  EXPECT_EQ(out.value, 31);
  EXPECT_EQ(tqredis_get_key_reply_by_field(r.get(), "s", 1, nullptr, 0, &out.text, &out.len), 0);
  EXPECT_EQ(out.text, r->element[3]->str);
  EXPECT_EQ(out.len, 4);
}

TEST(GetByField, UnknownValtypeGivesMinusOne) {
  auto r = HashAB();
  Outputs out;
  EXPECT_EQ(
      tqredis_get_key_reply_by_field(r.get(), "a", 2, &out.value, 10, &out.text, &out.len), -1);
  out.ExpectUntouched();
}

TEST(GetByField, IntegerValueIsReadAsItsInteger) {
  auto r = Reply(Array({Bulk("a"), Int(4294967303LL)}));  // 2^32 + 7
  int value = 0;
  EXPECT_EQ(tqredis_get_key_reply_by_field(r.get(), "a", 0, &value, 10, nullptr, nullptr), 0);
  EXPECT_EQ(value, 7);
}

TEST(GetByField, ValueTypeIsNotExaminedForText) {
  auto r = Reply(Array({Bulk("a"), Int(7)}));
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply_by_field(r.get(), "a", 1, nullptr, 0, &out.text, &out.len), 0);
  EXPECT_EQ(out.text, nullptr);  // an integer element carries no text
  EXPECT_EQ(out.len, 0);
}

TEST(GetByField, NonArrayIsWrongType) {
  auto r = Reply(Bulk("a"));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply_by_field(r.get(), "a", 0, &out.value, 10, nullptr,
                                                  nullptr);
            }),
            "<tqredis_get_key_reply_by_field>:reply type error, type=1\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
  EXPECT_EQ(Printed([&] {
              tqredis_get_key_reply_by_field(r.get(), "a", 0, &out.value, 10, nullptr, nullptr);
            }),
            "(string) a\r\n");
}

TEST(GetByField, NilReplyIsWrongTypeWithoutTheCheck) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] {
              rc = tqredis_get_key_reply_by_field(r.get(), "a", 1, nullptr, 0, &out.text,
                                                  &out.len);
            }),
            "<tqredis_get_key_reply_by_field>:reply type error, type=4\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetByField, MissingFieldIsMinusFiveAndPrintsTheReply) {
  auto r = Reply(Array({Bulk("a"), Bulk("1")}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Captured(TQREDIS_LOG_DATA | TQREDIS_LOG_DUMP,
                     [&] {
                       rc = tqredis_get_key_reply_by_field(r.get(), "zz", 0, &out.value, 10,
                                                           nullptr, nullptr);
                     }),
            "<tqredis_get_key_reply_by_field>:field[zz] not existed\n"
            "0) (string) a\r\n1) (string) 1\r\n");
  EXPECT_EQ(rc, -5);
  out.ExpectUntouched();
}

TEST(GetByField, NullReplyOrFieldGivesMinusTwoNotACrash) {
  auto r = HashAB();
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_reply_by_field(nullptr, "a", 0, &out.value, 10, nullptr,
                                                       nullptr),
                        -2);
              EXPECT_EQ(tqredis_get_key_reply_by_field(r.get(), nullptr, 0, &out.value, 10,
                                                       nullptr, nullptr),
                        -2);
            }),
            "<tqredis_get_key_reply_by_field>:reply = NULL\r\n"
            "<tqredis_get_key_reply_by_field>:field = NULL\r\n");
  out.ExpectUntouched();
}

// ---- tqredis_get_key_reply_intval_by_field ----------------------------------

TEST(GetIntvalByField, FieldBOfHashABGivesTwo) {
  auto r = HashAB();
  int value = 0;
  EXPECT_EQ(
      Logged([&] { EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "b", &value, 10), 0); }),
      "");
  EXPECT_EQ(value, 2);
}

TEST(GetIntvalByField, FieldCOfHashABIsMinusFiveNotExisted) {
  auto r = HashAB();
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "c", &out.value, 10); }),
            "<tqredis_get_key_reply_by_field>:field[c] not existed\n");
  EXPECT_EQ(rc, -5);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, ThreeElementArrayIsMinusFiveNotExisted) {
  auto r = Reply(Array({Bulk("a"), Bulk("1"), Bulk("b")}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10); }),
            "<tqredis_get_key_reply_by_field>:field[a] not existed\n");
  EXPECT_EQ(rc, -5);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, EmptyArrayIsMinusFiveAfterElementsZero) {
  auto r = Reply(Array({}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10); }),
            "<check_reply>:elements zero\r\n"
            "<tqredis_get_key_reply_by_field>:field[a] not existed\n");
  EXPECT_EQ(rc, -5);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, NonArrayReplyIsWrongType) {
  auto r = Reply(Bulk("5"));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10); }),
            "<tqredis_get_key_reply_by_field>:reply type error, type=1\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(nullptr, "a", &out.value, 10); }),
            "<tqredis_check_reply>:reply = NULL\r\n"
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, NilReplyIsInvalidArgumentsAfterReplyNil) {
  auto r = Reply(kNil);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10); }),
            "<check_reply>:reply nil\r\n"
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, NilValueInTheHashIsInvalidArgumentsWhicheverField) {
  auto r = Reply(Array({Bulk("a"), Bulk("1"), Bulk("b"), kNil}));
  Outputs out;
  int rc = 0;
  EXPECT_EQ(Logged([&] { rc = tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10); }),
            "<check_reply>:reply nil\r\n<check_reply>:array reply element[3] error\r\n"
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, NullFieldOutputOrNegativeBaseIsInvalidArguments) {
  auto r = HashAB();
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), nullptr, &out.value, 10),
                        -2);
              EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "a", nullptr, 10), -2);
              EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, -1), -2);
            }),
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"
            "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=-1\n");
  out.ExpectUntouched();
}

TEST(GetIntvalByField, StringValueIsReadInTheGivenBase) {
  auto r = Reply(Array({Bulk("mask"), Bulk("ff")}));
  int value = 0;
  EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "mask", &value, 16), 0);
  EXPECT_EQ(value, 255);
  EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "mask", &value, 10), 0);
  EXPECT_EQ(value, 0);
}

TEST(GetIntvalByField, NestedArrayValueIsRefusedNotACrash) {
  auto r = Reply(Array({Bulk("a"), Array({Int(1)})}));
  Outputs out;
  EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "a", &out.value, 10), -2);
  out.ExpectUntouched();
}

TEST(GetIntvalByField, FieldElementWithoutTextIsSkipped) {
  // An integer field passes the check but has no text to compare.
  auto r = Reply(Array({Int(1), Bulk("9"), Bulk("b"), Bulk("2")}));
  int value = 0;
  EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "b", &value, 10), 0);
  EXPECT_EQ(value, 2);
  EXPECT_EQ(tqredis_get_key_reply_intval_by_field(r.get(), "1", &value, 10), -5);
  EXPECT_EQ(value, 2);
}

TEST(GetIntvalByField, MissingFieldIsPrintedAtLevelSixteen) {
  auto r = HashAB();
  int value = 0;
  EXPECT_EQ(Printed([&] { tqredis_get_key_reply_intval_by_field(r.get(), "c", &value, 10); }),
            "0) (string) a\r\n1) (string) 1\r\n2) (string) b\r\n3) (string) 2\r\n");
}

// ---- tqredis_get_key_reply_strval_by_field ----------------------------------

TEST(GetStrvalByField, TextPointsIntoTheValueElement) {
  auto r = HashAB();
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_get_key_reply_strval_by_field(r.get(), "b", &text, &len), 0);
  EXPECT_EQ(text, r->element[3]->str);
  EXPECT_EQ(len, 1);
}

TEST(GetStrvalByField, InvalidArgumentsMessageHasNoLineEnd) {
  auto r = HashAB();
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_reply_strval_by_field(r.get(), nullptr, &out.text,
                                                              &out.len),
                        -2);
            }),
            "<tqredis_get_key_reply_strval_by_field>:input arguments invalid");
  out.ExpectUntouched();
}

TEST(GetStrvalByField, EachMissingArgumentIsInvalidArguments) {
  auto r = HashAB();
  Outputs out;
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_key_reply_strval_by_field(r.get(), "a", nullptr, &out.len),
                        -2);
              EXPECT_EQ(tqredis_get_key_reply_strval_by_field(r.get(), "a", &out.text, nullptr),
                        -2);
            }),
            "<tqredis_get_key_reply_strval_by_field>:input arguments invalid"
            "<tqredis_get_key_reply_strval_by_field>:input arguments invalid");
  out.ExpectUntouched();
}

TEST(GetStrvalByField, NullReplyIsInvalidArgumentsAfterReplyNull) {
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_reply_strval_by_field(nullptr, "a", &out.text, &out.len); }),
      "<tqredis_check_reply>:reply = NULL\r\n"
      "<tqredis_get_key_reply_strval_by_field>:input arguments invalid");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetStrvalByField, ErrorReplyIsInvalidArgumentsAfterCommandError) {
  auto r = Reply("-WRONGTYPE no\r\n");
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_reply_strval_by_field(r.get(), "a", &out.text, &out.len); }),
      "<check_reply>:command error: WRONGTYPE no\r\n"
      "<tqredis_get_key_reply_strval_by_field>:input arguments invalid");
  EXPECT_EQ(rc, -2);
  out.ExpectUntouched();
}

TEST(GetStrvalByField, MissingFieldIsMinusFive) {
  auto r = HashAB();
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_reply_strval_by_field(r.get(), "B", &out.text, &out.len); }),
      "<tqredis_get_key_reply_by_field>:field[B] not existed\n");
  EXPECT_EQ(rc, -5);
  out.ExpectUntouched();
}

TEST(GetStrvalByField, StatusReplyIsWrongType) {
  auto r = Reply(kOk);
  Outputs out;
  int rc = 0;
  EXPECT_EQ(
      Logged([&] { rc = tqredis_get_key_reply_strval_by_field(r.get(), "a", &out.text, &out.len); }),
      "<tqredis_get_key_reply_by_field>:reply type error, type=5\n");
  EXPECT_EQ(rc, -4);
  out.ExpectUntouched();
}

// ---- tqredis_get_sets_size --------------------------------------------------

TEST(SetsSize, ThreeMembersGiveThree) {
  auto r = Reply(Array({Bulk("x"), Bulk("y"), Bulk("z")}));
  EXPECT_EQ(Printed([&] { EXPECT_EQ(tqredis_get_sets_size(r.get()), 3); }), "");
}

TEST(SetsSize, EmptyArrayGivesMinusOneNotZero) {
  auto r = Reply(Array({}));
  int size = 0;
  EXPECT_EQ(Logged([&] { size = tqredis_get_sets_size(r.get()); }),
            "<check_reply>:elements zero\r\n");
  EXPECT_EQ(size, -1);
  EXPECT_EQ(Printed([&] { tqredis_get_sets_size(r.get()); }), "(empty list or set)\n");
}

TEST(SetsSize, NonArrayGivesMinusOneAndIsPrinted) {
  auto s = Reply(Bulk("x"));
  auto i = Reply(Int(3));
  int size_s = 0;
  int size_i = 0;
  EXPECT_EQ(Printed([&] {
              size_s = tqredis_get_sets_size(s.get());
              size_i = tqredis_get_sets_size(i.get());
            }),
            "(string) x\r\n(integer) 3\n");
  EXPECT_EQ(size_s, -1);
  EXPECT_EQ(size_i, -1);
}

TEST(SetsSize, NullReplyGivesMinusOneNotACrash) {
  int size = 0;
  EXPECT_EQ(Logged([&] { size = tqredis_get_sets_size(nullptr); }),
            "<tqredis_check_reply>:reply = NULL\r\n");
  EXPECT_EQ(size, -1);
  EXPECT_EQ(Printed([&] { tqredis_get_sets_size(nullptr); }), "reply = NULL\r\n");
}

TEST(SetsSize, RefusedReplyIsPrintedByTheCheckAndAgain) {
  auto r = Reply(Array({Bulk("x"), kNil}));
  int size = 0;
  EXPECT_EQ(Printed([&] { size = tqredis_get_sets_size(r.get()); }),
            "0) (string) x\r\n1) (nil)\n0) (string) x\r\n1) (nil)\n");
  EXPECT_EQ(size, -1);
}

TEST(SetsSize, NestedArraysCountAsMembers) {
  auto r = Reply(Array({Array({Int(1), Int(2)}), Bulk("y")}));
  EXPECT_EQ(tqredis_get_sets_size(r.get()), 2);
}

// ---- tqredis_get_hashes_size ------------------------------------------------

TEST(HashesSize, HashABGivesTwo) {
  auto r = HashAB();
  EXPECT_EQ(Printed([&] { EXPECT_EQ(tqredis_get_hashes_size(r.get()), 2); }), "");
}

TEST(HashesSize, ThreeElementArrayGivesMinusOneAndIsPrinted) {
  auto r = Reply(Array({Bulk("a"), Bulk("1"), Bulk("b")}));
  int size = 0;
  EXPECT_EQ(Printed([&] { size = tqredis_get_hashes_size(r.get()); }),
            "0) (string) a\r\n1) (string) 1\r\n2) (string) b\r\n");
  EXPECT_EQ(size, -1);
}

TEST(HashesSize, EmptyArrayGivesMinusOne) {
  auto r = Reply(Array({}));
  int size = 0;
  EXPECT_EQ(Logged([&] { size = tqredis_get_hashes_size(r.get()); }),
            "<check_reply>:elements zero\r\n");
  EXPECT_EQ(size, -1);
}

TEST(HashesSize, NonArrayGivesMinusOne) {
  auto r = Reply(kOk);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(tqredis_get_hashes_size(r.get()), -1); }), "(status) OK\r\n");
}

TEST(HashesSize, NullOrNilReplyGivesMinusOneNotACrash) {
  auto nil = Reply(kNil);
  EXPECT_EQ(Logged([&] {
              EXPECT_EQ(tqredis_get_hashes_size(nullptr), -1);
              EXPECT_EQ(tqredis_get_hashes_size(nil.get()), -1);
            }),
            "<tqredis_check_reply>:reply = NULL\r\n<check_reply>:reply nil\r\n");
}

TEST(HashesSize, NilValueMakesTheHashUnusable) {
  auto r = Reply(Array({Bulk("a"), kNil}));
  EXPECT_EQ(tqredis_get_hashes_size(r.get()), -1);
}

// ---- every getter -----------------------------------------------------------

TEST(Getters, NoGetterFreesTheReplyOnAnyPath) {
  // Run under ASan, a free here would surface as a use after free below or
  // as a double free when the test releases the replies.
  auto nil = Reply(kNil);
  auto hash = HashAB();
  auto odd = Reply(Array({Bulk("a"), Bulk("1"), Bulk("b")}));
  auto integer = Reply(Int(1));
  Outputs out;
  for (redisReply *r : {nil.get(), hash.get(), odd.get(), integer.get()}) {
    tqredis_get_key_reply(r, 0, &out.value, 10, &out.text, &out.len);
    tqredis_get_key_reply(r, 1, &out.value, 10, &out.text, &out.len);
    tqredis_get_key_reply_intval(r, &out.value, 10);
    tqredis_get_key_reply_strval(r, &out.text, &out.len);
    tqredis_check_array_reply(r, 0);
    tqredis_check_array_reply(r, 9);
    tqredis_get_key_array_reply_intval(r, 0, &out.value, 10);
    tqredis_get_key_array_reply_strval(r, 9, &out.text, &out.len);
    tqredis_search_field_element(r, "c");
    tqredis_get_key_reply_by_field(r, "c", 0, &out.value, 10, nullptr, nullptr);
    tqredis_get_key_reply_intval_by_field(r, "c", &out.value, 10);
    tqredis_get_key_reply_strval_by_field(r, "c", &out.text, &out.len);
    tqredis_get_sets_size(r);
    tqredis_get_hashes_size(r);
  }
  EXPECT_EQ(nil->type, REDIS_REPLY_NIL);
  EXPECT_EQ(std::string(hash->element[3]->str), "2");
  EXPECT_EQ(odd->elements, 3u);
  EXPECT_EQ(integer->integer, 1);
}

TEST(Getters, DataFaultGoesToTheUnlimitedLogWithItsOwnLineEnd) {
  tqredis_dbg_cfg(1, TQREDIS_LOG_DATA);
  auto r = HashAB();
  int value = 0;
  tqredis_get_key_reply_intval_by_field(r.get(), "c", &value, 10);
  tqredis_get_key_array_reply_intval(r.get(), 4, &value, 10);
  const std::string log = tqtest::ReadFile(tqtest::LogPath("unlimitlog"));
  const std::string stamp = R"(\d{8}_\d{2}:\d{2}:\d{2}\.\d{6} \[getters_test\])";
  EXPECT_TRUE(std::regex_match(
      log, std::regex("^" + stamp + R"(<tqredis_get_key_reply_by_field, \d+>:field\[c\] not existed\n)" +
                      stamp + R"(<tqredis_check_array_reply, \d+>:index invalid, elements=4 index=4\n)" +
                      stamp + R"(<tqredis_get_key_array_reply_intval, \d+>:array reply invalid, index=4\r\n$)")))
      << log;
}
