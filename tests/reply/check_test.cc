// Checking, printing, converting and freeing replies.
#include <climits>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "support/support.h"
#include "tqredis.h"

using tqtest::Dumped;
using tqtest::Logged;
using tqtest::ParseReply;

namespace {

redisReply Bare(int type) {
  redisReply r{};
  r.type = type;
  return r;
}

}  // namespace

// ---- check_reply ------------------------------------------------------------

TEST(CheckReply, EmptyArrayIsUsableButLogsElementsZero) {
  auto r = ParseReply("*0\r\n");
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(r.get()); }),
            "<check_reply>:elements zero\r\n");
  EXPECT_EQ(usable, 1);
}

TEST(CheckReply, ArrayHoldingANilIsUnusableAndNamesTheIndex) {
  auto r = ParseReply("*3\r\n$1\r\na\r\n$-1\r\n$1\r\nc\r\n");
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(r.get()); }),
            "<check_reply>:reply nil\r\n<check_reply>:array reply element[1] "
            "error\r\n");
  EXPECT_EQ(usable, 0);
}

TEST(CheckReply, StringWithoutTextIsUnusableAndLogsNothing) {
  redisReply r = Bare(REDIS_REPLY_STRING);
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(&r); }), "");
  EXPECT_EQ(usable, 0);
}

TEST(CheckReply, StringIntegerAndStatusAreUsable) {
  auto s = ParseReply("$3\r\nabc\r\n");
  auto empty = ParseReply("$0\r\n\r\n");
  auto i = ParseReply(":-7\r\n");
  auto st = ParseReply("+OK\r\n");
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] {
                     EXPECT_EQ(check_reply(s.get()), 1);
                     EXPECT_EQ(check_reply(empty.get()), 1);
                     EXPECT_EQ(check_reply(i.get()), 1);
                     EXPECT_EQ(check_reply(st.get()), 1);
                   }),
            "");
}

TEST(CheckReply, ErrorIsUnusableWhateverItsText) {
  auto e = ParseReply("-ERR unknown command\r\n");
  auto ok = ParseReply("-OK\r\n");
  std::string log = Logged(TQREDIS_LOG_DATA, [&] {
    EXPECT_EQ(check_reply(e.get()), 0);
    EXPECT_EQ(check_reply(ok.get()), 0);
  });
  EXPECT_EQ(log,
            "<check_reply>:command error: ERR unknown command\r\n"
            "<check_reply>:command error: OK\r\n");
}

TEST(CheckReply, NilIsUnusable) {
  auto r = ParseReply("$-1\r\n");
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(r.get()); }),
            "<check_reply>:reply nil\r\n");
  EXPECT_EQ(usable, 0);
}

TEST(CheckReply, UnknownTypesAreUnusable) {
  redisReply zero = Bare(0);
  redisReply seven = Bare(7);
  redisReply huge = Bare(INT_MAX);
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] {
                     EXPECT_EQ(check_reply(&zero), 0);
                     EXPECT_EQ(check_reply(&seven), 0);
                     EXPECT_EQ(check_reply(&huge), 0);
                   }),
            "<check_reply>:unknown reply type: 0\r\n<check_reply>:unknown "
            "reply type: 7\r\n"
            "<check_reply>:unknown reply type: 2147483647\r\n");
}

TEST(CheckReply, ErrorDeepInsideNestedArraysFailsEveryLevel) {
  auto r = ParseReply("*2\r\n:1\r\n*2\r\n+OK\r\n*1\r\n-ERR deep\r\n");
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(r.get()); }),
            "<check_reply>:command error: ERR deep\r\n"
            "<check_reply>:array reply element[0] error\r\n"
            "<check_reply>:array reply element[1] error\r\n"
            "<check_reply>:array reply element[1] error\r\n");
  EXPECT_EQ(usable, 0);
}

TEST(CheckReply, NestedEmptyArrayPassesButIsLogged) {
  auto r = ParseReply("*2\r\n*0\r\n$1\r\nx\r\n");
  int usable = -1;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { usable = check_reply(r.get()); }),
            "<check_reply>:elements zero\r\n");
  EXPECT_EQ(usable, 1);
}

TEST(CheckReply, FirstBadElementStopsTheWalk) {
  auto r = ParseReply("*3\r\n$-1\r\n-ERR never seen\r\n:1\r\n");
  EXPECT_EQ(
      Logged(TQREDIS_LOG_DATA, [&] { EXPECT_EQ(check_reply(r.get()), 0); }),
      "<check_reply>:reply nil\r\n<check_reply>:array reply element[0] "
      "error\r\n");
}

TEST(CheckReply, NullReplyOrElementIsUnusableNotACrash) {
  redisReply array = Bare(REDIS_REPLY_ARRAY);
  redisReply *elements[2] = {nullptr, nullptr};
  array.elements = 2;
  array.element = elements;
  redisReply no_vector = Bare(REDIS_REPLY_ARRAY);
  no_vector.elements = 3;
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] {
                     EXPECT_EQ(check_reply(nullptr), 0);
                     EXPECT_EQ(check_reply(&array), 0);
                     EXPECT_EQ(check_reply(&no_vector), 0);
                   }),
            "<check_reply>:reply = NULL\r\n"
            "<check_reply>:reply = NULL\r\n<check_reply>:array reply "
            "element[0] error\r\n"
            "<check_reply>:reply = NULL\r\n<check_reply>:array reply "
            "element[0] error\r\n");
}

TEST(CheckReply, DeepNestingIsWalkedToTheBottom) {
  std::vector<redisReply> levels(200, Bare(REDIS_REPLY_ARRAY));
  std::vector<redisReply *> links(200);
  for (size_t i = 0; i + 1 < levels.size(); ++i) {
    links[i] = &levels[i + 1];
    levels[i].elements = 1;
    levels[i].element = &links[i];
  }
  levels.back() = Bare(REDIS_REPLY_NIL);
  EXPECT_EQ(check_reply(&levels[0]), 0);
}

// ---- tqredis_check_reply ----------------------------------------------------

TEST(TqredisCheckReply, NullIsUnusableAndLogged) {
  int usable = -1;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_DATA, [&] { usable = tqredis_check_reply(nullptr); }),
      "<tqredis_check_reply>:reply = NULL\r\n");
  EXPECT_EQ(usable, 0);
}

TEST(TqredisCheckReply, UsableReplyGivesOneAndPrintsNothing) {
  auto r = ParseReply("*2\r\n$1\r\na\r\n:2\r\n");
  int usable = -1;
  EXPECT_EQ(Dumped([&] { usable = tqredis_check_reply(r.get()); }), "");
  EXPECT_EQ(usable, 1);
}

TEST(TqredisCheckReply, UnusableReplyIsDumpedAtLevelSixteen) {
  auto r = ParseReply("-ERR wrong\r\n");
  int usable = -1;
  EXPECT_EQ(Dumped([&] { usable = tqredis_check_reply(r.get()); }),
            "(error) ERR wrong\r\n");
  EXPECT_EQ(usable, 0);
}

TEST(TqredisCheckReply, UnusableReplyIsNotDumpedWithoutLevelSixteen) {
  auto r = ParseReply("*1\r\n$-1\r\n");
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA,
                   [&] { EXPECT_EQ(tqredis_check_reply(r.get()), 0); }),
            "<check_reply>:reply nil\r\n<check_reply>:array reply element[0] "
            "error\r\n");
}

TEST(TqredisCheckReply, LeavesTheReplyToTheCaller) {
  auto r = ParseReply("$-1\r\n");
  EXPECT_EQ(tqredis_check_reply(r.get()), 0);
  EXPECT_EQ(r->type, REDIS_REPLY_NIL);  // still valid, freed by the caller
}

TEST(TqredisCheckReply, DataFaultGoesToTheUnlimitedLogWhenItsLevelIsOn) {
  tqredis_dbg_cfg(1, TQREDIS_LOG_DATA);
  tqredis_check_reply(nullptr);
  const std::string log = tqtest::ReadFile(tqtest::LogPath("unlimitlog"));
  EXPECT_TRUE(std::regex_match(
      log,
      std::regex(
          R"(^\d{8}_\d{2}:\d{2}:\d{2}\.\d{6} \[check_test\]<tqredis_check_reply, \d+>:reply = NULL\r\n$)")))
      << log;
}

// ---- tqredis_free_reply -----------------------------------------------------

TEST(FreeReply, NullIsOnlyLogged) {
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [] { tqredis_free_reply(nullptr); }),
            "<tqredis_free_reply>:reply = NULL\r\n");
}

TEST(FreeReply, FreesAParsedReplyOnce) {
  auto r = ParseReply("*2\r\n$1\r\na\r\n*1\r\n:1\r\n");
  EXPECT_EQ(Logged(TQREDIS_LOG_DATA, [&] { tqredis_free_reply(r.release()); }),
            "");
}

// ---- tqredis_print_reply ----------------------------------------------------

TEST(PrintReply, EachTypeHasItsFormatAndLineEnding) {
  auto s = ParseReply("$5\r\nhello\r\n");
  auto e = ParseReply("*0\r\n");
  auto i = ParseReply(":4294967297\r\n");
  auto n = ParseReply("$-1\r\n");
  auto st = ParseReply("+PONG\r\n");
  auto err = ParseReply("-ERR no\r\n");
  redisReply unknown = Bare(9);
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(s.get()); }),
            "(string) hello\r\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(e.get()); }),
            "(empty list or set)\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(i.get()); }),
            "(integer) 4294967297\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(n.get()); }), "(nil)\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(st.get()); }),
            "(status) PONG\r\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(err.get()); }),
            "(error) ERR no\r\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(&unknown); }),
            "Unknown reply type: 9\n");
}

TEST(PrintReply, NegativeIntegerIsPrintedInFull) {
  auto i = ParseReply(":-9223372036854775807\r\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(i.get()); }),
            "(integer) -9223372036854775807\n");
}

TEST(PrintReply, NullReplyPrintsItsOwnLine) {
  EXPECT_EQ(Dumped([] { tqredis_print_reply(nullptr); }), "reply = NULL\r\n");
}

TEST(PrintReply, TwoLevelArrayPutsBothPrefixesOnOneLine) {
  auto r = ParseReply("*2\r\n$1\r\na\r\n*2\r\n$1\r\nb\r\n$1\r\nc\r\n");
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(r.get()); }),
            "0) (string) a\r\n1) 0) (string) b\r\n1) (string) c\r\n");
}

TEST(PrintReply, MixedArrayKeepsEachElementsLineEnding) {
  auto r = ParseReply("*5\r\n:1\r\n$-1\r\n*0\r\n+OK\r\n-ERR x\r\n");
  EXPECT_EQ(
      Dumped([&] { tqredis_print_reply(r.get()); }),
      "0) (integer) 1\n1) (nil)\n2) (empty list or set)\n3) (status) OK\r\n"
      "4) (error) ERR x\r\n");
}

TEST(PrintReply, NullElementsPrintAsNull) {
  redisReply array = Bare(REDIS_REPLY_ARRAY);
  redisReply *elements[2] = {nullptr, nullptr};
  array.elements = 2;
  array.element = elements;
  EXPECT_EQ(Dumped([&] { tqredis_print_reply(&array); }),
            "0) reply = NULL\r\n1) reply = NULL\r\n");
}

TEST(PrintReply, NothingWithoutLevelSixteen) {
  auto r = ParseReply("*2\r\n$1\r\na\r\n*1\r\n:1\r\n");
  const uint32_t all_but_dump =
      0xffffffffu & ~static_cast<uint32_t>(TQREDIS_LOG_DUMP);
  EXPECT_EQ(Logged(all_but_dump,
                   [&] {
                     tqredis_print_reply(r.get());
                     tqredis_print_reply(nullptr);
                   }),
            "");
}

TEST(PrintReply, NeverWritesTheLogFiles) {
  tqredis_dbg_cfg(1, 31);
  const std::string limited = tqtest::ReadFile(tqtest::LogPath("limitlog"));
  auto r = ParseReply("-ERR x\r\n");
  Dumped([&] { tqredis_print_reply(r.get()); });
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("unlimitlog")), "");
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("limitlog")), limited);
}

// ---- tqredis_convert_reply_value -------------------------------------------

TEST(ConvertReply, IntegerKeepsTheLowThirtyTwoBits) {
  auto r = ParseReply(":4294967297\r\n");  // 2^32 + 1
  int value = -5;
  EXPECT_EQ(
      tqredis_convert_reply_value(r.get(), 0, &value, 10, nullptr, nullptr), 0);
  EXPECT_EQ(value, 1);
}

TEST(ConvertReply, NegativeIntegerStaysNegative) {
  auto r = ParseReply(":-42\r\n");
  int value = 0;
  EXPECT_EQ(
      tqredis_convert_reply_value(r.get(), 0, &value, 10, nullptr, nullptr), 0);
  EXPECT_EQ(value, -42);
}

TEST(ConvertReply, StringIsReadInTheGivenBase) {
  auto dec = ParseReply("$3\r\n123\r\n");
  auto hex = ParseReply("$4\r\n0x1f\r\n");
  auto oct = ParseReply("$3\r\n010\r\n");
  int value = 0;
  EXPECT_EQ(
      tqredis_convert_reply_value(dec.get(), 0, &value, 10, nullptr, nullptr),
      0);
  EXPECT_EQ(value, 123);
  EXPECT_EQ(
      tqredis_convert_reply_value(hex.get(), 0, &value, 16, nullptr, nullptr),
      0);
  EXPECT_EQ(value, 31);
  EXPECT_EQ(
      tqredis_convert_reply_value(oct.get(), 0, &value, 0, nullptr, nullptr),
      0);
  EXPECT_EQ(value, 8);
}

TEST(ConvertReply, NonNumericTextGivesZero) {
  auto r = ParseReply("$5\r\nhello\r\n");
  int value = 99;
  EXPECT_EQ(
      tqredis_convert_reply_value(r.get(), 0, &value, 10, nullptr, nullptr), 0);
  EXPECT_EQ(value, 0);
}

TEST(ConvertReply, StatusTextIsConvertedToo) {
  auto r = ParseReply("+17\r\n");
  int value = 0;
  EXPECT_EQ(
      tqredis_convert_reply_value(r.get(), 0, &value, 10, nullptr, nullptr), 0);
  EXPECT_EQ(value, 17);
}

TEST(ConvertReply, InvalidBaseGivesZeroNotACrash) {
  auto r = ParseReply("$2\r\n12\r\n");
  int value = 99;
  EXPECT_EQ(
      tqredis_convert_reply_value(r.get(), 0, &value, -3, nullptr, nullptr), 0);
  EXPECT_EQ(value, 0);
}

TEST(ConvertReply, StringKindPointsIntoTheReply) {
  static const char kResp[] = "$6\r\nab\0cde\r\n";
  auto r = ParseReply(std::string_view(kResp, sizeof(kResp) - 1));
  char *text = nullptr;
  int len = -1;
  EXPECT_EQ(tqredis_convert_reply_value(r.get(), 1, nullptr, 0, &text, &len),
            0);
  EXPECT_EQ(text, r->str);
  EXPECT_EQ(len, 6);
}

TEST(ConvertReply, StringKindDoesNotLookAtTheType) {
  auto r = ParseReply(":5\r\n");
  char *text = reinterpret_cast<char *>(1);
  int len = -1;
  EXPECT_EQ(tqredis_convert_reply_value(r.get(), 1, nullptr, 0, &text, &len),
            0);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(len, 0);
}

TEST(ConvertReply, OtherKindIsRefusedAndTouchesNoOutput) {
  auto r = ParseReply(":5\r\n");
  int value = 77;
  char sentinel = 0;
  char *text = &sentinel;
  int len = 88;
  EXPECT_EQ(tqredis_convert_reply_value(r.get(), 2, &value, 10, &text, &len),
            -1);
  EXPECT_EQ(tqredis_convert_reply_value(r.get(), -1, &value, 10, &text, &len),
            -1);
  EXPECT_EQ(value, 77);
  EXPECT_EQ(text, &sentinel);
  EXPECT_EQ(len, 88);
}

TEST(ConvertReply, MissingReplyOutputOrTextIsRefusedAndLogged) {
  auto nil = ParseReply("$-1\r\n");
  auto s = ParseReply("$1\r\n1\r\n");
  int value = 77;
  char *text = nullptr;
  const std::string out = Logged(TQREDIS_LOG_ERROR, [&] {
    EXPECT_EQ(
        tqredis_convert_reply_value(nullptr, 0, &value, 10, nullptr, nullptr),
        -2);
    EXPECT_EQ(
        tqredis_convert_reply_value(nil.get(), 0, &value, 10, nullptr, nullptr),
        -2);
    EXPECT_EQ(
        tqredis_convert_reply_value(s.get(), 0, nullptr, 10, nullptr, nullptr),
        -2);
    EXPECT_EQ(
        tqredis_convert_reply_value(s.get(), 1, nullptr, 10, &text, nullptr),
        -2);
  });
  EXPECT_EQ(value, 77);
  EXPECT_EQ(
      out,
      "<tqredis_convert_reply_value>:input arguments invalid, valtype=0\r\n"
      "<tqredis_convert_reply_value>:input arguments invalid, valtype=0\r\n"
      "<tqredis_convert_reply_value>:input arguments invalid, valtype=0\r\n"
      "<tqredis_convert_reply_value>:input arguments invalid, valtype=1\r\n");
}
