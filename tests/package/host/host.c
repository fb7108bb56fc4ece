/* A host program built against an installed tqredis: it loads the library,
 * names the shared object it was given, and reads a few answers that need no
 * server. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>

#include <tqredis.h>

int main(void) {
  Dl_info info;
  if (dladdr((void *)tqredis_db_exist, &info) == 0 || info.dli_fname == NULL) {
    printf("library: unknown\n");
    return 1;
  }
  printf("library: %s\n", info.dli_fname);
  printf("databases: %s %s %s\n", g_tqredis_dbstr[0], g_tqredis_dbstr[1],
         g_tqredis_dbstr[2]);
  printf("redis_host exists: %d\n", tqredis_db_exist(TQREDIS_DB_HOST));
  printf("initialised: %d\n", g_tqredis_init_ok);
  return 0;
}
