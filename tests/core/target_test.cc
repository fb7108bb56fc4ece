// What the library takes from the target it runs on: the system call number
// behind gettid, the thread id it records, and its process name when the
// binary runs under an emulator.
#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tqredis.h"

namespace {

// The calling thread's id as the kernel names it in /proc, read without any
// system call number of our own.
long ThreadIdFromProc() {
  char target[PATH_MAX] = {};
  if (readlink("/proc/thread-self", target, sizeof(target) - 1) < 0) return -1;
  const char *slash = std::strrchr(target, '/');
  return slash == nullptr ? -1 : std::strtol(slash + 1, nullptr, 10);
}

// Records an operation on the calling thread with thread ids switched on.
int32_t RecordedTid() {
  tqredis_op_record rec;
  std::memset(&rec, 0, sizeof(rec));
  tqredis_dbg_cfg(2, 1);  // time statistics on: records carry thread ids
  const int rv = tqredis_db_cmd_record(&rec, "/target/tid", TQREDIS_KEYCMD_SET,
                                       TQREDIS_DB_HOST);
  tqredis_dbg_cfg(2, 0);
  return rv == 0 ? rec.tid : -1;
}

}  // namespace

TEST(Target, GettidIsTheSystemCallNumberOfThisAbi) {
#if defined(__mips__) && _MIPS_SIM == _ABIO32
  EXPECT_EQ(SYS_gettid, 4222);
#elif defined(__i386__)
  EXPECT_EQ(SYS_gettid, 224);
#elif defined(__x86_64__)
  EXPECT_EQ(SYS_gettid, 186);
#else
  GTEST_SKIP() << "no gettid number known for this target";
#endif
}

TEST(Target, RecordedTidOfTheMainThreadIsTheProcessId) {
  ASSERT_EQ(ThreadIdFromProc(), static_cast<long>(getpid()));
  EXPECT_EQ(RecordedTid(), static_cast<int32_t>(getpid()));
}

TEST(Target, RecordedTidOfAnotherThreadIsItsKernelId) {
  long from_proc = -1;
  int32_t recorded = -1;
  std::thread([&] {
    from_proc = ThreadIdFromProc();
    recorded = RecordedTid();
  }).join();
  ASSERT_GT(from_proc, 0);
  EXPECT_NE(from_proc, static_cast<long>(getpid()));
  EXPECT_EQ(recorded, static_cast<int32_t>(from_proc));
}

TEST(Target, ProcessNameIsTheTestBinarysOwn) {
  EXPECT_STREQ(g_tqredis_proc_name, "target_test");
}
