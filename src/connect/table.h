// The connection table: one slot per (operation, database), fixed for life.
#ifndef TQREDIS_SRC_CONNECT_TABLE_H_
#define TQREDIS_SRC_CONNECT_TABLE_H_

#include <cstdint>

#include "tqredis.h"

namespace tqredis::detail {

// Indexed [op][db]. Guarded by the global lock. Filled at load by
// tqredis_init_connect_mng(), never resized or freed.
extern tqredis_conn_slot g_tqredis_connect_mng[TQREDIS_OP_NUM][TQREDIS_DB_NUM];

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_TABLE_H_
