// The connection table: one slot per (operation, database), fixed for life.
#ifndef TQREDIS_SRC_CONNECT_TABLE_H_
#define TQREDIS_SRC_CONNECT_TABLE_H_

#include <cstdint>

#include "tqredis.h"

struct tqredis_conn_slot {
  redisContext *context;    // owned; NULL when not connected
  uint32_t mode;            // 0 unix socket at unixpath, 1 TCP
  char unixpath[128];       // NUL-terminated
  char hostname[16];        // host text for TCP, NUL-terminated
  int32_t hostport;         // TCP port
  uint32_t append_cmd_num;  // appended, not yet flushed commands
  uint32_t connect_num;     // successful connects since load
  uint32_t datacheck_num;   // data checks asked (pubsub row only)
};

// Indexed [op][db]. Guarded by the global lock. Filled at load by
// tqredis_init_connect_mng(), never resized or freed.
extern "C" tqredis_conn_slot g_tqredis_connect_mng[TQREDIS_OP_NUM][TQREDIS_DB_NUM];

#endif  // TQREDIS_SRC_CONNECT_TABLE_H_
