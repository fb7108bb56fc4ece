// The subscription registry: three subscription lists, the data check list
// and the process-wide message hook.
#include "pubsub/registry.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/lock.h"
#include "core/log.h"
#include "core/names.h"
#include "core/result.h"
#include "core/state.h"
#include "tqredis.h"

using tqredis::detail::DbName;
using tqredis::detail::kLogError;
using tqredis::detail::kLogLife;
using tqredis::detail::ScopedLock;

namespace tqredis::detail {

tqredis_pubsub_node g_tqredis_pubsub_list[TQREDIS_DB_NUM] = {};
tqredis_data_check_node g_tqredis_data_check_list = {};
uint8_t g_tqredis_pubsub_list_inited = 0;
uint8_t g_tqredis_datacheck[TQREDIS_DB_NUM] = {};

namespace {
// The pair, published under a sequence count: odd while a registration
// writes it. Writers take the mutex, so there is one at a time; a reader
// (every notification) takes no lock, and reads again when a registration
// ran meanwhile. Never held while a hook runs, and never taken with another
// lock inside it.
std::atomic<uint32_t> g_pmsg_hook_seq{0};
std::atomic<tqredis_pmsg_hook_f> g_pmsg_hook_f{nullptr};
std::atomic<void *> g_pmsg_hook_arg{nullptr};
pthread_mutex_t g_pmsg_hook_mutex = PTHREAD_MUTEX_INITIALIZER;
}  // namespace

// The stores of the pair are releases, so a reader that sees either word
// of the new pair also sees the odd count before it. (Ordered by the
// accesses themselves: a fence would be the usual way, but ThreadSanitizer
// builds do not take one.)
void SetPmsgHook(PmsgHook hook) {
  MutexLock lock(&g_pmsg_hook_mutex);
  const uint32_t seq = g_pmsg_hook_seq.load(std::memory_order_relaxed);
  g_pmsg_hook_seq.store(seq + 1, std::memory_order_relaxed);
  g_pmsg_hook_f.store(hook.hook, std::memory_order_release);
  g_pmsg_hook_arg.store(hook.arg, std::memory_order_release);
  g_pmsg_hook_seq.store(seq + 2, std::memory_order_release);
}

// The words are read with acquire, so the count read after them is not read
// before them: a registration that ran meanwhile shows in it.
PmsgHook GetPmsgHook() {
  for (;;) {
    const uint32_t before = g_pmsg_hook_seq.load(std::memory_order_acquire);
    const PmsgHook hook = {g_pmsg_hook_f.load(std::memory_order_acquire),
                           g_pmsg_hook_arg.load(std::memory_order_acquire)};
    if ((before & 1) == 0 &&
        g_pmsg_hook_seq.load(std::memory_order_relaxed) == before) {
      return hook;
    }
  }
}

}  // namespace tqredis::detail

using tqredis::detail::g_tqredis_data_check_list;
using tqredis::detail::g_tqredis_datacheck;
using tqredis::detail::g_tqredis_pubsub_list;
using tqredis::detail::g_tqredis_pubsub_list_inited;
using tqredis::detail::kBadArgs;
using tqredis::detail::kFail;
using tqredis::detail::kNoMemory;
using tqredis::detail::kOk;

namespace {

// Appends `node` before `head`, at the tail of a circular list.
// REQUIRES: the global lock.
template <typename Node>
void AppendTail(Node *head, Node *node) {
  node->prev = head->prev;
  node->next = head;
  head->prev->next = node;
  head->prev = node;
}

}  // namespace

void tqredis_pubsub_list_init(void) {
  ScopedLock lock;
  if (g_tqredis_pubsub_list_inited) return;  // keeps what was registered
  for (tqredis_pubsub_node &head : g_tqredis_pubsub_list) {
    head.next = &head;
    head.prev = &head;
  }
  g_tqredis_data_check_list.next = &g_tqredis_data_check_list;
  g_tqredis_data_check_list.prev = &g_tqredis_data_check_list;
  g_tqredis_pubsub_list_inited = 1;
}

int tqredis_data_check_register(tqredis_data_check_f data_check_f) {
  if (data_check_f == nullptr) {
    TQ_LOG(kLogError, "data_check_f is NULL\r\n");
    return kBadArgs;
  }
  // Never freed: the list lives as long as the process.
  auto *node = new (std::nothrow) tqredis_data_check_node{};
  if (node == nullptr) {
    TQ_LOG(kLogError, "malloc fail\r\n");
    return kNoMemory;
  }
  node->data_check_f = data_check_f;
  tqredis_pubsub_list_init();  // a direct caller may come before tqredis_init
  ScopedLock lock;
  AppendTail(&g_tqredis_data_check_list, node);
  return kOk;
}

int tqredis_pubsub_mng_check(pubsub_mng *mng) {
  return mng != nullptr && mng->key_db < TQREDIS_DB_NUM && mng->hook != nullptr
             ? 1
             : 0;
}

int tqredis_pubsub_register(pubsub_mng *mng, int mng_size) {
  if (mng == nullptr || mng_size <= 0) {
    TQ_LOG(kLogError, "input arguments invalid, mng_size=%d\r\n", mng_size);
    return kFail;
  }
  tqredis_pubsub_list_init();
  for (int i = 0; i < mng_size; ++i) {
    if (!tqredis_pubsub_mng_check(&mng[i])) {
      // Shows entry 0's database, not entry i's: the message has always
      // read so, and log readers know it.
      TQ_LOG(kLogError, "pubsub_mng[%d] invalid, key_db=%d\r\n", i,
             static_cast<int>(mng[0].key_db));
      continue;
    }
    auto *node = new (std::nothrow) tqredis_pubsub_node{};
    if (node == nullptr) {
      TQ_LOG(kLogError, "malloc fail\r\n");
      return kNoMemory;  // the nodes made so far stay registered
    }
    node->key_db = mng[i].key_db;
    // At most 127 characters are read: the caller's pattern need not be
    // terminated within its field.
    std::snprintf(node->key_pattern, sizeof(node->key_pattern), "%.127s",
                  mng[i].key_pattern);
    node->hook = mng[i].hook;
    node->hook_arg = mng[i].hook_arg;
    node->dbid = 0;
    node->flag = 0;
    {
      ScopedLock lock;
      AppendTail(&g_tqredis_pubsub_list[node->key_db], node);
    }
    TQ_LOG(kLogLife, "psub register %s %s\r\n", DbName(node->key_db),
           node->key_pattern);
  }
  return kOk;
}

int tqredis_pmsg_hook_register(tqredis_pmsg_hook_f hook, void *hook_arg) {
  if (hook == nullptr) {
    TQ_LOG(kLogError, "pmsg hook is NULL\r\n");
    return kBadArgs;
  }
  tqredis::detail::SetPmsgHook({hook, hook_arg});
  return kOk;
}

// Data check first, on purpose: a process that passes none gets -2 and no
// subscription at all, which it notices at once.
int tqredis_init_pubsub(pubsub_mng *mng, int mng_size,
                        tqredis_data_check_f data_check_f) {
  tqredis_pubsub_list_init();
  const int rv = tqredis_data_check_register(data_check_f);
  if (rv != 0) return rv;
  return tqredis_pubsub_register(mng, mng_size);
}

void tqredis_pubsub_stats_show(void) {
  ScopedLock lock;
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    std::printf("%s datacheck: %d\r\n", g_tqredis_dbstr[db],
                g_tqredis_datacheck[db]);
    std::printf("%s pubsublist:\r\n", g_tqredis_dbstr[db]);
    if (!g_tqredis_pubsub_list_inited) continue;  // nothing registered yet
    const tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
    for (const tqredis_pubsub_node *node = head->next; node != head;
         node = node->next) {
      std::printf("\tdbid=%d key_pattern=%s flag=%d\r\n",
                  static_cast<int>(node->dbid), node->key_pattern, node->flag);
    }
  }
}

// Records the host builds or reads: the layout is ABI. Numbers are given per
// named target; a pointer follows the 132 bytes of id and text.
static_assert(offsetof(pubsub_mng, key_pattern) == 4);
static_assert(offsetof(tqredis_pmsg, key) == 4);
static_assert(offsetof(tqredis_pmsg, cmd) == 132);
static_assert(offsetof(tqredis_pmsg, value) == 136);
#if defined(__i386__) || defined(__mips__) || defined(__arm__)
static_assert(offsetof(pubsub_mng, hook) == 132);
static_assert(offsetof(pubsub_mng, hook_arg) == 136);
static_assert(sizeof(pubsub_mng) == 140);
static_assert(offsetof(tqredis_pmsg, reserved) == 140);
static_assert(sizeof(tqredis_pmsg) == 144);
#elif defined(__x86_64__) || defined(__aarch64__)
static_assert(offsetof(pubsub_mng, hook) == 136);
static_assert(offsetof(pubsub_mng, hook_arg) == 144);
static_assert(sizeof(pubsub_mng) == 152);
static_assert(offsetof(tqredis_pmsg, reserved) == 144);
static_assert(sizeof(tqredis_pmsg) == 152);
#endif
