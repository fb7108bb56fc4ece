// The process's safety switches: one list of names, their values under
// safe=1 and their ranges; read by every layer, set at load from the
// configuration file and at run time by tqredis_set_option().
#ifndef TQREDIS_SRC_CORE_OPTIONS_H_
#define TQREDIS_SRC_CORE_OPTIONS_H_

#include <atomic>
#include <cstddef>
#include <string_view>

#include "tqredis.h"

// X(name, value under safe=1, lowest, highest). Every switch is 0 (off)
// unless set; off, the library behaves as it always has.
// clang-format off
#define TQREDIS_OPTION_LIST(X)                 \
  X(replies,    1,    0, 1)                    \
  X(waitlimit,  5000, 0, 86400000)             \
  X(exitstatus, 75,   0, 255)                  \
  X(keepcopies, 8,    0, 1000)                 \
  X(recordall,  1,    0, 1)                    \
  X(hookwarn,   100,  0, 86400000)             \
  X(reconnect,  1,    0, 1)                    \
  X(safe,       1,    0, 1)
// clang-format on

namespace tqredis::detail {

enum Option : int {
#define TQREDIS_X(name, safe, low, high) kOpt_##name,
  TQREDIS_OPTION_LIST(TQREDIS_X)
#undef TQREDIS_X
      kOptionCount
};

inline constexpr std::string_view kOptionNames[] = {
#define TQREDIS_X(name, safe, low, high) #name,
    TQREDIS_OPTION_LIST(TQREDIS_X)
#undef TQREDIS_X
};

// The effective value of each switch: what a line or a call set, else its
// safe=1 value when safe is on, else 0. Written under the options' own
// mutex, read by any thread without a lock.
extern std::atomic<long> g_tqredis_options[kOptionCount];

inline long OptionValue(Option option) {
  return g_tqredis_options[option].load(std::memory_order_relaxed);
}

// The id of `name` ("replies", without '='), or kOptionCount.
Option OptionFromName(std::string_view name);

// Sets `option` explicitly, as a configuration line or tqredis_set_option()
// does, and recomputes the effective values. Returns false, changing
// nothing, when `value` is out of the option's range.
bool SetOption(Option option, long value);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_OPTIONS_H_
