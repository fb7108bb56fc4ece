// Stands in for malloc, free and their kin, counting what is live, then
// hands each call to the C library's own entry point. Exported from the
// test binary, so that the shared libraries it loads call these too.
#include "support/heap_count.h"

#include <errno.h>
#include <malloc.h>
#include <stddef.h>
#include <unistd.h>

#include <atomic>

// Under valgrind, whose allocator then stands in for these, memcheck's own
// account of the live blocks is read instead.
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define TQTEST_HAVE_VALGRIND 1
#endif

namespace {
// long, not long long: a word the 32-bit targets update without libatomic;
// a test's heap stays far below 2 GiB.
std::atomic<long> g_blocks{0};
std::atomic<long> g_bytes{0};

void Counted(void *p) {
  if (p == nullptr) return;
  g_blocks.fetch_add(1, std::memory_order_relaxed);
  g_bytes.fetch_add(static_cast<long>(malloc_usable_size(p)),
                    std::memory_order_relaxed);
}

void Uncounted(void *p) {
  if (p == nullptr) return;
  g_blocks.fetch_sub(1, std::memory_order_relaxed);
  g_bytes.fetch_sub(static_cast<long>(malloc_usable_size(p)),
                    std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *ptr);

#define TQ_EXPORT __attribute__((visibility("default")))

TQ_EXPORT void *malloc(size_t size) {
  void *p = __libc_malloc(size);
  Counted(p);
  return p;
}

TQ_EXPORT void *calloc(size_t count, size_t size) {
  void *p = __libc_calloc(count, size);
  Counted(p);
  return p;
}

TQ_EXPORT void *realloc(void *ptr, size_t size) {
  if (ptr == nullptr) return malloc(size);
  const long before = static_cast<long>(malloc_usable_size(ptr));
  void *p = __libc_realloc(ptr, size);
  if (p == nullptr) {
    // size 0 frees; any other failure leaves the block as it was.
    if (size == 0) {
      g_blocks.fetch_sub(1, std::memory_order_relaxed);
      g_bytes.fetch_sub(before, std::memory_order_relaxed);
    }
    return p;
  }
  g_bytes.fetch_add(static_cast<long>(malloc_usable_size(p)) - before,
                    std::memory_order_relaxed);
  return p;
}

TQ_EXPORT void free(void *ptr) {
  Uncounted(ptr);
  __libc_free(ptr);
}

TQ_EXPORT void *memalign(size_t alignment, size_t size) {
  void *p = __libc_memalign(alignment, size);
  Counted(p);
  return p;
}

TQ_EXPORT void *aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}

TQ_EXPORT int posix_memalign(void **out, size_t alignment, size_t size) {
  if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0)
    return EINVAL;
  void *p = memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

TQ_EXPORT void *valloc(size_t size) {
  return memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}
}  // extern "C"

namespace tqtest {

bool HeapCounted() { return true; }

HeapFigures HeapNow() {
  HeapFigures f;
#ifdef TQTEST_HAVE_VALGRIND
  if (RUNNING_ON_VALGRIND) {
    // Every live block falls in one of the four kinds, suppressed ones
    // included (the library's connections are suppressed by allocation
    // site, so a lost one is counted here and nowhere else).
    VALGRIND_DO_QUICK_LEAK_CHECK;
    unsigned long leaked = 0, dubious = 0, reachable = 0, suppressed = 0;
    VALGRIND_COUNT_LEAK_BLOCKS(leaked, dubious, reachable, suppressed);
    f.blocks =
        static_cast<long long>(leaked + dubious + reachable + suppressed);
    leaked = dubious = reachable = suppressed = 0;
    VALGRIND_COUNT_LEAKS(leaked, dubious, reachable, suppressed);
    f.bytes = static_cast<long long>(leaked + dubious + reachable + suppressed);
    return f;
  }
#endif
  f.blocks = g_blocks.load(std::memory_order_relaxed);
  f.bytes = g_bytes.load(std::memory_order_relaxed);
  return f;
}

void FlagToMemoryChecker(const char *what) {
#ifdef TQTEST_HAVE_VALGRIND
  if (RUNNING_ON_VALGRIND) {
    // A failed test alone is only noted by the memcheck run; an error of
    // memcheck's own fails it.
    VALGRIND_PRINTF("tqtest: %s\n", what);
    char undefined[1];
    VALGRIND_MAKE_MEM_UNDEFINED(undefined, sizeof undefined);
    VALGRIND_CHECK_MEM_IS_DEFINED(undefined, sizeof undefined);
  }
#else
  (void)what;
#endif
}

}  // namespace tqtest
