#include "Session.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>

#include "Errors.h"
#include "LogRouting.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/LinkOpener.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

bool advertisesNUS(const platform::AdvertisementData& ad) {
  const auto nus = QLT_UUID::uartServiceUUID();
  return std::find(ad.serviceUUIDs.begin(), ad.serviceUUIDs.end(), nus) != ad.serviceUUIDs.end();
}

DeviceInfo describe(const std::shared_ptr<QLT_Peripheral>& p) {
  DeviceInfo d;
  d.identifier = p->basePeripheral()->identifier().UUIDString();
  d.address = p->address().value_or("");
  d.name = p->name().value_or("");
  d.rssi = p->RSSI();
  d.advertisement = p->advertisementData();
  d.nus = advertisesNUS(d.advertisement);
  return d;
}

bool keeps(const ScanFilter& f, const std::string& needle, const std::optional<std::string>& name,
           const platform::AdvertisementData& ad) {
  if (f.nusOnly && !advertisesNUS(ad)) return false;
  if (!needle.empty() && lower(name.value_or("")).find(needle) == std::string::npos) return false;
  if (f.manufacturer && !ad.manufacturerData.count(*f.manufacturer)) return false;
  if (f.service && !ad.serviceData.count(*f.service) &&
      std::find(ad.serviceUUIDs.begin(), ad.serviceUUIDs.end(), *f.service) ==
          ad.serviceUUIDs.end())
    return false;
  return true;
}

// Runs `request` through a LinkOpener on the tool's queue, within `timeoutS`, and waits for
// its report. Ctrl-C throws Interrupted and cancels the attempt (the opener stops its scan
// and disconnects what it connected).
LinkOpener::Result runOpener(LinkOpener::Request request,
                             const std::shared_ptr<DispatchQueue>& queue, double timeoutS) {
  struct Report {
    Waiter waiter;
    std::optional<LinkOpener::Result> result;  // guarded by waiter
  };
  auto report = std::make_shared<Report>();
  const bool limited = timeoutS >= 0 && timeoutS < 1e6;
  request.timeout =
      std::chrono::milliseconds(static_cast<int64_t>(std::ceil((limited ? timeoutS : 1e6) * 1000)));
  const auto opener = LinkOpener::start(std::move(request), queue, [report](const auto& r) {
    report->waiter.update([&] { report->result = r; });
  });
  const auto reported = [&] { return report->result.has_value(); };
  if (!report->waiter.waitUntil(reported, timeoutS)) {
    opener->expire();  // its timer is late: the same end
    report->waiter.waitUntil(reported, -1);
  }
  LinkOpener::Result result;
  report->waiter.read([&] { result = *report->result; });
  return result;
}

}  // namespace

bool looksLikeAddress(const std::string& text) {
  return text.find(':') != std::string::npos &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return c == ':' || std::isxdigit(c); });
}

// ---- Session ----

// The tool's delegate of the manager: power state and discovered peripherals.
struct Session::Impl : QLT_BLEManagerDidChangedState, QLT_BLEManagerDidDiscoveredPeripheral {
  Waiter waiter;
  int32_t managerState = -1;  // guarded by waiter
  bool showStates = false;    // guarded by waiter
  // Every peripheral seen while scanning, by identifier (guarded by waiter); holding them
  // keeps the library's wrappers alive (the manager keeps no list).
  std::map<std::string, std::shared_ptr<QLT_Peripheral>> seen;
  std::vector<std::string> order;                         // guarded by waiter
  std::function<void(const DeviceInfo&, bool)> onDevice;  // set while scanning

  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    bool show = false;
    waiter.update([&] {
      managerState = state;
      show = showStates;
    });
    if (show) printLine("  manager: " + QLT_BLEManager::convertStateToNSString(state));
  }

  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    const DeviceInfo info = describe(p);
    bool first = false;
    std::function<void(const DeviceInfo&, bool)> callback;
    waiter.update([&] {
      first = seen.emplace(info.identifier, p).second;
      if (!first) seen[info.identifier] = p;
      if (first) order.push_back(info.identifier);
      callback = onDevice;
    });
    if (callback) callback(info, first);
  }
};

Session::Session(const CommonOptions& options, const SimLinkSettings& link)
    : options_(options),
      platform_(resolvePlatform(options)),
      link_(link),
      queue_(DispatchQueue::create("qlt")),
      impl_(std::make_shared<Impl>()) {
  routeLibraryLog(options.verbose, options.logFile);
  printError("qlt " + options.command + ": platform " + platform_ +
             (platform_ == "sim" ? " (the simulated radio)" : " (BlueZ on the system bus)"));

  if (platform_ == "sim") {
    const auto& radio = sim::SimRadio::shared();
    if (!options.simConfig.empty()) {
      std::string error;
      if (!radio->loadConfig(options.simConfig, &error))
        throw UsageError("cannot use the simulated-radio config '" + options.simConfig +
                         "': " + error);
    }
    if (link.startPoweredOff) radio->setPowered(false);
    const bool shapesLink = link.profile || link.intervalMs || link.phy || link.dataLength ||
                            link.mtu || link.maxPdusPerEvent || link.packetErrorRate ||
                            (link.defaultProfile && options.simConfig.empty());
    std::optional<sim::LinkParameters> parameters;
    if (shapesLink) {
      SimLinkSettings chosen = link;
      if (!chosen.profile && link.defaultProfile && options.simConfig.empty())
        chosen.profile = sim::kDefaultLinkProfile;
      parameters = resolveLink(chosen, radio->link());
      radio->setLink(*parameters);
    }
    if (link.loss) {
      sim::AirFaults faults = radio->faults();
      faults.lostWritesWithoutResponse = *link.loss;
      faults.lostNotifications = *link.loss;
      radio->setFaults(faults);
    }
    // Devices with faults or a link of their own get the command line's settings too; the
    // link options describe both sides, so the devices' ATT MTU follows.
    for (auto device : radio->devices()) {
      if (!(device.faults && link.loss) && !parameters) continue;
      if (device.faults && link.loss) {
        device.faults->lostWritesWithoutResponse = *link.loss;
        device.faults->lostNotifications = *link.loss;
      }
      if (parameters) {
        if (device.link) device.link = parameters;
        device.mtu = parameters->mtu;
      }
      radio->removeDevice(device.identifier);
      radio->addDevice(device);
    }
  } else if (link.loss || link.profile || link.intervalMs || link.phy || link.dataLength ||
             link.mtu || link.maxPdusPerEvent || link.packetErrorRate) {
    throw UsageError(
        "--loss and the link options shape the simulated radio; they need --platform sim");
  }
  if (!platform::setBackendByName(platform_)) {
    std::string names;
    for (const auto& n : platform::availableBackends()) names += (names.empty() ? "" : ", ") + n;
    throw UsageError("the '" + platform_ +
                     "' platform is not available in this build (available: " + names + ")");
  }
  auto manager = QLT_BLEManager::sharedInstance();
  manager->addDelegate(impl_, queue_);
  // Adding runs on the manager's module queue; once that has drained, every later callback
  // reaches the tool.
  manager->moduleQueue()->sync([] {});
  if (!options.adapter.empty()) checkAdapter();
}

std::string Session::wantedAdapter() const {
  if (!options_.adapter.empty()) return options_.adapter;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read at start-up, as the library reads it.
  const char* env = std::getenv("QLT_ADAPTER");
  return env && platform_ == "bluez" ? env : "";
}

void Session::checkAdapter() const {
  const std::string wanted = wantedAdapter();
  auto central = QLT_BLEManager::sharedInstance()->centralManager();
  if (wanted.empty() || !central) return;
  if (auto error = central->useAdapter(wanted)) {
    throw UsageError(std::string(options_.adapter.empty() ? "QLT_ADAPTER" : "--adapter") + ": " +
                     error->message);
  }
}

std::vector<platform::AdapterInfo> Session::adapters(double timeoutS) {
  auto central = QLT_BLEManager::sharedInstance()->centralManager();
  if (platform_ != "bluez" || !central) return {};
  // The list comes with bluetoothd's tree, which no callback announces: look every 20 ms.
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutS);
  auto list = central->adapters();
  while (list.empty() && std::chrono::steady_clock::now() < until) {
    impl_->waiter.waitUntil([] { return false; }, 0.02);
    list = central->adapters();
  }
  return list;
}

Session::~Session() {
  auto manager = QLT_BLEManager::sharedInstance();
  manager->stopDiscover();
  manager->removeDelegate(impl_);
  queue_->sync([] {});  // let callbacks already queued finish before the state goes
}

void Session::powerOn(double timeoutS, bool show) {
  auto manager = QLT_BLEManager::sharedInstance();
  impl_->waiter.update([&] {
    impl_->showStates = show;
    if (impl_->managerState < 0) impl_->managerState = manager->state();
  });
  if (show) printLine("  manager: " + QLT_BLEManager::convertStateToNSString(manager->state()));
  if (platform_ == "sim" && !sim::SimRadio::shared()->isPowered()) {
    if (show) printLine("  switching the simulated radio on");
    sim::SimRadio::shared()->setPowered(true);
  }
  // Idle (1) is where discovery starts; scanning (2) left over from an earlier run is fine too.
  const auto isUp = [&] {
    auto up = [](int32_t s) {
      return s == QLT_BLEManagerStateIdle || s == QLT_BLEManagerStateScanning;
    };
    // The announcement, when states are shown (so that every one is printed); else the
    // stored state will do.
    return up(impl_->managerState) || (!show && up(manager->state()));
  };
  // On BlueZ, a backend that has said why it is down (no system bus, no bluetoothd, no
  // adapter) fails after a second rather than at the time-out.
  const double firstWait = platform_ == "bluez" ? std::min(1.0, timeoutS) : timeoutS;
  bool on = impl_->waiter.waitUntil(isUp, firstWait);
  const std::string reason = platform_ == "bluez" ? lastBackendLogLine() : "";
  if (!on && reason.empty() && timeoutS > firstWait)
    on = impl_->waiter.waitUntil(isUp, timeoutS - firstWait);
  impl_->waiter.update([&] { impl_->showStates = false; });
  if (!on && !wantedAdapter().empty()) {
    adapters(std::max(0.0, std::min(1.0, timeoutS - firstWait)));  // listed by now, or never
    checkAdapter();  // a usage error when it is not there
  }
  if (!on) {
    std::string hint;
    if (!reason.empty()) {
      hint = ": " + reason;
      timeoutS = firstWait;
    } else if (platform_ == "bluez") {
      hint = "; is bluetoothd running, with a powered adapter, on the system bus?";
    }
    if (!options_.verbose) hint += " (--verbose shows the library's log)";
    throw Failure("Bluetooth did not power on within " + seconds(timeoutS) + " (manager state: " +
                  QLT_BLEManager::convertStateToNSString(manager->state()) + ")" + hint);
  }
}

std::vector<DeviceInfo> Session::scan(
    const ScanFilter& filter, double durationS,
    const std::function<void(const DeviceInfo&, bool)>& onDevice) {
  auto manager = QLT_BLEManager::sharedInstance();
  const std::string needle = lower(filter.nameContains);
  impl_->waiter.update([&] {
    impl_->onDevice = onDevice;
    impl_->order.clear();
    impl_->seen.clear();
  });
  // The filter runs on the library's central queue for every advertisement.
  manager->startDiscover([filter, needle](const std::shared_ptr<platform::Peripheral>&,
                                          const std::optional<std::string>& localName,
                                          const platform::AdvertisementData& ad,
                                          int) { return keeps(filter, needle, localName, ad); });
  impl_->waiter.waitUntil([] { return false; }, durationS);
  manager->stopDiscover();
  queue_->sync([] {});  // advertisements already delivered are counted
  std::vector<DeviceInfo> out;
  impl_->waiter.update([&] {
    impl_->onDevice = nullptr;
    for (const auto& id : impl_->order) out.push_back(describe(impl_->seen[id]));
  });
  return out;
}

std::shared_ptr<QLT_Peripheral> Session::find(const std::string& device, double timeoutS) {
  const auto uuid = device.size() == 36 ? UUID::fromString(device) : std::nullopt;
  const auto address = platform::canonicalAddress(device);
  if (!address && looksLikeAddress(device)) {
    throw UsageError("'" + device +
                     "' is not a Bluetooth address (six pairs of hexadecimal digits joined by "
                     "':', such as C0:FF:EE:00:00:01)");
  }
  // A peripheral seen in this run, or one the system knows by identifier or address.
  std::shared_ptr<QLT_Peripheral> found;
  impl_->waiter.read([&] {
    for (const auto& [id, p] : impl_->seen) {
      if (p->answersTo(device)) found = p;
    }
  });
  if (found) return found;
  if (uuid) found = QLT_BLEManager::retrievePeripheralWithUUID(uuid->UUIDString());
  if (address) found = QLT_BLEManager::retrievePeripheralWithAddress(*address);
  if (found) return found;
  // Scan until a device with that name, identifier or address shows up.
  impl_->waiter.update([&] {
    impl_->onDevice = nullptr;
    impl_->seen.clear();
    impl_->order.clear();
  });
  LinkOpener::Request request;
  request.device = device;
  request.connect = false;
  const LinkOpener::Result result = runOpener(std::move(request), queue_, timeoutS);
  if (result.outcome != LinkOpener::Outcome::Found) {
    if (uuid) {
      throw Failure("no device with identifier " + uuid->UUIDString() + " found within " +
                    seconds(timeoutS));
    }
    if (address) {
      throw Failure("no device with address " + *address + " found within " + seconds(timeoutS));
    }
    throw Failure("no device named '" + device + "' found within " + seconds(timeoutS));
  }
  return result.peripheral;
}

std::optional<sim::LinkParameters> Session::linkParameters(const std::string& identifier) const {
  if (platform_ != "sim") return std::nullopt;
  const auto uuid = UUID::fromString(identifier);
  const auto& radio = sim::SimRadio::shared();
  const auto device = uuid ? radio->device(*uuid) : std::nullopt;
  if (!device) return std::nullopt;
  sim::LinkParameters p = device->link.value_or(radio->link());
  p.mtu = static_cast<uint32_t>(std::min<size_t>(p.mtu, device->mtu));
  return p;
}

LinkTiming Session::linkTiming() const {
  LinkTiming t;
  if (platform_ != "sim") return t;
  const auto faults = sim::SimRadio::shared()->faults();
  // On a modelled link a frame takes at least its PDUs' air time, however soon the event
  // carries it (the window's frame: 121 bytes).
  t.oneWayS = faults.connectionInterval +
              sim::valueAirSeconds(sim::SimRadio::shared()->link(), kTcpSegmentSize + 1);
  if (faults.writeRateLimit && *faults.writeRateLimit > 0) t.pacingS = 1.0 / *faults.writeRateLimit;
  return t;
}

double Session::airLoss() const {
  if (platform_ != "sim") return 0;
  const auto faults = sim::SimRadio::shared()->faults();
  return std::max(faults.lostWritesWithoutResponse, faults.lostNotifications);
}

uint64_t Session::segmentsLost(const std::string& identifier, bool written) const {
  if (platform_ != "sim") return 0;
  const auto id = UUID::fromString(identifier);
  if (!id) return 0;
  const auto stats = sim::SimRadio::shared()->stats(*id);
  return written ? stats.segmentWritesLost : stats.segmentNotificationsLost;
}

// ---- Connection ----

TransportKind parseTransport(const std::string& text) {
  if (text == "sw") return TransportKind::SlidingWindow;
  if (text == "nus") return TransportKind::NUS;
  throw UsageError("unknown transport '" + text + "' (use sw or nus)");
}

std::string transportName(TransportKind kind) { return kind == TransportKind::NUS ? "nus" : "sw"; }

struct Connection::Delegate : QLT_PeripheralDidChangeState,
                              QLT_PeripheralDidReceivedTCPData,
                              QLT_PeripheralDidReceivedUDPData {
  Waiter waiter;
  int32_t state = -1;    // guarded by waiter
  bool opened = false;   // guarded by waiter: ready was reached
  bool dropped = false;  // guarded by waiter: the link went down after ready
  ConnectionEvents events;

  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>&, int32_t s) override {
    // Shown before the waiting command wakes, so that its next line comes after this one.
    if (events.onState) events.onState(s, QLT_Peripheral::convertStateToNSString(s));
    waiter.update([&] {
      state = s;
      if (s == QLT_PeripheralStateReady) opened = true;
      if (opened &&
          (s == QLT_PeripheralStateDisconnected || s == QLT_PeripheralStateFailedToConnect))
        dropped = true;
    });
    if (events.onRecorded) events.onRecorded();
  }
  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    if (events.onData) events.onData(d, false);
  }
  void QLT_Peripheral_didReceivedUDPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    if (events.onData) events.onData(d, true);
  }
};

Connection::Connection(Session& session, std::shared_ptr<QLT_Peripheral> peripheral,
                       TransportKind transport, ConnectionEvents events)
    : session_(session),
      peripheral_(std::move(peripheral)),
      transport_(transport),
      delegate_(std::make_shared<Delegate>()) {
  delegate_->events = std::move(events);
  peripheral_->setTransportType(transport == TransportKind::NUS ? 0 : 1);
  peripheral_->setExtendedWindow(!session.options().classicWindow);
  if (session.options().trace) {
    const bool sw = transport == TransportKind::SlidingWindow;
    peripheral_->setFrameTrace([sw](bool outgoing, const Data& frame) {
      if (sw) {
        printStatus(describeFrame(frame.span(), outgoing));
      } else {
        printStatus(std::string(outgoing ? "→ " : "← ") + "chunk " + std::to_string(frame.size()) +
                    " B");
      }
    });
  }
  peripheral_->addDelegate(delegate_, session.queue());
  peripheral_->moduleQueue()->sync([] {});  // attached before anything is asked of it
}

Connection::~Connection() {
  try {
    if (opened_ && !dropped()) close(2.0);
  } catch (...) {
    // Leaving anyway: the process is about to end or an error is already on its way.
  }
  peripheral_->setFrameTrace(nullptr);
  peripheral_->removeDelegate(delegate_);
}

void Connection::open(double timeoutS) {
  opened_ = true;
  LinkOpener::Request request;
  request.peripheral = peripheral_;
  const LinkOpener::Result r = runOpener(std::move(request), session_.queue(), timeoutS);
  const std::string name = "'" + deviceName() + "'";
  const std::string problem = displayText(r.problem, 400);
  switch (r.outcome) {
    case LinkOpener::Outcome::Ready:
      break;
    case LinkOpener::Outcome::TimedOut:
      throw Failure(name + " did not become ready within " + seconds(timeoutS) + " (last state: " +
                    (r.lastState < 0 ? std::string("none")
                                     : QLT_Peripheral::convertStateToNSString(r.lastState)) +
                    ")");
    case LinkOpener::Outcome::ConnectFailed: {
      // "could not connect: <the platform's reason>"
      const size_t colon = problem.find(": ");
      const std::string why =
          r.problemKind == QLT_LinkProblem::ConnectFailed && colon != std::string::npos
              ? problem.substr(colon + 2)
              : "";
      throw Failure("could not connect to " + name + (why.empty() ? "" : ": " + why));
    }
    case LinkOpener::Outcome::Unusable: {
      const bool mtu = r.problemKind == QLT_LinkProblem::MtuTooSmall;
      throw Failure(
          name + " cannot carry the " +
          (transport_ == TransportKind::NUS ? "chunking" : "sliding-window") +
          " transport: " + (mtu ? problem.substr(0, problem.find(" (stock")) : problem) +
          (mtu && transport_ == TransportKind::SlidingWindow ? "; try --transport nus" : ""));
    }
    case LinkOpener::Outcome::NoUartService:
      throw Failure(name + " does not offer the UART service");
    default:
      throw Failure("the link to " + name + " dropped while connecting");
  }
  if (session_.options().verbose) printError("  link: " + describeLink(linkInfo()));
}

platform::LinkInfo Connection::linkInfo() const { return peripheral_->linkInfo(); }

std::string describeLink(const platform::LinkInfo& info) {
  const auto known = [](bool is, const std::string& text) { return is ? text : "unknown"; };
  char interval[32] = "";
  if (info.connectionIntervalMs)
    std::snprintf(interval, sizeof interval, "%.2f ms", *info.connectionIntervalMs);
  return "ATT MTU " + known(info.attMtu > 0, std::to_string(info.attMtu)) + ", writes of up to " +
         known(info.maxWriteLength > 0, std::to_string(info.maxWriteLength) + " B") +
         ", connection interval " + known(info.connectionIntervalMs.has_value(), interval) +
         ", PHY " + info.phy.value_or("unknown") + ", data length " +
         known(info.dataLength.has_value(), std::to_string(info.dataLength.value_or(0)) + " B");
}

nlohmann::json linkJson(const platform::LinkInfo& info) {
  const auto orNull = [](bool known, const nlohmann::json& value) {
    return known ? value : nlohmann::json();
  };
  return {{"att_mtu", orNull(info.attMtu > 0, info.attMtu)},
          {"max_write", orNull(info.maxWriteLength > 0, info.maxWriteLength)},
          {"interval_ms",
           orNull(info.connectionIntervalMs.has_value(), info.connectionIntervalMs.value_or(0))},
          {"phy", orNull(info.phy.has_value(), info.phy.value_or(""))},
          {"data_length", orNull(info.dataLength.has_value(), info.dataLength.value_or(0))}};
}

void Connection::close(double timeoutS) {
  opened_ = false;  // asked once, whatever happens while waiting
  QLT_BLEManager::sharedInstance()->disconnect(peripheral_);
  const bool closed = delegate_->waiter.waitUntil(
      [&] { return delegate_->state == QLT_PeripheralStateDisconnected; }, timeoutS);
  session_.queue()->sync([] {});  // payloads delivered before the disconnection are handled
  if (!closed)
    throw Failure("'" + deviceName() + "' did not disconnect within " + seconds(timeoutS));
}

bool Connection::ready() const {
  bool r = false;
  delegate_->waiter.read([&] { r = delegate_->state == QLT_PeripheralStateReady; });
  return r;
}

bool Connection::dropped() const {
  bool d = false;
  delegate_->waiter.read([&] { d = delegate_->dropped; });
  return d;
}

void Connection::sendTCP(const Data& data) { peripheral_->writeTCPData(data); }
void Connection::sendUDP(const Data& data) { peripheral_->writeUDPData(data); }

TransferCounters Connection::counters() const {
  TransferCounters c;
  if (const auto s = peripheral_->transportCounters()) {
    c.retransmissions = s->segmentsResent;
    c.pollsSent = s->pollsSent;
    c.rejectionsSent = s->rejectionsSent;
    c.rejectionsReceived = s->rejectionsReceived;
    c.bytesQueued = s->bytesQueued;
    c.segmentsSent = s->segmentsSent;
    c.segmentsDropped = s->segmentsDropped;
    c.window = toString(s->format);
    c.extendedSegment = s->extendedSegment;
    c.extendedWindow = s->extendedWindow;
    c.present = true;
  }
  return c;
}

std::string Connection::deviceName() const {
  const auto name = peripheral_->name();
  return name ? displayText(*name) : deviceIdentifier();
}

std::string Connection::deviceIdentifier() const {
  return peripheral_->basePeripheral()->identifier().UUIDString();
}

}  // namespace qlt::cli
