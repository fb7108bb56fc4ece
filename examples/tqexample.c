/* tqexample: a device process, written the way we want device processes to
 * be written. It watches a few keys on each of the three databases, replays
 * their current state when it starts, handles every change as it arrives
 * while a worker thread changes keys, gives keys a time to live, checks its
 * own connections, and leaves its statistics in redis_host when it ends.
 * Run it with the device's database servers up: scripts/main.sh starts the
 * emulator, runs this process and shows its statistics with tqredis-stat. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "tqredis.h"

/* What the process watches: one family of keys per database, each read back
 * by its type when replayed. */
typedef struct watch {
  const char *what;
  int kind; /* TQREDIS_SCAN_STRING, _HASH or _SET */
} watch;

static watch fans = {"fan", TQREDIS_SCAN_HASH};
static watch cards = {"card", TQREDIS_SCAN_STRING};
static watch alarms = {"alarm", TQREDIS_SCAN_SET};

static pthread_mutex_t done_mutex = PTHREAD_MUTEX_INITIALIZER;
static int worker_done;

/* A value as a person reads it: a string in quotes, the fields and values
 * of a hash or the members of a set joined by blanks, "(gone)" for a key
 * that was deleted or expired (its value is nil). */
static void describe(const redisReply *value, char *out, size_t size) {
  size_t used = 0;
  size_t i;
  if (value == NULL || value->type == REDIS_REPLY_NIL) {
    snprintf(out, size, "(gone)");
  } else if (value->type == REDIS_REPLY_STRING) {
    snprintf(out, size, "\"%s\"", value->str);
  } else if (value->type == REDIS_REPLY_INTEGER) {
    snprintf(out, size, "%lld", value->integer);
  } else if (value->type == REDIS_REPLY_ARRAY) {
    out[0] = '\0';
    for (i = 0; i < value->elements && used + 1 < size; ++i) {
      const redisReply *e = value->element[i];
      used += (size_t)snprintf(out + used, size - used, "%s%s", i ? " " : "",
                               e->str != NULL ? e->str : "?");
    }
  } else {
    snprintf(out, size, "(reply type %d)", value->type);
  }
}

/* The one hook, for live changes and replayed keys alike. It runs on the
 * main loop's thread with the library's lock held; the record and its value
 * are the library's and live only during this call. */
static int on_change(tqredis_pmsg *pmsg, void *arg) {
  const watch *w = (const watch *)arg;
  char value[160];
  describe(pmsg->value, value, sizeof(value));
  printf("  %-7s %-15s %-8s %-24s %s\n", w->what, g_tqredis_dbstr[pmsg->db],
         g_tqredis_keycmd_str[pmsg->cmd], pmsg->key, value);
  fflush(stdout);
  return 0;
}

/* The replay hook: the same handling, marked as state that already was. */
static int on_replay(tqredis_pmsg *pmsg, void *arg) {
  printf("  replay");
  return on_change(pmsg, arg);
}

static pubsub_mng table[] = {
    {TQREDIS_DB_HOST, "example:fan:*", on_change, &fans},
    {TQREDIS_DB_CE_GLOBAL, "example:card:*", on_change, &cards},
    {TQREDIS_DB_DE_GLOBAL, "example:alarm:*", on_change, &alarms},
};
#define TABLE_SIZE ((int)(sizeof(table) / sizeof(table[0])))

/* Runs after the subscriptions of a database were made: reads what exists,
 * so nothing that changed before we listened is missed. It runs again after
 * a lost pubsub connection was made again. */
static int data_check(uint32_t db) {
  int i;
  for (i = 0; i < TABLE_SIZE; ++i) {
    const watch *w = (const watch *)table[i].hook_arg;
    if (table[i].key_db != db) continue;
    tqredis_scan_key_pattern(db, table[i].key_pattern, 32, on_replay,
                             table[i].hook_arg, w->kind);
  }
  return 0;
}

/* One write, traced as an outbound operation so that it shows in the
 * statistics (marked, so it also pairs with the notification that caused
 * it). Writes go on the read path and their replies are freed: replies of
 * pipelined writes are never read, and on this card they would come first
 * for the next read on the same connection. */
#define WRITE(db, keycmd, key, ...)                                   \
  do {                                                                \
    const int slot_ = tqredis_db_out_log(key, keycmd, db, 1);         \
    tqredis_free_reply(                                               \
        tqredis_db_command(db, TQREDIS_OP_READ, -1, 0, __VA_ARGS__)); \
    if (slot_ >= 0) tqredis_db_out_log_stat((uint32_t)slot_);         \
  } while (0)

static void step(const char *what) {
  printf("worker: %s\n", what);
  fflush(stdout);
  const struct timespec pause = {0, 300 * 1000 * 1000};
  nanosleep(&pause, NULL);
}

/* The worker changes keys on all three databases, the way other processes
 * of the device would. */
static void *worker(void *arg) {
  (void)arg;
  step("fan 1 speeds up");
  WRITE(TQREDIS_DB_HOST, TQREDIS_KEYCMD_HSET, "example:fan:1",
        "HSET example:fan:1 speed 2400 mode boost");
  step("card 2 comes up");
  WRITE(TQREDIS_DB_CE_GLOBAL, TQREDIS_KEYCMD_SET, "example:card:2",
        "SET example:card:2 up");
  step("an overheat alarm is raised");
  WRITE(TQREDIS_DB_DE_GLOBAL, TQREDIS_KEYCMD_SADD, "example:alarm:active",
        "SADD example:alarm:active overheat fan-1");
  step("fan 2 reports once, with 800 ms to live");
  WRITE(TQREDIS_DB_HOST, TQREDIS_KEYCMD_HSET, "example:fan:2",
        "HSET example:fan:2 speed 900 mode auto");
  tqredis_pexpire_key(TQREDIS_DB_HOST, "example:fan:2", 800);
  step("the alarms are cleared");
  WRITE(TQREDIS_DB_DE_GLOBAL, TQREDIS_KEYCMD_DEL, "example:alarm:active",
        "DEL example:alarm:active");
  step("every card gets 1 s to live, then any card with a time to live goes");
  tqredis_pexpire_key_pattern(TQREDIS_DB_CE_GLOBAL, "example:card:*", 1000, 32);
  tqredis_del_expire_key_pattern(TQREDIS_DB_CE_GLOBAL, "example:card:*", 32);
  step("done");
  pthread_mutex_lock(&done_mutex);
  worker_done = 1;
  pthread_mutex_unlock(&done_mutex);
  return NULL;
}

static int is_worker_done(void) {
  int done;
  pthread_mutex_lock(&done_mutex);
  done = worker_done;
  pthread_mutex_unlock(&done_mutex);
  return done;
}

/* How the servers see this process's own connections. */
static void show_own_status(void) {
  tqredis_client_status st[3];
  int db;
  int op;
  for (db = 0; db < TQREDIS_DB_NUM; ++db) {
    memset(st, 0, sizeof(st));
    tqredis_get_proc_dbstatus((uint32_t)db, g_tqredis_proc_name, st);
    for (op = 0; op < TQREDIS_OP_NUM; ++op) {
      if (!st[op].online) {
        printf("  %-15s %-6s not connected\n", g_tqredis_dbstr[db],
               g_tqredis_opstr[op]);
        continue;
      }
      printf(
          "  %-15s %-6s online %llds, %lld commands, %lld bytes in, "
          "last %s\n",
          g_tqredis_dbstr[db], g_tqredis_opstr[op], st[op].age, st[op].cmd_num,
          st[op].in_bytes, st[op].cmd);
    }
  }
}

int main(int argc, char **argv) {
  pthread_t thread;
  int after;
  int rv;

  /* "--safe": every safety switch on, as a line "safe=1" in
   * /data/tqredis/tqexample.dbg would do (the main job runs it so). */
  if (argc > 1 && strcmp(argv[1], "--safe") == 0) {
    if (tqredis_set_option("safe", 1) != 0) return 1;
    printf("safe=1: replies read, waits bounded to %ld ms, fatal exit %ld\n",
           tqredis_get_option("waitlimit"), tqredis_get_option("exitstatus"));
  }

  /* Library messages go to its log files only, errors included, so that
   * the console shows what the process does. Operation times on. */
  tqredis_dbg_cfg(0, 0);
  tqredis_dbg_cfg(1, TQREDIS_LOG_DATA | TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN |
                         TQREDIS_LOG_ERROR);
  tqredis_dbg_cfg(2, 1);

  /* Flag 2: the worker thread shares the library, so the lock goes on. */
  rv = tqredis_init(table, TABLE_SIZE, data_check, 2);
  printf("%s: tqredis_init gave %d; watching %s, %s and %s\n",
         g_tqredis_proc_name, rv, table[0].key_pattern, table[1].key_pattern,
         table[2].key_pattern);

  /* State that other processes left before this one started (the first
   * command connects every database; it waits until they answer). */
  printf("state that other processes left, written before we listen\n");
  WRITE(TQREDIS_DB_HOST, TQREDIS_KEYCMD_DEL, "example:fan:2",
        "DEL example:fan:2");
  WRITE(TQREDIS_DB_HOST, TQREDIS_KEYCMD_HSET, "example:fan:1",
        "HSET example:fan:1 speed 1200 mode auto");
  WRITE(TQREDIS_DB_CE_GLOBAL, TQREDIS_KEYCMD_SET, "example:card:1",
        "SET example:card:1 up");
  WRITE(TQREDIS_DB_DE_GLOBAL, TQREDIS_KEYCMD_SADD, "example:alarm:active",
        "SADD example:alarm:active fan-stall");

  /* The first pass subscribes and runs the data checks: the replay. */
  printf("subscribing; the data checks replay what is already there:\n");
  tqredis_db_psubscrible();
  printf("listening; the worker starts:\n");
  fflush(stdout);
  if (pthread_create(&thread, NULL, worker, NULL) != 0) {
    printf("cannot start the worker\n");
    return 1;
  }

  /* The main loop: subscriptions and data checks, then at most 100 ms of
   * waiting for notifications, whose hooks run in here. Bounded: it ends 15
   * passes after the worker, once the last changes have come through. */
  for (after = 0; after < 15;) {
    tqredis_db_psubscrible();
    tqredis_pubsub();
    if (is_worker_done()) ++after;
  }
  pthread_join(thread, NULL);

  printf("own connections, as the servers see them:\n");
  show_own_status();

  printf("operation records (in: notifications and replays, out: writes):\n");
  fflush(stdout);
  tqredis_db_show_log();

  /* The main loop writes the statistics into redis_host once a minute when
   * idle; at a planned exit the process writes them itself. */
  tqredis_db_save_log();
  tqredis_commit_command_all();
  printf(
      "statistics written under /arch/mom/%s in redis_host: "
      "tqredis-stat %s shows them\n",
      g_tqredis_proc_name, g_tqredis_proc_name);
  printf("library log: /tmp/tqredis/%s.limitlog and .unlimitlog\n",
         g_tqredis_proc_name);
  return 0;
}
