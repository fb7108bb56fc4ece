/* A small device process: loads tqredis, initialises it, writes and reads
 * keys on the three databases and shows what the library knows. Run it with
 * the device's database servers up (scripts/main.sh starts them). */
#include <stdio.h>

#include "tqredis.h"

/* Reads one key and prints it the way a person would want to see it. */
static void show_key(int db, const char *key) {
  redisReply *reply = tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "GET %s", key);
  char *text = NULL;
  int len = 0;
  if (tqredis_get_key_reply_strval(reply, &text, &len) == 0) {
    printf("   %s: %s = \"%.*s\"\n", g_tqredis_dbstr[db], key, len, text);
  } else {
    printf("   %s: %s has no string value\n", g_tqredis_dbstr[db], key);
  }
  tqredis_free_reply(reply); /* ours to free, whatever it held */
}

int main(void) {
  int db;
  int i;
  int rv;
  redisReply *reply;

  printf("== %s: tqredis loaded, its constructor already ran\n", g_tqredis_proc_name);

  /* No subscriptions yet; flag 2 switches the global lock on, for a host
   * whose threads share the library. */
  rv = tqredis_init(NULL, 0, NULL, 2);
  printf("== tqredis_init returned %d\n", rv);

  /* Console: life-cycle events, warnings and errors. The change itself is
   * logged at level 4, so it shows on the console. */
  tqredis_dbg_cfg(0, TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR);

  /* The first command connects every slot this card uses and reads the card
   * information; it blocks until the servers answer. */
  printf("== writing one key per database, synchronously\n");
  for (db = 0; db < TQREDIS_DB_NUM; ++db) {
    reply = tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "SET example:%s %s-%d",
                               g_tqredis_dbstr[db], g_tqredis_proc_name, db);
    if (tqredis_check_reply(reply)) printf("   %s: stored\n", g_tqredis_dbstr[db]);
    tqredis_free_reply(reply);
  }
  tqredis_dbg_cfg(0, TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR); /* quieter now */

  printf("== reading them back\n");
  show_key(0, "example:redis_de_global");
  show_key(1, "example:redis_ce_global");
  show_key(2, "example:redis_host");

  /* Pipelined writes: appended, written out once 32 have gathered (or on
   * TQREDIS_CMD_COMMIT, or when the pump idles). Their replies are never
   * read, so they are for data the process does not need to confirm. */
  printf("== 40 pipelined counter writes to redis_host\n");
  for (i = 0; i < 40; ++i) {
    tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0, "HSET example:counters c%d %d", i, i);
  }
  printf("   32 went out at the threshold, 8 wait; committing them now\n");
  tqredis_commit_command_all();

  /* The unread replies of those writes come first on that connection: a
   * read made now receives the oldest of them. */
  reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0, "HLEN example:counters");
  printf("   the next read on redis_host got the reply of the first pipelined write: "
         "(integer) %lld\n", reply != NULL ? reply->integer : -1LL);
  tqredis_free_reply(reply);

  printf("== library statistics\n");
  tqredis_basic_stats_show();
  tqredis_cardinfo_stats_show();

  printf("== log file: /tmp/tqredis/%s.limitlog\n", g_tqredis_proc_name);
  fflush(stdout);
  return 0;
}
