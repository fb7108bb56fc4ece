/* A small device process: loads tqredis, initialises it, turns the console
 * log on and shows what the library knows about itself. */
#include <stdio.h>

#include "tqredis.h"

int main(void) {
  int rv;

  printf("== %s: tqredis loaded (constructor already ran)\n", g_tqredis_proc_name);

  /* No subscriptions yet; flag 2 switches the global lock on, for a host
   * whose threads share the library. */
  rv = tqredis_init(NULL, 0, NULL, 2);
  printf("== tqredis_init returned %d, init_ok=%u\n", rv, (unsigned)g_tqredis_init_ok);

  /* Console mask: life-cycle events, warnings and errors. The change itself
   * is logged at level 4, so this line appears on the console. */
  tqredis_dbg_cfg(0, TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR);

  /* Send warnings to the limited log file as well as life-cycle events. */
  tqredis_dbg_cfg(1, TQREDIS_LOG_LIFE | TQREDIS_LOG_WARN | TQREDIS_LOG_ERROR);

  printf("== databases present: %s=%d %s=%d %s=%d\n", g_tqredis_dbstr[0],
         tqredis_db_exist(0), g_tqredis_dbstr[1], tqredis_db_exist(1),
         g_tqredis_dbstr[2], tqredis_db_exist(2));

  printf("== library statistics:\n");
  tqredis_basic_stats_show();

  printf("== log file: /tmp/tqredis/%s.limitlog\n", g_tqredis_proc_name);
  fflush(stdout);
  return 0;
}
