// Rewrites the server's pmessages into the device's 5-element form.
#include "pmessage.h"

#include <cstring>

#include "resp.h"

namespace devdb {

namespace {

// Values by type as the device sends them: string as a bulk, hash as
// field/value pairs, set members, list elements, sorted-set members with
// scores; nil for a key that does not exist (or of another type).
constexpr char kLookupScript[] =
    "if ARGV[1] ~= '0' then redis.call('SELECT', ARGV[1]) end\n"
    "local t = redis.call('TYPE', KEYS[1])['ok']\n"
    "if t == 'string' then return redis.call('GET', KEYS[1])\n"
    "elseif t == 'hash' then return redis.call('HGETALL', KEYS[1])\n"
    "elseif t == 'set' then return redis.call('SMEMBERS', KEYS[1])\n"
    "elseif t == 'list' then return redis.call('LRANGE', KEYS[1], 0, -1)\n"
    "elseif t == 'zset' then\n"
    "  return redis.call('ZRANGE', KEYS[1], 0, -1, 'WITHSCORES')\n"
    "end\n"
    "return false\n";

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string_view Element(const redisReply *reply, size_t i) {
  return std::string_view(reply->element[i]->str, reply->element[i]->len);
}

}  // namespace

bool IsPmessage(const redisReply *reply) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 4) return false;
  for (size_t i = 0; i < 4; ++i)
    if (reply->element[i]->type != REDIS_REPLY_STRING) return false;
  return Element(reply, 0) == "pmessage";
}

bool KeyOfPmessage(const redisReply *pmessage, KeyRef *ref) {
  // "__keyspace@<db>__:<key>" carries the key in the channel;
  // "__keyevent@<db>__:<event>" carries it as the message.
  const std::string_view channel = Element(pmessage, 2);
  const bool space = StartsWith(channel, "__keyspace@");
  if (!space && !StartsWith(channel, "__keyevent@")) return false;
  const size_t at = channel.find('@');
  const size_t colon = channel.find("__:", at);
  if (colon == std::string_view::npos || colon == at + 1) return false;
  ref->db = channel.substr(at + 1, colon - at - 1);
  for (char c : ref->db)
    if (c < '0' || c > '9') return false;
  ref->key = space ? channel.substr(colon + 3) : Element(pmessage, 3);
  return true;
}

std::string_view LookupScript() {
  return std::string_view(kLookupScript, sizeof kLookupScript - 1);
}

int LookupArgv(const KeyRef &ref, std::string_view sha, const char *argv[5],
               size_t argvlen[5]) {
  if (sha.empty()) {
    argv[0] = "EVAL";
    argvlen[0] = 4;
    argv[1] = kLookupScript;
    argvlen[1] = sizeof kLookupScript - 1;
  } else {
    argv[0] = "EVALSHA";
    argvlen[0] = 7;
    argv[1] = sha.data();
    argvlen[1] = sha.size();
  }
  argv[2] = "1";
  argvlen[2] = 1;
  argv[3] = ref.key.data();
  argvlen[3] = ref.key.size();
  argv[4] = ref.db.data();
  argvlen[4] = ref.db.size();
  return 5;
}

void AppendPmessage5(std::string *out, const redisReply *pmessage,
                     const redisReply *value) {
  AppendArrayHeader(out, 5);
  for (size_t i = 0; i < 4; ++i) AppendBulk(out, Element(pmessage, i));
  if (value == nullptr || value->type == REDIS_REPLY_ERROR)
    AppendNil(out);
  else
    AppendReply(out, value);
}

}  // namespace devdb
