// What each end-to-end test starts from: a backend (the simulated radio here; BlueZ on the
// mock bluetoothd in tests/platform/Backends.h), its own QLT_BLEManager, and an application
// delegate on its own queue.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>

#include "QueltLibrary/QueltLibrary.h"
#include "QueltLibrary/UartLink.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

namespace qlt::test {
// UartLink's options with a time-out and a manager of the test's own.
inline UartLink::Options linkOptions(std::chrono::milliseconds timeout,
                                     std::shared_ptr<QLT_BLEManager> manager,
                                     bool slidingWindow = true) {
  UartLink::Options options;
  options.timeout = timeout;
  options.manager = std::move(manager);
  options.slidingWindow = slidingWindow;
  return options;
}
}  // namespace qlt::test

namespace qlt::e2e {

inline UUID freshIdentifier() {
  static std::atomic<uint32_t> n{1};
  UUID::Bytes b{0xE2, 0xE0, static_cast<uint8_t>(std::random_device()())};
  const uint32_t v = n++;
  for (int i = 0; i < 4; ++i) b[12 + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
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

// The simulated radio (by default with QLT-Echo, QLT-Chunk and HR-Sensor among its devices),
// and the faults a test makes happen on it.
struct Sim {
  explicit Sim(bool defaultDevices = true, std::shared_ptr<Clock> clock = nullptr)
      : radio(sim::SimRadio::create(defaultDevices, std::move(clock))) {}
  std::string start() { return ""; }
  std::shared_ptr<platform::Backend> backend() { return radio->backend(); }
  UUID id(const std::string& name) {
    for (const auto& d : radio->devices()) {
      if (d.localName == name) return d.identifier;
    }
    return {};
  }
  void power(bool on) { radio->setPowered(on); }
  void drop(const std::string& name) { radio->dropLink(id(name)); }
  void forget(const std::string& name) { drop(name); }  // a radio never forgets a device
  void failConnects(bool fail) {
    sim::AirFaults faults;
    faults.connectFailure = fail ? 1.0 : 0.0;
    radio->setFaults(faults);
  }
  void slowAir() {  // answers are still in the air when a test reconnects at once
    sim::AirFaults faults;
    faults.connectionInterval = 0.02;
    radio->setFaults(faults);
  }
  std::shared_ptr<sim::SimRadio> radio;
};

template <class Side>
struct World {
  // The adapter is powered on only once the application listens, so it hears every state.
  explicit World(Side& backend, bool poweredOn = true) : side(backend) {
    side.power(false);
    manager = QLT_BLEManager::create(side.backend());
    manager->addDelegate(app, appQueue);
    manager->moduleQueue()->sync([] {});
    EXPECT_TRUE(test::eventually([&] {
      auto central = manager->centralManager();
      return central && central->state() == platform::CentralState::PoweredOff;
    }));
    manager->centralQueue()->sync([] {});
    appQueue->sync([] {});
    app->clear();
    if (poweredOn) {
      side.power(true);
      EXPECT_TRUE(app->waitFor("manager", 2));
    }
  }
  // Ends every link followed, so no transport outlives its backend.
  ~World() {
    for (auto& weak : followed) {
      if (auto p = weak.lock()) {
        manager->disconnect(p);
        test::eventually([&] { return p->state() == QLT_PeripheralStateDisconnected; });
      }
    }
    DispatchQueue::main()->sync([] {});
  }

  // The wrapper of the device named `name`, through a scan with a filter on its name.
  std::shared_ptr<QLT_Peripheral> find(const std::string& name) {
    const size_t before = app->discovered().size();
    manager->startDiscover([this, name](const std::shared_ptr<platform::Peripheral>&,
                                        const std::optional<std::string>& localName,
                                        const platform::AdvertisementData&, int) {
      EXPECT_TRUE(manager->centralQueue()->isCurrent());
      return localName == name;
    });
    EXPECT_TRUE(app->waitFor("discover", before + 1));
    manager->stopDiscover();
    auto found = app->discovered();
    app->clear();
    return found.empty() ? nullptr : found.back();
  }
  // Follows `p` with the application delegate (registered before returning).
  void follow(const std::shared_ptr<QLT_Peripheral>& p) {
    p->addDelegate(app, appQueue);
    p->moduleQueue()->sync([] {});
    followed.push_back(p);
  }
  // Everything queued so far on the central, main and application queues has run (`times`
  // over, for what those tasks queue in turn).
  void settle(int times = 1) {
    for (int i = 0; i < times; ++i) {
      manager->centralQueue()->sync([] {});
      DispatchQueue::main()->sync([] {});
      appQueue->sync([] {});
    }
  }
  bool connectReady(const std::shared_ptr<QLT_Peripheral>& p) {
    manager->connect(p);
    return app->waitForState(QLT_PeripheralStateReady);
  }

  Side& side;
  std::shared_ptr<QLT_BLEManager> manager;
  std::shared_ptr<test::PeripheralRecorder> app = std::make_shared<test::PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue = DispatchQueue::create("app");
  std::vector<std::weak_ptr<QLT_Peripheral>> followed;
};

// A private simulated radio with no devices but the test's own.
struct SimWorld : Sim, World<Sim> {
  explicit SimWorld(bool poweredOn = true) : Sim(false), World<Sim>(*this, poweredOn) {}
  ~SimWorld() { radio->setPowered(false); }
  using World<Sim>::find;
  // Adds `d` to the air and finds it.
  std::shared_ptr<QLT_Peripheral> find(const sim::SimDeviceConfig& d) {
    radio->addDevice(d);
    return find(*d.localName);
  }
};

}  // namespace qlt::e2e
