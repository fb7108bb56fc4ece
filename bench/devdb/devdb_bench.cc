// Notifications per second through tqredis-devdb against the same stream
// read straight from its redis-server.
//   devdb_bench [NOTIFICATIONS]
// One writer pipelines SETs on the server's own socket, so both runs make
// the same stream; only the subscriber's path differs.
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

constexpr int kBatch = 1000;
constexpr int kKeys = 1000;

// Returns notifications per second seen by a subscriber on `sub_path`.
double Measure(const std::string &sub_path, const std::string &server_path,
               int count) {
  redisContext *sub = redisConnectUnix(sub_path.c_str());
  redisContext *writer = redisConnectUnix(server_path.c_str());
  if (sub == nullptr || sub->err || writer == nullptr || writer->err) {
    std::fprintf(stderr, "devdb_bench: cannot connect\n");
    std::exit(1);
  }
  freeReplyObject(redisCommand(sub, "PSUBSCRIBE __keyspace@0__:*"));
  const auto begin = std::chrono::steady_clock::now();
  std::thread write([writer, count] {
    for (int done = 0; done < count; done += kBatch) {
      for (int i = done; i < done + kBatch && i < count; ++i)
        redisAppendCommand(writer, "SET bench:%d %d", i % kKeys, i);
      for (int i = done; i < done + kBatch && i < count; ++i) {
        void *reply = nullptr;
        if (redisGetReply(writer, &reply) != REDIS_OK) std::exit(1);
        freeReplyObject(reply);
      }
    }
  });
  for (int i = 0; i < count; ++i) {
    void *reply = nullptr;
    if (redisGetReply(sub, &reply) != REDIS_OK) {
      std::fprintf(stderr, "devdb_bench: subscriber lost\n");
      std::exit(1);
    }
    freeReplyObject(reply);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin)
          .count();
  write.join();
  redisFree(sub);
  redisFree(writer);
  return count / seconds;
}

}  // namespace

int main(int argc, char **argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 200000;
  char templ[] = "/tmp/devdb-bench.XXXXXX";
  if (count <= 0 || mkdtemp(templ) == nullptr) return 2;
  const std::string dir = templ;
  int fds[2];
  if (pipe(fds) != 0) return 1;
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(fds[1], 3);
    execl(DEVDB_PATH, DEVDB_PATH, "run", "--dir", dir.c_str(), "--ready-fd",
          "3", static_cast<char *>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  char said[4] = {};
  if (read(fds[0], said, 3) != 3 || std::string(said) != "ok\n") {
    std::fprintf(stderr, "devdb_bench: the emulator did not start\n");
    return 1;
  }
  close(fds[0]);
  const std::string server = dir + "/tqredis-devdb.d/redis_host.sock";
  const std::string front = dir + "/redis_host.sock";
  Measure(front, server, count / 10);  // warm-up
  const double direct = Measure(server, server, count);
  const double through = Measure(front, server, count);
  std::printf("notifications: %d, SET of %d keys, pipelined by %d\n", count,
              kKeys, kBatch);
  std::printf("redis-server directly   %10.0f notifications/s\n", direct);
  std::printf("through tqredis-devdb   %10.0f notifications/s (%.0f%%)\n",
              through, 100.0 * through / direct);
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  rmdir(dir.c_str());
  return 0;
}
