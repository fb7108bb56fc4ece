// Display names of database and operation ids, safe for any id.
#ifndef TQREDIS_SRC_CORE_NAMES_H_
#define TQREDIS_SRC_CORE_NAMES_H_

#include <cstdint>

#include "core/state.h"
#include "tqredis.h"

namespace tqredis::detail {

// Exported functions may be handed any id; a bad one must not index past the
// tables when it is only being named in a log line.
inline const char *DbName(uint32_t db) {
  return db < TQREDIS_DB_NUM ? g_tqredis_dbstr[db] : "invalid_db";
}
inline const char *OpName(uint32_t op) {
  return op < TQREDIS_OP_NUM ? g_tqredis_opstr[op] : "invalid_op";
}

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_NAMES_H_
