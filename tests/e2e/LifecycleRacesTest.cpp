// Lifecycle races on the simulated radio, each over many seeded timings: whatever the order in
// which application requests and radio events meet, the application sees only legal state
// sequences, nothing reaches an object after it is gone, and a late event of an earlier
// connection never tears down the current one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "support/SimWorld.h"

namespace qlt::e2e {
namespace {

using namespace std::chrono_literals;

int rounds() {
  const char* r = std::getenv("QLT_RACE_ROUNDS");
  return r ? std::max(1, std::atoi(r)) : 250;  // per scenario
}

class ALifecycleRace : public ::testing::Test {
 protected:
  void SetUp() override {
    config.connectDelay = 0.001;
    world.radio->addDevice(config);
  }
  std::shared_ptr<platform::Peripheral> base() {
    return world.manager->centralManager()
        ->retrievePeripheralsWithIdentifiers({config.identifier})
        .at(0);
  }
  std::shared_ptr<QLT_Peripheral> fresh() {
    auto p = QLT_Peripheral::create(base());
    initialState = p->state();  // a link left up by an earlier round makes it 2
    p->setTransportType(1);
    world.follow(p);
    return p;
  }
  void expectLegalStates(int round) {
    std::string why;
    EXPECT_TRUE(test::isLegalStateSequence(world.app->states(), initialState, &why))
        << round << ": " << why;
  }
  // Lets every queued event run, checks what the application saw, and ends any link left up.
  void settle(const std::shared_ptr<QLT_Peripheral>& p, int round) {
    std::this_thread::sleep_for(15ms);
    world.settle(2);
    expectLegalStates(round);
    if (p->state() != QLT_PeripheralStateDisconnected) {
      world.manager->disconnect(p);
      ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << round;
    }
    world.settle(2);
    world.app->clear();
  }
  std::mt19937 rng;
  void pause(unsigned maxMicroseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % maxMicroseconds));
  }

  SimWorld world;
  sim::SimDeviceConfig config = device("E2E-Race", sim::SimBehaviour::SwEcho);
  int32_t initialState = 0;
};

TEST_F(ALifecycleRace, TheLinkDropsOrTheApplicationDisconnectsWhileConnecting) {
  auto p = fresh();
  for (int round = 0; round < rounds() && !HasFailure(); ++round) {
    rng.seed(round);
    world.manager->connect(p);
    pause(3000);
    if (round % 2) {
      world.radio->dropLink(config.identifier);
    } else {
      world.manager->disconnect(p);
      ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << round;
    }
    settle(p, round);
    EXPECT_FALSE(p->transportCounters()) << round;
  }
}

TEST_F(ALifecycleRace, TheApplicationReconnectsFromInsideItsDisconnectedCallback) {
  auto p = fresh();
  for (int round = 0; round < rounds() && !HasFailure(); ++round) {
    rng.seed(2000 + round);
    ASSERT_TRUE(world.connectReady(p)) << round;
    std::atomic<bool> reconnected{false};
    world.app->onState([&](const std::shared_ptr<QLT_Peripheral>& peripheral, int32_t s) {
      if (s == 0 && !reconnected.exchange(true)) world.manager->connect(peripheral);
    });
    if (rng() % 2) {
      world.radio->dropLink(config.identifier);
    } else {
      world.manager->disconnect(p);
    }
    ASSERT_TRUE(world.app->waitUntil([&] { return reconnected.load(); })) << round;
    ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateReady)) << round;
    world.app->onState(nullptr);
    // The late disconnection left the new connection alone: it still carries data.
    pause(2000);
    world.settle(2);
    EXPECT_EQ(p->state(), QLT_PeripheralStateReady) << round;
    ASSERT_TRUE(p->transportCounters()) << round;
    p->writeTCPData(Data::fromString("still here"));
    ASSERT_TRUE(world.app->waitForTcpBytes(10)) << round;
    settle(p, round);
  }
}

TEST_F(ALifecycleRace, TheApplicationDropsItsLastReferenceWhileCallbacksAreQueued) {
  for (int round = 0; round < rounds() && !HasFailure(); ++round) {
    rng.seed(3000 + round);
    std::weak_ptr<QLT_Peripheral> weak;
    {
      auto p = fresh();
      weak = p;
      world.manager->connect(p);
      pause(4000);
      if (rng() % 2) p->writeTCPData(Data::fromString(pattern(300, round)));
    }
    pause(2000);  // nobody holds the wrapper now; end the link behind its back
    world.radio->dropLink(config.identifier);
    world.settle(2);
    ASSERT_TRUE(test::eventually([&] { return weak.expired(); })) << round;
    expectLegalStates(round);
    world.app->clear();
    // A connection that completed after the drop is up with nobody holding a wrapper.
    auto platformPeripheral = base();
    ASSERT_TRUE(test::eventually([&] {
      if (platformPeripheral->state() == platform::PeripheralState::Disconnected) return true;
      world.manager->centralManager()->cancelPeripheralConnection(platformPeripheral);
      std::this_thread::sleep_for(2ms);
      return false;
    })) << round;
    world.settle(2);
  }
}

}  // namespace
}  // namespace qlt::e2e
