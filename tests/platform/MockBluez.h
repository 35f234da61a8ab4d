// A mock bluetoothd on a private bus of its own (mock_bluez.py --session), steered by the test
// with one JSON request per line. Sets DBUS_SYSTEM_BUS_ADDRESS for this process while it lives.
#pragma once

#include <string>

#include <sys/types.h>
#include <nlohmann/json.hpp>

namespace qlt::test {

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
  // One request (see README.md); its result. A refused request is a test failure.
  nlohmann::json operator()(nlohmann::json request);
  // The mock's address on the air of a default device ("QLT-Chunk" -> "C0:FF:EE:00:00:02").
  static std::string address(const std::string& name);

 private:
  bool readLine(std::string* line, int timeoutMs);

  pid_t pid_ = -1;
  int toMock_ = -1, fromMock_ = -1;
  std::string buffer_;
};

}  // namespace qlt::test
