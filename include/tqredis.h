/* tqredis.h: the device's shared state in three Redis databases, over hiredis.
 *
 * Conventions
 * - Databases: 0 "redis_de_global", 1 "redis_ce_global", 2 "redis_host".
 *   Operations: 0 "read", 1 "write", 2 "pubsub". Identifiers of 3 and above
 *   are refused wherever a function checks them.
 * - Acting functions return 0 on success and -1 on failure; questions and
 *   reply checks return 1 (yes, usable) or 0. Some also return -2 (invalid
 *   arguments or a null function pointer), -3 (memory exhausted), -4 (reply
 *   of the wrong type) or -5 (hash field not found). The reason of a failure
 *   goes to the log, never to the caller.
 * - A reply returned for a read belongs to the caller, who frees it exactly
 *   once with tqredis_free_reply(). Nothing here keeps or copies a reply; a
 *   string handed out of a reply lives as long as the reply.
 * - The library is set up when it is loaded (tqredis_initial); the host then
 *   calls tqredis_init() once. After tqredis_init() with (flag & 2), public
 *   calls hold one recursive process-wide lock; without it nothing locks.
 * - Every message carries one level bit: 1 per-request data faults and the
 *   command trace, 2 life-cycle events, 4 warnings and configuration
 *   changes, 8 errors, 16 raw reply dumps (console only). A message of level
 *   L is printed on stdout as "[proc]<function, line>:" and its text when
 *   (g_tqredis_dbg_level & L), and written with a time stamp to
 *   "/tmp/tqredis/<proc>.limitlog" (levels 2, 4, 8) or ".unlimitlog"
 *   (levels 1, 16) when the file mask has L.
 * - Some exported names keep misspellings; they are part of the interface.
 */
#ifndef TQREDIS_H_
#define TQREDIS_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>

#include <hiredis/hiredis.h>

#if defined(TQREDIS_BUILDING_LIBRARY)
#define TQREDIS_API __attribute__((visibility("default")))
#else
#define TQREDIS_API
#endif

#if defined(__GNUC__)
#define TQREDIS_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
/* Marks a call that never returns; the compiler and analysers then know
 * that no line after it runs. Changes nothing in the ABI. */
#define TQREDIS_NORETURN __attribute__((noreturn))
#else
#define TQREDIS_PRINTF(fmt, args)
#define TQREDIS_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Identifiers and name tables ---------------------------------------- */

enum {
  TQREDIS_DB_DE_GLOBAL = 0, /* "redis_de_global" */
  TQREDIS_DB_CE_GLOBAL = 1, /* "redis_ce_global" */
  TQREDIS_DB_HOST = 2,      /* "redis_host" */
  TQREDIS_DB_NUM = 3
};

enum {
  TQREDIS_OP_READ = 0,   /* "read" */
  TQREDIS_OP_WRITE = 1,  /* "write" */
  TQREDIS_OP_PUBSUB = 2, /* "pubsub" */
  TQREDIS_OP_NUM = 3
};

/* Level bits of the console mask g_tqredis_dbg_level and of the file mask. */
enum {
  TQREDIS_LOG_DATA = 1,  /* per-request data faults, command trace */
  TQREDIS_LOG_LIFE = 2,  /* life-cycle events */
  TQREDIS_LOG_WARN = 4,  /* warnings, configuration changes */
  TQREDIS_LOG_ERROR = 8, /* errors */
  TQREDIS_LOG_DUMP = 16  /* raw reply dumps, console only */
};

/* Key command ids, stored in notification records: they never move.
 * Names as in g_tqredis_keycmd_str, the two misspelled ones included. */
enum {
  TQREDIS_KEYCMD_SET = 0,
  TQREDIS_KEYCMD_DEL = 1,
  TQREDIS_KEYCMD_HSET = 2,
  TQREDIS_KEYCMD_HDEL = 3,
  TQREDIS_KEYCMD_SADD = 4,
  TQREDIS_KEYCMD_SREM = 5,
  TQREDIS_KEYCMD_SPOP = 6,
  TQREDIS_KEYCMD_ZADD = 7,
  TQREDIS_KEYCMD_ZREM = 8,
  TQREDIS_KEYCMD_EXPIRE = 9,
  TQREDIS_KEYCMD_EXPIRED = 10,
  TQREDIS_KEYCMD_LPUSH = 11,
  TQREDIS_KEYCMD_RPUSH = 12,
  TQREDIS_KEYCMD_LREM = 13,
  TQREDIS_KEYCMD_FLUSHDB = 14,
  TQREDIS_KEYCMD_GET = 15,
  TQREDIS_KEYCMD_HMGET = 16,
  TQREDIS_KEYCMD_HGETALL = 17,
  TQREDIS_KEYCMD_LINDEX = 18,
  TQREDIS_KEYCMD_SMERMBERS = 19,  /* sic: "smermbers" */
  TQREDIS_KEYCMD_SISMERMBER = 20, /* sic: "sismermber" */
  TQREDIS_KEYCMD_PEXPIRE = 21,
  TQREDIS_KEYCMD_SCAN = 22,
  TQREDIS_KEYCMD_BGSAVE = 23,
  TQREDIS_KEYCMD_PSETEX = 24,
  TQREDIS_KEYCMD_PTTL = 25,
  TQREDIS_KEYCMD_CLIENTLISTNAME = 26,
  TQREDIS_KEYCMD_OTHER = 27,
  TQREDIS_KEYCMD_NUM = 28
};

/* Display names of database, operation and key command ids. Read only. */
TQREDIS_API extern const char *const g_tqredis_dbstr[3];
TQREDIS_API extern const char *const g_tqredis_opstr[3];
TQREDIS_API extern const char *const g_tqredis_keycmd_str[28];

/* ---- Records shared with the host ---------------------------------------- */

/* One keyspace notification, handed to hooks. It and its value belong to the
 * library and are valid only during the hook call. */
typedef struct tqredis_pmsg {
  uint32_t db;        /* database the notification came from */
  char key[128];      /* key name, NUL-terminated, at most 127 characters */
  int32_t cmd;        /* key command id of the event; 27 for any other */
  redisReply *value;  /* the key's value that came with the event */
  uint32_t reserved;  /* always 0 */
} tqredis_pmsg;

/* Notification hook; its result is ignored. From tqredis_pubsub() it runs
 * with the global lock held (when enabled); from a pattern walk, on the
 * walk's thread, holding what that thread holds. Either way it may call back
 * into the library. */
typedef int (*tqredis_pmsg_hook_f)(tqredis_pmsg *pmsg, void *hook_arg);

/* Data check, called with a database id after that database's
 * subscriptions were (re)made, so the host can re-read what it missed.
 * Its result is ignored. */
typedef int (*tqredis_data_check_f)(uint32_t db);

/* One entry of the host's subscription table. The array is read only during
 * tqredis_init(); the layout is part of the interface (140 bytes on 32-bit
 * targets). */
typedef struct pubsub_mng {
  uint32_t key_db;            /* database id, 0..2 */
  char key_pattern[128];      /* glob pattern of the keys; 127 kept */
  tqredis_pmsg_hook_f hook;   /* must not be NULL */
  void *hook_arg;             /* passed back to hook unchanged */
} pubsub_mng;

/* ---- Library state and start-up ------------------------------------------ */

/* Name of the host process from /proc/<pid>/comm, at most 29 characters;
 * "tqredis" when it cannot be read. First field of every log line and
 * prefix of every client name. */
TQREDIS_API extern char g_tqredis_proc_name[32];

/* 1 once tqredis_init() has run; never cleared. */
TQREDIS_API extern uint8_t g_tqredis_init_ok;

/* Load-time constructor and destructor; they run when the library is mapped
 * and unmapped. Not meant to be called by the host. tqredis_initial()
 * returns the result of its own "enter" log write. */
TQREDIS_API int tqredis_initial(void);
TQREDIS_API void tqredis_final(void);

/* Reads the process name into g_tqredis_proc_name. Returns 0, or -1 (logged
 * at level 8) when /proc/<pid>/comm cannot be opened or read. */
TQREDIS_API int tqredis_parse_proc_name(void);

/* The host's one initialisation call: ignores SIGPIPE, enables the global
 * lock when (flag & 2), registers the subscription table (mng_size entries,
 * read now, not kept) and the data check, sets g_tqredis_init_ok (whatever
 * the registration gave) and logs ">>>>tqredis[flag=%#x] init, rv=%d" at
 * level 2. Opens no connection. Returns what the registration returned. */
TQREDIS_API int tqredis_init(pubsub_mng *mng, int mng_size,
                             tqredis_data_check_f data_check_f,
                             uint32_t flag);

/* 1 if database `db` (taken modulo 32) exists on this card, else 0. */
TQREDIS_API int tqredis_db_exist(uint32_t db);

/* Prints the process name, the init flag and the whole connection table on
 * stdout, lines ending in "\r\n". Takes the global lock. */
TQREDIS_API void tqredis_basic_stats_show(void);


/* ---- Card information ---------------------------------------------------- */
/* Which databases exist, this card's node and the master's. Commands wait
 * until it is read. All of it runs under the global lock. */

/* Resets the card information to "not read": all three databases present,
 * this card's node and the master's unknown. Called at load. */
TQREDIS_API void tqredis_cardinfo_init(void);

/* 1 when the card information has been read, else 0. */
TQREDIS_API int tqredis_cardinfo_is_readed(void); /* sic: exported as spelled */

/* The reading step: this card is its own master, all databases present. On
 * a change of master (the first reading included) the write slots of
 * databases 0 and 1 are dropped (a live one ends the process) and return to
 * unix-socket mode. Returns 0. */
TQREDIS_API int tqredis_parse_cardinfo(void);

/* tqredis_parse_cardinfo(), then logs the card information at level 2. */
TQREDIS_API int tqredis_get_cardinfo(void);

/* 1 when a command on `db` may go on (tqredis_init() has run and, for
 * databases 0 and 1, the card information is read). Otherwise connects what
 * is missing, reads the card information when redis_host is reachable,
 * sleeps one second with the global lock released, and returns 0: call it
 * again. REQUIRES: the caller holds the global lock (when enabled). */
TQREDIS_API int tqredis_wait_cardinfo_ready(uint32_t db);

/* Prints the card information on stdout ("cardinfo:" and three fields).
 * Takes the global lock. */
TQREDIS_API void tqredis_cardinfo_stats_show(void);

/* ---- Connection table ----------------------------------------------------- */

/* One connection slot; the library keeps one per (operation, database). */
typedef struct tqredis_conn_slot {
  redisContext *context;   /* owned by the library; NULL: not connected */
  uint32_t mode;           /* 0 unix socket at unixpath, 1 TCP */
  char unixpath[128];
  char hostname[16];       /* host text handed to the TCP connect */
  int32_t hostport;
  uint32_t append_cmd_num; /* pipelined commands not yet written out */
  uint32_t connect_num;    /* successful connects since load */
  uint32_t datacheck_num;  /* data checks asked (pubsub slots) */
} tqredis_conn_slot;

/* Fills the connection table with its endpoints and resets the card
 * information. Called by the constructor; opens no connection. */
TQREDIS_API void tqredis_init_connect_mng(void);

/* 1 if slot [op][db] is connected, else 0. Bad ids: 0, logged at level 8
 * "input arguments invalid, op=%d db=%d". Note the order: database first. */
TQREDIS_API int tqredis_db_is_connected(uint32_t db, uint32_t op);

/* The slot's hiredis context, NULL when not connected or for bad ids. The
 * context stays the library's: never free it. */
TQREDIS_API redisContext *tqredis_get_context(uint32_t db, uint32_t op);

/* Switches the write slots of databases 0 and 1: `local` non-zero gives
 * unix-socket mode and port 0, zero gives TCP to `port`. Connections are
 * left as they are. */
TQREDIS_API void tqredis_refresh_write_connect_mng(uint8_t local, int32_t port);

/* Whether database `db` needs its own write connection on this card: 1 (not
 * the master), 0 (the master, or db 2), -1 (card information not read). */
TQREDIS_API int tqredis_get_write_connext_stats(uint32_t db); /* sic */

/* ---- Connecting and readiness --------------------------------------------- */
/* All of it runs under the global lock, taken by the public entries. */

/* Opens a connection to the slot's endpoint with a one-second time-out.
 * Returns the new context (the caller owns it) or NULL, logged at level 8.
 * The slot is not changed. */
TQREDIS_API redisContext *tqredis_connect_redis(uint32_t db, uint32_t op,
                                                tqredis_conn_slot *slot);

/* PINGs `ctx` until the server answers "PONG", sleeping one second between
 * other answers, without limit. 0 on "PONG"; -1 when the reply is missing
 * or an error (logged at level 4 "%s %s ping fail"). */
TQREDIS_API int tqredis_db_wait_ready(uint32_t db, uint32_t op,
                                      redisContext *ctx);

/* Names the connection "<process>-<operation>" on the server. 0 or -1. */
TQREDIS_API int tqredis_set_client_name(uint32_t db, uint32_t op,
                                        redisContext *ctx);

/* Connects slot [op][db] (connect, PING until "PONG", set the name). 0 when
 * connected now or already (no traffic then), -1 on failure. */
TQREDIS_API int tqredis_connect(uint32_t db, uint32_t op);

/* Connects every slot this card uses that is not connected yet: read and
 * pubsub of each existing database, write of databases 0 and 1 on a card
 * that is not the master. Takes no lock. Returns the last step's result. */
TQREDIS_API int tqredis_db_connect_nolock(void);

/* tqredis_db_connect_nolock() under the global lock. */
TQREDIS_API void tqredis_db_connect(void);

/* Drops slot [op][db] (note: operation first). A slot that was never
 * connected is left alone and the call returns. A live connection is freed
 * and the process ends through tqredis_exit(): a lost connection is never
 * repaired in place. */
TQREDIS_API void tqredis_disconnect(uint32_t op, uint32_t db);

/* Logs, copies "/tmp/tqredis//<process>.limitlog" into
 * "/var/tmp/coredump/" (by the library itself: no child process, no shell;
 * a symbolic link at the log path is refused with a level-8 line, a missing
 * log or folder leaves no copy) and ends the process with exit(0), or with
 * the exitstatus switch's value. Does not return. */
TQREDIS_API TQREDIS_NORETURN void tqredis_exit(uint32_t db);

/* ---- Reconnection --------------------------------------------------------- */

/* The reconnection thread's argument. */
typedef struct tqredis_reconnect_arg {
  uint32_t db;
  uint32_t op;
} tqredis_reconnect_arg;

/* Drops slot [op][db] (a live one ends the process), then, unless
 * (flag & 2), reconnects it, blocking until it is connected: 0. With
 * (flag & 2) returns -1 at once. */
TQREDIS_API int tqredis_db_try_reconnect(uint32_t db, uint32_t op,
                                         uint32_t flag);

/* Starts the reconnection thread for slot [op][db] and waits for it: returns
 * once the slot is connected, however long that takes. */
TQREDIS_API int tqredis_db_reconnect(uint32_t db, uint32_t op);

/* The reconnection thread: connects everything missing once a second until
 * its slot is connected. Takes no lock: its starter holds it. Returns NULL. */
TQREDIS_API void *tqredis_reconnect_thread(void *arg);

/* Copies the ids out of a tqredis_reconnect_arg: 0, or -1 for NULL or
 * out-of-range ids (outputs untouched). */
TQREDIS_API int tqredis_get_reconnect_db_op(void *arg, uint32_t *db,
                                            uint32_t *op);


/* ---- Global lock and sleep ----------------------------------------------- */

/* Makes the recursive mutex; called by the constructor. Ends the process
 * with exit(1), after a level-8 message, when the mutex cannot be made. */
TQREDIS_API void tqredis_lock_init(void);

/* Take and release the recursive process-wide lock once tqredis_init()
 * enabled it (flag & 2); before that, and without the flag, both do
 * nothing. Each lock needs one unlock. */
TQREDIS_API void tqredis_lock(void);
TQREDIS_API void tqredis_unlock(void);

/* Sleeps with select(); returns select's result. The library's one-second
 * step, always called with (1, 0); the pump waits in a select() of its own. */
TQREDIS_API int select_sleep(int sec, int usec);

/* ---- Debug levels, configuration and log files --------------------------- */

/* Console mask: a message of level L is printed on stdout when
 * (g_tqredis_dbg_level & L). Default 0; "dbglevel=" in the .dbg file. */
TQREDIS_API extern uint32_t g_tqredis_dbg_level;

/* Opens "/tmp/tqredis/<proc>.limitlog" and ".unlimitlog" (truncated; the
 * folder is made when missing) and reads "/data/tqredis/<proc>.dbg" (keys
 * "dbglevel=", "filelevel=", "timestat=" at the start of a line; numbers in
 * C notation). Called by the constructor. Returns 0. */
TQREDIS_API int tqredis_dbg_init(void);

/* Changes one setting: type 0 console mask, 1 file mask, 2 time statistics,
 * 3 command commit threshold, any other nothing. Always logs
 * "set type[%d] value=%d" at level 4 and returns that write's result. */
TQREDIS_API int tqredis_dbg_cfg(int type, uint32_t value);

/* ---- Safety switches ------------------------------------------------------ */
/* Per-process switches that turn a behaviour kept for compatibility into a
 * safe one. Every switch is 0 (off) unless set; off, the library behaves as
 * without it. Set at load by lines of "/data/tqredis/<proc>.dbg" (the key,
 * such as "replies=", at the start of its line, the number in C notation,
 * later lines win; a number that is missing or out of range is refused with
 * a level-8 line) and at run time by tqredis_set_option().
 *
 *   replies=1     read and free the replies of pipelined writes: before a
 *                 synchronous command on a connection, every outstanding
 *                 reply is read, so the command receives its own; arrived
 *                 replies are read without blocking at each flush and idle
 *                 wait, and in a blocking read past 1024 outstanding. An
 *                 error reply to a write is logged at level 8 with the
 *                 database and the write's first word (at most 11
 *                 characters; "(unknown)" for one sent with the switch off)
 *                 and counted. tqredis_basic_stats_show() then adds
 *                 "unread_replies=" and "reply_errors=" to each read and
 *                 write connection. Expiry and the pattern walks pipeline
 *                 their DELs as writes.
 *   waitlimit=MS  0..86400000: waits that otherwise never end give up after
 *                 MS milliseconds (0: never), measured on the monotonic
 *                 clock: the wait for tqredis_init() and the card
 *                 information, the PING probe, the reconnection, a
 *                 command's socket reads and writes (a socket time-out on
 *                 the read and write connections and on every connection's
 *                 handshake; never on an established pubsub connection,
 *                 which is read only when select() says it is readable).
 *                 The call then fails (NULL, or -1) after a level-8 line
 *                 "<db> <op> wait for <what> gave up after MS ms", <what>
 *                 being init, cardinfo, PONG, reconnect, reply or write.
 *                 TQREDIS_CMD_NO_RECONNECT then also returns at once from
 *                 the wait for the card information ("... gave up at once
 *                 (no reconnect)"). A command whose read or write timed out
 *                 leaves its connection unusable: the connection is freed
 *                 WITHOUT the fatal path (a silent server is not a lost
 *                 connection; the process goes on) and connected again on
 *                 the slot's next use. A connection the server closes still
 *                 takes the fatal path. Each wait has its own limit, so one
 *                 call that meets several waits may take a multiple of MS.
 *   exitstatus=N  0..255: the fatal path exits with N, after a level-8 line
 *                 naming the database and connection ("<db>[<op>] connection
 *                 lost, exit with status N") and a best-effort write of the
 *                 statistics to redis_host, each socket operation bounded by
 *                 waitlimit (1 s when 0).
 *   keepcopies=N  0..1000: the fatal path's copy of the limited log is named
 *                 "<proc>.<pid>.<YYYYmmdd-HHMMSS>.limitlog" (local time) in
 *                 "/var/tmp/coredump/", keeping at most N such copies of this
 *                 process name (the oldest by the time in the name, then the
 *                 pid, removed; no other file is touched).
 *   recordall=1   every command through tqredis_db_command() is recorded in
 *                 the outbound ring (its command word's key command id in
 *                 any case, 27 when none; its first argument as sent as the
 *                 key, cut to 127 characters). A read's elapsed time is its
 *                 round trip; a write is not timed. The library's own
 *                 statistics writes are not recorded, and the commands of
 *                 operations it records itself (a walk's SCAN pages, the
 *                 expiry's PEXPIRE, PTTL and DEL, the client status query)
 *                 keep their one record.
 *   hookwarn=MS   0..86400000: a subscription hook, the process-wide hook or
 *                 a replay callback that runs longer than MS milliseconds
 *                 (monotonic clock) is reported at level 8: "<which> hook
 *                 took <ms> ms[db=<db> pattern=<pattern> key=<key>]", which
 *                 being subscription, process or replay; the pattern is the
 *                 subscription's, or the walk's for replayed keys and scan
 *                 records (empty for a direct call). 0: no clock is read.
 *   reconnect=1   a live connection that is lost (the server closed it, a
 *                 socket error, a read or write that timed out under
 *                 waitlimit) is dropped WITHOUT the fatal path, after a
 *                 level-8 line "<db>[<op>] connection lost, reconnect in
 *                 place[error=<err> <errstr>]", and the process goes on:
 *                 - a read or write connection is connected again on its
 *                   next use by the command's reconnection (bounded by
 *                   waitlimit when set), and the command that met the loss
 *                   is tried once more: a read is sent again; a write that
 *                   was not yet written out is carried to the new
 *                   connection with every other unsent write, in order, and
 *                   never sent twice. Writes already written whose replies
 *                   were not read (known with replies=1) may or may not
 *                   have been carried out: they are logged at level 8
 *                   ("<db>[<op>] <n> written commands unconfirmed") and
 *                   counted. Carried writes wait for their own slot: after
 *                   a change of master they stay until that slot connects.
 *                 - a pubsub connection is connected again by
 *                   tqredis_pubsub() (one try a second per database): every
 *                   registered pattern is subscribed again and the data
 *                   checks run once, so whatever changed while it was away
 *                   is read again rather than missed.
 *                 A restore is logged at level 2 (">>>>%s[%s] connection
 *                 restored, restores=%u") and tqredis_basic_stats_show()
 *                 adds "restores=" to each connection and "unconfirmed=" to
 *                 each read and write connection. tqredis_exit() and
 *                 tqredis_disconnect() while the fatal path runs still end
 *                 the process.
 *   safe=1        every switch above that no line or call set takes its safe
 *                 value: replies=1 waitlimit=5000 exitstatus=75 keepcopies=8
 *                 recordall=1 hookwarn=100 reconnect=1.
 *
 * The socket folder: the environment variable TQREDIS_SOCKET_DIR, read at
 * load, names the folder of the three database sockets instead of
 * "/tmp/redis" (unset or empty: "/tmp/redis"); one trailing '/' is dropped.
 * A folder whose socket paths would not fit (unixpath, and the kernel's
 * 108-byte socket address) is refused with a level-8 line and "/tmp/redis"
 * is used. */

/* Sets the switch `name` (the key without '=', e.g. "waitlimit") to `value`
 * and logs it at level 4. Returns 0, or -1 after a level-8 line for an
 * unknown name (NULL included) or a value out of the switch's range. Takes
 * no global lock; safe from any thread. */
TQREDIS_API int tqredis_set_option(const char *name, long value);

/* The value in force of the switch `name`: what a line or a call set, else
 * its safe value when safe=1, else 0. -1 after a level-8 line for an
 * unknown name (no switch has a negative value). */
TQREDIS_API long tqredis_get_option(const char *name);

/* A connection event: slot (db, op) was lost (up 0) or restored (up 1). */
typedef void (*tqredis_conn_hook_f)(uint32_t db, uint32_t op, int up,
                                    void *arg);

/* Sets the process's connection-event hook and its argument (NULL: none).
 * Returns 0. Takes no global lock; safe from any thread.
 *
 * The hook is called only with reconnect=1 (without it a loss ends the
 * process and nothing is called): with up 0 right after a connection is
 * dropped, in the thread that met the loss; with up 1 after it is connected
 * again, in the thread that asked for the connection, once the connecting
 * is done. For each connection the calls alternate, a loss first. It runs
 * with the global lock held (when the lock is on), so it must be short and
 * must not wait for another thread that uses the library. It may read the
 * library's state (tqredis_db_is_connected(), tqredis_get_option()), set
 * flags and log; it must not run commands or connect (a command from a loss
 * event would reconnect from inside the drop). */
TQREDIS_API int tqredis_conn_hook_register(tqredis_conn_hook_f hook,
                                           void *arg);

/* The log file a message of `level` goes to: NULL unless the file mask has
 * `level`; the limited file for exactly 2, 4 or 8; the unlimited file for
 * exactly 1 or 16; NULL for any other value or a file that did not open.
 * The stream belongs to the library. */
TQREDIS_API FILE *tqredis_get_log_fp(uint32_t level);

/* Writes one line, "YYYYMMDD_hh:mm:ss.uuuuuu " and the formatted text, to
 * the file chosen by `level`, then flushes it. A file that reached 32769
 * bytes is written again from its start (not truncated). Returns 0 when no
 * file takes the level, else the result of fflush. Takes no lock. */
TQREDIS_API int tqredis_dbg_logfile(uint32_t level, const char *format, ...)
    TQREDIS_PRINTF(2, 3);

/* ---- Commands ------------------------------------------------------------- */

/* Flag bits of tqredis_db_command(). */
enum {
  TQREDIS_CMD_COMMIT = 1,      /* write out the pipeline now */
  TQREDIS_CMD_NO_RECONNECT = 2 /* NULL instead of reconnecting a slot */
};

/* Runs one command (a hiredis format and its arguments) on database `db`.
 * op 0 (read): sent on the read connection and waited for; returns the
 * reply, which the caller frees with tqredis_free_reply() (it may be an
 * error or nil reply: check it). op 1 (write) and 2 (pubsub): appended to
 * the connection's pipeline, written out once the commit threshold is
 * reached, on TQREDIS_CMD_COMMIT, or on the pump's idle tick; returns NULL
 * whether or not it worked. The replies of pipelined writes are never read,
 * so a later read on the same connection receives the oldest unread reply.
 * Blocks before tqredis_init() and, on databases 0 and 1, until the card
 * information is read (one-second steps, whatever the flags); then, while a
 * slot that is not connected is connected, unless TQREDIS_CMD_NO_RECONNECT,
 * which returns NULL instead. A connection lost while it was live ends the
 * process. NULL without blocking for db or op above 2 or a NULL format.
 * `ignored` has no effect (pass -1). Holds the global lock throughout,
 * except for each one-second sleep of the wait for the card information.
 * The format is checked by the compiler as a printf format, so hiredis's
 * binary "%b" is not available through this call. The request is the one
 * hiredis makes of the format, byte for byte; formats of words, spaces, %s,
 * %% and %d, %i, %u (also with l or ll), up to 16 arguments, are written
 * straight into the output buffer without an allocation of their own, and
 * any other format (widths, flags, other bases, floating point) costs
 * hiredis's formatting. */
TQREDIS_API redisReply *tqredis_db_command(int db, int op, int ignored,
                                           uint32_t flag, const char *format,
                                           ...) TQREDIS_PRINTF(5, 6);

/* Sets the number of pipelined writes at which a connection's output buffer
 * is written out (32 at load). No check of the value. */
TQREDIS_API void tqredis_set_cmd_commit_thres(uint32_t thres);

/* Writes out slot [op][db]'s pipeline when due: with (flag & 1) when
 * anything is pending, else once the threshold is reached. 0 when nothing
 * was due, the slot is not connected, or the write completed; -1 when the
 * write failed. REQUIRES: the global lock. */
TQREDIS_API int tqredis_commit_command(uint32_t db, uint32_t op, uint32_t flag);

/* Writes out the pipelines of every read and write slot. Takes the lock. */
TQREDIS_API void tqredis_commit_command_all(void);

/* 1 when db and op are below 3 and format is not NULL; else logs at level 8
 * "input arguments invalid, db=%d op=%d" and returns 0. */
TQREDIS_API int tqredis_db_command_param_check(uint32_t db, uint32_t op,
                                               const char *format);

/* The operation of the slot that carries a command of `op` on `db`: writes
 * use the write slot only on a card that is not the master. */
TQREDIS_API int tqredis_calc_dbop(uint32_t db, uint32_t op);

/* Runs one command on slot [dbop][db] (op is the caller's). 0 on success,
 * the reply of a read stored in *reply_out (the caller's); -1 on failure,
 * logged at level 8. REQUIRES: the global lock and a connected slot. */
TQREDIS_API int tqredis_exec_command(uint32_t db, uint32_t op, uint32_t dbop,
                                     uint32_t flag, const char *format,
                                     va_list ap, redisReply **reply_out);

/* Counts one data check on the pubsub slot of `db`. REQUIRES: the lock. */
TQREDIS_API void tqredis_datacheck_num_inc(uint32_t db);

/* ---- Replies: checking, printing, converting, freeing -------------------- */

/* Value kinds of tqredis_convert_reply_value() and the getters. */
enum { TQREDIS_VALTYPE_INT = 0, TQREDIS_VALTYPE_STR = 1 };

/* 1 if `reply` (not NULL) is usable: a string with text, an integer, a
 * status, or an array whose elements are all usable (an empty array is
 * usable but logs "elements zero"). Nil, error and unknown types are not
 * (0), each logged at level 1. Unprefixed name, kept for the interface. */
TQREDIS_API int check_reply(redisReply *reply);

/* check_reply() that also takes NULL (logs "reply = NULL", gives 0) and
 * prints an unusable reply at debug level 16. The caller still owns the
 * reply afterwards. */
TQREDIS_API int tqredis_check_reply(redisReply *reply);

/* Frees a reply returned by the library; NULL is only logged. */
TQREDIS_API void tqredis_free_reply(redisReply *reply);

/* Prints a reply on stdout in the library's fixed form, only while
 * g_tqredis_dbg_level has bit 16; never into the log files. */
TQREDIS_API void tqredis_print_reply(redisReply *reply);

/* Converts one reply: valtype 0 stores an integer reply's low 32 bits, or
 * strtol(str, NULL, base) of any other reply, in *intval; valtype 1 stores
 * str and len (pointing into the reply) in *strval and *len. Returns 0, -1
 * for any other valtype (outputs untouched), -2 for a NULL reply or output
 * pointer, or a text to convert that is missing. */
TQREDIS_API int tqredis_convert_reply_value(redisReply *reply, int valtype,
                                            int *intval, int base,
                                            char **strval, int *len);

/* ---- Key value getters ---------------------------------------------------- */
/* Each getter checks the whole reply first (tqredis_check_reply), then its
 * own arguments, then converts one element. None frees the reply; strings
 * handed out point into it. Outputs are written only when 0 is returned.
 * Bases go unchanged to strtol (0 lets the text choose); a negative base is
 * refused. Rejected replies are printed at debug level 16. */

/* The core, without the reply check: an integer reply read as an integer
 * (valtype 0), or a string reply read either way. -4 for an integer reply
 * asked as a string and for any other type; -1 for an unknown valtype on a
 * string reply; -2 for a NULL reply, or a NULL output for the kind asked. */
TQREDIS_API int tqredis_get_key_reply(redisReply *reply, int valtype,
                                      int *intval, int base, char **strval,
                                      int *len);

/* The reply's value as an int: 0, -2 (unusable reply, NULL output, negative
 * base), -4 (not an integer or string reply). */
TQREDIS_API int tqredis_get_key_reply_intval(redisReply *reply, int *intval,
                                             int base);

/* The reply's text and length: 0, -2 (unusable reply or NULL output), -4
 * (integer or other non-string reply). */
TQREDIS_API int tqredis_get_key_reply_strval(redisReply *reply, char **strval,
                                             int *len);

/* 1 if `reply` is an array with a usable element `index`, else 0 (logged);
 * a NULL reply gives 0. Only that element is checked. */
TQREDIS_API int tqredis_check_array_reply(redisReply *reply, uint32_t index);

/* Element `index` of an array reply as an int / as text: 0, -2 (unusable
 * reply, bad index, NULL output, negative base), -4 (element of another
 * type). Every element of the array must be usable. */
TQREDIS_API int tqredis_get_key_array_reply_intval(redisReply *reply,
                                                   int index, int *intval,
                                                   int base);
TQREDIS_API int tqredis_get_key_array_reply_strval(redisReply *reply,
                                                   int index, char **strval,
                                                   int *len);

/* In a field/value array (HGETALL), the value element of the first field
 * equal to `field` (case-sensitive); NULL when absent, when the array's
 * length is odd or below 2, or when `reply` or `field` is NULL. Field
 * elements that are unusable or carry no text are skipped. The reply's type
 * and the value found are not examined. The element belongs to the reply. */
TQREDIS_API redisReply *tqredis_search_field_element(redisReply *reply,
                                                     const char *field);

/* The value of `field` in a field/value array, without the reply check:
 * 0, -1 (unknown valtype), -2 (NULL reply or field, NULL output, or a value
 * without text read as an integer), -4 (not an array), -5 (no such field).
 * The value's type is not examined. */
TQREDIS_API int tqredis_get_key_reply_by_field(redisReply *reply,
                                               const char *field, int valtype,
                                               int *intval, int base,
                                               char **strval, int *len);

/* The same, checked, as an int / as text: 0, -2 (unusable reply, NULL
 * argument, negative base), -4, -5. */
TQREDIS_API int tqredis_get_key_reply_intval_by_field(redisReply *reply,
                                                      const char *field,
                                                      int *intval, int base);
TQREDIS_API int tqredis_get_key_reply_strval_by_field(redisReply *reply,
                                                      const char *field,
                                                      char **strval, int *len);

/* Members of a set reply (SMEMBERS), or -1 for an unusable, non-array or
 * empty reply: an empty set gives -1, not 0. */
TQREDIS_API int tqredis_get_sets_size(redisReply *reply);

/* Field/value pairs of a hash reply (HGETALL), or -1 for an unusable,
 * non-array, empty or odd-sized reply. */
TQREDIS_API int tqredis_get_hashes_size(redisReply *reply);

/* ---- Subscription registry ----------------------------------------------- */
/* Three subscription lists (one per database), a list of data checks and
 * one process-wide message hook. The lists only grow: nothing is ever
 * removed or freed. List changes and walks hold the global lock. */

/* One registered subscription (heap, never freed). `flag` is 1 while the
 * pattern is subscribed on the database's pubsub connection. */
typedef struct tqredis_pubsub_node {
  struct tqredis_pubsub_node *next; /* circular list of its database */
  struct tqredis_pubsub_node *prev;
  uint32_t key_db;
  char key_pattern[128];            /* at most 127 characters, NUL-ended */
  tqredis_pmsg_hook_f hook;
  void *hook_arg;
  int32_t dbid;                     /* Redis logical database: always 0 */
  uint8_t flag;
} tqredis_pubsub_node;

/* Registers the subscription table and the data check: makes the lists
 * (tqredis_pubsub_list_init), registers data_check_f, then the table.
 * Called by tqredis_init() with its first three arguments. Returns 0; -2
 * when data_check_f is NULL (then no subscription is registered, on
 * purpose); -3 when memory ran out; -1 for a NULL table or mng_size <= 0
 * (the data check is registered all the same). */
TQREDIS_API int tqredis_init_pubsub(pubsub_mng *mng, int mng_size,
                                    tqredis_data_check_f data_check_f);

/* Makes the four lists empty the first time; later calls keep what was
 * registered. Takes the global lock. */
TQREDIS_API void tqredis_pubsub_list_init(void);

/* Appends a data check, called as data_check_f(db) after the subscriptions
 * of `db` were (re)made. The same function twice is called twice. 0; -2
 * for NULL ("data_check_f is NULL", level 8); -3 when memory ran out. */
TQREDIS_API int tqredis_data_check_register(tqredis_data_check_f data_check_f);

/* 1 when the entry's key_db is below 3 and its hook is set, else 0. */
TQREDIS_API int tqredis_pubsub_mng_check(pubsub_mng *mng);

/* Appends one node per valid entry, in table order, copying at most 127
 * characters of each pattern; invalid entries are skipped and logged at
 * level 8 ("pubsub_mng[%d] invalid, key_db=%d", showing entry 0's key_db).
 * No duplicate check. 0 (also with skipped entries); -1 for a NULL table or
 * mng_size <= 0; -3 when memory ran out (earlier nodes stay). */
TQREDIS_API int tqredis_pubsub_register(pubsub_mng *mng, int mng_size);

/* Sets the process-wide hook, called after the subscription's own hook for
 * every notification delivered. 0; -2 for a NULL hook (the previous one
 * stays). Takes no lock. */
TQREDIS_API int tqredis_pmsg_hook_register(tqredis_pmsg_hook_f hook,
                                           void *hook_arg);

/* Prints each database's data check byte and subscription list on stdout
 * ("%s datacheck: %d", "%s pubsublist:", "\tdbid=%d key_pattern=%s
 * flag=%d", lines ending in "\r\n"). Takes the global lock. */
TQREDIS_API void tqredis_pubsub_stats_show(void);

/* ---- Subscribing and data check ------------------------------------------ */

/* Subscribes one node with "PSUBSCRIBE __keyspace@%d__:%s" (dbid, pattern)
 * on its database's pubsub connection. 1: already subscribed, nothing sent;
 * 0: subscribed now; -1: the pubsub slot is not connected, or the server
 * refused (the connection is then dropped, which ends the process when it
 * was live). REQUIRES: the global lock. */
TQREDIS_API int tqredis_psubscrible(tqredis_pubsub_node *node); /* sic */

/* Forgets the subscriptions of `db` once its pubsub connection is gone:
 * clears every node's flag, or the data check byte of a database without
 * subscriptions. Refused (level 8) while the slot is connected. REQUIRES:
 * the global lock. */
TQREDIS_API void tqredis_psubflag_clear(uint32_t db);

/* Subscribes every pattern of `db` that is not yet subscribed and returns 1
 * when the data check is due: after a pass that found no standing
 * subscription (the first pass, and the first after each lost connection),
 * or, for a database without subscriptions, once until its byte is cleared.
 * REQUIRES: the global lock. */
TQREDIS_API int tqredis_db_need_data_check(uint32_t db);

/* The host's periodic call: for each database, makes the missing
 * subscriptions and, when due and its pubsub slot is connected, runs every
 * data check with the database id, in registration order. Holds the global
 * lock throughout, so data checks may issue commands. */
TQREDIS_API void tqredis_db_psubscrible(void); /* sic */

/* ---- Notification pump ---------------------------------------------------- */

/* The host's main-loop call: waits at most 100 ms for notifications on the
 * connected pubsub slots and delivers every one that arrived (one socket
 * read per readable connection, then what the reader holds) to its
 * subscription's hook and then to the process-wide hook, under the global
 * lock. A wait that finds nothing flushes every pipelined write and counts
 * an idle tick; every 600th writes the operation statistics. 0; -1 when
 * select failed ("slect fail for %s", level 8). A pubsub connection that
 * fails while reading was live, so losing it ends the process. Call it from
 * one thread only. */
TQREDIS_API int tqredis_pubsub(void);

/* Clears `set` and adds the descriptor of every connected pubsub slot.
 * Returns the highest descriptor added, -1 when none is connected. */
TQREDIS_API int tqredis_reste_fdset(fd_set *set); /* sic */

/* Delivers every notification buffered for `db`'s pubsub slot. 1 when all
 * were delivered; otherwise the connection failed and was dropped.
 * REQUIRES: the global lock. */
TQREDIS_API int tqredis_get_pubsub(uint32_t db);

/* The next notification of `db`'s pubsub slot: the first call after a
 * drain reads the socket once; later calls parse only what is buffered. 0
 * with *reply set (the caller frees it); 1 when nothing more is buffered;
 * -1 on a read or protocol error. REQUIRES: the global lock. */
TQREDIS_API int tqredis_get_pubsub_reply(uint32_t db, redisReply **reply);

/* 1 when `reply` has the shape of a notification: an array of 5 elements
 * whose elements 0..3 are usable and whose channels (elements 1 and 2)
 * contain ':'. A nil or error value element is allowed ("reply invalid" is
 * logged at level 8 and the notification still delivered). 0 otherwise,
 * with the reason at level 8. */
TQREDIS_API int tqredis_check_pubsub_reply(redisReply *reply);

/* Fills pmsg->key (channel text after its first ':', 127 characters at
 * most), pmsg->cmd (key command id of the event name, 27 when none) and
 * pmsg->value (element 4, owned by the reply). 0; -2 when either pointer is
 * NULL or the reply lacks that shape (nothing filled then). */
TQREDIS_API int tqredis_get_pmsg_by_reply(redisReply *reply, tqredis_pmsg *pmsg);

/* Delivers one notification of `db`: to the first subscription of `db`
 * whose pattern equals the pattern the server echoed (timed as an inbound
 * operation), then to the process-wide hook. 0 when delivered or when no
 * subscription matches (dropped silently); -2 for a malformed notification
 * ("pmessage invalid", level 8). The reply stays the caller's. */
TQREDIS_API int tqredis_db_deal_pmsg(uint32_t db, redisReply *reply);

/* Calls the process-wide hook with `pmsg` and its argument; returns what it
 * returns, or 0 when none is registered. */
TQREDIS_API int tqredis_call_pmsg_hook(tqredis_pmsg *pmsg);

/* ---- Operation records and statistics ------------------------------------- */
/* The last 32 inbound operations (notifications handled, keys replayed) and
 * the last 32 outbound ones (writes), each ring with its slowest record and
 * a total; and a snapshot pair of the last inbound operation with the
 * marked outbound write after it. Static storage, guarded by the global
 * lock; recording allocates nothing. */

/* One operation. The layout crosses the interface (244 bytes). */
typedef struct tqredis_op_record {
  int32_t tid;           /* kernel thread id; 0 with time statistics off */
  char time[32];         /* start, "%04d%02d%02d_%02d:%02d:%02d.%lu" local */
  char db[32];           /* database name */
  char key[128];         /* key or argument, at most 127 characters */
  char cmd[32];          /* key command name */
  uint32_t start_sec;    /* time of day at recording */
  uint32_t start_usec;
  int32_t elapsed_sec;   /* start to end of handling; 0 until measured */
  int32_t elapsed_usec;  /* 0..999999 */
} tqredis_op_record;

/* The last inbound operation and the marked outbound write after it. */
typedef struct tqredis_op_snap {
  tqredis_op_record in;
  tqredis_op_record out;
} tqredis_op_snap;

/* One ring of 32 records. While count is below 32 the records are slots
 * 0..count-1, oldest first; then the oldest is at `index`. */
typedef struct tqredis_op_log {
  tqredis_op_record records[32];
  tqredis_op_record peak;  /* the longest elapsed time since load */
  uint32_t index;          /* slot the next record goes to */
  uint32_t count;          /* valid records, 0..32 */
  uint32_t total;          /* records since load (wraps) */
} tqredis_op_log;

/* Fills `rec` for an operation starting now: 0; -1 (rec untouched) for a
 * key containing "arch/ham" or "arch/at", which is never recorded.
 * REQUIRES: the global lock, key not NULL, db < 3, keycmd < 28. */
TQREDIS_API int tqredis_db_cmd_record(tqredis_op_record *rec, const char *key,
                                      int keycmd, int db);

/* Advances a ring after a record was written at its index. 1 when count was
 * below 32 before the call, else 0. REQUIRES: the global lock. */
TQREDIS_API uint32_t tqredis_db_log_index_update(tqredis_op_log *log);

/* Writes one ring into redis_host through the pipelined write path:
 * "HMSET /arch/mom/<proc>/<dir>/stats" with cmd_total and cmd_peak, then
 * one "SET /arch/mom/<proc>/<dir>/<n>" per record, n = 0 the oldest. Values
 * read "<time>-<db>-<cmd>-<key>-time=<s>.<us>-tid=<tid>" (microseconds not
 * padded). `dir` is "in" or "out". REQUIRES: the global lock. */
TQREDIS_API void tqredis_db_write_log(tqredis_op_log *log, const char *dir);

/* Writes both rings ("in", "out") into redis_host. Takes the global lock. */
TQREDIS_API void tqredis_db_save_log(void);

/* Print one ring / one snapshot pair on stdout, whatever the debug masks. */
TQREDIS_API void tqredis_db_print_log(tqredis_op_log *log, const char *name);
TQREDIS_API void tqredis_db_print_snap(tqredis_op_snap *snap, const char *name);

/* Prints the rings "in_log" and "out_log" and the snapshots "snap" and
 * "ham_snap" on stdout. Takes the global lock. */
TQREDIS_API void tqredis_db_show_log(void);

/* Prints the connection, card information and subscription statistics on
 * stdout, in that order. */
TQREDIS_API void tqredis_db_show_stats(void);

/* ---- Command tracing and time statistics ---------------------------------- */

/* Start of an inbound / outbound operation: records it in its ring and
 * logs ">>>>IN_LOG ..." / ">>>>OUT_LOG ..." at level 1. An inbound record
 * becomes the snapshot's inbound half (and empties its outbound half); an
 * outbound one becomes its outbound half only when (flag & 1). Returns the
 * slot, to pass to the matching end call on the same thread, or -1: a NULL
 * key, db >= 3 or keycmd >= 28 (logged at level 8), or a key that is never
 * recorded. Takes the global lock. */
TQREDIS_API int tqredis_db_in_log(const char *key, uint32_t keycmd,
                                  uint32_t db, uint32_t flag);
TQREDIS_API int tqredis_db_out_log(const char *key, uint32_t keycmd,
                                   uint32_t db, uint32_t flag);

/* End of an operation: with time statistics on, and on the thread that
 * recorded it, stores its elapsed time and keeps it as the ring's peak when
 * strictly longer. Nothing with time statistics off. Takes the global
 * lock. */
TQREDIS_API void tqredis_db_log_stat(tqredis_op_log *log, uint32_t slot);
TQREDIS_API void tqredis_db_in_log_stat(uint32_t slot);
TQREDIS_API void tqredis_db_out_log_stat(uint32_t slot);

/* Copies the snapshot pair into *buf (zeros when its halves come from two
 * different threads), keeps it as "ham_snap" and empties it. 0; -2 for a
 * NULL buf. Takes the global lock. */
TQREDIS_API int tqredis_get_db_op_snap(tqredis_op_snap *buf);

/* ---- Key expiry ----------------------------------------------------------- */
/* Times to live in milliseconds. The commands go through
 * tqredis_db_command(), so they wait and reconnect as it does, and each is
 * traced as an outbound operation before it is sent. */

/* Per-key function of the pattern walk (tqredis_key_pattern_walkthrough):
 * called with the database id, one key that matched and the walk's `arg`.
 * The key's text belongs to the SCAN reply and is valid only during the
 * call. The result is ignored. */
typedef int (*tqredis_key_func_f)(int db, const char *key, void *arg);

/* Gives `key` a time to live of `ageing_time` ms ("PEXPIRE %s %d") and
 * writes it out at once. 0 once sent (a failure of the command itself is
 * not reported); -2, with "input arguments invalid: db=%d ageing_time=%d"
 * at level 1 and nothing sent, for db >= 3, a NULL key or ageing_time <= 0.
 * An empty key is sent as it is. */
TQREDIS_API int tqredis_pexpire_key(uint32_t db, const char *key,
                                    int ageing_time);

/* The per-key form: `arg` points to an int holding the time to live in ms,
 * which is sent as it is, zero or negative included. Always 0; a NULL key
 * or arg sends nothing. */
TQREDIS_API int tqredis_key_pexpire(int db, const char *key, void *arg);

/* Deletes `key` only if it carries a time to live: reads "PTTL %s" and,
 * for a result of 0 or more, sends "DEL %s". Keys without one (-1) and
 * missing keys (-2) are left alone. `arg` is ignored. 0 done; -1 when the
 * time to live could not be read ("PTTL get expire time fail, rv=%d", level
 * 1; rv -2 for no reply or a NULL key). Nothing is held between the read
 * and the delete, so the key may change in between.
 * Where writes share the read connection (always for redis_host, for every
 * database on the master card, and while the card information is unknown),
 * the PEXPIRE and DEL of these three functions are sent on the read path
 * and their replies read and freed at once: a reply left unread there would
 * be handed to the next read, such as the walk's next PTTL or SCAN. On a
 * card with write connections they are pipelined writes (the DEL waits for
 * the commit threshold). */
TQREDIS_API int tqredis_expire_key_del(int db, const char *key, void *arg);

/* ---- Key pattern scan ----------------------------------------------------- */
/* Walks a database with "SCAN %d MATCH %s COUNT %d" until the cursor comes
 * back 0. `count` is the COUNT hint of every SCAN call (no default). Each
 * SCAN is traced as an outbound "scan" of the pattern. A key may be visited
 * twice or missed when the database changes during the walk. Exactly one
 * SCAN reply (and one value reply) is alive at a time. The walk holds no
 * lock: each command takes the global lock, and callbacks and hooks run on
 * the calling thread between commands. */

/* Replay kinds of tqredis_scan_key_pattern(): how each key's value is read
 * and which key command the record carries. Any other kind reads nothing. */
enum {
  TQREDIS_SCAN_STRING = 0, /* "GET %s", reported as "set" (0) */
  TQREDIS_SCAN_HASH = 1,   /* "HGETALL %s", reported as "hset" (2) */
  TQREDIS_SCAN_SET = 2     /* "SMEMBERS %s", reported as "sadd" (4) */
};

/* 1 when `reply` is usable as a SCAN reply: an array of exactly 2 elements
 * whose element 0 (the cursor) is a usable text. Otherwise 0, with "check
 * scan reply fail", "reply invlaid, type=%d elements=%zu" or "element[0]
 * invlaid" at level 1 (the spelling is kept). */
TQREDIS_API int tqredis_check_scan_reply(redisReply *reply);

/* 1 when `keys` (element 1 of a SCAN reply) is a usable array, else 0 with
 * "scan reply check fail" or "key subreply invlaid, type=%d elements=%zu"
 * at level 1. */
TQREDIS_API int tqredis_check_scan_key_reply(redisReply *keys);

/* Replays one page of keys of `db` as if each had just been written: reads
 * each key's value as `kind` says, then with a usable value fills a
 * notification record (db, key cut to 127 characters, key command, value,
 * reserved 0), traces it as an inbound operation marked as replayed (flag
 * 1), calls callback(&record, arg) (timed), then hands the same record to
 * the process-wide hook. A key whose value is unusable is skipped ("check
 * value reply fail", level 1). The value is freed as soon as the callback
 * and the hook return: neither may keep it. A key list that is not a
 * usable array is printed (debug level 16) and nothing is read. Elements
 * without text are skipped. A NULL callback or db >= 3 reads nothing. */
TQREDIS_API void tqredis_scan_key_get(uint32_t db, redisReply *keys,
                                      tqredis_pmsg_hook_f callback, void *arg,
                                      int kind);

/* Replays every key of `db` that matches `pattern`, page by page, through
 * tqredis_scan_key_get(): a process that subscribes learns of later
 * changes only, and this hands it the keys that already exist, in the same
 * record as a notification. 0 when the cursor came back 0; -1 when a SCAN
 * reply is unusable (keys of earlier pages have been delivered); -2, with
 * "input arguments invalid, db=%d count=%d" at level 1 and nothing sent,
 * for db >= 3, a NULL or empty pattern, count < 1 or a NULL callback. */
TQREDIS_API int tqredis_scan_key_pattern(uint32_t db, const char *pattern,
                                         int count,
                                         tqredis_pmsg_hook_f callback,
                                         void *arg, int kind);

/* Calls function(db, key, arg) for every key of `db` that matches
 * `pattern`. Before the keys of each SCAN call, the process-wide hook gets
 * a cleared record with db, key = the pattern (127 characters at most) and
 * key command "scan" (22), also for a call that returned no key. 0 when the
 * cursor came back 0; -1 for an unusable SCAN reply or key list (keys of
 * earlier pages have been handed out); -2 as tqredis_scan_key_pattern()
 * for bad db, pattern or count. A NULL function is accepted: the walk then
 * only feeds the hook. */
TQREDIS_API int tqredis_key_pattern_walkthrough(uint32_t db,
                                                const char *pattern, int count,
                                                tqredis_key_func_f function,
                                                void *arg);

/* Walks with tqredis_expire_key_del(): deletes every matching key that has
 * a time to live. Results as the walk. */
TQREDIS_API int tqredis_del_expire_key_pattern(uint32_t db,
                                               const char *pattern, int count);

/* Walks with tqredis_key_pexpire(): gives every matching key a time to live
 * of `ageing_time` ms (not checked for being positive). Note the order:
 * the time comes before the count. Results as the walk. */
TQREDIS_API int tqredis_pexpire_key_pattern(uint32_t db, const char *pattern,
                                            int ageing_time, int count);

/* ---- Client status -------------------------------------------------------- */
/* How the connections of a process (named "<process>-<operation>" on the
 * servers) are doing, as a database server that answers "CLIENT LIST
 * <name>" with "offline" or one status line reports it. */

/* One connection's status, filled in the caller's memory: the layout is
 * fixed (452 bytes on i386, 456 on MIPS, ARM and x86_64, where 64-bit
 * fields are 8-byte aligned). The figures mean something only while
 * `online` is 1; a failed query resets `online` alone. Text fields hold at
 * most 63 characters and are NUL-terminated once scanned. */
typedef struct tqredis_client_status {
  uint8_t online; /* 1: a status line was received and parsed */
  int32_t id;
  char addr[64];
  int32_t fd;
  char name[64];
  long long age;
  long long idle;
  char flags[64];
  int32_t db;
  int32_t sub;
  int32_t psub;
  int32_t multi;
  long long cmd_num;
  long long cmd_per_sec;
  long long in_bytes;
  long long out_bytes;
  long long in_bps;
  long long out_bps;
  unsigned long long qbuf;
  unsigned long long qbuf_free;
  unsigned long long obl;
  unsigned long long oll;
  unsigned long long omem;
  char events[64];
  char cmd[64];
} tqredis_client_status;

/* Parses one status line ("id=%d addr=%s fd=%d name=%s age=%lld ...
 * events=%s cmd=%s") into `st`: 1 when all 24 figures were stored, else 0.
 * The first `len` characters equal to the start of "offline" (so also an
 * empty string) give 0 with "offline" at level 1; a line that yields any
 * other count gives 0 with "status str invalid, rv=%d %s" (figures scanned
 * before the mismatch keep their new values). A token longer than 63
 * characters is cut and, unless it is the last, stops the scan. `str` must
 * be NUL-terminated. Does not set st->online. NULL str or st: 0. */
TQREDIS_API int tqredis_parse_dbstatus(const char *str, size_t len,
                                       tqredis_client_status *st);

/* Asks database `db` for the status of the read, write and pubsub
 * connections of process `proc` ("CLIENT LIST %s-%s", on the read path,
 * without reconnecting) and fills st[0], st[1], st[2] (indexed by
 * operation). The write connection is not asked for, and st[1] is offline,
 * when this card writes `db` through its read connection. A connection that
 * is offline, not answered, or answered with anything but a full status
 * line gets online 0 (logged at level 1); the others online 1 with their
 * figures. Returns 0 whatever the connections' states; -2, with "input
 * arguments invalid" at level 8 and nothing written, for a NULL or empty
 * proc or a NULL st. A db of 3 or more is refused by the command path: all
 * three offline. */
TQREDIS_API int tqredis_get_proc_dbstatus(uint32_t db, const char *proc,
                                          tqredis_client_status st[3]);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TQREDIS_H_ */
