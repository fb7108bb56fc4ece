// The global lock's private state and the scope guard used inside the library.
#ifndef TQREDIS_SRC_CORE_LOCK_H_
#define TQREDIS_SRC_CORE_LOCK_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "tqredis.h"

namespace tqredis::detail {

// 1 once tqredis_init() saw (flag & 2); never cleared. Read by every locked
// call of every thread, which may already run when the host enables it.
extern std::atomic<uint8_t> g_tqredis_lock_enable;
// Recursive; made at load whether or not it will be used, never destroyed.
extern pthread_mutex_t g_tqredis_mutex;

// Levels of the global lock the calling thread holds. The lock can be
// switched on while a thread is inside the library; counting what each
// thread really took keeps every unlock matched to a lock of its own. Read
// several times per locked call: __thread (no C++ initialisation wrapper)
// and the initial-exec model make each read one load instead of a call into
// the dynamic loader. The library is linked by its hosts, so its
// thread-local block is placed at start-up.
extern
    __attribute__((tls_model("initial-exec"))) __thread unsigned t_lock_depth;

inline unsigned LockDepth() { return t_lock_depth; }

// tqredis_lock() and tqredis_unlock() for the library's own use, without a
// call through the exported names. UnlockGlobal() REQUIRES a level this
// thread took.
inline void LockGlobal() {
  if (g_tqredis_lock_enable.load(std::memory_order_relaxed) == 0) return;
  pthread_mutex_lock(&g_tqredis_mutex);
  ++t_lock_depth;
}
inline void UnlockGlobal() {
  --t_lock_depth;
  pthread_mutex_unlock(&g_tqredis_mutex);
}

// Holds the global lock for one scope once tqredis_init() has enabled it;
// does nothing before. Decided at entry, so the destructor releases exactly
// what the constructor took. Recursive: locked paths may call each other.
class ScopedLock {
 public:
  ScopedLock() : depth_(LockDepth()) { LockGlobal(); }
  ~ScopedLock() {
    if (LockDepth() > depth_) UnlockGlobal();
  }
  ScopedLock(const ScopedLock &) = delete;
  ScopedLock &operator=(const ScopedLock &) = delete;

 private:
  const unsigned depth_;
};

// Holds a plain (non-recursive, always real) mutex for one scope: the small
// private locks that keep a few words together, such as the process-wide
// hook's pair and the switches. Never held while calling out.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t *mutex) : mutex_(mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  pthread_mutex_t *const mutex_;
};

}  // namespace tqredis::detail

#endif  // TQREDIS_SRC_CORE_LOCK_H_
