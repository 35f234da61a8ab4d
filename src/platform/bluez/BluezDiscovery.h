// Discovery: scanning on the adapter in use, and the advertisement reports it yields, on the
// bus thread.
//
// SetDiscoveryFilter (Transport "le", DuplicateData true, the service UUIDs asked for; both
// keys set explicitly, as the documented default differs from what some daemons do), then
// StartDiscovery; StopDiscovery at the end. bluetoothd merges the filters of all its
// clients, so reports are filtered by this scan's UUIDs again; without duplicates each
// device is reported once per scan.
//
// Thread safety: bus thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BluezMirror.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

class Discovery {
 public:
  using Report = std::function<void(const Address& address, const platform::AdvertisementData& data,
                                    int rssi)>;
  Discovery(BusPort& port, ObjectMirror& mirror, std::chrono::milliseconds callTimeout,
            Report report)
      : port_(port), mirror_(mirror), callTimeout_(callTimeout), report_(std::move(report)) {}

  void start(std::vector<UUID> uuids, bool allowDuplicates);
  void stop();
  bool wanted() const { return wanted_; }
  // The adapter in use (empty: none). A new one has no discovery running.
  void setAdapter(const std::string& path);
  // The adapter is off or bluetoothd gone: the scan ends without a call.
  void drop();
  // Reports the device object `path` if this scan wants it.
  void report(const Address& address, const std::string& path);

 private:
  void apply();
  bool matches(const PropertyMap& device, const std::string& path);

  BusPort& port_;
  ObjectMirror& mirror_;
  const std::chrono::milliseconds callTimeout_;
  const Report report_;
  std::string adapter_;
  bool wanted_ = false;
  bool active_ = false;
  uint64_t generation_ = 0;  // of the scan wanted; replies of an earlier one do not start it
  std::vector<UUID> uuids_;
  bool allowDuplicates_ = true;
  std::set<Address> reported_;  // in this scan
};

}  // namespace qlt::bluez
