// The example device processes, run against the emulator as a person would
// run them: what they print is what happened.
#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/support.h"

namespace {

std::vector<std::string> LinesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The hook's columns up to the key, as a change line prints them.
std::string Row(const char *what, const char *db, const char *cmd,
                const char *key) {
  char row[128];
  std::snprintf(row, sizeof(row), "  %-7s %-15s %-8s %-24s", what, db, cmd,
                key);
  return row;
}

bool StartsWith(const std::string &text, const std::string &prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

class Examples : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(emulator_.Start()); }
  tqtest::DeviceEmulator emulator_;
};

}  // namespace

namespace {

// What the C example prints from its init line on, whatever switches it ran
// with: the replayed state, every change its worker makes, its connections
// and its records.
void ExpectTheCTour(const std::vector<std::string> &lines,
                    const tqtest::ChildResult &run) {
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            "tqexample: tqredis_init gave 0; watching example:fan:*, "
            "example:card:* and example:alarm:*");

  // Hook lines: ["  replay"] what, database, command, key, value. Sets come
  // back in the server's order, so lines are compared up to their key.
  std::vector<std::string> replayed, changed;
  for (const std::string &line : lines) {
    if (StartsWith(line, "  replay  ")) replayed.push_back(line.substr(8, 59));
    if (StartsWith(line, "  fan ") || StartsWith(line, "  card ") ||
        StartsWith(line, "  alarm ")) {
      changed.push_back(line.substr(0, 59));
    }
  }
  std::sort(replayed.begin(), replayed.end());
  EXPECT_EQ(replayed,
            (std::vector<std::string>{
                Row("alarm", "redis_de_global", "sadd", "example:alarm:active"),
                Row("card", "redis_ce_global", "set", "example:card:1"),
                Row("fan", "redis_host", "hset", "example:fan:1")}));
  // The expiry of fan 2 races the worker's last steps: compared as a set.
  std::sort(changed.begin(), changed.end());
  EXPECT_EQ(changed,
            (std::vector<std::string>{
                Row("alarm", "redis_de_global", "del", "example:alarm:active"),
                Row("alarm", "redis_de_global", "sadd", "example:alarm:active"),
                Row("card", "redis_ce_global", "del", "example:card:1"),
                Row("card", "redis_ce_global", "del", "example:card:2"),
                Row("card", "redis_ce_global", "expire", "example:card:1"),
                Row("card", "redis_ce_global", "expire", "example:card:2"),
                Row("card", "redis_ce_global", "set", "example:card:2"),
                Row("fan", "redis_host", "expire", "example:fan:2"),
                Row("fan", "redis_host", "expired", "example:fan:2"),
                Row("fan", "redis_host", "hset", "example:fan:1"),
                Row("fan", "redis_host", "hset", "example:fan:2")}));
  EXPECT_NE(run.out.find(Row("fan", "redis_host", "hset", "example:fan:1") +
                         " speed 2400 mode boost\n"),
            std::string::npos);
  EXPECT_NE(run.out.find(Row("fan", "redis_host", "expired", "example:fan:2") +
                         " (gone)\n"),
            std::string::npos);

  // Its own connections: read and pubsub online on every database, no write
  // connection on the master card.
  for (const char *db :
       {"redis_de_global", "redis_ce_global", "redis_host  "}) {
    const std::string name(db);
    int online = 0, offline = 0;
    for (const std::string &line : lines) {
      if (!StartsWith(line, "  " + name)) continue;
      online += line.find(" online ") != std::string::npos;
      offline += line.find("write  not connected") != std::string::npos;
    }
    EXPECT_EQ(online, 2) << db;
    EXPECT_EQ(offline, 1) << db;
  }
  EXPECT_NE(run.out.find("in_log cmd_total=14 cmd_peak="), std::string::npos);
  EXPECT_EQ(lines.back(),
            "library log: /tmp/tqredis/tqexample.limitlog and .unlimitlog");
}

}  // namespace

TEST_F(Examples, CProcessReplaysThenPrintsEveryChangeItsWorkerMakes) {
  const tqtest::ChildResult run = tqtest::RunProgram({TQEXAMPLE_PATH});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  const std::vector<std::string> lines = LinesOf(run.out);
  ASSERT_FALSE(lines.empty());
  ExpectTheCTour(lines, run);
}

TEST_F(Examples, CProcessRunsTheSameTourWithEverySafetySwitchOn) {
  const tqtest::ChildResult run =
      tqtest::RunProgram({TQEXAMPLE_PATH, "--safe"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  std::vector<std::string> lines = LinesOf(run.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            "safe=1: replies read, waits bounded to 5000 ms, fatal exit 75");
  lines.erase(lines.begin());
  ExpectTheCTour(lines, run);
}

TEST_F(Examples, CppProcessReplaysTheSensorThenSeesEachChangeInOrder) {
  const tqtest::ChildResult run = tqtest::RunProgram({TQEXAMPLE_CPP_PATH});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_EQ(run.out,
            "tqexample_cpp: replay, then live changes\n"
            "  replay set     example:sensor:temp  41\n"
            "  change set     example:sensor:temp  42\n"
            "  change set     example:sensor:temp  44\n"
            "  change set     example:sensor:temp  43\n"
            "  change del     example:sensor:temp  (gone)\n"
            "5 notifications; the sensor key exists: 0\n");
}
