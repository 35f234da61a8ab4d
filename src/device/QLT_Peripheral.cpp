#include "QueltLibrary/QLT_Peripheral.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <typeinfo>
#include <utility>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/SWTransport.h"

namespace qlt {

namespace {

constexpr const char* kStateNames[] = {
    "disconnected",
    "connecting",
    "connected",
    "disconnecting",
    "failedToConnect",
    "discoveringServices",
    "discoveringCharacteristics",
    "unavailable",
    "ready",
    "dfuInProgress",
    "notSupported",
};
constexpr int32_t kStateCount = sizeof(kStateNames) / sizeof(kStateNames[0]);

bool tearsDown(int32_t state) {
  return state == QLT_PeripheralStateDisconnected || state == QLT_PeripheralStateFailedToConnect;
}

}  // namespace

QLT_Peripheral::QLT_Peripheral(std::shared_ptr<platform::Peripheral> peripheral)
    : QLT_Object("QLT_Peripheral"),
      basePeripheral_(std::move(peripheral)),
      state_(convertState(basePeripheral_ ? basePeripheral_->state()
                                          : platform::PeripheralState::Disconnected)),
      latestState_(state_.load()),
      connection_(std::make_shared<const Connection>()) {
  if (basePeripheral_) name_ = basePeripheral_->name();
  linkUp_ = latestState_ == QLT_PeripheralStateConnected;
}

std::shared_ptr<QLT_Peripheral> QLT_Peripheral::create(
    std::shared_ptr<platform::Peripheral> peripheral) {
  auto p = std::shared_ptr<QLT_Peripheral>(new QLT_Peripheral(std::move(peripheral)));
  if (p->basePeripheral_) p->basePeripheral_->setDelegate(p);
  return p;
}

QLT_Peripheral::~QLT_Peripheral() {
  // A started transport is kept alive by its own worker thread; without this it would run
  // on after its peripheral is gone.
  if (auto transport = connection()->transport) transport->stop();
  std::shared_ptr<SWTransport> held;
  {
    std::lock_guard lock(mutex_);
    held = session_;
  }
  if (held) held->stop();
}

int32_t QLT_Peripheral::convertState(int64_t platformState) {
  switch (platformState) {
    case 0:
      return QLT_PeripheralStateDisconnected;
    case 1:
      return QLT_PeripheralStateConnecting;
    case 2:
      return QLT_PeripheralStateConnected;
    case 3:
      return QLT_PeripheralStateDisconnecting;
    default:
      return QLT_PeripheralStateDfuInProgress;
  }
}

std::string QLT_Peripheral::convertStateToNSString(int32_t state) {
  if (state < 0 || state >= kStateCount) {
    failLoudly(formatString(
        "QLT_Peripheral::convertStateToNSString: %d is not a peripheral state (0..10); "
        "this is a programming error",
        state));
  }
  return kStateNames[state];
}

// ---- state ----

int32_t QLT_Peripheral::latestState() const {
  std::lock_guard lock(mutex_);
  return latestState_;
}

bool QLT_Peripheral::linkUp() const {
  std::lock_guard lock(mutex_);
  return linkUp_;
}

std::shared_ptr<const QLT_Peripheral::Connection> QLT_Peripheral::connection() const {
  std::lock_guard lock(mutex_);
  return connection_;
}

void QLT_Peripheral::changeConnection(const std::function<void(Connection&)>& change) {
  std::shared_ptr<const Connection> ended;
  {
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<Connection>();
    if (connection_->generation == linkGeneration_) {
      *next = *connection_;
    } else {
      next->generation = linkGeneration_;
      ended = connection_;
    }
    change(*next);
    connection_ = std::move(next);
  }
  // An older connection's transport would otherwise run on until that connection's late
  // teardown; its services are released here, outside the lock.
  if (ended) endTransport(ended);
}

void QLT_Peripheral::endTransport(const std::shared_ptr<const Connection>& ended) {
  const auto& transport = ended->transport;
  if (!transport) return;
  bool held = false;
  {
    std::lock_guard lock(mutex_);
    if (connection_->transport == transport) return;  // a newer link has taken it up
    held = transport == session_;
  }
  // The session's transport stops writing and keeps its bytes for the next link; a late
  // report of this link's end, once a newer one is up, changes nothing (the link's number).
  if (held) {
    std::static_pointer_cast<SWTransport>(transport)->linkLost(ended->windowLink);
  } else {
    retireTransport(transport);
  }
}

void QLT_Peripheral::endSession() {
  std::shared_ptr<SWTransport> held;
  {
    std::lock_guard lock(mutex_);
    held = std::exchange(session_, nullptr);
    if (held && connection_->transport == held) return;  // it goes with its link
  }
  retireTransport(held);
}

void QLT_Peripheral::retireTransport(const std::shared_ptr<BaseTransport>& transport) {
  if (!transport) return;
  // Its worker thread would keep it (and its polls on the air) alive forever.
  transport->stop();
  transport->multicastDelegate()->removeDelegate(this);
}

void QLT_Peripheral::setState(int32_t state) {
  QLTLog("P state = %d", state);
  auto self = this->self();
  std::lock_guard lock(mutex_);
  if (state == QLT_PeripheralStateConnected && latestState_ != QLT_PeripheralStateConnected &&
      latestState_ != QLT_PeripheralStateReady) {
    ++linkGeneration_;
    linkUp_ = true;
  } else if (tearsDown(state) || state == QLT_PeripheralStateConnecting ||
             state == QLT_PeripheralStateDisconnecting) {
    linkUp_ = false;
  }
  if (state == QLT_PeripheralStateConnecting) {
    linkProblem_.clear();
    linkProblemKind_ = QLT_LinkProblem::None;
  }
  latestState_ = state;
  const uint64_t generation = linkGeneration_;
  // Queued under the lock so that the main queue applies states in setState() order.
  DispatchQueue::main()->async([self, state, generation] { self->applyState(state, generation); });
}

void QLT_Peripheral::notifyStateChange(int32_t state) {
  uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    generation = linkGeneration_;
  }
  applyState(state, generation);
}

void QLT_Peripheral::applyState(int32_t state, uint64_t generation) {
  QLTLog("Peripheral state : %@", convertStateToNSString(state));
  state_.store(state, std::memory_order_release);
  multicastDelegate()->invoke(&QLT_PeripheralDidChangeState::QLT_Peripheral_didChangeState, self(),
                              state);
  if (tearsDown(state)) tearDown(generation);
}

void QLT_Peripheral::tearDown(uint64_t generation) {
  std::shared_ptr<const Connection> ended;
  {
    std::lock_guard lock(mutex_);
    if (connection_->generation > generation) return;  // a newer connection's
    ended = std::move(connection_);
    auto fresh = std::make_shared<Connection>();
    fresh->generation = linkGeneration_;
    connection_ = std::move(fresh);
  }
  endTransport(ended);
  // Its services and NUS service are released here, outside the lock.
}

// ---- properties ----

std::optional<std::string> QLT_Peripheral::address() const {
  return basePeripheral_ ? basePeripheral_->bluetoothAddress() : std::nullopt;
}

bool QLT_Peripheral::answersTo(std::string_view device) const {
  if (device.empty()) return false;
  if (name() == device) return true;
  if (!basePeripheral_) return false;
  // Only the full 36-character form names a peripheral (not "180D" and the like).
  if (device.size() == 36 &&
      UUID::fromString(std::string(device)) == basePeripheral_->identifier()) {
    return true;
  }
  const auto address = platform::canonicalAddress(device);
  return address && address == this->address();
}

std::optional<std::string> QLT_Peripheral::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}
void QLT_Peripheral::setName(std::optional<std::string> name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}
platform::AdvertisementData QLT_Peripheral::advertisementData() const {
  std::lock_guard lock(mutex_);
  return advertisementData_;
}
void QLT_Peripheral::setAdvertisementData(platform::AdvertisementData advertisementData) {
  std::lock_guard lock(mutex_);
  advertisementData_ = std::move(advertisementData);
}
std::vector<std::shared_ptr<BLEService>> QLT_Peripheral::services() const {
  return connection()->services;
}
std::shared_ptr<platform::Characteristic> QLT_Peripheral::rx() const {
  std::lock_guard lock(mutex_);
  return rx_;
}
void QLT_Peripheral::setRx(std::shared_ptr<platform::Characteristic> rx) {
  std::lock_guard lock(mutex_);
  rx_ = std::move(rx);
}
std::shared_ptr<platform::Characteristic> QLT_Peripheral::tx() const {
  std::lock_guard lock(mutex_);
  return tx_;
}
void QLT_Peripheral::setTx(std::shared_ptr<platform::Characteristic> tx) {
  std::lock_guard lock(mutex_);
  tx_ = std::move(tx);
}

void QLT_Peripheral::setFrameTrace(FrameTrace trace) {
  std::shared_ptr<BaseTransport> transport;
  {
    std::lock_guard lock(mutex_);
    frameTrace_ = trace;
    transport = connection_->transport;
    if (!transport) transport = session_;  // held between links
  }
  if (transport) transport->setFrameTrace(std::move(trace));
}

std::optional<SlideWindowCounters> QLT_Peripheral::transportCounters() const {
  auto transport = connection()->transport;
  return transport ? transport->windowCounters() : std::nullopt;
}

std::string QLT_Peripheral::description() const {
  auto n = name();
  return formatString(
      "<QLT_Peripheral %@ \"%@\" %@>",
      basePeripheral_ ? basePeripheral_->identifier().UUIDString() : std::string("?"),
      n ? *n : std::string(), convertStateToNSString(state()));
}

bool QLT_Peripheral::isEqual(const std::shared_ptr<platform::Peripheral>& other) const {
  if (!other || !basePeripheral_) return false;
  return basePeripheral_->identifier() == other->identifier();
}

bool QLT_Peripheral::isEqual(const std::shared_ptr<QLT_Peripheral>& other) const {
  if (!other || !basePeripheral_ || !other->basePeripheral_) return false;
  const QLT_Peripheral& o = *other;
  if (typeid(o) != typeid(QLT_Peripheral)) return false;
  return basePeripheral_->identifier() == other->basePeripheral_->identifier();
}

// ---- discovery ----

void QLT_Peripheral::discoverServices() {
  QLTLog("Discover service : %d", services().size());
  setState(QLT_PeripheralStateDiscoveringServices);
  if (basePeripheral_) {
    basePeripheral_->discoverServices(std::vector<UUID>{QLT_UUID::uartServiceUUID()});
  }
}

void QLT_Peripheral::discoverCharacteristics(const std::shared_ptr<BLEService>& service) {
  if (latestState() != QLT_PeripheralStateDiscoveringCharacteristics) {
    setState(QLT_PeripheralStateDiscoveringCharacteristics);
  }
  if (basePeripheral_ && service) {
    basePeripheral_->discoverCharacteristics(std::nullopt, service->baseService());
  }
}

std::shared_ptr<BLEService> QLT_Peripheral::findBLEService(
    const std::shared_ptr<platform::Service>& service) const {
  if (!service) return nullptr;
  const UUID id = service->uuid();
  for (const auto& s : services()) {
    if (s->baseService() && s->baseService()->uuid() == id) return s;
  }
  return nullptr;
}

void QLT_Peripheral::peripheral_didDiscoverServices(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  QLTLog("Did discover services");
  if (!linkUp()) {
    QLTLog("Ignoring services discovered after the link went down : %@", description());
    return;
  }
  const UUID nusUUID = QLT_UUID::uartServiceUUID();
  const auto platformServices =
      peripheral ? peripheral->services() : std::vector<std::shared_ptr<platform::Service>>{};
  changeConnection([](Connection& c) { c.services.clear(); });
  for (const auto& ps : platformServices) {
    if (!ps) continue;
    std::shared_ptr<BLEService> service;
    if (ps->uuid() == nusUUID) {
      auto nus = NUSService::create(ps);
      changeConnection([&nus](Connection& c) { c.nus = nus; });
      service = nus;
    } else {
      service = BLEService::create("SVC", ps);
    }
    discoverCharacteristics(service);
    changeConnection([&service](Connection& c) { c.services.push_back(service); });
  }
  if (services().empty()) setState(QLT_PeripheralStateDfuInProgress);
}

void QLT_Peripheral::peripheral_didDiscoverCharacteristicsForService_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Service>& service,
    const std::optional<platform::Error>& error) {
  QLTLog("Did discover chars");
  if (!linkUp()) {
    QLTLog("Ignoring characteristics discovered after the link went down : %@", description());
    return;
  }
  const auto platformCharacteristics =
      service ? service->characteristics()
              : std::vector<std::shared_ptr<platform::Characteristic>>{};
  if (platformCharacteristics.empty()) {
    QLTLog("No chars found");
    return;
  }
  auto wrapper = findBLEService(service);
  if (!wrapper) return;
  const std::string name = formatString("%@ Service Characteristic", wrapper->name());
  std::vector<std::shared_ptr<BLECharacteristic>> list;
  list.reserve(platformCharacteristics.size());
  for (const auto& c : platformCharacteristics) list.push_back(BLECharacteristic::create(c, name));
  wrapper->setCharacteristics(std::move(list));
}

void QLT_Peripheral::peripheral_didUpdateNotificationStateForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  QLTLog("Did update notification state value for ch");
  if (!linkUp()) {
    QLTLog("Ignoring a notification state change after the link went down : %@", description());
    return;
  }
  QLT_LinkProblem kind = QLT_LinkProblem::None;
  if (const std::string problem = checkReadiness(error, &kind); !problem.empty()) {
    setLinkProblem(problem, kind);
  }
  startTransport();
  setState(QLT_PeripheralStateReady);
}

std::string QLT_Peripheral::linkProblem() const {
  std::lock_guard lock(mutex_);
  return linkProblem_;
}

QLT_LinkProblem QLT_Peripheral::linkProblemKind() const {
  std::lock_guard lock(mutex_);
  return linkProblemKind_;
}

void QLT_Peripheral::setLinkProblem(const std::string& problem, QLT_LinkProblem kind) {
  {
    std::lock_guard lock(mutex_);
    linkProblemKind_ = problem.empty() ? QLT_LinkProblem::None : kind;
    if (problem == linkProblem_) return;
    linkProblem_ = problem;
  }
  if (!problem.empty()) QLTLog("%@ : %@", description(), problem);
}

platform::LinkInfo QLT_Peripheral::linkInfo() const {
  if (!basePeripheral_ || !linkUp()) return {};
  return basePeripheral_->linkInfo();
}

std::shared_ptr<BaseTransport> QLT_Peripheral::transport() const { return connection()->transport; }

std::string QLT_Peripheral::checkReadiness(const std::optional<platform::Error>& notifyError,
                                           QLT_LinkProblem* kind) const {
  if (!basePeripheral_) return {};
  *kind = QLT_LinkProblem::ServiceTable;
  const UUID nusUUID = QLT_UUID::uartServiceUUID();
  const UUID rxUUID = QLT_UUID::rxCharacteristicUUID();
  const UUID txUUID = QLT_UUID::txCharacteristicUUID();
  int nusCount = 0;
  std::shared_ptr<platform::Characteristic> rx, tx;
  for (const auto& service : basePeripheral_->services()) {
    if (!service || service->uuid() != nusUUID) continue;
    ++nusCount;
    for (const auto& c : service->characteristics()) {
      if (c && c->uuid() == rxUUID && !rx) rx = c;
      if (c && c->uuid() == txUUID && !tx) tx = c;
    }
  }
  constexpr uint32_t kNotifies = platform::kPropertyNotify | platform::kPropertyIndicate;
  constexpr uint32_t kWritable = platform::kPropertyWrite | platform::kPropertyWriteWithoutResponse;
  if (nusCount > 1) {
    return formatString("the device offers the UART service %d times; only one can be used",
                        nusCount);
  }
  if (rx && tx && !(rx->properties() & kNotifies) && (tx->properties() & kNotifies) &&
      (rx->properties() & kWritable)) {
    return "the device's tx and rx characteristics are swapped (rx 6E400003 must notify, tx "
           "6E400002 must accept writes)";
  }
  if (!rx || !(rx->properties() & kNotifies) || notifyError) {
    return "the device's rx characteristic does not notify" +
           (notifyError ? " (" + notifyError->description() + ")" : std::string());
  }
  if (!tx || !(tx->properties() & kWritable)) {
    return "the device's tx characteristic cannot be written";
  }
  // The largest write each transport makes: a sliding-window segment with its header byte,
  // or one chunk.
  const size_t largestFrame =
      transportType() == 0 ? NUSTransport::kChunkSize : SWTransport::kSegmentSize + 1;
  const size_t limit =
      basePeripheral_->maximumWriteValueLength(platform::WriteType::WithoutResponse);
  if (limit < largestFrame) {
    *kind = QLT_LinkProblem::MtuTooSmall;
    return formatString(
        "the device's ATT MTU is %d: a write carries at most %d bytes, but the %@ transport "
        "writes frames of up to %d bytes (stock UART firmware needs the chunking transport, "
        "transport type 0)",
        static_cast<int>(limit + 3), static_cast<int>(limit),
        std::string(transportType() == 0 ? "chunking" : "sliding-window"),
        static_cast<int>(largestFrame));
  }
  return {};
}

void QLT_Peripheral::peripheral_didUpdateValueForDescriptor_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  QLTLog("didUpdateValueForDescriptor");
}

void QLT_Peripheral::peripheral_didWriteValueForDescriptor_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  QLTLog("didWriteValueForDescriptor");
}

// ---- data path ----

namespace {
// What the extended window sizes itself by, from what the backend knows of the link.
WindowLink windowLinkOf(const platform::LinkInfo& info) {
  WindowLink link;
  link.valueLimit = info.maxWriteLength;
  link.intervalMs = info.connectionIntervalMs.value_or(0);
  if (info.phy) link.phyMbps = *info.phy == "2M" ? 2 : *info.phy == "1M" ? 1 : 0;
  link.dataLength = static_cast<size_t>(std::max(info.dataLength.value_or(0), 0));
  return link;
}
}  // namespace

std::shared_ptr<BaseTransport> QLT_Peripheral::createTransport() {
  if (transportType() == 0) return NUSTransport::create();
  auto transport = SWTransport::create();
  if (extendedWindow()) transport->setExtendedWindow(true, windowLinkOf(linkInfo()));
  return transport;
}

void QLT_Peripheral::startTransport() {
  const bool keepsSession = transportType() != 0 && extendedWindow();
  if (!keepsSession) endSession();
  std::shared_ptr<SWTransport> held;
  {
    std::lock_guard lock(mutex_);
    held = session_;
    // Already taken up by this link.
    if (held && connection_->transport == held && connection_->generation == linkGeneration_)
      return;
  }
  std::shared_ptr<BaseTransport> transport = held;
  uint64_t windowLink = 0;
  if (held) {
    // The session resumes on this link, or a new one begins; either way its frames fit
    // this link's MTU, which may be smaller than the one the window was built on.
    windowLink = held->linkUp(windowLinkOf(linkInfo()));
  } else {
    transport = createTransport();
    FrameTrace trace;
    {
      std::lock_guard lock(mutex_);
      trace = frameTrace_;
    }
    if (trace) transport->setFrameTrace(std::move(trace));
    transport->setSenderDelegate(self());
    // Registered directly with the multicast delegate (bound to the main queue) so that the
    // peripheral is listening before the first frame can arrive.
    transport->multicastDelegate()->addDelegate(self(), DispatchQueue::main());
  }
  std::shared_ptr<BaseTransport> previous;
  changeConnection([&](Connection& c) {
    previous = std::exchange(c.transport, transport);
    c.windowLink = windowLink;
    if (keepsSession) session_ = std::static_pointer_cast<SWTransport>(transport);
  });
  if (previous != transport) retireTransport(previous);
  if (!held) transport->start();
}

void QLT_Peripheral::stopTransport() {
  endSession();
  std::shared_ptr<BaseTransport> transport;
  {
    std::lock_guard lock(mutex_);
    if (!connection_->transport) return;
    auto next = std::make_shared<Connection>(*connection_);
    transport = std::exchange(next->transport, nullptr);
    connection_ = std::move(next);
  }
  retireTransport(transport);
}

void QLT_Peripheral::writeTCPData(const Data& data) {
  std::shared_ptr<BaseTransport> transport;
  {
    std::lock_guard lock(mutex_);
    transport = connection_->transport;
    if (!transport) transport = session_;  // between links: queued for the next
  }
  if (transport) transport->sendTCP(data.bytes(), data.length());
}

void QLT_Peripheral::writeUDPData(const Data& data) {
  if (auto transport = connection()->transport) transport->sendUDP(data.bytes(), data.length());
}

void QLT_Peripheral::transport_requestWriteData(const std::shared_ptr<BaseTransport>& transport,
                                                const Data& data) {
  auto current = connection();
  if (transport != current->transport) return;  // a stopped or replaced transport
  if (current->nus && basePeripheral_) current->nus->writeFrame(data, *basePeripheral_);
}

void QLT_Peripheral::peripheral_didUpdateValueForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  if (!characteristic) return;
  auto wrapper = findBLEService(characteristic->service());
  auto current = connection();
  if (!wrapper || wrapper != current->nus) return;
  auto value = current->nus->read();
  if (value && current->transport) receiveOn(*current, *value);
}

// A notification carries its value: the current connection's rx hands it to the transport
// (no look-up of the service, no second read of the characteristic).
void QLT_Peripheral::peripheral_didReceiveValue(
    const std::shared_ptr<platform::Peripheral>& /*peripheral*/,
    const std::shared_ptr<platform::Characteristic>& characteristic, const Data& value) {
  auto current = connection();
  if (!characteristic || !current->nus || !current->transport) return;
  auto rx = current->nus->rx();
  if (rx && rx->baseCharacteristic() == characteristic) receiveOn(*current, value);
}

// A transport that keeps its session takes each value with the number of the link it came
// on, so that a value of a link that has since dropped never reaches its window.
void QLT_Peripheral::receiveOn(const Connection& connection, const Data& value) {
  if (auto sw = std::dynamic_pointer_cast<SWTransport>(connection.transport)) {
    sw->receive(value, connection.windowLink);
  } else {
    connection.transport->receive(value);
  }
}

void QLT_Peripheral::peripheral_didWriteValueForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  QLTLog("Did write value for ch");
}

void QLT_Peripheral::transport_tcpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                               const Data& data) {
  QLTLog("---> t-rcv : l=%d, %@", data.length(), data);
  multicastDelegate()->invoke(&QLT_PeripheralDidReceivedTCPData::QLT_Peripheral_didReceivedTCPData,
                              self(), data);
}

void QLT_Peripheral::transport_sessionChanged(const std::shared_ptr<BaseTransport>& /*transport*/,
                                              const SessionChange& change) {
  multicastDelegate()->invoke(&QLT_PeripheralDidChangeSession::QLT_Peripheral_didChangeSession,
                              self(), change);
}

void QLT_Peripheral::transport_udpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                               const Data& data) {
  QLTLog("---> u-rcv : l=%d, %@", data.length(), data);
  multicastDelegate()->invoke(&QLT_PeripheralDidReceivedUDPData::QLT_Peripheral_didReceivedUDPData,
                              self(), data);
}

}  // namespace qlt
