// QLT_BLEManager's own rules, on a private simulated radio.
#include <gtest/gtest.h>

#include "support/SimWorld.h"

using namespace qlt;
using namespace qlt::e2e;

TEST(ManagerStates, HaveDisplayNames) {
  EXPECT_EQ(QLT_BLEManager::convertStateToNSString(0), "ready");
  EXPECT_EQ(QLT_BLEManager::convertStateToNSString(1), "idle");
  EXPECT_EQ(QLT_BLEManager::convertStateToNSString(2), "scanning");
  EXPECT_EQ(QLT_BLEManager::convertStateToNSString(3), "unavailable");
}

TEST(ManagerStatesDeathTest, AnOutOfRangeStateFailsLoudly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QLT_BLEManager::convertStateToNSString(4), "4 is not a manager state");
}

TEST(AManager, IgnoresDiscoveryRequestsOutsideIdleAndScanning) {
  SimWorld world(/*poweredOn=*/false);
  world.manager->startDiscover();
  world.manager->stopDiscover();
  EXPECT_EQ(world.manager->state(), QLT_BLEManagerStateUnavailable);
  world.appQueue->sync([] {});
  EXPECT_TRUE(world.app->managerStates().empty());
}

TEST(AManager, ClearsTheNameOfAPeripheralThatAdvertisesNone) {
  SimWorld world;
  auto named = device("E2E-Named", sim::SimBehaviour::None);
  auto p = world.find(named);
  EXPECT_EQ(p->name(), std::optional<std::string>("E2E-Named"));
  auto anonymous = named;
  anonymous.localName.reset();
  world.radio->removeDevice(named.identifier);
  world.radio->addDevice(anonymous);
  world.manager->startDiscover([&](const std::shared_ptr<platform::Peripheral>& peripheral,
                                   const std::optional<std::string>&,
                                   const platform::AdvertisementData&,
                                   int) { return peripheral->identifier() == named.identifier; });
  ASSERT_TRUE(world.app->waitForDiscoveries(1));
  world.manager->stopDiscover();
  EXPECT_EQ(world.app->discovered().front(), p) << "the wrapper the application holds";
  EXPECT_FALSE(p->name().has_value());
}

TEST(AManager, ReannouncesAConnectedPeripheralAndHandlesDisconnectEdgeCases) {
  SimWorld world;
  auto p = world.find(device("E2E-Edges", sim::SimBehaviour::SwEcho));
  world.follow(p);
  world.manager->disconnect(nullptr);
  world.manager->disconnect(p);  // disconnected: announced again
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(world.app->states(), std::vector<int32_t>{0});

  ASSERT_TRUE(world.connectReady(p));
  world.app->clear();
  // A wrapper made while connected starts in 2; connect: re-announces it as ready since
  // the platform peripheral lists services, without any radio activity.
  auto twin = QLT_Peripheral::create(p->basePeripheral());
  EXPECT_EQ(twin->state(), QLT_PeripheralStateConnected);
  world.follow(twin);
  world.manager->connect(twin);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateReady));
  EXPECT_EQ(world.app->states(), std::vector<int32_t>{8});

  world.manager->disconnect(twin);
  // Still disconnecting: nothing. Already disconnected (the radio answers fast): 0 again.
  world.manager->disconnect(twin);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
  world.manager->centralQueue()->sync([] {});
  DispatchQueue::main()->sync([] {});
  world.appQueue->sync([] {});
  auto states = world.app->states();
  ASSERT_GE(states.size(), 3u);
  EXPECT_EQ(std::vector<int32_t>(states.begin(), states.begin() + 3),
            (std::vector<int32_t>{8, 3, 0}));
  EXPECT_LE(states.size(), 4u);
  EXPECT_EQ(states.back(), 0);
}
