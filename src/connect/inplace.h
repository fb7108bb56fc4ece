// The slots' lost and restored state, kept beside the connecting code that
// changes it. Private to connect/.
#ifndef TQREDIS_SRC_CONNECT_INPLACE_H_
#define TQREDIS_SRC_CONNECT_INPLACE_H_

#include <cstdint>

namespace tqredis::detail {

// Slot [op][db] was dropped in place: marks it lost and calls the host's
// hook (up 0) in this thread. REQUIRES: the global lock, valid ids.
void MarkLost(uint32_t db, uint32_t op);

// Slot [op][db] was just connected: when it was lost, counts a restore,
// logs it and leaves the hook's call (up 1) to DeliverConnEvents().
// Runs in the reconnection thread too. REQUIRES: the global lock is held
// by this thread or by the one that joins it; valid ids.
void NoteConnected(uint32_t db, uint32_t op);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_INPLACE_H_
