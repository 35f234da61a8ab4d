#include "platform/bluez/BluezPeripheral.h"

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezCentral.h"

namespace qlt::bluez {

namespace {

// The objects handed to a peripheral must be this backend's; anything else is a caller's
// mistake, logged and dropped.
template <class T, class U>
std::shared_ptr<T> own(const std::shared_ptr<U>& object, const char* operation) {
  auto cast = std::dynamic_pointer_cast<T>(object);
  if (!cast) QLTLog("BlueZ: %s: not an object of this backend; ignored", operation);
  return cast;
}

}  // namespace

BluezPeripheral::BluezPeripheral(std::weak_ptr<BluezCentral> central, const Address& address)
    : central_(std::move(central)), address_(address), identifier_(identifierForAddress(address)) {}

std::optional<std::string> BluezPeripheral::name() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return name_;
}

void BluezPeripheral::setName(std::optional<std::string> name) {
  std::lock_guard<std::mutex> lock(mutex_);
  name_ = std::move(name);
}

std::vector<std::shared_ptr<platform::Service>> BluezPeripheral::services() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return services_;
}

void BluezPeripheral::setServices(std::vector<std::shared_ptr<platform::Service>> services) {
  std::lock_guard<std::mutex> lock(mutex_);
  services_ = std::move(services);
}

std::shared_ptr<platform::PeripheralDelegate> BluezPeripheral::delegate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegate_.lock();
}

void BluezPeripheral::setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& delegate) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegate_ = delegate;
}

void BluezPeripheral::discoverServices(const std::optional<std::vector<UUID>>& serviceUUIDs) {
  if (auto central = central_.lock()) central->discoverServices(shared_from_this(), serviceUUIDs);
}

void BluezPeripheral::discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                                              const std::shared_ptr<platform::Service>& service) {
  auto s = own<BluezService>(service, "discoverCharacteristics");
  if (!s) return;
  if (auto central = central_.lock())
    central->discoverCharacteristics(shared_from_this(), s, uuids);
}

void BluezPeripheral::writeValue(const Data& data,
                                 const std::shared_ptr<platform::Characteristic>& characteristic,
                                 platform::WriteType type) {
  auto c = own<BluezCharacteristic>(characteristic, "writeValue");
  if (!c) return;
  if (auto central = central_.lock()) central->writeValue(shared_from_this(), c, data, type);
}

void BluezPeripheral::readValue(const std::shared_ptr<platform::Characteristic>& characteristic) {
  auto c = own<BluezCharacteristic>(characteristic, "readValue");
  if (!c) return;
  if (auto central = central_.lock()) central->readValue(shared_from_this(), c);
}

void BluezPeripheral::setNotifyValue(
    bool enabled, const std::shared_ptr<platform::Characteristic>& characteristic) {
  auto c = own<BluezCharacteristic>(characteristic, "setNotifyValue");
  if (!c) return;
  if (auto central = central_.lock()) central->setNotifyValue(shared_from_this(), c, enabled);
}

size_t BluezPeripheral::maximumWriteValueLength(platform::WriteType type) const {
  if (type == platform::WriteType::WithResponse) return 512;  // long writes: the ATT maximum
  const int mtu = mtu_.load();
  const size_t payload = platform::attPayloadLength(mtu);
  return payload > 0 ? payload : 20;  // unknown: the smallest LE link
}

platform::LinkInfo BluezPeripheral::linkInfo() const {
  platform::LinkInfo info;
  if (state_.load() != platform::PeripheralState::Connected) return info;
  info.attMtu = mtu_.load();
  info.maxWriteLength = platform::attPayloadLength(info.attMtu);
  return info;
}

std::vector<std::shared_ptr<platform::Characteristic>> BluezService::characteristics() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return characteristics_;
}

void BluezService::setCharacteristics(std::vector<std::shared_ptr<platform::Characteristic>> list) {
  std::lock_guard<std::mutex> lock(mutex_);
  characteristics_ = std::move(list);
}

std::optional<Data> BluezCharacteristic::value() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return value_;
}

bool BluezCharacteristic::isNotifying() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifying_;
}

void BluezCharacteristic::setValue(const Data& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  value_ = value;
}

void BluezCharacteristic::setNotifying(bool notifying) {
  std::lock_guard<std::mutex> lock(mutex_);
  notifying_ = notifying;
}

}  // namespace qlt::bluez
