// BLEService: a thin wrapper round one discovered platform service.
//
// It carries a display name ("NUS Service" for the UART service, "SVC" for any other),
// the wrapped platform service and the list of its wrapped characteristics, which
// setCharacteristics() replaces whole (NUSService overrides it to pick tx and rx).
//
// Thread safety: every member may be called from any thread; the mutable fields are
// guarded by a lock, and no platform or user code runs under it.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QueltLibrary/BLECharacteristic.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt {

class QLT_EXPORT BLEService : public std::enable_shared_from_this<BLEService> {
 public:
  // initWithName:andService:
  static std::shared_ptr<BLEService> create(std::string name,
                                            std::shared_ptr<platform::Service> service);
  virtual ~BLEService() = default;

  bool enabled() const;
  void setEnabled(bool enabled);
  std::string name() const;
  void setName(std::string name);
  const std::shared_ptr<platform::Service>& baseService() const { return baseService_; }
  // The platform service's UUID.
  UUID identifier() const;

  std::vector<std::shared_ptr<BLECharacteristic>> characteristics() const;
  virtual void setCharacteristics(std::vector<std::shared_ptr<BLECharacteristic>> characteristics);

  // Placeholders kept in the interface; they do nothing and return true.
  bool startService() { return true; }
  bool stopService() { return true; }

  // The platform characteristic of the first wrapper with this identifier, or null.
  std::shared_ptr<platform::Characteristic> getCharacteristics(const UUID& uuid) const;

  std::string description() const { return name(); }

 protected:
  BLEService(std::string name, std::shared_ptr<platform::Service> service);

 private:
  const std::shared_ptr<platform::Service> baseService_;
  mutable std::mutex mutex_;
  bool enabled_ = false;                                             // guarded by mutex_
  std::string name_;                                                 // guarded by mutex_
  std::vector<std::shared_ptr<BLECharacteristic>> characteristics_;  // guarded by mutex_
};

}  // namespace qlt
