// Records what a QLT_Peripheral and a QLT_BLEManager announce, for tests: states in
// order, received payloads, discovered peripherals; with waits that time out generously.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"

namespace qlt::test {

class PeripheralRecorder : public QLT_PeripheralDidChangeState,
                           public QLT_PeripheralDidReceivedTCPData,
                           public QLT_PeripheralDidReceivedUDPData,
                           public QLT_BLEManagerDidChangedState,
                           public QLT_BLEManagerDidDiscoveredPeripheral {
 public:
  using Clock = std::chrono::steady_clock;

  template <class F>
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard lock(mutex_);
    return f();
  }

  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override {
    std::function<void(const std::shared_ptr<QLT_Peripheral>&, int32_t)> hook;
    {
      std::lock_guard lock(mutex_);
      states_.push_back(state);
      hook = onState_;
    }
    cv_.notify_all();
    if (hook) hook(p, state);
  }
  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    {
      std::lock_guard lock(mutex_);
      tcp_.push_back(d);
      tcpBytes_ += d.length();
    }
    cv_.notify_all();
  }
  void QLT_Peripheral_didReceivedUDPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    {
      std::lock_guard lock(mutex_);
      udp_.push_back(d);
    }
    cv_.notify_all();
  }
  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    {
      std::lock_guard lock(mutex_);
      managerStates_.push_back(state);
    }
    cv_.notify_all();
  }
  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    {
      std::lock_guard lock(mutex_);
      discovered_.push_back(p);
      discoveredRSSI_.push_back(p->RSSI());
    }
    cv_.notify_all();
  }

  // Called on the delegate's queue after each state is recorded.
  void onState(std::function<void(const std::shared_ptr<QLT_Peripheral>&, int32_t)> hook) {
    std::lock_guard lock(mutex_);
    onState_ = std::move(hook);
  }

  std::vector<int32_t> states() const {
    return locked([&] { return states_; });
  }
  std::vector<int32_t> managerStates() const {
    return locked([&] { return managerStates_; });
  }
  std::vector<Data> tcp() const {
    return locked([&] { return tcp_; });
  }
  std::vector<Data> udp() const {
    return locked([&] { return udp_; });
  }
  std::vector<std::shared_ptr<QLT_Peripheral>> discovered() const {
    return locked([&] { return discovered_; });
  }
  std::vector<int32_t> discoveredRSSI() const {
    return locked([&] { return discoveredRSSI_; });
  }
  std::string tcpJoined() const {
    std::lock_guard lock(mutex_);
    std::string s;
    for (const auto& d : tcp_) s += d.toString();
    return s;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    states_.clear();
    managerStates_.clear();
    tcp_.clear();
    udp_.clear();
    tcpBytes_ = 0;
    discovered_.clear();
    discoveredRSSI_.clear();
  }

  // Waits until `pred` holds (checked under the recorder's lock); false on time-out.
  bool waitUntil(const std::function<bool()>& pred,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, pred);
  }
  bool waitForState(int32_t state, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return !states_.empty() && states_.back() == state; }, timeout);
  }
  bool waitForStateCount(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return states_.size() >= n; }, timeout);
  }
  bool waitForManagerState(int32_t state,
                           std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return !managerStates_.empty() && managerStates_.back() == state; },
                     timeout);
  }
  bool waitForTcpBytes(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return waitUntil([&] { return tcpBytes_ >= n; }, timeout);
  }
  bool waitForUdp(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return udp_.size() >= n; }, timeout);
  }
  bool waitForDiscoveries(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return discovered_.size() >= n; }, timeout);
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<int32_t> states_;
  std::vector<int32_t> managerStates_;
  std::vector<Data> tcp_;
  size_t tcpBytes_ = 0;
  std::vector<Data> udp_;
  std::vector<std::shared_ptr<QLT_Peripheral>> discovered_;
  std::vector<int32_t> discoveredRSSI_;
  std::function<void(const std::shared_ptr<QLT_Peripheral>&, int32_t)> onState_;
};

// Whether `states` is a sequence the peripheral state machine can produce, starting from
// `from`: discovery states (5 6 8 9) only inside a connection that reached 2, and never
// after 0 or 4 until a new 1. `why` explains the first offending step.
inline bool isLegalStateSequence(const std::vector<int32_t>& states, int32_t from,
                                 std::string* why) {
  bool linked = from == 2 || from == 5 || from == 6 || from == 8 || from == 9;
  int32_t prev = from;
  for (size_t i = 0; i < states.size(); ++i) {
    const int32_t s = states[i];
    bool ok = true;
    switch (s) {
      case 0:
      case 1:
      case 3:
      case 4:
        ok = true;
        break;
      case 2:
        ok =
            prev == 1 || prev == 2 || prev == 8 || prev == 5 || prev == 6 || prev == 9 || prev == 3;
        break;
      case 5:
        ok = linked && prev == 2;
        break;
      // A wrapper made while its device is connected may adopt a discovery that an
      // earlier wrapper of the same device started: its first step may be 6.
      case 6:
        ok = linked && (prev == 5 || prev == 6 || (i == 0 && from == 2));
        break;
      case 8:
        ok = linked && (prev == 6 || prev == 8 || prev == 2);
        break;
      case 9:
        ok = linked && prev == 5;
        break;
      default:
        ok = false;
    }
    if (s == 4 && !(prev == 1 || prev == 3)) ok = false;
    if (!ok) {
      if (why)
        *why =
            "step " + std::to_string(i) + ": " + std::to_string(prev) + " -> " + std::to_string(s);
      return false;
    }
    if (s == 2) linked = true;
    if (s == 0 || s == 1 || s == 3 || s == 4) linked = false;
    prev = s;
  }
  return true;
}

}  // namespace qlt::test
