// The operation rings and snapshot pairs: process-wide static storage. The
// layers above record through the public calls tqredis_db_in_log(),
// tqredis_db_out_log() and their _stat ends, and write the statistics with
// tqredis_db_save_log().
#ifndef TQREDIS_SRC_RECORDS_RECORDS_H_
#define TQREDIS_SRC_RECORDS_RECORDS_H_

#include <cstdint>

#include "tqredis.h"

namespace tqredis::detail {

// Zero at load, never reset. Every reader and writer holds the global lock.
extern tqredis_op_log g_tqredis_in_log;     // notifications, replayed keys
extern tqredis_op_log g_tqredis_out_log;    // writes
extern tqredis_op_snap g_tqredis_snap;      // filled as operations happen
extern tqredis_op_snap g_tqredis_ham_snap;  // as last handed out

// Records in each ring.
inline constexpr uint32_t kRingSize =
    sizeof(tqredis_op_log::records) / sizeof(tqredis_op_log::records[0]);
static_assert(kRingSize == 32);

// Zeroes `*rec`. A zeroing of this size, written plainly, is compiled into a
// string instruction whose start costs more than the stores themselves (two
// of them ran on every notification); copying from a record whose content
// the compiler is not told keeps it a run of vector stores.
inline void ClearRecord(tqredis_op_record *rec) {
  static const tqredis_op_record kEmpty = {};
  const tqredis_op_record *empty = &kEmpty;
  asm("" : "+r"(empty));
  *rec = *empty;
}

// The calling thread's kernel id (gettid), not the process id or the
// threading library's handle.
int32_t KernelTid();

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_RECORDS_RECORDS_H_
