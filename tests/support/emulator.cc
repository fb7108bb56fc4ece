// Runs the device database emulator for the tests.
#include "support/emulator.h"

namespace tqtest {

namespace {

constexpr char kDir[] = "/tmp/redis";

ChildResult Devdb(const std::string &command,
                  const std::vector<std::string> &args) {
  std::vector<std::string> argv{TQDEVDB_PATH, command, "--dir", kDir};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

}  // namespace

bool DeviceEmulator::Start() {
  Stop();
  running_ = Devdb("start", {}).exit_code == 0;
  return running_;
}

void DeviceEmulator::Stop() {
  if (!running_) return;
  Devdb("stop", {});
  running_ = false;
}

ChildResult DeviceEmulator::Ctl(const std::vector<std::string> &args) const {
  return Devdb("ctl", args);
}

}  // namespace tqtest
