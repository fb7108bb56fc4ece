// Replies from arbitrary bytes through the checks, the dump (level 16) and
// every getter. The first bytes choose the getters' index, base and field,
// and whether the replies are built from a pool (the first byte's top bit).
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_common.h"
#include "tqredis.h"

namespace {

tqredis::detail::ReplyPool g_pool;

void Exercise(redisReply *reply, int index, int base, const char *field) {
  tqredis_check_reply(reply);
  check_reply(reply);
  tqredis_print_reply(reply);
  int intval = 0;
  char *strval = nullptr;
  int len = 0;
  for (int valtype : {int{TQREDIS_VALTYPE_INT}, int{TQREDIS_VALTYPE_STR}, 7}) {
    tqredis_convert_reply_value(reply, valtype, &intval, base, &strval, &len);
    tqredis_get_key_reply(reply, valtype, &intval, base, &strval, &len);
    tqredis_get_key_reply_by_field(reply, field, valtype, &intval, base,
                                   &strval, &len);
  }
  tqredis_get_key_reply_intval(reply, &intval, base);
  if (tqredis_get_key_reply_strval(reply, &strval, &len) == 0 &&
      strval != nullptr && len > 0) {
    // What the getter hands out must be readable over its whole length.
    volatile char last = strval[len - 1];
    (void)last;
  }
  tqredis_check_array_reply(reply, static_cast<uint32_t>(index));
  tqredis_get_key_array_reply_intval(reply, index, &intval, base);
  tqredis_get_key_array_reply_strval(reply, index, &strval, &len);
  tqredis_search_field_element(reply, field);
  tqredis_get_key_reply_intval_by_field(reply, field, &intval, base);
  tqredis_get_key_reply_strval_by_field(reply, field, &strval, &len);
  tqredis_get_sets_size(reply);
  tqredis_get_hashes_size(reply);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::QuietConsole(TQREDIS_LOG_DATA | TQREDIS_LOG_ERROR | TQREDIS_LOG_DUMP);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  // Indices around the edges matter most: -2 .. 61.
  const int index = static_cast<int>(data[0] % 64) - 2;
  const int base = data[1] % 40;  // 1 and past 36 are invalid bases
  const size_t field_len = data[2] % 8;
  if (size < 3 + field_len) return 0;
  const std::string field(reinterpret_cast<const char *>(data + 3), field_len);
  tqfuzz::ForEachReply(
      data + 3 + field_len, size - 3 - field_len,
      [&](redisReply *reply) { Exercise(reply, index, base, field.c_str()); },
      (data[0] & 0x80) != 0 ? &g_pool : nullptr);
  return 0;
}
