// A clock the test controls. Linking this in replaces the C library's
// gettimeofday() for the whole test process, the library included (see
// tq_fake_clock in tests/CMakeLists.txt); the real clock answers until a
// time is set.
#ifndef TQREDIS_TESTS_SUPPORT_CLOCK_H_
#define TQREDIS_TESTS_SUPPORT_CLOCK_H_

namespace tqtest {

// Every later gettimeofday() returns exactly this time, until changed.
void SetClock(long sec, long usec);
// Back to the real time.
void UseRealClock();

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_CLOCK_H_
