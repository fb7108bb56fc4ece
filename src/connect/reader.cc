// hiredis's reply objects with a bound on the size of aggregates, and the
// same objects built from a pool of spare blocks.
#include "connect/reader.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

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

// ---- the pool ------------------------------------------------------------
//
// Blocks are kept with the capacity they were allocated with, which is always
// a whole number of classes (32 text bytes, 8 element pointers), so that the
// capacity of a block handed out is known again from the reply alone when it
// comes back: a text of `len` bytes sits in a block of at least
// TextClass(len + 1) bytes, a vector of n elements in one of at least
// VectorClass(n) pointers. Texts and vectors past the largest class kept are
// allocated to their exact size, as hiredis does, and never kept.

constexpr size_t kTextClass = 32;
constexpr size_t kMaxPooledText = 512;
constexpr size_t kVectorClass = 8;
constexpr size_t kMaxPooledVector = 64;

size_t TextClass(size_t bytes) {
  return (bytes + kTextClass - 1) / kTextClass * kTextClass;
}

size_t VectorClass(size_t count) {
  return (count + kVectorClass - 1) / kVectorClass * kVectorClass;
}

ReplyPool *PoolOf(const redisReadTask *task) {
  return static_cast<ReplyPool *>(task->privdata);
}

// A reply object of `type` with every other field empty, from the pool when
// it has one. NULL when the heap has none.
redisReply *TakeObject(ReplyPool *pool, int type) {
  redisReply *r;
  if (pool != nullptr && pool->object_count > 0) {
    r = pool->objects[--pool->object_count];
  } else {
    r = static_cast<redisReply *>(std::malloc(sizeof(redisReply)));
    if (r == nullptr) return nullptr;
  }
  r->type = type;
  r->integer = 0;
  r->len = 0;
  r->str = nullptr;
  r->elements = 0;
  r->element = nullptr;
  return r;
}

// A block of at least `bytes` bytes for a text.
char *TakeText(ReplyPool *pool, size_t bytes) {
  if (bytes > kMaxPooledText) return static_cast<char *>(std::malloc(bytes));
  if (pool != nullptr && pool->text_count > 0) {
    const ReplyPool::Spare &top = pool->texts[pool->text_count - 1];
    if (top.capacity >= bytes) {
      --pool->text_count;
      return static_cast<char *>(top.block);
    }
  }
  return static_cast<char *>(std::malloc(TextClass(bytes)));
}

// A vector of `count` element pointers, all NULL: a reply freed half built
// frees only the elements it already has.
redisReply **TakeVector(ReplyPool *pool, size_t count) {
  const size_t bytes = count * sizeof(redisReply *);
  if (count > kMaxPooledVector) {
    return static_cast<redisReply **>(std::calloc(count, sizeof(redisReply *)));
  }
  void *block = nullptr;
  if (pool != nullptr && pool->vector_count > 0 &&
      pool->vectors[pool->vector_count - 1].capacity >= count) {
    block = pool->vectors[--pool->vector_count].block;
  } else {
    block = std::malloc(VectorClass(count) * sizeof(redisReply *));
    if (block == nullptr) return nullptr;
  }
  std::memset(block, 0, bytes);
  return static_cast<redisReply **>(block);
}

// Hangs `r` under the array being read, as hiredis's functions do.
void *Attach(const redisReadTask *task, redisReply *r) {
  if (task->parent != nullptr) {
    static_cast<redisReply *>(task->parent->obj)->element[task->idx] = r;
  }
  return r;
}

void *CreatePooledString(const redisReadTask *task, char *str, size_t len) {
  ReplyPool *pool = PoolOf(task);
  redisReply *r = TakeObject(pool, task->type);
  if (r == nullptr) return nullptr;
  char *text = TakeText(pool, len + 1);
  if (text == nullptr) {
    freeReplyObject(r);
    return nullptr;
  }
  std::memcpy(text, str, len);
  text[len] = '\0';
  r->str = text;
  r->len = len;
  return Attach(task, r);
}

void *CreatePooledArray(const redisReadTask *task, int elements) {
  if (elements > kMaxReplyElements) return nullptr;
  ReplyPool *pool = PoolOf(task);
  redisReply *r = TakeObject(pool, REDIS_REPLY_ARRAY);
  if (r == nullptr) return nullptr;
  if (elements > 0) {
    r->element = TakeVector(pool, static_cast<size_t>(elements));
    if (r->element == nullptr) {
      freeReplyObject(r);
      return nullptr;
    }
  }
  r->elements = static_cast<size_t>(elements);
  return Attach(task, r);
}

void *CreatePooledInteger(const redisReadTask *task, long long value) {
  redisReply *r = TakeObject(PoolOf(task), REDIS_REPLY_INTEGER);
  if (r == nullptr) return nullptr;
  r->integer = value;
  return Attach(task, r);
}

void *CreatePooledNil(const redisReadTask *task) {
  redisReply *r = TakeObject(PoolOf(task), REDIS_REPLY_NIL);
  if (r == nullptr) return nullptr;
  return Attach(task, r);
}

// The reader frees with this only what it never returned: a reply half read
// when it fails or is freed. Such a reply goes back to the heap.
void FreePooledObject(void *reply) { freeReplyObject(reply); }

redisReplyObjectFunctions g_pooled_functions = {
    CreatePooledString, CreatePooledArray, CreatePooledInteger, CreatePooledNil,
    FreePooledObject};

void KeepOrFree(ReplyPool::Spare *spares, uint32_t *count, uint32_t room,
                void *block, size_t capacity) {
  if (*count < room) {
    spares[(*count)++] = {block, capacity};
  } else {
    std::free(block);
  }
}

}  // namespace

void BoundReader(redisReader *reader) {
  if (reader == nullptr || reader->fn == nullptr) return;
  redisReplyObjectFunctions *bounded = BoundedFunctions(*reader->fn);
  if (reader->fn == bounded) return;
  g_create_array.store(reader->fn->createArray, std::memory_order_relaxed);
  reader->fn = bounded;
}

bool PoolReader(redisReader *reader, ReplyPool *pool) {
  if (reader == nullptr || pool == nullptr) return false;
  if (BuildsFrom(reader, pool)) return true;
  // A reply half read holds objects of the old functions.
  if (reader->ridx != -1 || reader->reply != nullptr) return false;
  reader->fn = &g_pooled_functions;
  reader->privdata = pool;
  return true;
}

bool BuildsFrom(const redisReader *reader, const ReplyPool *pool) {
  return reader != nullptr && reader->fn == &g_pooled_functions &&
         reader->privdata == pool;
}

// Elements are taken back last first, so that the next reply of the same
// shape finds each block where the one before it left it.
void RecycleReply(ReplyPool *pool, redisReply *reply) {
  if (reply == nullptr) return;
  switch (reply->type) {
    case REDIS_REPLY_ARRAY:
      if (reply->element != nullptr) {
        for (size_t i = reply->elements; i > 0; --i)
          RecycleReply(pool, reply->element[i - 1]);
        const size_t capacity = VectorClass(reply->elements);
        if (reply->elements > kMaxPooledVector) {
          std::free(reply->element);
        } else {
          KeepOrFree(pool->vectors, &pool->vector_count, ReplyPool::kVectors,
                     reply->element, capacity);
        }
      }
      break;
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
      if (reply->str == nullptr) break;
      if (reply->len + 1 > kMaxPooledText) {
        std::free(reply->str);
      } else {
        KeepOrFree(pool->texts, &pool->text_count, ReplyPool::kTexts,
                   reply->str, TextClass(reply->len + 1));
      }
      break;
    default:
      break;
  }
  if (pool->object_count < ReplyPool::kObjects) {
    pool->objects[pool->object_count++] = reply;
  } else {
    std::free(reply);
  }
}

}  // namespace tqredis::detail
