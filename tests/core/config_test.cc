// The ".dbg" configuration file read at load.
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

struct Settings {
  unsigned dbglevel = 0xdead, filelevel = 0xdead, timestat = 0xdead,
           thres = 0xdead;
};

// Writes "/data/tqredis/<name>.dbg" (unless content is null), runs the probe
// under `name` and reads back the settings the library took.
Settings Load(const std::string &name, const char *content) {
  tqtest::MakeDirs("/data/tqredis");
  const std::string path = "/data/tqredis/" + name + ".dbg";
  unlink(path.c_str());
  if (content != nullptr) tqtest::WriteFile(path, content);
  const auto child = tqtest::RunProbe(name, {"state"});
  unlink(path.c_str());
  EXPECT_EQ(child.exit_code, 0) << child.out;
  Settings s;
  std::istringstream in(child.out);
  std::string line;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    if (key == "name") continue;
    const unsigned v = static_cast<unsigned>(std::stoul(value));
    if (key == "dbglevel") s.dbglevel = v;
    if (key == "filelevel") s.filelevel = v;
    if (key == "timestat") s.timestat = v;
    if (key == "thres") s.thres = v;
  }
  return s;
}

}  // namespace

TEST(Config, MissingFileKeepsTheDefaults) {
  const Settings s = Load("cfg_missing", nullptr);
  EXPECT_EQ(s.dbglevel, 0u);
  EXPECT_EQ(s.filelevel, 2u);
  EXPECT_EQ(s.timestat, 0u);
  EXPECT_EQ(s.thres, 32u);
}

TEST(Config, ThreeKeysSetConsoleFileAndTimeStatistics) {
  const Settings s =
      Load("cfg_example", "dbglevel=0x9\nfilelevel=15\ntimestat=1\n");
  EXPECT_EQ(s.dbglevel, 9u);
  EXPECT_EQ(s.filelevel, 15u);
  EXPECT_EQ(s.timestat, 1u);
}

TEST(Config, HexadecimalFileLevel) {
  EXPECT_EQ(Load("cfg_hex", "filelevel=0x1f\n").filelevel, 31u);
}

TEST(Config, LeadingZeroReadsOctal) {
  EXPECT_EQ(Load("cfg_octal", "dbglevel=010\n").dbglevel, 8u);
}

TEST(Config, LaterLineOverridesEarlierOne) {
  EXPECT_EQ(Load("cfg_override", "timestat=1\n# more\ntimestat=0\n").timestat,
            0u);
}

TEST(Config, BlankBeforeKeyReadsFromTheEqualsSignAndGivesZero) {
  EXPECT_EQ(Load("cfg_blank", " dbglevel=5\n").dbglevel, 0u);
}

TEST(Config, KeyInsideACommentStillSetsFromTheFixedIndex) {
  // The number is read at index 9 of "# dbglevel=5", i.e. from "l=5": 0.
  EXPECT_EQ(Load("cfg_comment", "dbglevel=3\n# dbglevel=5\n").dbglevel, 0u);
}

TEST(Config, ValueThatIsNotANumberGivesZero) {
  const Settings s = Load("cfg_nonnum", "dbglevel=abc\nfilelevel=\n");
  EXPECT_EQ(s.dbglevel, 0u);
  EXPECT_EQ(s.filelevel, 0u);
}

TEST(Config, LastLineWithoutNewlineIsRead) {
  EXPECT_EQ(Load("cfg_nonl", "filelevel=12").filelevel, 12u);
}

TEST(Config, OtherLinesAreIgnored) {
  const Settings s = Load("cfg_other", "hello\n\nlevel=3\ndbglevel5\n");
  EXPECT_EQ(s.dbglevel, 0u);
  EXPECT_EQ(s.filelevel, 2u);
  EXPECT_EQ(s.timestat, 0u);
}

TEST(Config, FirstMatchingKeyOfALineWins) {
  // A line holding two keys is taken as "dbglevel=", tested first.
  const Settings s = Load("cfg_twokeys", "dbglevel=4 filelevel=8\n");
  EXPECT_EQ(s.dbglevel, 4u);
  EXPECT_EQ(s.filelevel, 2u);
}

TEST(Config, OverLongLineIsReadInPiecesWithoutOverrun) {
  // 254 characters are read at a time: the rest of a long line is a new
  // "line", which here starts with a key.
  std::string content(254, 'x');
  content += "dbglevel=6\n";
  content += std::string(5000, 'y') + "\n";
  content += "timestat=1\n";
  const Settings s = Load("cfg_long", content.c_str());
  EXPECT_EQ(s.dbglevel, 6u);
  EXPECT_EQ(s.timestat, 1u);
}

TEST(Config, HugeNumberIsTruncatedToThirtyTwoBits) {
  EXPECT_EQ(Load("cfg_huge", "dbglevel=0x1ffffffff\n").dbglevel, 0xffffffffu);
}

TEST(Config, CommitThresholdIsNotAConfigurationKey) {
  EXPECT_EQ(Load("cfg_thres", "thres=5\ncmd_commit_thres=5\n").thres, 32u);
}

TEST(DbgCfg, EachTypeChangesItsSetting) {
  const auto child =
      tqtest::RunProbe("cfg_runtime", {"cfg", "0", "1", "cfg", "1", "9", "cfg",
                                       "2", "1", "cfg", "3", "7", "state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("dbglevel=1\nfilelevel=9\ntimestat=1\nthres=7\n"),
            std::string::npos)
      << child.out;
}

TEST(DbgCfg, UnknownTypeChangesNothing) {
  const auto child = tqtest::RunProbe(
      "cfg_unknown", {"cfg", "7", "1", "cfg", "-1", "5", "state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("dbglevel=0\nfilelevel=2\ntimestat=0\nthres=32\n"),
            std::string::npos)
      << child.out;
}
