// The connection table and the endpoints every slot connects to.
#include "connect/table.h"

#include <sys/un.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "connect/cardinfo.h"
#include "core/log.h"
#include "core/state.h"
#include "tqredis.h"

namespace tqredis::detail {
tqredis_conn_slot g_tqredis_connect_mng[TQREDIS_OP_NUM][TQREDIS_DB_NUM] = {};
}  // namespace tqredis::detail

using tqredis::detail::g_tqredis_cardinfo;
using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kUnknownNode;

namespace {

constexpr char kDefaultSocketDir[] = "/tmp/redis";

// A socket path must fit both the slot and the kernel's address, which
// hiredis would otherwise cut short without a word.
constexpr size_t kMaxSocketPath =
    sizeof(tqredis_conn_slot::unixpath) < sizeof(sockaddr_un::sun_path)
        ? sizeof(tqredis_conn_slot::unixpath)
        : sizeof(sockaddr_un::sun_path);

// The folder of the three sockets: TQREDIS_SOCKET_DIR without one trailing
// '/', or /tmp/redis when it is unset, empty, or too long for every path
// built from it to fit (said at level 8). Copied into `out`.
void SocketDir(char *out, size_t size) {
  std::snprintf(out, size, "%s", kDefaultSocketDir);
  const char *env = std::getenv("TQREDIS_SOCKET_DIR");
  if (env == nullptr || env[0] == '\0') return;
  size_t len = std::strlen(env);
  if (env[len - 1] == '/') --len;
  size_t longest = 0;
  for (int db = 0; db < TQREDIS_DB_NUM; ++db) {
    const size_t name = std::strlen(g_tqredis_dbstr[db]);
    if (name > longest) longest = name;
  }
  // "<dir>/<name>.sock" and its NUL.
  if (len + 1 + longest + 5 + 1 > kMaxSocketPath || len >= size) {
    TQ_LOG(tqredis::detail::kLogError,
           "TQREDIS_SOCKET_DIR=%s too long, using %s\r\n", env,
           kDefaultSocketDir);
    return;
  }
  std::memcpy(out, env, len);
  out[len] = '\0';
}

}  // namespace

void tqredis_init_connect_mng(void) {
  tqredis_cardinfo_init();
  // Sized so that every path built from it fits the slot.
  char dir[kMaxSocketPath - sizeof("/redis_de_global.sock") + 1];
  SocketDir(dir, sizeof(dir));
  for (int op = 0; op < TQREDIS_OP_NUM; ++op) {
    for (int db = 0; db < TQREDIS_DB_NUM; ++db) {
      tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
      slot.context = nullptr;
      slot.mode = 0;
      slot.append_cmd_num = 0;
      slot.connect_num = 0;
      slot.datacheck_num = 0;
      if (db == TQREDIS_DB_HOST) {
        // redis_host is never reached over TCP: no host text, port 0.
        std::snprintf(slot.unixpath, sizeof(slot.unixpath), "%s/%s", dir,
                      "redis_host.sock");
        continue;
      }
      std::snprintf(slot.unixpath, sizeof(slot.unixpath), "%s/%s.sock", dir,
                    g_tqredis_dbstr[db]);
      // Handed unchanged to the TCP connect when the write slot is switched.
      std::snprintf(slot.hostname, sizeof(slot.hostname), "%#x",
                    static_cast<unsigned>(db | 0x100000));
      slot.hostport = 0;
    }
  }
}

namespace {

// The slot of a checked (db, op), or NULL after logging the bad ids under the
// caller's name and line.
tqredis_conn_slot *CheckedSlot(uint32_t db, uint32_t op, const char *func,
                               int line) {
  if (db >= TQREDIS_DB_NUM || op >= TQREDIS_OP_NUM) {
    TQ_LOG_FROM(func, line, tqredis::detail::kLogError,
                "input arguments invalid, op=%d db=%d\r\n",
                static_cast<int>(op), static_cast<int>(db));
    return nullptr;
  }
  return &g_tqredis_connect_mng[op][db];
}

}  // namespace

// Read without the lock: one aligned pointer.
int tqredis_db_is_connected(uint32_t db, uint32_t op) {
  const tqredis_conn_slot *slot = CheckedSlot(db, op, __func__, __LINE__);
  return slot != nullptr && slot->context != nullptr ? 1 : 0;
}

redisContext *tqredis_get_context(uint32_t db, uint32_t op) {
  const tqredis_conn_slot *slot = CheckedSlot(db, op, __func__, __LINE__);
  return slot != nullptr ? slot->context : nullptr;
}

void tqredis_refresh_write_connect_mng(uint8_t local, int32_t port) {
  for (int db = TQREDIS_DB_DE_GLOBAL; db <= TQREDIS_DB_CE_GLOBAL; ++db) {
    tqredis_conn_slot &slot = g_tqredis_connect_mng[TQREDIS_OP_WRITE][db];
    slot.mode = local ? 0 : 1;
    slot.hostport = local ? 0 : port;
  }
}

int tqredis_get_write_connext_stats(uint32_t db) {
  if (db == TQREDIS_DB_HOST) return 0;  // always written through its read slot
  if (g_tqredis_cardinfo.my_node == kUnknownNode ||
      g_tqredis_cardinfo.master_node == kUnknownNode) {
    return -1;
  }
  return g_tqredis_cardinfo.my_node != g_tqredis_cardinfo.master_node ? 1 : 0;
}

void tqredis_datacheck_num_inc(uint32_t db) {
  if (db < TQREDIS_DB_NUM)
    ++g_tqredis_connect_mng[TQREDIS_OP_PUBSUB][db].datacheck_num;
}
