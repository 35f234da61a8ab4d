// GattClient: the GATT side of every link, on the bus thread: services and characteristics
// found on a link, writes (through the GattQueue and the SocketPath), reads, notification
// sessions and the notifications themselves, and their delivery to the library-side
// objects on the central's queue.
//
// A service or characteristic belongs to the link generation that found it; an operation
// on one of an earlier link is refused ("BlueZ: <what>: its connection is gone", and its
// callback gets "not connected"), so a late write can never reach a newer connection.
// Notifications from either path (PropertiesChanged of Value, or a datagram on an acquired
// socket) follow one rule: longer than any attribute value (512 bytes) is dropped, counted,
// with a rate-limited log line; anything else is handed on, and the transport above applies
// its own frame rules.
//
// Thread safety: bus thread only, but for the deliveries, which run on the queue.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "core/LogRateLimiter.h"
#include "platform/bluez/BluezGattQueue.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezMirror.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BluezSockets.h"

namespace qlt::bluez {

// The largest attribute value.
inline constexpr size_t kMaxAttributeValue = 512;

class GattClient final : private SocketListener {
 public:
  struct Links {
    std::function<Link*(const Address&)> find;  // null for a device without a link
    std::function<std::shared_ptr<BluezPeripheral>(const Address&)> peripheral;
  };
  GattClient(BusPort& port, ObjectMirror& mirror, std::shared_ptr<DispatchQueue> queue,
             std::chrono::milliseconds callTimeout, Links links);
  // Deliveries stop once `owner` is gone.
  void setOwner(std::weak_ptr<const void> owner) { owner_ = std::move(owner); }

  // ---- the operations of BluezPeripheral
  void discoverServices(const std::shared_ptr<BluezPeripheral>& peripheral,
                        const std::optional<std::vector<UUID>>& uuids);
  void discoverCharacteristics(const std::shared_ptr<BluezPeripheral>& peripheral,
                               const std::shared_ptr<BluezService>& service,
                               const std::optional<std::vector<UUID>>& uuids);
  void writeValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                  const std::shared_ptr<BluezCharacteristic>& characteristic, const Data& data,
                  platform::WriteType type);
  void readValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                 const std::shared_ptr<BluezCharacteristic>& characteristic);
  void setNotifyValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                      const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled);

  // ---- what the central sees
  // The link is being disconnected on request / has ended (its objects are dead).
  void linkEnding(const Address& address) { sockets_.linkEnding(address); }
  void linkEnded(const Address& address, const std::string& devicePath);
  // Device1.ServicesResolved may have turned true: a discovery waiting for it can answer.
  void servicesResolvedChanged(const Address& address);
  void characteristicChanged(const Address& address, const std::string& path,
                             const std::set<std::string>& changed);

  using PeripheralCall = std::function<void(platform::PeripheralDelegate& delegate)>;
  // Runs `before` (the object updates an event brings), then `task` with the peripheral's
  // delegate, on the queue.
  void deliver(const std::shared_ptr<BluezPeripheral>& peripheral, PeripheralCall task,
               std::function<void()> before = {});

 private:
  // What one link found.
  struct Session {
    std::optional<std::optional<std::vector<UUID>>> pendingServiceDiscovery;
    std::map<std::string, std::shared_ptr<BluezService>> services;                // by path
    std::map<std::string, std::shared_ptr<BluezCharacteristic>> characteristics;  // by path
    std::set<std::string> notifying;  // characteristic paths we asked to notify
  };

  void socketNotification(const Address& device, const std::string& path, size_t length,
                          Data data) override;
  void notifyAcquired(const Address& device, const std::string& path, bool acquired) override;
  void notifySocketClosed(const Address& device, const std::string& path) override;

  // The session of `peripheral`'s link if it is up at `generation`; else null, logged and
  // `refused` delivered with "not connected".
  Session* usable(
      const std::shared_ptr<BluezPeripheral>& peripheral, uint64_t generation,
      const std::string& what,
      std::function<void(platform::PeripheralDelegate&, const platform::Error&)> refused);
  bool usable(const Address& address, uint64_t generation);
  bool servicesResolved(const std::string& devicePath);
  // The UUID of the object `path` (a `kind`) if it is one of `wanted` (any when empty or
  // absent); nullopt otherwise, logged when it has none.
  std::optional<UUID> wantedUuid(const PropertyMap& props, const std::string& path,
                                 const char* kind, const std::optional<std::vector<UUID>>& wanted);
  void fulfilServiceDiscovery(const Address& address,
                              const std::optional<std::vector<UUID>>& uuids);
  void setNotifyByMethod(const Address& address,
                         const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled);
  void deliverNotification(const Address& address, const std::string& path, size_t length,
                           Data data);
  // The notification-state callback; the characteristic says `enabled` unless it failed.
  void reportNotifying(const std::shared_ptr<BluezPeripheral>& peripheral,
                       const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled,
                       const std::optional<platform::Error>& failure = std::nullopt);
  void updateMtu(const Address& address, const std::string& characteristicPath);
  std::shared_ptr<BluezCharacteristic> characteristicOf(const Address& address,
                                                        const std::string& path);

  BusPort& port_;
  ObjectMirror& mirror_;
  const std::shared_ptr<DispatchQueue> queue_;
  const std::chrono::milliseconds callTimeout_;
  const Links links_;
  std::weak_ptr<const void> owner_;
  GattQueue gatt_;
  SocketPath sockets_;
  std::map<Address, Session> sessions_;
  LogRateLimiter oversizedLog_;  // notifications dropped for their length
};

}  // namespace qlt::bluez
