// The process-wide recursive lock, real only once the host enables it, and the
// one-second sleep of the library's waits.
#include "core/lock.h"

#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "tqredis.h"

namespace tqredis::detail {
std::atomic<uint8_t> g_tqredis_lock_enable{0};
pthread_mutex_t g_tqredis_mutex = PTHREAD_MUTEX_INITIALIZER;
}  // namespace tqredis::detail

using tqredis::detail::g_tqredis_mutex;

namespace tqredis::detail {
__attribute__((tls_model("initial-exec"))) __thread unsigned t_lock_depth = 0;
}  // namespace tqredis::detail

using tqredis::detail::t_lock_depth;

void tqredis_lock_init(void) {
  pthread_mutexattr_t attr;
  // Every step runs even after a failure; one report covers them all.
  int rc = pthread_mutexattr_init(&attr);
  rc |= pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  rc |= pthread_mutex_init(&g_tqredis_mutex, &attr);
  rc |= pthread_mutexattr_destroy(&attr);
  if (rc != 0) {
    const int err = errno;  // printf may change errno
    TQ_LOG(tqredis::detail::kLogError,
           ">>>>tqredis lock init fail, errno=%s\r\n", std::strerror(err));
    // Without the lock nothing here is safe to run: end the process.
    std::exit(1);
  }
}

// The mutex results are deliberately not looked at: a recursive mutex made at
// load cannot fail to lock or unlock for its owner.
void tqredis_lock(void) { tqredis::detail::LockGlobal(); }

// Releases one level this thread took; a thread that holds nothing (the lock
// was off when it came in) has nothing to release.
void tqredis_unlock(void) {
  if (t_lock_depth == 0) return;
  tqredis::detail::UnlockGlobal();
}

int select_sleep(int sec, int usec) {
  struct timeval tv;
  tv.tv_sec = sec;
  tv.tv_usec = usec;
  return select(0, nullptr, nullptr, nullptr, &tv);
}
