/* A host process built against the installed Debian packages: it names the
 * shared object it loaded, writes and reads a key in redis_host, asks the
 * database about its own read connection (which only the device's servers,
 * or their emulator, answer), and leaves its operation statistics for
 * tqredis-stat. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>

#include <tqredis.h>

int main(void) {
  Dl_info info;
  char *text = NULL;
  int len = 0;
  redisReply *reply;
  tqredis_client_status st[3];

  if (dladdr((void *)tqredis_init, &info) == 0 || info.dli_fname == NULL) {
    printf("library: unknown\n");
    return 1;
  }
  printf("library: %s\n", info.dli_fname);
  /* No subscriptions and no data check: -2 is the expected answer. */
  tqredis_init(NULL, 0, NULL, 0);
  if (tqredis_connect(TQREDIS_DB_HOST, TQREDIS_OP_READ) != 0) {
    printf("cannot reach redis_host\n");
    return 1;
  }
  /* On the read path, so that the reply is read and not left pipelined. */
  tqredis_free_reply(tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                                        "SET debhost:greeting %s",
                                        "hello from C"));
  reply = tqredis_db_command(TQREDIS_DB_HOST, TQREDIS_OP_READ, -1, 0,
                             "GET debhost:greeting");
  if (tqredis_get_key_reply_strval(reply, &text, &len) != 0) {
    printf("GET failed\n");
    return 1;
  }
  printf("value: %.*s\n", len, text);
  tqredis_free_reply(reply);
  tqredis_get_proc_dbstatus(TQREDIS_DB_HOST, g_tqredis_proc_name, st);
  printf("own read connection online: %d\n", st[0].online);
  tqredis_db_save_log();
  tqredis_commit_command_all();
  return 0;
}
