#include "platform/bluez/BluezCentral.h"

#include <algorithm>
#include <utility>

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

using platform::CentralState;
using platform::Error;
using platform::PeripheralState;

namespace {

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

// Errors the backend makes itself (the daemon's own errors keep their D-Bus names).
constexpr const char* kDomain = "qlt.bluez";

Error backendError(std::string message) { return Error{kDomain, std::move(message)}; }

uint64_t microseconds(std::chrono::milliseconds ms) {
  return static_cast<uint64_t>(ms.count()) * 1000u;
}

bool isChildOf(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/';
}

bool isDirectChildOf(const std::string& path, const std::string& parent) {
  return isChildOf(path, parent) && path.find('/', parent.size() + 1) == std::string::npos;
}

const char* phaseName(int phase) {
  static const char* const names[] = {"idle", "connecting", "connected", "disconnecting"};
  return phase >= 0 && phase < 4 ? names[phase] : "?";
}

}  // namespace

// ------------------------------------------------------------------------------------------
// Creation and the public operations (any thread)

std::shared_ptr<BluezCentral> BluezCentral::create(
    const std::shared_ptr<platform::CentralDelegate>& delegate,
    const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options) {
  std::shared_ptr<BluezCentral> central(new BluezCentral(delegate, queue, options));
  central->weakSelf_ = central;
  central->start();
  return central;
}

BluezCentral::BluezCentral(const std::shared_ptr<platform::CentralDelegate>& delegate,
                           const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options)
    : delegate_(delegate),
      queue_(queue ? queue : DispatchQueue::create("BluezCentral")),
      options_(options),
      loop_(options.reconnectInterval) {}

BluezCentral::~BluezCentral() { loop_.stop(); }

void BluezCentral::start() {
  BusLoop::Hooks hooks;
  hooks.connected = [this](sdbus::IConnection& connection) { onBusConnected(connection); };
  hooks.lost = [this](bool stopping) { onBusLost(stopping); };
  loop_.start(std::move(hooks));
}

void BluezCentral::scanForPeripherals(const std::optional<std::vector<UUID>>& serviceUUIDs,
                                      const platform::ScanOptions& options) {
  if (state() != CentralState::PoweredOn) {
    QLTLog("BlueZ: scan requested while the adapter is not powered on; ignored");
    return;
  }
  scanning_ = true;
  std::vector<UUID> uuids = serviceUUIDs.value_or(std::vector<UUID>{});
  const bool duplicates = options.allowDuplicates;
  loop_.post([this, uuids = std::move(uuids), duplicates] {
    scanWanted_ = true;
    ++scanGeneration_;
    scanUUIDs_ = uuids;
    scanAllowsDuplicates_ = duplicates;
    for (auto& [address, device] : devices_) device.reportedThisScan = false;
    applyDiscovery();
    // Devices bluetoothd already knows (an earlier scan, another client) are reported too.
    for (auto& [address, device] : devices_) {
      if (!device.path.empty()) reportAdvertisement(address, device.path);
    }
  });
}

void BluezCentral::stopScan() {
  scanning_ = false;
  loop_.post([this] {
    if (!scanWanted_) return;
    scanWanted_ = false;
    ++scanGeneration_;
    applyDiscovery();
  });
}

void BluezCentral::connect(const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p) {
    QLTLog("BlueZ: connect: not a peripheral of this backend; ignored");
    return;
  }
  if (p->state() != PeripheralState::Connected) p->setState(PeripheralState::Connecting);
  loop_.post([this, p] { busConnect(p); });
}

void BluezCentral::cancelPeripheralConnection(
    const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p) {
    QLTLog("BlueZ: cancelPeripheralConnection: not a peripheral of this backend; ignored");
    return;
  }
  if (p->state() == PeripheralState::Connected) p->setState(PeripheralState::Disconnecting);
  loop_.post([this, p] { busCancel(p); });
}

std::vector<std::shared_ptr<platform::Peripheral>> BluezCentral::retrievePeripheralsWithIdentifiers(
    const std::vector<UUID>& identifiers) {
  std::vector<std::shared_ptr<platform::Peripheral>> found;
  std::vector<std::string> missing;
  std::vector<std::string> foreign;
  {
    std::lock_guard<std::mutex> lock(registryMutex_);
    for (const auto& identifier : identifiers) {
      auto address = addressForIdentifier(identifier);
      if (!address) {
        foreign.push_back(identifier.UUIDString());
        continue;
      }
      std::shared_ptr<BluezPeripheral> p;
      if (auto it = listed_.find(*address); it != listed_.end()) p = it->second;
      if (!p) {
        if (auto it = registry_.find(*address); it != registry_.end()) p = it->second.lock();
      }
      if (p) {
        found.push_back(p);
      } else {
        missing.push_back(addressString(*address));
      }
    }
  }
  for (const auto& id : foreign) {
    QLTLog("BlueZ: identifier %s does not name a Bluetooth address (not made by this backend)", id);
  }
  for (const auto& address : missing) {
    QLTLog("BlueZ: device %s is not known to bluetoothd; scan for it first", address);
  }
  return found;
}

void BluezCentral::discoverServices(std::shared_ptr<BluezPeripheral> peripheral,
                                    std::optional<std::vector<UUID>> uuids) {
  loop_.post([this, peripheral, uuids = std::move(uuids)] {
    auto it = devices_.find(peripheral->address());
    if (it == devices_.end() || it->second.phase != Phase::Connected) {
      QLTLog("BlueZ: service discovery on %s refused: not connected",
             addressString(peripheral->address()));
      deliverToPeripheral(peripheral, [peripheral](platform::PeripheralDelegate& d) {
        d.peripheral_didDiscoverServices(peripheral, backendError("not connected"));
      });
      return;
    }
    fulfilServiceDiscovery(peripheral->address(), uuids);
  });
}

void BluezCentral::discoverCharacteristics(std::shared_ptr<BluezPeripheral> peripheral,
                                           std::shared_ptr<BluezService> service,
                                           std::optional<std::vector<UUID>> uuids) {
  loop_.post([this, peripheral, service, uuids = std::move(uuids)] {
    auto it = devices_.find(peripheral->address());
    if (it == devices_.end() || !linkUsable(it->second, service->generation())) {
      QLTLog("BlueZ: characteristic discovery on %s refused: its connection is gone",
             service->path());
      deliverToPeripheral(peripheral, [peripheral, service](platform::PeripheralDelegate& d) {
        d.peripheral_didDiscoverCharacteristicsForService_error(peripheral, service,
                                                                backendError("not connected"));
      });
      return;
    }
    Device& device = it->second;
    std::vector<std::shared_ptr<platform::Characteristic>> list;
    for (const auto& [path, interfaces] : objects_) {
      if (!isDirectChildOf(path, service->path())) continue;
      auto ci = interfaces.find(kCharacteristicInterface);
      if (ci == interfaces.end()) continue;
      auto uuid = reader_.uuid(ci->second, path, "UUID");
      if (!uuid) {
        QLTLog("BlueZ: characteristic %s has no readable UUID; skipped", path);
        continue;
      }
      if (uuids && !uuids->empty() &&
          std::find(uuids->begin(), uuids->end(), *uuid) == uuids->end()) {
        continue;
      }
      auto& slot = device.characteristics[path];
      if (!slot) {
        slot = std::make_shared<BluezCharacteristic>(
            *uuid, reader_.characteristicProperties(ci->second, path), path, device.generation,
            service);
      }
      list.push_back(slot);
      updateMtu(peripheral->address(), path);
    }
    deliverToPeripheral(
        peripheral,
        [peripheral, service](platform::PeripheralDelegate& d) {
          d.peripheral_didDiscoverCharacteristicsForService_error(peripheral, service,
                                                                  std::nullopt);
        },
        [service, list] { service->setCharacteristics(list); });
  });
}

void BluezCentral::writeValue(std::shared_ptr<BluezPeripheral> peripheral,
                              std::shared_ptr<BluezCharacteristic> characteristic, Data data,
                              platform::WriteType type) {
  loop_.post([this, peripheral, characteristic, data, type] {
    const bool withResponse = type == platform::WriteType::WithResponse;
    auto it = devices_.find(peripheral->address());
    if (it == devices_.end() || !linkUsable(it->second, characteristic->generation())) {
      QLTLog("BlueZ: write of %zu bytes to %s dropped: its connection is gone", data.size(),
             characteristic->path());
      if (withResponse) {
        deliverToPeripheral(peripheral,
                            [peripheral, characteristic](platform::PeripheralDelegate& d) {
                              d.peripheral_didWriteValueForCharacteristic_error(
                                  peripheral, characteristic, backendError("not connected"));
                            });
      }
      return;
    }
    if (withResponse) {
      it->second.requests.push_back(PendingRequest{characteristic, data});
      pumpRequests(peripheral->address());
      return;
    }
    sendCommand(peripheral->address(), PendingRequest{characteristic, data});
  });
}

void BluezCentral::readValue(std::shared_ptr<BluezPeripheral> peripheral,
                             std::shared_ptr<BluezCharacteristic> characteristic) {
  loop_.post([this, peripheral, characteristic] {
    auto it = devices_.find(peripheral->address());
    const uint64_t generation = characteristic->generation();
    if (it == devices_.end() || !linkUsable(it->second, generation)) {
      QLTLog("BlueZ: read of %s refused: its connection is gone", characteristic->path());
      deliverToPeripheral(peripheral,
                          [peripheral, characteristic](platform::PeripheralDelegate& d) {
                            d.peripheral_didUpdateValueForCharacteristic_error(
                                peripheral, characteristic, backendError("not connected"));
                          });
      return;
    }
    const Address address = peripheral->address();
    call(
        characteristic->path(), kCharacteristicInterface, "ReadValue",
        [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; },
        options_.callTimeout,
        [this, address, generation, peripheral, characteristic](sdbus::MethodReply* reply,
                                                                const Error* error) {
          auto dev = devices_.find(address);
          if (dev == devices_.end() || !linkUsable(dev->second, generation)) return;
          std::optional<Error> failure;
          std::optional<Data> value;
          if (error) {
            failure = *error;
          } else {
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
          deliverToPeripheral(
              peripheral,
              [peripheral, characteristic, failure](platform::PeripheralDelegate& d) {
                d.peripheral_didUpdateValueForCharacteristic_error(peripheral, characteristic,
                                                                   failure);
              },
              [characteristic, value] {
                if (value) characteristic->setValue(*value);
              });
        });
  });
}

void BluezCentral::setNotifyValue(std::shared_ptr<BluezPeripheral> peripheral,
                                  std::shared_ptr<BluezCharacteristic> characteristic,
                                  bool enabled) {
  loop_.post([this, peripheral, characteristic, enabled] {
    auto it = devices_.find(peripheral->address());
    const uint64_t generation = characteristic->generation();
    if (it == devices_.end() || !linkUsable(it->second, generation)) {
      QLTLog("BlueZ: %s of %s refused: its connection is gone",
             enabled ? "StartNotify" : "StopNotify", characteristic->path());
      reportNotifying(peripheral, characteristic, enabled, backendError("not connected"));
      return;
    }
    Device& device = it->second;
    const std::string path = characteristic->path();
    if (auto socket = device.notifySockets.find(path); socket != device.notifySockets.end()) {
      // Notifications come on an acquired socket: closing it is what stops them.
      if (!enabled) {
        loop_.unwatch(socket->second.watch);
        device.notifySockets.erase(socket);
        device.notifying.erase(path);
      }
      reportNotifying(peripheral, characteristic, enabled);
      return;
    }
    if (!enabled && device.notifyAcquiring.erase(path)) {
      // Switched off before AcquireNotify answered: its reply is dropped (and its socket
      // closed) when it comes.
      reportNotifying(peripheral, characteristic, false);
      return;
    }
    const PropertyMap* props = properties(path, kCharacteristicInterface);
    if (enabled && props && props->count("NotifyAcquired")) {
      if (device.notifyAcquiring.insert(path).second) acquireNotify(peripheral, characteristic);
      return;
    }
    setNotifyByMethod(peripheral, characteristic, enabled);
  });
}

void BluezCentral::setNotifyByMethod(const std::shared_ptr<BluezPeripheral>& peripheral,
                                     const std::shared_ptr<BluezCharacteristic>& characteristic,
                                     bool enabled) {
  auto it = devices_.find(peripheral->address());
  if (it == devices_.end()) return;
  const uint64_t generation = characteristic->generation();
  const std::string path = characteristic->path();
  // Values may arrive before the reply: accept them from now on.
  if (enabled) it->second.notifying.insert(path);
  const Address address = peripheral->address();
  call(path, kCharacteristicInterface, enabled ? "StartNotify" : "StopNotify", {},
       options_.callTimeout,
       [this, address, generation, peripheral, characteristic, enabled, path](sdbus::MethodReply*,
                                                                              const Error* error) {
         auto dev = devices_.find(address);
         if (dev == devices_.end() || !linkUsable(dev->second, generation)) return;
         std::optional<Error> failure;
         if (error) {
           failure = *error;
           QLTLog("BlueZ: %s of %s failed: %s", enabled ? "StartNotify" : "StopNotify", path,
                  error->description());
           if (enabled) dev->second.notifying.erase(path);
         } else if (!enabled) {
           dev->second.notifying.erase(path);
         }
         reportNotifying(peripheral, characteristic, enabled, failure);
       });
}

void BluezCentral::reportNotifying(const std::shared_ptr<BluezPeripheral>& peripheral,
                                   const std::shared_ptr<BluezCharacteristic>& characteristic,
                                   bool enabled, std::optional<platform::Error> failure) {
  deliverToPeripheral(
      peripheral,
      [peripheral, characteristic, failure](platform::PeripheralDelegate& d) {
        d.peripheral_didUpdateNotificationStateForCharacteristic_error(peripheral, characteristic,
                                                                       failure);
      },
      [characteristic, enabled, failure] {
        if (!failure) characteristic->setNotifying(enabled);
      });
}

// ------------------------------------------------------------------------------------------
// The bus connection and bluetoothd's presence (bus thread)

void BluezCentral::onBusConnected(sdbus::IConnection& connection) {
  matches_.clear();
  auto add = [&](const std::string& rule, void (BluezCentral::*handler)(sdbus::Message&),
                 const char* what) {
    matches_.push_back(connection.addMatch(rule, [this, handler, what](sdbus::Message& message) {
      BusLoop::guard(what, [&] { (this->*handler)(message); });
    }));
  };
  const std::string sender = std::string("sender='") + kBluezService + "'";
  add("type='signal'," + sender + ",interface='" + kObjectManager +
          "',member='InterfacesAdded',path='/'",
      &BluezCentral::onInterfacesAdded, "InterfacesAdded");
  add("type='signal'," + sender + ",interface='" + kObjectManager +
          "',member='InterfacesRemoved',path='/'",
      &BluezCentral::onInterfacesRemoved, "InterfacesRemoved");
  add("type='signal'," + sender + ",interface='" + kProperties +
          "',member='PropertiesChanged',path_namespace='/org/bluez'",
      &BluezCentral::onPropertiesChanged, "PropertiesChanged");
  add(std::string("type='signal',sender='") + kBusName + "',interface='" + kBusName +
          "',member='NameOwnerChanged',arg0='" + kBluezService + "'",
      &BluezCentral::onNameOwnerChanged, "NameOwnerChanged");

  // Is bluetoothd there?
  auto* bus = loop_.proxy(kBusName, kBusPath);
  if (!bus) return;
  const uint64_t generation = treeGeneration_;
  auto message = bus->createMethodCall(kBusName, "NameHasOwner");
  message << std::string(kBluezService);
  bus->callMethod(
      message,
      [this, generation](sdbus::MethodReply& reply, const sdbus::Error* error) {
        BusLoop::guard("NameHasOwner reply", [&] {
          if (generation != treeGeneration_) return;
          bool present = false;
          if (error) {
            QLTLog("BlueZ: cannot ask the bus for org.bluez: %s: %s", error->getName(),
                   error->getMessage());
          } else {
            reply >> present;
          }
          if (present) {
            bluezAppeared();
          } else {
            QLTLog("BlueZ: bluetoothd (org.bluez) is not on the system bus; waiting for it");
            reportState(CentralState::PoweredOff);
          }
        });
      },
      microseconds(options_.callTimeout));
}

void BluezCentral::onBusLost(bool stopping) {
  matches_.clear();
  if (stopping) {
    // The mirrored variants refer to the connection's messages: they go before it does.
    objects_.clear();
    return;
  }
  bluezVanished("the system bus connection was lost", CentralState::Unsupported);
}

void BluezCentral::onNameOwnerChanged(sdbus::Message& message) {
  std::string name, oldOwner, newOwner;
  message >> name >> oldOwner >> newOwner;
  if (name != kBluezService) return;
  if (!oldOwner.empty() && bluezPresent_)
    bluezVanished("bluetoothd left the bus", CentralState::PoweredOff);
  if (!newOwner.empty()) {
    QLTLog("BlueZ: bluetoothd is on the bus (%s); reading its objects", newOwner);
    bluezAppeared();
  }
}

void BluezCentral::bluezAppeared() {
  bluezPresent_ = true;
  const uint64_t generation = ++treeGeneration_;
  call("/", kObjectManager, "GetManagedObjects", {}, options_.callTimeout,
       [this, generation](sdbus::MethodReply* reply, const Error* error) {
         if (generation != treeGeneration_) return;
         std::map<sdbus::ObjectPath, InterfaceMap> tree;
         if (error) {
           QLTLog("BlueZ: GetManagedObjects failed: %s", error->description());
         } else {
           try {
             *reply >> tree;
           } catch (const sdbus::Error& e) {
             QLTLog("BlueZ: GetManagedObjects returned an unreadable tree: %s", e.getMessage());
           }
         }
         applyManagedObjects(std::move(tree));
       });
}

void BluezCentral::bluezVanished(const std::string& why, CentralState reportAs) {
  QLTLog("BlueZ: %s; dropping its devices and objects", why);
  bluezPresent_ = false;
  ++treeGeneration_;
  for (auto& [address, device] : devices_) {
    if (device.phase != Phase::Idle) endLink(address, backendError(why));
  }
  scanWanted_ = false;
  discoveryActive_ = false;
  scanning_ = false;
  std::vector<std::string> paths;
  for (const auto& [path, address] : deviceByPath_) paths.push_back(path);
  for (const auto& path : paths) unbindDevice(path);
  objects_.clear();
  adapterPath_.clear();
  loop_.releaseAllProxies();
  reportState(reportAs);
}

void BluezCentral::applyManagedObjects(std::map<sdbus::ObjectPath, InterfaceMap> tree) {
  // The reply is newer than every signal received before it: it replaces the mirror.
  objects_.clear();
  for (auto& [path, interfaces] : tree) objects_.emplace(std::string(path), std::move(interfaces));
  reconcileAdapter();
  std::vector<std::string> stale;
  for (const auto& [path, address] : deviceByPath_) {
    if (!properties(path, kDeviceInterface)) stale.push_back(path);
  }
  for (const auto& path : stale) unbindDevice(path);
  for (const auto& [path, interfaces] : objects_) {
    if (interfaces.count(kDeviceInterface)) bindDevice(path);
  }
}

// ------------------------------------------------------------------------------------------
// Signals (bus thread)

void BluezCentral::onInterfacesAdded(sdbus::Message& message) {
  sdbus::ObjectPath objectPath;
  InterfaceMap interfaces;
  message >> objectPath >> interfaces;
  const std::string path = objectPath;
  auto& mirror = objects_[path];
  for (auto& [name, props] : interfaces) {
    auto& target = mirror[name];
    for (auto& [key, value] : props) target[key] = std::move(value);
  }
  if (interfaces.count(kAdapterInterface)) reconcileAdapter();
  if (interfaces.count(kDeviceInterface)) bindDevice(path);
}

void BluezCentral::onInterfacesRemoved(sdbus::Message& message) {
  sdbus::ObjectPath objectPath;
  std::vector<std::string> interfaces;
  message >> objectPath >> interfaces;
  const std::string path = objectPath;
  auto it = objects_.find(path);
  if (it == objects_.end()) return;
  for (const auto& name : interfaces) {
    if (name == kDeviceInterface) unbindDevice(path);
    it->second.erase(name);
  }
  if (it->second.empty()) objects_.erase(it);
  loop_.releaseProxy(kBluezService, path);
  if (std::find(interfaces.begin(), interfaces.end(), kAdapterInterface) != interfaces.end()) {
    reconcileAdapter();
  }
}

void BluezCentral::onPropertiesChanged(sdbus::Message& message) {
  std::string interface;
  PropertyMap changed;
  std::vector<std::string> invalidated;
  message >> interface >> changed >> invalidated;
  const std::string path = message.getPath();
  auto it = objects_.find(path);
  if (it == objects_.end() || !it->second.count(interface)) {
    if (bluezPresent_) {
      QLTLog("BlueZ: PropertiesChanged of %s for an unknown object %s; ignored", interface, path);
    }
    return;
  }
  auto& props = it->second[interface];
  std::set<std::string> names;
  for (auto& [key, value] : changed) {
    names.insert(key);
    props[key] = std::move(value);
  }
  for (const auto& key : invalidated) {
    names.insert(key);
    props.erase(key);
  }
  if (interface == kAdapterInterface) {
    if (path == adapterPath_ && names.count("Powered")) reconcileAdapter();
  } else if (interface == kDeviceInterface) {
    deviceChanged(path, names);
  } else if (interface == kCharacteristicInterface) {
    characteristicChanged(path, names);
  }
}

void BluezCentral::deviceChanged(const std::string& path, const std::set<std::string>& changed) {
  auto known = deviceByPath_.find(path);
  if (known == deviceByPath_.end()) return;  // on another adapter, or unreadable
  const Address address = known->second;
  Device& device = devices_[address];
  const PropertyMap* props = properties(path, kDeviceInterface);
  if (!props) return;

  if (changed.count("Name")) {
    if (auto p = peripheralFor(address)) p->setName(reader_.string(*props, path, "Name"));
  }
  if (changed.count("Connected")) {
    const auto connected = reader_.boolean(*props, path, "Connected");
    if (connected == false) {
      switch (device.phase) {
        case Phase::Connected:
          QLTLog("BlueZ: %s: link lost", addressString(address));
          endLink(address, backendError("the link was lost"));
          break;
        case Phase::Disconnecting:
          endLink(address, std::nullopt);
          break;
        case Phase::Connecting:
          if (device.connectReplied) {
            QLTLog("BlueZ: %s: link lost while resolving services", addressString(address));
            endLink(address, backendError("the link was lost while resolving services"));
          } else {
            // The tail of an earlier link: the pending Connect will tell how this one ends.
            QLTLog("BlueZ: %s: Connected=false from an earlier link ignored while connecting",
                   addressString(address));
          }
          break;
        case Phase::Idle:
          break;
      }
    }
  }
  if (changed.count("Connected") || changed.count("ServicesResolved")) checkReady(address);
  if (changed.count("ServicesResolved") && device.phase == Phase::Connected &&
      device.pendingServiceDiscovery && reader_.boolean(*props, path, "ServicesResolved") == true) {
    auto uuids = *device.pendingServiceDiscovery;
    device.pendingServiceDiscovery.reset();
    fulfilServiceDiscovery(address, uuids);
  }
  if (changed.count("RSSI") || changed.count("Name") || changed.count("ManufacturerData") ||
      changed.count("ServiceData")) {
    // Only values that came with this signal count as an advertisement; an invalidated
    // RSSI (discovery ended) is not one.
    const bool fresh = (changed.count("RSSI") && props->count("RSSI")) ||
                       (changed.count("Name") && props->count("Name")) ||
                       (changed.count("ManufacturerData") && props->count("ManufacturerData")) ||
                       (changed.count("ServiceData") && props->count("ServiceData"));
    if (fresh) reportAdvertisement(address, path);
  }
}

void BluezCentral::characteristicChanged(const std::string& path,
                                         const std::set<std::string>& changed) {
  // BlueZ lays characteristics out as <device>/serviceXXXX/charYYYY.
  const auto serviceEnd = path.rfind('/');
  if (serviceEnd == std::string::npos || serviceEnd == 0) return;
  const auto deviceEnd = path.rfind('/', serviceEnd - 1);
  if (deviceEnd == std::string::npos) return;
  auto known = deviceByPath_.find(path.substr(0, deviceEnd));
  if (known == deviceByPath_.end()) return;
  const Address address = known->second;
  Device& device = devices_[address];
  if (changed.count("MTU")) updateMtu(address, path);
  auto ch = device.characteristics.find(path);
  if (ch == device.characteristics.end() || device.phase != Phase::Connected) return;
  auto characteristic = ch->second;
  auto peripheral = peripheralFor(address);
  if (!peripheral) return;
  const PropertyMap* props = properties(path, kCharacteristicInterface);
  if (!props) return;
  if (changed.count("Notifying")) {
    if (auto notifying = reader_.boolean(*props, path, "Notifying")) {
      const bool on = *notifying;
      deliverToPeripheral(peripheral, {},
                          [characteristic, on] { characteristic->setNotifying(on); });
    }
  }
  if (changed.count("Value") && props->count("Value")) {
    // Only values of a notification session this central asked for; a read's echo or
    // another client's session is not a notification for us.
    if (!device.notifying.count(path)) return;
    auto value = reader_.bytes(*props, path, "Value");
    if (!value) return;
    deliverNotification(peripheral, characteristic, *value);
  }
}

void BluezCentral::deliverNotification(const std::shared_ptr<BluezPeripheral>& peripheral,
                                       const std::shared_ptr<BluezCharacteristic>& characteristic,
                                       Data data) {
  deliverToPeripheral(
      peripheral,
      [peripheral, characteristic](platform::PeripheralDelegate& d) {
        d.peripheral_didUpdateValueForCharacteristic_error(peripheral, characteristic,
                                                           std::nullopt);
      },
      [characteristic, data = std::move(data)] { characteristic->setValue(data); });
}

// ------------------------------------------------------------------------------------------
// The adapter, devices and scanning (bus thread)

const PropertyMap* BluezCentral::properties(const std::string& path, const char* interface) const {
  auto it = objects_.find(path);
  if (it == objects_.end()) return nullptr;
  auto in = it->second.find(interface);
  return in == it->second.end() ? nullptr : &in->second;
}

void BluezCentral::reconcileAdapter() {
  std::string chosen;
  for (const auto& [path, interfaces] : objects_) {
    if (interfaces.count(kAdapterInterface)) {
      chosen = path;  // the first in path order: hci0 before hci1
      break;
    }
  }
  if (chosen != adapterPath_) {
    if (!adapterPath_.empty()) {
      QLTLog("BlueZ: adapter %s is gone", adapterPath_);
      for (auto& [address, device] : devices_) {
        if (device.phase != Phase::Idle) endLink(address, backendError("the adapter is gone"));
      }
      std::vector<std::string> paths;
      for (const auto& [path, address] : deviceByPath_) paths.push_back(path);
      for (const auto& path : paths) unbindDevice(path);
      discoveryActive_ = false;
    }
    adapterPath_ = chosen;
    if (!chosen.empty()) {
      QLTLog("BlueZ: using adapter %s", chosen);
      for (const auto& [path, interfaces] : objects_) {
        if (interfaces.count(kDeviceInterface)) bindDevice(path);
      }
    }
  }
  CentralState next = CentralState::Unsupported;
  if (!adapterPath_.empty()) {
    const PropertyMap* props = properties(adapterPath_, kAdapterInterface);
    const bool powered = props && reader_.boolean(*props, adapterPath_, "Powered") == true;
    next = powered ? CentralState::PoweredOn : CentralState::PoweredOff;
  } else if (bluezPresent_) {
    QLTLog("BlueZ: bluetoothd has no adapter");
  }
  if (next != CentralState::PoweredOn) {
    for (auto& [address, device] : devices_) {
      if (device.phase != Phase::Idle) endLink(address, backendError("the adapter is powered off"));
    }
    scanWanted_ = false;
    discoveryActive_ = false;
    scanning_ = false;
  }
  reportState(next);
}

std::optional<Address> BluezCentral::addressOf(const std::string& path) {
  if (const PropertyMap* props = properties(path, kDeviceInterface)) {
    if (auto text = reader_.string(*props, path, "Address")) {
      if (auto address = parseAddress(*text)) return address;
      QLTLog("BlueZ: device %s has a malformed Address \"%s\"", path, *text);
    }
  }
  // BlueZ names device objects dev_XX_XX_XX_XX_XX_XX.
  const auto slash = path.rfind('/');
  std::string leaf = path.substr(slash == std::string::npos ? 0 : slash + 1);
  if (leaf.size() == 21 && leaf.compare(0, 4, "dev_") == 0) {
    std::string text = leaf.substr(4);
    std::replace(text.begin(), text.end(), '_', ':');
    if (auto address = parseAddress(text)) return address;
  }
  return std::nullopt;
}

std::shared_ptr<BluezPeripheral> BluezCentral::peripheralFor(const Address& address) {
  std::lock_guard<std::mutex> lock(registryMutex_);
  auto& weak = registry_[address];
  auto p = weak.lock();
  if (!p) {
    p = std::make_shared<BluezPeripheral>(weakSelf_, address);
    weak = p;
  }
  return p;
}

void BluezCentral::bindDevice(const std::string& path) {
  if (adapterPath_.empty() || !isChildOf(path, adapterPath_)) return;  // another adapter's
  const PropertyMap* props = properties(path, kDeviceInterface);
  if (!props) return;
  auto address = addressOf(path);
  if (!address) {
    QLTLog("BlueZ: device object %s has no usable address; ignored", path);
    return;
  }
  auto peripheral = peripheralFor(*address);
  peripheral->setName(reader_.string(*props, path, "Name"));
  {
    std::lock_guard<std::mutex> lock(registryMutex_);
    listed_[*address] = peripheral;
  }
  Device& device = devices_[*address];
  const bool isNew = device.path != path;
  device.path = path;
  deviceByPath_[path] = *address;
  if (isNew) reportAdvertisement(*address, path);
}

void BluezCentral::unbindDevice(const std::string& path) {
  auto it = deviceByPath_.find(path);
  if (it == deviceByPath_.end()) return;
  const Address address = it->second;
  deviceByPath_.erase(it);
  Device& device = devices_[address];
  if (device.phase != Phase::Idle) {
    QLTLog("BlueZ: %s: device removed by bluetoothd", addressString(address));
    endLink(address, backendError("the device was removed"));
  }
  device.path.clear();
  loop_.releaseProxy(kBluezService, path);
  {
    std::lock_guard<std::mutex> lock(registryMutex_);
    listed_.erase(address);
    // Forget devices nobody holds any more, so a busy neighbourhood does not grow the maps.
    for (auto r = registry_.begin(); r != registry_.end();) {
      if (r->second.expired() && !listed_.count(r->first)) {
        auto d = devices_.find(r->first);
        if (d != devices_.end() && d->second.phase == Phase::Idle && d->second.path.empty()) {
          devices_.erase(d);
        }
        r = registry_.erase(r);
      } else {
        ++r;
      }
    }
  }
}

void BluezCentral::applyDiscovery() {
  if (!bluezPresent_ || adapterPath_.empty()) return;
  const uint64_t generation = scanGeneration_;
  if (!scanWanted_) {
    if (!discoveryActive_) return;
    discoveryActive_ = false;
    call(adapterPath_, kAdapterInterface, "StopDiscovery", {}, options_.callTimeout,
         [](sdbus::MethodReply*, const Error* error) {
           if (error) QLTLog("BlueZ: StopDiscovery failed: %s", error->description());
         });
    return;
  }
  // The documented default of DuplicateData differs from what some daemons do: set both
  // keys explicitly, so every advertisement (not only changed data) is reported.
  std::map<std::string, sdbus::Variant> filter;
  filter["Transport"] = sdbus::Variant(std::string("le"));
  filter["DuplicateData"] = sdbus::Variant(true);
  if (!scanUUIDs_.empty()) {
    std::vector<std::string> uuids;
    for (const auto& u : scanUUIDs_) uuids.push_back(u.UUIDString());
    filter["UUIDs"] = sdbus::Variant(uuids);
  }
  const std::string adapter = adapterPath_;
  call(
      adapter, kAdapterInterface, "SetDiscoveryFilter", [&](sdbus::MethodCall& m) { m << filter; },
      options_.callTimeout,
      [this, generation, adapter](sdbus::MethodReply*, const Error* error) {
        if (error) QLTLog("BlueZ: SetDiscoveryFilter failed: %s", error->description());
        if (generation != scanGeneration_ || !scanWanted_ || adapter != adapterPath_) return;
        if (discoveryActive_) return;  // a new filter for a running discovery
        call(adapter, kAdapterInterface, "StartDiscovery", {}, options_.callTimeout,
             [this, adapter](sdbus::MethodReply*, const Error* error) {
               if (adapter != adapterPath_) return;
               if (error && error->domain != "org.bluez.Error.InProgress") {
                 QLTLog("BlueZ: StartDiscovery failed: %s", error->description());
                 return;
               }
               discoveryActive_ = true;
               if (!scanWanted_) applyDiscovery();  // stopped meanwhile
             });
      });
}

bool BluezCentral::matchesScan(const PropertyMap& device, const std::string& path) {
  if (scanUUIDs_.empty()) return true;
  // bluetoothd merges the filters of all its clients: report only what this scan asked for.
  const auto advertised = reader_.uuids(device, path, "UUIDs");
  for (const auto& u : advertised) {
    if (std::find(scanUUIDs_.begin(), scanUUIDs_.end(), u) != scanUUIDs_.end()) return true;
  }
  return false;
}

void BluezCentral::reportAdvertisement(const Address& address, const std::string& path) {
  if (!scanWanted_) return;
  const PropertyMap* props = properties(path, kDeviceInterface);
  if (!props || !matchesScan(*props, path)) return;
  Device& device = devices_[address];
  if (!scanAllowsDuplicates_ && device.reportedThisScan) return;
  device.reportedThisScan = true;
  auto peripheral = peripheralFor(address);
  auto adv = reader_.advertisement(*props, path);
  // 127: "no signal strength available", as the platforms report it.
  const int rssi = reader_.int16(*props, path, "RSSI").value_or(127);
  deliver([peripheral, adv, rssi](BluezCentral& self, platform::CentralDelegate* delegate) {
    if (!self.scanning_.load()) return;  // stopped since: no report after stopScan
    peripheral->setName(adv.localName);
    if (delegate) {
      delegate->centralManager_didDiscoverPeripheral_advertisementData_RSSI(self, peripheral, adv,
                                                                            rssi);
    }
  });
}

// ------------------------------------------------------------------------------------------
// Connections (bus thread)

bool BluezCentral::linkUsable(const Device& device, uint64_t generation) const {
  return device.phase == Phase::Connected && device.generation == generation &&
         !device.path.empty();
}

void BluezCentral::busConnect(const std::shared_ptr<BluezPeripheral>& peripheral) {
  const Address address = peripheral->address();
  Device& device = devices_[address];
  const std::string name = addressString(address);
  if (device.phase == Phase::Connecting || device.phase == Phase::Connected) {
    QLTLog("BlueZ: connect to %s ignored: already %s", name,
           phaseName(static_cast<int>(device.phase)));
    return;
  }
  if (device.path.empty()) {
    QLTLog("BlueZ: cannot connect to %s: bluetoothd does not list it", name);
    deliver([peripheral](BluezCentral& self, platform::CentralDelegate* delegate) {
      peripheral->setState(PeripheralState::Disconnected);
      if (delegate) {
        delegate->centralManager_didFailToConnectPeripheral_error(
            self, peripheral, backendError("the device is not known to bluetoothd"));
      }
    });
    return;
  }
  if (device.phase == Phase::Disconnecting) {
    // The earlier link's end is still to come; it must not be mistaken for this one's.
    QLTLog("BlueZ: %s: connecting again before the last disconnection completed", name);
  }
  if (device.timer) loop_.cancel(device.timer);
  if (device.connectCall) device.connectCall->cancel();
  device.phase = Phase::Connecting;
  device.generation = nextLinkGeneration_++;
  device.connectReplied = false;
  device.connectCall.reset();
  const uint64_t generation = device.generation;
  QLTLog("BlueZ: connecting to %s (attempt %llu)", name,
         static_cast<unsigned long long>(generation));

  device.timer = loop_.runAfter(options_.connectTimeout, [this, address, generation, name] {
    Device& d = devices_[address];
    if (d.generation != generation || d.phase != Phase::Connecting) return;
    d.timer = 0;
    QLTLog("BlueZ: connection to %s timed out after %lld ms; cancelling with Disconnect", name,
           static_cast<long long>(options_.connectTimeout.count()));
    if (d.connectCall) d.connectCall->cancel();
    d.connectCall.reset();
    if (!d.path.empty()) sendDisconnect(d.path, "after a connection time-out");
    endLink(address, backendError("the connection timed out"));
  });

  sdbus::PendingAsyncCall handle;
  const bool sent = call(
      device.path, kDeviceInterface, "Connect", {},
      options_.connectTimeout + std::chrono::seconds(5),
      [this, address, generation, name](sdbus::MethodReply*, const Error* error) {
        Device& d = devices_[address];
        if (d.generation != generation || d.phase != Phase::Connecting) return;
        d.connectCall.reset();
        if (error && error->domain != "org.bluez.Error.AlreadyConnected") {
          QLTLog("BlueZ: Connect to %s failed: %s", name, error->description());
          endLink(address, *error);
          return;
        }
        d.connectReplied = true;
        checkReady(address);
      },
      &handle);
  if (sent) device.connectCall = handle;
}

void BluezCentral::checkReady(const Address& address) {
  Device& device = devices_[address];
  if (device.phase != Phase::Connecting || !device.connectReplied) return;
  const PropertyMap* props = properties(device.path, kDeviceInterface);
  if (!props) return;
  if (reader_.boolean(*props, device.path, "ServicesResolved") != true) return;
  device.phase = Phase::Connected;
  if (device.timer) loop_.cancel(device.timer);
  device.timer = 0;
  QLTLog("BlueZ: connected to %s, services resolved", addressString(address));
  auto peripheral = peripheralFor(address);
  deliver([peripheral](BluezCentral& self, platform::CentralDelegate* delegate) {
    peripheral->setState(PeripheralState::Connected);
    if (delegate) delegate->centralManager_didConnectPeripheral(self, peripheral);
  });
}

void BluezCentral::busCancel(const std::shared_ptr<BluezPeripheral>& peripheral) {
  const Address address = peripheral->address();
  Device& device = devices_[address];
  switch (device.phase) {
    case Phase::Idle:
      // Nothing to cancel; confirm, so that whoever waits for the disconnection gets it.
      deliver([peripheral](BluezCentral& self, platform::CentralDelegate* delegate) {
        peripheral->setState(PeripheralState::Disconnected);
        if (delegate)
          delegate->centralManager_didDisconnectPeripheral_error(self, peripheral, std::nullopt);
      });
      return;
    case Phase::Disconnecting:
      return;
    case Phase::Connecting:
      if (device.connectCall) device.connectCall->cancel();
      device.connectCall.reset();
      if (!device.path.empty()) sendDisconnect(device.path, "to cancel a pending connection");
      device.phase = Phase::Disconnecting;  // reported as a disconnection, not a failure
      endLink(address, std::nullopt);
      return;
    case Phase::Connected: {
      device.phase = Phase::Disconnecting;
      const uint64_t generation = device.generation;
      call(device.path, kDeviceInterface, "Disconnect", {}, options_.callTimeout,
           [this, address, generation](sdbus::MethodReply*, const Error* error) {
             Device& d = devices_[address];
             if (d.generation != generation || d.phase != Phase::Disconnecting) return;
             if (error) {
               QLTLog("BlueZ: Disconnect of %s failed: %s", addressString(address),
                      error->description());
             }
             endLink(address, error ? std::optional<Error>(*error) : std::nullopt);
           });
      return;
    }
  }
}

void BluezCentral::sendDisconnect(const std::string& path, const char* why) {
  call(path, kDeviceInterface, "Disconnect", {}, options_.callTimeout,
       [path, why](sdbus::MethodReply*, const Error* error) {
         if (error)
           QLTLog("BlueZ: Disconnect of %s %s failed: %s", path, why, error->description());
       });
}

void BluezCentral::endLink(const Address& address, std::optional<Error> error) {
  Device& device = devices_[address];
  const Phase was = device.phase;
  if (was == Phase::Idle) return;
  device.phase = Phase::Idle;
  if (device.timer) loop_.cancel(device.timer);
  device.timer = 0;
  if (device.connectCall) device.connectCall->cancel();
  device.connectCall.reset();
  device.connectReplied = false;
  device.pendingServiceDiscovery.reset();
  device.requests.clear();
  device.requestInFlight = false;
  device.commands.clear();
  closeSockets(device);
  device.notifying.clear();
  device.services.clear();
  device.characteristics.clear();
  // Calls still pending on the GATT objects of this link are dropped with their proxies.
  for (const auto& [path, interfaces] : objects_) {
    if (!device.path.empty() && isChildOf(path, device.path))
      loop_.releaseProxy(kBluezService, path);
  }
  auto peripheral = peripheralFor(address);
  if (was == Phase::Connecting) {
    deliver([peripheral, error](BluezCentral& self, platform::CentralDelegate* delegate) {
      peripheral->setState(PeripheralState::Disconnected);
      if (delegate)
        delegate->centralManager_didFailToConnectPeripheral_error(self, peripheral, error);
    });
  } else {
    deliver([peripheral, error](BluezCentral& self, platform::CentralDelegate* delegate) {
      peripheral->setState(PeripheralState::Disconnected);
      if (delegate) delegate->centralManager_didDisconnectPeripheral_error(self, peripheral, error);
    });
  }
}

// ------------------------------------------------------------------------------------------
// GATT (bus thread)

void BluezCentral::fulfilServiceDiscovery(const Address& address,
                                          std::optional<std::vector<UUID>> uuids) {
  Device& device = devices_[address];
  const PropertyMap* props = properties(device.path, kDeviceInterface);
  if (!props || reader_.boolean(*props, device.path, "ServicesResolved") != true) {
    // bluetoothd is (re)reading the device's services; answer once it is done.
    device.pendingServiceDiscovery = uuids;
    return;
  }
  auto peripheral = peripheralFor(address);
  std::vector<std::shared_ptr<platform::Service>> list;
  for (const auto& [path, interfaces] : objects_) {
    if (!isDirectChildOf(path, device.path)) continue;
    auto si = interfaces.find(kServiceInterface);
    if (si == interfaces.end()) continue;
    auto uuid = reader_.uuid(si->second, path, "UUID");
    if (!uuid) {
      QLTLog("BlueZ: service %s has no readable UUID; skipped", path);
      continue;
    }
    if (uuids && !uuids->empty() &&
        std::find(uuids->begin(), uuids->end(), *uuid) == uuids->end()) {
      continue;
    }
    auto& slot = device.services[path];
    if (!slot) {
      const bool primary = reader_.boolean(si->second, path, "Primary").value_or(true);
      slot = std::make_shared<BluezService>(*uuid, primary, path, device.generation, peripheral);
    }
    list.push_back(slot);
  }
  deliverToPeripheral(
      peripheral,
      [peripheral](platform::PeripheralDelegate& d) {
        d.peripheral_didDiscoverServices(peripheral, std::nullopt);
      },
      [peripheral, list] { peripheral->setServices(list); });
}

void BluezCentral::pumpRequests(const Address& address) {
  Device& device = devices_[address];
  if (device.requestInFlight || device.requests.empty()) return;
  PendingRequest request = std::move(device.requests.front());
  device.requests.pop_front();
  device.requestInFlight = true;
  const uint64_t generation = device.generation;
  auto peripheral = peripheralFor(address);
  auto characteristic = request.characteristic;
  const Data data = request.data;
  // One request at a time per device: bluetoothd refuses a second one with InProgress.
  call(
      characteristic->path(), kCharacteristicInterface, "WriteValue",
      [&](sdbus::MethodCall& m) {
        m << std::vector<uint8_t>(data.bytes(), data.bytes() + data.size())
          << std::map<std::string, sdbus::Variant>{
                 {"type", sdbus::Variant(std::string("request"))}};
      },
      options_.callTimeout,
      [this, address, generation, peripheral, characteristic](sdbus::MethodReply*,
                                                              const Error* error) {
        Device& d = devices_[address];
        if (d.generation != generation || d.phase != Phase::Connected) return;
        d.requestInFlight = false;
        std::optional<Error> failure;
        if (error) {
          failure = *error;
          QLTLog("BlueZ: write request to %s failed: %s", characteristic->path(),
                 error->description());
        }
        deliverToPeripheral(peripheral, [peripheral, characteristic,
                                         failure](platform::PeripheralDelegate& dl) {
          dl.peripheral_didWriteValueForCharacteristic_error(peripheral, characteristic, failure);
        });
        pumpRequests(address);
      });
}

void BluezCentral::pumpCommands() {
  // A ticket per write in flight: it returns its place when the reply has been handled or
  // when the call is dropped unanswered (its proxy released at the end of a link).
  struct Ticket {
    Ticket(std::shared_ptr<size_t> c, BusLoop* l, std::function<void()> p)
        : counter(std::move(c)), loop(l), pump(std::move(p)) {
      ++*counter;
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    std::shared_ptr<size_t> counter;
    BusLoop* loop;
    std::function<void()> pump;
    ~Ticket() {
      --*counter;
      loop->post(pump);
    }
  };
  while (*commandsInFlight_ < kMaxCommandsInFlight && !devicesWithCommands_.empty()) {
    for (auto turn = devicesWithCommands_.begin();
         turn != devicesWithCommands_.end() && *commandsInFlight_ < kMaxCommandsInFlight;) {
      Device& device = devices_[*turn];
      if (device.commands.empty()) {
        turn = devicesWithCommands_.erase(turn);
        continue;
      }
      PendingRequest write = std::move(device.commands.front());
      device.commands.pop_front();
      ++turn;
      auto ticket = std::make_shared<Ticket>(commandsInFlight_, &loop_, [this] { pumpCommands(); });
      const std::string path = write.characteristic->path();
      const Data data = write.data;
      call(
          path, kCharacteristicInterface, "WriteValue",
          [&](sdbus::MethodCall& m) {
            m << std::vector<uint8_t>(data.bytes(), data.bytes() + data.size())
              << std::map<std::string, sdbus::Variant>{
                     {"type", sdbus::Variant(std::string("command"))}};
          },
          options_.callTimeout,
          [path, size = data.size(), ticket](sdbus::MethodReply*, const Error* error) {
            if (error) {
              QLTLog("BlueZ: write without response of %zu bytes to %s failed: %s", size, path,
                     error->description());
            }
          });
    }
  }
}

void BluezCentral::updateMtu(const Address& address, const std::string& characteristicPath) {
  const PropertyMap* props = properties(characteristicPath, kCharacteristicInterface);
  if (!props) return;
  auto mtu = reader_.uint16(*props, characteristicPath, "MTU");
  if (!mtu) return;
  auto peripheral = peripheralFor(address);
  if (peripheral->mtu() != *mtu) {
    QLTLog("BlueZ: %s: ATT MTU %d", addressString(address), static_cast<int>(*mtu));
    peripheral->setMtu(*mtu);
  }
}

// ------------------------------------------------------------------------------------------
// Calls and delivery

bool BluezCentral::call(const std::string& path, const char* interface, const char* method,
                        const std::function<void(sdbus::MethodCall&)>& arguments,
                        std::chrono::milliseconds timeout, Reply done,
                        sdbus::PendingAsyncCall* handle) {
  std::optional<Error> failure;
  try {
    sdbus::IProxy* proxy = loop_.proxy(kBluezService, path);
    if (!proxy) {
      failure = backendError("no connection to the system bus");
    } else {
      auto message = proxy->createMethodCall(interface, method);
      if (arguments) arguments(message);
      std::string what = std::string(method) + " reply";
      auto pending = proxy->callMethod(
          message,
          [done, what](sdbus::MethodReply& reply, const sdbus::Error* error) {
            BusLoop::guard(what.c_str(), [&] {
              if (error) {
                const Error e = toError(*error);
                done(&reply, &e);
              } else {
                done(&reply, nullptr);
              }
            });
          },
          microseconds(timeout));
      if (handle) *handle = pending;
      return true;
    }
  } catch (const sdbus::Error& e) {
    failure = toError(e);
  }
  QLTLog("BlueZ: cannot call %s on %s: %s", method, path, failure->description());
  // Answer later, never from inside the caller.
  loop_.post([done, failure] { done(nullptr, &*failure); });
  return false;
}

void BluezCentral::deliver(
    std::function<void(BluezCentral& self, platform::CentralDelegate* delegate)> task) {
  std::weak_ptr<BluezCentral> weak = weakSelf_;
  queue_->async([weak, task = std::move(task)] {
    auto self = weak.lock();
    if (!self) return;
    auto delegate = self->delegate_.lock();
    task(*self, delegate.get());
  });
}

void BluezCentral::deliverToPeripheral(
    const std::shared_ptr<BluezPeripheral>& peripheral,
    std::function<void(platform::PeripheralDelegate& delegate)> task,
    std::function<void()> before) {
  std::weak_ptr<BluezCentral> weak = weakSelf_;
  queue_->async([weak, peripheral, task = std::move(task), before = std::move(before)] {
    if (weak.expired()) return;
    if (before) before();
    if (!task) return;
    if (auto delegate = peripheral->delegate()) task(*delegate);
  });
}

void BluezCentral::reportState(CentralState state) {
  if (reportedState_ == state) return;
  reportedState_ = state;
  static const char* const names[] = {"unknown",      "resetting",   "unsupported",
                                      "unauthorized", "powered off", "powered on"};
  QLTLog("BlueZ: central state: %s", names[static_cast<int>(state)]);
  if (state != CentralState::PoweredOn) scanning_ = false;
  deliver([state](BluezCentral& self, platform::CentralDelegate* delegate) {
    self.state_ = state;
    if (delegate) delegate->centralManagerDidUpdateState(self);
  });
}

}  // namespace qlt::bluez
