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
// thread really took keeps every unlock matched to a lock of its own.
unsigned LockDepth();

// Holds the global lock for one scope once tqredis_init() has enabled it;
// does nothing before. Decided at entry, so the destructor releases exactly
// what the constructor took. Recursive: locked paths may call each other.
class ScopedLock {
 public:
  ScopedLock() : depth_(LockDepth()) { tqredis_lock(); }
  ~ScopedLock() {
    if (LockDepth() > depth_) tqredis_unlock();
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
