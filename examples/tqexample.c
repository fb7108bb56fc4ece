/* A small device process: loads tqredis, initialises it with one
 * subscription, replays the keys that already exist before it listens,
 * gives a family of keys a time to live and deletes the expiring ones,
 * prints its own client status on every database, then writes, reads and
 * pipelines. Run it with the device's database servers up (scripts/main.sh
 * starts the emulator). */
#include <stdio.h>
#include <string.h>

#include "tqredis.h"

#define STATE_KEYS "example:state:*"
#define SESSION_KEYS "example:session:*"

static int notifications;

/* Subscription hook: live notifications and replayed keys alike. The record
 * and its value are the library's, valid during this call only. */
static int on_state(tqredis_pmsg *pmsg, void *arg) {
  char *text = NULL;
  int len = 0;
  if (tqredis_get_key_reply_strval(pmsg->value, &text, &len) == 0) {
    printf("   %s %s: %s %s = \"%.*s\"\n", (const char *)arg,
           g_tqredis_dbstr[pmsg->db], g_tqredis_keycmd_str[pmsg->cmd],
           pmsg->key, len, text);
  } else {
    printf("   %s %s: %s %s, no text value\n", (const char *)arg,
           g_tqredis_dbstr[pmsg->db], g_tqredis_keycmd_str[pmsg->cmd],
           pmsg->key);
  }
  ++notifications;
  return 0;
}

/* Called once the subscriptions of a database are (re)made. */
static int on_data_check(uint32_t db) {
  printf("   data check of %s\n", g_tqredis_dbstr[db]);
  return 0;
}

/* Per-key function of a walk: counts the keys it is handed. */
static int count_key(int db, const char *key, void *arg) {
  (void)db;
  (void)key;
  ++*(int *)arg;
  return 0;
}

static int count_keys(const char *pattern) {
  int n = 0;
  tqredis_key_pattern_walkthrough(TQREDIS_DB_HOST, pattern, 10, count_key, &n);
  return n;
}

/* Writes one key and waits for the reply. Writes whose replies are needed
 * stay on the read path (op 0): replies of pipelined writes are never read,
 * so a later read would receive them first. */
static void store(int db, const char *key, const char *value) {
  tqredis_free_reply(
      tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, "SET %s %s", key, value));
}

static void show_status(uint32_t db) {
  tqredis_client_status st[3];
  int op;
  memset(st, 0, sizeof(st));
  tqredis_get_proc_dbstatus(db, g_tqredis_proc_name, st);
  for (op = 0; op < TQREDIS_OP_NUM; ++op) {
    if (st[op].online) {
      printf(
          "   %-15s %-6s online: id=%d cmd_num=%lld in_bytes=%lld flags=%s\n",
          g_tqredis_dbstr[db], g_tqredis_opstr[op], st[op].id, st[op].cmd_num,
          st[op].in_bytes, st[op].flags);
    } else {
      printf("   %-15s %-6s offline\n", g_tqredis_dbstr[db],
             g_tqredis_opstr[op]);
    }
  }
}

int main(void) {
  static char live[] = "notified:";
  static char replay[] = "replayed:";
  pubsub_mng subscription;
  char key[64];
  int db;
  int i;
  int rv;
  redisReply *reply;

  printf("== %s: tqredis loaded, its constructor already ran\n",
         g_tqredis_proc_name);

  /* One subscription; flag 2 switches the global lock on, for a host whose
   * threads share the library. */
  memset(&subscription, 0, sizeof(subscription));
  subscription.key_db = TQREDIS_DB_HOST;
  strcpy(subscription.key_pattern, STATE_KEYS);
  subscription.hook = on_state;
  subscription.hook_arg = live;
  rv = tqredis_init(&subscription, 1, on_data_check, 2);
  printf("== tqredis_init returned %d\n", rv);
  /* Warnings and errors on the console; the change itself is logged at
   * level 4, so it shows. */
  tqredis_dbg_cfg(0, TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR);

  /* The first command connects every slot this card uses and reads the card
   * information; it blocks until the servers answer. */
  printf("== state that exists before this process listens\n");
  store(TQREDIS_DB_HOST, "example:state:door", "closed");
  store(TQREDIS_DB_HOST, "example:state:fan", "on");
  for (db = 0; db < TQREDIS_DB_NUM; ++db) {
    store(db, "example:owner", g_tqredis_proc_name);
  }

  /* Notifications tell of later changes only: replay what exists first,
   * through the same hook, with SCAN calls of 10 keys. */
  printf("== replaying %s\n", STATE_KEYS);
  tqredis_scan_key_pattern(TQREDIS_DB_HOST, STATE_KEYS, 10, on_state, replay,
                           TQREDIS_SCAN_STRING);

  printf("== listening\n");
  tqredis_db_psubscrible(); /* subscribes, then runs the data check */
  notifications = 0;
  store(TQREDIS_DB_HOST, "example:state:door", "open");
  for (i = 0; i < 20 && notifications == 0; ++i) {
    tqredis_pubsub(); /* waits 100 ms at most */
  }

  /* A family of keys with a time to live, and the expiring ones deleted:
   * the state keys have none and stay. */
  printf("== sessions\n");
  for (i = 0; i < 5; ++i) {
    snprintf(key, sizeof(key), "example:session:%d", i);
    store(TQREDIS_DB_HOST, key, "active");
  }
  tqredis_pexpire_key_pattern(TQREDIS_DB_HOST, SESSION_KEYS, 60000, 2);
  printf("   %d session keys, each with 60 s to live\n",
         count_keys(SESSION_KEYS));
  tqredis_del_expire_key_pattern(TQREDIS_DB_HOST, "example:*", 10);
  printf("   expiring keys deleted: %d session keys, %d state keys left\n",
         count_keys(SESSION_KEYS), count_keys(STATE_KEYS));

  printf("== client status of %s\n", g_tqredis_proc_name);
  for (db = 0; db < TQREDIS_DB_NUM; ++db) show_status((uint32_t)db);

  /* Pipelined writes: appended, written out once 32 have gathered (or on
   * TQREDIS_CMD_COMMIT, or when the pump idles). Their replies are never
   * read, so they are for data the process does not need to confirm. */
  printf("== 40 pipelined counter writes to redis_host\n");
  for (i = 0; i < 40; ++i) {
    tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_WRITE, -1, 0,
                       "HSET example:counters c%d %d", i, i);
  }
  printf("   32 went out at the threshold, 8 wait; committing them now\n");
  tqredis_commit_command_all();

  /* The unread replies of those writes come first on that connection: a
   * read made now receives the oldest of them. */
  reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                             "HLEN example:counters");
  printf(
      "   the next read on redis_host got the reply of the first pipelined "
      "write: (integer) %lld\n",
      reply != NULL ? reply->integer : -1LL);
  tqredis_free_reply(reply);

  printf("== library statistics\n");
  tqredis_basic_stats_show();
  tqredis_cardinfo_stats_show();

  printf("== log file: /tmp/tqredis/%s.limitlog\n", g_tqredis_proc_name);
  fflush(stdout);
  return 0;
}
