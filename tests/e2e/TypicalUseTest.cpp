// The library end to end on the simulated radio, in the order an application uses it.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/SimWorld.h"

using namespace qlt;
using namespace qlt::e2e;
using sim::SimBehaviour;

TEST(OnTheSimulatedRadio, PoweringOnAnnouncesReadyThenIdle) {
  SimWorld world(/*poweredOn=*/false);
  EXPECT_EQ(world.manager->state(), QLT_BLEManagerStateUnavailable);
  EXPECT_FALSE(world.manager->powerState());
  world.radio->setPowered(true);
  ASSERT_TRUE(world.app->waitForManagerState(QLT_BLEManagerStateIdle));
  EXPECT_EQ(world.app->managerStates(), (std::vector<int32_t>{0, 1}));
  EXPECT_TRUE(world.manager->powerState());

  world.radio->setPowered(false);
  ASSERT_TRUE(world.app->waitForManagerState(QLT_BLEManagerStateUnavailable));
  EXPECT_EQ(world.app->managerStates(), (std::vector<int32_t>{0, 1, 3}));
}

TEST(OnTheSimulatedRadio, DiscoveryStartsOnlyWhenIdleAndTheFilterKeepsOneNamedDevice) {
  SimWorld world;
  world.radio->addDevice(device("E2E-Keep", SimBehaviour::SwEcho));
  world.radio->addDevice(device("E2E-Other", SimBehaviour::SwEcho));
  std::atomic<int> filterCalls{0};
  world.manager->startDiscover([&](const std::shared_ptr<platform::Peripheral>&,
                                   const std::optional<std::string>& name,
                                   const platform::AdvertisementData&, int) {
    ++filterCalls;
    EXPECT_TRUE(world.manager->centralQueue()->isCurrent());
    return name == std::string("E2E-Keep");
  });
  EXPECT_EQ(world.manager->state(), QLT_BLEManagerStateScanning);
  world.manager->startDiscover();  // already scanning: ignored, the filter stays
  ASSERT_TRUE(world.app->waitForDiscoveries(12));
  world.manager->stopDiscover();
  EXPECT_EQ(world.manager->state(), QLT_BLEManagerStateIdle);

  auto found = world.app->discovered();
  std::set<int32_t> rssi;
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i], found[0]) << "the same wrapper every time";
    rssi.insert(world.app->discoveredRSSI()[i]);
  }
  EXPECT_EQ(found[0]->name(), std::optional<std::string>("E2E-Keep"));
  EXPECT_GT(rssi.size(), 1u) << "RSSI is refreshed";
  EXPECT_GT(filterCalls.load(), 12);
  ASSERT_TRUE(world.app->waitForManagerState(QLT_BLEManagerStateIdle));
  EXPECT_EQ(world.app->managerStates(), (std::vector<int32_t>{2, 1}));
}

TEST(OnTheSimulatedRadio, ConnectsToReadyEchoesMessagesAndDatagramsAndDisconnects) {
  SimWorld world;
  auto p = world.find(device("E2E-Echo", SimBehaviour::SwEcho));
  world.follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(world.connectReady(p));
  EXPECT_EQ(world.app->states(), (std::vector<int32_t>{1, 2, 5, 6, 8}));
  EXPECT_TRUE(p->ready());

  const std::string message = pattern(10 * 1024);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(world.app->waitForTcpBytes(message.size()));
  EXPECT_EQ(world.app->tcpJoined(), message);
  for (const auto& payload : world.app->tcp()) EXPECT_LE(payload.length(), 120u);

  p->writeUDPData(Data::fromString("a datagram"));
  ASSERT_TRUE(world.app->waitForUdp(1));
  EXPECT_EQ(world.app->udp().front().toString(), "a datagram");
  ASSERT_TRUE(p->transportCounters().has_value());

  world.manager->disconnect(p);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(world.app->states(), (std::vector<int32_t>{1, 2, 5, 6, 8, 3, 0}));
  DispatchQueue::main()->sync([] {});
  EXPECT_FALSE(p->transportCounters().has_value()) << "the transport is stopped and dropped";
  EXPECT_TRUE(p->services().empty());
}

TEST(OnTheSimulatedRadio, TheChunkingTransportEchoesThroughAPlainDevice) {
  SimWorld world;
  auto p = world.find(device("E2E-Chunk", SimBehaviour::ChunkEcho));
  world.follow(p);
  p->setTransportType(0);
  ASSERT_TRUE(world.connectReady(p));
  const std::string message = pattern(1000, 3);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(world.app->waitForTcpBytes(message.size()));
  EXPECT_EQ(world.app->tcpJoined(), message);
  for (const auto& payload : world.app->tcp()) EXPECT_LE(payload.length(), 20u);
  EXPECT_FALSE(p->transportCounters().has_value());
}

TEST(OnTheSimulatedRadio,
     EndsInDfuWithoutTheUartServiceInDisconnectedWhenTheLinkDropsAndInFailedToConnect) {
  SimWorld world;
  auto hr = device("E2E-HR", SimBehaviour::None);
  hr.services = {sim::SimServiceConfig::heartRate()};
  auto p = world.find(hr);
  world.follow(p);
  world.manager->connect(p);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDfuInProgress));
  EXPECT_EQ(world.app->states(), (std::vector<int32_t>{1, 2, 5, 9}));
  world.manager->disconnect(p);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));

  auto echoConfig = device("E2E-Drop", SimBehaviour::SwEcho);
  auto q = world.find(echoConfig);
  world.follow(q);
  ASSERT_TRUE(world.connectReady(q));
  world.radio->dropLink(echoConfig.identifier);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(world.app->states(), (std::vector<int32_t>{1, 2, 5, 6, 8, 0}));

  auto failing = device("E2E-Fail", SimBehaviour::SwEcho);
  sim::AirFaults faults;
  faults.connectFailure = 1.0;
  failing.faults = faults;
  auto r = world.find(failing);
  world.follow(r);
  world.manager->connect(r);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateFailedToConnect));
  EXPECT_EQ(world.app->states(), (std::vector<int32_t>{1, 4}));
}

TEST(OnTheSimulatedRadio, ReconnectingBuildsAFreshTransport) {
  SimWorld world;
  auto p = world.find(device("E2E-Again", SimBehaviour::SwEcho));
  world.follow(p);
  p->setTransportType(1);
  for (int round = 0; round < 3; ++round) {
    world.app->clear();
    ASSERT_TRUE(world.connectReady(p)) << round;
    const std::string message = pattern(500, round);
    p->writeTCPData(Data::fromString(message));
    ASSERT_TRUE(world.app->waitForTcpBytes(message.size())) << round;
    EXPECT_EQ(world.app->tcpJoined(), message);
    auto counters = p->transportCounters();
    ASSERT_TRUE(counters.has_value());
    EXPECT_EQ(counters->tcpDelivered, 5u) << "counts only this connection's segments";
    world.manager->disconnect(p);
    ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << round;
  }
}

TEST(OnTheSimulatedRadio, SlidingWindowTransfersSurviveLostWritesAndNotifications) {
  SimWorld world;
  auto lossy = device("E2E-Lossy", SimBehaviour::SwEcho);
  sim::AirFaults faults;
  faults.seed = 4242;
  faults.lostWritesWithoutResponse = 0.05;
  faults.lostNotifications = 0.05;
  lossy.faults = faults;
  auto p = world.find(lossy);
  world.follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(world.connectReady(p));
  const std::string message = pattern(10 * 1024, 9);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(world.app->waitForTcpBytes(message.size(), std::chrono::seconds(120)));
  EXPECT_EQ(world.app->tcpJoined(), message);
  auto stats = world.radio->stats(lossy.identifier);
  EXPECT_GT(stats.writesLost + stats.notificationsLost, 0u) << "the air did lose packets";
}

TEST(TheSharedManager, RetrievesAStoredPeripheralAndConnectsWithoutScanning) {
  char tmpl[] = "/tmp/qlt-e2e-store-XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  QLT_Database::setStorePath(dir + "/known.json");

  auto manager = QLT_BLEManager::sharedInstance();
  EXPECT_EQ(manager, QLT_BLEManager::sharedInstance());
  ASSERT_TRUE(test::eventually([&] { return manager->state() == QLT_BLEManagerStateIdle; }));
  auto echo = device("E2E-Known", SimBehaviour::SwEcho);
  sim::SimRadio::shared()->addDevice(echo);

  auto db = QLT_Database::create();
  auto first = QLT_BLEManager::retrievePeripheralWithUUID(echo.identifier.UUIDString());
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(db->store(first));
  ASSERT_TRUE(db->synchronize());

  auto stored = QLT_Database::create()->loadAll();
  ASSERT_EQ(stored.size(), 1u);
  auto p = QLT_BLEManager::retrievePeripheralWithUUID(stored[0].UUIDString());
  ASSERT_NE(p, nullptr);
  EXPECT_NE(p, first) << "each retrieval makes a fresh wrapper";
  EXPECT_EQ(p->basePeripheral()->delegate(),
            std::static_pointer_cast<platform::PeripheralDelegate>(p));

  auto app = std::make_shared<test::PeripheralRecorder>();
  auto queue = DispatchQueue::create("app");
  p->addDelegate(app, queue);
  manager->addDelegate(app, queue);
  p->moduleQueue()->sync([] {});
  manager->moduleQueue()->sync([] {});
  p->setTransportType(1);
  manager->connect(p);
  ASSERT_TRUE(app->waitForState(QLT_PeripheralStateReady));
  EXPECT_EQ(app->states(), (std::vector<int32_t>{1, 2, 5, 6, 8}));
  EXPECT_TRUE(app->managerStates().empty()) << "no scan was needed";
  p->writeTCPData(Data::fromString("known"));
  ASSERT_TRUE(app->waitForTcpBytes(5));
  manager->disconnect(p);
  ASSERT_TRUE(app->waitForState(QLT_PeripheralStateDisconnected));

  test::LogCapture log;
  EXPECT_EQ(QLT_BLEManager::retrievePeripheralWithUUID("not-a-uuid"), nullptr);
  EXPECT_TRUE(
      log.contains("retrievePeripheralWithUUID : \"not-a-uuid\" is not a peripheral identifier"));
  EXPECT_EQ(QLT_BLEManager::retrievePeripheralWithUUID(freshIdentifier().UUIDString()), nullptr);

  sim::SimRadio::shared()->removeDevice(echo.identifier);
  QLT_Database::setStorePath(std::nullopt);
  std::filesystem::remove_all(dir);
}
