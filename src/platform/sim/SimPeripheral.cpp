#include "SimPeripheral.h"

#include <algorithm>
#include <chrono>

#include "QueltLibrary/Log.h"
#include "SimCentral.h"
#include "SimLink.h"
#include "SimRandom.h"

namespace qlt::sim {

using platform::Error;
using platform::PeripheralState;

namespace {
constexpr uint64_t kStreamConnect = 3;
}  // namespace

std::shared_ptr<SimPeripheral> SimPeripheral::create(const UUID& identifier,
                                                     std::optional<std::string> name,
                                                     std::weak_ptr<SimCentral> central,
                                                     std::shared_ptr<SimRadio::Impl> radio,
                                                     std::shared_ptr<DispatchQueue> queue) {
  return std::shared_ptr<SimPeripheral>(new SimPeripheral(
      identifier, std::move(name), std::move(central), std::move(radio), std::move(queue)));
}

SimPeripheral::~SimPeripheral() {
  if (link_) link_->close();
}

std::optional<std::string> SimPeripheral::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}

void SimPeripheral::setName(const std::optional<std::string>& name) {
  std::lock_guard lock(mutex_);
  if (name) name_ = name;
}

PeripheralState SimPeripheral::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::vector<std::shared_ptr<platform::Service>> SimPeripheral::services() const {
  std::lock_guard lock(mutex_);
  return {services_.begin(), services_.end()};
}

std::shared_ptr<platform::PeripheralDelegate> SimPeripheral::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void SimPeripheral::setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

size_t SimPeripheral::maximumWriteValueLength(platform::WriteType type) const {
  if (type == platform::WriteType::WithResponse) return 512;
  auto device = radio_->view(identifier_);
  return platform::attPayloadLength(device ? device->config.mtu : size_t{23});
}

platform::LinkInfo SimPeripheral::linkInfo() const {
  std::shared_ptr<SimLink> link;
  {
    std::lock_guard lock(mutex_);
    link = link_;
  }
  platform::LinkInfo info;
  if (!link) return info;
  const sim::LinkParameters& air = link->parameters();  // the MTU already both sides' smaller
  info.attMtu = static_cast<int>(air.mtu);
  info.maxWriteLength = link->maxValueLength();
  if (air.instant()) {
    // No link layer: the only interval is the host-level delay a fault may add.
    info.connectionIntervalMs = link->faults().connectionInterval * 1000.0;
    return info;
  }
  info.connectionIntervalMs = air.intervalMs;
  info.phy = sim::phyName(air.phy);
  info.dataLength = static_cast<int>(air.dataLength);
  return info;
}

// ---- Connection ----

std::optional<std::string> SimPeripheral::bluetoothAddress() const {
  auto device = radio_->view(identifier_);
  if (!device) return std::nullopt;
  return device->config.bluetoothAddress();
}

void SimPeripheral::connect() {
  uint64_t generation = 0;
  {
    std::lock_guard lock(mutex_);
    if (state_ == PeripheralState::Connecting || state_ == PeripheralState::Connected) {
      QLTLog("Simulated radio: connect %@ ignored: already connecting or connected", identifier_);
      return;
    }
    state_ = PeripheralState::Connecting;
    generation = ++gen_;
  }
  auto device = radio_->view(identifier_);
  const double delay = device ? device->config.connectDelay : 0.0;
  std::weak_ptr<SimPeripheral> weak = shared_from_this();
  radio_->after(*queue_, delay, [weak, generation] {
    if (auto self = weak.lock()) self->completeConnect(generation);
  });
}

void SimPeripheral::completeConnect(uint64_t generation) {
  uint64_t attempt = 0;
  {
    std::lock_guard lock(mutex_);
    if (gen_ != generation || state_ != PeripheralState::Connecting) return;
    attempt = attempts_++;
  }
  auto device = radio_->view(identifier_);
  if (!device) return failConnect(generation, "no such device");
  if (!radio_->isPowered()) return failConnect(generation, "the radio is powered off");
  if (!device->config.connectable) {
    return failConnect(generation, "the device does not accept connections");
  }
  SimRandom random(SimRandom::seedFrom(
      {device->faults.seed, SimRandom::hashOf(identifier_), attempt, kStreamConnect}));
  if (random.chance(device->faults.connectFailure)) {
    return failConnect(generation, "connection failed");
  }

  std::weak_ptr<SimPeripheral> weak = shared_from_this();
  SimLink::Handlers handlers;
  handlers.notified = [weak](const std::shared_ptr<SimLink>& link, const UUID& characteristic,
                             const Data& value) {
    if (auto self = weak.lock()) self->notified(link, characteristic, value);
  };
  handlers.lost = [weak](const std::shared_ptr<SimLink>& link, const Error& error) {
    if (auto self = weak.lock()) self->linkLost(link, error);
  };
  auto link = SimLink::create(radio_, *device, device->counters->connections.load(), queue_,
                              std::move(handlers));
  if (!radio_->claim(identifier_, link)) {
    link->close();
    return failConnect(generation, "the device is connected to another central");
  }
  std::vector<std::shared_ptr<SimService>> table;
  for (const auto& service : device->config.services) {
    table.push_back(SimService::create(service, weak_from_this(), link));
  }
  {
    std::lock_guard lock(mutex_);
    if (gen_ != generation) {  // cancelled meanwhile
      link->close();
      return;
    }
    ++gen_;
    state_ = PeripheralState::Connected;
    link_ = link;
    table_ = std::move(table);
    services_.clear();
  }
  link->start();
  auto central = central_.lock();
  auto delegate = central ? central->delegate() : nullptr;
  if (delegate) delegate->centralManager_didConnectPeripheral(*central, shared_from_this());
}

void SimPeripheral::failConnect(uint64_t generation, const std::string& reason) {
  {
    std::lock_guard lock(mutex_);
    if (gen_ != generation || state_ != PeripheralState::Connecting) return;
    ++gen_;
    state_ = PeripheralState::Disconnected;
  }
  QLTLog("Simulated radio: connecting %@ failed: %s", identifier_, reason);
  auto central = central_.lock();
  auto delegate = central ? central->delegate() : nullptr;
  if (delegate) {
    delegate->centralManager_didFailToConnectPeripheral_error(*central, shared_from_this(),
                                                              Error{"sim", reason});
  }
}

void SimPeripheral::cancelConnection() {
  std::shared_ptr<SimLink> link;
  {
    std::lock_guard lock(mutex_);
    if (state_ == PeripheralState::Disconnected) return;
    ++gen_;
    state_ = PeripheralState::Disconnected;
    link = std::move(link_);
    table_.clear();
    services_.clear();
  }
  if (link) link->close();
  sendDisconnected(std::nullopt);
}

void SimPeripheral::radioPoweredOff() {
  std::shared_ptr<SimLink> link;
  uint64_t generation = 0;
  bool connecting = false;
  {
    std::lock_guard lock(mutex_);
    link = link_;
    generation = gen_;
    connecting = state_ == PeripheralState::Connecting;
  }
  if (link) link->lose("the radio was powered off");
  if (connecting) {
    std::weak_ptr<SimPeripheral> weak = shared_from_this();
    queue_->async([weak, generation] {
      if (auto self = weak.lock()) self->failConnect(generation, "the radio is powered off");
    });
  }
}

void SimPeripheral::linkLost(const std::shared_ptr<SimLink>& link, const Error& error) {
  {
    std::lock_guard lock(mutex_);
    if (link_ != link) return;
    ++gen_;
    state_ = PeripheralState::Disconnected;
    link_.reset();
    table_.clear();
    services_.clear();
  }
  sendDisconnected(error);
}

void SimPeripheral::sendDisconnected(const std::optional<Error>& error) {
  std::weak_ptr<SimPeripheral> weak = shared_from_this();
  queue_->async([weak, error] {
    auto self = weak.lock();
    auto central = self ? self->central_.lock() : nullptr;
    auto delegate = central ? central->delegate() : nullptr;
    if (delegate) delegate->centralManager_didDisconnectPeripheral_error(*central, self, error);
  });
}

// ---- GATT ----

std::shared_ptr<SimLink> SimPeripheral::linkFor(const char* operation) const {
  std::lock_guard lock(mutex_);
  if (!link_) {
    QLTLog("Simulated radio: %s on %@ ignored: not connected", operation, identifier_);
  }
  return link_;
}

bool SimPeripheral::isCurrent(const std::shared_ptr<SimLink>& link) const {
  std::lock_guard lock(mutex_);
  return link_ == link;
}

template <class F>
void SimPeripheral::answer(const std::shared_ptr<SimLink>& link, F f) {
  // Runs on the central's queue, carried by the link's device → central direction.
  if (!isCurrent(link)) return;
  if (auto delegate = this->delegate()) f(*delegate);
}

std::shared_ptr<SimCharacteristic> SimPeripheral::ownCharacteristic(
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::shared_ptr<SimLink>& link, const char* operation) const {
  auto own = std::dynamic_pointer_cast<SimCharacteristic>(characteristic);
  auto service = own ? own->simService() : nullptr;
  if (!service || service->link() != link) {
    QLTLog(
        "Simulated radio: %s on %@ ignored: the characteristic is not of the current "
        "connection",
        operation, identifier_);
    return nullptr;
  }
  return own;
}

void SimPeripheral::discoverServices(const std::optional<std::vector<UUID>>& serviceUUIDs) {
  auto link = linkFor("discoverServices");
  if (!link) return;
  auto self = shared_from_this();
  link->request([self, link, serviceUUIDs] {
    {
      std::lock_guard lock(self->mutex_);
      if (self->link_ != link) return;
      std::vector<std::shared_ptr<SimService>> found;
      for (const auto& service : self->table_) {
        const bool asked = !serviceUUIDs || std::find(serviceUUIDs->begin(), serviceUUIDs->end(),
                                                      service->uuid()) != serviceUUIDs->end();
        const bool known = std::find(self->services_.begin(), self->services_.end(), service) !=
                           self->services_.end();
        if (asked || known) found.push_back(service);
      }
      self->services_ = std::move(found);
    }
    self->answer(link, [&](platform::PeripheralDelegate& d) {
      d.peripheral_didDiscoverServices(self, std::nullopt);
    });
  });
}

void SimPeripheral::discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                                            const std::shared_ptr<platform::Service>& service) {
  auto link = linkFor("discoverCharacteristics");
  if (!link) return;
  auto own = std::dynamic_pointer_cast<SimService>(service);
  if (!own || own->link() != link) {
    QLTLog(
        "Simulated radio: discoverCharacteristics on %@ ignored: the service is not of the "
        "current connection",
        identifier_);
    return;
  }
  auto self = shared_from_this();
  link->request([self, link, own, uuids] {
    if (!self->isCurrent(link)) return;
    own->discoverCharacteristics(uuids);
    self->answer(link, [&](platform::PeripheralDelegate& d) {
      d.peripheral_didDiscoverCharacteristicsForService_error(self, own, std::nullopt);
    });
  });
}

void SimPeripheral::setNotifyValue(
    bool enabled, const std::shared_ptr<platform::Characteristic>& characteristic) {
  auto link = linkFor("setNotifyValue");
  if (!link) return;
  auto own = ownCharacteristic(characteristic, link, "setNotifyValue");
  if (!own) return;
  auto self = shared_from_this();
  if (!(own->properties() & (platform::kPropertyNotify | platform::kPropertyIndicate))) {
    link->request([self, link, own] {
      self->answer(link, [&](platform::PeripheralDelegate& d) {
        d.peripheral_didUpdateNotificationStateForCharacteristic_error(
            self, own, Error{"sim", "the characteristic does not notify"});
      });
    });
    return;
  }
  link->setNotify(own->uuid(), enabled, [self, link, own, enabled] {
    if (!self->isCurrent(link)) return;
    own->setNotifying(enabled);
    self->answer(link, [&](platform::PeripheralDelegate& d) {
      d.peripheral_didUpdateNotificationStateForCharacteristic_error(self, own, std::nullopt);
    });
  });
}

void SimPeripheral::writeValue(const Data& data,
                               const std::shared_ptr<platform::Characteristic>& characteristic,
                               platform::WriteType type) {
  auto link = linkFor("writeValue");
  if (!link) return;
  auto own = ownCharacteristic(characteristic, link, "writeValue");
  if (!own) return;
  if (type == platform::WriteType::WithoutResponse) {
    if (!(own->properties() & platform::kPropertyWriteWithoutResponse)) {
      QLTLog("Simulated radio: write without response to %@ refused: not permitted", own->uuid());
      return;
    }
    if (data.length() > link->maxValueLength()) {
      QLTLog("Simulated radio: write without response of %zu bytes to %@ refused: at most %zu",
             data.length(), own->uuid(), link->maxValueLength());
      return;
    }
    link->writeWithoutResponse(own->uuid(), data);
    return;
  }
  auto self = shared_from_this();
  std::optional<Error> error;
  if (!(own->properties() & platform::kPropertyWrite)) {
    error = Error{"sim", "writing is not permitted"};
  } else if (data.length() > 512) {
    error = Error{"sim", "the value is longer than 512 bytes"};
  }
  auto respond = [self, link, own, error] {
    self->answer(link, [&](platform::PeripheralDelegate& d) {
      d.peripheral_didWriteValueForCharacteristic_error(self, own, error);
    });
  };
  if (error) {
    link->request(respond);
  } else {
    link->writeWithResponse(own->uuid(), data, respond);
  }
}

void SimPeripheral::readValue(const std::shared_ptr<platform::Characteristic>& characteristic) {
  auto link = linkFor("readValue");
  if (!link) return;
  auto own = ownCharacteristic(characteristic, link, "readValue");
  if (!own) return;
  auto self = shared_from_this();
  if (!(own->properties() & platform::kPropertyRead)) {
    link->request([self, link, own] {
      self->answer(link, [&](platform::PeripheralDelegate& d) {
        d.peripheral_didUpdateValueForCharacteristic_error(
            self, own, Error{"sim", "reading is not permitted"});
      });
    });
    return;
  }
  link->read(own->uuid(), [self, link, own](const Data& value) {
    if (!self->isCurrent(link)) return;
    own->setValue(value);
    self->answer(link, [&](platform::PeripheralDelegate& d) {
      d.peripheral_didUpdateValueForCharacteristic_error(self, own, std::nullopt);
    });
  });
}

void SimPeripheral::notified(const std::shared_ptr<SimLink>& link, const UUID& characteristic,
                             const Data& value) {
  std::shared_ptr<SimCharacteristic> target;
  {
    std::lock_guard lock(mutex_);
    if (link_ != link) return;
    for (const auto& service : table_) {
      if (auto c = service->find(characteristic)) {
        target = c;
        break;
      }
    }
  }
  if (!target || !target->isNotifying()) return;
  target->setValue(value);
  if (auto delegate = this->delegate()) {
    delegate->peripheral_didReceiveValue(shared_from_this(), target, value);
  }
}

}  // namespace qlt::sim
