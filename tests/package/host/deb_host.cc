// The C++ host process built against the installed Debian packages: the
// same checks as deb_host.c, through a reply type that owns what it holds.
#include <dlfcn.h>

#include <cstdio>
#include <memory>
#include <string>

#include <tqredis.h>

namespace {

struct ReplyFree {
  void operator()(redisReply *reply) const { tqredis_free_reply(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

}  // namespace

int main() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void *>(&tqredis_init), &info) == 0 ||
      info.dli_fname == nullptr) {
    std::printf("library: unknown\n");
    return 1;
  }
  std::printf("library: %s\n", info.dli_fname);
  tqredis_init(nullptr, 0, nullptr, 0);  // -2 expected: no data check
  if (tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ) != 0) {
    std::printf("cannot reach redis_host\n");
    return 1;
  }
  // On the read path, so that replies are read and never left pipelined.
  Reply(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                           "SET debhost:greeting %s", "hello from C++"));
  const Reply reply(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                       "GET debhost:greeting"));
  char *text = nullptr;
  int len = 0;
  if (tqredis_get_key_reply_strval(reply.get(), &text, &len) != 0) {
    std::printf("GET failed\n");
    return 1;
  }
  std::printf("value: %s\n",
              std::string(text, static_cast<size_t>(len)).c_str());
  tqredis_client_status st[3];
  tqredis_get_proc_dbstatus(TQREDIS_DB_HOST, g_tqredis_proc_name, st);
  std::printf("own read connection online: %d\n", st[0].online);
  tqredis_db_save_log();
  tqredis_commit_command_all();
  return 0;
}
