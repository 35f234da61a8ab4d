#include "SimGatt.h"

#include <algorithm>

namespace qlt::sim {

std::optional<Data> SimCharacteristic::value() const {
  std::lock_guard lock(mutex_);
  return value_;
}

bool SimCharacteristic::isNotifying() const {
  std::lock_guard lock(mutex_);
  return notifying_;
}

std::shared_ptr<platform::Service> SimCharacteristic::service() const { return service_.lock(); }

void SimCharacteristic::setValue(const Data& value) {
  std::lock_guard lock(mutex_);
  value_ = value;
}

void SimCharacteristic::setNotifying(bool notifying) {
  std::lock_guard lock(mutex_);
  notifying_ = notifying;
}

std::shared_ptr<SimService> SimService::create(const SimServiceConfig& config,
                                               std::weak_ptr<platform::Peripheral> peripheral,
                                               std::weak_ptr<SimLink> link) {
  std::shared_ptr<SimService> service(
      new SimService(config.uuid, std::move(peripheral), std::move(link)));
  for (const auto& characteristic : config.characteristics) {
    service->all_.push_back(std::make_shared<SimCharacteristic>(characteristic, service));
  }
  return service;
}

std::vector<std::shared_ptr<platform::Characteristic>> SimService::characteristics() const {
  std::lock_guard lock(mutex_);
  return {discovered_.begin(), discovered_.end()};
}

void SimService::discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids) {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<SimCharacteristic>> revealed;
  for (const auto& characteristic : all_) {
    const bool asked =
        !uuids || std::find(uuids->begin(), uuids->end(), characteristic->uuid()) != uuids->end();
    const bool known =
        std::find(discovered_.begin(), discovered_.end(), characteristic) != discovered_.end();
    if (asked || known) revealed.push_back(characteristic);
  }
  discovered_ = std::move(revealed);
}

std::shared_ptr<SimCharacteristic> SimService::find(const UUID& uuid) const {
  for (const auto& characteristic : all_) {
    if (characteristic->uuid() == uuid) return characteristic;
  }
  return nullptr;
}

}  // namespace qlt::sim
