// The subscription registry's entry from tqredis_init().
#include <cstddef>

#include "tqredis.h"

// The host's table is read only during this call and never kept; no
// subscriptions are made from it yet, so every table is accepted.
int tqredis_init_pubsub(pubsub_mng *mng, int mng_size,
                        tqredis_data_check_f data_check_f) {
  (void)mng;
  (void)mng_size;
  (void)data_check_f;
  return 0;
}

// Records the host builds or reads: the layout is ABI. Numbers are given per
// named target; a pointer follows the 132 bytes of id and text.
static_assert(offsetof(pubsub_mng, key_pattern) == 4);
static_assert(offsetof(tqredis_pmsg, key) == 4);
static_assert(offsetof(tqredis_pmsg, cmd) == 132);
static_assert(offsetof(tqredis_pmsg, value) == 136);
#if defined(__i386__) || defined(__mips__) || defined(__arm__)
static_assert(offsetof(pubsub_mng, hook) == 132);
static_assert(offsetof(pubsub_mng, hook_arg) == 136);
static_assert(sizeof(pubsub_mng) == 140);
static_assert(offsetof(tqredis_pmsg, reserved) == 140);
static_assert(sizeof(tqredis_pmsg) == 144);
#elif defined(__x86_64__) || defined(__aarch64__)
static_assert(offsetof(pubsub_mng, hook) == 136);
static_assert(offsetof(pubsub_mng, hook_arg) == 144);
static_assert(sizeof(pubsub_mng) == 152);
static_assert(offsetof(tqredis_pmsg, reserved) == 144);
static_assert(sizeof(tqredis_pmsg) == 152);
#endif
