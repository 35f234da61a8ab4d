// QLT_Peripheral's state machine and discovery, on a fake platform peripheral.
#include <gtest/gtest.h>

#include <future>

#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/SWTransport.h"
#include "support/FakePlatform.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::fake;

namespace {

void flushMain() {
  DispatchQueue::main()->sync([] {});
}

// Holds the main queue until release() (or destruction), so that states pile up there.
class MainQueueGate {
 public:
  MainQueueGate() {
    auto f = open_.get_future().share();
    DispatchQueue::main()->async([f] { f.wait(); });
  }
  ~MainQueueGate() { release(); }
  void release() {
    if (!released_) open_.set_value();
    released_ = true;
  }

 private:
  std::promise<void> open_;
  bool released_ = false;
};

class APeripheral : public ::testing::Test {
 protected:
  void SetUp() override {
    fake = FakePeripheral::withNUS(nextIdentifier());
    peripheral = QLT_Peripheral::create(fake);
    recorder = std::make_shared<test::PeripheralRecorder>();
    peripheral->multicastDelegate()->addDelegate(recorder, DispatchQueue::create("app"));
  }

  // Plays the platform's part of one connection, as the manager and the platform would.
  void connectAndDiscover() {
    fake->setState(platform::PeripheralState::Connected);
    peripheral->setState(QLT_PeripheralStateConnected);
    peripheral->discoverServices();
    peripheral->peripheral_didDiscoverServices(fake, std::nullopt);
    for (const auto& s : fake->services()) {
      peripheral->peripheral_didDiscoverCharacteristicsForService_error(fake, s, std::nullopt);
    }
    if (auto rx = fake->characteristic(QLT_UUID::rxCharacteristicUUID())) {
      rx->setNotifying(true);
      peripheral->peripheral_didUpdateNotificationStateForCharacteristic_error(fake, rx,
                                                                               std::nullopt);
    }
  }

  std::shared_ptr<FakePeripheral> fake;
  std::shared_ptr<QLT_Peripheral> peripheral;
  std::shared_ptr<test::PeripheralRecorder> recorder;
};

}  // namespace

TEST(PeripheralStates, MapPlatformStatesAndHaveDisplayNames) {
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{0}), 0);
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{1}), 1);
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{2}), 2);
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{3}), 3);
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{4}), 9);
  EXPECT_EQ(QLT_Peripheral::convertState(int64_t{-7}), 9);
  const std::vector<std::string> names = {"disconnected",
                                          "connecting",
                                          "connected",
                                          "disconnecting",
                                          "failedToConnect",
                                          "discoveringServices",
                                          "discoveringCharacteristics",
                                          "unavailable",
                                          "ready",
                                          "dfuInProgress",
                                          "notSupported"};
  for (int32_t i = 0; i < 11; ++i) EXPECT_EQ(QLT_Peripheral::convertStateToNSString(i), names[i]);
}

TEST(PeripheralStatesDeathTest, AnOutOfRangeStateFailsLoudly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(11), "11 is not a peripheral state");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(-1), "-1 is not a peripheral state");
}

TEST_F(APeripheral, StartsInItsPlatformsStateSilentlyAndBecomesItsDelegate) {
  auto connected = FakePeripheral::withNUS(nextIdentifier());
  connected->setState(platform::PeripheralState::Connected);
  auto p = QLT_Peripheral::create(connected);
  EXPECT_EQ(p->state(), 2);
  EXPECT_EQ(peripheral->state(), 0);
  EXPECT_EQ(fake->delegate(), std::static_pointer_cast<platform::PeripheralDelegate>(peripheral));
  EXPECT_EQ(peripheral->transportType(), 0);
  EXPECT_EQ(peripheral->name(), std::optional<std::string>("fake"));
  flushMain();
  EXPECT_TRUE(recorder->states().empty());
}

TEST_F(APeripheral, RunsDiscoveryToReadyAskingForTheUartServiceOnly) {
  test::LogCapture log;
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{2, 5, 6, 8}));
  EXPECT_TRUE(peripheral->ready());
  auto requests = fake->serviceRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(*requests[0], std::vector<UUID>{QLT_UUID::uartServiceUUID()});
  auto services = peripheral->services();
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0]->name(), "NUS Service");
  for (const auto& c : services[0]->characteristics()) {
    EXPECT_EQ(c->name(), "NUS Service Service Characteristic");
  }
  EXPECT_EQ(peripheral->findBLEService(fake->services().front()), services[0]);
  for (const char* line :
       {"P state = 2", "Discover service : 0", "Did discover services", "Did discover chars",
        "RX found", "TX found", "Did update notification state value for ch",
        "Peripheral state : ready"}) {
    EXPECT_TRUE(log.contains(line)) << line;
  }
}

TEST_F(APeripheral, WithoutTheUartServiceEndsInDfuInProgress) {
  fake = FakePeripheral::create(nextIdentifier());
  peripheral = QLT_Peripheral::create(fake);
  peripheral->multicastDelegate()->addDelegate(recorder, DispatchQueue::create("app"));
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(9));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{2, 5, 9}));
  EXPECT_TRUE(peripheral->services().empty());
  EXPECT_TRUE(fake->characteristicRequests().empty());
}

TEST_F(APeripheral, WrapsOtherServicesAsSvcAndMayAnnounceDiscoveringCharacteristicsPerService) {
  auto other = fake->addService(UUID::literal("180F"));
  fake->addCharacteristic(other, UUID::literal("2A19"), platform::kPropertyRead);
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  auto services = peripheral->services();
  ASSERT_EQ(services.size(), 2u);
  EXPECT_EQ(services[1]->name(), "SVC");
  EXPECT_EQ(services[1]->characteristics().at(0)->name(), "SVC Service Characteristic");
  EXPECT_EQ(fake->characteristicRequests().size(), 2u);
  std::string why;
  EXPECT_TRUE(test::isLegalStateSequence(recorder->states(), 1, &why)) << why;
}

TEST_F(APeripheral, AnnouncesEverySetStateInOrderRepeatsIncluded) {
  for (int32_t s : {0, 0, 1, 1, 7, 10}) peripheral->setState(s);
  ASSERT_TRUE(recorder->waitForStateCount(6));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{0, 0, 1, 1, 7, 10}));
  EXPECT_EQ(peripheral->state(), 10);
}

TEST_F(APeripheral, FailingToConnectDropsServicesAfterTellingTheDelegates) {
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  // The delegate looks at the services from inside the callback for state 4.
  std::promise<size_t> seen;
  recorder->onState([&](const std::shared_ptr<QLT_Peripheral>& p, int32_t s) {
    if (s == 4) seen.set_value(p->services().size());
  });
  MainQueueGate gate;  // the callback is queued before the teardown can run
  peripheral->setState(QLT_PeripheralStateFailedToConnect);
  gate.release();
  flushMain();
  EXPECT_TRUE(peripheral->services().empty());
  EXPECT_FALSE(peripheral->ready());
  auto f = seen.get_future();
  ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  recorder->onState(nullptr);
}

TEST_F(APeripheral, ALateDisconnectionNeverTearsDownTheNextConnection) {
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  {
    MainQueueGate gate;
    peripheral->setState(QLT_PeripheralStateDisconnected);  // still queued ...
    peripheral->setState(QLT_PeripheralStateConnecting);
    connectAndDiscover();  // ... while the next link is built
    gate.release();
  }
  flushMain();
  ASSERT_TRUE(recorder->waitForStateCount(10));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{2, 5, 6, 8, 0, 1, 2, 5, 6, 8}));
  EXPECT_EQ(peripheral->services().size(), 1u);
  EXPECT_TRUE(peripheral->ready());
}

TEST_F(APeripheral, IgnoresDiscoveryResultsThatArriveAfterTheLinkWentDown) {
  test::LogCapture log;
  fake->setState(platform::PeripheralState::Connected);
  peripheral->setState(QLT_PeripheralStateConnected);
  peripheral->discoverServices();
  peripheral->setState(QLT_PeripheralStateDisconnected);  // the link dropped meanwhile
  peripheral->peripheral_didDiscoverServices(fake, std::nullopt);
  peripheral->peripheral_didUpdateNotificationStateForCharacteristic_error(
      fake, fake->characteristic(QLT_UUID::rxCharacteristicUUID()), std::nullopt);
  flushMain();
  ASSERT_TRUE(recorder->waitForStateCount(3));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{2, 5, 0}));
  EXPECT_TRUE(peripheral->services().empty());
  auto lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
    return l.rfind("Ignoring services discovered after the link went down : <QLT_Peripheral", 0) ==
           0;
  }));
}

TEST_F(APeripheral, DroppedByTheApplicationStillDeliversWhatWasQueuedThenGoes) {
  std::weak_ptr<QLT_Peripheral> weak = peripheral;
  {
    MainQueueGate gate;
    peripheral->setState(QLT_PeripheralStateConnecting);
    peripheral->setState(QLT_PeripheralStateFailedToConnect);
    peripheral.reset();
    EXPECT_FALSE(weak.expired());  // the queued states hold it
    gate.release();
  }
  ASSERT_TRUE(recorder->waitForStateCount(2));
  EXPECT_EQ(recorder->states(), (std::vector<int32_t>{1, 4}));
  EXPECT_TRUE(test::eventually([&] { return weak.expired(); }));
  EXPECT_EQ(fake->delegate(), nullptr);
}

TEST_F(APeripheral, EqualsWrappersOfTheSameDeviceOnly) {
  auto twin = QLT_Peripheral::create(fake);
  auto other = QLT_Peripheral::create(FakePeripheral::create(nextIdentifier()));
  EXPECT_TRUE(peripheral->isEqual(std::shared_ptr<platform::Peripheral>(fake)));
  EXPECT_TRUE(peripheral->isEqual(twin));
  EXPECT_FALSE(peripheral->isEqual(other));
  EXPECT_FALSE(peripheral->isEqual(std::shared_ptr<QLT_Peripheral>()));
  EXPECT_EQ(fake->delegate(), std::static_pointer_cast<platform::PeripheralDelegate>(twin));
}

// ---- data path ----

namespace {

// Feeds one notified value on `c`, as the platform does.
void notify(const std::shared_ptr<QLT_Peripheral>& p, const std::shared_ptr<FakePeripheral>& fake,
            const std::shared_ptr<FakeCharacteristic>& c, const std::string& value) {
  c->setValue(Data::fromString(value));
  p->peripheral_didUpdateValueForCharacteristic_error(fake, c, std::nullopt);
}

std::string joinedWrites(const std::shared_ptr<FakePeripheral>& fake) {
  std::string s;
  for (const auto& w : fake->writes()) s += w.data.toString();
  return s;
}

}  // namespace

TEST_F(APeripheral, BuildsTheTransportThatItsTransportTypeSelects) {
  EXPECT_NE(std::dynamic_pointer_cast<NUSTransport>(peripheral->createTransport()), nullptr);
  peripheral->setTransportType(1);
  EXPECT_NE(std::dynamic_pointer_cast<SWTransport>(peripheral->createTransport()), nullptr);
  peripheral->setTransportType(-3);
  EXPECT_NE(std::dynamic_pointer_cast<SWTransport>(peripheral->createTransport()), nullptr);
}

TEST_F(APeripheral, MovesDataBothWaysThroughTheChunkingTransport) {
  std::vector<std::pair<bool, std::string>> trace;
  std::mutex traceMutex;
  peripheral->setFrameTrace([&](bool out, const Data& d) {
    std::lock_guard lock(traceMutex);
    trace.emplace_back(out, d.toString());
  });
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  EXPECT_FALSE(peripheral->transportCounters().has_value());

  const std::string message = "0123456789abcdefghijKLMNOPQRSTUVWXYZ!@#$%^&*(";  // 45 bytes
  peripheral->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(test::eventually([&] { return fake->writes().size() >= 3; }));
  auto writes = fake->writes();
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[0].data.length(), 20u);
  EXPECT_EQ(writes[2].data.length(), 5u);
  EXPECT_EQ(writes[0].characteristic, QLT_UUID::txCharacteristicUUID());
  EXPECT_EQ(joinedWrites(fake), message);

  notify(peripheral, fake, fake->characteristic(QLT_UUID::rxCharacteristicUUID()),
         "a value longer than twenty bytes");
  ASSERT_TRUE(recorder->waitForTcpBytes(32));
  EXPECT_EQ(recorder->tcpJoined(), "a value longer than twenty bytes");
  std::lock_guard lock(traceMutex);
  EXPECT_EQ(trace.size(), 4u);
  EXPECT_EQ(trace.back(), std::make_pair(false, std::string("a value longer than twenty bytes")));
}

TEST_F(APeripheral, PassesOnlyUartNotificationsToItsTransport) {
  auto other = fake->addService(UUID::literal("180F"));
  auto battery = fake->addCharacteristic(other, UUID::literal("2A19"), platform::kPropertyNotify);
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  notify(peripheral, fake, battery, "battery");
  notify(peripheral, fake, fake->characteristic(QLT_UUID::rxCharacteristicUUID()), "uart");
  ASSERT_TRUE(recorder->waitForTcpBytes(4));
  flushMain();
  EXPECT_EQ(recorder->tcpJoined(), "uart");
}

TEST_F(APeripheral, SpeaksTheSlidingWindowWhenAskedAndCountsIt) {
  peripheral->setTransportType(1);
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  peripheral->writeTCPData(Data::fromString("hello"));
  ASSERT_TRUE(test::eventually([&] { return !fake->writes().empty(); }));
  auto first = fake->writes().front().data;
  ASSERT_EQ(first.length(), 6u);
  EXPECT_EQ(first[0], 0x00);  // segment 0
  auto counters = peripheral->transportCounters();
  ASSERT_TRUE(counters.has_value());
  EXPECT_GE(counters->segmentsSent, 1u);

  // The device sends segment 0 and a datagram; both reach the application.
  auto rx = fake->characteristic(QLT_UUID::rxCharacteristicUUID());
  notify(peripheral, fake, rx, std::string("\x00", 1) + "seg");
  notify(peripheral, fake, rx, std::string("\x02", 1) + "dgram");
  ASSERT_TRUE(recorder->waitForUdp(1));
  ASSERT_TRUE(recorder->waitForTcpBytes(3));
  EXPECT_EQ(recorder->udp().front().toString(), "dgram");
  EXPECT_EQ(recorder->tcpJoined(), "seg");
}

TEST_F(APeripheral, ANewConfirmationReplacesAndStopsTheOldTransport) {
  peripheral->setTransportType(1);
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  peripheral->writeTCPData(Data::fromString("old"));  // stays unacknowledged: polls would follow
  ASSERT_TRUE(test::eventually([&] { return !fake->writes().empty(); }));
  peripheral->peripheral_didUpdateNotificationStateForCharacteristic_error(
      fake, fake->characteristic(QLT_UUID::rxCharacteristicUUID()), std::nullopt);
  ASSERT_TRUE(recorder->waitForStateCount(5));
  EXPECT_EQ(recorder->states().back(), 8);
  // The new transport has nothing queued; the old one is stopped, so no poll ever follows.
  const size_t before = fake->writes().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(fake->writes().size(), before);
}

TEST_F(APeripheral, DropsWritesOnceDisconnected) {
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(8));
  peripheral->setState(QLT_PeripheralStateDisconnected);
  flushMain();
  EXPECT_TRUE(peripheral->services().empty());
  peripheral->writeTCPData(Data::fromString("nobody listens"));
  peripheral->writeUDPData(Data::fromString("nor here"));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(fake->writes().empty());
}
