// What the simulated radio's tests share: a recording central and peripheral delegate
// (every platform callback becomes one line of text, in arrival order, and is checked to
// arrive on the central's queue) and a fixture with a private radio.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/QLT_UUID.h"

#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/SimRadio.h"

namespace qlt::sim::test {

using namespace std::chrono_literals;

struct Advert {
  std::shared_ptr<platform::Peripheral> peripheral;
  platform::AdvertisementData data;
  int rssi;
};

class Recorder : public platform::CentralDelegate, public platform::PeripheralDelegate {
 public:
  explicit Recorder(std::shared_ptr<DispatchQueue> queue) : queue_(std::move(queue)) {}

  // ---- CentralDelegate ----
  void centralManagerDidUpdateState(platform::Central& central) override {
    record("state " + std::to_string(static_cast<int>(central.state())));
  }
  void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      platform::Central&, const std::shared_ptr<platform::Peripheral>& peripheral,
      const platform::AdvertisementData& data, int rssi) override {
    {
      std::lock_guard lock(mutex_);
      adverts_.push_back({peripheral, data, rssi});
    }
    record("discover " + data.localName.value_or("?"));
  }
  void centralManager_didConnectPeripheral(
      platform::Central&, const std::shared_ptr<platform::Peripheral>& p) override {
    record("connect " + p->name().value_or("?"));
  }
  void centralManager_didFailToConnectPeripheral_error(
      platform::Central&, const std::shared_ptr<platform::Peripheral>& p,
      const std::optional<platform::Error>& error) override {
    record(std::string("fail ") + (error ? "error" : "none"));
  }
  void centralManager_didDisconnectPeripheral_error(
      platform::Central&, const std::shared_ptr<platform::Peripheral>& p,
      const std::optional<platform::Error>& error) override {
    record(std::string("disconnect ") + (error ? "error" : "none"));
  }

  // ---- PeripheralDelegate ----
  void peripheral_didDiscoverServices(const std::shared_ptr<platform::Peripheral>& p,
                                      const std::optional<platform::Error>&) override {
    record("services " + std::to_string(p->services().size()));
  }
  void peripheral_didDiscoverCharacteristicsForService_error(
      const std::shared_ptr<platform::Peripheral>&, const std::shared_ptr<platform::Service>& s,
      const std::optional<platform::Error>&) override {
    record("characteristics " + std::to_string(s->characteristics().size()));
  }
  void peripheral_didUpdateNotificationStateForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>& c,
      const std::optional<platform::Error>& error) override {
    record(std::string("notifying ") + (c->isNotifying() ? "on" : "off") + (error ? " error" : ""));
  }
  void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>& c,
      const std::optional<platform::Error>& error) override {
    const Data value = c->value().value_or(Data());
    {
      std::lock_guard lock(mutex_);
      values_.push_back(value);
    }
    record("value " + value.toString() + (error ? " error" : ""));
  }
  void peripheral_didWriteValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>&,
      const std::optional<platform::Error>& error) override {
    record(std::string("written") + (error ? " error" : ""));
  }

  // ---- For the tests ----
  std::vector<std::string> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<Advert> adverts() const {
    std::lock_guard lock(mutex_);
    return adverts_;
  }
  std::vector<Data> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  size_t count(const std::string& event) const {
    std::lock_guard lock(mutex_);
    return std::count(events_.begin(), events_.end(), event);
  }
  size_t countPrefix(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    return std::count_if(events_.begin(), events_.end(),
                         [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
  }
  // Waits until `event` has been seen `times` times.
  bool waitFor(const std::string& event, size_t times = 1,
               std::chrono::milliseconds timeout = 5000ms) {
    return waitUntil(
        [&](const std::vector<std::string>& events) {
          return static_cast<size_t>(std::count(events.begin(), events.end(), event)) >= times;
        },
        timeout);
  }
  // Waits until events starting with `prefix` have been seen `times` times.
  bool waitForPrefix(const std::string& prefix, size_t times = 1,
                     std::chrono::milliseconds timeout = 5000ms) {
    return waitUntil(
        [&](const std::vector<std::string>& events) {
          return static_cast<size_t>(std::count_if(
                     events.begin(), events.end(),
                     [&](const std::string& e) { return e.rfind(prefix, 0) == 0; })) >= times;
        },
        timeout);
  }
  // Waits until `condition` holds for the events so far.
  bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& condition,
                 std::chrono::milliseconds timeout = 5000ms) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return condition(events_); });
  }
  bool offQueue() const { return offQueue_; }
  void clear() {
    std::lock_guard lock(mutex_);
    events_.clear();
    adverts_.clear();
    values_.clear();
  }

 private:
  void record(std::string event) {
    if (!queue_->isCurrent()) offQueue_ = true;
    {
      std::lock_guard lock(mutex_);
      events_.push_back(std::move(event));
    }
    cv_.notify_all();
  }

  const std::shared_ptr<DispatchQueue> queue_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> events_;
  std::vector<Advert> adverts_;
  std::vector<Data> values_;
  std::atomic<bool> offQueue_{false};
};

// Number of transport worker threads ("qlt.worker") of this process.
inline size_t workerThreads() {
  size_t n = 0;
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    if (std::getline(comm, name) && name == "qlt.worker") ++n;
  }
  return n;
}

inline UUID deviceId(int n) {
  return UUID::literal("0000AAAA-0000-4000-8000-0000000000" + std::string(n < 10 ? "0" : "") +
                       std::to_string(n));
}

inline SimDeviceConfig quickDevice(int n, const std::string& name, SimBehaviour behaviour) {
  SimDeviceConfig d;
  d.identifier = deviceId(n);
  d.localName = name;
  d.behaviour = behaviour;
  d.advertisingInterval = 0.005;
  d.connectDelay = 0.001;
  return d;
}

struct Nus {
  std::shared_ptr<platform::Characteristic> tx;
  std::shared_ptr<platform::Characteristic> rx;
};

class ASimulatedRadio : public ::testing::Test {
 protected:
  void SetUp() override {
    radio = SimRadio::create();
    queue = DispatchQueue::create("QLT_BLEManager");
    recorder = std::make_shared<Recorder>(queue);
  }
  void TearDown() override {
    EXPECT_FALSE(recorder->offQueue()) << "a callback came off the central's queue";
  }

  void start() {
    central = radio->backend()->createCentral(recorder, queue, {});
    ASSERT_TRUE(recorder->waitFor("state 5"));
  }
  std::shared_ptr<platform::Peripheral> retrieve(int n) {
    auto found = central->retrievePeripheralsWithIdentifiers({deviceId(n)});
    return found.empty() ? nullptr : found.front();
  }
  // Connects, discovers the UART service and switches notifications on.
  Nus connectAndSubscribe(const std::shared_ptr<platform::Peripheral>& p, size_t connection = 1) {
    p->setDelegate(recorder);
    central->connect(p);
    EXPECT_TRUE(recorder->waitFor("connect " + p->name().value_or("?"), connection));
    p->discoverServices(std::vector<UUID>{QLT_UUID::uartServiceUUID()});
    EXPECT_TRUE(recorder->waitForPrefix("services", connection));
    if (p->services().empty()) return {};
    p->discoverCharacteristics(std::nullopt, p->services().front());
    EXPECT_TRUE(recorder->waitFor("characteristics 2", connection));
    Nus nus;
    for (const auto& c : p->services().front()->characteristics()) {
      if (c->uuid() == QLT_UUID::txCharacteristicUUID()) nus.tx = c;
      if (c->uuid() == QLT_UUID::rxCharacteristicUUID()) nus.rx = c;
    }
    p->setNotifyValue(true, nus.rx);
    EXPECT_TRUE(recorder->waitFor("notifying on", connection));
    return nus;
  }
  std::shared_ptr<SimRadio> radio;
  std::shared_ptr<DispatchQueue> queue;
  std::shared_ptr<Recorder> recorder;
  std::shared_ptr<platform::Central> central;
};

}  // namespace qlt::sim::test
