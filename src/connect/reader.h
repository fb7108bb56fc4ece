// The bound on aggregate replies that every connection's reader enforces.
#ifndef TQREDIS_SRC_CONNECT_READER_H_
#define TQREDIS_SRC_CONNECT_READER_H_

#include <hiredis/hiredis.h>

#include <cstddef>

namespace tqredis::detail {

// The most elements one array reply (or any array nested in it) may announce.
// A header of a dozen bytes would otherwise make the reader allocate a vector
// of that many pointers at once: the bound keeps one announcement to 8 MiB of
// pointers on 64-bit targets, half that on the device, while staying far above
// anything the device's databases hold.
constexpr int kMaxReplyElements = 1 << 20;

// Makes `reader` refuse an array announcing more than kMaxReplyElements
// elements: hiredis then fails the reply as out of memory ("Out of memory",
// REDIS_ERR_OOM) and the connection takes the ordinary failure path. The other
// reply objects stay hiredis's own, so freeReplyObject() frees them as ever.
// NULL, or a reader without functions: nothing happens.
void BoundReader(redisReader *reader);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_READER_H_
