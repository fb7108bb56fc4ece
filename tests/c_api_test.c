/* The public header compiles as strict C99 and every declared name links. */
#include "tqredis.h"

#include <stdio.h>

static int on_notification(tqredis_pmsg *pmsg, void *arg) {
  (void)pmsg;
  (void)arg;
  return 0;
}

typedef void (*any_fn)(void);

int main(void) {
  pubsub_mng entry = {TQREDIS_DB_HOST, "/arch/*", on_notification, NULL};
  any_fn fns[] = {
      (any_fn)tqredis_initial,        (any_fn)tqredis_final,
      (any_fn)tqredis_parse_proc_name, (any_fn)tqredis_init,
      (any_fn)tqredis_db_exist,       (any_fn)tqredis_basic_stats_show,
      (any_fn)tqredis_init_connect_mng, (any_fn)tqredis_init_pubsub,
      (any_fn)tqredis_cardinfo_init,  (any_fn)tqredis_lock_init,
      (any_fn)tqredis_lock,           (any_fn)tqredis_unlock,
      (any_fn)select_sleep,           (any_fn)tqredis_dbg_init,
      (any_fn)tqredis_dbg_cfg,        (any_fn)tqredis_get_log_fp,
      (any_fn)tqredis_dbg_logfile,    (any_fn)tqredis_set_cmd_commit_thres,
      (any_fn)check_reply,            (any_fn)tqredis_check_reply,
      (any_fn)tqredis_free_reply,     (any_fn)tqredis_print_reply,
      (any_fn)tqredis_convert_reply_value};
  size_t i;
  (void)entry;
  for (i = 0; i < sizeof(fns) / sizeof(fns[0]); ++i) {
    if (fns[i] == NULL) return 1;
  }
  if (g_tqredis_dbstr[2] == NULL || g_tqredis_opstr[2] == NULL ||
      g_tqredis_keycmd_str[27] == NULL || g_tqredis_proc_name[0] == '\0') {
    return 1;
  }
  printf("%s %u %u\n", g_tqredis_keycmd_str[TQREDIS_KEYCMD_OTHER],
         (unsigned)g_tqredis_dbg_level, (unsigned)g_tqredis_init_ok);
  return 0;
}
