// Typed getters over replies: one core, thin checked entries.
#include <cstddef>
#include <cstring>

#include "core/log.h"
#include "core/result.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::Element;
using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;
using tqredis::detail::kLogData;
using tqredis::detail::kNoField;
using tqredis::detail::kWrongType;

int tqredis_get_key_reply(redisReply *reply, int valtype, int *intval, int base,
                          char **strval, int *len) {
  // Unchecked entry, but exported: a missing reply is refused, not read.
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return kBadArgs;
  }
  switch (reply->type) {
    case REDIS_REPLY_INTEGER:
      if (valtype == TQREDIS_VALTYPE_INT) {
        return tqredis_convert_reply_value(reply, valtype, intval, base, strval,
                                           len);
      }
      // An integer reply has no text to hand out.
      TQ_LOG(kLogData, "redis int reply, valtype=%d\n", valtype);
      tqredis_print_reply(reply);
      return kWrongType;
    case REDIS_REPLY_STRING:
      // -1 for a valtype that is neither kind; the conversion decides.
      return tqredis_convert_reply_value(reply, valtype, intval, base, strval,
                                         len);
    default:
      TQ_LOG(kLogData, "reply type error, type=%d\n", reply->type);
      tqredis_print_reply(reply);
      return kWrongType;
  }
}

int tqredis_get_key_reply_intval(redisReply *reply, int *intval, int base) {
  // The whole reply is checked first, so an unusable one is reported by the
  // same message as a bad argument.
  if (tqredis_check_reply(reply) == 0 || intval == nullptr || base < 0) {
    TQ_LOG(kLogData, "input arguments invalid, base=%d\n", base);
    return kBadArgs;
  }
  return tqredis_get_key_reply(reply, TQREDIS_VALTYPE_INT, intval, base,
                               nullptr, nullptr);
}

int tqredis_get_key_reply_strval(redisReply *reply, char **strval, int *len) {
  if (tqredis_check_reply(reply) == 0 || strval == nullptr || len == nullptr) {
    TQ_LOG(kLogData, "input arguments invalid\n");
    return kBadArgs;
  }
  return tqredis_get_key_reply(reply, TQREDIS_VALTYPE_STR, nullptr, 0, strval,
                               len);
}

int tqredis_check_array_reply(redisReply *reply, uint32_t index) {
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return 0;
  }
  if (reply->type != REDIS_REPLY_ARRAY) {
    TQ_LOG(kLogData, "not array reply, type=%d\n", reply->type);
    return 0;
  }
  // Compared unsigned: no index wraps round into the array.
  if (index >= reply->elements) {
    TQ_LOG(kLogData, "index invalid, elements=%zu index=%d\n", reply->elements,
           static_cast<int>(index));
    return 0;
  }
  const int usable = tqredis_check_reply(Element(reply, index));
  if (usable == 0) {
    TQ_LOG(kLogData, "element[%d] invalid\n", static_cast<int>(index));
    return 0;
  }
  return usable;
}

namespace {

// Element `index` of an array reply when it is usable; otherwise NULL after
// printing the reply and logging under the calling getter's name and line.
redisReply *UsableElement(redisReply *reply, int index, const char *func,
                          int line) {
  if (tqredis_check_array_reply(reply, static_cast<uint32_t>(index)) == 0) {
    tqredis_print_reply(reply);
    // Ends in "\r\n" where its neighbours end in "\n": on purpose.
    TQ_LOG_FROM(func, line, kLogData, "array reply invalid, index=%d\r\n",
                index);
    return nullptr;
  }
  return Element(reply, static_cast<size_t>(index));
}

}  // namespace

int tqredis_get_key_array_reply_intval(redisReply *reply, int index,
                                       int *intval, int base) {
  // Checking the whole reply first means one bad element anywhere refuses
  // every index, not only its own.
  if (tqredis_check_reply(reply) == 0 || index < 0 || intval == nullptr ||
      base < 0) {
    TQ_LOG(kLogData, "input arguments invalid, index=%d base=%d\n", index,
           base);
    return kBadArgs;
  }
  redisReply *element = UsableElement(reply, index, __func__, __LINE__);
  if (element == nullptr) return kBadArgs;
  return tqredis_get_key_reply(element, TQREDIS_VALTYPE_INT, intval, base,
                               nullptr, nullptr);
}

int tqredis_get_key_array_reply_strval(redisReply *reply, int index,
                                       char **strval, int *len) {
  if (tqredis_check_reply(reply) == 0 || index < 0 || strval == nullptr ||
      len == nullptr) {
    TQ_LOG(kLogData, "input arguments invalid, index=%d\n", index);
    return kBadArgs;
  }
  redisReply *element = UsableElement(reply, index, __func__, __LINE__);
  if (element == nullptr) return kBadArgs;
  return tqredis_get_key_reply(element, TQREDIS_VALTYPE_STR, nullptr, 0, strval,
                               len);
}

redisReply *tqredis_search_field_element(redisReply *reply, const char *field) {
  // Unchecked entry, but exported: missing arguments are refused, not read.
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return nullptr;
  }
  if (field == nullptr) {
    TQ_LOG(kLogData, "field = NULL\r\n");
    return nullptr;
  }
  if (reply->elements < 2 || reply->elements % 2 != 0) return nullptr;
  for (size_t i = 0; i + 1 < reply->elements; i += 2) {
    redisReply *name = Element(reply, i);
    // An unusable field element is skipped (the check prints it); so is a
    // usable one without text, such as an integer or a nested array.
    if (tqredis_check_reply(name) == 0 || name->str == nullptr) continue;
    // First match wins; values are never compared, nor examined here.
    if (std::strcmp(name->str, field) == 0) return Element(reply, i + 1);
  }
  return nullptr;
}

int tqredis_get_key_reply_by_field(redisReply *reply, const char *field,
                                   int valtype, int *intval, int base,
                                   char **strval, int *len) {
  // Unchecked entry, but exported: missing arguments are refused, not read.
  if (reply == nullptr) {
    TQ_LOG(kLogData, "reply = NULL\r\n");
    return kBadArgs;
  }
  if (field == nullptr) {
    TQ_LOG(kLogData, "field = NULL\r\n");
    return kBadArgs;
  }
  if (reply->type != REDIS_REPLY_ARRAY) {
    TQ_LOG(kLogData, "reply type error, type=%d\n", reply->type);
    tqredis_print_reply(reply);
    return kWrongType;
  }
  redisReply *value = tqredis_search_field_element(reply, field);
  if (value == nullptr) {
    TQ_LOG(kLogData, "field[%s] not existed\n", field);
    tqredis_print_reply(reply);
    return kNoField;
  }
  // The value's type is not examined: a string value read as an integer
  // goes through strtol like any other text.
  return tqredis_convert_reply_value(value, valtype, intval, base, strval, len);
}

int tqredis_get_key_reply_intval_by_field(redisReply *reply, const char *field,
                                          int *intval, int base) {
  if (tqredis_check_reply(reply) == 0 || field == nullptr ||
      intval == nullptr || base < 0) {
    TQ_LOG(kLogData, "input arguments invalid, base=%d\n", base);
    return kBadArgs;
  }
  return tqredis_get_key_reply_by_field(reply, field, TQREDIS_VALTYPE_INT,
                                        intval, base, nullptr, nullptr);
}

int tqredis_get_key_reply_strval_by_field(redisReply *reply, const char *field,
                                          char **strval, int *len) {
  if (tqredis_check_reply(reply) == 0 || field == nullptr ||
      strval == nullptr || len == nullptr) {
    // Deliberately without a line end, unlike every other getter message.
    TQ_LOG(kLogData, "input arguments invalid");
    return kBadArgs;
  }
  return tqredis_get_key_reply_by_field(reply, field, TQREDIS_VALTYPE_STR,
                                        nullptr, 0, strval, len);
}

int tqredis_get_sets_size(redisReply *reply) {
  // Deliberate: an empty set gives -1, not 0. A reply the check refused is
  // printed twice at level 16, once by the check and once here.
  if (tqredis_check_reply(reply) != 0 && reply->type == REDIS_REPLY_ARRAY &&
      reply->elements != 0) {
    return static_cast<int>(reply->elements);
  }
  tqredis_print_reply(reply);
  return kFail;
}

// Empty and odd-sized replies are both refused with -1.
int tqredis_get_hashes_size(redisReply *reply) {
  if (tqredis_check_reply(reply) != 0 && reply->type == REDIS_REPLY_ARRAY &&
      reply->elements != 0 && reply->elements % 2 == 0) {
    return static_cast<int>(reply->elements / 2);
  }
  tqredis_print_reply(reply);
  return kFail;
}
