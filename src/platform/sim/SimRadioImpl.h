// The inside of SimRadio, shared by the radio, its backend, centrals and links.
//
// Lock order: SimRadio::Impl::mutex is a leaf: nothing else is locked while it is held,
// and no code runs under it but bookkeeping.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/sim/SimRadio.h"

namespace qlt::sim {

class SimCentral;
class SimLink;

// The counters of one device, updated by its links from any thread.
struct DeviceCounters {
  std::atomic<uint64_t> connections{0};
  std::atomic<uint64_t> writesReceived{0};
  std::atomic<uint64_t> bytesReceived{0};
  std::atomic<uint64_t> writesLost{0};
  std::atomic<uint64_t> notificationsSent{0};
  std::atomic<uint64_t> bytesNotified{0};
  std::atomic<uint64_t> notificationsLost{0};
  std::atomic<uint64_t> notificationsDropped{0};
  std::atomic<uint64_t> segmentWritesLost{0};
  std::atomic<uint64_t> segmentNotificationsLost{0};
  std::atomic<uint64_t> payloadBytesReceived{0};
  std::atomic<uint64_t> payloadBytesSent{0};
  std::atomic<uint64_t> notificationsUnlinked{0};

  SimDeviceStats snapshot() const;
};

// What a central needs to know of a device at one moment.
struct DeviceView {
  SimDeviceConfig config;
  AirFaults faults;  // the device's own, or the radio's
  // The device's own, or the radio's, with the smaller of the link's and the device's MTU.
  LinkParameters link;
  bool linked = false;
  std::shared_ptr<DeviceCounters> counters;
};

struct QLT_HIDDEN SimRadio::Impl {
  struct DeviceRecord {
    SimDeviceConfig config;
    std::shared_ptr<DeviceCounters> counters = std::make_shared<DeviceCounters>();
    std::weak_ptr<SimLink> link;
    std::shared_ptr<void> state;  // what its behaviour keeps from one link to the next
  };

  // The time of everything on this radio: scans, connection delays, the air, the devices.
  // Set at creation, before the radio is shared.
  std::shared_ptr<Clock> clock = Clock::monotonic();

  // Submits `task` to `queue` once `seconds` have passed on the radio's clock.
  void after(DispatchQueue& queue, double seconds, std::function<void()> task) const;

  mutable std::mutex mutex;
  bool powered = true;                              // guarded by mutex
  AirFaults faults;                                 // guarded by mutex
  LinkParameters link;                              // guarded by mutex
  std::map<UUID, DeviceRecord> devices;             // guarded by mutex
  std::vector<std::weak_ptr<SimCentral>> centrals;  // guarded by mutex
  bool ended = false;  // the SimRadio is gone: devices keep nothing across links; guarded by mutex

  bool isPowered() const;
  std::optional<DeviceView> view(const UUID& identifier) const;
  std::vector<UUID> deviceIdentifiers() const;
  // The device with this address (canonical text), if any.
  std::optional<UUID> identifierForAddress(const std::string& address) const;
  // Makes `link` the device's link unless it has a live one; false when busy or gone.
  bool claim(const UUID& identifier, const std::shared_ptr<SimLink>& link);
  void release(const UUID& identifier, const SimLink* link);
  // What the device's behaviour keeps across its links (its window's session): `make`'s on
  // the first call, then the same until the device is removed (a device added again starts
  // afresh). A device no longer present, or on a radio that has ended, gets a fresh one, kept
  // nowhere.
  std::shared_ptr<void> deviceState(const UUID& identifier,
                                    const std::function<std::shared_ptr<void>()>& make);
  void addCentral(const std::shared_ptr<SimCentral>& central);
  std::vector<std::shared_ptr<SimCentral>> liveCentrals();
  // The live links (of all devices, or of one).
  std::vector<std::shared_ptr<SimLink>> liveLinks(const std::optional<UUID>& identifier = {}) const;
};

}  // namespace qlt::sim
