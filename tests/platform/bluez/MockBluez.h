// Test fixtures for the BlueZ backend: a private bus with the mock bluetoothd, and a
// delegate that records what the platform layer reports.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>
#include <nlohmann/json.hpp>

#include "QueltLibrary/platform/Platform.h"

namespace qlt::test {

// A dbus-daemon and mock_bluez.py of our own (through tests/platform/bluez/mock_session.py),
// torn down with the object. Sets DBUS_SYSTEM_BUS_ADDRESS for this process.
class MockBluez {
 public:
  // Why the mock cannot run here ("" when it can): dbus-daemon or python3-dbusmock missing.
  static std::string unavailableReason();

  MockBluez() = default;
  ~MockBluez();
  MockBluez(const MockBluez&) = delete;
  MockBluez& operator=(const MockBluez&) = delete;

  // Starts bus and mock; false with `error` set when they do not come up.
  bool start(const std::vector<std::string>& arguments, std::string* error);
  const std::string& address() const { return address_; }

  // One request of the session protocol; the reply object ({"ok": ..} or {"error": ..}).
  nlohmann::json request(const nlohmann::json& request);
  // A method of the control interface org.bluez.Test; adds a test failure on an error.
  nlohmann::json control(const std::string& method, const std::string& signature = "",
                         const nlohmann::json& args = nlohmann::json::array());
  // The mock's log, for failure messages.
  std::string log();

 private:
  bool readLine(std::string* line, std::chrono::milliseconds timeout);

  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::string buffer_;
  std::string address_;
};

// One platform event as the recorder saw it.
struct Event {
  explicit Event(std::string k, std::shared_ptr<platform::Peripheral> p = {},
                 std::optional<platform::Error> e = {})
      : kind(std::move(k)), peripheral(std::move(p)), error(std::move(e)) {}
  std::string kind;  // "state", "discover", "connect", "fail", "disconnect", "services",
                     // "characteristics", "notify-state", "value", "write"
  std::shared_ptr<platform::Peripheral> peripheral;
  std::optional<platform::Error> error;
  platform::CentralState state = platform::CentralState::Unknown;
  platform::AdvertisementData advertisement;
  int rssi = 0;
  std::shared_ptr<platform::Service> service;
  std::shared_ptr<platform::Characteristic> characteristic;
  std::optional<Data> value;  // a characteristic's value as the delegate call saw it
  bool notifying = false;
  std::string queue;  // the label of the queue the call arrived on
};

class Recorder final : public platform::CentralDelegate, public platform::PeripheralDelegate {
 public:
  void centralManagerDidUpdateState(platform::Central& central) override;
  void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const platform::AdvertisementData& advertisementData, int rssi) override;
  void centralManager_didConnectPeripheral(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral) override;
  void centralManager_didFailToConnectPeripheral_error(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;
  void centralManager_didDisconnectPeripheral_error(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;
  void peripheral_didDiscoverServices(const std::shared_ptr<platform::Peripheral>& peripheral,
                                      const std::optional<platform::Error>& error) override;
  void peripheral_didDiscoverCharacteristicsForService_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Service>& service,
      const std::optional<platform::Error>& error) override;
  void peripheral_didUpdateNotificationStateForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;
  void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;
  void peripheral_didWriteValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;

  std::vector<Event> events() const;
  std::vector<Event> events(const std::string& kind) const;
  size_t count(const std::string& kind) const { return events(kind).size(); }
  // Waits until `predicate` holds for the recorded events; the last events on a time-out.
  bool waitUntil(const std::function<bool(const std::vector<Event>&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Waits for the `n`th event of `kind` (1-based) and returns it.
  std::optional<Event> waitFor(const std::string& kind, size_t n = 1,
                               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  void clear();

 private:
  void record(Event event);
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<Event> events_;
};

}  // namespace qlt::test
