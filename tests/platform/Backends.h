// The backends the platform and end-to-end suites run on, each with the devices QLT-Echo
// (sliding-window echo), QLT-Chunk (echoes every write) and HR-Sensor (no UART service), and
// the faults a test can make happen on it.
#pragma once

#include <string>

#include <sys/types.h>
#include <nlohmann/json.hpp>

#include "support/SimWorld.h"
#ifndef QLT_TESTS_WITHOUT_BLUEZ
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezIdentifiers.h"
#endif

namespace qlt::test {

using e2e::Sim;

// A mock bluetoothd on a private bus of its own (mock_bluez.py --session), steered by the test
// with one JSON request per line. Sets DBUS_SYSTEM_BUS_ADDRESS for this process while it lives.
class MockBluez {
 public:
  // Why the mock cannot run here ("" when it can): dbus-daemon or python3-dbus missing.
  static std::string unavailableReason();

  MockBluez() = default;
  ~MockBluez();  // closes its input: the mock stops its bus and exits
  MockBluez(const MockBluez&) = delete;
  MockBluez& operator=(const MockBluez&) = delete;

  // Starts bus and mock; an error text when they do not come up.
  std::string start();
  // One request (see bluez/README.md); its result. A refused request is a test failure.
  nlohmann::json operator()(nlohmann::json request);
  // The mock's address on the air of a default device ("QLT-Chunk" -> "C0:FF:EE:00:00:02").
  static std::string address(const std::string& name);

 private:
  bool readLine(std::string* line, int timeoutMs);

  pid_t pid_ = -1;
  int toMock_ = -1, fromMock_ = -1;
  std::string buffer_;
};

#ifndef QLT_TESTS_WITHOUT_BLUEZ
using Json = nlohmann::json;

// bluetoothd on a private bus, with QLT-Echo, QLT-Chunk and HR-Sensor on the air.
struct Bluez {
  MockBluez mock;
  std::string start() {
    auto why = MockBluez::unavailableReason();
    return why.empty() ? mock.start() : "skip: " + why;
  }
  std::shared_ptr<platform::Backend> backend() { return bluez::makeBackend(); }
  UUID id(const std::string& name) {
    return bluez::identifierForAddress(*bluez::parseAddress(MockBluez::address(name)));
  }
  // One request of the mock's session about the device named `name`.
  Json ask(const std::string& op, const std::string& name, Json request = Json::object()) {
    request["op"] = op;
    request["address"] = MockBluez::address(name);
    return mock(request);
  }
  void power(bool on) { mock({{"op", "power"}, {"on", on}}); }
  void drop(const std::string& name) { ask("drop", name); }
  void failConnects(bool fail) {
    if (fail) ask("fail-next-connect", "QLT-Echo", {{"error", "org.bluez.Error.Failed"}});
  }
  void slowAir() {}
  Json stats(const std::string& name) { return ask("stats", name); }
  void set(const std::string& name, const std::string& what, const Json& value) {
    ask("set", name, {{"name", what}, {"value", value}});
  }
};
#endif

// What the suites that run on every backend run on.
#ifndef QLT_TESTS_WITHOUT_BLUEZ
using Backends = ::testing::Types<Sim, Bluez>;
#else
using Backends = ::testing::Types<Sim>;
#endif

}  // namespace qlt::test
