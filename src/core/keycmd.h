// Key command ids and names: one list, expanded into the enum, the exported
// table and the lookup from an event name.
#ifndef TQREDIS_SRC_CORE_KEYCMD_H_
#define TQREDIS_SRC_CORE_KEYCMD_H_

#include <cstddef>
#include <iterator>
#include <string_view>

#include "tqredis.h"

// clang-format off
#define TQREDIS_KEYCMD_LIST(X)                                            \
  X(set)    X(del)       X(hset)       X(hdel)    X(sadd)    X(srem)      \
  X(spop)   X(zadd)      X(zrem)       X(expire)  X(expired) X(lpush)     \
  X(rpush)  X(lrem)      X(flushdb)    X(get)     X(hmget)   X(hgetall)   \
  X(lindex) X(smermbers) X(sismermber) X(pexpire) X(scan)    X(bgsave)    \
  X(psetex) X(pttl)      X(clientlistname)        X(other)
// clang-format on

namespace tqredis::detail {

enum KeyCmd : int {
#define TQREDIS_X(name) kKeyCmd_##name,
  TQREDIS_KEYCMD_LIST(TQREDIS_X)
#undef TQREDIS_X
      kKeyCmdCount
};

inline constexpr std::string_view kKeyCmdNames[] = {
#define TQREDIS_X(name) #name,
    TQREDIS_KEYCMD_LIST(TQREDIS_X)
#undef TQREDIS_X
};

// Ids are stored in records that callers read: they never move.
static_assert(static_cast<int>(kKeyCmdCount) == TQREDIS_KEYCMD_NUM);
static_assert(std::size(kKeyCmdNames) == kKeyCmdCount);
static_assert(static_cast<int>(kKeyCmd_other) == TQREDIS_KEYCMD_OTHER);
static_assert(static_cast<int>(kKeyCmd_clientlistname) ==
              TQREDIS_KEYCMD_CLIENTLISTNAME);
static_assert(kKeyCmdNames[kKeyCmd_smermbers] == "smermbers");    // sic
static_assert(kKeyCmdNames[kKeyCmd_sismermber] == "sismermber");  // sic

// The first id below kKeyCmd_other named exactly `event`, else kKeyCmd_other.
constexpr KeyCmd KeyCmdFromEvent(std::string_view event) {
  for (int id = 0; id < kKeyCmd_other; ++id)
    if (kKeyCmdNames[id] == event) return static_cast<KeyCmd>(id);
  return kKeyCmd_other;
}
static_assert(KeyCmdFromEvent("SET") == kKeyCmd_other);  // exact match only

// The same for a command word as a host writes it, in any case ("HSET",
// "hset"); the names hold only lowercase letters.
constexpr KeyCmd KeyCmdFromWord(std::string_view word) {
  for (int id = 0; id < kKeyCmd_other; ++id) {
    const std::string_view name = kKeyCmdNames[id];
    if (name.size() != word.size()) continue;
    size_t i = 0;
    while (i < name.size() && name[i] == (word[i] | 0x20)) ++i;
    if (i == name.size()) return static_cast<KeyCmd>(id);
  }
  return kKeyCmd_other;
}
static_assert(KeyCmdFromWord("HSet") == kKeyCmd_hset);
static_assert(KeyCmdFromWord("CLIENT") == kKeyCmd_other);
static_assert(KeyCmdFromEvent("other") == kKeyCmd_other);
static_assert(KeyCmdFromEvent("expired") == kKeyCmd_expired);

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_KEYCMD_H_
