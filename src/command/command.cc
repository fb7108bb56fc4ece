// The command path's process-wide settings.
#include <cstdint>

#include "tqredis.h"

// Appended, unflushed commands at which a connection's buffer is written out.
// Read and written without the lock: a single aligned word.
extern "C" uint32_t g_tqredis_cmd_commit_thres;
uint32_t g_tqredis_cmd_commit_thres = 32;

void tqredis_set_cmd_commit_thres(uint32_t thres) {
  g_tqredis_cmd_commit_thres = thres;  // no check: the caller's choice
}
