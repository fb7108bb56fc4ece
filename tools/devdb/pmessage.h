// Keyspace notifications as the device sends them: the server's 4-element
// pmessage plus a fifth element, the key's value at the time of sending.
#ifndef TQREDIS_TOOLS_DEVDB_PMESSAGE_H_
#define TQREDIS_TOOLS_DEVDB_PMESSAGE_H_

#include <hiredis/hiredis.h>

#include <string>
#include <string_view>

namespace devdb {

// A pmessage frame from the server: an array of 4 bulk strings whose first
// is "pmessage".
bool IsPmessage(const redisReply *reply);

// What to look up for a pmessage: the key and its logical database. False
// when the channel names no key (a plain published channel), whose value is
// then nil.
struct KeyRef {
  std::string_view key;
  std::string_view db;  // decimal text
};
bool KeyOfPmessage(const redisReply *pmessage, KeyRef *ref);

// The script that looks a key's value up by its type in one round trip.
// Atomic, so the type and the value always agree.
std::string_view LookupScript();
// The arguments that run it for `ref` (for redisAppendCommandArgv): by its
// `sha` once the server has loaded it, else with its whole text.
int LookupArgv(const KeyRef &ref, std::string_view sha, const char *argv[5],
               size_t argvlen[5]);

// The 5-element pmessage: the four elements of `pmessage`, then `value`
// (nil when `value` is null or an error).
void AppendPmessage5(std::string *out, const redisReply *pmessage,
                     const redisReply *value);

}  // namespace devdb

#endif  // TQREDIS_TOOLS_DEVDB_PMESSAGE_H_
