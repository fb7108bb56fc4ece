// The notification pump's private state.
#ifndef TQREDIS_SRC_PUBSUB_PUMP_H_
#define TQREDIS_SRC_PUBSUB_PUMP_H_

#include <cstdint>

namespace tqredis::detail {

// Idle waits since the statistics were last written; touched only by the
// thread that runs tqredis_pubsub().
extern int32_t g_tqredis_idle_ticks;
// One word for the whole process: 0, the next read fetches from the socket;
// 1, drain what the reader already holds. Same single thread.
extern uint32_t g_tqredis_pubsub_reading;

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_PUBSUB_PUMP_H_
