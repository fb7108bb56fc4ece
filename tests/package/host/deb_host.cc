// The C++ host process built against the installed Debian packages: the
// same checks as deb_host.c, through the installed C++ header.
#include <dlfcn.h>

#include <cstdio>
#include <string>

#include <tqredis.hpp>

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
  TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ, 0,
                  "SET debhost:greeting %s", "hello from C++");
  const tqredis::Reply reply = TQREDIS_COMMAND(TQREDIS_DB_HOST, TQREDIS_OP_READ,
                                               0, "GET debhost:greeting");
  const auto value = reply.Str();
  if (!value.ok()) {
    std::printf("GET failed\n");
    return 1;
  }
  std::printf("value: %s\n", std::string(value.value()).c_str());
  tqredis_client_status st[3];
  tqredis_get_proc_dbstatus(TQREDIS_DB_HOST, g_tqredis_proc_name, st);
  std::printf("own read connection online: %d\n", st[0].online);
  tqredis_db_save_log();
  tqredis_commit_command_all();
  return 0;
}
