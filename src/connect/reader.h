// The bound on aggregate replies that every connection's reader enforces, and
// the pool of reply objects a reader can build from instead of the heap.
#ifndef TQREDIS_SRC_CONNECT_READER_H_
#define TQREDIS_SRC_CONNECT_READER_H_

#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>

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

// Spare reply objects, text buffers and element vectors of one reader, kept
// for its next replies: a stream of notifications of the same shape is then
// parsed with no allocation at all. Every spare is an ordinary heap block, and
// so is every object made from one, so a reply built from a pool is still
// freed by freeReplyObject() like any other; RecycleReply() merely keeps its
// blocks instead. Zero (static storage) is an empty pool. Not thread-safe:
// used by whoever reads the reader, under the lock that guards it.
struct ReplyPool {
  struct Spare {
    void *block;
    size_t capacity;  // text bytes, or element pointers
  };
  static constexpr uint32_t kObjects = 16;
  static constexpr uint32_t kTexts = 16;
  static constexpr uint32_t kVectors = 4;
  redisReply *objects[kObjects];
  uint32_t object_count;
  Spare texts[kTexts];
  uint32_t text_count;
  Spare vectors[kVectors];
  uint32_t vector_count;
};

// Makes `reader` build its replies from `pool`, with the bound of
// BoundReader(), from its next reply on. Done only while no reply is half
// read, so that every object of a reply it returns comes from the pool's
// functions; returns whether the reader now builds from `pool` (false: not
// now, or NULL). A reader keeps its pool until it is freed.
bool PoolReader(redisReader *reader, ReplyPool *pool);

// True when `reader` builds its replies from `pool`.
bool BuildsFrom(const redisReader *reader, const ReplyPool *pool);

// Takes `reply`, which a reader building from `pool` returned whole, back
// into `pool`: its blocks serve the next replies, those the pool has no room
// for (or that are too large to keep) are freed. NULL: nothing happens.
void RecycleReply(ReplyPool *pool, redisReply *reply);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CONNECT_READER_H_
