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

inline int64_t MonotonicMs() { return MonotonicNsec() / 1000000; }

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_CLOCK_H_
