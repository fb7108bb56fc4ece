// The notification pump's private state.
#ifndef TQREDIS_SRC_PUBSUB_PUMP_H_
#define TQREDIS_SRC_PUBSUB_PUMP_H_

#include <cstdint>
#include <string_view>

#include "tqredis.h"

namespace tqredis::detail {

// Idle waits since the statistics were last written; touched only by the
// thread that runs tqredis_pubsub().
extern int32_t g_tqredis_idle_ticks;
// One word for the whole process: 0, the next read fetches from the socket;
// 1, drain what the reader already holds. Same single thread.
extern uint32_t g_tqredis_pubsub_reading;

// Where a hook is called from, for the report of a slow one: the exported
// function and line that call it, which hook it is ("subscription",
// "process" or "replay") and the pattern it came through.
struct HookSite {
  const char *func;
  int line;
  const char *which;
  std::string_view pattern;
};

// hook(pmsg, arg), its result returned. With hookwarn on, a call longer than
// hookwarn milliseconds (monotonic clock) is reported at level 8 with the
// database, the pattern, the key and the time it took. Off, no clock is read.
int CallHookTimed(const HookSite &site, tqredis_pmsg_hook_f hook,
                  tqredis_pmsg *pmsg, void *arg);
// The process-wide hook through CallHookTimed(); 0 when none is registered.
int CallProcessHookTimed(const HookSite &site, tqredis_pmsg *pmsg);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_PUBSUB_PUMP_H_
