// The tests' recorders: EventLog keeps events of any kind in arrival order, with waits that
// time out generously; PeripheralRecorder records what a QLT_Peripheral and a QLT_BLEManager
// announce (the platform suites record the backends' callbacks with one of their own).
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"

namespace qlt::test {

// Events with a `kind`, as they arrived.
template <class Event>
class EventLog {
 public:
  std::vector<Event> events(const std::string& kind = "") const {
    return locked([&] { return of(kind); });
  }
  size_t count(const std::string& kind) const { return events(kind).size(); }
  // Waits until `pred` holds (checked under the log's lock); false on time-out.
  bool waitUntil(const std::function<bool()>& pred,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, pred);
  }
  // The `n`th event of `kind` (1-based), once it has come.
  std::optional<Event> waitFor(const std::string& kind, size_t n = 1) {
    std::optional<Event> found;
    waitUntil([&] {
      auto all = of(kind);
      if (all.size() >= n) found = all[n - 1];
      return found.has_value();
    });
    return found;
  }
  void clear() {
    locked([&] { events_.clear(); });
  }

 protected:
  void record(Event e) {
    locked([&] { events_.push_back(std::move(e)); });
  }
  // The events of `kind` (all for ""); under the lock.
  std::vector<Event> of(const std::string& kind) const {
    std::vector<Event> out;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(out),
                 [&](const Event& e) { return kind.empty() || e.kind == kind; });
    return out;
  }
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

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<Event> events_;  // guarded by mutex_
};

// kind: state manager (a manager state) tcp udp discover; waitFor(kind, n) waits for the nth
struct LibraryEvent {
  std::string kind;
  int32_t state = 0;  // of the peripheral or the manager; for discover, the RSSI
  Data data{};
  std::shared_ptr<QLT_Peripheral> peripheral{};
};

class PeripheralRecorder : public EventLog<LibraryEvent>,
                           public QLT_PeripheralDidChangeState,
                           public QLT_PeripheralDidReceivedTCPData,
                           public QLT_PeripheralDidReceivedUDPData,
                           public QLT_BLEManagerDidChangedState,
                           public QLT_BLEManagerDidDiscoveredPeripheral {
 public:
  using Hook = std::function<void(const std::shared_ptr<QLT_Peripheral>&, int32_t)>;

  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override {
    record({"state", state});
    if (Hook hook = locked([&] { return onState_; })) hook(p, state);
  }
  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    record({"tcp", 0, d});
  }
  void QLT_Peripheral_didReceivedUDPData(const std::shared_ptr<QLT_Peripheral>&,
                                         const Data& d) override {
    record({"udp", 0, d});
  }
  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    record({"manager", state});
  }
  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    record({"discover", p->RSSI(), {}, p});
  }

  // Called on the delegate's queue after each state is recorded.
  void onState(Hook hook) {
    locked([&] { onState_ = std::move(hook); });
  }
  std::vector<int32_t> states() const { return field("state", &LibraryEvent::state); }
  std::vector<int32_t> managerStates() const { return field("manager", &LibraryEvent::state); }
  std::vector<Data> tcp() const { return field("tcp", &LibraryEvent::data); }
  std::vector<Data> udp() const { return field("udp", &LibraryEvent::data); }
  std::vector<std::shared_ptr<QLT_Peripheral>> discovered() const {
    return field("discover", &LibraryEvent::peripheral);
  }
  std::string tcpJoined() const {
    std::string s;
    for (const auto& d : tcp()) s += d.toString();
    return s;
  }

  bool waitForState(int32_t state, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return waitUntil([&] { return last("state") == state; }, timeout);
  }
  bool waitForTcpBytes(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return waitUntil(
        [&] {
          size_t bytes = 0;
          for (const auto& e : of("tcp")) bytes += e.data.length();
          return bytes >= n;
        },
        timeout);
  }

 private:
  template <class T>
  std::vector<T> field(const std::string& kind, T LibraryEvent::*member) const {
    std::vector<T> out;
    for (const auto& e : events(kind)) out.push_back(e.*member);
    return out;
  }
  std::optional<int32_t> last(const std::string& kind) const {
    auto all = of(kind);
    return all.empty() ? std::nullopt : std::optional(all.back().state);
  }
  Hook onState_;  // guarded by the log's lock
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
