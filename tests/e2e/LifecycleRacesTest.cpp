// Lifecycle races on the simulated radio, each over many seeded timings: whatever the
// order in which application requests and radio events meet, the application sees only
// legal state sequences, nothing reaches an object after it is gone, and a late event of
// an earlier connection never tears down the current one.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/SimWorld.h"

using namespace qlt;
using namespace qlt::e2e;
using namespace std::chrono_literals;

namespace {

int rounds() {
  if (const char* r = std::getenv("QLT_RACE_ROUNDS")) return std::max(1, std::atoi(r));
  return 250;  // per scenario; four scenarios make 1000 orderings
}

class ALifecycleRace : public ::testing::Test {
 protected:
  void SetUp() override {
    config = device("E2E-Race", sim::SimBehaviour::SwEcho);
    config.connectDelay = 0.001;
    world.radio->addDevice(config);
    central = world.manager->centralManager();
  }

  std::shared_ptr<QLT_Peripheral> fresh() {
    auto found = central->retrievePeripheralsWithIdentifiers({config.identifier});
    EXPECT_EQ(found.size(), 1u);
    auto p = QLT_Peripheral::create(found.at(0));
    initialState = p->state();  // a link left up by an earlier round makes it 2
    p->setTransportType(1);
    world.follow(p);
    return p;
  }

  // Lets every queued event run, then brings the peripheral back to disconnected.
  void settle(const std::shared_ptr<QLT_Peripheral>& p) {
    std::this_thread::sleep_for(15ms);
    flush();
    if (p && world.app->states().empty() ? p->state() != 0 : world.app->states().back() != 0) {
      world.manager->disconnect(p);
      ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected));
    }
    flush();
  }
  void flush() {
    for (int i = 0; i < 2; ++i) {
      world.manager->centralQueue()->sync([] {});
      DispatchQueue::main()->sync([] {});
      world.appQueue->sync([] {});
    }
  }
  void expectLegal(int round) {
    std::string why;
    auto states = world.app->states();
    EXPECT_TRUE(test::isLegalStateSequence(states, initialState, &why))
        << "round " << round << ": " << why;
  }

  SimWorld world;
  sim::SimDeviceConfig config;
  std::shared_ptr<platform::Central> central;
  int32_t initialState = 0;
};

}  // namespace

TEST_F(ALifecycleRace, TheLinkDropsWhileDiscoveryIsUnderWay) {
  auto p = fresh();
  for (int round = 0; round < rounds(); ++round) {
    std::mt19937 rng(round);
    world.app->clear();
    world.manager->connect(p);
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
    world.radio->dropLink(config.identifier);
    settle(p);
    expectLegal(round);
    EXPECT_FALSE(p->transportCounters().has_value()) << round;
    if (HasFailure()) return;
  }
}

TEST_F(ALifecycleRace, TheApplicationDisconnectsWhileConnecting) {
  auto p = fresh();
  for (int round = 0; round < rounds(); ++round) {
    std::mt19937 rng(1000 + round);
    world.app->clear();
    world.manager->connect(p);
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
    world.manager->disconnect(p);
    ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << round;
    settle(p);
    expectLegal(round);
    auto states = world.app->states();
    ASSERT_GE(states.size(), 2u);
    EXPECT_EQ(states.back(), 0) << round;
    EXPECT_FALSE(p->transportCounters().has_value()) << round;
    if (HasFailure()) return;
  }
}

TEST_F(ALifecycleRace, TheApplicationReconnectsFromInsideItsDisconnectedCallback) {
  auto p = fresh();
  for (int round = 0; round < rounds(); ++round) {
    std::mt19937 rng(2000 + round);
    world.app->clear();
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
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
    flush();
    EXPECT_EQ(p->state(), QLT_PeripheralStateReady) << round;
    ASSERT_TRUE(p->transportCounters().has_value()) << round;
    p->writeTCPData(Data::fromString("still here"));
    ASSERT_TRUE(world.app->waitForTcpBytes(10)) << round;
    world.manager->disconnect(p);
    ASSERT_TRUE(world.app->waitForState(QLT_PeripheralStateDisconnected)) << round;
    settle(p);
    expectLegal(round);
    if (HasFailure()) return;
  }
}

TEST_F(ALifecycleRace, TheApplicationDropsItsLastReferenceWhileCallbacksAreQueued) {
  for (int round = 0; round < rounds(); ++round) {
    std::mt19937 rng(3000 + round);
    world.app->clear();
    std::weak_ptr<QLT_Peripheral> weak;
    {
      auto p = fresh();
      weak = p;
      world.manager->connect(p);
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 4000));
      if (rng() % 2) p->writeTCPData(Data::fromString(pattern(300, round)));
    }
    // Nobody holds the wrapper now; end the link behind its back.
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
    world.radio->dropLink(config.identifier);
    flush();
    ASSERT_TRUE(test::eventually([&] { return weak.expired(); })) << round;
    expectLegal(round);
    // A connection that completed after the drop is up with nobody holding a wrapper;
    // end it so that the next round starts from a disconnected device.
    auto platformPeripheral =
        central->retrievePeripheralsWithIdentifiers({config.identifier}).at(0);
    ASSERT_TRUE(test::eventually([&] {
      if (platformPeripheral->state() == platform::PeripheralState::Disconnected) return true;
      central->cancelPeripheralConnection(platformPeripheral);
      std::this_thread::sleep_for(2ms);
      return false;
    })) << round;
    flush();
    if (HasFailure()) return;
  }
}
