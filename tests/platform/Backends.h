// The backends the platform and end-to-end suites run on, each with the devices QLT-Echo
// (sliding-window echo), QLT-Chunk (echoes every write) and HR-Sensor (no UART service), and
// the faults a test can make happen on it. The platform suite's backends also let time pass
// at once (passTime), so that a test checks that nothing more arrives without sleeping.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include <sys/types.h>
#include <nlohmann/json.hpp>

#include "support/SimWorld.h"
#ifndef QLT_TESTS_WITHOUT_BLUEZ
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezIdentifiers.h"
#endif

namespace qlt::test {

using e2e::Sim;

// The simulated radio on a ManualClock that follows real time (a thread moves it on every
// millisecond) and that passTime() moves on at once.
struct SteppedSim : Sim {
  SteppedSim() : Sim(true, std::make_shared<ManualClock>()) {}
  // Lets `seconds` pass on the radio in steps, each handled by the devices and then by the
  // central's `queue`: what would have arrived in that time has arrived when this returns.
  void passTime(double seconds, platform::Central&, DispatchQueue& queue) {
    constexpr double kStep = 0.005;  // below every interval of the default devices
    for (double passed = 0;; passed += kStep) {
      radio->flushDevices();
      queue.sync([] {});
      if (passed >= seconds) return;
      clock->advance(kStep);
    }
  }
  ManualClock* clock = static_cast<ManualClock*>(radio->clock().get());
  std::jthread ticker{[clock = clock](const std::stop_token& stop) {
    for (auto last = std::chrono::steady_clock::now(); !stop.stop_requested();) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      const auto now = std::chrono::steady_clock::now();
      clock->advance(std::chrono::duration<double>(now - last).count());
      last = now;
    }
  }};
};
#ifndef QLT_TESTS_WITHOUT_BLUEZ
// bluetoothd on a private bus of its own, with QLT-Echo, QLT-Chunk and HR-Sensor on the air: the
// mock (mock_bluez.py --session), steered by the test with one JSON request per line. Sets
// DBUS_SYSTEM_BUS_ADDRESS for this process while it lives.
class Bluez {
 public:
  using Json = nlohmann::json;
  Bluez() = default;
  ~Bluez();  // closes the mock's input: it stops its bus and exits
  Bluez(const Bluez&) = delete;
  Bluez& operator=(const Bluez&) = delete;

  // "" once bus and mock are up; "skip: why" without dbus-daemon or python3-dbus; else why not.
  std::string start();
  std::shared_ptr<platform::Backend> backend() { return bluez::makeBackend(); }
  UUID id(const std::string& name) {
    return bluez::identifierForAddress(*bluez::parseAddress(address(name)));
  }
  // One request (see bluez/README.md); its result. A refused request is a test failure.
  Json mock(Json request);
  // One request of the mock's session about the device named `name`.
  Json ask(const std::string& op, const std::string& name, Json request = Json::object()) {
    request["op"] = op;
    request["address"] = address(name);
    return mock(request);
  }
  void power(bool on) { mock({{"op", "power"}, {"on", on}}); }
  void drop(const std::string& name) { ask("drop", name); }
  // The link drops and bluetoothd removes the device object.
  void forget(const std::string& name) { ask("forget", name); }
  void failConnects(bool fail) {
    if (fail) ask("fail-next-connect", "QLT-Echo", {{"error", "org.bluez.Error.Failed"}});
  }
  void slowAir() {}
  Json stats(const std::string& name) { return ask("stats", name); }
  void set(const std::string& name, const std::string& what, const Json& value) {
    ask("set", name, {{"name", what}, {"value", value}});
  }
  // What `seconds` would bring, at once: the library's calls and writes reach bluetoothd,
  // which fires every timer of its own those seconds hold (scans, links, its devices' polls);
  // then what it sent has been handled by `central` and its `queue`.
  void passTime(double seconds, platform::Central& central, DispatchQueue& queue);
  // The mock's address of a default device ("QLT-Chunk" -> "C0:FF:EE:00:00:02").
  static std::string address(const std::string& name);

 private:
  bool readLine(std::string* line, int timeoutMs);

  pid_t pid_ = -1;
  int toMock_ = -1, fromMock_ = -1;
  std::string buffer_;
};
#endif

// What the suites that run on every backend run on.
#ifndef QLT_TESTS_WITHOUT_BLUEZ
using Backends = ::testing::Types<Sim, Bluez>;
using SteppedBackends = ::testing::Types<SteppedSim, Bluez>;
#else
using Backends = ::testing::Types<Sim>;
using SteppedBackends = ::testing::Types<SteppedSim>;
#endif

}  // namespace qlt::test
