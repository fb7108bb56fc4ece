// Requests from printf-like formats: the fast path gives hiredis's bytes for
// the formats it takes, declines the others, and AppendCommand() then gives
// hiredis's own result, errors included.

// First: hiredis's string buffer functions are C, and their header does not
// say so.
extern "C" {
#include <hiredis/sds.h>
}

#include "command/format.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <string>

using tqredis::detail::AppendCommand;
using tqredis::detail::AppendFormatted;

namespace {

constexpr char kPending[] = "*1\r\n$4\r\nPING\r\n";

// One format's outcome on both roads.
struct Outcome {
  bool fast = false;     // the fast path took it
  std::string ours;      // what the fast path appended (after kPending)
  int hiredis_len = 0;   // redisvFormatCommand()'s return
  std::string hiredis;   // and its request
};

// Formats with the fast path behind a pending request, then with hiredis
// from the same va_list, which the fast path must have left as it was.
Outcome Format(const char *format, ...) {
  Outcome out;
  va_list ap;
  va_start(ap, format);
  sds buf = sdsnew(kPending);
  out.fast = AppendFormatted(&buf, format, ap);
  const std::string all(buf, sdslen(buf));
  EXPECT_EQ(all.compare(0, sizeof(kPending) - 1, kPending), 0) << format;
  out.ours = all.substr(sizeof(kPending) - 1);
  sdsfree(buf);
  char *cmd = nullptr;
  out.hiredis_len = redisvFormatCommand(&cmd, format, ap);
  va_end(ap);
  if (out.hiredis_len > 0) out.hiredis.assign(cmd, out.hiredis_len);
  std::free(cmd);
  return out;
}

// A context that is never connected: only its output buffer and error
// fields are used.
struct Unconnected {
  redisContext ctx{};
  Unconnected() { ctx.obuf = sdsnew(kPending); }
  ~Unconnected() { sdsfree(ctx.obuf); }
  std::string Buffer() const { return std::string(ctx.obuf, sdslen(ctx.obuf)); }
};

bool FastOnly(char **buf, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const bool fast = AppendFormatted(buf, format, ap);
  va_end(ap);
  return fast;
}

int Append(redisContext *ctx, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const int rc = AppendCommand(ctx, format, ap);
  va_end(ap);
  return rc;
}

#define EXPECT_FAST(outcome, bytes)                          \
  do {                                                       \
    const Outcome got = (outcome);                           \
    EXPECT_TRUE(got.fast);                                   \
    EXPECT_EQ(got.ours, std::string(bytes, sizeof(bytes) - 1)); \
    EXPECT_EQ(got.hiredis, got.ours);                        \
  } while (0)

}  // namespace

TEST(Format, PipelinedWriteIsOneArgumentPerWord) {
  EXPECT_FAST(Format("SET bench:set:%d %d", 7, -3),
              "*3\r\n$3\r\nSET\r\n$11\r\nbench:set:7\r\n$2\r\n-3\r\n");
}

TEST(Format, StringAndBinaryArgumentsAreCopiedWhole) {
  EXPECT_FAST(Format("SET %s %b", "key", "a\0b\r\n", size_t{5}),
              "*3\r\n$3\r\nSET\r\n$3\r\nkey\r\n$5\r\na\0b\r\n\r\n");
}

TEST(Format, EmptyConversionsStillMakeAnArgument) {
  EXPECT_FAST(Format("HSET %s f %b", "", static_cast<const char *>(nullptr),
                     size_t{0}),
              "*4\r\n$4\r\nHSET\r\n$0\r\n\r\n$1\r\nf\r\n$0\r\n\r\n");
}

TEST(Format, RunsOfSpacesSplitOnceAndEdgesAddNothing) {
  EXPECT_FAST(Format("  GET   key  "), "*2\r\n$3\r\nGET\r\n$3\r\nkey\r\n");
}

TEST(Format, PiecesJoinWithinAnArgument) {
  EXPECT_FAST(Format("SET k%s%dx%% v", "mid", 42),
              "*3\r\n$3\r\nSET\r\n$8\r\nkmid42x%\r\n$1\r\nv\r\n");
}

TEST(Format, PercentEndingTheFormatIsLiteral) {
  EXPECT_FAST(Format("ECHO 100%"), "*2\r\n$4\r\nECHO\r\n$4\r\n100%\r\n");
}

TEST(Format, EmptyFormatIsARequestWithoutArguments) {
  EXPECT_FAST(Format(""), "*0\r\n");
  EXPECT_FAST(Format("   "), "*0\r\n");
}

TEST(Format, DecimalConversionsCoverEveryIntegerSizeAndItsLimits) {
  EXPECT_FAST(Format("%d %i %u", INT_MIN, INT_MAX, UINT_MAX),
              "*3\r\n$11\r\n-2147483648\r\n$10\r\n2147483647\r\n$10\r\n"
              "4294967295\r\n");
  EXPECT_FAST(Format("%lld %lli %llu %d", LLONG_MIN, LLONG_MAX, ULLONG_MAX, 0),
              "*4\r\n$20\r\n-9223372036854775808\r\n$19\r\n"
              "9223372036854775807\r\n$20\r\n18446744073709551615\r\n$1\r\n"
              "0\r\n");
  // long is 32 or 64 bits by ABI: hiredis's text is the reference.
  const Outcome longs =
      Format("%ld %li %lu", LONG_MIN, LONG_MAX, ULONG_MAX);
  EXPECT_TRUE(longs.fast);
  EXPECT_EQ(longs.ours, longs.hiredis);
  EXPECT_EQ(longs.ours.compare(0, 4, "*3\r\n"), 0);
}

TEST(Format, SixteenArgumentsAreTheFastPathsMost) {
  EXPECT_FAST(Format("a b c d e f g h i j k l m n o %d", 16),
              "*16\r\n$1\r\na\r\n$1\r\nb\r\n$1\r\nc\r\n$1\r\nd\r\n$1\r\ne\r\n"
              "$1\r\nf\r\n$1\r\ng\r\n$1\r\nh\r\n$1\r\ni\r\n$1\r\nj\r\n$1\r\nk"
              "\r\n$1\r\nl\r\n$1\r\nm\r\n$1\r\nn\r\n$1\r\no\r\n$2\r\n16\r\n");
  const Outcome more = Format("a b c d e f g h i j k l m n o p %d", 17);
  EXPECT_FALSE(more.fast);
  EXPECT_EQ(more.ours, "");
}

TEST(Format, ThirtyThreePiecesAreDeclined) {
  const Outcome got = Format(
      "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s",
      "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n",
      "o", "p", "q", "r", "s", "t", "u", "v", "w", "x", "y", "z", "A", "B",
      "C", "D", "E", "F", "G");
  EXPECT_FALSE(got.fast);
  EXPECT_EQ(got.ours, "");
  EXPECT_EQ(got.hiredis_len, 44);
}

TEST(Format, LargeBinaryArgumentIsCopiedWhole) {
  const std::string value(1 << 20, 'v');
  const Outcome got = Format("SET big %b", value.data(), value.size());
  EXPECT_TRUE(got.fast);
  EXPECT_EQ(got.ours, "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + value +
                          "\r\n");
  EXPECT_EQ(got.hiredis, got.ours);
}

TEST(Format, PrintfFeaturesBeyondDecimalsAreLeftToHiredis) {
  for (const Outcome &got :
       {Format("%x", 255), Format("%5d", 42), Format("%-3d|", 7),
        Format("%+d", 7), Format("%hd", 7), Format("%hhu", 7),
        Format("%lx", 255L), Format("%llX", 255LL), Format("%.2f", 1.5),
        Format("%o", 8)}) {
    EXPECT_FALSE(got.fast);
    EXPECT_EQ(got.ours, "");
    EXPECT_GT(got.hiredis_len, 0);
  }
}

TEST(Format, InvalidConversionsAreLeftToHiredis) {
  for (const Outcome &got : {Format("GET %y"), Format("GET %l"),
                             Format("GET %ls", "k"), Format("GET %lls", "k")}) {
    EXPECT_FALSE(got.fast);
    EXPECT_EQ(got.ours, "");
    EXPECT_EQ(got.hiredis_len, -2);
  }
}

TEST(Format, NullStringIsLeftToHiredis) {
  sds buf = sdsempty();
  EXPECT_FALSE(FastOnly(&buf, "GET %s", static_cast<const char *>(nullptr)));
  EXPECT_EQ(sdslen(buf), 0u);
  sdsfree(buf);
}

TEST(Format, AppendCommandPutsTheFastRequestAfterPendingOnes) {
  Unconnected c;
  ASSERT_EQ(Append(&c.ctx, "GET %s", "k"), REDIS_OK);
  EXPECT_EQ(c.Buffer(), std::string(kPending) + "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n");
  EXPECT_EQ(c.ctx.err, 0);
}

TEST(Format, AppendCommandGivesDeclinedFormatsToHiredis) {
  Unconnected c;
  ASSERT_EQ(Append(&c.ctx, "SET k %5d", 42), REDIS_OK);
  EXPECT_EQ(c.Buffer(),
            std::string(kPending) + "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$5\r\n   42\r\n");
}

TEST(Format, AppendCommandReportsAnInvalidFormatAndKeepsTheBuffer) {
  Unconnected c;
  EXPECT_EQ(Append(&c.ctx, "GET %y"), REDIS_ERR);
  EXPECT_EQ(c.ctx.err, REDIS_ERR_OTHER);
  EXPECT_STREQ(c.ctx.errstr, "Invalid format string");
  EXPECT_EQ(c.Buffer(), kPending);
}
