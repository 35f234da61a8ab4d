// SimService and SimCharacteristic: the central's view of a simulated device's GATT table
// during one link.
//
// A peripheral builds the whole table when a link is made, hidden; discovery reveals
// parts of it (services(), characteristics()), as a real stack fills in what it found.
// The objects belong to that link: after it ends, writes through them are refused.
//
// Threads: readers may call from any thread; the peripheral updates value and notifying
// on the central's queue, before the matching delegate call.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::sim {

class SimLink;
class SimService;

class SimCharacteristic final : public platform::Characteristic {
 public:
  SimCharacteristic(const SimCharacteristicConfig& config, std::weak_ptr<SimService> service)
      : uuid_(config.uuid), properties_(config.properties), service_(std::move(service)) {}

  UUID uuid() const override { return uuid_; }
  uint32_t properties() const override { return properties_; }
  std::optional<Data> value() const override;
  bool isNotifying() const override;
  std::shared_ptr<platform::Service> service() const override;

  void setValue(const Data& value);
  void setNotifying(bool notifying);
  std::shared_ptr<SimService> simService() const { return service_.lock(); }

 private:
  const UUID uuid_;
  const uint32_t properties_;
  const std::weak_ptr<SimService> service_;
  mutable std::mutex mutex_;
  std::optional<Data> value_;  // guarded by mutex_
  bool notifying_ = false;     // guarded by mutex_
};

class SimService final : public platform::Service, public std::enable_shared_from_this<SimService> {
 public:
  // A service with all its characteristics (none discovered yet), belonging to `link`.
  static std::shared_ptr<SimService> create(const SimServiceConfig& config,
                                            std::weak_ptr<platform::Peripheral> peripheral,
                                            std::weak_ptr<SimLink> link);

  UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics() const override;
  std::shared_ptr<platform::Peripheral> peripheral() const override { return peripheral_.lock(); }

  // Reveals the characteristics asked for (all when empty), in table order.
  void discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids);
  std::shared_ptr<SimLink> link() const { return link_.lock(); }
  // The characteristic of this service with `uuid`, discovered or not.
  std::shared_ptr<SimCharacteristic> find(const UUID& uuid) const;

 private:
  SimService(const UUID& uuid, std::weak_ptr<platform::Peripheral> peripheral,
             std::weak_ptr<SimLink> link)
      : uuid_(uuid), peripheral_(std::move(peripheral)), link_(std::move(link)) {}

  const UUID uuid_;
  const std::weak_ptr<platform::Peripheral> peripheral_;
  const std::weak_ptr<SimLink> link_;
  std::vector<std::shared_ptr<SimCharacteristic>> all_;  // set in create(), then constant
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<SimCharacteristic>> discovered_;  // guarded by mutex_
};

}  // namespace qlt::sim
