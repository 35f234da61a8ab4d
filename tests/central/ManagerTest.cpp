// QLT_BLEManager's own rules, on a private simulated radio.
#include <gtest/gtest.h>

#include "support/SimWorld.h"

using namespace qlt;
using namespace qlt::e2e;
using States = std::vector<int32_t>;

namespace {

// A world whose power-on announcements are behind it: the test sees only its own.
struct QuietWorld : SimWorld {
  QuietWorld() {
    settle();
    app->clear();
  }
};

}  // namespace

TEST(ManagerStatesDeathTest, HaveDisplayNamesAndAnOutOfRangeOneFailsLoudly) {
  const char* names[] = {"ready", "idle", "scanning", "unavailable"};
  for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(QLT_BLEManager::convertStateToNSString(i), names[i]);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QLT_BLEManager::convertStateToNSString(4), "4 is not a manager state");
}

TEST(AManager, AnnouncesEveryPowerReportRepeatsIncludedAndEachPowerOnAsReadyThenIdle) {
  QuietWorld world;
  size_t expected = 0;
  for (bool on : {false, false, true, true}) {  // each report is read once it has arrived
    world.radio->setPowered(on);
    expected += on ? 2 : 1;
    ASSERT_TRUE(test::eventually([&] { return world.app->managerStates().size() >= expected; }));
  }
  world.settle();
  EXPECT_EQ(world.app->managerStates(), (States{3, 3, 0, 1, 0, 1}));
  EXPECT_EQ(world.manager->state(), QLT_BLEManagerStateIdle);
}

TEST(AManager, FiltersOnTheCentralQueueAndALaterScanWithoutAFilterAcceptsEverything) {
  QuietWorld world;
  world.radio->addDevice(device("E2E-Filtered", sim::SimBehaviour::None));
  std::atomic<int> asked{0}, offQueue{0};
  world.manager->startDiscover([&](auto&, auto&, auto&, int) {
    offQueue += !world.manager->centralQueue()->isCurrent();
    asked++;
    return false;
  });
  ASSERT_TRUE(test::eventually([&] { return asked >= 3; }));
  world.manager->stopDiscover();
  world.settle();
  EXPECT_TRUE(world.app->discovered().empty()) << "a refused advertisement was announced";
  world.manager->startDiscover();  // replaces the earlier filter with none
  ASSERT_TRUE(world.app->waitFor("discover", 3));
  world.manager->stopDiscover();
  EXPECT_EQ(offQueue, 0);
  auto found = world.app->discovered();
  EXPECT_EQ(found[0], found[2]) << "one wrapper while the application holds it";
  world.settle();
  EXPECT_EQ(world.app->managerStates(), (States{2, 1, 2, 1}));
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
  world.manager->startDiscover();
  ASSERT_TRUE(world.app->waitFor("discover", 1));
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
  EXPECT_EQ(world.app->states(), States{0});

  ASSERT_TRUE(world.connectReady(p));
  world.app->clear();
  // A wrapper made while connected starts in 2; connect re-announces it as ready, since
  // the platform peripheral lists services, without any radio activity.
  auto twin = QLT_Peripheral::create(p->basePeripheral());
  EXPECT_EQ(twin->state(), QLT_PeripheralStateConnected);
  world.follow(twin);
  world.manager->connect(twin);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateReady));
  EXPECT_EQ(world.app->states(), States{8});

  world.manager->disconnect(twin);
  // Still disconnecting: nothing. Already disconnected (the radio answers fast): 0 again.
  world.manager->disconnect(twin);
  ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
  world.settle();
  auto states = world.app->states();
  EXPECT_TRUE(states == (States{8, 3, 0}) || states == (States{8, 3, 0, 0})) << states.size();
}
