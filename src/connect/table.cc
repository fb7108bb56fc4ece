// The connection table and the endpoints every slot connects to.
#include "connect/table.h"

#include <cstdio>
#include <cstring>

#include "core/cardinfo.h"
#include "tqredis.h"

tqredis_conn_slot g_tqredis_connect_mng[TQREDIS_OP_NUM][TQREDIS_DB_NUM] = {};

void tqredis_init_connect_mng(void) {
  tqredis_cardinfo_init();
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
        std::snprintf(slot.unixpath, sizeof(slot.unixpath), "%s",
                      "/tmp/redis/redis_host.sock");
        continue;
      }
      std::snprintf(slot.unixpath, sizeof(slot.unixpath), "/tmp/%s/%s.sock",
                    "redis", g_tqredis_dbstr[db]);
      // Handed unchanged to the TCP connect when the write slot is switched.
      std::snprintf(slot.hostname, sizeof(slot.hostname), "%#x",
                    static_cast<unsigned>(db | 0x100000));
      slot.hostport = 0;
    }
  }
}
