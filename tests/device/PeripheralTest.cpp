// QLT_Peripheral's state machine, discovery and data path, on a fake platform peripheral.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/SWTransport.h"
#include "support/FakePlatform.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

using namespace qlt;
using States = std::vector<int32_t>;
const UUID kRx = QLT_UUID::rxCharacteristicUUID(), kTx = QLT_UUID::txCharacteristicUUID();

namespace {

// Holds the main queue while it lives, so that work piles up there.
struct MainQueueGate {
  std::promise<void> open;
  MainQueueGate() {
    DispatchQueue::main()->async([f = open.get_future().share()] { f.wait(); });
  }
  ~MainQueueGate() { open.set_value(); }
};

class APeripheral : public ::testing::Test {
 protected:
  void SetUp() override { follow(fake::FakePeripheral::withNUS()); }
  void follow(std::shared_ptr<fake::FakePeripheral> f) {
    fake = std::move(f);
    peripheral = QLT_Peripheral::create(fake);
    peripheral->multicastDelegate()->addDelegate(app, appQueue);
  }
  // Plays the manager's and the platform's part of one connection.
  void connectAndDiscover(int32_t transportType = 0) {
    peripheral->setTransportType(transportType);
    fake->setState(platform::PeripheralState::Connected);
    peripheral->setState(QLT_PeripheralStateConnected);
    peripheral->discoverServices();
    peripheral->peripheral_didDiscoverServices(fake, std::nullopt);
    for (const auto& s : fake->services())
      peripheral->peripheral_didDiscoverCharacteristicsForService_error(fake, s, std::nullopt);
    if (fake->characteristic(kRx)) confirmNotifications();
  }
  void confirmNotifications() {
    peripheral->peripheral_didUpdateNotificationStateForCharacteristic_error(
        fake, fake->characteristic(kRx), std::nullopt);
  }
  void notify(UUID characteristic, const std::string& value) {
    fake->characteristic(characteristic)->setValue(value);
    peripheral->peripheral_didUpdateValueForCharacteristic_error(
        fake, fake->characteristic(characteristic), std::nullopt);
  }
  std::string written() {
    std::string s;
    for (const auto& w : fake::snapshot(fake->writes)) s += w.data.toString();
    return s;
  }
  void settle() {
    DispatchQueue::main()->sync([] {});
    appQueue->sync([] {});
  }

  std::shared_ptr<fake::FakePeripheral> fake;
  std::shared_ptr<QLT_Peripheral> peripheral;
  std::shared_ptr<test::PeripheralRecorder> app = std::make_shared<test::PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue = DispatchQueue::create("app");
};

}  // namespace

TEST(PeripheralStates, MapPlatformStatesAndHaveDisplayNames) {
  for (auto [platformState, state] : {std::pair{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 9}, {-7, 9}})
    EXPECT_EQ(QLT_Peripheral::convertState(int64_t{platformState}), state);
  EXPECT_EQ(QLT_Peripheral::convertStateToNSString(0), "disconnected");
  EXPECT_EQ(QLT_Peripheral::convertStateToNSString(10), "notSupported");
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(11), "11 is not a peripheral state");
  EXPECT_DEATH(QLT_Peripheral::convertStateToNSString(-1), "-1 is not a peripheral state");
}

TEST_F(APeripheral, StartsInItsPlatformsStateSilentlyAndEqualsWrappersOfTheSameDeviceOnly) {
  auto twin = QLT_Peripheral::create(fake);
  EXPECT_EQ(fake->delegate(), std::static_pointer_cast<platform::PeripheralDelegate>(twin));
  EXPECT_TRUE(peripheral->isEqual(twin));
  EXPECT_TRUE(peripheral->isEqual(std::shared_ptr<platform::Peripheral>(fake)));
  EXPECT_FALSE(peripheral->isEqual(QLT_Peripheral::create(fake::FakePeripheral::create())));
  fake->setState(platform::PeripheralState::Connected);
  EXPECT_EQ(QLT_Peripheral::create(fake)->state(), QLT_PeripheralStateConnected);
  EXPECT_EQ(std::make_tuple(peripheral->state(), peripheral->transportType(), *peripheral->name()),
            std::make_tuple(0, 0, std::string("fake")));
}

TEST_F(APeripheral, DiscoversOnlyTheUartServiceAndAnnouncesEveryStateOnTheAppQueue) {
  std::vector<std::string> labels;  // written on the app queue
  app->onState([&](auto&, int32_t) { labels.push_back(DispatchQueue::currentLabel()); });
  auto other = fake->addService(UUID::literal("180F"));
  other->add(UUID::literal("2A19"), platform::kPropertyRead);
  connectAndDiscover();
  for (int32_t s : {8, 8, 7, 10}) peripheral->setState(s);  // repeats are announced too
  ASSERT_TRUE(app->waitFor("state", 8));
  settle();
  app->onState(nullptr);
  EXPECT_EQ(app->states(), (States{2, 5, 6, 8, 8, 8, 7, 10}));
  EXPECT_EQ(labels, std::vector<std::string>(8, "app"));
  EXPECT_EQ(fake::snapshot(fake->serviceRequests),
            (std::vector<std::optional<std::vector<UUID>>>{{{QLT_UUID::uartServiceUUID()}}}));
  auto services = peripheral->services();
  ASSERT_EQ(services.size(), 2u);
  EXPECT_EQ(services[0]->characteristics().at(0)->name(), "NUS Service Service Characteristic");
  EXPECT_EQ(services[1]->characteristics().at(0)->name(), "SVC Service Characteristic");
  EXPECT_EQ(peripheral->findBLEService(fake->services().front()), services[0]);
}

TEST_F(APeripheral, FailingToConnectEndsTheTransportAndDropsTheServicesAndWrites) {
  connectAndDiscover(1);
  peripheral->setState(QLT_PeripheralStateFailedToConnect);
  settle();
  EXPECT_EQ(app->states().back(), QLT_PeripheralStateFailedToConnect);
  EXPECT_TRUE(peripheral->services().empty());
  peripheral->writeTCPData(Data::fromString("nobody listens"));
  peripheral->writeUDPData(Data::fromString("nor here"));
  settle();  // no transport is left to queue them: nothing is on its way
  EXPECT_EQ(written(), "");
}

TEST_F(APeripheral, ALateDisconnectionNeverTearsDownTheNextConnection) {
  connectAndDiscover(1);
  {
    MainQueueGate gate;
    peripheral->setState(QLT_PeripheralStateDisconnected);  // still queued ...
    peripheral->setState(QLT_PeripheralStateConnecting);
    connectAndDiscover(0);  // ... while the next link is built, with the chunker again
  }
  ASSERT_TRUE(app->waitFor("state", 10));
  EXPECT_EQ(app->states(), (States{2, 5, 6, 8, 0, 1, 2, 5, 6, 8}));
  peripheral->writeTCPData(Data::fromString("still works"));
  EXPECT_TRUE(test::eventually([&] { return written() == "still works"; }));
}

TEST_F(APeripheral, MovesDataBothWaysThroughTheChunkerAndHandsOnRxValuesViaTheMainQueue) {
  std::atomic<int> traced{0};
  peripheral->setFrameTrace([&](bool, const Data&) { traced++; });
  fake->addService(UUID::literal("180F"))->add(UUID::literal("2A19"), platform::kPropertyNotify);
  connectAndDiscover();
  const std::string message = "0123456789abcdefghijKLMNOPQRSTUVWXYZ!@#$%^&*(";  // 45 bytes
  peripheral->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(test::eventually([&] { return written() == message; }));
  auto writes = fake::snapshot(fake->writes);
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[2].characteristic, kTx);
  {
    MainQueueGate gate;  // transport deliveries reach the peripheral on the main queue
    notify(kRx, "a value longer than twenty bytes");
    ASSERT_TRUE(test::eventually([&] { return traced == 4; })) << "the chunker took the value";
    appQueue->sync([] {});
    EXPECT_TRUE(app->tcp().empty());
  }
  peripheral->setFrameTrace(nullptr);
  notify(UUID::literal("2A19"), "battery");  // another service: ignored
  notify(kTx, "tx");                         // a UART characteristic: rx's value again
  ASSERT_TRUE(app->waitForTcpBytes(64));
  settle();
  EXPECT_EQ(app->tcp(), std::vector<Data>(2, Data::fromString("a value longer than twenty bytes")));
  EXPECT_EQ(traced, 4);
  EXPECT_FALSE(peripheral->transportCounters().has_value());
}

// A notification hands its value along: the transport gets that value, not a second read
// of the characteristic, and only from the connection's rx.
TEST_F(APeripheral, HandsTheTransportTheValueANotificationOfRxCarried) {
  connectAndDiscover();  // the chunker passes values on as they came
  fake->characteristic(kRx)->setValue("stale");
  peripheral->peripheral_didReceiveValue(fake, fake->characteristic(kTx), Data::fromString("tx"));
  peripheral->peripheral_didReceiveValue(fake, fake->characteristic(kRx),
                                         Data::fromString("carried"));
  ASSERT_TRUE(app->waitForTcpBytes(7));
  settle();
  EXPECT_EQ(app->tcpJoined(), "carried");
}

TEST_F(APeripheral, SpeaksTheSlidingWindowForAnyOtherTransportTypeAndCountsIt) {
  connectAndDiscover(-3);
  peripheral->writeTCPData(Data::fromString("hello"));
  ASSERT_TRUE(test::eventually([&] { return !written().empty(); }));
  EXPECT_EQ(fake::snapshot(fake->writes).front().data, Data::fromString(std::string("\0hello", 6)));
  EXPECT_EQ(peripheral->transportCounters()->segmentsSent, 1u);
  notify(kRx, std::string("\x00seg", 4));
  notify(kRx, std::string("\x02"
                          "dgram",
                          6));
  ASSERT_TRUE(app->waitFor("udp", 1) && app->waitForTcpBytes(3));
  EXPECT_EQ(app->udp(), std::vector<Data>{Data::fromString("dgram")});
  EXPECT_EQ(app->tcpJoined(), "seg");
}

TEST_F(APeripheral, ANewConfirmationReplacesTheTransportAndEndsTheOldOne) {
  connectAndDiscover(1);
  peripheral->writeTCPData(Data::fromString("old"));  // stays unacknowledged: the old one polls
  ASSERT_TRUE(test::eventually([&] { return !fake::snapshot(fake->writes).empty(); }));
  std::weak_ptr<BaseTransport> old = peripheral->transport();
  confirmNotifications();
  ASSERT_TRUE(app->waitFor("state", 5));
  EXPECT_EQ(app->states().back(), QLT_PeripheralStateReady);
  EXPECT_NE(peripheral->transport(), old.lock());
  // Nothing holds the old transport any more, so nothing is left to poll for its segment.
  EXPECT_TRUE(test::eventually([&] { return old.expired(); })) << "the old transport still runs";
  EXPECT_EQ(peripheral->transportCounters()->bytesQueued, 0u);
}
