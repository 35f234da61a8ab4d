#include "platform/bluez/BluezDiscovery.h"

#include <algorithm>

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

using platform::Error;

void Discovery::start(std::vector<UUID> uuids, bool allowDuplicates) {
  QLT_ASSERT_BUS_THREAD(port_);
  wanted_ = true;
  ++generation_;
  uuids_ = std::move(uuids);
  allowDuplicates_ = allowDuplicates;
  reported_.clear();
  apply();
}

void Discovery::stop() {
  QLT_ASSERT_BUS_THREAD(port_);
  if (!wanted_) return;
  wanted_ = false;
  ++generation_;
  apply();
}

void Discovery::setAdapter(const std::string& path) {
  if (path != adapter_) active_ = false;
  adapter_ = path;
}

void Discovery::drop() {
  wanted_ = false;
  active_ = false;
}

void Discovery::apply() {
  if (!mirror_.bluezPresent() || adapter_.empty()) return;
  const uint64_t generation = generation_;
  if (!wanted_) {
    if (!active_) return;
    active_ = false;
    port_.call(adapter_, kAdapterInterface, "StopDiscovery", {}, callTimeout_,
               [](sdbus::MethodReply*, const Error* error) {
                 if (error) QLTLog("BlueZ: StopDiscovery failed: %s", error->description());
               });
    return;
  }
  std::map<std::string, sdbus::Variant> filter;
  filter["Transport"] = sdbus::Variant(std::string("le"));
  filter["DuplicateData"] = sdbus::Variant(true);
  if (!uuids_.empty()) {
    std::vector<std::string> uuids;
    for (const auto& u : uuids_) uuids.push_back(u.UUIDString());
    filter["UUIDs"] = sdbus::Variant(uuids);
  }
  const std::string adapter = adapter_;
  port_.call(
      adapter, kAdapterInterface, "SetDiscoveryFilter", [&](sdbus::MethodCall& m) { m << filter; },
      callTimeout_,
      [this, generation, adapter](sdbus::MethodReply*, const Error* error) {
        if (error) QLTLog("BlueZ: SetDiscoveryFilter failed: %s", error->description());
        if (generation != generation_ || !wanted_ || adapter != adapter_) return;
        if (active_) return;  // a new filter for a running discovery
        port_.call(adapter, kAdapterInterface, "StartDiscovery", {}, callTimeout_,
                   [this, adapter](sdbus::MethodReply*, const Error* error) {
                     if (adapter != adapter_) return;
                     if (error && error->domain != "org.bluez.Error.InProgress") {
                       QLTLog("BlueZ: StartDiscovery failed: %s", error->description());
                       return;
                     }
                     active_ = true;
                     if (!wanted_) apply();  // stopped meanwhile
                   });
      });
}

bool Discovery::matches(const PropertyMap& device, const std::string& path) {
  if (uuids_.empty()) return true;
  for (const auto& u : mirror_.reader().uuids(device, path, "UUIDs")) {
    if (std::find(uuids_.begin(), uuids_.end(), u) != uuids_.end()) return true;
  }
  return false;
}

void Discovery::report(const Address& address, const std::string& path) {
  QLT_ASSERT_BUS_THREAD(port_);
  if (!wanted_) return;
  const PropertyMap* props = mirror_.properties(path, kDeviceInterface);
  if (!props || !matches(*props, path)) return;
  if (!reported_.insert(address).second && !allowDuplicates_) return;
  auto& reader = mirror_.reader();
  // 127: "no signal strength available", as the platforms report it.
  report_(address, reader.advertisement(*props, path),
          reader.int16(*props, path, "RSSI").value_or(127));
}

}  // namespace qlt::bluez
