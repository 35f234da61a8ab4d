// QLT_Peripheral's state machine, discovery and data path, on a fake platform peripheral.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/SWTransport.h"
#include "support/FakePlatform.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::fake;
using States = std::vector<int32_t>;

namespace {

void flushMain() { DispatchQueue::main()->sync([] {}); }

// Holds the main queue until release() (or destruction), so that work piles up there.
class MainQueueGate {
 public:
  MainQueueGate() { DispatchQueue::main()->async([f = open_.get_future().share()] { f.wait(); }); }
  ~MainQueueGate() { release(); }
  void release() {
    if (!released_) open_.set_value();
    released_ = true;
  }

 private:
  std::promise<void> open_;
  bool released_ = false;
};

// Threads running a transport's loop.
size_t workerThreads() {
  size_t n = 0;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(e.path() / "comm"), name);
    n += name == "qlt.worker";
  }
  return n;
}

class APeripheral : public ::testing::Test {
 protected:
  void SetUp() override { follow(FakePeripheral::withNUS()); }
  void follow(std::shared_ptr<FakePeripheral> f) {
    fake = std::move(f);
    peripheral = QLT_Peripheral::create(fake);
    peripheral->multicastDelegate()->addDelegate(recorder, appQueue);
  }
  // Plays the platform's part of one connection, as the manager and the platform would.
  void connectAndDiscover() {
    fake->setState(platform::PeripheralState::Connected);
    peripheral->setState(QLT_PeripheralStateConnected);
    peripheral->discoverServices();
    peripheral->peripheral_didDiscoverServices(fake, std::nullopt);
    for (const auto& s : fake->services())
      peripheral->peripheral_didDiscoverCharacteristicsForService_error(fake, s, std::nullopt);
    if (auto rx = fake->characteristic(QLT_UUID::rxCharacteristicUUID())) confirmNotifications();
  }
  void confirmNotifications() {
    peripheral->peripheral_didUpdateNotificationStateForCharacteristic_error(
        fake, fake->characteristic(QLT_UUID::rxCharacteristicUUID()), std::nullopt);
  }
  void readyWith(int32_t transportType) {
    peripheral->setTransportType(transportType);
    connectAndDiscover();
    ASSERT_TRUE(recorder->waitForState(QLT_PeripheralStateReady));
  }
  // One notified value on characteristic `uuid`, as the platform delivers it.
  void notify(UUID uuid, const std::string& value) {
    auto c = fake->characteristic(uuid);
    c->setValue(Data::fromString(value));
    peripheral->peripheral_didUpdateValueForCharacteristic_error(fake, c, std::nullopt);
  }
  std::string written() {
    std::string s;
    for (const auto& w : fake->snapshot(fake->writes)) s += w.data.toString();
    return s;
  }

  std::shared_ptr<FakePeripheral> fake;
  std::shared_ptr<QLT_Peripheral> peripheral;
  std::shared_ptr<test::PeripheralRecorder> recorder = std::make_shared<test::PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue = DispatchQueue::create("app");
};

}  // namespace

TEST(PeripheralStates, MapPlatformStatesAndHaveDisplayNames) {
  const std::pair<int64_t, int32_t> mapped[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 9}, {-7, 9}};
  for (auto [platformState, state] : mapped)
    EXPECT_EQ(QLT_Peripheral::convertState(platformState), state) << platformState;
  const char* names[] = {"disconnected", "connecting",  "connected",  "disconnecting",
                         "failedToConnect", "discoveringServices", "discoveringCharacteristics",
                         "unavailable",  "ready",       "dfuInProgress", "notSupported"};
  for (int32_t i = 0; i < 11; ++i) EXPECT_EQ(QLT_Peripheral::convertStateToNSString(i), names[i]);
}

TEST(PeripheralStatesDeathTest, AnOutOfRangeStateFailsLoudly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(11), "11 is not a peripheral state");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(-1), "-1 is not a peripheral state");
}

TEST_F(APeripheral, StartsInItsPlatformsStateSilentlyAndBecomesItsDelegate) {
  auto connected = FakePeripheral::withNUS();
  connected->setState(platform::PeripheralState::Connected);
  EXPECT_EQ(QLT_Peripheral::create(connected)->state(), QLT_PeripheralStateConnected);
  EXPECT_EQ(peripheral->state(), QLT_PeripheralStateDisconnected);
  EXPECT_EQ(fake->delegate(), std::static_pointer_cast<platform::PeripheralDelegate>(peripheral));
  EXPECT_EQ(peripheral->transportType(), 0);
  EXPECT_EQ(peripheral->name(), std::optional<std::string>("fake"));
  flushMain();
  appQueue->sync([] {});
  EXPECT_TRUE(recorder->states().empty());
}

TEST_F(APeripheral, RunsDiscoveryToReadyAskingForTheUartServiceOnlyAndAnnouncesOnTheAppQueue) {
  std::vector<std::string> labels;  // written on the app queue
  recorder->onState([&](auto&, int32_t) { labels.push_back(DispatchQueue::currentLabel()); });
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(QLT_PeripheralStateReady));
  EXPECT_EQ(recorder->states(), (States{2, 5, 6, 8}));
  appQueue->sync([] {});
  EXPECT_EQ(labels, std::vector<std::string>(4, "app"));
  recorder->onState(nullptr);
  EXPECT_TRUE(peripheral->ready());
  auto requests = fake->snapshot(fake->serviceRequests);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(*requests[0], std::vector<UUID>{QLT_UUID::uartServiceUUID()});
  auto services = peripheral->services();
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0]->name(), "NUS Service");
  EXPECT_EQ(services[0]->characteristics().at(0)->name(), "NUS Service Service Characteristic");
  EXPECT_EQ(peripheral->findBLEService(fake->services().front()), services[0]);
}

TEST_F(APeripheral, WrapsOtherServicesAsSvcAndWithoutTheUartServiceEndsInDfuInProgress) {
  auto other = fake->addService(UUID::literal("180F"));
  fake->addCharacteristic(other, UUID::literal("2A19"), platform::kPropertyRead);
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(QLT_PeripheralStateReady));
  auto services = peripheral->services();
  ASSERT_EQ(services.size(), 2u);
  EXPECT_EQ(services[1]->name(), "SVC");
  EXPECT_EQ(services[1]->characteristics().at(0)->name(), "SVC Service Characteristic");
  EXPECT_EQ(fake->snapshot(fake->characteristicRequests).size(), 2u);

  recorder->clear();
  follow(FakePeripheral::create());
  connectAndDiscover();
  ASSERT_TRUE(recorder->waitForState(QLT_PeripheralStateDfuInProgress));
  EXPECT_EQ(recorder->states(), (States{2, 5, 9}));
  EXPECT_TRUE(peripheral->services().empty());
  EXPECT_TRUE(fake->snapshot(fake->characteristicRequests).empty());
}

TEST_F(APeripheral, AnnouncesEverySetStateInOrderRepeatsIncluded) {
  for (int32_t s : {0, 0, 1, 1, 7, 10, 10}) peripheral->setState(s);
  ASSERT_TRUE(recorder->waitForStateCount(7));
  EXPECT_EQ(recorder->states(), (States{0, 0, 1, 1, 7, 10, 10}));
  EXPECT_EQ(peripheral->state(), 10);
}

TEST_F(APeripheral, FailingToConnectDropsServicesAfterTellingTheDelegates) {
  readyWith(0);
  std::promise<size_t> seen;  // the delegate looks at the services from inside the callback
  recorder->onState([&](const std::shared_ptr<QLT_Peripheral>& p, int32_t s) {
    if (s == QLT_PeripheralStateFailedToConnect) seen.set_value(p->services().size());
  });
  {
    MainQueueGate gate;  // the callback is queued before the teardown can run
    peripheral->setState(QLT_PeripheralStateFailedToConnect);
  }
  flushMain();
  EXPECT_TRUE(peripheral->services().empty());
  EXPECT_FALSE(peripheral->ready());
  auto f = seen.get_future();
  ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(f.get(), 1u);
  recorder->onState(nullptr);
}

TEST_F(APeripheral, ALateDisconnectionNeverTearsDownTheNextConnection) {
  readyWith(0);
  {
    MainQueueGate gate;
    peripheral->setState(QLT_PeripheralStateDisconnected);  // still queued ...
    peripheral->setState(QLT_PeripheralStateConnecting);
    connectAndDiscover();  // ... while the next link is built
  }
  ASSERT_TRUE(recorder->waitForStateCount(10));
  EXPECT_EQ(recorder->states(), (States{2, 5, 6, 8, 0, 1, 2, 5, 6, 8}));
  EXPECT_EQ(peripheral->services().size(), 1u);
  peripheral->writeTCPData(Data::fromString("still works"));
  EXPECT_TRUE(test::eventually([&] { return written() == "still works"; }));
}

TEST_F(APeripheral, IgnoresDiscoveryResultsThatArriveAfterTheLinkWentDown) {
  fake->setState(platform::PeripheralState::Connected);
  peripheral->setState(QLT_PeripheralStateConnected);
  peripheral->discoverServices();
  peripheral->setState(QLT_PeripheralStateDisconnected);  // the link dropped meanwhile
  peripheral->peripheral_didDiscoverServices(fake, std::nullopt);
  confirmNotifications();
  ASSERT_TRUE(recorder->waitForStateCount(3));
  flushMain();
  EXPECT_EQ(recorder->states(), (States{2, 5, 0}));
  EXPECT_TRUE(peripheral->services().empty());
  EXPECT_TRUE(test::eventually([] { return workerThreads() == 0; })) << "a transport started";
}

TEST_F(APeripheral, DroppedByTheApplicationStillDeliversWhatWasQueuedThenGoes) {
  std::weak_ptr<QLT_Peripheral> weak = peripheral;
  {
    MainQueueGate gate;
    peripheral->setState(QLT_PeripheralStateConnecting);
    peripheral->setState(QLT_PeripheralStateFailedToConnect);
    peripheral.reset();
    EXPECT_FALSE(weak.expired());  // the queued states hold it
  }
  ASSERT_TRUE(recorder->waitForStateCount(2));
  EXPECT_EQ(recorder->states(), (States{1, 4}));
  EXPECT_TRUE(test::eventually([&] { return weak.expired(); }));
  EXPECT_EQ(fake->delegate(), nullptr);
}

TEST_F(APeripheral, EqualsWrappersOfTheSameDeviceOnly) {
  auto twin = QLT_Peripheral::create(fake);
  EXPECT_TRUE(peripheral->isEqual(std::shared_ptr<platform::Peripheral>(fake)));
  EXPECT_TRUE(peripheral->isEqual(twin));
  EXPECT_FALSE(peripheral->isEqual(QLT_Peripheral::create(FakePeripheral::create())));
  EXPECT_FALSE(peripheral->isEqual(std::shared_ptr<QLT_Peripheral>()));
  EXPECT_EQ(fake->delegate(), std::static_pointer_cast<platform::PeripheralDelegate>(twin));
}

TEST_F(APeripheral, BuildsTheTransportThatItsTransportTypeSelects) {
  auto built = [&](int32_t type) {
    peripheral->setTransportType(type);
    return peripheral->createTransport();
  };
  EXPECT_TRUE(std::dynamic_pointer_cast<NUSTransport>(built(0)));
  EXPECT_TRUE(std::dynamic_pointer_cast<SWTransport>(built(1)));
  EXPECT_TRUE(std::dynamic_pointer_cast<SWTransport>(built(-3)));
  EXPECT_TRUE(std::dynamic_pointer_cast<NUSTransport>(built(0)));
}

TEST_F(APeripheral, MovesDataBothWaysThroughTheChunkingTransportViaTheMainQueue) {
  std::vector<std::pair<bool, std::string>> trace;
  std::mutex traceMutex;
  peripheral->setFrameTrace([&](bool out, const Data& d) {
    std::lock_guard lock(traceMutex);
    trace.emplace_back(out, d.toString());
  });
  readyWith(0);
  EXPECT_FALSE(peripheral->transportCounters().has_value());
  const std::string message = "0123456789abcdefghijKLMNOPQRSTUVWXYZ!@#$%^&*(";  // 45 bytes
  peripheral->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(test::eventually([&] { return written() == message; }));
  auto writes = fake->snapshot(fake->writes);
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[2].data.length(), 5u);
  EXPECT_EQ(writes[0].characteristic, QLT_UUID::txCharacteristicUUID());
  {
    MainQueueGate gate;  // transport deliveries reach the peripheral on the main queue
    notify(QLT_UUID::rxCharacteristicUUID(), "a value longer than twenty bytes");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(recorder->tcp().empty());
  }
  ASSERT_TRUE(recorder->waitForTcpBytes(32));
  EXPECT_EQ(recorder->tcpJoined(), "a value longer than twenty bytes");
  peripheral->setFrameTrace(nullptr);
  notify(QLT_UUID::rxCharacteristicUUID(), "untraced");
  ASSERT_TRUE(recorder->waitForTcpBytes(40));
  std::lock_guard lock(traceMutex);
  EXPECT_EQ(trace.size(), 4u);
  EXPECT_EQ(trace.back(), std::make_pair(false, std::string("a value longer than twenty bytes")));
}

TEST_F(APeripheral, HandsOnTheRxValueForAnyUartUpdateAndNothingForOtherServices) {
  auto battery = fake->addCharacteristic(fake->addService(UUID::literal("180F")),
                                         UUID::literal("2A19"), platform::kPropertyNotify);
  readyWith(0);
  battery->setValue(Data::fromString("battery"));
  peripheral->peripheral_didUpdateValueForCharacteristic_error(fake, battery, std::nullopt);
  notify(QLT_UUID::rxCharacteristicUUID(), "rx");
  notify(QLT_UUID::txCharacteristicUUID(), "tx");  // hands on rx's value again
  ASSERT_TRUE(recorder->waitForTcpBytes(4));
  flushMain();
  appQueue->sync([] {});
  EXPECT_EQ(recorder->tcp(), (std::vector<Data>{Data::fromString("rx"), Data::fromString("rx")}));
}

TEST_F(APeripheral, SpeaksTheSlidingWindowWhenAskedAndCountsIt) {
  readyWith(1);
  peripheral->writeTCPData(Data::fromString("hello"));
  ASSERT_TRUE(test::eventually([&] { return !written().empty(); }));
  EXPECT_EQ(fake->snapshot(fake->writes).front().data, Data::fromString(std::string("\0hello", 6)));
  auto counters = peripheral->transportCounters();
  ASSERT_TRUE(counters.has_value());
  EXPECT_GE(counters->segmentsSent, 1u);
  // The device sends segment 0 and a datagram; both reach the application.
  notify(QLT_UUID::rxCharacteristicUUID(), std::string("\x00seg", 4));
  notify(QLT_UUID::rxCharacteristicUUID(), std::string("\x02" "dgram", 6));
  ASSERT_TRUE(recorder->waitForUdp(1));
  ASSERT_TRUE(recorder->waitForTcpBytes(3));
  EXPECT_EQ(recorder->udp().front().toString(), "dgram");
  EXPECT_EQ(recorder->tcpJoined(), "seg");
}

TEST_F(APeripheral, ANewConfirmationReplacesTheTransportAndEndsTheOldOnesThread) {
  readyWith(1);
  peripheral->writeTCPData(Data::fromString("old"));  // stays unacknowledged: the old one polls
  ASSERT_TRUE(test::eventually([&] { return !written().empty(); }));
  ASSERT_TRUE(test::eventually([] { return workerThreads() == 1; }));
  confirmNotifications();
  ASSERT_TRUE(recorder->waitForStateCount(5));
  EXPECT_EQ(recorder->states().back(), QLT_PeripheralStateReady);
  EXPECT_TRUE(test::eventually([] { return workerThreads() == 1; }, std::chrono::seconds(5)))
      << workerThreads() << " transport threads run";
  EXPECT_EQ(peripheral->transportCounters()->bytesQueued, 0u);
}

TEST_F(APeripheral, DropsWritesOnceDisconnectedAndEndsItsTransport) {
  readyWith(1);
  peripheral->setState(QLT_PeripheralStateDisconnected);
  flushMain();
  EXPECT_TRUE(peripheral->services().empty());
  peripheral->writeTCPData(Data::fromString("nobody listens"));
  peripheral->writeUDPData(Data::fromString("nor here"));
  EXPECT_TRUE(test::eventually([] { return workerThreads() == 0; }));
  EXPECT_TRUE(fake->snapshot(fake->writes).empty());
}
