#include "QueltLibrary/sim/SimRadio.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "QueltLibrary/Log.h"
#include "SimBackend.h"
#include "SimCentral.h"
#include "SimConfigLoader.h"
#include "SimLink.h"
#include "SimRadioImpl.h"

namespace qlt::sim {

// ---- DeviceCounters, SimRadio::Impl ----

SimDeviceStats DeviceCounters::snapshot() const {
  SimDeviceStats s;
  s.connections = connections.load();
  s.writesReceived = writesReceived.load();
  s.bytesReceived = bytesReceived.load();
  s.writesLost = writesLost.load();
  s.notificationsSent = notificationsSent.load();
  s.bytesNotified = bytesNotified.load();
  s.notificationsLost = notificationsLost.load();
  s.segmentWritesLost = segmentWritesLost.load();
  s.segmentNotificationsLost = segmentNotificationsLost.load();
  s.notificationsDropped = notificationsDropped.load();
  s.payloadBytesReceived = payloadBytesReceived.load();
  s.payloadBytesSent = payloadBytesSent.load();
  s.notificationsUnlinked = notificationsUnlinked.load();
  return s;
}

bool SimRadio::Impl::isPowered() const {
  std::lock_guard lock(mutex);
  return powered;
}

std::optional<DeviceView> SimRadio::Impl::view(const UUID& identifier) const {
  std::lock_guard lock(mutex);
  auto it = devices.find(identifier);
  if (it == devices.end()) return std::nullopt;
  auto live = it->second.link.lock();
  const SimDeviceConfig& config = it->second.config;
  LinkParameters parameters = config.link.value_or(link);
  parameters.mtu = static_cast<uint32_t>(std::min<size_t>(parameters.mtu, config.mtu));
  return DeviceView{config, config.faults.value_or(faults), parameters, live && live->isUp(),
                    it->second.counters};
}

std::vector<UUID> SimRadio::Impl::deviceIdentifiers() const {
  std::lock_guard lock(mutex);
  std::vector<UUID> identifiers;
  for (const auto& [identifier, record] : devices) identifiers.push_back(identifier);
  return identifiers;
}

std::optional<UUID> SimRadio::Impl::identifierForAddress(const std::string& address) const {
  std::lock_guard lock(mutex);
  for (const auto& [identifier, record] : devices) {
    if (record.config.bluetoothAddress() == address) return identifier;
  }
  return std::nullopt;
}

bool SimRadio::Impl::claim(const UUID& identifier, const std::shared_ptr<SimLink>& link) {
  std::lock_guard lock(mutex);
  auto it = devices.find(identifier);
  if (it == devices.end()) return false;
  auto current = it->second.link.lock();
  if (current && current->isUp()) return false;
  it->second.link = link;
  it->second.counters->connections.fetch_add(1);
  return true;
}

void SimRadio::Impl::release(const UUID& identifier, const SimLink* link) {
  std::lock_guard lock(mutex);
  auto it = devices.find(identifier);
  if (it != devices.end() && it->second.link.lock().get() == link) it->second.link.reset();
}

std::shared_ptr<void> SimRadio::Impl::deviceState(
    const UUID& identifier, const std::function<std::shared_ptr<void>()>& make) {
  {
    std::lock_guard lock(mutex);
    auto it = devices.find(identifier);
    if (it != devices.end() && it->second.state) return it->second.state;
  }
  auto state = make();  // outside the lock: it may start queues
  std::lock_guard lock(mutex);
  auto it = devices.find(identifier);
  if (it == devices.end() || ended) return state;
  if (!it->second.state) it->second.state = std::move(state);
  return it->second.state;
}

void SimRadio::Impl::addCentral(const std::shared_ptr<SimCentral>& central) {
  std::lock_guard lock(mutex);
  std::erase_if(centrals, [](const auto& weak) { return weak.expired(); });
  centrals.push_back(central);
}

std::vector<std::shared_ptr<SimCentral>> SimRadio::Impl::liveCentrals() {
  std::lock_guard lock(mutex);
  std::vector<std::shared_ptr<SimCentral>> live;
  for (const auto& weak : centrals) {
    if (auto central = weak.lock()) live.push_back(central);
  }
  return live;
}

std::vector<std::shared_ptr<SimLink>> SimRadio::Impl::liveLinks(
    const std::optional<UUID>& identifier) const {
  std::lock_guard lock(mutex);
  std::vector<std::shared_ptr<SimLink>> links;
  for (const auto& [id, record] : devices) {
    if (identifier && id != *identifier) continue;
    if (auto link = record.link.lock()) links.push_back(link);
  }
  return links;
}

void SimRadio::Impl::after(DispatchQueue& queue, double seconds, std::function<void()> task) const {
  const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::max(0.0, seconds)));
  queue.asyncAfter(delay, std::move(task), *clock);
}

// ---- SimRadio ----

const std::shared_ptr<SimRadio>& SimRadio::shared() {
  static const std::shared_ptr<SimRadio> radio = create(true);
  return radio;
}

std::shared_ptr<SimRadio> SimRadio::create(bool withDefaultDevices, std::shared_ptr<Clock> clock) {
  std::shared_ptr<SimRadio> radio(new SimRadio());
  if (clock) radio->impl_->clock = std::move(clock);
  if (withDefaultDevices) {
    for (const auto& device : defaultDevices()) radio->addDevice(device);
  }
  return radio;
}

SimRadio::SimRadio() : impl_(std::make_shared<Impl>()) {}

const std::shared_ptr<Clock>& SimRadio::clock() const { return impl_->clock; }

void SimRadio::flushDevices() {
  for (const auto& link : impl_->liveLinks()) link->flushDevice();
}

SimRadio::~SimRadio() {
  // Links end with the radio that carried them, and so does what the devices keep across
  // links (a window's session, an external device's process), released outside the lock.
  std::vector<std::shared_ptr<void>> states;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->ended = true;
    for (auto& [identifier, record] : impl_->devices) {
      if (record.state) states.push_back(std::move(record.state));
    }
  }
  for (const auto& link : impl_->liveLinks()) link->lose("the simulated radio was destroyed");
}

std::vector<SimDeviceConfig> SimRadio::defaultDevices() {
  const auto bytes = [](std::initializer_list<uint8_t> list) { return Data(std::vector(list)); };
  auto make = [&](const char* identifier, const char* name, SimBehaviour behaviour, int rssi,
                  int n) {
    SimDeviceConfig d;
    d.identifier = UUID::literal(identifier);
    d.localName = name;
    d.address = "C0:FF:EE:00:00:0" + std::to_string(n);
    d.manufacturerData = {{0xFFFF, bytes({'Q', 'L', 'T'})}};  // the test company id
    d.txPowerLevel = 4;
    d.rssi = rssi;
    d.behaviour = behaviour;
    return d;
  };
  std::vector<SimDeviceConfig> devices{
      make("51D0E001-0000-4000-8000-0000000000E1", "QLT-Echo", SimBehaviour::SwEcho, -48, 1),
      make("51D0E001-0000-4000-8000-0000000000C1", "QLT-Chunk", SimBehaviour::ChunkEcho, -55, 2),
      make("51D0E001-0000-4000-8000-0000000000D1", "QLT-Sink", SimBehaviour::Sink, -62, 4),
      make("51D0E001-0000-4000-8000-0000000000A1", "QLT-Source", SimBehaviour::Source, -66, 5),
      make("51D0E001-0000-4000-8000-0000000000B1", "HR-Sensor", SimBehaviour::None, -71, 3),
  };
  devices.front().manufacturerData[0x0059] = bytes({0x01, 0x02});  // and Nordic's
  auto& heartRate = devices.back();
  heartRate.services = {SimServiceConfig::heartRate()};
  heartRate.manufacturerData.clear();
  heartRate.serviceData = {{UUID::literal("180D"), bytes({0x48})}};
  heartRate.txPowerLevel = -8;
  return devices;
}

std::shared_ptr<platform::Backend> SimRadio::backend() {
  return std::make_shared<SimBackend>(impl_);
}

void SimRadio::setPowered(bool on) {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->powered = on;
  }
  QLTLog("Simulated radio: powered %s", on ? "on" : "off");
  for (const auto& central : impl_->liveCentrals()) central->radioPowerChanged(on);
  if (!on) {
    // Links of centrals that are gone end too.
    for (const auto& link : impl_->liveLinks()) link->lose("the radio was powered off");
  }
}

bool SimRadio::isPowered() const { return impl_->isPowered(); }

bool SimRadio::addDevice(const SimDeviceConfig& device) {
  if (device.link) {
    const std::string problem = device.link->problem(device.description() + ": link");
    if (!problem.empty()) {
      QLTLog("Simulated radio: device refused: %s", problem);
      return false;
    }
  }
  bool added = false;
  {
    std::lock_guard lock(impl_->mutex);
    Impl::DeviceRecord record;
    record.config = device;
    added = impl_->devices.try_emplace(device.identifier, std::move(record)).second;
  }
  if (!added) {
    QLTLog("Simulated radio: a device with identifier %@ is already present", device.identifier);
    return false;
  }
  for (const auto& central : impl_->liveCentrals()) central->deviceAdded(device.identifier);
  return true;
}

bool SimRadio::removeDevice(const UUID& identifier) {
  auto links = impl_->liveLinks(identifier);
  bool removed = false;
  std::shared_ptr<void> state;  // released outside the lock
  {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->devices.find(identifier);
    if (it != impl_->devices.end()) {
      state = std::move(it->second.state);
      impl_->devices.erase(it);
      removed = true;
    }
  }
  for (const auto& link : links) link->lose("the device went away");
  return removed;
}

void SimRadio::removeAllDevices() {
  auto links = impl_->liveLinks();
  std::map<UUID, Impl::DeviceRecord> gone;  // released outside the lock
  {
    std::lock_guard lock(impl_->mutex);
    gone.swap(impl_->devices);
  }
  for (const auto& link : links) link->lose("the device went away");
}

std::vector<SimDeviceConfig> SimRadio::devices() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<SimDeviceConfig> devices;
  for (const auto& [identifier, record] : impl_->devices) devices.push_back(record.config);
  return devices;
}

std::optional<SimDeviceConfig> SimRadio::device(const UUID& identifier) const {
  auto view = impl_->view(identifier);
  if (!view) return std::nullopt;
  return view->config;
}

SimDeviceStats SimRadio::stats(const UUID& identifier) const {
  auto view = impl_->view(identifier);
  return view ? view->counters->snapshot() : SimDeviceStats{};
}

void SimRadio::dropLink(const UUID& identifier) {
  for (const auto& link : impl_->liveLinks(identifier)) link->goOutOfRange();
}

void SimRadio::setFaults(const AirFaults& faults) {
  std::lock_guard lock(impl_->mutex);
  impl_->faults = faults;
}

AirFaults SimRadio::faults() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->faults;
}

bool SimRadio::setLink(const LinkParameters& link, std::string* error) {
  const std::string problem = link.problem("link");
  if (!problem.empty()) {
    QLTLog("Simulated radio: link parameters refused: %s", problem);
    if (error) *error = problem;
    return false;
  }
  std::lock_guard lock(impl_->mutex);
  impl_->link = link;
  return true;
}

LinkParameters SimRadio::link() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->link;
}

namespace {
void applyConfig(SimRadio& radio, const RadioConfig& config) {
  radio.removeAllDevices();
  radio.setFaults(config.faults);
  radio.setLink(config.link);  // checked by the parser
  for (const auto& device : config.devices) radio.addDevice(device);
  if (config.powered != radio.isPowered()) radio.setPowered(config.powered);
  QLTLog("Simulated radio: %zu devices configured (%s; %s)", config.devices.size(),
         config.faults.description(), config.link.description());
}

bool refuse(const std::string& reason, std::string* error) {
  QLTLog("Simulated radio: configuration refused: %s", reason);
  if (error) *error = reason;
  return false;
}
}  // namespace

bool SimRadio::loadConfigString(const std::string& json, std::string* error) {
  RadioConfig config;
  std::string reason;
  if (!parseRadioConfig(json, config, reason)) return refuse(reason, error);
  applyConfig(*this, config);
  return true;
}

bool SimRadio::loadConfig(const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return refuse("cannot open \"" + path + "\"", error);
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) return refuse("cannot read \"" + path + "\"", error);
  RadioConfig config;
  std::string reason;
  if (!parseRadioConfig(text.str(), config, reason)) return refuse(path + ": " + reason, error);
  applyConfig(*this, config);
  return true;
}

}  // namespace qlt::sim
