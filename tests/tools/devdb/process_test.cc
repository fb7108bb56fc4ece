// start, status and stop in the background; attaching to a running server.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "harness.h"

namespace devdbtest {
namespace {

std::vector<std::string> Entries(const std::string &dir) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
        names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

class DevdbProcess : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/devdb.XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
  }
  void TearDown() override {
    Run({"stop"});
    rmdir(dir_.c_str());
  }
  Output Run(std::vector<std::string> args) const {
    args.insert(args.begin(), DEVDB_PATH);
    args.insert(args.begin() + 2, {"--dir", dir_});
    return RunProgram(args);
  }
  std::string dir_;
};

TEST_F(DevdbProcess, StartServesThenStopLeavesNothingBehind) {
  const Output start = Run({"start"});
  ASSERT_EQ(start.code, 0);
  const std::string pid_text = [&] {
    FILE *f = fopen((dir_ + "/tqredis-devdb.pid").c_str(), "r");
    char buf[32] = {};
    if (f != nullptr) {
      if (fgets(buf, sizeof buf, f) == nullptr) buf[0] = '\0';
      fclose(f);
    }
    return std::string(buf);
  }();
  const long pid = std::atol(pid_text.c_str());
  ASSERT_GT(pid, 0);
  ContextPtr c(redisConnectUnix((dir_ + "/redis_host.sock").c_str()));
  ASSERT_EQ(c->err, 0);
  ReplyPtr r(static_cast<redisReply *>(redisCommand(c.get(), "PING")));
  ASSERT_TRUE(r);
  EXPECT_EQ(std::string(r->str), "PONG");
  c.reset();
  const Output status = Run({"status"});
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(status.out, "tqredis-devdb: running in " + dir_ + ", pid " +
                            std::to_string(pid) + "\n");
  EXPECT_EQ(Run({"stop"}).code, 0);
  EXPECT_EQ(Entries(dir_), std::vector<std::string>{});
  EXPECT_TRUE(ProcessGone(static_cast<pid_t>(pid)));
  const Output after = Run({"status"});
  EXPECT_EQ(after.code, 3);
  EXPECT_EQ(after.out, "tqredis-devdb: not running in " + dir_ + "\n");
}

TEST_F(DevdbProcess, SecondStartInTheSameFolderFails) {
  ASSERT_EQ(Run({"start"}).code, 0);
  EXPECT_EQ(Run({"start"}).code, 1);
  EXPECT_EQ(Run({"status"}).code, 0) << "the first one still serves";
}

TEST_F(DevdbProcess, StopWhenNothingRunsSucceeds) {
  const Output o = Run({"stop"});
  EXPECT_EQ(o.code, 0);
  EXPECT_EQ(o.out, "tqredis-devdb: not running in " + dir_ + "\n");
}

TEST_F(DevdbProcess, CtlWithoutAnEmulatorFails) {
  EXPECT_EQ(Run({"ctl", "ping"}).code, 1);
}

TEST_F(DevdbProcess, MissingServerProgramFailsTheStart) {
  const Output o = Run({"start", "--redis-server", "/nonexistent/redis"});
  EXPECT_EQ(o.code, 1);
  EXPECT_EQ(Entries(dir_), std::vector<std::string>{});
}

// Emulator B forwards its redis_host to the server emulator A started.
class DevdbAttach : public DevdbTest {};

TEST_F(DevdbAttach, AttachedServerIsUsedInsteadOfAStartedOne) {
  const std::string server = dir_ + "/tqredis-devdb.d/redis_host.sock";
  char templ[] = "/tmp/devdb.XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  const std::string other = templ;
  ASSERT_EQ(RunProgram({DEVDB_PATH, "start", "--dir", other, "--attach",
                        "redis_host=" + server})
                .code,
            0);
  ContextPtr via_b(redisConnectUnix((other + "/redis_host.sock").c_str()));
  ReplyPtr r(
      static_cast<redisReply *>(redisCommand(via_b.get(), "SET shared yes")));
  ASSERT_TRUE(r);
  ContextPtr via_a = Connect();
  r = Command(via_a.get(), {"GET", "shared"});
  ASSERT_TRUE(r);
  EXPECT_EQ(std::string(r->str, r->len), "yes");
  via_b.reset();
  EXPECT_EQ(RunProgram({DEVDB_PATH, "stop", "--dir", other}).code, 0);
  EXPECT_EQ(Entries(other), std::vector<std::string>{});
  rmdir(other.c_str());
  // A's server outlives B: B did not start it, so B does not stop it.
  EXPECT_EQ(std::string(Command(via_a.get(), {"GET", "shared"})->str), "yes");
}

}  // namespace
}  // namespace devdbtest
