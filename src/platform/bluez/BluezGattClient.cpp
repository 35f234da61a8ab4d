#include "platform/bluez/BluezGattClient.h"

#include <algorithm>
#include <utility>

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

using platform::Error;
using platform::ErrorReason;

GattClient::GattClient(BusPort& port, ObjectMirror& mirror, std::shared_ptr<DispatchQueue> queue,
                       std::chrono::milliseconds callTimeout, Links links)
    : port_(port),
      mirror_(mirror),
      queue_(std::move(queue)),
      callTimeout_(callTimeout),
      links_(std::move(links)),
      gatt_(port, callTimeout),
      sockets_(port, gatt_, *this, callTimeout) {}

bool GattClient::usable(const Address& address, uint64_t generation) {
  Link* link = links_.find(address);
  return link && link->usable(generation);
}

GattClient::Session* GattClient::usable(
    const std::shared_ptr<BluezPeripheral>& peripheral, uint64_t generation,
    const std::string& what,
    std::function<void(platform::PeripheralDelegate&, const Error&)> refused) {
  QLT_ASSERT_BUS_THREAD(port_);
  if (usable(peripheral->address(), generation)) return &sessions_[peripheral->address()];
  QLTLog("BlueZ: %s: its connection is gone", what);
  if (refused) {
    deliver(peripheral, [refused = std::move(refused)](platform::PeripheralDelegate& d) {
      refused(d, backendError(ErrorReason::NotConnected, "not connected"));
    });
  }
  return nullptr;
}

void GattClient::discoverServices(const std::shared_ptr<BluezPeripheral>& peripheral,
                                  const std::optional<std::vector<UUID>>& uuids) {
  Link* link = links_.find(peripheral->address());
  if (usable(peripheral, link ? link->generation() : 0,
             "service discovery on " + addressString(peripheral->address()) + " refused",
             [peripheral](platform::PeripheralDelegate& d, const Error& e) {
               d.peripheral_didDiscoverServices(peripheral, e);
             })) {
    fulfilServiceDiscovery(peripheral->address(), uuids);
  }
}

bool GattClient::servicesResolved(const std::string& devicePath) {
  const PropertyMap* props = mirror_.properties(devicePath, kDeviceInterface);
  return props && mirror_.reader().boolean(*props, devicePath, "ServicesResolved") == true;
}

void GattClient::servicesResolvedChanged(const Address& address) {
  auto it = sessions_.find(address);
  Link* link = links_.find(address);
  if (it == sessions_.end() || !link || link->phase() != LinkPhase::Connected ||
      !it->second.pendingServiceDiscovery || !servicesResolved(link->path())) {
    return;
  }
  auto uuids = *it->second.pendingServiceDiscovery;
  it->second.pendingServiceDiscovery.reset();
  fulfilServiceDiscovery(address, uuids);
}

std::optional<UUID> GattClient::wantedUuid(const PropertyMap& props, const std::string& path,
                                           const char* kind,
                                           const std::optional<std::vector<UUID>>& wanted) {
  auto uuid = mirror_.reader().uuid(props, path, "UUID");
  if (!uuid) {
    QLTLog("BlueZ: %s %s has no readable UUID; skipped", kind, path);
    return std::nullopt;
  }
  if (wanted && !wanted->empty() &&
      std::find(wanted->begin(), wanted->end(), *uuid) == wanted->end()) {
    return std::nullopt;
  }
  return uuid;
}

void GattClient::fulfilServiceDiscovery(const Address& address,
                                        const std::optional<std::vector<UUID>>& uuids) {
  Session& session = sessions_[address];
  const Link& link = *links_.find(address);
  if (!servicesResolved(link.path())) {
    // bluetoothd is (re)reading the device's services; answer once it is done.
    session.pendingServiceDiscovery = uuids;
    return;
  }
  auto peripheral = links_.peripheral(address);
  std::vector<std::shared_ptr<platform::Service>> list;
  for (const auto& path : mirror_.objectsWith(kServiceInterface, link.path(), true)) {
    const PropertyMap& props = *mirror_.properties(path, kServiceInterface);
    auto uuid = wantedUuid(props, path, "service", uuids);
    if (!uuid) continue;
    auto& slot = session.services[path];
    if (!slot) {
      const bool primary = mirror_.reader().boolean(props, path, "Primary").value_or(true);
      slot = std::make_shared<BluezService>(*uuid, primary, path, link.generation(), peripheral);
    }
    list.push_back(slot);
  }
  deliver(
      peripheral,
      [peripheral](platform::PeripheralDelegate& d) {
        d.peripheral_didDiscoverServices(peripheral, std::nullopt);
      },
      [peripheral, list] { peripheral->setServices(list); });
}

void GattClient::discoverCharacteristics(const std::shared_ptr<BluezPeripheral>& peripheral,
                                         const std::shared_ptr<BluezService>& service,
                                         const std::optional<std::vector<UUID>>& uuids) {
  Session* session =
      usable(peripheral, service->generation(),
             "characteristic discovery on " + service->path() + " refused",
             [peripheral, service](platform::PeripheralDelegate& d, const Error& e) {
               d.peripheral_didDiscoverCharacteristicsForService_error(peripheral, service, e);
             });
  if (!session) return;
  std::vector<std::shared_ptr<platform::Characteristic>> list;
  for (const auto& path : mirror_.objectsWith(kCharacteristicInterface, service->path(), true)) {
    const PropertyMap& props = *mirror_.properties(path, kCharacteristicInterface);
    auto uuid = wantedUuid(props, path, "characteristic", uuids);
    if (!uuid) continue;
    auto& slot = session->characteristics[path];
    if (!slot) {
      slot = std::make_shared<BluezCharacteristic>(
          *uuid, mirror_.reader().characteristicProperties(props, path), path,
          service->generation(), service);
    }
    list.push_back(slot);
    updateMtu(peripheral->address(), path);
  }
  deliver(
      peripheral,
      [peripheral, service](platform::PeripheralDelegate& d) {
        d.peripheral_didDiscoverCharacteristicsForService_error(peripheral, service, std::nullopt);
      },
      [service, list] { service->setCharacteristics(list); });
}

void GattClient::writeValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                            const std::shared_ptr<BluezCharacteristic>& characteristic,
                            const Data& data, platform::WriteType type) {
  const bool withResponse = type == platform::WriteType::WithResponse;
  const std::string& path = characteristic->path();
  std::function<void(platform::PeripheralDelegate&, const Error&)> refused;
  if (withResponse) {
    refused = [peripheral, characteristic](platform::PeripheralDelegate& d, const Error& e) {
      d.peripheral_didWriteValueForCharacteristic_error(peripheral, characteristic, e);
    };
  }
  if (!usable(peripheral, characteristic->generation(),
              "write of " + std::to_string(data.size()) + " bytes to " + path + " dropped",
              std::move(refused))) {
    return;
  }
  const Address address = peripheral->address();
  if (withResponse) {
    gatt_.request(address, path, data,
                  [this, peripheral, characteristic](const std::optional<Error>& failure) {
                    deliver(peripheral,
                            [peripheral, characteristic, failure](platform::PeripheralDelegate& d) {
                              d.peripheral_didWriteValueForCharacteristic_error(
                                  peripheral, characteristic, failure);
                            });
                  });
    return;
  }
  const PropertyMap* props = mirror_.properties(path, kCharacteristicInterface);
  sockets_.write(address, path, data, props && props->count("WriteAcquired"), peripheral->mtu());
}

void GattClient::readValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                           const std::shared_ptr<BluezCharacteristic>& characteristic) {
  const uint64_t generation = characteristic->generation();
  if (!usable(peripheral, generation, "read of " + characteristic->path() + " refused",
              [peripheral, characteristic](platform::PeripheralDelegate& d, const Error& e) {
                d.peripheral_didUpdateValueForCharacteristic_error(peripheral, characteristic, e);
              })) {
    return;
  }
  port_.call(
      characteristic->path(), kCharacteristicInterface, "ReadValue",
      [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; }, callTimeout_,
      [this, generation, peripheral, characteristic](sdbus::MethodReply* reply,
                                                     const Error* error) {
        if (!usable(peripheral->address(), generation)) return;
        std::optional<Error> failure;
        std::optional<Data> value;
        if (error) {
          failure = *error;
        } else if (reply) {
          try {
            std::vector<uint8_t> bytes;
            *reply >> bytes;
            value = Data(bytes.data(), bytes.size());
          } catch (const sdbus::Error& e) {
            failure = toError(e);
          }
        }
        if (failure) {
          QLTLog("BlueZ: read of %s failed: %s", characteristic->path(), failure->description());
        }
        deliver(
            peripheral,
            [peripheral, characteristic, failure](platform::PeripheralDelegate& d) {
              d.peripheral_didUpdateValueForCharacteristic_error(peripheral, characteristic,
                                                                 failure);
            },
            [characteristic, value] {
              if (value) characteristic->setValue(*value);
            });
      });
}

void GattClient::setNotifyValue(const std::shared_ptr<BluezPeripheral>& peripheral,
                                const std::shared_ptr<BluezCharacteristic>& characteristic,
                                bool enabled) {
  const std::string& path = characteristic->path();
  Session* session =
      usable(peripheral, characteristic->generation(),
             std::string(enabled ? "StartNotify" : "StopNotify") + " of " + path + " refused",
             [peripheral, characteristic](platform::PeripheralDelegate& d, const Error& e) {
               d.peripheral_didUpdateNotificationStateForCharacteristic_error(peripheral,
                                                                              characteristic, e);
             });
  if (!session) return;
  const Address address = peripheral->address();
  if (sockets_.notifiesBySocket(address, path)) {
    // Notifications come on an acquired socket: closing it is what stops them.
    if (!enabled) {
      sockets_.stopNotify(address, path);
      session->notifying.erase(path);
    }
    reportNotifying(peripheral, characteristic, enabled);
    return;
  }
  if (!enabled && sockets_.stopNotify(address, path)) {
    // Switched off before AcquireNotify answered: its reply is dropped (and its socket
    // closed) when it comes.
    reportNotifying(peripheral, characteristic, false);
    return;
  }
  const PropertyMap* props = mirror_.properties(path, kCharacteristicInterface);
  if (enabled && props && props->count("NotifyAcquired")) {
    sockets_.acquireNotify(address, path);
    return;
  }
  setNotifyByMethod(address, characteristic, enabled);
}

void GattClient::setNotifyByMethod(const Address& address,
                                   const std::shared_ptr<BluezCharacteristic>& characteristic,
                                   bool enabled) {
  const uint64_t generation = characteristic->generation();
  const std::string path = characteristic->path();
  // Values may arrive before the reply: accept them from now on.
  if (enabled) sessions_[address].notifying.insert(path);
  const char* method = enabled ? "StartNotify" : "StopNotify";
  port_.call(path, kCharacteristicInterface, method, {}, callTimeout_,
             [this, address, generation, characteristic, enabled, path, method](
                 sdbus::MethodReply*, const Error* error) {
               if (!usable(address, generation)) return;
               std::optional<Error> failure;
               if (error) {
                 failure = *error;
                 QLTLog("BlueZ: %s of %s failed: %s", method, path, error->description());
               }
               if (failure ? enabled : !enabled) sessions_[address].notifying.erase(path);
               reportNotifying(links_.peripheral(address), characteristic, enabled, failure);
             });
}

void GattClient::notifyAcquired(const Address& address, const std::string& path, bool acquired) {
  auto characteristic = characteristicOf(address, path);
  if (!characteristic) return;
  if (!acquired) {
    setNotifyByMethod(address, characteristic, true);
    return;
  }
  sessions_[address].notifying.insert(path);
  reportNotifying(links_.peripheral(address), characteristic, true);
}

void GattClient::notifySocketClosed(const Address& address, const std::string& path) {
  sessions_[address].notifying.erase(path);
  // As when bluetoothd reports Notifying false: the characteristic says so, no callback.
  if (auto characteristic = characteristicOf(address, path)) {
    deliver(links_.peripheral(address), {},
            [characteristic] { characteristic->setNotifying(false); });
  }
}

void GattClient::socketNotification(const Address& address, const std::string& path, size_t length,
                                    Data data) {
  deliverNotification(address, path, length, std::move(data));
}

void GattClient::deliverNotification(const Address& address, const std::string& path, size_t length,
                                     Data data) {
  if (length > kMaxAttributeValue) {
    if (auto count = oversizedLog_.admit()) {
      QLTLog(
          "BlueZ: a notification of %zu bytes on %s is longer than any attribute value (%zu); "
          "dropped (%llu such since the last line)",
          length, path, kMaxAttributeValue, static_cast<unsigned long long>(*count));
    }
    return;
  }
  auto characteristic = characteristicOf(address, path);
  if (!characteristic) return;
  auto peripheral = links_.peripheral(address);
  auto value = std::make_shared<const Data>(std::move(data));
  deliver(
      peripheral,
      [peripheral, characteristic, value](platform::PeripheralDelegate& d) {
        d.peripheral_didReceiveValue(peripheral, characteristic, *value);
      },
      [characteristic, value] { characteristic->setValue(*value); });
}

void GattClient::reportNotifying(const std::shared_ptr<BluezPeripheral>& peripheral,
                                 const std::shared_ptr<BluezCharacteristic>& characteristic,
                                 bool enabled, const std::optional<Error>& failure) {
  deliver(
      peripheral,
      [peripheral, characteristic, failure](platform::PeripheralDelegate& d) {
        d.peripheral_didUpdateNotificationStateForCharacteristic_error(peripheral, characteristic,
                                                                       failure);
      },
      [characteristic, enabled, failure] {
        if (!failure) characteristic->setNotifying(enabled);
      });
}

void GattClient::characteristicChanged(const Address& address, const std::string& path,
                                       const std::set<std::string>& changed) {
  if (changed.count("MTU")) updateMtu(address, path);
  Link* link = links_.find(address);
  auto characteristic = characteristicOf(address, path);
  if (!characteristic || !link || link->phase() != LinkPhase::Connected) return;
  const PropertyMap* props = mirror_.properties(path, kCharacteristicInterface);
  if (!props) return;
  auto& reader = mirror_.reader();
  if (changed.count("Notifying")) {
    if (auto notifying = reader.boolean(*props, path, "Notifying")) {
      deliver(links_.peripheral(address), {},
              [characteristic, on = *notifying] { characteristic->setNotifying(on); });
    }
  }
  // Only values of a notification session this central asked for; a read's echo or another
  // client's session is not a notification for us.
  if (changed.count("Value") && props->count("Value") && sessions_[address].notifying.count(path)) {
    if (auto value = reader.bytes(*props, path, "Value")) {
      deliverNotification(address, path, value->size(), *value);
    }
  }
}

void GattClient::linkEnded(const Address& address, const std::string& devicePath) {
  QLT_ASSERT_BUS_THREAD(port_);
  gatt_.clear(address);
  sockets_.close(address);
  sessions_.erase(address);
  // Calls still pending on the GATT objects of this link are dropped with their proxies.
  if (devicePath.empty()) return;
  for (const char* interface : {kServiceInterface, kCharacteristicInterface}) {
    for (const auto& path : mirror_.objectsWith(interface, devicePath)) port_.releaseProxy(path);
  }
}

void GattClient::updateMtu(const Address& address, const std::string& characteristicPath) {
  const PropertyMap* props = mirror_.properties(characteristicPath, kCharacteristicInterface);
  if (!props) return;
  auto mtu = mirror_.reader().uint16(*props, characteristicPath, "MTU");
  if (!mtu) return;
  auto peripheral = links_.peripheral(address);
  if (peripheral->mtu() != *mtu) {
    QLTLog("BlueZ: %s: ATT MTU %d", addressString(address), static_cast<int>(*mtu));
    peripheral->setMtu(*mtu);
  }
}

std::shared_ptr<BluezCharacteristic> GattClient::characteristicOf(const Address& address,
                                                                  const std::string& path) {
  auto session = sessions_.find(address);
  if (session == sessions_.end()) return nullptr;
  auto ch = session->second.characteristics.find(path);
  return ch == session->second.characteristics.end() ? nullptr : ch->second;
}

void GattClient::deliver(const std::shared_ptr<BluezPeripheral>& peripheral, PeripheralCall task,
                         std::function<void()> before) {
  queue_->async([owner = owner_, peripheral, task = std::move(task), before = std::move(before)] {
    if (owner.expired()) return;
    if (before) before();
    if (!task) return;
    if (auto delegate = peripheral->delegate()) task(*delegate);
  });
}

}  // namespace qlt::bluez
