// What the layers above use of the connections: the state of each slot
// (tqredis_db_is_connected, tqredis_get_context), the card information and
// its wait (tqredis_wait_cardinfo_ready, tqredis_get_write_connext_stats,
// tqredis_db_exist), the reconnection after a failed command
// (tqredis_db_try_reconnect), the drop of a slot and the fatal path
// (tqredis_disconnect, tqredis_exit), and the data check counter
// (tqredis_datacheck_num_inc). All are declared by the public header; the
// table and the card information themselves are in table.h and cardinfo.h.
#ifndef TQREDIS_SRC_CONNECT_CONNECT_H_
#define TQREDIS_SRC_CONNECT_CONNECT_H_

#include "tqredis.h"

namespace tqredis::detail {

// Runs on the fatal path, when exitstatus is on, before the limited log is
// copied and the process exits: the layers above write what would otherwise
// be lost. It runs in the thread that lost the connection, usually holding
// the global lock; a connection it loses in turn is dropped without starting
// the fatal path again. It must bound its own time and must not exit.
using FatalHook = void (*)();
// Set once at load, before any connection exists.
void SetFatalHook(FatalHook hook);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_CONNECT_H_
