// The library-side objects of the BlueZ backend: peripherals, services, characteristics.
//
// These are what the device model holds and asks. Their fields (name, state, services,
// values, notification state) are written on the central's queue, just before the
// delegate call that announces the change, so a delegate always reads the value that
// belongs to its call: a notification's value is set by the very task that delivers it,
// and a burst of notifications cannot overwrite one another before they are read.
// Operations (connect, discover, write, ...) are handed to the central, which runs them
// on its bus thread.
//
// A service or characteristic belongs to one connection (its `generation`); once that
// link is gone it stays readable but operations on it are refused with a log line, so a
// late write can never reach the objects of a newer connection.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/platform/Platform.h"
#include "platform/bluez/BluezIdentifiers.h"

namespace qlt::bluez {

class BluezCentral;
class BluezService;

class BluezPeripheral final : public platform::Peripheral,
                              public std::enable_shared_from_this<BluezPeripheral> {
 public:
  BluezPeripheral(std::weak_ptr<BluezCentral> central, const Address& address);

  UUID identifier() const override { return identifier_; }
  std::optional<std::string> name() const override;
  platform::PeripheralState state() const override { return state_.load(); }
  std::vector<std::shared_ptr<platform::Service>> services() const override;
  std::shared_ptr<platform::PeripheralDelegate> delegate() const override;
  void setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& delegate) override;
  void discoverServices(const std::optional<std::vector<UUID>>& serviceUUIDs) override;
  void discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                               const std::shared_ptr<platform::Service>& service) override;
  void writeValue(const Data& data, const std::shared_ptr<platform::Characteristic>& characteristic,
                  platform::WriteType type) override;
  void readValue(const std::shared_ptr<platform::Characteristic>& characteristic) override;
  void setNotifyValue(bool enabled,
                      const std::shared_ptr<platform::Characteristic>& characteristic) override;
  size_t maximumWriteValueLength(platform::WriteType type) const override;
  // The ATT MTU as bluetoothd reports it (0 until it has); bluetoothd does not expose the
  // connection interval, the PHY or the data length, so they stay unknown.
  platform::LinkInfo linkInfo() const override;
  std::optional<std::string> bluetoothAddress() const override { return addressString(address_); }

  // ---- for the backend
  const Address& address() const { return address_; }
  void setName(std::optional<std::string> name);
  void setState(platform::PeripheralState state) { state_.store(state); }
  void setServices(std::vector<std::shared_ptr<platform::Service>> services);
  // The ATT MTU of the current link, as BlueZ reports it on the characteristics; 0 unknown.
  void setMtu(int mtu) { mtu_.store(mtu); }
  int mtu() const { return mtu_.load(); }

 private:
  const std::weak_ptr<BluezCentral> central_;
  const Address address_;
  const UUID identifier_;
  std::atomic<platform::PeripheralState> state_{platform::PeripheralState::Disconnected};
  std::atomic<int> mtu_{0};

  mutable std::mutex mutex_;
  std::optional<std::string> name_;                           // guarded by mutex_
  std::vector<std::shared_ptr<platform::Service>> services_;  // guarded by mutex_
  std::weak_ptr<platform::PeripheralDelegate> delegate_;      // guarded by mutex_
};

class BluezService final : public platform::Service {
 public:
  BluezService(UUID uuid, bool primary, std::string path, uint64_t generation,
               const std::shared_ptr<BluezPeripheral>& peripheral)
      : uuid_(uuid),
        primary_(primary),
        path_(std::move(path)),
        generation_(generation),
        peripheral_(peripheral) {}

  UUID uuid() const override { return uuid_; }
  bool isPrimary() const override { return primary_; }
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics() const override;
  std::shared_ptr<platform::Peripheral> peripheral() const override { return peripheral_.lock(); }

  const std::string& path() const { return path_; }
  uint64_t generation() const { return generation_; }
  void setCharacteristics(std::vector<std::shared_ptr<platform::Characteristic>> list);

 private:
  const UUID uuid_;
  const bool primary_;
  const std::string path_;
  const uint64_t generation_;
  const std::weak_ptr<BluezPeripheral> peripheral_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics_;  // guarded
};

class BluezCharacteristic final : public platform::Characteristic {
 public:
  BluezCharacteristic(UUID uuid, uint32_t properties, std::string path, uint64_t generation,
                      const std::shared_ptr<BluezService>& service)
      : uuid_(uuid),
        properties_(properties),
        path_(std::move(path)),
        generation_(generation),
        service_(service) {}

  UUID uuid() const override { return uuid_; }
  uint32_t properties() const override { return properties_; }
  std::optional<Data> value() const override;
  bool isNotifying() const override;
  std::shared_ptr<platform::Service> service() const override { return service_.lock(); }

  const std::string& path() const { return path_; }
  uint64_t generation() const { return generation_; }
  void setValue(const Data& value);
  void setNotifying(bool notifying);

 private:
  const UUID uuid_;
  const uint32_t properties_;
  const std::string path_;
  const uint64_t generation_;
  const std::weak_ptr<BluezService> service_;
  mutable std::mutex mutex_;
  std::optional<Data> value_;  // guarded by mutex_
  bool notifying_ = false;     // guarded by mutex_
};

}  // namespace qlt::bluez
