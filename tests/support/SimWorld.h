// A private simulated radio with its own QLT_BLEManager and an application delegate on
// its own queue: what each end-to-end test starts from.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>

#include "QueltLibrary/QueltLibrary.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

namespace qlt::e2e {

inline UUID freshIdentifier() {
  static std::atomic<uint32_t> n{1};
  UUID::Bytes b{};
  b[0] = 0xE2;
  b[1] = 0xE0;
  std::random_device rd;
  b[2] = static_cast<uint8_t>(rd());
  const uint32_t v = n++;
  b[12] = static_cast<uint8_t>(v >> 24);
  b[13] = static_cast<uint8_t>(v >> 16);
  b[14] = static_cast<uint8_t>(v >> 8);
  b[15] = static_cast<uint8_t>(v);
  return UUID(b);
}

inline sim::SimDeviceConfig device(const std::string& name, sim::SimBehaviour behaviour) {
  sim::SimDeviceConfig d;
  d.identifier = freshIdentifier();
  d.localName = name;
  d.behaviour = behaviour;
  d.advertisingInterval = 0.01;
  return d;
}

// `size` bytes of a pattern that makes misplaced or repeated bytes visible.
inline std::string pattern(size_t size, unsigned seed = 1) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 7 + seed + i / 251) & 0xFF);
  return s;
}

struct SimWorld {
  std::shared_ptr<sim::SimRadio> radio = sim::SimRadio::create();
  std::shared_ptr<QLT_BLEManager> manager;
  std::shared_ptr<test::PeripheralRecorder> app = std::make_shared<test::PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue = DispatchQueue::create("app");

  explicit SimWorld(bool poweredOn = true) {
    radio->setPowered(poweredOn);
    manager = QLT_BLEManager::create(radio->backend());
    manager->addDelegate(app, appQueue);
    manager->moduleQueue()->sync([] {});
    if (poweredOn) {
      EXPECT_TRUE(test::eventually([&] { return manager->state() == QLT_BLEManagerStateIdle; }));
    }
    // The central's first power report arrives on its queue; start from a clean slate.
    manager->centralQueue()->sync([] {});
    appQueue->sync([] {});
    app->clear();
  }
  ~SimWorld() { radio->setPowered(false); }

  // Adds `d` to the air and returns its wrapper through a scan with a filter on its name.
  std::shared_ptr<QLT_Peripheral> find(const sim::SimDeviceConfig& d) {
    radio->addDevice(d);
    const std::string name = *d.localName;
    const size_t before = app->discovered().size();
    manager->startDiscover([name](const std::shared_ptr<platform::Peripheral>&,
                                  const std::optional<std::string>& localName,
                                  const platform::AdvertisementData&,
                                  int) { return localName == name; });
    EXPECT_TRUE(app->waitForDiscoveries(before + 1));
    manager->stopDiscover();
    auto found = app->discovered().back();
    app->clear();
    return found;
  }

  // Follows `p` with the application delegate (registered before returning).
  void follow(const std::shared_ptr<QLT_Peripheral>& p) {
    p->addDelegate(app, appQueue);
    p->moduleQueue()->sync([] {});
  }

  // Connects and waits until ready.
  bool connectReady(const std::shared_ptr<QLT_Peripheral>& p) {
    manager->connect(p);
    return app->waitForState(QLT_PeripheralStateReady);
  }
};

}  // namespace qlt::e2e
