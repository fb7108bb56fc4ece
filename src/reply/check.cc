// Checking, printing, converting and freeing replies.
#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "core/result.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::Element;
using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;
using tqredis::detail::kLogData;
using tqredis::detail::kLogError;

namespace {

// REQUIRES: the caller tested debug level 16; nested replies print with no
// indentation, their "%d) " prefixes following the parent's on one line.
void PrintReply(const redisReply *reply) {
  if (reply == nullptr) {
    std::printf("reply = NULL\r\n");
    return;
  }
  switch (reply->type) {
    case REDIS_REPLY_STRING:
      std::printf("(string) %s\r\n", reply->str);
      break;
    case REDIS_REPLY_ARRAY:
      if (reply->elements == 0) {
        std::printf("(empty list or set)\n");
        break;
      }
      for (size_t i = 0; i < reply->elements; ++i) {
        std::printf("%d) ", static_cast<int>(i));
        PrintReply(Element(reply, i));
      }
      break;
    case REDIS_REPLY_INTEGER:
      std::printf("(integer) %lld\n", reply->integer);
      break;
    case REDIS_REPLY_NIL:
      std::printf("(nil)\n");
      break;
    case REDIS_REPLY_STATUS:
      std::printf("(status) %s\r\n", reply->str);
      break;
    case REDIS_REPLY_ERROR:
      std::printf("(error) %s\r\n", reply->str);
      break;
    default:
      std::printf("Unknown reply type: %d\n", reply->type);
      break;
  }
}

}  // namespace

int check_reply(redisReply *reply) {
  if (reply == nullptr) {  // a hand-built array may hold one
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return 0;
  }
  switch (reply->type) {
    case REDIS_REPLY_STRING:
      return reply->str != nullptr ? 1 : 0;
    case REDIS_REPLY_ARRAY:
      if (reply->elements == 0) {
        // Usable on purpose; logged because callers rarely expect it.
        TQ_LOG(kLogData, "elements zero\r\n");
        return 1;
      }
      for (size_t i = 0; i < reply->elements; ++i) {
        if (check_reply(Element(reply, i)) == 0) {
          TQ_LOG(kLogData, "array reply element[%d] error\r\n",
                 static_cast<int>(i));
          return 0;
        }
      }
      return 1;
    case REDIS_REPLY_INTEGER:
    case REDIS_REPLY_STATUS:
      return 1;
    case REDIS_REPLY_NIL:
      TQ_LOG(kLogData, "reply nil\r\n");
      return 0;
    case REDIS_REPLY_ERROR:
      TQ_LOG(kLogData, "command error: %s\r\n", reply->str);
      return 0;
    default:
      TQ_LOG(kLogData, "unknown reply type: %d\r\n", reply->type);
      return 0;
  }
}

int tqredis_check_reply(redisReply *reply) {
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return 0;
  }
  const int usable = check_reply(reply);
  if (usable == 0) tqredis_print_reply(reply);
  return usable;
}

void tqredis_free_reply(redisReply *reply) {
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return;
  }
  freeReplyObject(reply);
}

void tqredis_print_reply(redisReply *reply) {
  if ((g_tqredis_dbg_level & tqredis::detail::kLogReplyDump) == 0) return;
  PrintReply(reply);
}

int tqredis_convert_reply_value(redisReply *reply, int valtype, int *intval,
                                int base, char **strval, int *len) {
  if (valtype != TQREDIS_VALTYPE_INT && valtype != TQREDIS_VALTYPE_STR)
    return kFail;  // outputs untouched
  // Hardening at the C boundary: a missing reply, output or text is refused
  // instead of dereferenced.
  const bool missing =
      reply == nullptr ||
      (valtype == TQREDIS_VALTYPE_INT
           ? intval == nullptr ||
                 (reply->type != REDIS_REPLY_INTEGER && reply->str == nullptr)
           : strval == nullptr || len == nullptr);
  if (missing) {
    TQ_LOG(kLogError, "input arguments invalid, valtype=%d\r\n", valtype);
    return kBadArgs;
  }
  if (valtype == TQREDIS_VALTYPE_STR) {
    *strval = reply->str;  // points into the reply: lives as long as it
    *len = static_cast<int>(reply->len);
    return 0;
  }
  if (reply->type == REDIS_REPLY_INTEGER) {
    // The low 32 bits, a plain truncation with no range check.
    *intval = static_cast<int>(static_cast<uint32_t>(reply->integer));
  } else {
    // No check that the text is a number: a non-numeric string gives 0.
    *intval = static_cast<int>(std::strtol(reply->str, nullptr, base));
  }
  return 0;
}
