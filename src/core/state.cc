// Load-time set-up, the process name, the host's initialisation and the basic
// statistics dump.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "connect/table.h"
#include "connect/cardinfo.h"
#include "core/lock.h"
#include "core/log.h"
#include "tqredis.h"

using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;

// Written once by the constructor, then only read.
char g_tqredis_proc_name[32] = "tqredis";
// Set by tqredis_init(), never cleared; a plain byte read without the lock.
uint8_t g_tqredis_init_ok = 0;

const char *const g_tqredis_dbstr[3] = {"redis_de_global", "redis_ce_global",
                                        "redis_host"};
const char *const g_tqredis_opstr[3] = {"read", "write", "pubsub"};

int tqredis_parse_proc_name(void) {
  char path[128] = {0};
  std::snprintf(path, sizeof(path), "/proc/%d/comm", static_cast<int>(getpid()));
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

// Order matters: the name first (every log line carries it), then logging
// (the lock reports its failure there), then the lock, then the table.
int tqredis_initial(void) {
  tqredis_parse_proc_name();  // on failure the name stays "tqredis"
  tqredis_dbg_init();
  tqredis_lock_init();
  tqredis_init_connect_mng();
  return TQ_LOG(kLogLife, ">>>>%s enter\r\n", g_tqredis_proc_name);
}

// Connections are deliberately left open at unload: a process leaves through
// exit() or its own end, and closing under running threads would be worse.
void tqredis_final(void) {}

namespace {

// Runs when the library is mapped, before the host can call anything.
__attribute__((constructor)) void RunAtLoad() { tqredis_initial(); }
__attribute__((destructor)) void RunAtUnload() { tqredis_final(); }

}  // namespace

// Called once, before the host's threads use the library: takes no lock.
int tqredis_init(pubsub_mng *mng, int mng_size,
                 tqredis_data_check_f data_check_f, uint32_t flag) {
  // A write to a socket whose server has gone must fail, not kill the host.
  signal(SIGPIPE, SIG_IGN);
  if (flag & 2) g_tqredis_lock_enable = 1;  // never cleared
  const int rv = tqredis_init_pubsub(mng, mng_size, data_check_f);
  g_tqredis_init_ok = 1;  // whatever the registration gave
  TQ_LOG(kLogLife, ">>>>tqredis[flag=%#x] init, rv=%d\r\n", flag, rv);
  return rv;
}

int tqredis_db_exist(uint32_t db) {
  // No range check on purpose: any id names a bit, modulo the word.
  return static_cast<int>((g_tqredis_cardinfo.db_bitmap >> (db % 32)) & 1u);
}

void tqredis_basic_stats_show(void) {
  tqredis::detail::ScopedLock lock;
  std::printf("basic:\r\n");
  std::printf("\tprocname=%s\r\n", g_tqredis_proc_name);
  std::printf("\tinitok=%d\r\n", g_tqredis_init_ok);
  std::printf("connect_mng:\r\n");
  for (int op = 0; op < TQREDIS_OP_NUM; ++op) {
    for (int db = 0; db < TQREDIS_DB_NUM; ++db) {
      const tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
      std::printf("    [%s][%s]\r\n", g_tqredis_opstr[op], g_tqredis_dbstr[db]);
      std::printf("\tcontext=%p\r\n", static_cast<void *>(slot.context));
      std::printf("\tmode=%d\r\n", static_cast<int>(slot.mode));
      std::printf("\tunixpath=%s\r\n", slot.unixpath);
      std::printf("\thostname=%s\r\n", slot.hostname);
      std::printf("\thostport=%d\r\n", static_cast<int>(slot.hostport));
      std::printf("\tappend_cmd_num=%d\r\n", static_cast<int>(slot.append_cmd_num));
      std::printf("\tconnect_num=%d\r\n", static_cast<int>(slot.connect_num));
      std::printf("\tdatacheck_num=%d\r\n", static_cast<int>(slot.datacheck_num));
    }
  }
}
