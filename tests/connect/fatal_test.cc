// The fatal path against the device database emulator: the exit status and
// its level-8 line, the statistics written on the way out, stamped copies of
// the limited log and their pruning, and the copy made without cp, which
// refuses a symbolic link at the log path.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/logged.h"
#include "support/servers.h"
#include "tqredis.h"

using tqtest::ReadFile;
using tqtest::WriteFile;

namespace {

constexpr char kCoredump[] = "/var/tmp/coredump/";
constexpr char kPidFile[] = "/tmp/tqredis/fatal_child.pid";

// The local time as the stamped copies name it.
std::string StampNow() {
  const time_t now = std::time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%d-%H%M%S", &local);
  return text;
}

// The messages of a log file: each line without its time stamp and with
// its prefix reduced to "<func>:".
std::string LogMessages(const std::string &path) {
  static const std::regex stamp(R"(^\d{8}_\d\d:\d\d:\d\d\.\d{6} )");
  std::string out;
  for (const std::string &line : tqtest::Lines(ReadFile(path))) {
    out += std::regex_replace(line, stamp, "");
  }
  return tqtest::Messages(out);
}

bool Exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The names in the coredump folder, sorted.
std::vector<std::string> CoredumpFiles() {
  std::vector<std::string> names;
  const auto listing = tqtest::RunProgram({"/bin/ls", "-1", kCoredump});
  for (std::string line : tqtest::Lines(listing.out)) {
    line.pop_back();
    names.push_back(line);
  }
  return names;
}

class Fatal : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator_.Start());
    tqtest::MakeDirs(kCoredump);
    // Every level into the limited log, which the fatal path copies.
    tqredis_dbg_cfg(1, 15);
  }

  // Initialises the library (no subscriptions: its result is -2) and
  // connects every slot of the master card.
  void Connect() {
    tqredis_init(nullptr, 0, nullptr, 2);
    tqredis_free_reply(tqredis_db_command(1, 0, -1, 0, "PING"));
    ASSERT_EQ(tqredis_db_is_connected(1, TQREDIS_OP_READ), 1);
    ASSERT_EQ(tqredis_db_is_connected(2, TQREDIS_OP_READ), 1);
  }

  // Has the emulator close the connections of `db`; the process notices at
  // its next command there.
  void Close(const char *db) {
    const auto done = emulator_.Ctl({"close", db});
    ASSERT_EQ(done.exit_code, 0) << done.out;
    ASSERT_NE(done.out, "0\n");
  }

  tqtest::DeviceEmulator emulator_;
};

// What a command on the closed database does in the child: note the pid,
// then take the fatal path.
void CommandOnLostConnection() {
  WriteFile(kPidFile, std::to_string(getpid()));
  tqredis_db_command(1, 0, -1, 0, "GET k");
  std::exit(3);  // not reached
}

constexpr char kHookMark[] = "/tmp/tqredis/fatal_conn_hook";

// A connection-event hook that leaves a mark: the child's calls are seen
// from the parent.
void MarkConnHook(uint32_t db, uint32_t op, int up, void *) {
  WriteFile(kHookMark, std::to_string(db) + " " + std::to_string(op) + " " +
                           std::to_string(up) + "\n");
}

}  // namespace

TEST_F(Fatal, CloseWithReconnectOffEndsTheProcessAndCallsNoConnHook) {
  ASSERT_EQ(tqredis_get_option("reconnect"), 0);
  ASSERT_EQ(tqredis_conn_hook_register(MarkConnHook, nullptr), 0);
  Connect();
  const auto done = emulator_.Ctl({"close", "redis_ce_global", "read"});
  ASSERT_EQ(done.exit_code, 0);
  ASSERT_EQ(done.out, "1\n");
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(0), "");
  EXPECT_FALSE(Exists(kHookMark)) << ReadFile(kHookMark);
  const std::string copy = LogMessages("/var/tmp/coredump/fatal_test.limitlog");
  const std::string tail =
      "<tqredis_exit>:>>>>exit for disconnecting from redis_ce_global\r\n";
  ASSERT_GE(copy.size(), tail.size()) << copy;
  EXPECT_EQ(copy.substr(copy.size() - tail.size()), tail) << copy;
  EXPECT_EQ(copy.find("reconnect in place"), std::string::npos) << copy;
}

TEST_F(Fatal, ExitStatusEndsTheProcessWithItAfterALevel8Line) {
  ASSERT_EQ(tqredis_set_option("exitstatus", 75), 0);
  Connect();
  Close("redis_ce_global");
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(75), "");
  const std::string copy = LogMessages("/var/tmp/coredump/fatal_test.limitlog");
  EXPECT_NE(copy.find("<tqredis_disconnect>:>>>>redis_ce_global[read] "
                      "disconnect[error="),
            std::string::npos)
      << copy;
  const std::string tail =
      "<tqredis_exit>:>>>>exit for disconnecting from redis_ce_global\r\n"
      "<tqredis_exit>:redis_ce_global[read] connection lost, exit with status "
      "75\r\n";
  ASSERT_GE(copy.size(), tail.size()) << copy;
  EXPECT_EQ(copy.substr(copy.size() - tail.size()), tail) << copy;
}

TEST_F(Fatal, ExitStatusWritesTheStatisticsToRedisHostOnTheWayOut) {
  ASSERT_EQ(tqredis_set_option("exitstatus", 75), 0);
  Connect();
  tqredis_db_out_log("fatal_key", TQREDIS_KEYCMD_SET, 1, 0);
  tqredis_db_out_log("fatal_key", TQREDIS_KEYCMD_SET, 1, 0);
  Close("redis_ce_global");
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(75), "");
  auto host = tqtest::Direct(2);
  auto total =
      tqtest::Run(host.get(), "HGET /arch/mom/fatal_test/out/stats cmd_total");
  ASSERT_NE(total, nullptr);
  ASSERT_EQ(total->type, REDIS_REPLY_STRING);
  EXPECT_STREQ(total->str, "2");
  auto record = tqtest::Run(host.get(), "GET /arch/mom/fatal_test/out/1");
  ASSERT_NE(record, nullptr);
  ASSERT_EQ(record->type, REDIS_REPLY_STRING);
  EXPECT_NE(std::string(record->str).find("-redis_ce_global-set-fatal_key-"),
            std::string::npos)
      << record->str;
}

TEST_F(Fatal, WithoutExitStatusTheStatusIsZeroAndNoStatisticsAreWritten) {
  Connect();
  tqredis_db_out_log("fatal_key", TQREDIS_KEYCMD_SET, 1, 0);
  Close("redis_ce_global");
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(0), "");
  auto host = tqtest::Direct(2);
  auto exists =
      tqtest::Run(host.get(), "EXISTS /arch/mom/fatal_test/out/stats");
  ASSERT_NE(exists, nullptr);
  EXPECT_EQ(exists->integer, 0);
  const std::string copy = LogMessages("/var/tmp/coredump/fatal_test.limitlog");
  const std::string tail =
      "<tqredis_exit>:>>>>exit for disconnecting from redis_ce_global\r\n";
  ASSERT_GE(copy.size(), tail.size()) << copy;
  EXPECT_EQ(copy.substr(copy.size() - tail.size()), tail) << copy;
  EXPECT_EQ(copy.find("connection lost"), std::string::npos) << copy;
}

TEST_F(Fatal, StatisticsWriteThatLosesRedisHostDoesNotStartTheFatalPathAgain) {
  ASSERT_EQ(tqredis_set_option("exitstatus", 75), 0);
  Connect();
  // Every write is sent at once, so the first statistics write fails.
  tqredis_dbg_cfg(3, 0);
  tqredis_db_out_log("fatal_key", TQREDIS_KEYCMD_SET, 1, 0);
  Close("redis_host");
  Close("redis_ce_global");
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(75), "");
  const std::string copy = LogMessages("/var/tmp/coredump/fatal_test.limitlog");
  // The write to redis_host failed and dropped its connection; the fatal
  // path under way went on.
  EXPECT_NE(copy.find("<tqredis_exec_command>:redis_host[write] commit "
                      "command fail\r\n"
                      "<tqredis_db_try_reconnect>:>>>>redis_host[read flag=2] "
                      "try to reconnect\r\n"
                      "<tqredis_disconnect>:>>>>redis_host[read] "
                      "disconnect[error=1 Broken pipe]\r\n"),
            std::string::npos)
      << copy;
  const std::string exit_line = ">>>>exit for disconnecting from ";
  const auto first = copy.find(exit_line);
  ASSERT_NE(first, std::string::npos) << copy;
  EXPECT_EQ(copy.find(exit_line, first + 1), std::string::npos) << copy;
}

TEST_F(Fatal, KeepCopiesNamesTheCopyAfterPidAndTimeAndRemovesTheOldest) {
  ASSERT_EQ(tqredis_set_option("exitstatus", 75), 0);
  ASSERT_EQ(tqredis_set_option("keepcopies", 3), 0);
  const std::vector<std::string> old = {
      "fatal_test.1.20000101-000000.limitlog",  // the oldest: removed
      "fatal_test.2.20000101-000000.limitlog",  // same time, higher pid
      "fatal_test.9.20010101-000000.limitlog"};
  // Near misses and other processes' copies are never touched.
  const std::vector<std::string> others = {
      "fatal_test.limitlog",
      "fatal_test.1.2000101-000000.limitlog",
      "fatal_test.x.19990101-000000.limitlog",
      "fatal_test.1.19990101-000000.limitlog.bak",
      "fatal_test.1.19990101_000000.limitlog",
      "fatal_test.3.19990101-000000.unlimitlog",
      "fatal.1.19990101-000000.limitlog",
      "fatal_test2.1.19990101-000000.limitlog",
      "xfatal_test.1.19990101-000000.limitlog"};
  for (const auto &name : old) WriteFile(kCoredump + name, "old\n");
  for (const auto &name : others) WriteFile(kCoredump + name, "other\n");
  Connect();
  Close("redis_ce_global");
  const std::string before = StampNow();
  EXPECT_EXIT(CommandOnLostConnection(), ::testing::ExitedWithCode(75), "");
  const std::string after = StampNow();
  const std::string pid = ReadFile(kPidFile);
  ASSERT_FALSE(pid.empty());

  const std::regex stamped("fatal_test\\." + pid +
                           "\\.(\\d{8}-\\d{6})\\.limitlog");
  std::vector<std::string> expected = others;
  expected.push_back(old[1]);
  expected.push_back(old[2]);
  std::string copy_name;
  for (const auto &name : CoredumpFiles()) {
    std::smatch match;
    if (std::regex_match(name, match, stamped)) {
      EXPECT_TRUE(copy_name.empty()) << name;
      copy_name = name;
      EXPECT_LE(before, match[1].str());
      EXPECT_LE(match[1].str(), after);
    }
  }
  ASSERT_FALSE(copy_name.empty());
  expected.push_back(copy_name);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(CoredumpFiles(), expected);
  EXPECT_NE(ReadFile(kCoredump + copy_name)
                .find("connection lost, exit with status 75\r\n"),
            std::string::npos);
  for (const auto &name : others)
    EXPECT_EQ(ReadFile(kCoredump + name), "other\n");
}

TEST_F(Fatal, KeepCopiesOfOneKeepsOnlyTheNewCopy) {
  ASSERT_EQ(tqredis_set_option("keepcopies", 1), 0);
  WriteFile(std::string(kCoredump) + "fatal_test.5.20200101-000000.limitlog",
            "old\n");
  EXPECT_EXIT(
      {
        WriteFile(kPidFile, std::to_string(getpid()));
        tqredis_exit(2);
      },
      ::testing::ExitedWithCode(0), "");
  const auto files = CoredumpFiles();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(std::regex_match(files[0],
                               std::regex("fatal_test\\." + ReadFile(kPidFile) +
                                          "\\.\\d{8}-\\d{6}\\.limitlog")))
      << files[0];
}

TEST_F(Fatal, CopyNeedsNoCpAndMatchesTheLog) {
  EXPECT_EXIT(
      {
        // No program can be found: the copy is made by the library itself.
        setenv("PATH", "", 1);
        tqredis_exit(2);
      },
      ::testing::ExitedWithCode(0), "");
  const std::string log = ReadFile("/tmp/tqredis/fatal_test.limitlog");
  EXPECT_NE(log.find(">>>>exit for disconnecting from redis_host\r\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(ReadFile("/var/tmp/coredump/fatal_test.limitlog"), log);
  struct stat st;
  ASSERT_EQ(stat("/var/tmp/coredump/fatal_test.limitlog", &st), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST_F(Fatal, CopyOverwritesTheFixedNameAndReplacesALinkThere) {
  const std::string victim = "/tmp/tqredis/fatal_victim";
  WriteFile(victim, "precious\n");
  ASSERT_EQ(symlink(victim.c_str(), "/var/tmp/coredump/fatal_test.limitlog"),
            0);
  EXPECT_EXIT(tqredis_exit(0), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(ReadFile(victim), "precious\n");
  struct stat st;
  ASSERT_EQ(lstat("/var/tmp/coredump/fatal_test.limitlog", &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(ReadFile("/var/tmp/coredump/fatal_test.limitlog"),
            ReadFile("/tmp/tqredis/fatal_test.limitlog"));
}

TEST_F(Fatal, MissingCoredumpFolderLeavesNoCopyAndNoLine) {
  // This test's own mount namespace: an empty /var/tmp hides the folder.
  ASSERT_EQ(mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777"), 0);
  EXPECT_EXIT(tqredis_exit(1), ::testing::ExitedWithCode(0), "");
  EXPECT_FALSE(Exists(kCoredump));
  const std::string log = LogMessages("/tmp/tqredis/fatal_test.limitlog");
  const std::string tail =
      "<tqredis_exit>:>>>>exit for disconnecting from redis_ce_global\r\n";
  ASSERT_GE(log.size(), tail.size()) << log;
  EXPECT_EQ(log.substr(log.size() - tail.size()), tail) << log;
}

TEST(FatalLink, SymbolicLinkAtTheLogPathIsRefusedNotCopied) {
  tqtest::MakeDirs(kCoredump);
  const std::string victim = "/tmp/tqredis/fatal_secret";
  WriteFile(victim, "secret\n");
  const std::string link = "/tmp/tqredis/fatal_link.limitlog";
  unlink(link.c_str());
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  // Console mask 8: the refusal is shown; the log itself could not open.
  const auto child =
      tqtest::RunProbe("fatal_link", {"cfg", "0", "8", "exit", "1"});
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_EQ(tqtest::Messages(child.out),
            "<tqredis_exit>:redis_ce_global limitlog "
            "/tmp/tqredis//fatal_link.limitlog is a symbolic link, not "
            "copied\r\n");
  EXPECT_FALSE(Exists("/var/tmp/coredump/fatal_link.limitlog"));
  EXPECT_EQ(ReadFile(victim), "secret\n");
}
