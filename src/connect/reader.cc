// hiredis's reply objects with a bound on the size of aggregates.
#include "connect/reader.h"

#include <atomic>

namespace tqredis::detail {
namespace {

using CreateArray = void *(*)(const redisReadTask *, int);

// hiredis's own createArray, taken from the first reader seen (every reader
// starts with the same default functions). Stored before any reader can
// call CreateBoundedArray; every later store writes the same value.
std::atomic<CreateArray> g_create_array{nullptr};

void *CreateBoundedArray(const redisReadTask *task, int elements) {
  // NULL is hiredis's out-of-memory answer: the reader fails the reply.
  if (elements > kMaxReplyElements) return nullptr;
  return g_create_array.load(std::memory_order_relaxed)(task, elements);
}

// hiredis's functions with createArray replaced. Built once, thread-safely,
// then never changed: readers keep a pointer to it for their lifetime.
redisReplyObjectFunctions *BoundedFunctions(
    const redisReplyObjectFunctions &defaults) {
  static redisReplyObjectFunctions bounded = [&defaults] {
    redisReplyObjectFunctions made = defaults;
    made.createArray = CreateBoundedArray;
    return made;
  }();
  return &bounded;
}

}  // namespace

void BoundReader(redisReader *reader) {
  if (reader == nullptr || reader->fn == nullptr) return;
  redisReplyObjectFunctions *bounded = BoundedFunctions(*reader->fn);
  if (reader->fn == bounded) return;
  g_create_array.store(reader->fn->createArray, std::memory_order_relaxed);
  reader->fn = bounded;
}

}  // namespace tqredis::detail
