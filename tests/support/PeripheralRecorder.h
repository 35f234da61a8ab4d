// Records what a QLT_Peripheral and a QLT_BLEManager announce, for tests: states in
// order, received payloads, discovered peripherals; with waits that time out generously.
#pragma once

#include <algorithm>
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
  using Hook = std::function<void(const std::shared_ptr<QLT_Peripheral>&, int32_t)>;

  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override {
    Hook hook = locked([&] { return states_.push_back(state), onState_; });
    if (hook) hook(p, state);
  }
  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    locked([&] { tcp_.push_back(d), tcpBytes_ += d.length(); });
  }
  void QLT_Peripheral_didReceivedUDPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    locked([&] { udp_.push_back(d); });
  }
  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    locked([&] { managerStates_.push_back(state); });
  }
  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    locked([&] { discovered_.push_back(p), discoveredRSSI_.push_back(p->RSSI()); });
  }

  // Called on the delegate's queue after each state is recorded.
  void onState(Hook hook) {
    locked([&] { onState_ = std::move(hook); });
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
    std::string s;
    for (const auto& d : tcp()) s += d.toString();
    return s;
  }
  void clear() {
    locked([&] {
      states_.clear(), managerStates_.clear(), tcp_.clear(), udp_.clear();
      discovered_.clear(), discoveredRSSI_.clear(), tcpBytes_ = 0;
    });
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
  bool waitForStateCount(size_t n) {
    return waitUntil([&] { return states_.size() >= n; });
  }
  bool waitForManagerState(int32_t state) {
    return waitUntil([&] { return !managerStates_.empty() && managerStates_.back() == state; });
  }
  bool waitForTcpBytes(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return waitUntil([&] { return tcpBytes_ >= n; }, timeout);
  }
  bool waitForUdp(size_t n) {
    return waitUntil([&] { return udp_.size() >= n; });
  }
  bool waitForDiscoveries(size_t n) {
    return waitUntil([&] { return discovered_.size() >= n; });
  }

 private:
  // Runs `f` under the lock and wakes the waiters.
  template <class F>
  auto locked(F f) const -> decltype(f()) {
    struct Notify {
      std::condition_variable& cv;
      ~Notify() { cv.notify_all(); }
    } notify{cv_};
    std::lock_guard lock(mutex_);
    return f();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<int32_t> states_, managerStates_;
  std::vector<Data> tcp_, udp_;
  size_t tcpBytes_ = 0;
  std::vector<std::shared_ptr<QLT_Peripheral>> discovered_;
  std::vector<int32_t> discoveredRSSI_;
  Hook onState_;
};

// Whether `states` is a sequence the peripheral state machine can produce, starting from
// `from`: discovery states (5 6 8 9) only inside a connection that reached 2, and never
// after 0 or 4 until a new 1. `why` explains the first offending step.
inline bool isLegalStateSequence(const std::vector<int32_t>& states, int32_t from,
                                 std::string* why) {
  auto in = [](int32_t s, std::initializer_list<int32_t> set) {
    return std::find(set.begin(), set.end(), s) != set.end();
  };
  bool linked = in(from, {2, 5, 6, 8, 9});
  int32_t prev = from;
  for (size_t i = 0; i < states.size(); ++i) {
    const int32_t s = states[i];
    // A wrapper made while its device is connected may adopt a discovery that an earlier
    // wrapper of the same device started: its first step may be 6.
    const bool ok = in(s, {0, 1, 3}) || (s == 4 && in(prev, {1, 3})) ||
                    (s == 2 && in(prev, {1, 2, 3, 5, 6, 8, 9})) ||
                    (s == 5 && linked && prev == 2) ||
                    (s == 6 && linked && (in(prev, {5, 6}) || (i == 0 && from == 2))) ||
                    (s == 8 && linked && in(prev, {2, 6, 8})) || (s == 9 && linked && prev == 5);
    if (!ok) {
      if (why)
        *why =
            "step " + std::to_string(i) + ": " + std::to_string(prev) + " -> " + std::to_string(s);
      return false;
    }
    linked = s == 2 || (linked && !in(s, {0, 1, 3, 4}));
    prev = s;
  }
  return true;
}

}  // namespace qlt::test
