// What the layers above use of replies: the checks, the dump, the getters
// (declared by the public header: tqredis_check_reply, tqredis_print_reply,
// tqredis_free_reply, the tqredis_get_key_* getters) and the helpers below.
#ifndef TQREDIS_SRC_REPLY_REPLY_H_
#define TQREDIS_SRC_REPLY_REPLY_H_

#include <cstddef>

#include "tqredis.h"

namespace tqredis::detail {

// An array's sub-reply; NULL when a hand-built array lacks its vector.
// REQUIRES: i < reply->elements.
inline redisReply *Element(const redisReply *reply, size_t i) {
  return reply->element == nullptr ? nullptr : reply->element[i];
}

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_REPLY_REPLY_H_
