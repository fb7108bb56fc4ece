// The live heap of the whole process, counted by the test binary's own
// malloc family (heap_count.cc), which stands in for the C library's for
// every caller, the library under test and hiredis included; under
// valgrind, memcheck's count of live blocks. Left out of sanitizer builds,
// whose allocator must own malloc; those check leaks themselves.
#ifndef TQREDIS_TESTS_SUPPORT_HEAP_COUNT_H_
#define TQREDIS_TESTS_SUPPORT_HEAP_COUNT_H_

namespace tqtest {

struct HeapFigures {
  long long blocks = 0;  // allocations not yet freed
  long long bytes = 0;   // their usable sizes
};

// False when this binary does not count (a sanitizer build).
bool HeapCounted();
HeapFigures HeapNow();
// Under valgrind, makes memcheck report an error naming `what`, so that a
// memcheck run fails; nothing otherwise.
void FlagToMemoryChecker(const char *what);

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_HEAP_COUNT_H_
