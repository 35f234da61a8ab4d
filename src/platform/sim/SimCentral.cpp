#include "SimCentral.h"

#include <algorithm>
#include <chrono>

#include "QueltLibrary/Log.h"
#include "SimPeripheral.h"

namespace qlt::sim {

using platform::CentralState;

namespace {
constexpr uint64_t kStreamAdvertising = 4;
}  // namespace

std::shared_ptr<SimCentral> SimCentral::create(
    std::shared_ptr<SimRadio::Impl> radio,
    const std::shared_ptr<platform::CentralDelegate>& delegate,
    std::shared_ptr<DispatchQueue> queue) {
  if (!queue) queue = DispatchQueue::create("qlt.sim.central");
  std::shared_ptr<SimCentral> central(new SimCentral(std::move(radio), delegate, std::move(queue)));
  central->radio_->addCentral(central);
  central->deliverPowerState();
  return central;
}

SimCentral::SimCentral(std::shared_ptr<SimRadio::Impl> radio,
                       const std::shared_ptr<platform::CentralDelegate>& delegate,
                       std::shared_ptr<DispatchQueue> queue)
    : radio_(std::move(radio)),
      delegate_(delegate),
      queue_(std::move(queue)),
      random_(SimRandom::seedFrom({0, kStreamAdvertising})) {
  std::lock_guard lock(radio_->mutex);
  random_ = SimRandom(SimRandom::seedFrom({radio_->faults.seed, kStreamAdvertising}));
}

CentralState SimCentral::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void SimCentral::deliverPowerState() {
  std::weak_ptr<SimCentral> weak = shared_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    const CentralState state =
        self->radio_->isPowered() ? CentralState::PoweredOn : CentralState::PoweredOff;
    {
      std::lock_guard lock(self->mutex_);
      self->state_ = state;
    }
    if (auto delegate = self->delegate()) delegate->centralManagerDidUpdateState(*self);
  });
}

void SimCentral::radioPowerChanged(bool on) {
  if (!on) {
    std::vector<std::shared_ptr<SimPeripheral>> peripherals;
    {
      std::lock_guard lock(mutex_);
      scanning_ = false;
      ++scan_;
      for (const auto& [identifier, peripheral] : peripherals_) peripherals.push_back(peripheral);
    }
    for (const auto& peripheral : peripherals) peripheral->radioPoweredOff();
  }
  deliverPowerState();
}

// ---- Scanning ----

void SimCentral::scanForPeripherals(const std::optional<std::vector<UUID>>& serviceUUIDs,
                                    const platform::ScanOptions& options) {
  uint64_t scan = 0;
  {
    std::lock_guard lock(mutex_);
    if (state_ != CentralState::PoweredOn) {
      QLTLog("Simulated radio: scan ignored: the central is not powered on (%@)", toString(state_));
      return;
    }
    scanning_ = true;
    scan = ++scan_;
    scanFilter_ = serviceUUIDs;
    allowDuplicates_ = options.allowDuplicates;
    reported_.clear();
  }
  for (const auto& identifier : radio_->deviceIdentifiers()) startAdvertising(identifier, scan);
}

void SimCentral::stopScan() {
  std::lock_guard lock(mutex_);
  scanning_ = false;
  ++scan_;
}

bool SimCentral::isScanning() const {
  std::lock_guard lock(mutex_);
  return scanning_;
}

void SimCentral::deviceAdded(const UUID& identifier) {
  uint64_t scan = 0;
  {
    std::lock_guard lock(mutex_);
    if (!scanning_) return;
    scan = scan_;
  }
  startAdvertising(identifier, scan);
}

void SimCentral::startAdvertising(const UUID& identifier, uint64_t scan) {
  auto device = radio_->view(identifier);
  if (!device) return;
  double offset = 0;
  {
    std::lock_guard lock(mutex_);
    // The first advertisement comes at a random moment of the device's interval.
    offset = random_.uniform() * device->config.advertisingInterval;
  }
  std::weak_ptr<SimCentral> weak = shared_from_this();
  radio_->after(*queue_, offset, [weak, identifier, scan] {
    if (auto self = weak.lock()) self->advertise(identifier, scan);
  });
}

void SimCentral::advertise(const UUID& identifier, uint64_t scan) {
  auto device = radio_->view(identifier);
  if (!device || !radio_->isPowered()) return;
  const SimDeviceConfig& config = device->config;
  int rssi = 0;
  bool report = true;
  double next = config.advertisingInterval;
  {
    std::lock_guard lock(mutex_);
    if (!scanning_ || scan_ != scan) return;
    // Advertising events are spread by up to 10 ms, as the radio's advDelay spreads them.
    next += random_.uniform() * 0.01;
    rssi = config.rssi + random_.around(config.rssiVariation);
    if (device->linked) report = false;  // a connected device does not advertise
    if (report && scanFilter_) {
      const auto advertised = config.advertisedServiceUUIDs();
      report = std::any_of(advertised.begin(), advertised.end(), [&](const UUID& uuid) {
        return std::find(scanFilter_->begin(), scanFilter_->end(), uuid) != scanFilter_->end();
      });
    }
    if (report && !allowDuplicates_) report = reported_.insert(identifier).second;
  }
  std::weak_ptr<SimCentral> weak = shared_from_this();
  radio_->after(*queue_, next, [weak, identifier, scan] {
    if (auto self = weak.lock()) self->advertise(identifier, scan);
  });
  if (!report) return;

  const platform::AdvertisementData advertisement = config.advertisement();
  auto peripheral = peripheralFor(identifier, config.localName);
  if (auto delegate = this->delegate()) {
    delegate->centralManager_didDiscoverPeripheral_advertisementData_RSSI(*this, peripheral,
                                                                          advertisement, rssi);
  }
}

// ---- Peripherals ----

std::shared_ptr<SimPeripheral> SimCentral::peripheralFor(const UUID& identifier,
                                                         const std::optional<std::string>& name) {
  std::shared_ptr<SimPeripheral> peripheral;
  {
    std::lock_guard lock(mutex_);
    auto& slot = peripherals_[identifier];
    if (!slot) slot = SimPeripheral::create(identifier, name, weak_from_this(), radio_, queue_);
    peripheral = slot;
  }
  peripheral->setName(name);
  return peripheral;
}

std::shared_ptr<SimPeripheral> SimCentral::own(
    const std::shared_ptr<platform::Peripheral>& peripheral, const char* operation) const {
  auto own = std::dynamic_pointer_cast<SimPeripheral>(peripheral);
  if (!own || own->central().lock().get() != this) {
    QLTLog("Simulated radio: %s ignored: not a peripheral of this central", operation);
    return nullptr;
  }
  return own;
}

void SimCentral::connect(const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto own = this->own(peripheral, "connect");
  if (!own) return;
  if (!radio_->isPowered()) {
    QLTLog("Simulated radio: connect %@ ignored: the radio is powered off", own->identifier());
    return;
  }
  own->connect();
}

void SimCentral::cancelPeripheralConnection(
    const std::shared_ptr<platform::Peripheral>& peripheral) {
  if (auto own = this->own(peripheral, "cancelPeripheralConnection")) own->cancelConnection();
}

std::vector<std::shared_ptr<platform::Peripheral>> SimCentral::retrievePeripheralsWithIdentifiers(
    const std::vector<UUID>& identifiers) {
  std::vector<std::shared_ptr<platform::Peripheral>> found;
  for (const auto& identifier : identifiers) {
    if (auto device = radio_->view(identifier)) {
      found.push_back(peripheralFor(identifier, device->config.localName));
    }
  }
  return found;
}

std::vector<std::shared_ptr<platform::Peripheral>> SimCentral::retrievePeripheralsWithAddresses(
    const std::vector<std::string>& addresses) {
  std::vector<UUID> identifiers;
  for (const auto& text : addresses) {
    const auto address = platform::canonicalAddress(text);
    if (auto identifier = address ? radio_->identifierForAddress(*address) : std::nullopt) {
      identifiers.push_back(*identifier);
    }
  }
  return retrievePeripheralsWithIdentifiers(identifiers);
}

}  // namespace qlt::sim
