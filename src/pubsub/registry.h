// The subscription registry's private state, shared by the registry, the
// subscribing pass and the notification pump.
#ifndef TQREDIS_SRC_PUBSUB_REGISTRY_H_
#define TQREDIS_SRC_PUBSUB_REGISTRY_H_

#include <cstdint>

#include "tqredis.h"

// One registered data check (heap, never freed).
struct tqredis_data_check_node {
  tqredis_data_check_node *next;  // circular list headed by the global head
  tqredis_data_check_node *prev;
  tqredis_data_check_f data_check_f;
};

namespace tqredis::detail {

// All zero at load and made empty (pointing to themselves) by
// tqredis_pubsub_list_init(); nodes are appended under the global lock and
// never removed. Readers hold the global lock.
extern tqredis_pubsub_node g_tqredis_pubsub_list[TQREDIS_DB_NUM];
extern tqredis_data_check_node g_tqredis_data_check_list;
extern uint8_t g_tqredis_pubsub_list_inited;
// Per database without subscriptions: 1 once its data check ran, until the
// pubsub connection is gone. Guarded by the global lock.
extern uint8_t g_tqredis_datacheck[TQREDIS_DB_NUM];

// The process-wide hook and its argument, always replaced and read as one
// pair (registration may run on any thread, without the global lock).
struct PmsgHook {
  tqredis_pmsg_hook_f hook;  // NULL: none
  void *arg;
};
void SetPmsgHook(PmsgHook hook);
PmsgHook GetPmsgHook();

// Reconnecting in place: connects again every pubsub connection that was
// lost (one try a second per database), subscribes its patterns again and
// runs its data checks once. Nothing, without taking the lock, when none
// was lost. Called by the pump.
void RestorePubsub();

// True when the list of `db` has no node. REQUIRES: the lists were made.
inline bool PubsubListEmpty(uint32_t db) {
  return g_tqredis_pubsub_list[db].next == &g_tqredis_pubsub_list[db];
}

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_PUBSUB_REGISTRY_H_
