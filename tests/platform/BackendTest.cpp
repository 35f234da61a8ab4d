// The platform seam's promises, checked on every backend: the simulated radio and BlueZ on
// the mock bluetoothd (a private bus). Then what only one backend can show.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>

#include "QueltLibrary/DispatchQueue.h"
#include "platform/Backends.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

namespace qlt::platform {
// Failures show the advertisement's fields rather than its bytes.
void PrintTo(const AdvertisementData& a, std::ostream* os) {
  *os << a.localName.value_or("(no name)") << " tx " << a.txPowerLevel.value_or(999)
      << (a.isConnectable ? "" : " non-connectable");
  for (const auto& [company, data] : a.manufacturerData)
    *os << " " << company << "=" << data.description();
  for (const auto& [uuid, data] : a.serviceData)
    *os << " " << uuid.UUIDString() << "=" << data.description();
  for (const auto& uuid : a.serviceUUIDs) *os << " uuid " << uuid.UUIDString();
}
}  // namespace qlt::platform

namespace qlt::test {
namespace {

using namespace std::chrono_literals;
using platform::CentralState;
using platform::PeripheralState;
using platform::WriteType;

const UUID kNus = UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e");
const UUID kTx = UUID::literal("6e400002-b5a3-f393-e0a9-e50e24dcca9e");
const UUID kRx = UUID::literal("6e400003-b5a3-f393-e0a9-e50e24dcca9e");
Data bytes(const std::string& text) { return Data::fromString(text); }

// One platform callback as it arrived, with the queue it came on.
// kind: state discover connect fail disconnect services characteristics notify value write
struct Event {
  std::string kind;
  std::shared_ptr<platform::Peripheral> peripheral{};
  std::optional<platform::Error> error{};
  std::optional<Data> value{};  // the characteristic's value as the call saw it
  bool notifying = false;
  CentralState state = CentralState::Unknown;
  platform::AdvertisementData advertisement{};
  int rssi = 0;
  std::string queue = DispatchQueue::currentLabel();
};

class Recorder final : public EventLog<Event>,
                       public platform::CentralDelegate,
                       public platform::PeripheralDelegate {
  using P = std::shared_ptr<platform::Peripheral>;
  using E = std::optional<platform::Error>;
  using C = std::shared_ptr<platform::Characteristic>;

 public:
  void centralManagerDidUpdateState(platform::Central& c) override {
    record({.kind = "state", .state = c.state()});
  }
  void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      platform::Central&, const P& p, const platform::AdvertisementData& a, int rssi) override {
    record({.kind = "discover", .peripheral = p, .advertisement = a, .rssi = rssi});
  }
  void centralManager_didConnectPeripheral(platform::Central&, const P& p) override {
    record({.kind = "connect", .peripheral = p});
  }
  void centralManager_didFailToConnectPeripheral_error(platform::Central&, const P& p,
                                                       const E& e) override {
    record({.kind = "fail", .peripheral = p, .error = e});
  }
  void centralManager_didDisconnectPeripheral_error(platform::Central&, const P& p,
                                                    const E& e) override {
    record({.kind = "disconnect", .peripheral = p, .error = e});
  }
  void peripheral_didDiscoverServices(const P& p, const E& e) override {
    record({.kind = "services", .peripheral = p, .error = e});
  }
  void peripheral_didDiscoverCharacteristicsForService_error(
      const P& p, const std::shared_ptr<platform::Service>&, const E& e) override {
    record({.kind = "characteristics", .peripheral = p, .error = e});
  }
  void peripheral_didUpdateNotificationStateForCharacteristic_error(const P& p, const C& c,
                                                                    const E& e) override {
    record({.kind = "notify", .peripheral = p, .error = e, .notifying = c->isNotifying()});
  }
  void peripheral_didUpdateValueForCharacteristic_error(const P& p, const C& c,
                                                        const E& e) override {
    record({.kind = "value", .peripheral = p, .error = e, .value = c->value()});
  }
  void peripheral_didWriteValueForCharacteristic_error(const P& p, const C&, const E& e) override {
    record({.kind = "write", .peripheral = p, .error = e});
  }
};

// The NUS pair of a connected peripheral with notifications on.
struct Link {
  std::shared_ptr<platform::Characteristic> tx, rx;
  explicit operator bool() const { return tx && rx; }
};

template <class Side>
class ABackend : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto why = side.start();
    if (why.rfind("skip: ", 0) == 0) GTEST_SKIP() << why;
    ASSERT_EQ(why, "");
    open();
  }
  void TearDown() override {
    close();
    for (const auto& e : recorder->events()) ASSERT_EQ(e.queue, "TestCentral") << e.kind;
  }
  void open() {
    central = side.backend()->createCentral(recorder, queue, {});
    auto state = recorder->waitFor("state");
    ASSERT_TRUE(state && state->state == CentralState::PoweredOn);
  }
  // Drops the central while its queue is held, so no callback in flight holds the last reference.
  void close() {
    if (central) queue->sync([&] { central.reset(); });
  }
  size_t count(const std::string& kind) { return recorder->count(kind); }
  // Lets `seconds` pass on the backend: whatever would arrive by then has arrived.
  void passTime(double seconds) { side.passTime(seconds, *central, *queue); }

  // Scans (all devices, duplicates allowed) until `name` shows; its peripheral.
  std::shared_ptr<platform::Peripheral> find(const std::string& name) {
    const size_t before = count("discover");
    central->scanForPeripherals(std::nullopt, {true});
    std::shared_ptr<platform::Peripheral> found;
    for (size_t n = before + 1; !found && recorder->waitFor("discover", n); ++n) {
      auto e = recorder->events("discover")[n - 1];
      if (e.advertisement.localName == name) found = e.peripheral;
    }
    central->stopScan();
    if (found) found->setDelegate(recorder);
    return found;
  }

  // Connects, discovers the UART service and switches notifications on.
  Link connect(const std::shared_ptr<platform::Peripheral>& p) {
    Link link;
    const size_t connects = count("connect"), services = count("services"),
                 characteristics = count("characteristics"), notify = count("notify");
    central->connect(p);
    if (!recorder->waitFor("connect", connects + 1)) return link;
    p->discoverServices(std::vector<UUID>{kNus});
    if (!recorder->waitFor("services", services + 1) || p->services().size() != 1) return link;
    p->discoverCharacteristics(std::nullopt, p->services()[0]);
    if (!recorder->waitFor("characteristics", characteristics + 1)) return link;
    for (const auto& c : p->services()[0]->characteristics()) {
      (c->uuid() == kTx ? link.tx : link.rx) = c;
    }
    p->setNotifyValue(true, link.rx);
    auto on = recorder->waitFor("notify", notify + 1);
    if (!on || on->error || !on->notifying) link.rx = nullptr;
    return link;
  }

  // The values received after the `n`th event of `kind`.
  std::vector<std::string> valuesAfter(const std::string& kind, size_t n) {
    std::vector<std::string> out;
    size_t seen = 0;
    for (const auto& e : recorder->events()) {
      if (e.kind == kind) ++seen;
      if (seen >= n && e.kind == "value") out.push_back(e.value.value_or(Data()).toString());
    }
    return out;
  }

  Side side;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<DispatchQueue> queue = DispatchQueue::create("TestCentral");
  std::shared_ptr<platform::Central> central;
};

TYPED_TEST_SUITE(ABackend, SteppedBackends);

TYPED_TEST(ABackend,
           EndsItsLinksBeforeReportingPowerOffAndNeitherScansNorConnectsUntilPowerReturns) {
  auto chunk = this->find("QLT-Chunk");
  ASSERT_TRUE(chunk && this->connect(chunk));
  this->side.power(false);
  ASSERT_TRUE(this->recorder->waitFor("state", 2));
  std::vector<std::string> kinds;
  for (const auto& e : this->recorder->events()) {
    if (e.kind == "disconnect" || e.kind == "state") kinds.push_back(e.kind);
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"state", "disconnect", "state"}));
  EXPECT_EQ(this->recorder->events("state")[1].state, CentralState::PoweredOff);
  EXPECT_TRUE(this->recorder->events("disconnect")[0].error) << "a lost link carries an error";
  EXPECT_EQ(chunk->state(), PeripheralState::Disconnected);
  this->central->scanForPeripherals(std::nullopt, {true});
  EXPECT_FALSE(this->central->isScanning());
  this->side.power(true);
  auto on = this->recorder->waitFor("state", 3);
  ASSERT_TRUE(on);
  EXPECT_EQ(on->state, CentralState::PoweredOn);
  EXPECT_TRUE(this->connect(chunk)) << "usable again";
}

TYPED_TEST(ABackend, ReportsOnlyTheServicesAskedForAndRepeatsOnlyWhenDuplicatesAreAllowed) {
  auto& r = *this->recorder;
  auto seen = [&] {
    std::map<std::string, int> names;
    for (const auto& e : r.events("discover")) ++names[e.advertisement.localName.value_or("")];
    return names;
  };
  this->central->scanForPeripherals(std::vector<UUID>{kNus}, {true});
  EXPECT_TRUE(this->central->isScanning());
  ASSERT_TRUE(eventually([&] { return seen()["QLT-Echo"] >= 3 && seen()["QLT-Chunk"] >= 3; }));
  this->central->stopScan();
  EXPECT_FALSE(this->central->isScanning());
  this->queue->sync([] {});
  std::set<int> rssis;
  std::set<std::shared_ptr<platform::Peripheral>> objects;
  for (const auto& e : r.events("discover")) {
    EXPECT_NE(e.advertisement.localName, "HR-Sensor") << "not asked for";
    EXPECT_EQ(e.advertisement.serviceUUIDs, std::vector<UUID>{kNus});
    if (e.advertisement.localName != "QLT-Echo") continue;
    objects.insert(e.peripheral);
    rssis.insert(e.rssi);
    EXPECT_EQ(e.peripheral->identifier(), this->side.id("QLT-Echo"));
  }
  EXPECT_EQ(objects.size(), 1u) << "one peripheral object per device";
  EXPECT_GE(rssis.size(), 2u) << "each advertisement brings its signal strength";
  const size_t afterStop = r.count("discover");
  this->passTime(0.3);
  EXPECT_EQ(r.count("discover"), afterStop) << "reports after stopScan";

  r.clear();
  this->central->scanForPeripherals(std::nullopt, {false});
  ASSERT_TRUE(eventually([&] { return seen()["HR-Sensor"] == 1 && seen()["QLT-Echo"] == 1; }));
  this->passTime(0.4);
  for (const auto& [name, n] : seen()) EXPECT_EQ(n, 1) << name << " reported again";
  this->central->stopScan();
}

TYPED_TEST(ABackend, RetrievesKnownDevicesInALaterCentralAndReportsAFailedConnectWithAnError) {
  ASSERT_TRUE(this->find("QLT-Echo"));  // bluetoothd lists what a scan has seen
  this->close();
  this->recorder->clear();
  this->open();
  const auto unknown = UUID::literal("514C5442-5A00-8000-8000-C0FFEE000099");
  auto found =
      this->central->retrievePeripheralsWithIdentifiers({unknown, this->side.id("QLT-Echo"), kNus});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->identifier(), this->side.id("QLT-Echo"));
  EXPECT_EQ(found[0]->name(), "QLT-Echo");
  EXPECT_EQ(found[0]->state(), PeripheralState::Disconnected);
  EXPECT_TRUE(found[0]->services().empty());
  found[0]->setDelegate(this->recorder);
  this->side.failConnects(true);
  this->central->connect(found[0]);
  auto failed = this->recorder->waitFor("fail");
  ASSERT_TRUE(failed);
  EXPECT_TRUE(failed->error);
  EXPECT_EQ(this->count("connect"), 0u);
  EXPECT_EQ(found[0]->state(), PeripheralState::Disconnected);
  this->side.failConnects(false);
  EXPECT_TRUE(this->connect(found[0])) << "connects next time";
}

TYPED_TEST(ABackend, ReportsAddressesAndAdvertisementDataAlikeAndRetrievesByAddress) {
  const auto hr = UUID::literal("180D");
  const Data qlt = bytes("QLT");
  const std::map<std::string, platform::AdvertisementData> expected{
      {"QLT-Echo",
       {"QLT-Echo", {{0x0059, Data(std::vector<uint8_t>{1, 2})}, {0xFFFF, qlt}}, {kNus}, {}, 4}},
      {"QLT-Chunk", {"QLT-Chunk", {{0xFFFF, qlt}}, {kNus}, {}, 4}},
      {"HR-Sensor", {"HR-Sensor", {}, {hr}, {{hr, bytes("H")}}, -8}},
  };
  std::map<std::string, Event> seen;
  this->central->scanForPeripherals(std::nullopt, {false});
  ASSERT_TRUE(eventually([&] {
    for (const auto& e : this->recorder->events("discover"))
      seen[e.advertisement.localName.value_or("")] = e;
    return seen.count("QLT-Echo") + seen.count("QLT-Chunk") + seen.count("HR-Sensor") == 3;
  }));
  this->central->stopScan();
  for (const auto& [name, advertisement] : expected) {
    EXPECT_EQ(seen[name].advertisement, advertisement) << name;
    EXPECT_EQ(seen[name].peripheral->bluetoothAddress(), Bluez::address(name));
  }
  const auto found = this->central->retrievePeripheralsWithAddresses(
      {"c0:ff:ee:00:00:02", "C0:FF:EE:00:00:99", "x"});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->identifier(), this->side.id("QLT-Chunk"));
}

TYPED_TEST(ABackend, EchoesABurstInOrderAndStopsReportingOnceNotificationsAreOff) {
  auto chunk = this->find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  Link link = this->connect(chunk);
  ASSERT_TRUE(link);
  EXPECT_EQ(chunk->state(), PeripheralState::Connected);
  EXPECT_EQ(link.tx->properties(),
            uint32_t(platform::kPropertyWriteWithoutResponse | platform::kPropertyWrite));
  EXPECT_EQ(link.rx->properties(), uint32_t(platform::kPropertyNotify));
  EXPECT_EQ(chunk->maximumWriteValueLength(WriteType::WithoutResponse), 182u);  // MTU 185
  const int kBurst = 60;
  for (int i = 0; i < kBurst; ++i) {
    chunk->writeValue(bytes("frame " + std::to_string(i)), link.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(this->recorder->waitFor("value", kBurst));
  for (int i = 0; i < 3; ++i) chunk->writeValue(bytes("req"), link.tx, WriteType::WithResponse);
  ASSERT_TRUE(this->recorder->waitFor("write", 3));
  ASSERT_TRUE(this->recorder->waitFor("value", kBurst + 3));
  for (const auto& e : this->recorder->events("write")) EXPECT_FALSE(e.error);
  auto values = this->valuesAfter("connect", 1);
  for (int i = 0; i < kBurst; ++i) EXPECT_EQ(values[i], "frame " + std::to_string(i));
  EXPECT_EQ(link.rx->value(), bytes("req"));

  chunk->setNotifyValue(false, link.rx);
  auto off = this->recorder->waitFor("notify", 2);
  ASSERT_TRUE(off);
  EXPECT_FALSE(off->notifying);
  chunk->writeValue(bytes("unheard"), link.tx, WriteType::WithoutResponse);
  this->passTime(0.2);
  EXPECT_EQ(this->count("value"), size_t(kBurst + 3));
}

// After a lost link, and after a cancelled one whose answers are still on their way, nothing
// of the earlier connection reaches the next: its characteristics stay dead.
TYPED_TEST(ABackend, NeverLetsAnEarlierConnectionReachALaterOne) {
  this->side.slowAir();
  auto chunk = this->find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  Link old = this->connect(chunk);
  ASSERT_TRUE(old);
  this->side.drop("QLT-Chunk");
  auto lost = this->recorder->waitFor("disconnect");
  ASSERT_TRUE(lost && lost->peripheral == chunk);
  EXPECT_TRUE(lost->error);
  EXPECT_EQ(chunk->state(), PeripheralState::Disconnected);

  Link second = this->connect(chunk);
  ASSERT_TRUE(second);
  EXPECT_NE(second.tx, old.tx);
  for (int i = 0; i < 5; ++i)
    chunk->writeValue(bytes("old"), second.tx, WriteType::WithoutResponse);
  this->passTime(0.025);  // the echoes are on their way back
  chunk->discoverServices(std::nullopt);
  this->central->cancelPeripheralConnection(chunk);
  auto bye = this->recorder->waitFor("disconnect", 2);
  ASSERT_TRUE(bye);
  EXPECT_FALSE(bye->error) << "a requested disconnection carries none";
  const size_t services = this->count("services");
  Link third = this->connect(chunk);
  ASSERT_TRUE(third);
  chunk->writeValue(bytes("stale"), old.tx, WriteType::WithoutResponse);
  chunk->writeValue(bytes("stale"), second.tx, WriteType::WithoutResponse);
  chunk->writeValue(bytes("fresh"), third.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(eventually([&] { return !this->valuesAfter("disconnect", 2).empty(); }));
  this->passTime(0.15);
  EXPECT_EQ(this->valuesAfter("disconnect", 2), std::vector<std::string>{"fresh"});
  EXPECT_EQ(this->count("services"), services + 1) << "the cancelled discovery was answered";
  EXPECT_EQ(this->count("disconnect"), 2u);
}

#ifndef QLT_TESTS_WITHOUT_BLUEZ
using OnBluez = ABackend<Bluez>;

size_t openSockets() {
  size_t n = 0;
  std::error_code error;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    n += std::filesystem::read_symlink(fd.path(), error).string().rfind("socket:", 0) == 0;
  }
  return n;
}

// Writes and notifications go over the sockets bluetoothd hands out; when it closes its ends
// the link carries on with method calls, and notifications switched on again acquire afresh.
TEST_F(OnBluez, CarriesDataOnAcquiredSocketsAndFallsBackToMethodCallsWhenTheyClose) {
  auto chunk = find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  Link link = connect(chunk);
  ASSERT_TRUE(link);
  for (int i = 0; i < 20; ++i) {
    chunk->writeValue(bytes("s" + std::to_string(i)), link.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(recorder->waitFor("value", 20));
  EXPECT_EQ(recorder->events("value")[19].value, bytes("s19"));
  EXPECT_EQ(side.stats("QLT-Chunk")["acquired-writes"], 20);
  EXPECT_EQ(side.stats("QLT-Chunk")["acquired-notifications"], 20);

  side.ask("close-sockets", "QLT-Chunk");
  ASSERT_TRUE(eventually([&] { return !link.rx->isNotifying(); }));
  EXPECT_EQ(chunk->state(), PeripheralState::Connected);
  chunk->writeValue(bytes("by method"), link.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(eventually([&] { return side.stats("QLT-Chunk")["command"] == 21; }));
  EXPECT_EQ(side.stats("QLT-Chunk")["acquired-writes"], 20);
  chunk->setNotifyValue(true, link.rx);
  auto on = recorder->waitFor("notify", 2);
  ASSERT_TRUE(on && on->notifying);
  chunk->writeValue(bytes("back"), link.tx, WriteType::WithoutResponse);
  auto back = recorder->waitFor("value", 21);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->value, bytes("back"));
  EXPECT_EQ(side.stats("QLT-Chunk")["acquired-notifications"], 21);
}

// A link ends by cancel, by link loss and by bluetoothd leaving the bus (which also powers
// the central off until it returns, with the same peripheral object); every end closes the
// link's sockets, and the central's own end closes the rest.
TEST_F(OnBluez, ClosesALinksSocketsWhicheverWayItEndsAndSurvivesADaemonRestart) {
  const size_t beforeCentral = openSockets() - 2;  // the central's own bus connection
  auto chunk = find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  const size_t baseline = openSockets();
  auto exchange = [&] {
    Link link = connect(chunk);
    const size_t values = count("value");
    if (link) chunk->writeValue(bytes("ping"), link.tx, WriteType::WithoutResponse);
    return link && recorder->waitFor("value", values + 1) && openSockets() > baseline;
  };
  for (const std::string how : {"cancel", "drop", "restart"}) {
    SCOPED_TRACE(how);
    ASSERT_TRUE(exchange());
    const size_t disconnects = count("disconnect");
    if (how == "cancel") central->cancelPeripheralConnection(chunk);
    if (how == "drop") side.drop("QLT-Chunk");
    if (how == "restart") side.mock({{"op", "restart"}, {"downtime", 0.3}});
    auto ended = recorder->waitFor("disconnect", disconnects + 1);
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->error.has_value(), how != "cancel");
    EXPECT_TRUE(eventually([&] { return openSockets() == baseline; })) << openSockets();
  }
  ASSERT_TRUE(recorder->waitFor("state", 3));
  std::vector<CentralState> states;
  for (const auto& e : recorder->events()) {
    if (e.kind == "state") states.push_back(e.state);
    if (e.kind == "disconnect" && e.error) {
      EXPECT_EQ(states.size(), 1u) << "links end first";
    }
  }
  EXPECT_EQ(states, (std::vector<CentralState>{CentralState::PoweredOn, CentralState::PoweredOff,
                                               CentralState::PoweredOn}));
  EXPECT_EQ(find("QLT-Chunk"), chunk) << "the same object for the same device";
  ASSERT_TRUE(exchange());
  chunk.reset();
  close();
  EXPECT_TRUE(eventually([&] { return openSockets() <= beforeCentral; })) << openSockets();
}

// What the world outside does to a link, grouped: bluetoothd restarting under a live link (the
// device still holds the old session's protocol state, and answers Connect with
// AlreadyConnected), values far longer than any attribute, a flood of signals about objects
// nobody announced, properties of the wrong types.
TEST_F(OnBluez, StartsAfreshAfterAStaleLinkAndWithstandsWhatTheWorldOutsideSends) {
  auto echo = find("QLT-Echo");
  ASSERT_TRUE(echo);
  Link old = connect(echo);
  ASSERT_TRUE(old);
  side.set("QLT-Echo", "hold", true);  // the device's echo of this session waits to be sent
  echo->writeValue(bytes(std::string(1, '\0') + "old"), old.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder->waitFor("value")) << "the device acknowledged the segment";
  side.mock({{"op", "restart"}, {"downtime", 0.3}, {"keep_links", true}});
  ASSERT_TRUE(recorder->waitFor("state", 3)) << "bluetoothd left and came back";
  Link fresh = connect(echo);
  ASSERT_TRUE(fresh);
  passTime(0.6);  // past the device's poll, had it kept its old session
  EXPECT_EQ(valuesAfter("connect", 2), std::vector<std::string>{}) << "the old session's echo";
  auto stats = side.stats("QLT-Echo");
  EXPECT_EQ(stats["disconnects"], 1) << "the link left up is taken down";
  EXPECT_EQ(stats["connects"], 1) << "and a fresh one made";

  // No value longer than an attribute (512 bytes) reaches the delegate, on the socket path
  // (QLT-Echo) or the method path (QLT-Chunk).
  auto chunk = find("QLT-Chunk");
  side.set("QLT-Chunk", "acquire", false);
  ASSERT_TRUE(chunk);
  Link chunkLink = connect(chunk);
  ASSERT_TRUE(chunkLink);
  for (const std::string device : {"QLT-Echo", "QLT-Chunk"}) {
    for (int size : {65536, 513, 512}) {
      side.ask("notify", device, {{"size", size}});
    }
  }
  ASSERT_TRUE(eventually([&] { return valuesAfter("connect", 3).size() >= 2; }));
  passTime(0);
  for (const auto& e : recorder->events("value")) EXPECT_LE(e.value->length(), 512u);

  // A flood of PropertiesChanged for unknown objects, and properties of types bluetoothd never
  // sends, are not one log line each; the scan and the link go on.
  LogCapture logs;
  ASSERT_TRUE(find("HR-Sensor"));
  central->scanForPeripherals(std::nullopt, {true});
  for (int i = 0; i < 3; ++i) side.ask("wrong-types", "HR-Sensor");
  side.mock({{"op", "flood"}, {"count", 2000}});
  const size_t values = count("value"), reports = count("discover");
  chunk->writeValue(bytes("after the flood"), chunkLink.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder->waitFor("value", values + 1)) << "handled in order, after the flood";
  EXPECT_TRUE(recorder->waitFor("discover", reports + 5)) << "still scanning";
  central->stopScan();
  size_t rssi = 0;
  for (const auto& line : logs.lines())
    rssi += line.find("RSSI of /org/bluez/hci0/dev_C0_FF_EE_00_00_03") != std::string::npos;
  EXPECT_EQ(rssi, 1u);
  EXPECT_LT(logs.lines().size(), 50u);
}

// The adapter asked for by name or address; by default the first powered one, kept while it
// stays powered; one bluetoothd does not have is refused with those it has.
TEST_F(OnBluez, UsesTheAdapterAskedForAndByDefaultTheFirstPoweredOne) {
  const auto inUse = [&] {
    for (const auto& a : central->adapters()) {
      if (a.inUse) return a.name;
    }
    return std::string();
  };
  ASSERT_TRUE(eventually([&] { return central->adapters().size() == 2; }));
  EXPECT_EQ(inUse(), "hci0");
  EXPECT_EQ(central->adapters()[1].address, "00:01:02:03:04:06");
  const auto refused = central->useAdapter("hci7");
  ASSERT_TRUE(refused);
  EXPECT_EQ(
      refused->message,
      "bluetoothd has no adapter hci7 (it has: hci0 00:01:02:03:04:05, hci1 00:01:02:03:04:06)");
  EXPECT_TRUE(eventually([&] { return central->state() == CentralState::Unsupported; }));
  EXPECT_FALSE(central->useAdapter(""));
  EXPECT_TRUE(eventually([&] { return central->state() == CentralState::PoweredOn; }));

  side.mock({{"op", "power-second-adapter"}, {"on", true}});
  side.power(false);
  EXPECT_TRUE(eventually([&] { return inUse() == "hci1"; }));
  EXPECT_EQ(central->state(), CentralState::PoweredOn);
  side.power(true);
  ASSERT_TRUE(eventually([&] { return central->adapters()[0].powered; }));
  EXPECT_EQ(inUse(), "hci1") << "kept while powered";

  EXPECT_FALSE(central->useAdapter("00:01:02:03:04:05"));  // hci0, where the devices are
  EXPECT_TRUE(eventually([&] { return inUse() == "hci0"; }));
  EXPECT_TRUE(find("QLT-Echo"));
}

TEST(BluezIdentifiers, MapAddressesToIdentifiersAndBack) {
  const auto address = bluez::parseAddress("c0:ff:ee:00:00:01");
  ASSERT_TRUE(address);
  EXPECT_EQ(bluez::addressString(*address), "C0:FF:EE:00:00:01");
  const UUID id = bluez::identifierForAddress(*address);
  EXPECT_EQ(id.UUIDString(), "514C5442-5A00-8000-8000-C0FFEE000001");
  EXPECT_EQ(bluez::addressForIdentifier(id), address);
  EXPECT_FALSE(bluez::addressForIdentifier(kNus));
  for (const char* bad :
       {"", "C0:FF:EE:00:00", "C0:FF:EE:00:00:0G", "C0-FF-EE-00-00-01", "C0:FF:EE:00:00:01:"}) {
    EXPECT_FALSE(bluez::parseAddress(bad)) << bad;
  }
}
#endif  // QLT_TESTS_WITHOUT_BLUEZ

// ---- what only the simulated radio does: a seeded air, its faults and its configuration

using OnTheSimulatedRadio = ABackend<Sim>;

TEST_F(OnTheSimulatedRadio, LosesTheSamePacketsForTheSameSeedAndNeverReorders) {
  auto received = [&](uint64_t seed) {
    close();
    side.radio = sim::SimRadio::create(true);
    sim::AirFaults faults;
    faults.seed = seed;
    faults.lostWritesWithoutResponse = 0.2;
    faults.lostNotifications = 0.1;
    side.radio->setFaults(faults);
    recorder->clear();
    open();
    auto p = central->retrievePeripheralsWithIdentifiers({side.id("QLT-Chunk")}).at(0);
    p->setDelegate(recorder);
    Link link = connect(p);
    for (int i = 0; i < 300; ++i)
      p->writeValue(bytes(std::to_string(i)), link.tx, WriteType::WithoutResponse);
    p->writeValue(bytes("end"), link.tx, WriteType::WithResponse);  // never lost, and last
    EXPECT_TRUE(recorder->waitFor("write"));
    std::vector<int> out;
    for (const auto& v : valuesAfter("connect", 1)) {
      if (v != "end") out.push_back(std::stoi(v));
    }
    const auto stats = side.radio->stats(side.id("QLT-Chunk"));
    EXPECT_EQ(stats.writesReceived + stats.writesLost, 301u);
    return out;
  };
  const auto first = received(7), again = received(7), other = received(8);
  EXPECT_EQ(first, again);
  EXPECT_NE(first, other);
  EXPECT_GT(first.size(), 150u);  // about 0.8 x 0.9 of 300
  EXPECT_LT(first.size(), 270u);
  EXPECT_TRUE(std::is_sorted(first.begin(), first.end()));
}

// On a modelled link with errors on the air every value arrives, in order, and the echo
// comes back whole: the link layer repeats what the air lost. Out of range, the link is
// lost when the supervision timeout runs out, not before.
TEST_F(OnTheSimulatedRadio, RepeatsWhatTheAirLosesAndEndsALinkOutOfRangeAfterItsTimeout) {
  sim::LinkParameters air;
  air.intervalMs = 7.5;
  air.phy = sim::Phy::LE2M;
  air.packetErrorRate = 0.2;
  air.supervisionTimeoutMs = 200;
  ASSERT_TRUE(side.radio->setLink(air));
  auto p = central->retrievePeripheralsWithIdentifiers({side.id("QLT-Chunk")}).at(0);
  p->setDelegate(recorder);
  Link link = connect(p);
  std::vector<std::string> sent;
  for (int i = 0; i < 100; ++i) {
    sent.push_back(std::to_string(i));
    p->writeValue(bytes(sent.back()), link.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(recorder->waitFor("value", 100));
  EXPECT_EQ(valuesAfter("connect", 1), sent);
  const auto stats = side.radio->stats(side.id("QLT-Chunk"));
  EXPECT_EQ(stats.writesLost + stats.notificationsLost + stats.notificationsDropped, 0u);

  const auto gone = std::chrono::steady_clock::now();
  side.radio->dropLink(side.id("QLT-Chunk"));
  auto lost = recorder->waitFor("disconnect");
  ASSERT_TRUE(lost && lost->error);
  EXPECT_GE(std::chrono::steady_clock::now() - gone, 190ms) << "the supervision timeout, 200 ms";
}

// Faults of the air that no other suite reaches, with the least each must cost: paced
// writes, a link that drops after so much time, a device that takes one central.
TEST_F(OnTheSimulatedRadio, AppliesEachFaultOfTheAir) {
  auto p = central->retrievePeripheralsWithIdentifiers({side.id("QLT-Chunk")}).at(0);
  p->setDelegate(recorder);
  sim::AirFaults paced, timed;
  paced.writeRateLimit = 200;
  side.radio->setFaults(paced);
  Link link = connect(p);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i)
    p->writeValue(bytes(std::to_string(i)), link.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder->waitFor("value", 20)) << "paced, not lost";
  EXPECT_GE(std::chrono::steady_clock::now() - start, 95ms) << "one write every 5 ms";
  central->cancelPeripheralConnection(p);
  ASSERT_TRUE(recorder->waitFor("disconnect"));

  timed.dropAfterSeconds = 0.05;
  side.radio->setFaults(timed);
  const auto connecting = std::chrono::steady_clock::now();
  central->connect(p);
  ASSERT_TRUE(recorder->waitFor("connect", 2));
  auto lost = recorder->waitFor("disconnect", 2);
  ASSERT_TRUE(lost && lost->error);
  EXPECT_GE(std::chrono::steady_clock::now() - connecting, 50ms);

  side.radio->setFaults({});
  ASSERT_TRUE(connect(p));
  auto otherQueue = DispatchQueue::create("other");
  auto other = std::make_shared<Recorder>();
  auto second = side.backend()->createCentral(other, otherQueue, {});
  ASSERT_TRUE(other->waitFor("state"));
  second->connect(second->retrievePeripheralsWithIdentifiers({side.id("QLT-Chunk")}).at(0));
  EXPECT_TRUE(other->waitFor("fail")) << "one central at a time";
  otherQueue->sync([&] { second.reset(); });
}

TEST_F(OnTheSimulatedRadio, LoadsItsConfigurationAllOrNothing) {
  const std::pair<const char*, const char*> bad[] = {
      {"{", "not valid JSON"},
      {R"({"devcies": []})", "(top level): unknown key \"devcies\""},
      {R"({"devices": [{"name": "x"}]})", "devices[0]: missing \"identifier\""},
      {R"({"devices": [{"identifier": "xyz"}]})", "devices[0].identifier: not a UUID: \"xyz\""},
      {R"({"devices": [{"identifier": "180D"}, {"identifier": "180d"}]})",
       "devices[1].identifier: duplicate identifier"},
      {R"({"faults": {"lostNotifications": 1.5}})", "faults.lostNotifications: out of range"},
      {R"({"devices": [{"identifier": "180D", "manufacturerData": "12G4"}]})",
       "devices[0].manufacturerData: not hexadecimal"},
      {R"({"devices": [{"identifier": "180D", "manufacturerData": {"0x10000": ""}}]})",
       "company identifier"},
      {R"({"devices": [{"identifier": "180D", "serviceData": {"18G": "00"}}]})",
       "serviceData: not a UUID"},
      {R"({"devices": [{"identifier": "180D", "address": "C0:FF:EE:00:00"}]})",
       "address: not a Bluetooth address"},
      {R"({"devices": [{"identifier": "180D", "address": "C0:00:00:00:18:0D"}, {"identifier": "180F", "address": "c0:00:00:00:18:0d"}]})",
       "devices[1].address: duplicate address"},
      {R"({"devices": [{"identifier": "180D", "services": [{"uuid": "180F", "characteristics": [{"uuid": "2A19", "properties": ["fly"]}]}]}]})",
       "devices[0].services[0].characteristics[0].properties[0]: unknown property \"fly\""},
      {R"({"link": {"intervalMs": 5}})",
       "link.intervalMs: 5 is out of range (0 for the instant link, or 7.5 to 4000)"},
      {R"({"link": {"phy": "3M"}})", "link.phy: unknown PHY \"3M\" (1M or 2M)"},
      {R"({"devices": [{"identifier": "180D", "link": {"dataLength": 300}}]})",
       "devices[0].link.dataLength: 300 is out of range (27 to 251)"},
      {R"({"link": {"mtu": 10}})", "link.mtu: 10 is out of range (23 to 517)"},
      {R"({"devices": [{"identifier": "180D", "keepRunning": true}]})",
       "devices[0].keepRunning: goes only with \"behaviour\": \"external\""},
  };
  const size_t devices = side.radio->devices().size();
  for (const auto& [json, expected] : bad) {
    std::string error;
    EXPECT_FALSE(side.radio->loadConfigString(json, &error)) << json;
    EXPECT_NE(error.find(expected), std::string::npos) << json << " gave: " << error;
  }
  EXPECT_EQ(side.radio->devices().size(), devices) << "a refused configuration changes nothing";
  EXPECT_TRUE(side.radio->link().instant()) << "a refused configuration changes nothing";
  std::string error;  // the rest of a device is the tool tests' radio file
  ASSERT_TRUE(side.radio->loadConfigString(R"({"faults": {"connectionIntervalMs": 7.5},
      "link": {"intervalMs": 30, "phy": "2M", "notifyBuffers": 4}, "devices": [
      {"identifier": "51D0E001-0000-4000-8000-000000000001", "manufacturerData": "5900 0102",
       "link": {"dataLength": 27}},
      {"identifier": "51D0E001-0000-4000-8000-000000000002", "address": "aa:bb:cc:dd:ee:ff", "txPower": -4,
       "manufacturerData": {"0x004c": "01", "89": ""}, "serviceData": {"180F": "64"}, "connectable": false}]})",
                                           &error))
      << error;
  auto board = side.radio->device(UUID::literal("51D0E001-0000-4000-8000-000000000001"));
  ASSERT_TRUE(board);
  EXPECT_EQ(board->manufacturerData,
            (std::map<uint16_t, Data>{{0x59, Data(std::vector<uint8_t>{1, 2})}}));
  EXPECT_EQ(board->bluetoothAddress(), "C0:00:00:00:00:01") << "derived from the identifier";
  // A device's link starts from the radio's and changes what it names.
  ASSERT_TRUE(board->link);
  EXPECT_EQ(board->link->intervalMs, 30);
  EXPECT_EQ(board->link->phy, sim::Phy::LE2M);
  EXPECT_EQ(board->link->notifyBuffers, 4u);
  EXPECT_EQ(board->link->dataLength, 27u);
  EXPECT_EQ(side.radio->link().dataLength, 251u);
  auto tag = side.radio->device(UUID::literal("51D0E001-0000-4000-8000-000000000002"));
  ASSERT_TRUE(tag);
  EXPECT_EQ(tag->advertisement(),
            (platform::AdvertisementData{std::nullopt,
                                         {{0x4C, bytes("\x01")}, {0x59, Data()}},
                                         {kNus},
                                         {{UUID::literal("180F"), bytes("d")}},
                                         -4,
                                         false}));
  EXPECT_EQ(tag->bluetoothAddress(), "AA:BB:CC:DD:EE:FF");
  auto p = central->retrievePeripheralsWithIdentifiers({tag->identifier});
  ASSERT_EQ(p.size(), 1u);
  central->connect(p[0]);
  ASSERT_TRUE(recorder->waitFor("fail")) << "a device that is not connectable";
  EXPECT_DOUBLE_EQ(side.radio->faults().connectionInterval, 0.0075);
}

}  // namespace
}  // namespace qlt::test
