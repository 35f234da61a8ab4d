// The backends the platform and end-to-end suites run on, each with the devices QLT-Echo
// (sliding-window echo), QLT-Chunk (echoes every write) and HR-Sensor (no UART service), and
// the faults a test can make happen on it.
#pragma once

#include <string>

#include "support/SimWorld.h"
#ifndef QLT_TESTS_WITHOUT_BLUEZ
#include "MockBluez.h"
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezIdentifiers.h"
#endif

namespace qlt::test {

using e2e::Sim;

#ifndef QLT_TESTS_WITHOUT_BLUEZ
using Json = nlohmann::json;

// bluetoothd on a private bus, with QLT-Echo, QLT-Chunk and HR-Sensor on the air.
struct Bluez {
  static constexpr const char* kName = "bluez";
  MockBluez mock;
  std::string start() {
    auto why = MockBluez::unavailableReason();
    return why.empty() ? mock.start() : "skip: " + why;
  }
  std::shared_ptr<platform::Backend> backend() { return bluez::makeBackend(); }
  UUID id(const std::string& name) {
    return bluez::identifierForAddress(*bluez::parseAddress(MockBluez::address(name)));
  }
  void power(bool on) { mock({{"op", "power"}, {"on", on}}); }
  void drop(const std::string& name) {
    mock({{"op", "drop"}, {"address", MockBluez::address(name)}});
  }
  void failConnects(bool fail) {
    if (fail) {
      mock({{"op", "fail-next-connect"},
            {"address", MockBluez::address("QLT-Echo")},
            {"error", "org.bluez.Error.Failed"}});
    }
  }
  void slowAir() {}
  Json stats(const std::string& name) {
    return mock({{"op", "stats"}, {"address", MockBluez::address(name)}});
  }
  void set(const std::string& name, const std::string& what, const Json& value) {
    mock({{"op", "set"}, {"address", MockBluez::address(name)}, {"name", what}, {"value", value}});
  }
};
#endif

}  // namespace qlt::test
