// What the layers above use of the connections: the state of each slot
// (tqredis_db_is_connected, tqredis_get_context), the card information and
// its wait (tqredis_wait_cardinfo_ready, tqredis_get_write_connext_stats,
// tqredis_db_exist), the reconnection after a failed command
// (tqredis_db_try_reconnect), the drop of a slot and the fatal path
// (tqredis_disconnect, tqredis_exit), and the data check counter
// (tqredis_datacheck_num_inc). All are declared by the public header; the
// table and the card information themselves are in table.h and cardinfo.h.
// Below, the bounds the waitlimit switch puts on every wait of this layer.
#ifndef TQREDIS_SRC_CONNECT_CONNECT_H_
#define TQREDIS_SRC_CONNECT_CONNECT_H_

#include <cstdint>

#include "connect/cardinfo.h"
#include "connect/table.h"
#include "core/options.h"
#include "tqredis.h"

namespace tqredis::detail {

// The waitlimit in force, in milliseconds; 0 when waits never give up.
inline long WaitLimitMs() { return OptionValue(kOpt_waitlimit); }

// Sleeps one second, or only until `deadline` (from DeadlineAfterMs()) when
// that comes first. Takes and releases no lock.
void SleepUntilAtMost(int64_t deadline);

// Gives slot [op][db]'s socket a read and write time-out of `ms` (0: none),
// unless it already has it, and remembers it, so that a time-out met later
// is told from a lost connection (DropTimedOut). REQUIRES: the global lock.
void SetSlotTimeout(uint32_t db, uint32_t op, long ms);

// The socket time-out each slot's context was given, so that a command pays
// one compare, not a system call, when the limit has not changed. A context
// not recorded here has none (hiredis sets none on a blocking socket).
// Guarded by the global lock, like the table.
struct AppliedTimeout {
  const redisContext *context;
  long ms;
};
extern AppliedTimeout g_applied[TQREDIS_OP_NUM][TQREDIS_DB_NUM];

// Gives slot [op][db]'s socket the read and write time-out of the waitlimit
// in force (none when 0), unless it already has it. Read, write and the
// handshake of every slot only: a pubsub context, once connected, never
// has one, because the pump reads it only after select() says so and a
// time-out in the middle of a long notification would look like a loss.
// Inline: every command asks, and the answer is nearly always "it has".
// REQUIRES: the global lock is held, valid ids.
inline void ApplyWaitLimit(uint32_t db, uint32_t op) {
  const long ms = op == TQREDIS_OP_PUBSUB ? 0 : WaitLimitMs();
  const AppliedTimeout &applied = g_applied[op][db];
  const long have =
      applied.context == g_tqredis_connect_mng[op][db].context ? applied.ms : 0;
  if (have != ms) SetSlotTimeout(db, op, ms);
}

// When slot [op][db]'s last read or write on the socket timed out under
// the waitlimit, frees its context without the fatal path (a server that
// stops answering is not a lost connection, and the process goes on),
// logs at level 8 what was waited for, and returns true: the slot is then
// reconnected on its next use. False, changing nothing, otherwise.
// REQUIRES: the global lock is held.
bool DropTimedOut(uint32_t db, uint32_t op, const char *what);

// Whether a command on `db` may go on at once: tqredis_init() ran and the
// card information tells how `db` is written (always for redis_host).
inline bool CardinfoReady(uint32_t db) {
  return g_tqredis_init_ok &&
         (db == TQREDIS_DB_HOST ||
          (g_tqredis_cardinfo.my_node != kUnknownNode &&
           g_tqredis_cardinfo.master_node != kUnknownNode));
}

// The card-information wait of a command on `db`: with no waitlimit, loops
// on tqredis_wait_cardinfo_ready() until it succeeds (true). With one, gives
// up after the limit, or at once with TQREDIS_CMD_NO_RECONNECT in `flag`,
// after a level-8 line (false). REQUIRES: the global lock is held.
bool WaitCardinfo(uint32_t db, uint32_t op, uint32_t flag);

// WaitCardinfo(), without a call when CardinfoReady() says yes already, as
// it does for nearly every command.
inline bool WaitForCardinfo(uint32_t db, uint32_t op, uint32_t flag) {
  return CardinfoReady(db) || WaitCardinfo(db, op, flag);
}

// With the reconnect switch on, a lost live connection is dropped without
// the fatal path and connected again on its next use: the slot is "lost"
// from the drop until a connect restores it. Both changes are told to the
// host's connection-event hook; a loss at once, in the thread that drops
// the slot, a restore later by DeliverConnEvents(), because the connect may
// run in the reconnection thread, which must not call host code while its
// starter holds the lock.
inline bool ReconnectOn() { return OptionValue(kOpt_reconnect) != 0; }

// Frees slot [op][db]'s context without the fatal path, marks the slot lost
// and tells the hook (up 0). Nothing when the slot has no context.
// REQUIRES: the global lock is held.
void DropInPlace(uint32_t db, uint32_t op);

// Whether slot [op][db] was lost and not restored yet. REQUIRES: the lock.
bool SlotLost(uint32_t db, uint32_t op);

// Restores of slot [op][db] since load. REQUIRES: the global lock.
uint32_t SlotRestores(uint32_t db, uint32_t op);

// Calls the hook (up 1) for every restore not yet told, in the order of
// the slots. REQUIRES: the global lock, held by the calling thread itself.
void DeliverConnEvents();

// Bit db is set from the loss of database db's pubsub connection until the
// layer that subscribes has made its subscriptions again on a new one and
// calls PubsubRestored(db). Read without the lock.
uint32_t PubsubLostBits();
void PubsubRestored(uint32_t db);

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
