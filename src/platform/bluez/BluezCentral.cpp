#include "platform/bluez/BluezCentral.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

using platform::CentralState;
using platform::Error;
using platform::ErrorReason;
using platform::PeripheralState;

// ------------------------------------------------------------------------------------------
// Creation and the public operations (any thread)

std::shared_ptr<BluezCentral> BluezCentral::create(
    const std::shared_ptr<platform::CentralDelegate>& delegate,
    const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options) {
  std::shared_ptr<BluezCentral> central(new BluezCentral(delegate, queue, options));
  central->weakSelf_ = central;
  central->gattClient_.setOwner(central);
  central->start();
  return central;
}

namespace {
// QLT_ADAPTER, the adapter a process asks for without code of its own; "" when unset.
std::string adapterFromEnvironment() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
  const char* env = std::getenv("QLT_ADAPTER");
  return env ? env : "";
}
}  // namespace

BluezCentral::BluezCentral(const std::shared_ptr<platform::CentralDelegate>& delegate,
                           const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options)
    : delegate_(delegate),
      queue_(queue ? queue : DispatchQueue::create("BluezCentral")),
      options_(options),
      wantedAdapter_(adapterFromEnvironment()),
      loop_(options.reconnectInterval),
      port_(loop_, options.callTimeout),
      mirror_(port_, *this, options.callTimeout),
      gattClient_(
          port_, mirror_, queue_, options.callTimeout,
          GattClient::Links{[this](const Address& address) -> Link* {
                              auto it = links_.find(address);
                              return it == links_.end() ? nullptr : &it->second;
                            },
                            [this](const Address& address) { return peripheralFor(address); }}),
      discovery_(port_, mirror_, options.callTimeout,
                 [this](const Address& address, const platform::AdvertisementData& adv, int rssi) {
                   auto peripheral = peripheralFor(address);
                   deliver([peripheral, adv, rssi](BluezCentral& self,
                                                   platform::CentralDelegate* delegate) {
                     if (!self.scanning_.load()) return;  // stopped since: no report after stopScan
                     peripheral->setName(adv.localName);
                     if (delegate) {
                       delegate->centralManager_didDiscoverPeripheral_advertisementData_RSSI(
                           self, peripheral, adv, rssi);
                     }
                   });
                 }) {}

BluezCentral::~BluezCentral() { loop_.stop(); }

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Whether `wanted` (a name such as "hci1", or an address, any case) names `adapter`.
bool isNamed(const std::string& wanted, const platform::AdapterInfo& adapter) {
  const auto address = platform::canonicalAddress(wanted);
  return address ? *address == adapter.address : lowered(wanted) == lowered(adapter.name);
}

std::string listOf(const std::vector<platform::AdapterInfo>& adapters) {
  std::string text;
  for (const auto& a : adapters) {
    text += (text.empty() ? "" : ", ") + a.name + (a.address.empty() ? "" : " " + a.address);
  }
  return text.empty() ? "none" : text;
}

}  // namespace

std::vector<platform::AdapterInfo> BluezCentral::adapters() const {
  std::lock_guard lock(adaptersMutex_);
  return adapters_;
}

std::optional<Error> BluezCentral::useAdapter(const std::string& nameOrAddress) {
  bool known = false;
  std::vector<platform::AdapterInfo> list;
  {
    std::lock_guard lock(adaptersMutex_);
    wantedAdapter_ = nameOrAddress;
    known = adaptersKnown_;
    list = adapters_;
  }
  loop_.post([this] { reconcileAdapter(); });
  if (nameOrAddress.empty() || !known) return std::nullopt;
  for (const auto& a : list) {
    if (isNamed(nameOrAddress, a)) return std::nullopt;
  }
  return backendError(ErrorReason::DeviceRemoved, "bluetoothd has no adapter " + nameOrAddress +
                                                      " (it has: " + listOf(list) + ")");
}

void BluezCentral::start() {
  BusLoop::Hooks hooks;
  hooks.connected = [this](sdbus::IConnection&) { mirror_.busConnected(); };
  hooks.lost = [this](bool stopping) { mirror_.busLost(stopping); };
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
    discovery_.start(uuids, duplicates);
    // Devices bluetoothd already knows (an earlier scan, another client) are reported too.
    for (const auto& [path, address] : deviceByPath_) discovery_.report(address, path);
  });
}

void BluezCentral::stopScan() {
  scanning_ = false;
  loop_.post([this] { discovery_.stop(); });
}

void BluezCentral::afterRoundTrips(int rounds, std::function<void()> then) {
  loop_.post([this, rounds, then = std::move(then)]() mutable {
    if (rounds <= 0) return deliver([then](BluezCentral&, platform::CentralDelegate*) { then(); });
    port_.call("/", "org.freedesktop.DBus.Peer", "Ping", nullptr, options_.callTimeout,
               [this, rounds, then](sdbus::MethodReply*, const platform::Error*) {
                 afterRoundTrips(rounds - 1, then);
               });
  });
}

void BluezCentral::connect(const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p) {
    QLTLog("BlueZ: connect: not a peripheral of this backend; ignored");
    return;
  }
  if (p->state() != PeripheralState::Connected) p->setState(PeripheralState::Connecting);
  loop_.post([this, address = p->address()] {
    Link& link = this->link(address);
    const PropertyMap* props =
        link.path().empty() ? nullptr : mirror_.properties(link.path(), kDeviceInterface);
    const bool connected =
        props && mirror_.reader().boolean(*props, link.path(), "Connected") == true;
    // A link already up is left alone by connect(); one bluetoothd reports up while this
    // central has none is an earlier session's, and is started afresh.
    link.connect(nextLinkGeneration_++, connected && link.phase() == LinkPhase::Idle);
  });
}

void BluezCentral::cancelPeripheralConnection(
    const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p) {
    QLTLog("BlueZ: cancelPeripheralConnection: not a peripheral of this backend; ignored");
    return;
  }
  if (p->state() == PeripheralState::Connected) p->setState(PeripheralState::Disconnecting);
  loop_.post([this, address = p->address()] {
    Link& link = this->link(address);
    if (link.phase() == LinkPhase::Connected) gattClient_.linkEnding(address);
    link.cancel();
  });
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

std::vector<std::shared_ptr<platform::Peripheral>> BluezCentral::retrievePeripheralsWithAddresses(
    const std::vector<std::string>& addresses) {
  std::vector<UUID> identifiers;
  for (const auto& text : addresses) {
    if (auto address = parseAddress(text)) identifiers.push_back(identifierForAddress(*address));
  }
  return retrievePeripheralsWithIdentifiers(identifiers);
}

// ------------------------------------------------------------------------------------------
// GATT operations: on the bus thread

void BluezCentral::discoverServices(std::shared_ptr<BluezPeripheral> peripheral,
                                    std::optional<std::vector<UUID>> uuids) {
  loop_.post([this, peripheral = std::move(peripheral), uuids = std::move(uuids)] {
    gattClient_.discoverServices(peripheral, uuids);
  });
}

void BluezCentral::discoverCharacteristics(std::shared_ptr<BluezPeripheral> peripheral,
                                           std::shared_ptr<BluezService> service,
                                           std::optional<std::vector<UUID>> uuids) {
  loop_.post([this, peripheral = std::move(peripheral), service = std::move(service),
              uuids = std::move(uuids)] {
    gattClient_.discoverCharacteristics(peripheral, service, uuids);
  });
}

void BluezCentral::writeValue(std::shared_ptr<BluezPeripheral> peripheral,
                              std::shared_ptr<BluezCharacteristic> characteristic, Data data,
                              platform::WriteType type) {
  loop_.post([this, peripheral = std::move(peripheral), characteristic = std::move(characteristic),
              data = std::move(data),
              type] { gattClient_.writeValue(peripheral, characteristic, data, type); });
}

void BluezCentral::readValue(std::shared_ptr<BluezPeripheral> peripheral,
                             std::shared_ptr<BluezCharacteristic> characteristic) {
  loop_.post(
      [this, peripheral = std::move(peripheral), characteristic = std::move(characteristic)] {
        gattClient_.readValue(peripheral, characteristic);
      });
}

void BluezCentral::setNotifyValue(std::shared_ptr<BluezPeripheral> peripheral,
                                  std::shared_ptr<BluezCharacteristic> characteristic,
                                  bool enabled) {
  loop_.post([this, peripheral = std::move(peripheral), characteristic = std::move(characteristic),
              enabled] { gattClient_.setNotifyValue(peripheral, characteristic, enabled); });
}

// ------------------------------------------------------------------------------------------
// Links (bus thread)

Link& BluezCentral::link(const Address& address) {
  QLT_ASSERT_BUS_THREAD(port_);
  return links_
      .try_emplace(address, port_, static_cast<LinkListener&>(*this), address,
                   LinkTimings{options_.connectTimeout, options_.callTimeout})
      .first->second;
}

bool BluezCentral::servicesResolved(const Address& address) {
  const std::string& path = link(address).path();
  const PropertyMap* props = mirror_.properties(path, kDeviceInterface);
  return props && mirror_.reader().boolean(*props, path, "ServicesResolved") == true;
}

void BluezCentral::linkUp(const Address& address) {
  auto peripheral = peripheralFor(address);
  deliver([peripheral](BluezCentral& self, platform::CentralDelegate* delegate) {
    peripheral->setState(PeripheralState::Connected);
    if (delegate) delegate->centralManager_didConnectPeripheral(self, peripheral);
  });
}

void BluezCentral::linkEnded(const Address& address, LinkPhase was,
                             const std::optional<Error>& error) {
  gattClient_.linkEnded(address, link(address).path());
  auto peripheral = peripheralFor(address);
  const bool failed = was == LinkPhase::Connecting;
  if (failed && error) {
    QLTLog("BlueZ: could not connect to %s: %s", addressString(address), error->description());
  }
  deliver([peripheral, error, failed](BluezCentral& self, platform::CentralDelegate* delegate) {
    peripheral->setState(PeripheralState::Disconnected);
    if (!delegate) return;
    if (failed) {
      delegate->centralManager_didFailToConnectPeripheral_error(self, peripheral, error);
    } else {
      delegate->centralManager_didDisconnectPeripheral_error(self, peripheral, error);
    }
  });
}

// ------------------------------------------------------------------------------------------
// bluetoothd's objects (bus thread)

void BluezCentral::bluezAbsent() { reportState(CentralState::PoweredOff); }

void BluezCentral::bluezVanished(const std::string& why, CentralState reportAs) {
  dropAllDevices(ErrorReason::PoweredOff, why);
  discovery_.drop();
  scanning_ = false;
  adapterPath_.clear();
  discovery_.setAdapter({});
  {
    std::lock_guard lock(adaptersMutex_);
    adapters_.clear();
    adaptersKnown_ = false;
  }
  reportState(reportAs);
}

void BluezCentral::dropAllDevices(ErrorReason reason, const std::string& why) {
  for (auto& [address, link] : links_) {
    if (link.phase() != LinkPhase::Idle) link.end(backendError(reason, why));
  }
  std::vector<std::string> paths;
  for (const auto& [path, address] : deviceByPath_) paths.push_back(path);
  for (const auto& path : paths) unbindDevice(path);
}

void BluezCentral::treeReplaced() {
  reconcileAdapter();
  std::vector<std::string> stale;
  for (const auto& [path, address] : deviceByPath_) {
    if (!mirror_.properties(path, kDeviceInterface)) stale.push_back(path);
  }
  for (const auto& path : stale) unbindDevice(path);
  for (const auto& path : mirror_.objectsWith(kDeviceInterface)) bindDevice(path);
}

void BluezCentral::interfacesAdded(const std::string& path, const std::set<std::string>& names) {
  if (names.count(kAdapterInterface)) reconcileAdapter();
  if (names.count(kDeviceInterface)) bindDevice(path);
}

void BluezCentral::interfacesRemoved(const std::string& path, const std::set<std::string>& names) {
  if (names.count(kDeviceInterface)) unbindDevice(path);
  if (names.count(kAdapterInterface)) reconcileAdapter();
}

void BluezCentral::propertiesChanged(const std::string& path, const std::string& interface,
                                     const std::set<std::string>& names) {
  if (interface == kAdapterInterface) {
    if (names.count("Powered") || names.count("Address")) reconcileAdapter();
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
  Link& link = this->link(address);
  const PropertyMap* props = mirror_.properties(path, kDeviceInterface);
  if (!props) return;
  auto& reader = mirror_.reader();
  if (changed.count("Name")) peripheralFor(address)->setName(reader.string(*props, path, "Name"));
  if (changed.count("Connected") && reader.boolean(*props, path, "Connected") == false) {
    link.connectedLost();
  }
  if (changed.count("Connected") || changed.count("ServicesResolved")) link.checkReady();
  if (changed.count("ServicesResolved")) gattClient_.servicesResolvedChanged(address);
  // Only values that came with this signal count as an advertisement; an invalidated RSSI
  // (discovery ended) is not one.
  for (const char* name : {"RSSI", "Name", "ManufacturerData", "ServiceData", "TxPower"}) {
    if (changed.count(name) && props->count(name)) {
      discovery_.report(address, path);
      break;
    }
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
  gattClient_.characteristicChanged(known->second, path, changed);
}

std::string BluezCentral::chooseAdapter(const std::vector<std::string>& paths,
                                        const std::vector<platform::AdapterInfo>& adapters,
                                        const std::string& wanted) {
  if (!wanted.empty()) {
    for (size_t i = 0; i < paths.size(); ++i) {
      if (isNamed(wanted, adapters[i])) return paths[i];
    }
    if (mirror_.bluezPresent()) {
      QLTLog("BlueZ: no adapter %s (bluetoothd has: %s)", wanted, listOf(adapters));
    }
    return {};
  }
  // The one in use while it stays powered, else the first powered one (hci0 before hci1),
  // else the one in use, else the first.
  size_t current = paths.size();
  for (size_t i = 0; i < paths.size(); ++i) {
    if (paths[i] == adapterPath_) current = i;
  }
  if (current < paths.size() && adapters[current].powered) return adapterPath_;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (adapters[i].powered) return paths[i];
  }
  if (current < paths.size()) return adapterPath_;
  return paths.empty() ? std::string() : paths.front();
}

void BluezCentral::reconcileAdapter() {
  const auto paths = mirror_.objectsWith(kAdapterInterface);
  std::vector<platform::AdapterInfo> adapters;
  for (const auto& path : paths) {
    platform::AdapterInfo info;
    info.name = path.substr(path.rfind('/') + 1);
    if (const PropertyMap* props = mirror_.properties(path, kAdapterInterface)) {
      const auto address = mirror_.reader().string(*props, path, "Address");
      info.address = platform::canonicalAddress(address.value_or("")).value_or("");
      info.powered = mirror_.reader().boolean(*props, path, "Powered") == true;
    }
    adapters.push_back(info);
  }
  std::string wanted;
  {
    std::lock_guard lock(adaptersMutex_);
    wanted = wantedAdapter_;
  }
  const std::string chosen = chooseAdapter(paths, adapters, wanted);
  for (size_t i = 0; i < paths.size(); ++i) adapters[i].inUse = paths[i] == chosen;
  {
    std::lock_guard lock(adaptersMutex_);
    adapters_ = adapters;
    adaptersKnown_ = mirror_.bluezPresent();
  }
  if (chosen != adapterPath_) {
    if (!adapterPath_.empty()) {
      QLTLog("BlueZ: leaving adapter %s", adapterPath_);
      dropAllDevices(ErrorReason::PoweredOff, "the adapter is gone or no longer the one chosen");
    }
    adapterPath_ = chosen;
    discovery_.setAdapter(chosen);
    if (!chosen.empty()) {
      QLTLog("BlueZ: using adapter %s", chosen);
      for (const auto& path : mirror_.objectsWith(kDeviceInterface)) bindDevice(path);
    }
  }
  CentralState next = CentralState::Unsupported;
  if (!adapterPath_.empty()) {
    const PropertyMap* props = mirror_.properties(adapterPath_, kAdapterInterface);
    const bool powered = props && mirror_.reader().boolean(*props, adapterPath_, "Powered") == true;
    next = powered ? CentralState::PoweredOn : CentralState::PoweredOff;
  } else if (mirror_.bluezPresent()) {
    QLTLog("BlueZ: bluetoothd has no adapter");
  }
  if (next != CentralState::PoweredOn) {
    for (auto& [address, link] : links_) {
      if (link.phase() != LinkPhase::Idle) {
        link.end(backendError(ErrorReason::PoweredOff, "the adapter is powered off"));
      }
    }
    discovery_.drop();
    scanning_ = false;
  }
  reportState(next);
}

std::optional<Address> BluezCentral::addressOf(const std::string& path) {
  if (const PropertyMap* props = mirror_.properties(path, kDeviceInterface)) {
    if (auto text = mirror_.reader().string(*props, path, "Address")) {
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
  if (adapterPath_.empty() || !ObjectMirror::isChildOf(path, adapterPath_)) return;
  const PropertyMap* props = mirror_.properties(path, kDeviceInterface);
  if (!props) return;
  auto address = addressOf(path);
  if (!address) {
    QLTLog("BlueZ: device object %s has no usable address; ignored", path);
    return;
  }
  auto peripheral = peripheralFor(*address);
  peripheral->setName(mirror_.reader().string(*props, path, "Name"));
  {
    std::lock_guard<std::mutex> lock(registryMutex_);
    listed_[*address] = peripheral;
  }
  Link& link = this->link(*address);
  const bool isNew = link.path() != path;
  link.setPath(path);
  deviceByPath_[path] = *address;
  if (isNew) discovery_.report(*address, path);
}

void BluezCentral::unbindDevice(const std::string& path) {
  auto it = deviceByPath_.find(path);
  if (it == deviceByPath_.end()) return;
  const Address address = it->second;
  deviceByPath_.erase(it);
  Link& link = this->link(address);
  if (link.phase() != LinkPhase::Idle) {
    QLTLog("BlueZ: %s: device removed by bluetoothd", addressString(address));
    link.end(backendError(ErrorReason::DeviceRemoved, "the device was removed"));
  }
  link.setPath({});
  port_.releaseProxy(path);
  std::lock_guard<std::mutex> lock(registryMutex_);
  listed_.erase(address);
  // Forget devices nobody holds any more, so a busy neighbourhood does not grow the maps.
  for (auto r = registry_.begin(); r != registry_.end();) {
    if (r->second.expired() && !listed_.count(r->first)) {
      auto d = links_.find(r->first);
      if (d != links_.end() && d->second.phase() == LinkPhase::Idle && d->second.path().empty()) {
        links_.erase(d);
      }
      r = registry_.erase(r);
    } else {
      ++r;
    }
  }
}

// ------------------------------------------------------------------------------------------
// Delivery

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

void BluezCentral::reportState(CentralState state) {
  if (reportedState_ == state) return;
  reportedState_ = state;
  QLTLog("BlueZ: central state: %s", toString(state));
  if (state != CentralState::PoweredOn) scanning_ = false;
  deliver([state](BluezCentral& self, platform::CentralDelegate* delegate) {
    self.state_ = state;
    if (delegate) delegate->centralManagerDidUpdateState(self);
  });
}

}  // namespace qlt::bluez
