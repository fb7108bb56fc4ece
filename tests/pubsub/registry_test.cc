// The subscription registry without servers: what the host's table and data
// check turn into, what is refused and logged, the statistics listing, the
// process-wide hook, and tqredis_init handing its arguments over.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/lock.h"
#include "pubsub/registry.h"
#include "support/logged.h"
#include "tqredis.h"

using tqredis::detail::g_tqredis_data_check_list;
using tqredis::detail::g_tqredis_datacheck;
using tqredis::detail::g_tqredis_lock_enable;
using tqredis::detail::g_tqredis_pubsub_list;
using tqredis::detail::g_tqredis_pubsub_list_inited;

using tqtest::Logged;
using tqtest::Printed;

// Allocations the library makes with the non-throwing new before one fails;
// negative: none fails. Lets a test run the registry out of memory.
static int g_nothrow_allocations_left = -1;

void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  if (g_nothrow_allocations_left == 0) return nullptr;
  if (g_nothrow_allocations_left > 0) --g_nothrow_allocations_left;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

constexpr int kLevels8And2 = TQREDIS_LOG_ERROR | TQREDIS_LOG_LIFE;

// The listing of a registry with no subscription and no data check done.
const char kEmptyListing[] =
    "redis_de_global datacheck: 0\r\n"
    "redis_de_global pubsublist:\r\n"
    "redis_ce_global datacheck: 0\r\n"
    "redis_ce_global pubsublist:\r\n"
    "redis_host datacheck: 0\r\n"
    "redis_host pubsublist:\r\n";

struct HookCall {
  tqredis_pmsg *pmsg;
  void *arg;
  char which;
};
std::vector<HookCall> g_hook_calls;

int HookA(tqredis_pmsg *pmsg, void *arg) {
  g_hook_calls.push_back({pmsg, arg, 'A'});
  return 11;
}

int HookB(tqredis_pmsg *pmsg, void *arg) {
  g_hook_calls.push_back({pmsg, arg, 'B'});
  return 22;
}

int CheckA(uint32_t) { return 0; }
int CheckB(uint32_t) { return 0; }

pubsub_mng Entry(uint32_t db, const char *pattern,
                 tqredis_pmsg_hook_f hook = HookA, void *arg = nullptr) {
  pubsub_mng entry{};
  entry.key_db = db;
  std::snprintf(entry.key_pattern, sizeof(entry.key_pattern), "%s", pattern);
  entry.hook = hook;
  entry.hook_arg = arg;
  return entry;
}

std::string Listing() {
  return Printed([] { tqredis_pubsub_stats_show(); });
}

// The registered data checks, in list order.
std::vector<tqredis_data_check_f> DataChecks() {
  std::vector<tqredis_data_check_f> checks;
  if (!g_tqredis_pubsub_list_inited) return checks;  // still all zero
  const tqredis_data_check_node *head = &g_tqredis_data_check_list;
  for (const tqredis_data_check_node *node = head->next; node != head;
       node = node->next) {
    checks.push_back(node->data_check_f);
  }
  return checks;
}

// The nodes of the list of `db`, in list order.
std::vector<const tqredis_pubsub_node *> Nodes(uint32_t db) {
  std::vector<const tqredis_pubsub_node *> nodes;
  if (!g_tqredis_pubsub_list_inited) return nodes;  // still all zero
  const tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
  for (const tqredis_pubsub_node *node = head->next; node != head;
       node = node->next) {
    nodes.push_back(node);
  }
  return nodes;
}

}  // namespace

TEST(Registry, ListingBeforeAnyRegistrationShowsThreeEmptyDatabases) {
  EXPECT_EQ(g_tqredis_pubsub_list_inited, 0);
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, ListInitMakesFourEmptyCircularLists) {
  tqredis_pubsub_list_init();
  EXPECT_EQ(g_tqredis_pubsub_list_inited, 1);
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    EXPECT_EQ(g_tqredis_pubsub_list[db].next, &g_tqredis_pubsub_list[db]);
    EXPECT_EQ(g_tqredis_pubsub_list[db].prev, &g_tqredis_pubsub_list[db]);
  }
  EXPECT_EQ(g_tqredis_data_check_list.next, &g_tqredis_data_check_list);
  EXPECT_EQ(g_tqredis_data_check_list.prev, &g_tqredis_data_check_list);
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, ZeroEntriesGiveMinus1AndStillRegisterTheDataCheck) {
  pubsub_mng table[] = {Entry(0, "a")};
  int rv = 0;
  EXPECT_EQ(
      Logged(kLevels8And2, [&] { rv = tqredis_init_pubsub(table, 0, CheckA); }),
      "<tqredis_pubsub_register>:input arguments invalid, "
      "mng_size=0\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(Listing(), kEmptyListing);
  EXPECT_EQ(DataChecks(), std::vector<tqredis_data_check_f>{CheckA});
}

TEST(Registry, NullTableGivesMinus1AndStillRegistersTheDataCheck) {
  int rv = 0;
  EXPECT_EQ(Logged(kLevels8And2,
                   [&] { rv = tqredis_init_pubsub(nullptr, 3, CheckA); }),
            "<tqredis_pubsub_register>:input arguments invalid, "
            "mng_size=3\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(Listing(), kEmptyListing);
  EXPECT_EQ(DataChecks(), std::vector<tqredis_data_check_f>{CheckA});
}

TEST(Registry, NegativeSizeIsRefusedWithItsValueInTheLog) {
  pubsub_mng table[] = {Entry(0, "a")};
  int rv = 0;
  EXPECT_EQ(
      Logged(kLevels8And2, [&] { rv = tqredis_pubsub_register(table, -5); }),
      "<tqredis_pubsub_register>:input arguments invalid, mng_size=-5\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, NullDataCheckGivesMinus2AndRegistersNoSubscription) {
  pubsub_mng table[] = {Entry(0, "a"), Entry(2, "b")};
  int rv = 0;
  EXPECT_EQ(Logged(kLevels8And2,
                   [&] { rv = tqredis_init_pubsub(table, 2, nullptr); }),
            "<tqredis_data_check_register>:data_check_f is NULL\r\n");
  EXPECT_EQ(rv, -2);
  EXPECT_EQ(Listing(), kEmptyListing);
  EXPECT_TRUE(DataChecks().empty());
}

TEST(Registry, ValidTableRegistersEveryEntryAndLogsEach) {
  int arg = 0;
  pubsub_mng table[] = {Entry(1, "dev:*", HookB, &arg)};
  int rv = -1;
  EXPECT_EQ(
      Logged(kLevels8And2, [&] { rv = tqredis_init_pubsub(table, 1, CheckA); }),
      "<tqredis_pubsub_register>:psub register redis_ce_global dev:*\r\n");
  EXPECT_EQ(rv, 0);
  const auto nodes = Nodes(1);
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0]->key_db, 1u);
  EXPECT_STREQ(nodes[0]->key_pattern, "dev:*");
  EXPECT_EQ(nodes[0]->hook, &HookB);
  EXPECT_EQ(nodes[0]->hook_arg, &arg);
  EXPECT_EQ(nodes[0]->dbid, 0);
  EXPECT_EQ(nodes[0]->flag, 0);
  EXPECT_TRUE(Nodes(0).empty());
  EXPECT_TRUE(Nodes(2).empty());
}

TEST(Registry, InvalidEntriesAreSkippedNamingTheirIndexAndEntry0sDatabase) {
  pubsub_mng table[] = {Entry(1, "first"), Entry(3, "bad-db"),
                        Entry(2, "no-hook", nullptr), Entry(0, "last"),
                        Entry(7, "worse-db")};
  int rv = -1;
  const std::string log =
      Logged(kLevels8And2, [&] { rv = tqredis_pubsub_register(table, 5); });
  EXPECT_EQ(log,
            "<tqredis_pubsub_register>:psub register redis_ce_global first\r\n"
            "<tqredis_pubsub_register>:pubsub_mng[1] invalid, key_db=1\r\n"
            "<tqredis_pubsub_register>:pubsub_mng[2] invalid, key_db=1\r\n"
            "<tqredis_pubsub_register>:psub register redis_de_global last\r\n"
            "<tqredis_pubsub_register>:pubsub_mng[4] invalid, key_db=1\r\n");
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=last flag=0\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=first flag=0\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n");
}

TEST(Registry, EntryCheckAcceptsOnlyADatabaseBelow3WithAHook) {
  pubsub_mng ok = Entry(2, "k");
  pubsub_mng bad_db = Entry(3, "k");
  pubsub_mng no_hook = Entry(0, "k", nullptr);
  EXPECT_EQ(tqredis_pubsub_mng_check(&ok), 1);
  EXPECT_EQ(tqredis_pubsub_mng_check(&bad_db), 0);
  EXPECT_EQ(tqredis_pubsub_mng_check(&no_hook), 0);
  EXPECT_EQ(tqredis_pubsub_mng_check(nullptr), 0);
}

TEST(Registry, PatternFillingItsWholeFieldIsKeptAsItsFirst127Characters) {
  // The caller's 200-character pattern fills the 128-byte field with no room
  // for a terminator: only its first 127 characters may be read.
  const std::string pattern = std::string(100, 'p') + std::string(100, 'q');
  auto entry = std::make_unique<pubsub_mng>(Entry(2, ""));
  std::memcpy(entry->key_pattern, pattern.data(), sizeof(entry->key_pattern));
  const std::string kept = pattern.substr(0, 127);
  int rv = -1;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_LIFE,
             [&] { rv = tqredis_pubsub_register(entry.get(), 1); }),
      "<tqredis_pubsub_register>:psub register redis_host " + kept + "\r\n");
  EXPECT_EQ(rv, 0);
  const auto nodes = Nodes(2);
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(std::string(nodes[0]->key_pattern), kept);
  EXPECT_NE(Listing().find("\tdbid=0 key_pattern=" + kept + " flag=0\r\n"),
            std::string::npos);
}

TEST(Registry, ListInitAfterRegistrationsKeepsThem) {
  pubsub_mng table[] = {Entry(0, "a"), Entry(2, "b")};
  ASSERT_EQ(tqredis_init_pubsub(table, 2, CheckA), 0);
  const std::string before = Listing();
  tqredis_pubsub_list_init();
  tqredis_pubsub_list_init();
  EXPECT_EQ(Listing(), before);
  EXPECT_EQ(before,
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=a flag=0\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n"
            "\tdbid=0 key_pattern=b flag=0\r\n");
  EXPECT_EQ(DataChecks(), std::vector<tqredis_data_check_f>{CheckA});
}

TEST(Registry, EachDatabaseListsItsEntriesInTableOrderAcrossCalls) {
  pubsub_mng first[] = {Entry(2, "h1"), Entry(0, "g1"), Entry(2, "h2"),
                        Entry(1, "c1"), Entry(0, "g2")};
  pubsub_mng second[] = {Entry(0, "g3"), Entry(2, "h3")};
  ASSERT_EQ(tqredis_pubsub_register(first, 5), 0);
  ASSERT_EQ(tqredis_pubsub_register(second, 2), 0);
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=g1 flag=0\r\n"
            "\tdbid=0 key_pattern=g2 flag=0\r\n"
            "\tdbid=0 key_pattern=g3 flag=0\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=c1 flag=0\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n"
            "\tdbid=0 key_pattern=h1 flag=0\r\n"
            "\tdbid=0 key_pattern=h2 flag=0\r\n"
            "\tdbid=0 key_pattern=h3 flag=0\r\n");
  // Walked backwards, each list gives the same nodes in reverse.
  for (uint32_t db = 0; db < TQREDIS_DB_NUM; ++db) {
    std::vector<const tqredis_pubsub_node *> backwards;
    const tqredis_pubsub_node *head = &g_tqredis_pubsub_list[db];
    for (const tqredis_pubsub_node *node = head->prev; node != head;
         node = node->prev) {
      backwards.insert(backwards.begin(), node);
    }
    EXPECT_EQ(backwards, Nodes(db)) << "db " << db;
  }
}

TEST(Registry, DataChecksAreKeptInRegistrationOrderDuplicatesIncluded) {
  EXPECT_EQ(tqredis_data_check_register(CheckB), 0);
  EXPECT_EQ(tqredis_data_check_register(CheckA), 0);
  EXPECT_EQ(tqredis_data_check_register(CheckB), 0);
  EXPECT_EQ(DataChecks(),
            (std::vector<tqredis_data_check_f>{CheckB, CheckA, CheckB}));
}

TEST(Registry, NullDataCheckIsRefusedAndLogged) {
  int rv = 0;
  EXPECT_EQ(Logged(TQREDIS_LOG_ERROR,
                   [&] { rv = tqredis_data_check_register(nullptr); }),
            "<tqredis_data_check_register>:data_check_f is NULL\r\n");
  EXPECT_EQ(rv, -2);
  EXPECT_TRUE(DataChecks().empty());
}

TEST(Registry, DuplicatePatternGivesTwoNodes) {
  int one = 1;
  int two = 2;
  pubsub_mng table[] = {Entry(1, "same", HookA, &one),
                        Entry(1, "same", HookB, &two)};
  EXPECT_EQ(Logged(TQREDIS_LOG_LIFE,
                   [&] { EXPECT_EQ(tqredis_pubsub_register(table, 2), 0); }),
            "<tqredis_pubsub_register>:psub register redis_ce_global same\r\n"
            "<tqredis_pubsub_register>:psub register redis_ce_global same\r\n");
  const auto nodes = Nodes(1);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0]->hook, &HookA);
  EXPECT_EQ(nodes[0]->hook_arg, &one);
  EXPECT_EQ(nodes[1]->hook, &HookB);
  EXPECT_EQ(nodes[1]->hook_arg, &two);
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=same flag=0\r\n"
            "\tdbid=0 key_pattern=same flag=0\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n");
}

TEST(Registry, ListingShowsEachDatabasesCheckByteAndNodeFlag) {
  pubsub_mng table[] = {Entry(0, "x"), Entry(0, "y")};
  ASSERT_EQ(tqredis_pubsub_register(table, 2), 0);
  g_tqredis_datacheck[1] = 1;
  g_tqredis_pubsub_list[0].next->next->flag = 1;
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=x flag=0\r\n"
            "\tdbid=0 key_pattern=y flag=1\r\n"
            "redis_ce_global datacheck: 1\r\n"
            "redis_ce_global pubsublist:\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n");
}

TEST(Registry, ListingGoesToStandardOutputOnlyWhateverTheMasks) {
  pubsub_mng table[] = {Entry(0, "x")};
  ASSERT_EQ(tqredis_pubsub_register(table, 1), 0);
  tqredis_dbg_cfg(1, 0x1f);
  const std::string out = Logged(0x1f, [] { tqredis_pubsub_stats_show(); });
  EXPECT_EQ(out.find('<'), std::string::npos) << out;
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("limitlog")).find("pubsublist"),
            std::string::npos);
  EXPECT_EQ(tqtest::ReadFile(tqtest::LogPath("unlimitlog")).find("pubsublist"),
            std::string::npos);
}

TEST(Registry, MemoryRunningOutMidTableKeepsTheNodesMadeSoFar) {
  pubsub_mng table[] = {Entry(0, "a"), Entry(0, "b"), Entry(0, "c")};
  int rv = 0;
  const std::string log = Logged(kLevels8And2, [&] {
    g_nothrow_allocations_left = 1;
    rv = tqredis_pubsub_register(table, 3);
    g_nothrow_allocations_left = -1;
  });
  EXPECT_EQ(log,
            "<tqredis_pubsub_register>:psub register redis_de_global a\r\n"
            "<tqredis_pubsub_register>:malloc fail\r\n");
  EXPECT_EQ(rv, -3);
  EXPECT_EQ(Listing(),
            "redis_de_global datacheck: 0\r\n"
            "redis_de_global pubsublist:\r\n"
            "\tdbid=0 key_pattern=a flag=0\r\n"
            "redis_ce_global datacheck: 0\r\n"
            "redis_ce_global pubsublist:\r\n"
            "redis_host datacheck: 0\r\n"
            "redis_host pubsublist:\r\n");
}

TEST(Registry, MemoryRunningOutForTheDataCheckGivesMinus3AndNoSubscription) {
  pubsub_mng table[] = {Entry(0, "a")};
  int rv = 0;
  const std::string log = Logged(kLevels8And2, [&] {
    g_nothrow_allocations_left = 0;
    rv = tqredis_init_pubsub(table, 1, CheckA);
    g_nothrow_allocations_left = -1;
  });
  EXPECT_EQ(log, "<tqredis_data_check_register>:malloc fail\r\n");
  EXPECT_EQ(rv, -3);
  EXPECT_TRUE(DataChecks().empty());
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, NoProcessWideHookMakesTheCallReturn0) {
  tqredis_pmsg pmsg{};
  EXPECT_EQ(tqredis_call_pmsg_hook(&pmsg), 0);
  EXPECT_TRUE(g_hook_calls.empty());
}

TEST(Registry, ProcessWideHookIsCalledWithItsArgumentAndItsResultReturned) {
  int arg = 0;
  ASSERT_EQ(tqredis_pmsg_hook_register(HookA, &arg), 0);
  tqredis_pmsg pmsg{};
  EXPECT_EQ(tqredis_call_pmsg_hook(&pmsg), 11);
  ASSERT_EQ(g_hook_calls.size(), 1u);
  EXPECT_EQ(g_hook_calls[0].pmsg, &pmsg);
  EXPECT_EQ(g_hook_calls[0].arg, &arg);
  EXPECT_EQ(g_hook_calls[0].which, 'A');
}

TEST(Registry, NullProcessWideHookIsRefusedAndThePreviousOneStays) {
  int arg_a = 0;
  int arg_null = 0;
  ASSERT_EQ(tqredis_pmsg_hook_register(HookA, &arg_a), 0);
  int rv = 0;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_ERROR,
             [&] { rv = tqredis_pmsg_hook_register(nullptr, &arg_null); }),
      "<tqredis_pmsg_hook_register>:pmsg hook is NULL\r\n");
  EXPECT_EQ(rv, -2);
  tqredis_pmsg pmsg{};
  EXPECT_EQ(tqredis_call_pmsg_hook(&pmsg), 11);
  ASSERT_EQ(g_hook_calls.size(), 1u);
  EXPECT_EQ(g_hook_calls[0].arg, &arg_a);
}

TEST(Registry, NullHookBeforeAnyHookLeavesNone) {
  EXPECT_EQ(tqredis_pmsg_hook_register(nullptr, nullptr), -2);
  tqredis_pmsg pmsg{};
  EXPECT_EQ(tqredis_call_pmsg_hook(&pmsg), 0);
  EXPECT_TRUE(g_hook_calls.empty());
}

TEST(Registry, ProcessWideHookIsReplacedWithItsArgument) {
  int arg_a = 0;
  int arg_b = 0;
  ASSERT_EQ(tqredis_pmsg_hook_register(HookA, &arg_a), 0);
  ASSERT_EQ(tqredis_pmsg_hook_register(HookB, &arg_b), 0);
  tqredis_pmsg pmsg{};
  EXPECT_EQ(tqredis_call_pmsg_hook(&pmsg), 22);
  ASSERT_EQ(g_hook_calls.size(), 1u);
  EXPECT_EQ(g_hook_calls[0].which, 'B');
  EXPECT_EQ(g_hook_calls[0].arg, &arg_b);
}

namespace {

// Each hook knows the argument it was registered with.
int g_arg_of_first = 1;
int g_arg_of_second = 2;
std::atomic<int> g_torn{0};
std::atomic<int> g_called{0};
int FirstOfPair(tqredis_pmsg *, void *arg) {
  if (arg != &g_arg_of_first) ++g_torn;
  ++g_called;
  return 0;
}
int SecondOfPair(tqredis_pmsg *, void *arg) {
  if (arg != &g_arg_of_second) ++g_torn;
  ++g_called;
  return 0;
}

}  // namespace

// Another thread registering the process-wide hook over and over while
// notifications call it: every call gets the argument of its own hook.
TEST(Registry, ProcessWideHookIsAlwaysCalledWithItsOwnArgument) {
  ASSERT_EQ(tqredis_pmsg_hook_register(FirstOfPair, &g_arg_of_first), 0);
  std::atomic<bool> stop{false};
  std::thread registrar([&] {
    for (int i = 0; !stop; ++i) {
      if (i % 2) {
        tqredis_pmsg_hook_register(FirstOfPair, &g_arg_of_first);
      } else {
        tqredis_pmsg_hook_register(SecondOfPair, &g_arg_of_second);
      }
    }
  });
  tqredis_pmsg pmsg{};
  for (int i = 0; i < 200000; ++i) tqredis_call_pmsg_hook(&pmsg);
  stop = true;
  registrar.join();
  EXPECT_EQ(g_called, 200000);
  EXPECT_EQ(g_torn, 0);
}

TEST(Registry, InitRegistersTheTableAndTheDataCheckAndReturns0) {
  pubsub_mng table[] = {Entry(0, "a"), Entry(2, "b")};
  int rv = -1;
  EXPECT_EQ(
      Logged(TQREDIS_LOG_LIFE, [&] { rv = tqredis_init(table, 2, CheckB, 0); }),
      "<tqredis_pubsub_register>:psub register redis_de_global a\r\n"
      "<tqredis_pubsub_register>:psub register redis_host b\r\n"
      "<tqredis_init>:>>>>tqredis[flag=0] init, rv=0\r\n");
  EXPECT_EQ(rv, 0);
  EXPECT_EQ(g_tqredis_init_ok, 1);
  EXPECT_EQ(g_tqredis_lock_enable, 0);
  EXPECT_EQ(Nodes(0).size(), 1u);
  EXPECT_EQ(Nodes(2).size(), 1u);
  EXPECT_EQ(DataChecks(), std::vector<tqredis_data_check_f>{CheckB});
}

TEST(Registry, InitWithoutADataCheckReturnsMinus2AndIsDoneAnyway) {
  pubsub_mng table[] = {Entry(0, "a")};
  int rv = 0;
  EXPECT_EQ(
      Logged(kLevels8And2, [&] { rv = tqredis_init(table, 1, nullptr, 2); }),
      "<tqredis_data_check_register>:data_check_f is NULL\r\n"
      "<tqredis_init>:>>>>tqredis[flag=0x2] init, rv=-2\r\n");
  EXPECT_EQ(rv, -2);
  EXPECT_EQ(g_tqredis_init_ok, 1);
  EXPECT_EQ(g_tqredis_lock_enable, 1);
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, InitWithoutATableReturnsMinus1AndKeepsTheDataCheck) {
  int rv = 0;
  EXPECT_EQ(
      Logged(kLevels8And2, [&] { rv = tqredis_init(nullptr, 0, CheckA, 3); }),
      "<tqredis_pubsub_register>:input arguments invalid, mng_size=0\r\n"
      "<tqredis_init>:>>>>tqredis[flag=0x3] init, rv=-1\r\n");
  EXPECT_EQ(rv, -1);
  EXPECT_EQ(g_tqredis_init_ok, 1);
  EXPECT_EQ(DataChecks(), std::vector<tqredis_data_check_f>{CheckA});
  EXPECT_EQ(Listing(), kEmptyListing);
}

TEST(Registry, InitHandsTheSizeOverRatherThanCountingTheTable) {
  // Three valid entries, of which the host declares two: the third is never
  // read.
  pubsub_mng table[] = {Entry(1, "one"), Entry(1, "two"), Entry(1, "three")};
  ASSERT_EQ(tqredis_init(table, 2, CheckA, 0), 0);
  const auto nodes = Nodes(1);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_STREQ(nodes[0]->key_pattern, "one");
  EXPECT_STREQ(nodes[1]->key_pattern, "two");
}
