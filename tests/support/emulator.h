// The device database emulator (tqredis-devdb) serving the device's three
// socket paths, for tests that run in a private mount namespace (see
// private_ns.sh): stock servers behind it, notifications with values, client
// status lines and faults on demand.
#ifndef TQREDIS_TESTS_SUPPORT_EMULATOR_H_
#define TQREDIS_TESTS_SUPPORT_EMULATOR_H_

#include <string>
#include <vector>

#include "support/support.h"

namespace tqtest {

class DeviceEmulator {
 public:
  DeviceEmulator() = default;
  ~DeviceEmulator() { Stop(); }
  DeviceEmulator(const DeviceEmulator &) = delete;
  DeviceEmulator &operator=(const DeviceEmulator &) = delete;

  // Starts it in the background on /tmp/redis; true once the three sockets
  // accept connections.
  bool Start();
  // Stops it and waits until it is gone (its servers with it).
  void Stop();
  // "tqredis-devdb ctl <args...>": a fault command (see docs/devdb.md), e.g.
  // Ctl({"inject", "redis_host", "*5\r\n..."}). Returns its output.
  ChildResult Ctl(const std::vector<std::string> &args) const;

 private:
  bool running_ = false;
};

}  // namespace tqtest

#endif  // TQREDIS_TESTS_SUPPORT_EMULATOR_H_
