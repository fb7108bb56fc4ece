// The process name, the initialisation flag and the display name tables.
#include "core/state.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "tqredis.h"

using tqredis::detail::kLogError;

// Written once by the constructor, then only read.
char g_tqredis_proc_name[32] = "tqredis";
// Set by tqredis_init(), never cleared; a plain byte read without the lock.
uint8_t g_tqredis_init_ok = 0;

const char *const g_tqredis_dbstr[3] = {"redis_de_global", "redis_ce_global",
                                        "redis_host"};
const char *const g_tqredis_opstr[3] = {"read", "write", "pubsub"};

int tqredis_parse_proc_name(void) {
  char path[128] = {0};
  std::snprintf(path, sizeof(path), "/proc/%d/comm",
                static_cast<int>(getpid()));
  FILE *fp = std::fopen(path, "r");
  if (fp == nullptr) {
    const int err = errno;  // printf may change errno
    TQ_LOG(kLogError, ">>>>open %s fail, err=%s\r\n", path, std::strerror(err));
    return -1;
  }
  // At most 30 characters; the kernel's own limit is 15.
  if (std::fgets(g_tqredis_proc_name, 31, fp) == nullptr) {
    const int err = errno;
    TQ_LOG(kLogError, ">>>>fget %s fail, err=%s\r\n", path, std::strerror(err));
    std::fclose(fp);
    return -1;
  }
  std::fclose(fp);
  // Deliberately drops the last character whatever it is: the kernel ends the
  // name with a newline. fgets gave at least one character.
  g_tqredis_proc_name[std::strlen(g_tqredis_proc_name) - 1] = '\0';
  return 0;
}
