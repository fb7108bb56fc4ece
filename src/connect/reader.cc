// hiredis's reply objects with a bound on the size of aggregates.
#include "connect/reader.h"

namespace tqredis::detail {
namespace {

// hiredis's own functions with createArray wrapped, and the wrapped one.
struct BoundedFunctions {
  redisReplyObjectFunctions functions;
  void *(*create_array)(const redisReadTask *, int);
};

// Built once, thread-safely, from the first reader seen (every reader starts
// with hiredis's same default functions), then never changed: readers keep a
// pointer to it for their lifetime. `defaults` is read only on that first call.
BoundedFunctions &Bounded(const redisReplyObjectFunctions *defaults);

void *CreateBoundedArray(const redisReadTask *task, int elements) {
  // NULL is hiredis's out-of-memory answer: the reader fails the reply.
  if (elements > kMaxReplyElements) return nullptr;
  // Installed only by BoundReader(), which built Bounded() first.
  return Bounded(nullptr).create_array(task, elements);
}

BoundedFunctions &Bounded(const redisReplyObjectFunctions *defaults) {
  static BoundedFunctions bounded = [defaults] {
    BoundedFunctions made{*defaults, defaults->createArray};
    made.functions.createArray = CreateBoundedArray;
    return made;
  }();
  return bounded;
}

}  // namespace

void BoundReader(redisReader *reader) {
  if (reader == nullptr || reader->fn == nullptr) return;
  BoundedFunctions &bounded = Bounded(reader->fn);
  reader->fn = &bounded.functions;
}

}  // namespace tqredis::detail
