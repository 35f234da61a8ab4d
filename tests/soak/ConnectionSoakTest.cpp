// Many connections in a row: nothing leaks (the sanitizer build checks memory), nothing
// crashes, and the process does not gain OS threads from cycle to cycle.
#include <gtest/gtest.h>

#include "support/SimWorld.h"

using namespace qlt;
using namespace qlt::e2e;

TEST(ASoak, FiveHundredConnectTransferDisconnectCyclesLeaveNothingBehind) {
  SimWorld world;
  auto config = device("Soak-Echo", sim::SimBehaviour::SwEcho);
  config.connectDelay = 0.001;
  world.radio->addDevice(config);
  auto found =
      world.manager->centralManager()->retrievePeripheralsWithIdentifiers({config.identifier});
  std::weak_ptr<QLT_Peripheral> weak;
  const size_t baseline = test::osThreadCount();
  {
    auto p = QLT_Peripheral::create(found.at(0));
    weak = p;
    world.follow(p);
    for (int cycle = 0; cycle < 500; ++cycle) {
      world.app->clear();
      // Every fifth cycle the chunking transport, which the echo device does not answer.
      const bool chunking = cycle % 5 == 4;
      p->setTransportType(chunking ? 0 : 1);
      ASSERT_TRUE(world.connectReady(p)) << cycle;
      const std::string message = pattern(chunking ? 60 : 700, cycle);
      p->writeTCPData(Data::fromString(message));
      if (!chunking) {
        ASSERT_TRUE(world.app->waitForTcpBytes(message.size())) << cycle;
        ASSERT_EQ(world.app->tcpJoined(), message) << cycle;
      }
      world.manager->disconnect(p);
      ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << cycle;
    }
  }
  ASSERT_TRUE(test::eventually([&] { return weak.expired(); }));
  // Transport workers end with their connections; spare queue workers retire after a few
  // idle seconds. What is left must be what there was before the first cycle.
  EXPECT_TRUE(test::eventually([&] { return test::osThreadCount() <= baseline + 4; },
                               std::chrono::seconds(60)))
      << "baseline " << baseline << ", now " << test::osThreadCount();
}
