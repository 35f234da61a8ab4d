// BLECharacteristic: a thin wrapper round one platform characteristic.
//
// It adds a display name and write, read and notification operations that reach the
// owning platform peripheral through the characteristic's own service → peripheral links,
// so the wrapper never holds the peripheral itself.
//
// - writeValueWithData(data) writes without response when the characteristic allows it
//   (property 0x04), else with response (0x08), else logs "No write property";
//   writeType() is that choice, for a caller that writes through a peripheral it holds.
// - value()/readValue() give the value the platform last received; no read is sent.
// - startNotifications()/stopNotifications() ask the platform to switch notifications;
//   it answers later on the peripheral's delegate.
//
// Thread safety: every member may be called from any thread; the wrapped characteristic
// is guarded by a lock. Platform calls are made without holding it.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt {

class QLT_EXPORT BLECharacteristic : public std::enable_shared_from_this<BLECharacteristic> {
 public:
  // initWithCharacteristics:andName:
  static std::shared_ptr<BLECharacteristic> create(
      std::shared_ptr<platform::Characteristic> characteristic, std::string name);
  virtual ~BLECharacteristic() = default;

  std::shared_ptr<platform::Characteristic> characteristic() const;
  void setCharacteristic(std::shared_ptr<platform::Characteristic> characteristic);
  std::shared_ptr<platform::Characteristic> baseCharacteristic() const { return characteristic(); }
  const std::string& name() const { return name_; }

  // The platform characteristic's UUID (a zero UUID when there is none).
  UUID identifier() const;
  std::optional<Data> value() const { return readValue(); }
  std::optional<Data> readValue() const;
  bool isNotifying() const;

  void writeValueWithData(const Data& data);
  // How writeValueWithData(data) writes; nullopt when the characteristic takes no writes.
  std::optional<platform::WriteType> writeType() const;
  void writeValueWithData(const Data& data, platform::WriteType type);
  void startNotifications();
  void stopNotifications();

  // Against a platform characteristic: equal identifiers. Against a wrapper whose class is
  // exactly BLECharacteristic: the same object. Anything else (null, a subclass): false.
  bool isEqual(const std::shared_ptr<platform::Characteristic>& other) const;
  bool isEqual(const std::shared_ptr<BLECharacteristic>& other) const;

  std::string description() const;

  // The platform peripheral, found through the characteristic's service (a climb of the
  // GATT graph: code that holds the peripheral writes through it instead).
  std::shared_ptr<platform::Peripheral> owningPeripheral() const;

 protected:
  BLECharacteristic(std::shared_ptr<platform::Characteristic> characteristic, std::string name);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<platform::Characteristic> characteristic_;  // guarded by mutex_
  const std::string name_;
};

}  // namespace qlt
