// Notification replies from arbitrary bytes through the notification
// handling: the shape check, the record built for the hooks, the pattern
// match and the operation record. The first byte picks the database. The
// replies are built from a pool, as the pump builds them.
#include <cstring>

#include "fuzz/fuzz_common.h"
#include "tqredis.h"

namespace {

tqredis::detail::ReplyPool g_pool;

// Reads everything the record offers, as a host's hook would.
int ReadRecord(tqredis_pmsg *pmsg, void *) {
  volatile size_t n = std::strlen(pmsg->key);
  (void)n;
  char *strval = nullptr;
  int len = 0;
  int intval = 0;
  tqredis_get_key_reply_strval(pmsg->value, &strval, &len);
  tqredis_get_key_reply_intval(pmsg->value, &intval, 0);
  tqredis_print_reply(pmsg->value);
  return 0;
}

void Register(uint32_t db, const char *pattern) {
  pubsub_mng mng{};
  mng.key_db = db;
  std::strncpy(mng.key_pattern, pattern, sizeof(mng.key_pattern) - 1);
  mng.hook = ReadRecord;
  tqredis_pubsub_register(&mng, 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::QuietConsole(0x1f);
  // Subscriptions the seeds' notifications match, on every database.
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    Register(db, "*");
    Register(db, "card:*");
  }
  tqredis_pmsg_hook_register(ReadRecord, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint32_t db = data[0] % 4;  // 3: an invalid database
  tqfuzz::ForEachReply(
      data + 1, size - 1,
      [&](redisReply *reply) {
        tqredis_check_pubsub_reply(reply);
        tqredis_pmsg pmsg{};
        tqredis_get_pmsg_by_reply(reply, &pmsg);
        tqredis_db_deal_pmsg(db, reply);
      },
      &g_pool);
  return 0;
}
