// The monotonic clock every deadline and every measured duration reads: a
// device sets its time of day when it learns it, which must move neither.
#ifndef TQREDIS_SRC_CORE_CLOCK_H_
#define TQREDIS_SRC_CORE_CLOCK_H_

#include <time.h>

#include <cstdint>

namespace tqredis::detail {

inline int64_t MonotonicNsec() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The deadline `ms` milliseconds from now, kept in nanoseconds: a wait that
// ends once DeadlinePassed() lasts at least `ms`, which a deadline rounded
// to whole milliseconds would cut by up to one.
inline int64_t DeadlineAfterMs(long ms) {
  return MonotonicNsec() + static_cast<int64_t>(ms) * 1000000;
}

inline bool DeadlinePassed(int64_t deadline) {
  return MonotonicNsec() >= deadline;
}

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_CLOCK_H_
