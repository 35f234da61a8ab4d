#include "QueltLibrary/BLEService.h"

namespace qlt {

BLEService::BLEService(std::string name, std::shared_ptr<platform::Service> service)
    : baseService_(std::move(service)), name_(std::move(name)) {}

std::shared_ptr<BLEService> BLEService::create(std::string name,
                                               std::shared_ptr<platform::Service> service) {
  return std::shared_ptr<BLEService>(new BLEService(std::move(name), std::move(service)));
}

bool BLEService::enabled() const {
  std::lock_guard lock(mutex_);
  return enabled_;
}
void BLEService::setEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  enabled_ = enabled;
}
std::string BLEService::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}
void BLEService::setName(std::string name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}

UUID BLEService::identifier() const { return baseService_ ? baseService_->uuid() : UUID(); }

std::vector<std::shared_ptr<BLECharacteristic>> BLEService::characteristics() const {
  std::lock_guard lock(mutex_);
  return characteristics_;
}

void BLEService::setCharacteristics(
    std::vector<std::shared_ptr<BLECharacteristic>> characteristics) {
  std::lock_guard lock(mutex_);
  characteristics_ = std::move(characteristics);
}

std::shared_ptr<platform::Characteristic> BLEService::getCharacteristics(const UUID& uuid) const {
  for (const auto& c : characteristics()) {
    if (c && c->identifier() == uuid) return c->baseCharacteristic();
  }
  return nullptr;
}

}  // namespace qlt
