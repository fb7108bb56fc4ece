// The process's settings: the masks, the statistics switch, the commit
// threshold, and the configuration file that sets them at load.
#ifndef TQREDIS_SRC_CORE_CONFIG_H_
#define TQREDIS_SRC_CORE_CONFIG_H_

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "tqredis.h"

namespace tqredis::detail {

// Each is written by the constructor, tqredis_dbg_cfg() or a test, and read
// by any thread without the lock: atomics, loaded relaxed (a reader needs the
// value, not an order with other memory).
//
// File mask: a message of level L goes to a log file when it has L.
extern std::atomic<uint32_t> g_tqredis_file_level;
// Non-zero: records carry thread ids and elapsed times.
extern std::atomic<uint32_t> g_tqredis_timestat;
// Appended, unflushed commands at which a connection's buffer is written out.
extern std::atomic<uint32_t> g_tqredis_cmd_commit_thres;

inline uint32_t FileLevel() {
  return g_tqredis_file_level.load(std::memory_order_relaxed);
}
inline bool TimeStat() {
  return g_tqredis_timestat.load(std::memory_order_relaxed) != 0;
}
inline uint32_t CommitThreshold() {
  return g_tqredis_cmd_commit_thres.load(std::memory_order_relaxed);
}

// Reads configuration lines from `fp` into the settings, as done at load
// from "/data/tqredis/<process name>.dbg". Any bytes are accepted.
void ReadConfigStream(FILE *fp);

// Reads "/data/tqredis/<process name>.dbg" when it exists.
void ReadConfig();

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_CONFIG_H_
