// The safety switches: their names, ranges, safe=1 and the configuration
// lines that set them at load.
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/logged.h"
#include "support/support.h"
#include "tqredis.h"

namespace {

using Options = std::map<std::string, long>;

// Writes "/data/tqredis/<name>.dbg", runs the probe under `name` and reads
// back every switch, with what the process logged into its limited log.
Options Load(const std::string &name, const char *content,
             std::string *limitlog = nullptr) {
  tqtest::MakeDirs("/data/tqredis");
  const std::string path = "/data/tqredis/" + name + ".dbg";
  tqtest::WriteFile(path, content);
  const auto child = tqtest::RunProbe(name, {"options"});
  unlink(path.c_str());
  EXPECT_EQ(child.exit_code, 0) << child.out;
  if (limitlog != nullptr)
    *limitlog = tqtest::ReadFile("/tmp/tqredis/" + name + ".limitlog");
  Options options;
  std::istringstream in(child.out);
  std::string line;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    if (eq != std::string::npos)
      options[line.substr(0, eq)] = std::stol(line.substr(eq + 1));
  }
  return options;
}

const Options kAllOff = {{"replies", 0},   {"waitlimit", 0}, {"exitstatus", 0},
                         {"keepcopies", 0}, {"recordall", 0}, {"hookwarn", 0},
                         {"reconnect", 0},  {"safe", 0}};
const Options kSafe = {{"replies", 1},   {"waitlimit", 5000}, {"exitstatus", 75},
                       {"keepcopies", 8}, {"recordall", 1},    {"hookwarn", 100},
                       {"reconnect", 1},  {"safe", 1}};

}  // namespace

TEST(Options, EverySwitchIsOffByDefault) {
  for (const auto &[name, value] : kAllOff)
    EXPECT_EQ(tqredis_get_option(name.c_str()), value) << name;
}

TEST(Options, SetOptionChangesOneSwitchAndLogsIt) {
  const std::string log = tqtest::Logged(TQREDIS_LOG_WARN, [] {
    EXPECT_EQ(tqredis_set_option("waitlimit", 250), 0);
  });
  EXPECT_EQ(log, "<tqredis_set_option>:option[waitlimit] value=250\r\n");
  EXPECT_EQ(tqredis_get_option("waitlimit"), 250);
  EXPECT_EQ(tqredis_get_option("replies"), 0);
}

TEST(Options, UnknownNameIsRefusedAtLevelEight) {
  const std::string log = tqtest::Logged(TQREDIS_LOG_ERROR, [] {
    EXPECT_EQ(tqredis_set_option("waitlimit=", 1), -1);
    EXPECT_EQ(tqredis_set_option("reply", 1), -1);
    EXPECT_EQ(tqredis_set_option(nullptr, 1), -1);
    EXPECT_EQ(tqredis_get_option("nosuch"), -1);
    EXPECT_EQ(tqredis_get_option(nullptr), -1);
  });
  EXPECT_EQ(log,
            "<tqredis_set_option>:unknown option[waitlimit=]\r\n"
            "<tqredis_set_option>:unknown option[reply]\r\n"
            "<tqredis_set_option>:unknown option[(null)]\r\n"
            "<tqredis_get_option>:unknown option[nosuch]\r\n"
            "<tqredis_get_option>:unknown option[(null)]\r\n");
}

TEST(Options, ValuesOutOfRangeChangeNothing) {
  const std::string log = tqtest::Logged(TQREDIS_LOG_ERROR, [] {
    EXPECT_EQ(tqredis_set_option("replies", 2), -1);
    EXPECT_EQ(tqredis_set_option("waitlimit", -1), -1);
    EXPECT_EQ(tqredis_set_option("exitstatus", 256), -1);
    EXPECT_EQ(tqredis_set_option("hookwarn", 86400001), -1);
    EXPECT_EQ(tqredis_set_option("keepcopies", -5), -1);
  });
  EXPECT_EQ(log,
            "<tqredis_set_option>:option[replies] value=2 out of range\r\n"
            "<tqredis_set_option>:option[waitlimit] value=-1 out of range\r\n"
            "<tqredis_set_option>:option[exitstatus] value=256 out of range\r\n"
            "<tqredis_set_option>:option[hookwarn] value=86400001 out of range\r\n"
            "<tqredis_set_option>:option[keepcopies] value=-5 out of range\r\n");
  for (const auto &[name, value] : kAllOff)
    EXPECT_EQ(tqredis_get_option(name.c_str()), value) << name;
}

TEST(Options, SafeTurnsEverySwitchOnWithItsSafeValue) {
  ASSERT_EQ(tqredis_set_option("safe", 1), 0);
  for (const auto &[name, value] : kSafe)
    EXPECT_EQ(tqredis_get_option(name.c_str()), value) << name;
  ASSERT_EQ(tqredis_set_option("safe", 0), 0);
  for (const auto &[name, value] : kAllOff)
    EXPECT_EQ(tqredis_get_option(name.c_str()), value) << name;
}

TEST(Options, ASwitchSetItselfKeepsItsValueUnderSafe) {
  ASSERT_EQ(tqredis_set_option("waitlimit", 0), 0);
  ASSERT_EQ(tqredis_set_option("safe", 1), 0);
  EXPECT_EQ(tqredis_get_option("waitlimit"), 0);
  EXPECT_EQ(tqredis_get_option("replies"), 1);
}

TEST(OptionsConfig, SafeLineTurnsAllOn) {
  EXPECT_EQ(Load("opt_safe", "safe=1\n"), kSafe);
}

TEST(OptionsConfig, LinesSetSwitchesAndWinOverSafeWhateverTheirOrder) {
  Options expected = kSafe;
  expected["waitlimit"] = 0;
  expected["exitstatus"] = 3;
  EXPECT_EQ(Load("opt_order", "waitlimit=0\nsafe=1\nexitstatus=0x3\n"),
            expected);
}

TEST(OptionsConfig, LaterLinesWin) {
  Options expected = kAllOff;
  expected["hookwarn"] = 300;
  EXPECT_EQ(Load("opt_later", "hookwarn=100\nhookwarn=300\n"), expected);
}

TEST(OptionsConfig, GarbageNegativeAndHugeValuesAreRefusedAndLogged) {
  std::string log;
  // The file mask first, so the refusals reach the limited log.
  const Options got = Load("opt_bad",
                           "filelevel=8\nreplies=yes\nwaitlimit=-5\nexitstatus=99999999999"
                           "999999999999\nhookwarn=\nkeepcopies=3\n",
                           &log);
  Options expected = kAllOff;
  expected["keepcopies"] = 3;
  EXPECT_EQ(got, expected);
  for (const char *key :
       {"replies=", "waitlimit=", "exitstatus=", "hookwarn="}) {
    EXPECT_NE(log.find(std::string("config option[") + key +
                       "] value invalid, ignored\r\n"),
              std::string::npos)
        << key << "\n"
        << log;
  }
}

TEST(OptionsConfig, ExistingKeysStillReadAsBefore) {
  // A line that names an existing key is that key's, never a switch's.
  EXPECT_EQ(Load("opt_mixed", "dbglevel=0\nfilelevel=15\n"), kAllOff);
}
