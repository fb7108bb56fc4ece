// The wiring of the whole library: the load-time set-up, the host's
// tqredis_init(), and the statistics front end. The one place that knows
// every part; nothing below includes it.
#include <signal.h>

#include <cstdio>

#include "command/command.h"
#include "connect/cardinfo.h"
#include "connect/connect.h"
#include "connect/table.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/options.h"
#include "core/state.h"
#include "pubsub/pubsub.h"
#include "records/records.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_connect_mng;
using tqredis::detail::kLogLife;

namespace {

// The fatal path's last write of the operation statistics, best effort. Each
// socket operation on redis_host gives up after the wait limit (1 s when
// none is set): a connection that fails meanwhile is dropped, and every write
// after it fails at once, so no write waits on a server that has gone. Skipped
// when no command could be sent without waiting: before tqredis_init(), before
// the card information, or when the slot that carries the writes is down
// (perhaps the very connection that was lost).
void WriteStatsBeforeExit() {
  if (!g_tqredis_init_ok ||
      tqredis_get_write_connext_stats(TQREDIS_DB_HOST) == -1) {
    return;
  }
  tqredis::detail::ScopedLock lock;
  const auto dbop = static_cast<uint32_t>(
      tqredis_calc_dbop(TQREDIS_DB_HOST, TQREDIS_OP_WRITE));
  if (tqredis_get_context(TQREDIS_DB_HOST, dbop) == nullptr) return;
  const long limit = tqredis::detail::WaitLimitMs();
  tqredis::detail::SetSlotTimeout(TQREDIS_DB_HOST, dbop,
                                  limit > 0 ? limit : 1000);
  tqredis_db_save_log();
  tqredis_commit_command(TQREDIS_DB_HOST, dbop, TQREDIS_CMD_COMMIT);
}

}  // namespace

// Order matters: the name first (every log line carries it), then logging
// (the lock reports its failure there), then the lock, then the table.
int tqredis_initial(void) {
  tqredis_parse_proc_name();  // on failure the name stays "tqredis"
  tqredis_dbg_init();
  tqredis_lock_init();
  tqredis_init_connect_mng();
  tqredis::detail::SetFatalHook(WriteStatsBeforeExit);
  return TQ_LOG(kLogLife, ">>>>%s enter\r\n", g_tqredis_proc_name);
}

// Connections are deliberately left open at unload: a process leaves through
// exit() or its own end, and closing under running threads would be worse.
void tqredis_final(void) {}

namespace {

// Runs when the library is mapped, before the host can call anything.
__attribute__((constructor)) void RunAtLoad() { tqredis_initial(); }
__attribute__((destructor)) void RunAtUnload() { tqredis_final(); }

}  // namespace

// Called once, before the host's threads use the library: takes no lock.
int tqredis_init(pubsub_mng *mng, int mng_size,
                 tqredis_data_check_f data_check_f, uint32_t flag) {
  // A write to a socket whose server has gone must fail, not kill the host.
  signal(SIGPIPE, SIG_IGN);
  if (flag & 2) {
    tqredis::detail::g_tqredis_lock_enable.store(1, std::memory_order_relaxed);
  }
  const int rv = tqredis_init_pubsub(mng, mng_size, data_check_f);
  g_tqredis_init_ok = 1;  // whatever the registration gave
  TQ_LOG(kLogLife, ">>>>tqredis[flag=%#x] init, rv=%d\r\n", flag, rv);
  return rv;
}

void tqredis_basic_stats_show(void) {
  tqredis::detail::ScopedLock lock;
  std::printf("basic:\r\n");
  std::printf("\tprocname=%s\r\n", g_tqredis_proc_name);
  std::printf("\tinitok=%d\r\n", g_tqredis_init_ok);
  std::printf("connect_mng:\r\n");
  const bool replies =
      tqredis::detail::OptionValue(tqredis::detail::kOpt_replies) != 0;
  const bool reconnect = tqredis::detail::ReconnectOn();
  for (int op = 0; op < TQREDIS_OP_NUM; ++op) {
    for (int db = 0; db < TQREDIS_DB_NUM; ++db) {
      const tqredis_conn_slot &slot = g_tqredis_connect_mng[op][db];
      std::printf("    [%s][%s]\r\n", g_tqredis_opstr[op], g_tqredis_dbstr[db]);
      std::printf("\tcontext=%p\r\n", static_cast<void *>(slot.context));
      std::printf("\tmode=%d\r\n", static_cast<int>(slot.mode));
      std::printf("\tunixpath=%s\r\n", slot.unixpath);
      std::printf("\thostname=%s\r\n", slot.hostname);
      std::printf("\thostport=%d\r\n", static_cast<int>(slot.hostport));
      std::printf("\tappend_cmd_num=%d\r\n",
                  static_cast<int>(slot.append_cmd_num));
      std::printf("\tconnect_num=%d\r\n", static_cast<int>(slot.connect_num));
      std::printf("\tdatacheck_num=%d\r\n",
                  static_cast<int>(slot.datacheck_num));
      // Shown only with reconnect=1: without it the dump stays as it was.
      if (reconnect) {
        std::printf("\trestores=%u\r\n",
                    static_cast<unsigned>(tqredis::detail::SlotRestores(
                        static_cast<uint32_t>(db), static_cast<uint32_t>(op))));
        if (op != TQREDIS_OP_PUBSUB) {
          std::printf(
              "\tunconfirmed=%u\r\n",
              static_cast<unsigned>(tqredis::detail::UnconfirmedWrites(
                  static_cast<uint32_t>(op), static_cast<uint32_t>(db))));
        }
      }
      // Shown only with replies=1: without it the dump stays as it was.
      if (replies && op != TQREDIS_OP_PUBSUB) {
        std::printf("\tunread_replies=%u\r\n",
                    static_cast<unsigned>(tqredis::detail::UnreadReplies(
                        static_cast<uint32_t>(op), static_cast<uint32_t>(db))));
        std::printf("\treply_errors=%u\r\n",
                    static_cast<unsigned>(tqredis::detail::ReplyErrors(
                        static_cast<uint32_t>(op), static_cast<uint32_t>(db))));
      }
    }
  }
}

// Each of the three takes the global lock itself.
void tqredis_db_show_stats(void) {
  tqredis_basic_stats_show();
  tqredis_cardinfo_stats_show();
  tqredis_pubsub_stats_show();
}
