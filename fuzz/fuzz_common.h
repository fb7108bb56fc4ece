// What the fuzz targets share: quiet stdout, and replies made from bytes by
// the same bounded hiredis reader every connection of the library uses,
// building from the heap or, as the notification pump's, from a pool.
#ifndef TQREDIS_FUZZ_FUZZ_COMMON_H_
#define TQREDIS_FUZZ_FUZZ_COMMON_H_

#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "connect/reader.h"
#include "tqredis.h"

namespace tqfuzz {

// Every console line and reply dump is formatted, then thrown away.
inline void QuietConsole(uint32_t levels) {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  g_tqredis_dbg_level = levels;
}

// Calls `each(reply)` for every complete reply in `data`, freeing it after
// (into `pool` when one is given, whose blocks then serve the next replies and
// the next inputs); stops at the first protocol error, as a connection would.
template <typename F>
void ForEachReply(const uint8_t *data, size_t size, F &&each,
                  tqredis::detail::ReplyPool *pool = nullptr) {
  redisReader *reader = redisReaderCreate();
  if (reader == nullptr) return;
  tqredis::detail::BoundReader(reader);
  if (pool != nullptr) tqredis::detail::PoolReader(reader, pool);
  if (redisReaderFeed(reader, reinterpret_cast<const char *>(data), size) ==
      REDIS_OK) {
    void *reply = nullptr;
    while (redisReaderGetReply(reader, &reply) == REDIS_OK &&
           reply != nullptr) {
      each(static_cast<redisReply *>(reply));
      if (pool != nullptr) {
        tqredis::detail::RecycleReply(pool, static_cast<redisReply *>(reply));
      } else {
        freeReplyObject(reply);
      }
      reply = nullptr;
    }
  }
  redisReaderFree(reader);
}

}  // namespace tqfuzz

#endif  // TQREDIS_FUZZ_FUZZ_COMMON_H_
