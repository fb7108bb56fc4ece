// TQREDIS_SOCKET_DIR: the folder of the three database sockets, read at
// load. Two emulators side by side, each serving only its own processes.
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/logged.h"
#include "support/support.h"
#include "tqredis.h"

extern char **environ;

namespace {

// What this binary does when a test below starts it again as the other
// process: "paths" prints the connection table and ends; "mark" writes the
// key "mark" through the library, says "ready", and holds its connections
// until its standard input closes.
int RunAsChildWhenAsked() {
  const char *mode = std::getenv("SOCKDIR_CHILD");
  if (mode == nullptr) return 0;
  if (std::strcmp(mode, "paths") == 0) {
    tqredis_basic_stats_show();
  } else if (std::strcmp(mode, "mark") == 0) {
    tqredis_init(nullptr, 0, nullptr, 0);
    redisReply *r =
        tqredis_db_command(2, 0, -1, 0, "SET mark %s", g_tqredis_proc_name);
    std::printf("set=%s\nready\n", r != nullptr ? r->str : "NULL");
    if (r != nullptr) freeReplyObject(r);
    std::fflush(stdout);
    char c;
    for (;;) {
      const ssize_t n = read(0, &c, 1);
      if (n == 0 || (n < 0 && errno != EINTR)) break;
    }
  }
  std::fflush(stdout);
  _exit(0);
}
const int g_child = RunAsChildWhenAsked();

// This binary under another name (its process name, hence its client
// names), in a fresh folder. Under an emulator the link is to the emulator,
// which the kernel then names the process after, and this binary is its
// argument (as CTest starts every test binary of such a build).
class Renamed {
 public:
  explicit Renamed(const std::string &name) {
    char dir[] = "/tmp/sockdirXXXXXX";
    dir_ = mkdtemp(dir) != nullptr ? dir : "";
    path_ = dir_ + "/" + name;
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
      self[n] = '\0';
      exe_ = self;
      const std::string emulator = TQTEST_EMULATOR;
      const std::string &target = emulator.empty() ? exe_ : emulator;
      if (symlink(target.c_str(), path_.c_str()) != 0) path_.clear();
    }
  }
  ~Renamed() {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  const std::string &path() const { return path_; }
  const std::string &exe() const { return exe_; }

 private:
  std::string dir_;
  std::string path_;
  std::string exe_;
};

// A child started with `env` added to ours, its standard input and output
// on pipes.
struct Child {
  pid_t pid = -1;
  int in = -1;   // its standard input
  int out = -1;  // its standard output
};

Child Start(const Renamed &program, const std::vector<std::string> &env) {
  Child child;
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return child;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return child;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  std::vector<std::string> words = {program.path()};
  if (!std::string(TQTEST_EMULATOR).empty()) words.push_back(program.exe());
  std::vector<char *> argv;
  for (std::string &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  std::vector<std::string> all(env);
  for (char **e = environ; *e != nullptr; ++e) all.emplace_back(*e);
  std::vector<char *> envp;
  for (std::string &e : all) envp.push_back(e.data());
  envp.push_back(nullptr);
  if (posix_spawn(&child.pid, argv[0], &actions, nullptr, argv.data(),
                  envp.data()) != 0) {
    child.pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  child.in = in[1];
  child.out = out[0];
  return child;
}

// Reads until `until` has been read, or to the end.
std::string ReadUntil(int fd, const std::string &until) {
  std::string text;
  char buf[4096];
  while (until.empty() || text.find(until) == std::string::npos) {
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  return text;
}

// Ends the child (closing its input) and reaps it: its exit code.
int Finish(Child *child) {
  if (child->in >= 0) close(child->in);
  std::string rest = ReadUntil(child->out, "");
  close(child->out);
  int status = 0;
  if (child->pid < 0) return -1;
  while (waitpid(child->pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The connection table of a child started with TQREDIS_SOCKET_DIR=`dir`
// (and, for a name with a configuration file, its console lines).
std::string ChildTable(const std::string &name, const std::string &dir) {
  Renamed self(name);
  Child child =
      Start(self, {"SOCKDIR_CHILD=paths", "TQREDIS_SOCKET_DIR=" + dir});
  close(child.in);
  child.in = -1;
  const std::string out = ReadUntil(child.out, "");
  EXPECT_EQ(Finish(&child), 0);
  return tqtest::Messages(out);
}

std::vector<std::string> Paths(const std::string &table) {
  std::vector<std::string> paths;
  for (const std::string &line : tqtest::Lines(table)) {
    if (line.rfind("\tunixpath=", 0) == 0) paths.push_back(line);
  }
  return paths;
}

std::vector<std::string> Expected(const std::string &dir) {
  std::vector<std::string> paths;
  for (int op = 0; op < 3; ++op) {
    for (const char *db :
         {"redis_de_global", "redis_ce_global", "redis_host"}) {
      paths.push_back("\tunixpath=" + dir + "/" + db + ".sock\r\n");
    }
  }
  return paths;
}

struct ContextFree {
  void operator()(redisContext *c) const { redisFree(c); }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;

std::string Ask(const std::string &socket, const char *command) {
  ContextPtr c(redisConnectUnix(socket.c_str()));
  if (!c || c->err) return "<no connection>";
  tqtest::ReplyPtr r(static_cast<redisReply *>(redisCommand(c.get(), command)));
  if (!r) return "<no reply>";
  if (r->type == REDIS_REPLY_NIL) return "<nil>";
  return r->str != nullptr ? std::string(r->str, r->len) : "<no text>";
}

// The second emulator, in a folder of its own.
class OtherEmulator {
 public:
  OtherEmulator() {
    char dir[] = "/tmp/sockdirXXXXXX";
    if (mkdtemp(dir) != nullptr) dir_ = dir;
  }
  ~OtherEmulator() {
    if (started_) tqtest::RunProgram({TQDEVDB_PATH, "stop", "--dir", dir_});
    rmdir(dir_.c_str());
  }
  bool Start() {
    started_ =
        tqtest::RunProgram({TQDEVDB_PATH, "start", "--dir", dir_}).exit_code ==
        0;
    return started_;
  }
  const std::string &dir() const { return dir_; }

 private:
  std::string dir_;
  bool started_ = false;
};

}  // namespace

TEST(SocketDir, UnsetMeansTmpRedis) {
  ASSERT_EQ(g_child, 0);
  EXPECT_EQ(Paths(tqtest::Printed([] { tqredis_basic_stats_show(); })),
            Expected("/tmp/redis"));
}

TEST(SocketDir, EmptyMeansTmpRedis) {
  EXPECT_EQ(Paths(ChildTable("sockdir_empty", "")), Expected("/tmp/redis"));
}

TEST(SocketDir, NamesTheFolderWithOneTrailingSlashDropped) {
  EXPECT_EQ(Paths(ChildTable("sockdir_dir", "/run/db")), Expected("/run/db"));
  EXPECT_EQ(Paths(ChildTable("sockdir_dir", "/run/db/")), Expected("/run/db"));
  EXPECT_EQ(Paths(ChildTable("sockdir_dir", "/run/db//")),
            Expected("/run/db/"));
}

TEST(SocketDir, FolderTooLongIsRefusedWithALineAndTmpRedisUsed) {
  // 108 bytes for a socket address, NUL included: "/redis_de_global.sock"
  // is 21 of them, so 86 characters is the longest folder.
  const std::string longest = "/" + std::string(85, 'd');
  EXPECT_EQ(Paths(ChildTable("sockdir_dir", longest)), Expected(longest));
  const std::string config = "/data/tqredis/sockdir_long.dbg";
  tqtest::MakeDirs("/data/tqredis");
  tqtest::WriteFile(config, "dbglevel=8\n");
  const std::string too_long = longest + "d";
  const std::string table = ChildTable("sockdir_long", too_long);
  unlink(config.c_str());
  EXPECT_EQ(Paths(table), Expected("/tmp/redis"));
  EXPECT_EQ(table.substr(0, table.find('\n') + 1),
            "<SocketDir>:TQREDIS_SOCKET_DIR=" + too_long +
                " too long, using /tmp/redis\r\n");
}

TEST(SocketDir, TwoEmulatorsEachServeOnlyTheirOwnProcess) {
  tqtest::DeviceEmulator here;  // /tmp/redis, this process's folder
  ASSERT_TRUE(here.Start());
  OtherEmulator other;
  ASSERT_TRUE(other.Start());
  Renamed self("sockdir_child");
  Child child =
      Start(self, {"SOCKDIR_CHILD=mark", "TQREDIS_SOCKET_DIR=" + other.dir()});
  ASSERT_GT(child.pid, 0);
  EXPECT_EQ(ReadUntil(child.out, "ready\n"), "set=OK\nready\n");

  tqredis_init(nullptr, 0, nullptr, 0);
  redisReply *r =
      tqredis_db_command(2, 0, -1, 0, "SET mark %s", g_tqredis_proc_name);
  ASSERT_NE(r, nullptr);
  freeReplyObject(r);

  const std::string mine = "/tmp/redis/redis_host.sock";
  const std::string theirs = other.dir() + "/redis_host.sock";
  EXPECT_EQ(Ask(mine, "GET mark"), "sockdir_test");
  EXPECT_EQ(Ask(theirs, "GET mark"), "sockdir_child");
  const std::string here_clients = Ask(mine, "CLIENT LIST");
  const std::string there_clients = Ask(theirs, "CLIENT LIST");
  EXPECT_NE(here_clients.find(" name=sockdir_test-read "), std::string::npos)
      << here_clients;
  EXPECT_EQ(here_clients.find("sockdir_child"), std::string::npos)
      << here_clients;
  EXPECT_NE(there_clients.find(" name=sockdir_child-read "), std::string::npos)
      << there_clients;
  EXPECT_EQ(there_clients.find("sockdir_test"), std::string::npos)
      << there_clients;
  EXPECT_EQ(Finish(&child), 0);
}
