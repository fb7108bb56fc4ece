// What the layers above use of the notifications: the process-wide hook
// (tqredis_call_pmsg_hook, which the key walks call for replayed keys) and
// the statistics of the registry (tqredis_pubsub_stats_show), with the
// host's calls tqredis_init_pubsub(), tqredis_db_psubscrible() and
// tqredis_pubsub(). All are declared by the public header.
#ifndef TQREDIS_SRC_PUBSUB_PUBSUB_H_
#define TQREDIS_SRC_PUBSUB_PUBSUB_H_

#include "tqredis.h"

#endif  // TQREDIS_SRC_PUBSUB_PUBSUB_H_
