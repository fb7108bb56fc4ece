// Linked into every test binary. The library ends a process that loses a
// live connection with exit(0); a test process that ends that way, before
// GoogleTest finished its run, would look like a pass. It fails instead.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

namespace {

const pid_t g_main_pid = getpid();
bool g_finished = false;

class FinishedListener : public ::testing::EmptyTestEventListener {
  void OnTestProgramEnd(const ::testing::UnitTest &) override {
    g_finished = true;
  }
};

// Death-test children (forked, another pid) end as their statement says;
// listing the tests for discovery runs none.
void FailAnEarlyExit() {
  if (getpid() != g_main_pid || g_finished || GTEST_FLAG_GET(list_tests)) {
    return;
  }
  std::fprintf(stderr, "test process ended before its tests finished\n");
  std::fflush(nullptr);
  _exit(98);
}

const bool g_installed = [] {
  std::atexit(FailAnEarlyExit);
  ::testing::UnitTest::GetInstance()->listeners().Append(new FinishedListener);
  return true;
}();

}  // namespace
