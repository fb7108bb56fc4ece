// Typed getters: values read out of replies, and every way a reply or an
// argument is refused, with the exact messages and result codes. Each row of
// the tables below is one call and a test of its own.
#include <climits>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "support/support.h"
#include "tqredis.h"

using tqtest::ParseReply;
using tqtest::ReplyPtr;

namespace {

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
// The hash reply a, 1, b, 2.
const std::string kHashAB = Array({Bulk("a"), Bulk("1"), Bulk("b"), Bulk("2")});

ReplyPtr Reply(const std::string &resp) {
  ReplyPtr r = ParseReply(resp);
  EXPECT_NE(r, nullptr) << "bad RESP in the test: " << resp;
  return r;
}

redisReply Bare(int type) {
  redisReply r{};
  r.type = type;
  return r;
}

// The reply a row hands to the getter: built from RESP, no reply at all, or
// one hiredis never builds (a type and an element count, nothing else).
class Given {
 public:
  Given(std::string resp) : resp_(std::move(resp)) {}
  Given(const char *resp) : resp_(resp) {}
  static Given Null() { return Given(kNull, REDIS_REPLY_NIL, 0); }
  static Given Hollow(int type, size_t elements) {
    return Given(kHollow, type, elements);
  }

  // `parsed` owns a reply built from RESP; `hollow` is filled in otherwise.
  redisReply *Make(ReplyPtr &parsed, redisReply &hollow) const {
    switch (kind_) {
      case kNull:
        return nullptr;
      case kHollow:
        hollow = Bare(type_);
        hollow.elements = elements_;
        return &hollow;
      case kResp:
        break;
    }
    parsed = Reply(resp_);
    return parsed.get();
  }

 private:
  enum Kind { kResp, kNull, kHollow };
  Given(Kind kind, int type, size_t elements)
      : kind_(kind), type_(type), elements_(elements) {}
  Kind kind_ = kResp;
  std::string resp_;
  int type_ = 0;
  size_t elements_ = 0;
};

const Given kNullReply = Given::Null();
// A string reply without text.
const Given kTextless = Given::Hollow(REDIS_REPLY_STRING, 0);
// An array of two elements without its element vector.
const Given kNoVector = Given::Hollow(REDIS_REPLY_ARRAY, 2);

// Outputs preset to values no getter can produce, to see that a failure
// leaves them alone.
constexpr int kPresetValue = -123456;
constexpr int kPresetLen = -654321;
struct Outputs {
  int value = kPresetValue;
  char mark = 'm';
  char *text = &mark;
  int len = kPresetLen;
};

// Which outputs a call passes; the others are NULL.
enum : unsigned { kValue = 1, kText = 2, kLen = 4, kAll = 7 };
int *ValueOut(Outputs &o, unsigned outs) {
  return outs & kValue ? &o.value : nullptr;
}
char **TextOut(Outputs &o, unsigned outs) {
  return outs & kText ? &o.text : nullptr;
}
int *LenOut(Outputs &o, unsigned outs) {
  return outs & kLen ? &o.len : nullptr;
}

// One getter called with fixed arguments; the int is what the row expects.
using Call = std::function<int(redisReply *, Outputs &)>;

Call KeyReply(int valtype, unsigned outs = kAll, int base = 10) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply(r, valtype, ValueOut(o, outs), base,
                                 TextOut(o, outs), LenOut(o, outs));
  };
}
Call Intval(int base, unsigned outs = kValue) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply_intval(r, ValueOut(o, outs), base);
  };
}
Call Strval(unsigned outs = kText | kLen) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply_strval(r, TextOut(o, outs), LenOut(o, outs));
  };
}
Call CheckArray(uint32_t index) {
  return [=](redisReply *r, Outputs &) {
    return tqredis_check_array_reply(r, index);
  };
}
Call ArrayIntval(int index, int base = 10, unsigned outs = kValue) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_array_reply_intval(r, index, ValueOut(o, outs),
                                              base);
  };
}
Call ArrayStrval(int index, unsigned outs = kText | kLen) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_array_reply_strval(r, index, TextOut(o, outs),
                                              LenOut(o, outs));
  };
}
Call ByField(const char *field, int valtype, int base, unsigned outs) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply_by_field(r, field, valtype, ValueOut(o, outs),
                                          base, TextOut(o, outs),
                                          LenOut(o, outs));
  };
}
Call IntvalByField(const char *field, int base = 10, unsigned outs = kValue) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply_intval_by_field(r, field, ValueOut(o, outs),
                                                 base);
  };
}
Call StrvalByField(const char *field, unsigned outs = kText | kLen) {
  return [=](redisReply *r, Outputs &o) {
    return tqredis_get_key_reply_strval_by_field(r, field, TextOut(o, outs),
                                                 LenOut(o, outs));
  };
}

// The search gives the index of the element it returns among the reply's
// elements: kNoElement for NULL, kElsewhere for a pointer to anything else.
constexpr int kNoElement = -1;
constexpr int kElsewhere = -2;
Call Search(const char *field) {
  return [=](redisReply *r, Outputs &) {
    const redisReply *found = tqredis_search_field_element(r, field);
    if (found == nullptr) return kNoElement;
    for (size_t i = 0; r != nullptr && r->element != nullptr && i < r->elements;
         ++i) {
      if (r->element[i] == found) return static_cast<int>(i);
    }
    return kElsewhere;
  };
}
Call SetsSize() {
  return [](redisReply *r, Outputs &) { return tqredis_get_sets_size(r); };
}
Call HashesSize() {
  return [](redisReply *r, Outputs &) { return tqredis_get_hashes_size(r); };
}

// Where the text output points after a call: an element's text, or one of
// these.
constexpr int kTextKept = -1;  // the preset, untouched
constexpr int kTextNull = -2;
constexpr int kTextOwn = -3;  // the reply's own text

// One call and what it must do: its result, the console at the levels
// chosen (the prefix reduced to "<func>:"), and every output. A row that
// names no result or console leaves it unchecked; outputs it names nothing
// for must stay untouched.
class Row {
 public:
  Row(std::string name, Given given, Call call)
      : name_(std::move(name)),
        given_(std::move(given)),
        call_(std::move(call)) {}

  Row &&Gives(int result) && {
    result_ = result;
    return std::move(*this);
  }
  // Level-1 messages only.
  Row &&Logs(std::string console) && {
    return std::move(*this).Prints(TQREDIS_LOG_DATA, std::move(console));
  }
  // Level-16 dumps only.
  Row &&Dumps(std::string console) && {
    return std::move(*this).Prints(TQREDIS_LOG_DUMP, std::move(console));
  }
  // Both, interleaved in call order.
  Row &&LogsAndDumps(std::string console) && {
    return std::move(*this).Prints(TQREDIS_LOG_DATA | TQREDIS_LOG_DUMP,
                                   std::move(console));
  }
  Row &&Value(int value) && {
    value_ = value;
    return std::move(*this);
  }
  Row &&TextAt(int at) && {
    text_at_ = at;
    return std::move(*this);
  }
  Row &&Len(int len) && {
    len_ = len;
    return std::move(*this);
  }

  const std::string &name() const { return name_; }

  void Check() const {
    ReplyPtr parsed;
    redisReply hollow{};
    redisReply *reply = given_.Make(parsed, hollow);
    Outputs out;
    int result = 0;
    const std::string console =
        tqtest::Logged(levels_, [&] { result = call_(reply, out); });
    if (console_) {
      EXPECT_EQ(console, *console_);
    }
    if (result_) {
      EXPECT_EQ(result, *result_);
    }
    EXPECT_EQ(out.value, value_);
    EXPECT_EQ(out.text, ExpectedText(reply, out));
    EXPECT_EQ(out.len, len_);
  }

 private:
  Row &&Prints(uint32_t levels, std::string console) && {
    levels_ = levels;
    console_ = std::move(console);
    return std::move(*this);
  }
  char *ExpectedText(const redisReply *reply, Outputs &out) const {
    switch (text_at_) {
      case kTextKept:
        return &out.mark;
      case kTextNull:
        return nullptr;
      case kTextOwn:
        return reply->str;
      default:
        return reply->element[text_at_]->str;
    }
  }

  std::string name_;
  Given given_;
  Call call_;
  std::optional<int> result_;
  uint32_t levels_ = 0;
  std::optional<std::string> console_;
  int value_ = kPresetValue;
  int text_at_ = kTextKept;
  int len_ = kPresetLen;
};

// GoogleTest shows a row by its name.
void PrintTo(const Row &row, std::ostream *os) { *os << row.name(); }

class Getter : public ::testing::TestWithParam<Row> {};

TEST_P(Getter, Call) { GetParam().Check(); }

std::string RowName(const ::testing::TestParamInfo<Row> &info) {
  return info.param.name();
}

// A null or a nil reply, which the getters that check the whole reply
// first refuse as invalid arguments, in words of their own (`refusal`), after
// the check's message.
Row NullReplyRow(Call call, const std::string &refusal) {
  return Row("NullReplyIsInvalidArgumentsAfterReplyNull", kNullReply,
             std::move(call))
      .Gives(-2)
      .Logs("<tqredis_check_reply>:reply = NULL\r\n" + refusal);
}
Row NilReplyRow(Call call, const std::string &refusal) {
  return Row("NilReplyIsInvalidArgumentsAfterReplyNil", kNil, std::move(call))
      .Gives(-2)
      .Logs("<check_reply>:reply nil\r\n" + refusal);
}

#define TQ_GETTER_ROWS(suite, rows) \
  INSTANTIATE_TEST_SUITE_P(suite, Getter, ::testing::ValuesIn(rows), RowName)

// ---- tqredis_get_key_reply: the core ----------------------------------------

// clang-format off
const Row kGetKeyReply[] = {
    Row("IntegerReplyReadAsIntegerKeepsTheLowThirtyTwoBits", Int(4294967338LL) /* 2^32 + 42 */, KeyReply(0))
        .Gives(0).Value(42),
    Row("IntegerReplyAskedAsTextIsWrongType", Int(5), KeyReply(1)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:redis int reply, valtype=1\n"),
    Row("IntegerReplyWithUnknownValtypeIsWrongTypeNotMinusOne", Int(5), KeyReply(7)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:redis int reply, valtype=7\n"),
    Row("StringReplyIsReadAsInteger", Bulk("123"), KeyReply(0)).Gives(0).Value(123),
    Row("StringReplyIsReadAsText", Bulk("123"), KeyReply(1)).Gives(0).TextAt(kTextOwn).Len(3),
    Row("StringReplyWithValtypeTwoGivesMinusOneSilently", Bulk("123"), KeyReply(2)).Gives(-1).Logs(""),
    Row("StringReplyWithValtypeMinusOneGivesMinusOneSilently", Bulk("123"), KeyReply(-1)).Gives(-1)
        .Logs(""),
    Row("RejectedStatusReplyIsPrintedAtLevelSixteen", kOk, KeyReply(0, kValue))
        .Dumps("(status) OK\r\n"),
    Row("RejectedIntegerReplyIsPrintedAtLevelSixteen", Int(9), KeyReply(1, kText | kLen, 0))
        .Dumps("(integer) 9\n"),
    Row("AcceptedReplyIsNotPrinted", Bulk("7"), KeyReply(0, kValue)).Dumps("").Value(7),
    Row("NullReplyGivesMinusTwoNotACrash", kNullReply, KeyReply(0)).Gives(-2)
        .Logs("<tqredis_get_key_reply>:reply = NULL\r\n"),
    Row("MissingValueIsRefusedByTheConversion", Int(5), KeyReply(0, kText | kLen)).Gives(-2),
    Row("MissingLengthIsRefusedByTheConversion", Bulk("5"), KeyReply(1, kValue | kText)).Gives(-2),
};
// clang-format on

// Status, array, nil and error replies are the wrong type, named in the
// message, whether read as an integer or as text.
std::vector<Row> WrongTypeRows() {
  const struct {
    const char *name;
    std::string resp;
    int type;
  } kReplies[] = {{"Status", kOk, 5},
                  {"Array", Array({Bulk("1")}), 2},
                  {"Nil", kNil, 4},
                  {"Error", "-ERR no\r\n", 6}};
  std::vector<Row> rows;
  for (const auto &reply : kReplies) {
    for (int valtype : {0, 1}) {
      rows.push_back(
          Row(std::string(reply.name) + "ReplyAs" +
                  (valtype == 0 ? "Integer" : "Text") + "IsWrongType",
              reply.resp, KeyReply(valtype))
              .Gives(-4)
              .Logs("<tqredis_get_key_reply>:reply type error, type=" +
                    std::to_string(reply.type) + "\n"));
    }
  }
  return rows;
}

std::vector<Row> Joined(std::vector<Row> first,
                        const std::vector<Row> &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TQ_GETTER_ROWS(GetKeyReply,
               Joined({std::begin(kGetKeyReply), std::end(kGetKeyReply)},
                      WrongTypeRows()));

// ---- tqredis_get_key_reply_intval -------------------------------------------

// clang-format off
const Row kGetIntval[] = {
    Row("IntegerReplyOfFortyTwoGivesFortyTwo", Int(42), Intval(10)).Logs("").Gives(0).Value(42),
    Row("HexTextWithBaseZeroGivesThirtyOne", Bulk("0x1f"), Intval(0)).Gives(0).Value(31),
    // The base goes unchanged to the conversion.
    Row("BaseTenStopsAtTheX", Bulk("0x1f"), Intval(10)).Gives(0).Value(0),
    Row("BaseSixteenReadsBareHexDigits", Bulk("1f"), Intval(16)).Gives(0).Value(31),
    Row("BaseZeroReadsALeadingZeroAsOctal", Bulk("010"), Intval(0)).Gives(0).Value(8),
    Row("BaseTenReadsALeadingZeroAsDecimal", Bulk("010"), Intval(10)).Gives(0).Value(10),
    Row("NonNumericTextGivesZero", Bulk("hello"), Intval(10)).Gives(0).Value(0),
    Row("NegativeIntegerReplyStaysNegative", Int(-7), Intval(10)).Gives(0).Value(-7),
    Row("StatusReplyIsWrongTypeFive", "+17\r\n", Intval(10)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=5\n"),
    Row("UsableArrayReplyIsWrongTypeTwo", Array({Int(1)}), Intval(10)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=2\n"),
    Row("EmptyArrayPassesTheCheckThenIsWrongType", Array({}), Intval(10)).Gives(-4)
        .Logs("<check_reply>:elements zero\r\n"
              "<tqredis_get_key_reply>:reply type error, type=2\n"),
    NullReplyRow(Intval(10), "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"),
    NilReplyRow(Intval(16), "<tqredis_get_key_reply_intval>:input arguments invalid, base=16\n"),
    Row("ErrorReplyIsInvalidArguments", "-ERR 12\r\n", Intval(10)).Gives(-2)
        .Logs("<check_reply>:command error: ERR 12\r\n"
              "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"),
    Row("StringWithoutTextIsInvalidArguments", kTextless, Intval(10)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"),
    // A negative base is refused before anything is converted.
    Row("NegativeBaseIsRefused", Bulk("12"), Intval(-1)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval>:input arguments invalid, base=-1\n"),
    // A status reply would be -4 had it reached the conversion.
    Row("NegativeBaseIsRefusedBeforeTheTypeIsLookedAt", kOk, Intval(INT_MIN)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval>:input arguments invalid, base=-2147483648\n"),
    Row("ReplyIsCheckedBeforeTheBase", kNil, Intval(-1)).Gives(-2)
        .Logs("<check_reply>:reply nil\r\n"
              "<tqredis_get_key_reply_intval>:input arguments invalid, base=-1\n"),
    Row("NullOutputIsInvalidArguments", Int(3), Intval(10, 0)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"),
    // The check prints the refused reply at level 16.
    Row("RefusedNilReplyIsPrintedByTheCheck", kNil, Intval(10)).Dumps("(nil)\n"),
    Row("RefusedStatusReplyIsPrinted", "+PONG\r\n", Intval(10)).Dumps("(status) PONG\r\n"),
    Row("MessagesAndDumpInterleaveInCallOrder", Array({Bulk("x"), kNil}), Intval(10))
        .LogsAndDumps("<check_reply>:reply nil\r\n"
                      "<check_reply>:array reply element[1] error\r\n"
                      "0) (string) x\r\n"
                      "1) (nil)\n"
                      "<tqredis_get_key_reply_intval>:input arguments invalid, base=10\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetIntval, kGetIntval);

// ---- tqredis_get_key_reply_strval -------------------------------------------

// clang-format off
const Row kGetStrval[] = {
    Row("TextPointsIntoTheReply", Bulk("hello"), Strval()).Gives(0).TextAt(kTextOwn).Len(5),
    Row("EmbeddedNulKeepsTheFullLength", Bulk(std::string_view("ab\0cd", 5)), Strval()).Gives(0).TextAt(kTextOwn).Len(5),
    Row("EmptyTextIsAValue", Bulk(""), Strval()).Gives(0).TextAt(kTextOwn).Len(0),
    Row("IntegerReplyIsWrongTypeValtypeOne", Int(42), Strval()).Gives(-4)
        .Logs("<tqredis_get_key_reply>:redis int reply, valtype=1\n"),
    Row("StatusReplyIsWrongType", kOk, Strval()).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=5\n"),
    NullReplyRow(Strval(), "<tqredis_get_key_reply_strval>:input arguments invalid\n"),
    NilReplyRow(Strval(), "<tqredis_get_key_reply_strval>:input arguments invalid\n"),
    Row("MissingTextIsInvalidArguments", Bulk("x"), Strval(kLen)).Gives(-2)
        .Logs("<tqredis_get_key_reply_strval>:input arguments invalid\n"),
    Row("MissingLengthIsInvalidArguments", Bulk("x"), Strval(kText)).Gives(-2)
        .Logs("<tqredis_get_key_reply_strval>:input arguments invalid\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetStrval, kGetStrval);

// ---- tqredis_check_array_reply ----------------------------------------------

// clang-format off
const Row kCheckArrayReply[] = {
    Row("UsableFirstElementGivesOneSilently", Array({Bulk("a"), Int(2)}), CheckArray(0)).Gives(1)
        .Logs(""),
    Row("UsableLastElementGivesOneSilently", Array({Bulk("a"), Int(2)}), CheckArray(1)).Gives(1)
        .Logs(""),
    Row("StringIsRefusedWithItsType", Bulk("a"), CheckArray(0)).Gives(0)
        .Logs("<tqredis_check_array_reply>:not array reply, type=1\n"),
    Row("IntegerIsRefusedWithItsType", Int(1), CheckArray(0)).Gives(0)
        .Logs("<tqredis_check_array_reply>:not array reply, type=3\n"),
    Row("IndexEqualToElementsIsInvalid", Array({Bulk("a"), Int(2)}), CheckArray(2)).Gives(0)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=2 index=2\n"),
    Row("HugeIndexIsComparedUnsignedAndPrintedSigned", Array({Bulk("a"), Int(2)}), CheckArray(UINT32_MAX)).Gives(0)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=2 index=-1\n"),
    Row("AnyIndexOfAnEmptyArrayIsInvalid", Array({}), CheckArray(0)).Gives(0)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=0 index=0\n"),
    Row("NilElementIsInvalid", Array({Bulk("a"), kNil}), CheckArray(1)).Gives(0)
        .Logs("<check_reply>:reply nil\r\n"
              "<tqredis_check_array_reply>:element[1] invalid\n"),
    Row("OnlyTheAskedElementIsChecked", Array({Bulk("a"), kNil}), CheckArray(0)).Gives(1).Logs(""),
    // A nested array element is checked to the bottom.
    Row("UsableNestedArrayElementGivesOne", Array({Array({Int(1), Bulk("x")})}), CheckArray(0)).Gives(1),
    Row("ErrorDeepInANestedArrayElementIsInvalid", Array({Array({Int(1), "-ERR deep\r\n"})}), CheckArray(0)).Gives(0)
        .Logs("<check_reply>:command error: ERR deep\r\n"
              "<check_reply>:array reply element[1] error\r\n"
              "<tqredis_check_array_reply>:element[0] invalid\n"),
    Row("UnusableElementIsPrintedAtLevelSixteen", Array({Bulk("a"), "-ERR x\r\n"}), CheckArray(1))
        .Dumps("(error) ERR x\r\n"),
    Row("NullReplyIsRefusedNotACrash", kNullReply, CheckArray(0)).Gives(0)
        .Logs("<tqredis_check_array_reply>:reply = NULL\r\n"),
    Row("MissingElementVectorIsRefusedNotACrash", kNoVector, CheckArray(1)).Gives(0)
        .Logs("<tqredis_check_reply>:reply = NULL\r\n"
              "<tqredis_check_array_reply>:element[1] invalid\n"),
};
// clang-format on
TQ_GETTER_ROWS(CheckArrayReply, kCheckArrayReply);

// ---- tqredis_get_key_array_reply_intval -------------------------------------

const std::string kThreeValues = Array({Int(5), Bulk("17"), Bulk("0x10")});

// clang-format off
const Row kGetArrayIntval[] = {
    // The element at the index is read.
    Row("ReadsAnIntegerElement", kThreeValues, ArrayIntval(0)).Gives(0).Value(5),
    Row("ReadsAStringElement", kThreeValues, ArrayIntval(1)).Gives(0).Value(17),
    Row("ReadsAStringElementInTheGivenBase", kThreeValues, ArrayIntval(2, 0)).Gives(0).Value(16),
    Row("IndexEqualToElementsIsIndexInvalidThenArrayInvalid", Array({Int(5), Int(6), Int(7)}), ArrayIntval(3)).Gives(-2)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=3 index=3\n"
              "<tqredis_get_key_array_reply_intval>:array reply invalid, index=3\r\n"),
    Row("HugeIndexIsIndexInvalid", Array({Int(5)}), ArrayIntval(INT_MAX)).Gives(-2)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=1 index=2147483647\n"
              "<tqredis_get_key_array_reply_intval>:array reply invalid, index=2147483647\r\n"),
    // A nil anywhere is refused by the argument check, whichever the index.
    Row("NilAfterTheIndexIsRefusedByTheArgumentCheck", Array({Int(1), kNil, Int(3)}), ArrayIntval(0)).Gives(-2)
        .Logs("<check_reply>:reply nil\r\n"
              "<check_reply>:array reply element[1] error\r\n"
              "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n"),
    Row("NilBeforeTheIndexIsRefusedByTheArgumentCheck", Array({Int(1), kNil, Int(3)}), ArrayIntval(2)).Gives(-2)
        .Logs("<check_reply>:reply nil\r\n"
              "<check_reply>:array reply element[1] error\r\n"
              "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=2 base=10\n"),
    Row("NegativeIndexIsInvalidArguments", Array({Int(1)}), ArrayIntval(-1)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_intval>:input arguments invalid, index=-1 base=10\n"),
    Row("NegativeBaseIsInvalidArguments", Array({Bulk("12")}), ArrayIntval(0, -16)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=-16\n"),
    Row("NullOutputIsInvalidArguments", Array({Int(1)}), ArrayIntval(0, 10, 0)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n"),
    NullReplyRow(ArrayIntval(0),
                 "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n"),
    NilReplyRow(ArrayIntval(0),
                "<tqredis_get_key_array_reply_intval>:input arguments invalid, index=0 base=10\n"),
    Row("NonArrayReplyIsArrayInvalid", Bulk("5"), ArrayIntval(0)).Gives(-2)
        .Logs("<tqredis_check_array_reply>:not array reply, type=1\n"
              "<tqredis_get_key_array_reply_intval>:array reply invalid, index=0\r\n"),
    Row("EmptyArrayIsArrayInvalid", Array({}), ArrayIntval(0)).Gives(-2)
        .Logs("<check_reply>:elements zero\r\n"
              "<tqredis_check_array_reply>:index invalid, elements=0 index=0\n"
              "<tqredis_get_key_array_reply_intval>:array reply invalid, index=0\r\n"),
    Row("NestedArrayElementIsWrongType", Array({Array({Int(1), Int(2)}), Int(3)}), ArrayIntval(0)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=2\n"),
    Row("ElementAfterANestedArrayIsRead", Array({Array({Int(1), Int(2)}), Int(3)}), ArrayIntval(1)).Gives(0).Value(3),
    Row("NestedEmptyArrayIsLoggedByBothChecksThenWrongType", Array({Array({})}), ArrayIntval(0)).Gives(-4)
        .Logs("<check_reply>:elements zero\r\n"
              "<check_reply>:elements zero\r\n"
              "<tqredis_get_key_reply>:reply type error, type=2\n"),
    Row("StatusElementIsWrongType", Array({"+5\r\n"}), ArrayIntval(0)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=5\n"),
    Row("RejectedArrayIsPrintedBeforeTheArrayMessage", Array({Int(1), Bulk("b")}), ArrayIntval(2))
        .LogsAndDumps("<tqredis_check_array_reply>:index invalid, elements=2 index=2\n"
                      "0) (integer) 1\n"
                      "1) (string) b\r\n"
                      "<tqredis_get_key_array_reply_intval>:array reply invalid, index=2\r\n"),
    Row("WrongTypeElementIsPrintedAtLevelSixteen", Array({kOk}), ArrayIntval(0))
        .Dumps("(status) OK\r\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetArrayIntval, kGetArrayIntval);

// ---- tqredis_get_key_array_reply_strval -------------------------------------

// clang-format off
const Row kGetArrayStrval[] = {
    Row("TextPointsIntoTheElement", Array({Int(1), Bulk("hello")}), ArrayStrval(1)).Gives(0).TextAt(1).Len(5),
    Row("IntegerElementIsWrongTypeValtypeOne", Array({Int(1), Bulk("hello")}), ArrayStrval(0)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:redis int reply, valtype=1\n"),
    Row("IndexEqualToElementsIsIndexInvalidThenArrayInvalid", Array({Bulk("a")}), ArrayStrval(1)).Gives(-2)
        .Logs("<tqredis_check_array_reply>:index invalid, elements=1 index=1\n"
              "<tqredis_get_key_array_reply_strval>:array reply invalid, index=1\r\n"),
    // The argument message names only the index.
    Row("ArgumentMessageNamesANegativeIndex", Array({Bulk("a")}), ArrayStrval(-5)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_strval>:input arguments invalid, index=-5\n"),
    Row("ArgumentMessageForAMissingTextNamesOnlyTheIndex", Array({Bulk("a")}), ArrayStrval(0, kLen)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n"),
    Row("ArgumentMessageForAMissingLengthNamesOnlyTheIndex", Array({Bulk("a")}), ArrayStrval(0, kText)).Gives(-2)
        .Logs("<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n"),
    Row("ErrorAnywhereIsRefusedByTheArgumentCheck", Array({Bulk("a"), "-ERR bad\r\n"}), ArrayStrval(0)).Gives(-2)
        .Logs("<check_reply>:command error: ERR bad\r\n"
              "<check_reply>:array reply element[1] error\r\n"
              "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n"),
    NullReplyRow(ArrayStrval(0),
                 "<tqredis_get_key_array_reply_strval>:input arguments invalid, index=0\n"),
    Row("NonArrayReplyIsArrayInvalid", kOk, ArrayStrval(0)).Gives(-2)
        .Logs("<tqredis_check_array_reply>:not array reply, type=5\n"
              "<tqredis_get_key_array_reply_strval>:array reply invalid, index=0\r\n"),
    Row("NestedArrayElementIsWrongType", Array({Array({Bulk("x")})}), ArrayStrval(0)).Gives(-4)
        .Logs("<tqredis_get_key_reply>:reply type error, type=2\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetArrayStrval, kGetArrayStrval);

// ---- tqredis_search_field_element -------------------------------------------

const std::string kNameOne = Array({Bulk("Name"), Bulk("1")});
const std::string kNoPairs =
    Array({Bulk("a"), Bulk("b"), Bulk("c"), Bulk("d")});
const std::string kTextlessFields = Array(
    {Int(1), Bulk("x"), Array({Bulk("b")}), Bulk("y"), Bulk("b"), Bulk("z")});
const std::string kNilField = Array({kNil, Bulk("1"), Bulk("b"), Bulk("2")});

// clang-format off
const Row kSearchField[] = {
    Row("GivesTheValueElementOfTheFirstField", kHashAB, Search("a")).Gives(1),
    Row("GivesTheValueElementOfTheSecondField", kHashAB, Search("b")).Gives(3),
    Row("FirstMatchingPairWins", Array({Bulk("a"), Bulk("1"), Bulk("a"), Bulk("2")}), Search("a")).Gives(1),
    // Values are never compared.
    Row("FirstValueIsNotAField", kNoPairs, Search("b")).Gives(kNoElement),
    Row("LastValueIsNotAField", kNoPairs, Search("d")).Gives(kNoElement),
    Row("SecondFieldIsFound", kNoPairs, Search("c")).Gives(3),
    // The comparison is exact and case-sensitive.
    Row("OtherCaseIsNotTheField", kNameOne, Search("name")).Gives(kNoElement),
    Row("PrefixIsNotTheField", kNameOne, Search("Nam")).Gives(kNoElement),
    Row("LongerNameIsNotTheField", kNameOne, Search("Names")).Gives(kNoElement),
    Row("EmptyNameIsNotTheField", kNameOne, Search("")).Gives(kNoElement),
    Row("ExactNameIsTheField", kNameOne, Search("Name")).Gives(1),
    Row("EmptyFieldNameMatchesAnEmptyField", Array({Bulk(""), Bulk("v")}), Search("")).Gives(1),
    // An odd or short array has no field.
    Row("ThreeElementArrayHasNoField", Array({Bulk("a"), Bulk("1"), Bulk("b")}), Search("a")).Gives(kNoElement),
    Row("OneElementArrayHasNoField", Array({Bulk("a")}), Search("a")).Gives(kNoElement),
    Row("EmptyArrayHasNoField", Array({}), Search("a")).Gives(kNoElement),
    Row("UnusableFieldElementIsSkipped", kNilField, Search("b"))
        .Logs("<check_reply>:reply nil\r\n").Gives(3),
    Row("UnusableFieldElementIsPrinted", kNilField, Search("b")).Dumps("(nil)\n"),
    // A field element without text is skipped, not a crash.
    Row("IntegerFieldElementIsNotMatchedByItsNumber", kTextlessFields, Search("1")).Gives(kNoElement),
    Row("FieldAfterElementsWithoutTextIsFound", kTextlessFields, Search("b")).Gives(5),
    Row("StatusFieldElementIsComparedByItsText", Array({"+a\r\n", Bulk("1")}), Search("a")).Gives(1),
    Row("ValueElementIsNotExamined", Array({Bulk("a"), kNil}), Search("a")).Logs("").Gives(1),
    Row("MissingElementVectorIsSkippedNotACrash", kNoVector, Search("a"))
        .Logs("<tqredis_check_reply>:reply = NULL\r\n").Gives(kNoElement),
    Row("NullReplyGivesNullNotACrash", kNullReply, Search("a"))
        .Logs("<tqredis_search_field_element>:reply = NULL\r\n").Gives(kNoElement),
    Row("NullFieldGivesNullNotACrash", kHashAB, Search(nullptr))
        .Logs("<tqredis_search_field_element>:field = NULL\r\n").Gives(kNoElement),
};
// clang-format on
TQ_GETTER_ROWS(SearchField, kSearchField);

// ---- tqredis_get_key_reply_by_field: the core -------------------------------

const std::string kNumberAndText =
    Array({Bulk("n"), Bulk("0x1f"), Bulk("s"), Bulk("text")});

// clang-format off
const Row kGetByField[] = {
    // The value found is converted with the valtype.
    Row("FoundValueIsConvertedToAnInteger", kNumberAndText, ByField("n", 0, 16, kValue)).Gives(0).Value(31),
    Row("FoundValueIsHandedOutAsText", kNumberAndText, ByField("s", 1, 0, kText | kLen)).Gives(0).TextAt(3).Len(4),
    Row("UnknownValtypeGivesMinusOne", kHashAB, ByField("a", 2, 10, kAll)).Gives(-1),
    Row("IntegerValueIsReadAsItsInteger", Array({Bulk("a"), Int(4294967303LL) /* 2^32 + 7 */}), ByField("a", 0, 10, kValue))
        .Gives(0).Value(7),
    // An integer element carries no text.
    Row("ValueTypeIsNotExaminedForText", Array({Bulk("a"), Int(7)}), ByField("a", 1, 0, kText | kLen))
        .Gives(0).TextAt(kTextNull).Len(0),
    Row("NonArrayIsWrongType", Bulk("a"), ByField("a", 0, 10, kValue)).Gives(-4)
        .Logs("<tqredis_get_key_reply_by_field>:reply type error, type=1\n"),
    Row("NonArrayIsPrintedAtLevelSixteen", Bulk("a"), ByField("a", 0, 10, kValue))
        .Dumps("(string) a\r\n"),
    Row("NilReplyIsWrongTypeWithoutTheCheck", kNil, ByField("a", 1, 0, kText | kLen)).Gives(-4)
        .Logs("<tqredis_get_key_reply_by_field>:reply type error, type=4\n"),
    Row("MissingFieldIsMinusFiveAndPrintsTheReply", Array({Bulk("a"), Bulk("1")}), ByField("zz", 0, 10, kValue)).Gives(-5)
        .LogsAndDumps("<tqredis_get_key_reply_by_field>:field[zz] not existed\n"
                      "0) (string) a\r\n"
                      "1) (string) 1\r\n"),
    Row("NullReplyGivesMinusTwoNotACrash", kNullReply, ByField("a", 0, 10, kValue)).Gives(-2)
        .Logs("<tqredis_get_key_reply_by_field>:reply = NULL\r\n"),
    Row("NullFieldGivesMinusTwoNotACrash", kHashAB, ByField(nullptr, 0, 10, kValue)).Gives(-2)
        .Logs("<tqredis_get_key_reply_by_field>:field = NULL\r\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetByField, kGetByField);

// ---- tqredis_get_key_reply_intval_by_field ----------------------------------

const std::string kMaskFF = Array({Bulk("mask"), Bulk("ff")});
// An integer field passes the check but has no text to compare.
const std::string kIntegerField =
    Array({Int(1), Bulk("9"), Bulk("b"), Bulk("2")});

// clang-format off
const Row kGetIntvalByField[] = {
    Row("FieldBOfHashABGivesTwo", kHashAB, IntvalByField("b")).Logs("").Gives(0).Value(2),
    Row("FieldCOfHashABIsMinusFiveNotExisted", kHashAB, IntvalByField("c")).Gives(-5)
        .Logs("<tqredis_get_key_reply_by_field>:field[c] not existed\n"),
    Row("ThreeElementArrayIsMinusFiveNotExisted", Array({Bulk("a"), Bulk("1"), Bulk("b")}), IntvalByField("a")).Gives(-5)
        .Logs("<tqredis_get_key_reply_by_field>:field[a] not existed\n"),
    Row("EmptyArrayIsMinusFiveAfterElementsZero", Array({}), IntvalByField("a")).Gives(-5)
        .Logs("<check_reply>:elements zero\r\n"
              "<tqredis_get_key_reply_by_field>:field[a] not existed\n"),
    Row("NonArrayReplyIsWrongType", Bulk("5"), IntvalByField("a")).Gives(-4)
        .Logs("<tqredis_get_key_reply_by_field>:reply type error, type=1\n"),
    NullReplyRow(IntvalByField("a"),
                 "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"),
    NilReplyRow(IntvalByField("a"),
                "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"),
    Row("NilValueInTheHashIsInvalidArgumentsWhicheverField", Array({Bulk("a"), Bulk("1"), Bulk("b"), kNil}), IntvalByField("a")).Gives(-2)
        .Logs("<check_reply>:reply nil\r\n"
              "<check_reply>:array reply element[3] error\r\n"
              "<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"),
    Row("NullFieldIsInvalidArguments", kHashAB, IntvalByField(nullptr)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"),
    Row("NullOutputIsInvalidArguments", kHashAB, IntvalByField("a", 10, 0)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=10\n"),
    Row("NegativeBaseIsInvalidArguments", kHashAB, IntvalByField("a", -1)).Gives(-2)
        .Logs("<tqredis_get_key_reply_intval_by_field>:input arguments invalid, base=-1\n"),
    // A string value is read in the given base.
    Row("StringValueIsReadInBaseSixteen", kMaskFF, IntvalByField("mask", 16)).Gives(0).Value(255),
    Row("StringValueIsReadInBaseTen", kMaskFF, IntvalByField("mask", 10)).Gives(0).Value(0),
    Row("NestedArrayValueIsRefusedNotACrash", Array({Bulk("a"), Array({Int(1)})}), IntvalByField("a")).Gives(-2),
    // A field element without text is skipped.
    Row("FieldAfterAnIntegerFieldIsFound", kIntegerField, IntvalByField("b")).Gives(0).Value(2),
    Row("IntegerFieldIsNotMatchedByItsNumber", kIntegerField, IntvalByField("1")).Gives(-5),
    Row("MissingFieldIsPrintedAtLevelSixteen", kHashAB, IntvalByField("c"))
        .Dumps("0) (string) a\r\n"
               "1) (string) 1\r\n"
               "2) (string) b\r\n"
               "3) (string) 2\r\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetIntvalByField, kGetIntvalByField);

// ---- tqredis_get_key_reply_strval_by_field ----------------------------------

// clang-format off
const Row kGetStrvalByField[] = {
    Row("TextPointsIntoTheValueElement", kHashAB, StrvalByField("b")).Gives(0).TextAt(3).Len(1),
    Row("InvalidArgumentsMessageHasNoLineEnd", kHashAB, StrvalByField(nullptr)).Gives(-2)
        .Logs("<tqredis_get_key_reply_strval_by_field>:input arguments invalid"),
    Row("MissingTextIsInvalidArguments", kHashAB, StrvalByField("a", kLen)).Gives(-2)
        .Logs("<tqredis_get_key_reply_strval_by_field>:input arguments invalid"),
    Row("MissingLengthIsInvalidArguments", kHashAB, StrvalByField("a", kText)).Gives(-2)
        .Logs("<tqredis_get_key_reply_strval_by_field>:input arguments invalid"),
    NullReplyRow(StrvalByField("a"),
                 "<tqredis_get_key_reply_strval_by_field>:input arguments invalid"),
    Row("ErrorReplyIsInvalidArgumentsAfterCommandError", "-WRONGTYPE no\r\n", StrvalByField("a")).Gives(-2)
        .Logs("<check_reply>:command error: WRONGTYPE no\r\n"
              "<tqredis_get_key_reply_strval_by_field>:input arguments invalid"),
    Row("MissingFieldIsMinusFive", kHashAB, StrvalByField("B")).Gives(-5)
        .Logs("<tqredis_get_key_reply_by_field>:field[B] not existed\n"),
    Row("StatusReplyIsWrongType", kOk, StrvalByField("a")).Gives(-4)
        .Logs("<tqredis_get_key_reply_by_field>:reply type error, type=5\n"),
};
// clang-format on
TQ_GETTER_ROWS(GetStrvalByField, kGetStrvalByField);

// ---- tqredis_get_sets_size and tqredis_get_hashes_size ----------------------

// clang-format off
const Row kSetsSize[] = {
    Row("ThreeMembersGiveThree", Array({Bulk("x"), Bulk("y"), Bulk("z")}), SetsSize())
        .Dumps("").Gives(3),
    Row("EmptyArrayGivesMinusOneNotZero", Array({}), SetsSize())
        .Logs("<check_reply>:elements zero\r\n").Gives(-1),
    Row("EmptyArrayIsPrinted", Array({}), SetsSize()).Dumps("(empty list or set)\n"),
    Row("StringGivesMinusOneAndIsPrinted", Bulk("x"), SetsSize()).Dumps("(string) x\r\n").Gives(-1),
    Row("IntegerGivesMinusOneAndIsPrinted", Int(3), SetsSize()).Dumps("(integer) 3\n").Gives(-1),
    Row("NullReplyGivesMinusOneNotACrash", kNullReply, SetsSize())
        .Logs("<tqredis_check_reply>:reply = NULL\r\n").Gives(-1),
    Row("NullReplyIsPrinted", kNullReply, SetsSize()).Dumps("reply = NULL\r\n"),
    Row("RefusedReplyIsPrintedByTheCheckAndAgain", Array({Bulk("x"), kNil}), SetsSize())
        .Dumps("0) (string) x\r\n"
               "1) (nil)\n"
               "0) (string) x\r\n"
               "1) (nil)\n").Gives(-1),
    Row("NestedArraysCountAsMembers", Array({Array({Int(1), Int(2)}), Bulk("y")}), SetsSize()).Gives(2),
};
// clang-format on
TQ_GETTER_ROWS(SetsSize, kSetsSize);

// clang-format off
const Row kHashesSize[] = {
    Row("HashABGivesTwo", kHashAB, HashesSize()).Dumps("").Gives(2),
    Row("ThreeElementArrayGivesMinusOneAndIsPrinted", Array({Bulk("a"), Bulk("1"), Bulk("b")}), HashesSize())
        .Dumps("0) (string) a\r\n"
               "1) (string) 1\r\n"
               "2) (string) b\r\n").Gives(-1),
    Row("EmptyArrayGivesMinusOne", Array({}), HashesSize())
        .Logs("<check_reply>:elements zero\r\n").Gives(-1),
    Row("NonArrayGivesMinusOne", kOk, HashesSize()).Dumps("(status) OK\r\n").Gives(-1),
    Row("NullReplyGivesMinusOneNotACrash", kNullReply, HashesSize())
        .Logs("<tqredis_check_reply>:reply = NULL\r\n").Gives(-1),
    Row("NilReplyGivesMinusOne", kNil, HashesSize()).Logs("<check_reply>:reply nil\r\n").Gives(-1),
    Row("NilValueMakesTheHashUnusable", Array({Bulk("a"), kNil}), HashesSize()).Gives(-1),
};
// clang-format on
TQ_GETTER_ROWS(HashesSize, kHashesSize);

}  // namespace

// ---- cases that do not fit one call -----------------------------------------

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

TEST(Getters, NoGetterFreesTheReplyOnAnyPath) {
  // Run under ASan, a free here would surface as a use after free below or
  // as a double free when the test releases the replies.
  auto nil = Reply(kNil);
  auto hash = Reply(kHashAB);
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
  auto r = Reply(kHashAB);
  int value = 0;
  tqredis_get_key_reply_intval_by_field(r.get(), "c", &value, 10);
  tqredis_get_key_array_reply_intval(r.get(), 4, &value, 10);
  const std::string log = tqtest::ReadFile(tqtest::LogPath("unlimitlog"));
  const std::string stamp =
      R"(\d{8}_\d{2}:\d{2}:\d{2}\.\d{6} \[getters_test\])";
  EXPECT_TRUE(std::regex_match(
      log,
      std::regex(
          "^" + stamp +
          R"(<tqredis_get_key_reply_by_field, \d+>:field\[c\] not existed\n)" +
          stamp +
          R"(<tqredis_check_array_reply, \d+>:index invalid, elements=4 index=4\n)" +
          stamp +
          R"(<tqredis_get_key_array_reply_intval, \d+>:array reply invalid, index=4\r\n$)")))
      << log;
}
