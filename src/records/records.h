// The operation rings and snapshot pairs: process-wide static storage.
#ifndef TQREDIS_SRC_RECORDS_RECORDS_H_
#define TQREDIS_SRC_RECORDS_RECORDS_H_

#include <cstdint>

#include "tqredis.h"

// Zero at load, never reset. Every reader and writer holds the global lock.
extern "C" tqredis_op_log g_tqredis_in_log;     // notifications, replayed keys
extern "C" tqredis_op_log g_tqredis_out_log;    // writes
extern "C" tqredis_op_snap g_tqredis_snap;      // filled as operations happen
extern "C" tqredis_op_snap g_tqredis_ham_snap;  // as last handed out

namespace tqredis::detail {

// The calling thread's kernel id (gettid), not the process id or the
// threading library's handle.
int32_t KernelTid();

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_RECORDS_RECORDS_H_
