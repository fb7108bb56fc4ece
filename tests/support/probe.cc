// Loads the library under whatever name it was started as, runs the actions
// named on its command line and prints what a test needs to see, including
// settings that the library keeps private.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "core/config.h"
#include "tqredis.h"

using tqredis::detail::CommitThreshold;
using tqredis::detail::FileLevel;

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "state") == 0) {
      std::printf("name=[%s]\n", g_tqredis_proc_name);
      std::printf("dbglevel=%u\n", static_cast<unsigned>(g_tqredis_dbg_level));
      std::printf("filelevel=%u\n", static_cast<unsigned>(FileLevel()));
      std::printf("timestat=%u\n", static_cast<unsigned>(tqredis::detail::g_tqredis_timestat.load()));
      std::printf("thres=%u\n", static_cast<unsigned>(CommitThreshold()));
    } else if (std::strcmp(argv[i], "options") == 0) {
      for (const char *name : {"replies", "waitlimit", "exitstatus",
                               "keepcopies", "recordall", "hookwarn", "reconnect", "safe"})
        std::printf("%s=%ld\n", name, tqredis_get_option(name));
    } else if (std::strcmp(argv[i], "cfg") == 0 && i + 2 < argc) {
      tqredis_dbg_cfg(std::atoi(argv[i + 1]),
                      static_cast<uint32_t>(std::strtoul(argv[i + 2], nullptr, 0)));
      i += 2;
    } else if (std::strcmp(argv[i], "init") == 0 && i + 1 < argc) {
      std::printf("init=%d\n",
                  tqredis_init(nullptr, 0, nullptr,
                               static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 0))));
      i += 1;
    } else if (std::strcmp(argv[i], "connect") == 0 && i + 2 < argc) {
      std::printf("connect=%d\n",
                  tqredis_connect(static_cast<uint32_t>(std::atoi(argv[i + 1])),
                                  static_cast<uint32_t>(std::atoi(argv[i + 2]))));
      i += 2;
    } else if (std::strcmp(argv[i], "exit") == 0 && i + 1 < argc) {
      std::fflush(stdout);
      tqredis_exit(static_cast<uint32_t>(std::atoi(argv[i + 1])));
    } else {
      std::printf("unknown action %s\n", argv[i]);
      return 2;
    }
  }
  std::fflush(stdout);
  return 0;
}
