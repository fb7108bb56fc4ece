// Hostile input: servers announcing huge arrays, log paths replaced by
// symbolic links, process names, keys and patterns at and past every bound,
// binary bytes, and configuration files of every awkward shape.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connect/reader.h"
#include "support/fixtures.h"
#include "support/logged.h"
#include "support/peer.h"
#include "support/servers.h"
#include "support/support.h"
#include "tqredis.h"

using tqredis::detail::kMaxReplyElements;
using tqtest::Logged;
using tqtest::ParseReply;
using tqtest::ReadFile;
using tqtest::RunProbe;
using tqtest::WriteFile;

namespace {

std::string ArrayOfOnes(long long n) {
  std::string resp = "*" + std::to_string(n) + "\r\n";
  for (long long i = 0; i < n; ++i) resp += ":1\r\n";
  return resp;
}

// A peer on database 0's socket that answers the connect's PING with PONG
// and the next PING with the reply under test.
class Bound : public ::testing::Test {
 protected:
  void Serve(const std::string &reply) {
    peer_ = std::make_unique<tqtest::ScriptedPeer>(
        tqtest::kSocketPaths[0], std::vector<std::string>{"+PONG\r\n", reply});
  }
  // The next PING on slot [op][0], read through the library's own context
  // with hiredis itself.
  redisReply *PingThrough(uint32_t op) {
    EXPECT_EQ(tqredis_connect(TQREDIS_DB_DE_GLOBAL, op), 0);
    redisContext *ctx = tqredis_get_context(TQREDIS_DB_DE_GLOBAL, op);
    if (ctx == nullptr) return nullptr;
    return static_cast<redisReply *>(redisCommand(ctx, "PING"));
  }
  std::unique_ptr<tqtest::ScriptedPeer> peer_;
};

TEST_F(Bound, ArrayOfExactlyTheBoundIsRead) {
  Serve(ArrayOfOnes(kMaxReplyElements));
  redisReply *reply = PingThrough(TQREDIS_OP_READ);
  ASSERT_NE(reply, nullptr)
      << tqredis_get_context(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ)->errstr;
  EXPECT_EQ(reply->type, REDIS_REPLY_ARRAY);
  EXPECT_EQ(reply->elements, static_cast<size_t>(1 << 20));
  EXPECT_EQ(reply->element[(1 << 20) - 1]->integer, 1);
  freeReplyObject(reply);
}

TEST_F(Bound, ArrayOneElementPastTheBoundFailsAsOutOfMemory) {
  Serve("*1048577\r\n");
  EXPECT_EQ(PingThrough(TQREDIS_OP_READ), nullptr);
  const redisContext *ctx =
      tqredis_get_context(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ);
  EXPECT_EQ(ctx->err, REDIS_ERR_OOM);
  EXPECT_STREQ(ctx->errstr, "Out of memory");
}

TEST_F(Bound, NestedArrayPastTheBoundFailsAsOutOfMemory) {
  Serve("*2\r\n:1\r\n*5000000\r\n");
  EXPECT_EQ(PingThrough(TQREDIS_OP_READ), nullptr);
  EXPECT_EQ(tqredis_get_context(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ)->err,
            REDIS_ERR_OOM);
}

TEST_F(Bound, PubsubConnectionIsBoundedToo) {
  Serve("*544544444\r\n");
  EXPECT_EQ(PingThrough(TQREDIS_OP_PUBSUB), nullptr);
  EXPECT_EQ(tqredis_get_context(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_PUBSUB)->err,
            REDIS_ERR_OOM);
}

TEST_F(Bound, WriteConnectionIsBoundedToo) {
  Serve("*544544444\r\n");
  // The write slot of a card that is not the master, made as the sweep
  // makes it: through the same connect.
  tqredis_conn_slot slot{};
  std::strcpy(slot.unixpath, tqtest::kSocketPaths[0]);
  redisContext *ctx =
      tqredis_connect_redis(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_WRITE, &slot);
  ASSERT_NE(ctx, nullptr);
  auto *pong = static_cast<redisReply *>(redisCommand(ctx, "PING"));
  ASSERT_NE(pong, nullptr);
  freeReplyObject(pong);
  EXPECT_EQ(redisCommand(ctx, "PING"), nullptr);
  EXPECT_EQ(ctx->err, REDIS_ERR_OOM);
  redisFree(ctx);
}

TEST_F(Bound, TwelveByteAnnouncementToTheConnectProbeFailsTheConnect) {
  peer_ = std::make_unique<tqtest::ScriptedPeer>(
      tqtest::kSocketPaths[0], std::vector<std::string>{"*544544444\r\n"});
  int rv = 0;
  EXPECT_EQ(
      Logged(
          TQREDIS_LOG_WARN,
          [&] { rv = tqredis_connect(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ); }),
      "<tqredis_db_wait_ready>:redis_de_global read ping fail\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(tqredis_db_is_connected(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ), 0);
}

// The peer of `Serve`, but in a process of its own: a death test's child
// has no copy of the parent's threads, so a peer thread's memory would look
// lost there. Killed by the destructor.
class PeerProcess {
 public:
  PeerProcess(const char *path, std::vector<std::string> replies) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      tqtest::ScriptedPeer peer(path, std::move(replies));
      if (write(ready[1], "r", 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(ready[1]);
    char byte;
    if (pid_ < 0 || read(ready[0], &byte, 1) != 1) pid_ = -1;
    close(ready[0]);
  }
  ~PeerProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  bool running() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

TEST(BoundFatal, HugeAnnouncementToACommandTakesTheLostConnectionPath) {
  tqtest::DeviceServers servers;
  ASSERT_TRUE(servers.Start(2));  // the master's card information
  tqredis_init(nullptr, 0, nullptr, 2);
  ASSERT_EQ(tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ), 0);
  tqredis_get_cardinfo();
  PeerProcess peer(tqtest::kSocketPaths[0], {"+PONG\r\n", "*544544444\r\n"});
  ASSERT_TRUE(peer.running());
  ASSERT_EQ(tqredis_connect(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ), 0);
  // A failed read is a lost connection: the process ends, as it must when
  // its view of the database may be stale.
  EXPECT_EXIT(
      {
        tqredis_dbg_cfg(1, TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE);
        tqredis_db_command(TQREDIS_DB_DE_GLOBAL, TQREDIS_OP_READ, -1, 0,
                           "PING");
      },
      ::testing::ExitedWithCode(0), "");
  const std::string log = ReadFile("/var/tmp/coredump/hostile_test.limitlog");
  EXPECT_NE(log.find(">:redis_de_global[read] read command fail\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(">:>>>>redis_de_global[read] disconnect[error=5 Out of "
                     "memory]\r\n"),
            std::string::npos)
      << log;
}

// The probe under `name`, with a file mask that writes the level-4 line of
// "cfg", so that it opens and writes its limited log.
tqtest::ChildResult ProbeWritingItsLog(const std::string &name) {
  return RunProbe(name, {"cfg", "1", "15", "cfg", "7", "1"});
}

TEST(LogFile, SymbolicLinkPlantedAtTheLogPathIsNotFollowed) {
  const std::string victim = "/tmp/tqredis/victim";
  WriteFile(victim, "precious\n");
  const std::string link = "/tmp/tqredis/log_link.limitlog";
  unlink(link.c_str());
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  const auto child = ProbeWritingItsLog("log_link");
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_EQ(ReadFile(victim), "precious\n");
  struct stat st;
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST(LogFile, RegularFileAtTheLogPathIsStillTruncatedAndWritten) {
  const std::string path = "/tmp/tqredis/log_plain.limitlog";
  WriteFile(path, std::string(100, 'x'));
  ASSERT_EQ(ProbeWritingItsLog("log_plain").exit_code, 0);
  const std::string log = ReadFile(path);
  EXPECT_EQ(log.find('x'), std::string::npos) << log;
  EXPECT_NE(log.find("set type[7] value=1\r\n"), std::string::npos) << log;
}

// The name the library took, from the probe's "state" output.
std::string NameTaken(const std::string &name) {
  const auto child = RunProbe(name, {"state"});
  EXPECT_EQ(child.exit_code, 0) << child.out;
  const auto from = child.out.find("name=[");
  const auto to = child.out.find("]\n", from);
  if (from == std::string::npos || to == std::string::npos) return "?";
  return child.out.substr(from + 6, to - from - 6);
}

class HostileName : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(servers_.Start(2)); }
  tqtest::DeviceServers servers_;
};

TEST_F(HostileName, ControlBytesAreKeptAndTheServerRefusesThemAsAClientName) {
  const std::string name = "c\x01\x1b[1m\x7f";
  EXPECT_EQ(NameTaken(name), name);
  const auto child = RunProbe(name, {"cfg", "1", "15", "connect", "2", "0"});
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("connect=-1\n"), std::string::npos) << child.out;
  const std::string log = ReadFile("/tmp/tqredis/" + name + ".limitlog");
  EXPECT_NE(log.find(">:redis_host read client setname fail\r\n"),
            std::string::npos)
      << log;
}

TEST_F(HostileName, PercentDirectivesNameTheClientAndTheLogVerbatim) {
  const std::string name = "%n%s%99999d";
  const auto child = RunProbe(name, {"cfg", "1", "15", "connect", "2", "0"});
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("connect=0\n"), std::string::npos) << child.out;
  const std::string log = ReadFile("/tmp/tqredis/" + name + ".limitlog");
  EXPECT_NE(log.find(" [%n%s%99999d]<tqredis_connect, "), std::string::npos)
      << log;
}

TEST_F(HostileName, ShellCharactersAndBlanksAreKeptWhole) {
  EXPECT_EQ(NameTaken("a;b|c&`d` $e"), "a;b|c&`d` $e");
}

TEST_F(HostileName, NameOfExactlyFifteenCharactersIsKeptWhole) {
  EXPECT_EQ(NameTaken("fifteen_chars15"), "fifteen_chars15");
}

TEST_F(HostileName, NameCutInsideAMultibyteCharacterKeepsTheFirstFifteenBytes) {
  const std::string name =
      "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9"
      "\xc3\xa9\xc3\xa9\xc3\xa9";  // 18 bytes
  const std::string taken = NameTaken(name);
  EXPECT_EQ(taken, name.substr(0, 15));
  // The log files are named after the cut name, byte for byte.
  struct stat st;
  EXPECT_EQ(stat(("/tmp/tqredis/" + taken + ".limitlog").c_str(), &st), 0);
}

TEST_F(HostileName, NewlineInTheNameEndsItThere) {
  // The name is one line of /proc/<pid>/comm: what follows the newline is
  // never read.
  EXPECT_EQ(NameTaken("ab\ncd"), "ab");
}

// Notifications delivered to a subscription on pattern "*" of database 2.
struct Delivered {
  std::vector<std::string> keys;
};
Delivered g_delivered;
int Collect(tqredis_pmsg *pmsg, void *) {
  g_delivered.keys.emplace_back(pmsg->key);
  return 0;
}

class HostileKey : public ::testing::Test {
 protected:
  void SetUp() override {
    static bool registered = false;
    if (!registered) {
      pubsub_mng mng{};
      mng.key_db = 2;
      std::strcpy(mng.key_pattern, "*");
      mng.hook = Collect;
      ASSERT_EQ(tqredis_pubsub_register(&mng, 1), 0);
      registered = true;
    }
    g_delivered.keys.clear();
  }
  // Hands a notification for `key` on pattern `pattern` to the library.
  int Deliver(const std::string &key, const std::string &pattern = "*") {
    const std::string pchan = "__keyspace@0__:" + pattern;
    const std::string kchan = "__keyspace@0__:" + key;
    const std::string resp = "*5\r\n$8\r\npmessage\r\n$" +
                             std::to_string(pchan.size()) + "\r\n" + pchan +
                             "\r\n$" + std::to_string(kchan.size()) + "\r\n" +
                             kchan + "\r\n$3\r\nset\r\n$1\r\nv\r\n";
    auto reply = ParseReply(resp);
    EXPECT_NE(reply, nullptr);
    return tqredis_db_deal_pmsg(TQREDIS_DB_HOST, reply.get());
  }
};

TEST_F(HostileKey, KeysUpTo127CharactersArriveWholeLongerOnesCutTo127) {
  for (int n : {126, 127, 128, 4096}) {
    g_delivered.keys.clear();
    const std::string key(static_cast<size_t>(n), 'k');
    ASSERT_EQ(Deliver(key), 0);
    ASSERT_EQ(g_delivered.keys.size(), 1u);
    EXPECT_EQ(g_delivered.keys[0], key.substr(0, 127)) << n;
  }
}

TEST_F(HostileKey, BinaryKeyIsCutAtItsFirstNulByte) {
  ASSERT_EQ(Deliver(std::string("ab\0\xff\x01", 5)), 0);
  ASSERT_EQ(g_delivered.keys.size(), 1u);
  EXPECT_EQ(g_delivered.keys[0], "ab");
}

TEST_F(HostileKey, HighBytesAndControlBytesArriveUnchanged) {
  const std::string key = "\x01\x7f\x80\xfe\xff\r\n%s";
  ASSERT_EQ(Deliver(key), 0);
  ASSERT_EQ(g_delivered.keys.size(), 1u);
  EXPECT_EQ(g_delivered.keys[0], key);
}

TEST_F(HostileKey, NotificationOnAPatternOf4096CharactersIsDroppedQuietly) {
  EXPECT_EQ(Deliver("k", std::string(4096, '*')), 0);
  EXPECT_TRUE(g_delivered.keys.empty());
}

TEST(HostilePattern, PatternsFillingTheFieldAreKeptTo127Characters) {
  for (int n : {126, 127, 128}) {
    pubsub_mng mng{};
    mng.key_db = 1;
    // 128 fills the field with no terminator at all.
    std::memset(mng.key_pattern, 'p', static_cast<size_t>(n < 128 ? n : 128));
    mng.hook = Collect;
    ASSERT_EQ(tqredis_pubsub_register(&mng, 1), 0);
  }
  const std::string shown =
      tqtest::Printed([] { tqredis_pubsub_stats_show(); });
  for (int n : {126, 127}) {
    const std::string line =
        "key_pattern=" + std::string(static_cast<size_t>(n), 'p') + " flag=";
    EXPECT_NE(shown.find(line), std::string::npos) << n;
  }
  // 126, 127, and the cut 128: two of 127 characters.
  const std::string line127 = "key_pattern=" + std::string(127, 'p') + " flag=";
  EXPECT_NE(shown.find(line127, shown.find(line127) + 1), std::string::npos);
}

class HostileCommand : public tqtest::ConnectedDevice {};

TEST_F(HostileCommand, KeysOfEveryLengthAndBinaryValuesRoundTrip) {
  auto direct = tqtest::Direct(2);
  ASSERT_NE(direct, nullptr);
  for (int n : {126, 127, 128, 4096}) {
    const std::string key(static_cast<size_t>(n), 'q');
    const std::string value("\0\r\n\xff%s", 6);
    // The value goes in as binary-safe arguments; the library reads it back.
    const char *argv[] = {"SET", key.c_str(), value.data()};
    const size_t lens[] = {3, key.size(), value.size()};
    auto *set = static_cast<redisReply *>(
        redisCommandArgv(direct.get(), 3, argv, lens));
    ASSERT_NE(set, nullptr);
    freeReplyObject(set);
    redisReply *get = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1,
                                         0, "GET %s", key.c_str());
    ASSERT_NE(get, nullptr);
    EXPECT_EQ(std::string(get->str, get->len), value) << n;
    tqredis_free_reply(get);
  }
}

// Writes "/data/tqredis/<name>.dbg" (or lets `make` put something there),
// runs the probe under `name` and returns its "state" output.
std::string Settings(const std::string &name, const std::string &content) {
  tqtest::MakeDirs("/data/tqredis");
  const std::string path = "/data/tqredis/" + name + ".dbg";
  unlink(path.c_str());
  WriteFile(path, content);
  const auto child = RunProbe(name, {"state"});
  unlink(path.c_str());
  EXPECT_EQ(child.exit_code, 0) << child.out;
  const auto from = child.out.find("dbglevel=");
  const auto to = child.out.find("thres=");
  return from == std::string::npos || to == std::string::npos
             ? child.out
             : child.out.substr(from, to - from);
}

TEST(HostileConfig, CarriageReturnLineEndsAreRead) {
  EXPECT_EQ(
      Settings("cfg_crlf", "dbglevel=5\r\nfilelevel=0x3\r\ntimestat=1\r\n"),
      "dbglevel=5\nfilelevel=3\ntimestat=1\n");
}

TEST(HostileConfig, NulByteEndsTheTextOfItsLine) {
  EXPECT_EQ(Settings("cfg_nul", std::string("dbglevel=7\0timestat=1\n"
                                            "\0filelevel=9\n"
                                            "timestat=\0"
                                            "3\n",
                                            45)),
            "dbglevel=7\nfilelevel=2\ntimestat=0\n");
}

TEST(HostileConfig, LastLineWithoutNewlineAfterCarriageReturnLines) {
  EXPECT_EQ(Settings("cfg_nofinal", "filelevel=12\r\ndbglevel=3"),
            "dbglevel=3\nfilelevel=12\ntimestat=0\n");
}

TEST(HostileConfig, OverflowingNumbersSetEveryBitOnEveryTarget) {
  EXPECT_EQ(Settings("cfg_overflow",
                     "dbglevel=99999999999999999999999999\n"
                     "filelevel=4294967296\n"
                     "timestat=0x100000000\n"),
            "dbglevel=4294967295\nfilelevel=4294967295\ntimestat=4294967295\n");
}

TEST(HostileConfig, NegativeNumbersWrapModulo32Bits) {
  EXPECT_EQ(
      Settings("cfg_negative", "dbglevel=-1\nfilelevel=-5\ntimestat=- 1\n"),
      "dbglevel=4294967295\nfilelevel=4294967291\ntimestat=0\n");
}

TEST(HostileConfig, LargestThirtyTwoBitNumberIsKept) {
  EXPECT_EQ(Settings("cfg_max", "dbglevel=4294967295\nfilelevel=0xffffffff\n"),
            "dbglevel=4294967295\nfilelevel=4294967295\ntimestat=0\n");
}

TEST(HostileConfig, DirectoryWhereTheFileShouldBeKeepsTheDefaults) {
  const std::string path = "/data/tqredis/cfg_dir.dbg";
  tqtest::MakeDirs(path);
  const auto child = RunProbe("cfg_dir", {"state"});
  rmdir(path.c_str());
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("dbglevel=0\nfilelevel=2\ntimestat=0\n"),
            std::string::npos)
      << child.out;
}

TEST(HostileConfig, BinaryGarbageKeepsTheDefaults) {
  std::string garbage;
  for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 131) & 0xff);
  EXPECT_EQ(Settings("cfg_garbage", garbage),
            "dbglevel=0\nfilelevel=2\ntimestat=0\n");
}

}  // namespace
