// Linked into every test binary.
//
// Each test runs in a process of its own: the library keeps process-wide
// state that a test may change for good (the lock once enabled, the init
// flag, the connections, the log files). ctest starts one process per test;
// a binary started by hand with more than one test selected does the same,
// running each selected test in a child of its own (through the private
// mount namespace for tests that start servers) and summing up.
//
// The library ends a process that loses a live connection with exit(0); a
// test process that ends that way, before GoogleTest finished its run, would
// look like a pass. It fails instead.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// What ctest starts this binary through: the private mount namespace for
// tests that start servers, and the link named as this binary to the
// emulator of a cross build ("" when unused).
#ifndef TQTEST_PRIVATE_NS
#define TQTEST_PRIVATE_NS ""
#endif
#ifndef TQTEST_NAMED_EMULATOR
#define TQTEST_NAMED_EMULATOR ""
#endif

namespace {

const pid_t g_main_pid = getpid();
bool g_finished = false;

// This process's arguments, from the kernel's copy.
std::vector<std::string> OwnArguments() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)),
                        std::istreambuf_iterator<char>());
  std::vector<std::string> args;
  for (size_t at = 0; at < all.size();) {
    const size_t end = all.find('\0', at);
    args.push_back(all.substr(at, end - at));
    at = end == std::string::npos ? all.size() : end + 1;
  }
  return args;
}

// The file this process runs. Executing it again keeps the process name,
// which the library takes from the file's name.
std::string OwnExecutable() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0) return "";
  path[n] = '\0';
  return path;
}

// Runs the binary again with `args` and the filter `test` last (the last
// filter wins), through what ctest would start it through; the wait status.
int RunInAChild(const std::string &self, const std::vector<std::string> &args,
                const std::string &test) {
  std::vector<std::string> argv;
  for (const char *launcher : {TQTEST_PRIVATE_NS, TQTEST_NAMED_EMULATOR}) {
    if (launcher[0] != '\0') argv.push_back(launcher);
  }
  argv.push_back(self);
  argv.insert(argv.end(), args.begin(), args.end());
  argv.push_back("--gtest_filter=" + test);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char *> raw;
    for (std::string &arg : argv) raw.push_back(&arg[0]);
    raw.push_back(nullptr);
    execv(raw[0], raw.data());
    std::fprintf(stderr, "cannot run %s\n", raw[0]);
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return status;
}

// Runs every selected test in a child of its own, prints the outcome as
// GoogleTest would, and ends this process with 0 when all passed, else 1.
[[noreturn]] void RunEachTestInAChild(const ::testing::UnitTest &unit) {
  std::vector<std::string> tests;
  for (int i = 0; i < unit.total_test_suite_count(); ++i) {
    const ::testing::TestSuite *suite = unit.GetTestSuite(i);
    for (int j = 0; j < suite->total_test_count(); ++j) {
      const ::testing::TestInfo *info = suite->GetTestInfo(j);
      if (info->should_run()) {
        tests.push_back(std::string(suite->name()) + "." + info->name());
      }
    }
  }
  const std::string self = OwnExecutable();
  std::vector<std::string> args = OwnArguments();
  if (!args.empty()) args.erase(args.begin());
  std::printf(
      "[==========] %zu tests, each in a process of its own as under ctest\n",
      tests.size());
  std::vector<std::string> failed;
  for (const std::string &test : tests) {
    const int status = RunInAChild(self, args, test);
    if (status < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failed.push_back(test);
    }
  }
  std::printf("[==========] %zu tests ran, each in a process of its own.\n",
              tests.size());
  std::printf("[  PASSED  ] %zu tests.\n", tests.size() - failed.size());
  if (!failed.empty()) {
    std::printf("[  FAILED  ] %zu tests, listed below:\n", failed.size());
    for (const std::string &test : failed) {
      std::printf("[  FAILED  ] %s\n", test.c_str());
    }
  }
  std::fflush(nullptr);
  _exit(failed.empty() ? 0 : 1);
}

class Listener : public ::testing::EmptyTestEventListener {
  // Only the process that was started by hand gets here with more than one
  // test: ctest and death tests select exactly one.
  void OnTestProgramStart(const ::testing::UnitTest &unit) override {
    if (unit.test_to_run_count() > 1) RunEachTestInAChild(unit);
  }
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
  ::testing::UnitTest::GetInstance()->listeners().Append(new Listener);
  return true;
}();

}  // namespace
