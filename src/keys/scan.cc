// Pattern walks with SCAN: the replay of existing keys to a notification
// callback, and the walk that applies a per-key function.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "command/command.h"
#include "core/keycmd.h"
#include "core/log.h"
#include "core/result.h"
#include "pubsub/pubsub.h"
#include "pubsub/pump.h"
#include "records/records.h"
#include "reply/reply.h"
#include "tqredis.h"

using tqredis::detail::Element;
using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;
using tqredis::detail::kKeyCmd_hset;
using tqredis::detail::kKeyCmd_sadd;
using tqredis::detail::kKeyCmd_scan;
using tqredis::detail::kKeyCmd_set;
using tqredis::detail::kLogData;

namespace {

// Copies at most 127 characters of `text` into a record's key, always
// NUL-terminated.
void CopyKey(char (&dst)[128], const char *text) {
  const size_t n = strnlen(text, sizeof dst - 1);
  std::memcpy(dst, text, n);
  dst[n] = '\0';
}

// The key command a replay kind reports, -1 for a kind that reads nothing.
int ReplayKeyCmd(int kind) {
  switch (kind) {
    case TQREDIS_SCAN_STRING:
      return kKeyCmd_set;
    case TQREDIS_SCAN_HASH:
      return kKeyCmd_hset;
    case TQREDIS_SCAN_SET:
      return kKeyCmd_sadd;
    default:
      return -1;
  }
}

// Reads one key's value as its replay kind says. REQUIRES: a kind that
// reads (ReplayKeyCmd(kind) != -1).
redisReply *ReadValue(uint32_t db, int kind, const char *key) {
  const int idb = static_cast<int>(db);
  switch (kind) {
    case TQREDIS_SCAN_STRING:
      return tqredis_db_command(idb, TQREDIS_OP_READ, -1, 0, "GET %s", key);
    case TQREDIS_SCAN_HASH:
      return tqredis_db_command(idb, TQREDIS_OP_READ, -1, 0, "HGETALL %s", key);
    default:
      return tqredis_db_command(idb, TQREDIS_OP_READ, -1, 0, "SMEMBERS %s",
                                key);
  }
}

// Checks the walk's arguments, logging under the exported function `func`.
bool WalkArgsValid(uint32_t db, const char *pattern, int count,
                   bool callback_ok, const char *func, int line) {
  if (db < TQREDIS_DB_NUM && pattern != nullptr && pattern[0] != '\0' &&
      count >= 1 && callback_ok) {
    return true;
  }
  TQ_LOG_FROM(func, line, kLogData,
              "input arguments invalid, db=%d count=%d\r\n",
              static_cast<int>(db), count);
  return false;
}

// The SCAN loop shared by both walks: one SCAN call per page, starting from
// cursor 0 until the database answers cursor 0, each traced as an outbound
// "scan" of the pattern. `on_page(reply)` handles a usable SCAN reply, which
// is freed when it returns; false ends the walk with -1. Exactly one SCAN
// reply is alive at a time. REQUIRES: arguments checked.
template <typename OnPage>
int ScanPages(uint32_t db, const char *pattern, int count, OnPage on_page) {
  int cursor = 0;
  do {
    tqredis_db_out_log(pattern, kKeyCmd_scan, db, 0);
    redisReply *reply = nullptr;
    {
      const tqredis::detail::UnrecordedScope recorded_above;
      reply = tqredis_db_command(static_cast<int>(db), TQREDIS_OP_READ, -1, 0,
                                 "SCAN %d MATCH %s COUNT %d", cursor, pattern,
                                 count);
    }
    if (tqredis_check_scan_reply(reply) == 0) {
      tqredis_print_reply(reply);
      tqredis_free_reply(reply);
      return kFail;
    }
    cursor = static_cast<int>(std::strtol(Element(reply, 0)->str, nullptr, 0));
    const bool go_on = on_page(reply);
    tqredis_free_reply(reply);
    if (!go_on) return kFail;
  } while (cursor != 0);
  return tqredis::detail::kOk;
}

}  // namespace

int tqredis_check_scan_reply(redisReply *reply) {
  if (tqredis_check_reply(reply) == 0) {
    TQ_LOG(kLogData, "check scan reply fail\n");
    return 0;
  }
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) {
    TQ_LOG(kLogData, "reply invlaid, type=%d elements=%zu\r\n", reply->type,
           reply->elements);
    return 0;
  }
  // The cursor is read back as text: an element without text (an integer)
  // is no cursor.
  redisReply *cursor = Element(reply, 0);
  if (tqredis_check_reply(cursor) == 0 || cursor->str == nullptr) {
    TQ_LOG(kLogData, "element[0] invlaid\r\n");
    return 0;
  }
  return 1;
}

int tqredis_check_scan_key_reply(redisReply *keys) {
  if (tqredis_check_reply(keys) == 0) {
    TQ_LOG(kLogData, "scan reply check fail\r\n");
    return 0;
  }
  if (keys->type != REDIS_REPLY_ARRAY) {
    TQ_LOG(kLogData, "key subreply invlaid, type=%d elements=%zu\r\n",
           keys->type, keys->elements);
    return 0;
  }
  return 1;
}

namespace {

// tqredis_scan_key_get() for the walk over `pattern` (empty when called
// directly), which only names it in the report of a slow hook.
void ScanKeyGet(uint32_t db, redisReply *keys, tqredis_pmsg_hook_f callback,
                void *arg, int kind, std::string_view pattern) {
  static constexpr char kFunc[] = "tqredis_scan_key_get";
  if (db >= TQREDIS_DB_NUM || callback == nullptr) {
    TQ_LOG_FROM(kFunc, __LINE__, kLogData, "input arguments invalid, db=%d\r\n",
                static_cast<int>(db));
    return;
  }
  if (tqredis_check_scan_key_reply(keys) == 0) {
    tqredis_print_reply(keys);
    return;
  }
  const int keycmd = ReplayKeyCmd(kind);
  if (keycmd == -1) return;
  // `elements` is read again for every key.
  for (size_t i = 0; i < keys->elements; ++i) {
    const redisReply *key = Element(keys, i);
    if (key == nullptr || key->str == nullptr) continue;  // names no key
    redisReply *value = ReadValue(db, kind, key->str);
    if (tqredis_check_reply(value) != 0) {
      tqredis_pmsg record{};
      record.db = db;
      CopyKey(record.key, key->str);
      record.cmd = keycmd;
      record.value = value;
      record.reserved = 0;
      // Flag 1: a replayed key, where live notifications use 0.
      const int slot =
          tqredis_db_in_log(key->str, static_cast<uint32_t>(keycmd), db, 1);
      tqredis::detail::CallHookTimed({kFunc, __LINE__, "replay", pattern},
                                     callback, &record, arg);
      if (slot != -1) tqredis_db_in_log_stat(static_cast<uint32_t>(slot));
      tqredis::detail::CallProcessHookTimed(
          {kFunc, __LINE__, "process", pattern}, &record);
    } else {
      TQ_LOG_FROM(kFunc, __LINE__, kLogData, "check value reply fail\n");
    }
    // Neither the callback nor the hook may keep it.
    tqredis_free_reply(value);
  }
}

}  // namespace

void tqredis_scan_key_get(uint32_t db, redisReply *keys,
                          tqredis_pmsg_hook_f callback, void *arg, int kind) {
  ScanKeyGet(db, keys, callback, arg, kind, std::string_view(""));
}

int tqredis_scan_key_pattern(uint32_t db, const char *pattern, int count,
                             tqredis_pmsg_hook_f callback, void *arg,
                             int kind) {
  if (!WalkArgsValid(db, pattern, count, callback != nullptr, __func__,
                     __LINE__)) {
    return kBadArgs;
  }
  return ScanPages(db, pattern, count, [&](redisReply *reply) {
    ScanKeyGet(db, Element(reply, 1), callback, arg, kind, pattern);
    return true;  // a bad key list skips the page, not the walk
  });
}

int tqredis_key_pattern_walkthrough(uint32_t db, const char *pattern, int count,
                                    tqredis_key_func_f function, void *arg) {
  // A NULL function is accepted: the walk still feeds the hook.
  if (!WalkArgsValid(db, pattern, count, true, __func__, __LINE__)) {
    return kBadArgs;
  }
  return ScanPages(db, pattern, count, [&](redisReply *reply) {
    // One "scan" record per SCAN call, before its keys, even with none.
    tqredis_pmsg record{};
    record.db = db;
    CopyKey(record.key, pattern);
    record.cmd = kKeyCmd_scan;
    // Named by hand: __func__ here is the lambda's.
    tqredis::detail::CallProcessHookTimed(
        {"tqredis_key_pattern_walkthrough", __LINE__, "process", pattern},
        &record);
    redisReply *keys = Element(reply, 1);
    if (tqredis_check_scan_key_reply(keys) == 0) {
      tqredis_print_reply(keys);
      return false;
    }
    for (size_t j = 0; j < keys->elements; ++j) {
      const redisReply *key = Element(keys, j);
      if (function == nullptr || key == nullptr || key->str == nullptr)
        continue;
      function(static_cast<int>(db), key->str, arg);
    }
    return true;
  });
}

int tqredis_del_expire_key_pattern(uint32_t db, const char *pattern,
                                   int count) {
  return tqredis_key_pattern_walkthrough(db, pattern, count,
                                         tqredis_expire_key_del, nullptr);
}

int tqredis_pexpire_key_pattern(uint32_t db, const char *pattern,
                                int ageing_time, int count) {
  int ageing = ageing_time;  // outlives every call of the walk
  return tqredis_key_pattern_walkthrough(db, pattern, count,
                                         tqredis_key_pexpire, &ageing);
}
