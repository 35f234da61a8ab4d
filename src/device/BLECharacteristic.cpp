#include "QueltLibrary/BLECharacteristic.h"

#include <typeinfo>

#include "QueltLibrary/Log.h"

namespace qlt {

BLECharacteristic::BLECharacteristic(std::shared_ptr<platform::Characteristic> characteristic,
                                     std::string name)
    : characteristic_(std::move(characteristic)), name_(std::move(name)) {}

std::shared_ptr<BLECharacteristic> BLECharacteristic::create(
    std::shared_ptr<platform::Characteristic> characteristic, std::string name) {
  return std::shared_ptr<BLECharacteristic>(
      new BLECharacteristic(std::move(characteristic), std::move(name)));
}

std::shared_ptr<platform::Characteristic> BLECharacteristic::characteristic() const {
  std::lock_guard lock(mutex_);
  return characteristic_;
}

void BLECharacteristic::setCharacteristic(
    std::shared_ptr<platform::Characteristic> characteristic) {
  std::lock_guard lock(mutex_);
  characteristic_ = std::move(characteristic);
}

UUID BLECharacteristic::identifier() const {
  auto c = characteristic();
  return c ? c->uuid() : UUID();
}

std::optional<Data> BLECharacteristic::readValue() const {
  auto c = characteristic();
  return c ? c->value() : std::nullopt;
}

bool BLECharacteristic::isNotifying() const {
  auto c = characteristic();
  return c && c->isNotifying();
}

std::shared_ptr<platform::Peripheral> BLECharacteristic::owningPeripheral() const {
  auto c = characteristic();
  if (!c) return nullptr;
  auto service = c->service();
  return service ? service->peripheral() : nullptr;
}

std::optional<platform::WriteType> BLECharacteristic::writeType() const {
  auto c = characteristic();
  const uint32_t properties = c ? c->properties() : 0;
  if (properties & platform::kPropertyWriteWithoutResponse) {
    return platform::WriteType::WithoutResponse;
  }
  if (properties & platform::kPropertyWrite) return platform::WriteType::WithResponse;
  return std::nullopt;
}

void BLECharacteristic::writeValueWithData(const Data& data) {
  if (const auto type = writeType()) {
    writeValueWithData(data, *type);
  } else {
    QLTLog("No write property");
  }
}

void BLECharacteristic::writeValueWithData(const Data& data, platform::WriteType type) {
  if (data.length() == 0) {
    QLTLog("Warning : No data to write to characteristics");
    return;
  }
  auto c = characteristic();
  if (auto peripheral = owningPeripheral()) peripheral->writeValue(data, c, type);
}

void BLECharacteristic::startNotifications() {
  if (auto peripheral = owningPeripheral()) peripheral->setNotifyValue(true, characteristic());
}

void BLECharacteristic::stopNotifications() {
  if (auto peripheral = owningPeripheral()) peripheral->setNotifyValue(false, characteristic());
}

bool BLECharacteristic::isEqual(const std::shared_ptr<platform::Characteristic>& other) const {
  if (!other) return false;
  return identifier() == other->uuid();
}

bool BLECharacteristic::isEqual(const std::shared_ptr<BLECharacteristic>& other) const {
  if (!other) return false;
  const BLECharacteristic& o = *other;
  if (typeid(o) != typeid(BLECharacteristic)) return false;
  return other.get() == this;
}

std::string BLECharacteristic::description() const {
  return name_ + " " + identifier().UUIDString();
}

}  // namespace qlt
