#include "QueltLibrary/QLT_BLEManager.h"

#include <cstdio>
#include <cstdlib>
#include <typeinfo>

#include "QueltLibrary/Log.h"

namespace qlt {

namespace {

constexpr const char* kManagerStateNames[] = {"ready", "idle", "scanning", "unavailable"};

}  // namespace

QLT_BLEManager::QLT_BLEManager()
    : QLT_Object("QLT_BLEManager"), centralQueue_(DispatchQueue::create("QLT_BLEManager")) {}

QLT_BLEManager::~QLT_BLEManager() = default;

std::shared_ptr<QLT_BLEManager> QLT_BLEManager::create(std::shared_ptr<platform::Backend> backend) {
  auto manager = std::shared_ptr<QLT_BLEManager>(new QLT_BLEManager());
  manager->setUp(backend ? std::move(backend) : platform::currentBackend());
  return manager;
}

std::shared_ptr<QLT_BLEManager> QLT_BLEManager::sharedInstance() {
  // Never destroyed: the manager, its central and its queue live for the whole process,
  // also while other static objects are torn down at exit.
  static std::once_flag once;
  static std::shared_ptr<QLT_BLEManager>* instance = nullptr;
  std::call_once(once, [] { instance = new std::shared_ptr<QLT_BLEManager>(create()); });
  return *instance;
}

void QLT_BLEManager::setUp(const std::shared_ptr<platform::Backend>& backend) {
  state_.store(QLT_BLEManagerStateUnavailable);
  if (!backend) {
    QLTLog("QLT_BLEManager : no Bluetooth backend is available");
    return;
  }
  platform::CentralOptions options;
  options.showPowerAlert = true;
  auto central = backend->createCentral(self(), centralQueue_, options);
  setCentralManager(central);
  if (central && central->state() == platform::CentralState::PoweredOn) {
    updateState(QLT_BLEManagerStateReady);
  }
}

std::shared_ptr<platform::Central> QLT_BLEManager::centralManager() const {
  std::lock_guard lock(mutex_);
  return centralManager_;
}

void QLT_BLEManager::setCentralManager(std::shared_ptr<platform::Central> central) {
  std::lock_guard lock(mutex_);
  centralManager_ = std::move(central);
}

void QLT_BLEManager::onCentralQueue(const std::function<void()>& work) {
  if (centralQueue_->isCurrent()) {
    work();
  } else {
    centralQueue_->sync(work);
  }
}

std::string QLT_BLEManager::convertStateToNSString(int32_t state) {
  if (state < 0 || state > 3) {
    failLoudly(
        formatString("QLT_BLEManager::convertStateToNSString: %d is not a manager state (0..3); "
                     "this is a programming error",
                     state));
  }
  return kManagerStateNames[state];
}

void QLT_BLEManager::updateState(int32_t state) {
  state_.store(state, std::memory_order_release);
  QLTLog("State : %@", convertStateToNSString(state));
  multicastDelegate()->invoke(&QLT_BLEManagerDidChangedState::manager_didChangedState, self(),
                              state);
  if (this->state() == QLT_BLEManagerStateReady) updateState(QLT_BLEManagerStateIdle);
}

// ---- discovery ----

void QLT_BLEManager::startDiscover(DiscoveryFilter filter) {
  onCentralQueue([&] {
    if (state() != QLT_BLEManagerStateIdle) return;
    {
      std::lock_guard lock(mutex_);
      scanFilter_ = std::move(filter);
    }
    updateState(QLT_BLEManagerStateScanning);
    QLTLog("Start discovery");
    platform::ScanOptions options;
    options.allowDuplicates = true;
    if (auto central = centralManager()) central->scanForPeripherals(std::nullopt, options);
  });
}

void QLT_BLEManager::stopDiscover() {
  onCentralQueue([&] {
    if (state() != QLT_BLEManagerStateScanning) return;
    QLTLog("Stop discovery");
    if (auto central = centralManager()) central->stopScan();
    updateState(QLT_BLEManagerStateIdle);
  });
}

void QLT_BLEManager::centralManager_didDiscoverPeripheral_advertisementData_RSSI(
    platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
    const platform::AdvertisementData& advertisementData, int rssi) {
  const std::optional<std::string>& localName = advertisementData.localName;
  QLTLog("didDiscoverPeripheral : %@", localName);
  DiscoveryFilter filter;
  {
    std::lock_guard lock(mutex_);
    filter = scanFilter_;
  }
  if (filter && !filter(peripheral, localName, advertisementData, rssi)) return;
  auto wrapper = findPeripheralObject(peripheral);
  if (!wrapper) return;
  wrapper->setRSSI(rssi);
  wrapper->setName(localName);
  wrapper->setAdvertisementData(advertisementData);
  multicastDelegate()->invoke(
      &QLT_BLEManagerDidDiscoveredPeripheral::manager_didDiscoveredPeripheral, self(), wrapper);
}

std::shared_ptr<QLT_Peripheral> QLT_BLEManager::findPeripheralObject(
    const std::shared_ptr<platform::Peripheral>& peripheral) {
  if (!peripheral) return nullptr;
  if (auto delegate = peripheral->delegate()) {
    const platform::PeripheralDelegate& d = *delegate;
    if (typeid(d) == typeid(QLT_Peripheral)) {
      return std::static_pointer_cast<QLT_Peripheral>(delegate);
    }
  }
  return QLT_Peripheral::create(peripheral);
}

// ---- power ----

void QLT_BLEManager::centralManagerDidUpdateState(platform::Central& central) {
  const auto platformState = central.state();
  QLTLog("centralManagerDidUpdateState : %d", static_cast<int64_t>(platformState));
  if (platformState == platform::CentralState::PoweredOn) {
    QLTLog("Central manager is powered ON");
    updateState(QLT_BLEManagerStateReady);
  } else {
    QLTLog("Central manager is power DOWN");
    updateState(QLT_BLEManagerStateUnavailable);
  }
}

// ---- connections ----

void QLT_BLEManager::connect(const std::shared_ptr<QLT_Peripheral>& peripheral) {
  if (!peripheral) return;
  onCentralQueue([&] {
    if (peripheral->latestState() == QLT_PeripheralStateConnected) {
      const bool hasServices =
          peripheral->basePeripheral() && !peripheral->basePeripheral()->services().empty();
      peripheral->setState(hasServices ? QLT_PeripheralStateReady : QLT_PeripheralStateConnected);
      return;
    }
    peripheral->setState(QLT_PeripheralStateConnecting);
    if (auto central = centralManager()) central->connect(peripheral->basePeripheral());
  });
}

void QLT_BLEManager::disconnect(const std::shared_ptr<QLT_Peripheral>& peripheral) {
  if (!peripheral) return;
  peripheral->endSession();
  onCentralQueue([&] {
    const int32_t state = peripheral->latestState();
    if (state == QLT_PeripheralStateDisconnected) {
      peripheral->setState(QLT_PeripheralStateDisconnected);
      return;
    }
    if (state == QLT_PeripheralStateDisconnecting) return;
    peripheral->setState(QLT_PeripheralStateDisconnecting);
    if (auto central = centralManager()) {
      central->cancelPeripheralConnection(peripheral->basePeripheral());
    }
  });
}

void QLT_BLEManager::centralManager_didConnectPeripheral(
    platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral) {
  auto wrapper = findPeripheralObject(peripheral);
  if (!wrapper) return;
  QLTLog("Connected to : %@", wrapper->name());
  wrapper->setState(QLT_PeripheralStateConnected);
  wrapper->discoverServices();
}

void QLT_BLEManager::centralManager_didFailToConnectPeripheral_error(
    platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  auto wrapper = findPeripheralObject(peripheral);
  if (!wrapper) return;
  QLTLog("Failed to connect : %@", wrapper->name());
  wrapper->setLinkProblem(error ? "could not connect: " + error->message : "could not connect",
                          QLT_LinkProblem::ConnectFailed);
  wrapper->setState(QLT_PeripheralStateFailedToConnect);
}

void QLT_BLEManager::centralManager_didDisconnectPeripheral_error(
    platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  auto wrapper = findPeripheralObject(peripheral);
  if (!wrapper) return;
  QLTLog("Did disconnect to : %@", wrapper->name());
  if (error)
    wrapper->setLinkProblem("the link dropped: " + error->message, QLT_LinkProblem::LinkLost);
  wrapper->setState(QLT_PeripheralStateDisconnected);
}

// ---- retrieval ----

namespace {

// A fresh wrapper for the first peripheral the shared manager's central gives `ask`.
std::shared_ptr<QLT_Peripheral> retrieveOne(
    const std::function<std::vector<std::shared_ptr<platform::Peripheral>>(platform::Central&)>&
        ask) {
  auto central = QLT_BLEManager::sharedInstance()->centralManager();
  if (!central) return nullptr;
  auto found = ask(*central);
  if (found.empty() || !found.front()) return nullptr;
  return QLT_Peripheral::create(found.front());
}

}  // namespace

std::shared_ptr<QLT_Peripheral> QLT_BLEManager::retrievePeripheralWithUUID(
    const std::string& uuidText) {
  // Only the canonical 36-character form names a device.
  auto uuid = uuidText.size() == 36 ? UUID::fromString(uuidText) : std::nullopt;
  if (!uuid) {
    QLTLog("retrievePeripheralWithUUID : \"%@\" is not a peripheral identifier", uuidText);
    return nullptr;
  }
  return retrieveOne(
      [&](platform::Central& c) { return c.retrievePeripheralsWithIdentifiers({*uuid}); });
}

std::shared_ptr<QLT_Peripheral> QLT_BLEManager::retrievePeripheralWithAddress(
    const std::string& addressText) {
  const auto address = platform::canonicalAddress(addressText);
  if (!address) {
    QLTLog("retrievePeripheralWithAddress : \"%@\" is not a Bluetooth address", addressText);
    return nullptr;
  }
  return retrieveOne(
      [&](platform::Central& c) { return c.retrievePeripheralsWithAddresses({*address}); });
}

}  // namespace qlt
