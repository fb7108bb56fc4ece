// Console and file masks, the log files, their line layout and their bound.
#include <sys/stat.h>

#include <cstdio>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"
#include "tqredis.h"

namespace {

const std::string kStamp = R"(\d{8}_\d{2}:\d{2}:\d{2}\.\d{6} )";

std::string Limited() { return tqtest::ReadFile(tqtest::LogPath("limitlog")); }
std::string Unlimited() {
  return tqtest::ReadFile(tqtest::LogPath("unlimitlog"));
}

long FileSize(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// Fills the limited log with 'x' up to `position` and leaves it there.
void PadLimitedTo(long position) {
  FILE *fp = tqredis_get_log_fp(TQREDIS_LOG_LIFE);
  ASSERT_NE(fp, nullptr);
  std::fseek(fp, 0, SEEK_END);
  const long now = std::ftell(fp);
  ASSERT_LE(now, position);
  const std::string pad(static_cast<size_t>(position - now), 'x');
  std::fwrite(pad.data(), 1, pad.size(), fp);
  std::fflush(fp);
  ASSERT_EQ(std::ftell(fp), position);
}

// A redisReply that check_reply() rejects at level 1 with "reply nil".
redisReply Nil() {
  redisReply r{};
  r.type = REDIS_REPLY_NIL;
  return r;
}

}  // namespace

TEST(LogDefaults, ErrorIsNeitherPrintedNorWritten) {
  const std::string before = Limited();
  tqtest::StdoutCapture capture;
  // A conversion refused for a missing reply is a level-8 error.
  EXPECT_EQ(
      tqredis_convert_reply_value(nullptr, 0, nullptr, 10, nullptr, nullptr),
      -2);
  EXPECT_EQ(capture.Finish(), "");
  EXPECT_EQ(Limited(), before);
  EXPECT_EQ(Unlimited(), "");
}

TEST(LogDefaults, LifeCycleEventWritesOneLimitedLineAndPrintsNothing) {
  const size_t before = tqtest::Lines(Limited()).size();
  tqtest::StdoutCapture capture;
  tqredis_init(nullptr, 0, nullptr, 0);
  EXPECT_EQ(capture.Finish(), "");
  EXPECT_EQ(tqtest::Lines(Limited()).size(), before + 1);
  EXPECT_EQ(Unlimited(), "");
}

TEST(LogDefaults, DataFaultIsNeitherPrintedNorWritten) {
  redisReply nil = Nil();
  tqtest::StdoutCapture capture;
  EXPECT_EQ(check_reply(&nil), 0);
  EXPECT_EQ(capture.Finish(), "");
  EXPECT_EQ(Unlimited(), "");
}

TEST(Console, LineCarriesProcessFunctionAndLine) {
  g_tqredis_dbg_level = TQREDIS_LOG_DATA;
  redisReply nil = Nil();
  tqtest::StdoutCapture capture;
  check_reply(&nil);
  const std::string out = capture.Finish();
  EXPECT_TRUE(std::regex_match(
      out, std::regex(R"(^\[log_test\]<check_reply, \d+>:reply nil\r\n$)")))
      << out;
}

TEST(Console, MaskSelectsLevelsBitByBit) {
  g_tqredis_dbg_level = TQREDIS_LOG_WARN;  // not 1, not 2
  redisReply nil = Nil();
  tqtest::StdoutCapture capture;
  check_reply(&nil);                     // level 1
  tqredis_init(nullptr, 0, nullptr, 0);  // level 2
  tqredis_dbg_cfg(9, 0);                 // level 4
  const std::string out = capture.Finish();
  EXPECT_TRUE(std::regex_match(
      out,
      std::regex(
          R"(^\[log_test\]<tqredis_dbg_cfg, \d+>:set type\[9\] value=0\r\n$)")))
      << out;
}

TEST(DbgCfg, ConsoleChangeAppliesToItsOwnMessage) {
  tqtest::StdoutCapture capture;
  tqredis_dbg_cfg(0, TQREDIS_LOG_WARN);
  const std::string on = capture.Finish();
  EXPECT_TRUE(std::regex_match(
      on,
      std::regex(
          R"(^\[log_test\]<tqredis_dbg_cfg, \d+>:set type\[0\] value=4\r\n$)")))
      << on;
  EXPECT_EQ(g_tqredis_dbg_level, 4u);
  tqtest::StdoutCapture capture2;
  tqredis_dbg_cfg(0, 0);
  EXPECT_EQ(capture2.Finish(), "");
}

TEST(DbgCfg, FileLevelChangeAppliesToItsOwnMessage) {
  EXPECT_EQ(tqredis_get_log_fp(TQREDIS_LOG_WARN), nullptr);
  EXPECT_EQ(tqredis_dbg_cfg(1, 0xf), 0);
  EXPECT_NE(tqredis_get_log_fp(TQREDIS_LOG_WARN), nullptr);
  const auto lines = tqtest::Lines(Limited());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(std::regex_match(
      lines[1],
      std::regex(
          "^" + kStamp +
          R"(\[log_test\]<tqredis_dbg_cfg, \d+>:set type\[1\] value=15\r\n$)")))
      << lines[1];
}

TEST(DbgCfg, UnknownTypeChangesNothingButIsLogged) {
  tqredis_dbg_cfg(1, TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN);
  g_tqredis_dbg_level = TQREDIS_LOG_WARN;
  tqtest::StdoutCapture capture;
  tqredis_dbg_cfg(7, 1);
  const std::string out = capture.Finish();
  EXPECT_EQ(g_tqredis_dbg_level, static_cast<uint32_t>(TQREDIS_LOG_WARN));
  EXPECT_EQ(tqredis_get_log_fp(TQREDIS_LOG_DATA), nullptr);
  EXPECT_NE(tqredis_get_log_fp(TQREDIS_LOG_WARN), nullptr);
  EXPECT_TRUE(std::regex_match(
      out,
      std::regex(
          R"(^\[log_test\]<tqredis_dbg_cfg, \d+>:set type\[7\] value=1\r\n$)")))
      << out;
  const auto lines = tqtest::Lines(Limited());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[2].find(">:set type[7] value=1\r\n"), std::string::npos);
}

TEST(DbgCfg, ValueIsPrintedAsSigned) {
  g_tqredis_dbg_level = TQREDIS_LOG_WARN;
  tqtest::StdoutCapture capture;
  tqredis_dbg_cfg(5, 0xffffffffu);
  EXPECT_NE(capture.Finish().find(":set type[5] value=-1\r\n"),
            std::string::npos);
}

TEST(LogFp, CombinedBitsAreNeverWritten) {
  tqredis_dbg_cfg(1, 3);
  EXPECT_EQ(tqredis_get_log_fp(3), nullptr);
  EXPECT_NE(tqredis_get_log_fp(1), nullptr);
  EXPECT_NE(tqredis_get_log_fp(2), nullptr);
}

TEST(LogFp, LevelSixteenUsesTheUnlimitedFile) {
  tqredis_dbg_cfg(1, 31);
  FILE *unlimited = tqredis_get_log_fp(1);
  FILE *limited = tqredis_get_log_fp(2);
  ASSERT_NE(unlimited, nullptr);
  ASSERT_NE(limited, nullptr);
  EXPECT_NE(unlimited, limited);
  EXPECT_EQ(tqredis_get_log_fp(4), limited);
  EXPECT_EQ(tqredis_get_log_fp(8), limited);
  EXPECT_EQ(tqredis_get_log_fp(16), unlimited);
  tqredis_dbg_cfg(1, 16);
  EXPECT_EQ(tqredis_get_log_fp(16), unlimited);
  EXPECT_EQ(tqredis_get_log_fp(1), nullptr);
}

TEST(LogFp, NoFileForLevelsOutsideTheMaskOrUnknown) {
  tqredis_dbg_cfg(1, 0xffffffffu);
  EXPECT_EQ(tqredis_get_log_fp(0), nullptr);
  EXPECT_EQ(tqredis_get_log_fp(32), nullptr);
  EXPECT_EQ(tqredis_get_log_fp(0x80000000u), nullptr);
  tqredis_dbg_cfg(1, 0);
  EXPECT_EQ(tqredis_get_log_fp(2), nullptr);
}

TEST(LogFile, EachLevelGoesToItsFile) {
  tqredis_dbg_cfg(1, 31);
  const std::string limited_before = Limited();
  for (unsigned level : {1u, 2u, 4u, 8u, 16u}) {
    tqredis_dbg_logfile(level, "level %u\r\n", level);
  }
  tqredis_dbg_logfile(3, "level 3\r\n");
  const auto unlimited = tqtest::Lines(Unlimited());
  ASSERT_EQ(unlimited.size(), 2u);
  EXPECT_EQ(unlimited[0].substr(25), "level 1\r\n");
  EXPECT_EQ(unlimited[1].substr(25), "level 16\r\n");
  const auto limited = tqtest::Lines(Limited().substr(limited_before.size()));
  ASSERT_EQ(limited.size(), 3u);
  EXPECT_EQ(limited[0].substr(25), "level 2\r\n");
  EXPECT_EQ(limited[1].substr(25), "level 4\r\n");
  EXPECT_EQ(limited[2].substr(25), "level 8\r\n");
}

TEST(LogFile, LineIsStampBlankAndTheTextAsFormatted) {
  const std::string before = Limited();
  EXPECT_EQ(
      tqredis_dbg_logfile(2, "[%s]<%s, %d>:%s\r\n", "p", "f", 12, "hello"), 0);
  const std::string line = Limited().substr(before.size());
  EXPECT_TRUE(std::regex_match(
      line, std::regex("^" + kStamp + R"(\[p\]<f, 12>:hello\r\n$)")))
      << line;
}

TEST(LogFile, LineEndingIsWrittenAsGiven) {
  const std::string before = Limited();
  tqredis_dbg_logfile(2, "bare\n");
  tqredis_dbg_logfile(2, "none");
  const std::string added = Limited().substr(before.size());
  ASSERT_EQ(added.size(), 2u * 25u + 5u + 4u);
  EXPECT_EQ(added.substr(25, 5), "bare\n");
  EXPECT_EQ(added.substr(55), "none");
}

TEST(LogFile, LevelOutsideTheFileMaskReturnsZeroAndWritesNothing) {
  const std::string before = Limited();
  EXPECT_EQ(tqredis_dbg_logfile(8, "error\r\n"), 0);
  EXPECT_EQ(tqredis_dbg_logfile(0, "none\r\n"), 0);
  EXPECT_EQ(Limited(), before);
}

TEST(LogFile, AtPosition32768TheLineIsStillAppended) {
  PadLimitedTo(32768);
  tqredis_dbg_logfile(2, "appended\r\n");
  const std::string log = Limited();
  ASSERT_EQ(log.size(), 32768u + 25u + 10u);
  EXPECT_EQ(log.substr(32768 + 25), "appended\r\n");
}

TEST(LogFile, At32769TheNextLineOverwritesTheStartAndKeepsTheLength) {
  PadLimitedTo(32769);
  const std::string before = Limited();
  tqredis_dbg_logfile(2, "wrapped\r\n");
  const std::string log = Limited();
  ASSERT_EQ(log.size(), 32769u);
  EXPECT_TRUE(std::regex_match(log.substr(0, 34),
                               std::regex("^" + kStamp + "wrapped\r\n$")));
  EXPECT_EQ(log.substr(34), before.substr(34));
  // The following line goes on from there, not from the end.
  tqredis_dbg_logfile(2, "next\r\n");
  EXPECT_EQ(FileSize(tqtest::LogPath("limitlog")), 32769);
  EXPECT_EQ(Limited().substr(34 + 25, 6), "next\r\n");
}

TEST(LogFile, PastTheBoundAfterAppendingTheNextLineWraps) {
  PadLimitedTo(32768);
  tqredis_dbg_logfile(2, "last\r\n");
  tqredis_dbg_logfile(2, "first\r\n");
  const std::string log = Limited();
  EXPECT_EQ(log.size(), 32768u + 25u + 6u);
  EXPECT_EQ(log.substr(25, 7), "first\r\n");
  EXPECT_EQ(log.substr(32768 + 25), "last\r\n");
}

TEST(LogFile, UnlimitedFileIsBoundedAlike) {
  tqredis_dbg_cfg(1, 3);
  FILE *fp = tqredis_get_log_fp(1);
  ASSERT_NE(fp, nullptr);
  const std::string pad(40000, 'u');
  std::fwrite(pad.data(), 1, pad.size(), fp);
  std::fflush(fp);
  tqredis_dbg_logfile(1, "data\r\n");
  const std::string log = Unlimited();
  EXPECT_EQ(log.size(), 40000u);
  EXPECT_EQ(log.substr(25, 6), "data\r\n");
}

TEST(LogFile, LongLinesAreWrittenWhole) {
  const std::string text(10000, 'z');
  const std::string before = Limited();
  tqredis_dbg_logfile(2, "%s\r\n", text.c_str());
  EXPECT_EQ(Limited().size(), before.size() + 25 + text.size() + 2);
}
