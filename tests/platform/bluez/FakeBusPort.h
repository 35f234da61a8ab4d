// A BusPort without a bus: records every call, and lets the test answer calls, fire timers
// and run posted tasks by hand, so the backend's layers run fast and deterministically.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "platform/bluez/BusPort.h"

namespace qlt::bluez::test {

class FakeBusPort final : public BusPort {
 public:
  struct Call {
    uint64_t id;
    std::string path;
    std::string method;
    Reply done;
  };

  // The pending calls go first: their replies may still post.
  ~FakeBusPort() override { std::exchange(pending_, {}).clear(); }
  bool isBusThread() const override { return true; }
  void post(Task task) override { posted_.push_back(std::move(task)); }
  void call(const std::string& path, const char*, const char* method, const Arguments&,
            std::chrono::milliseconds, Reply done, ScopedHandle* keep) override {
    const uint64_t id = nextId_++;
    pending_.push_back(Call{id, path, method, std::move(done)});
    sent_.push_back(method);
    if (keep)
      *keep = ScopedHandle([this, id] { drop([id](const Call& c) { return c.id == id; }); });
  }
  void askBus(const char*, const std::string&, Reply) override {}
  void releaseProxy(const std::string& path) override {
    drop([&](const Call& c) { return c.path == path; });
  }
  void releaseAllProxies() override { pending_.clear(); }
  ScopedHandle runAfter(std::chrono::milliseconds delay, Task task) override {
    const uint64_t id = nextId_++;
    timers_.emplace(id, std::make_pair(now_ + delay, std::move(task)));
    return ScopedHandle([this, id] { timers_.erase(id); });
  }
  ScopedHandle watch(int, short, std::function<void(short)>) override { return {}; }
  ScopedHandle match(const std::string&, std::function<void(sdbus::Message&)>) override {
    return {};
  }

  // Answers the oldest pending call of `method`: success, or the D-Bus error `error`.
  // False when none is pending.
  bool answer(const std::string& method, const std::string& error = {}) {
    auto it = std::find_if(pending_.begin(), pending_.end(),
                           [&](const Call& c) { return c.method == method; });
    if (it == pending_.end()) return false;
    Call call = std::move(*it);
    pending_.erase(it);
    const auto reason =
        error.empty() ? platform::ErrorReason::Other : platform::ErrorReason::Refused;
    const platform::Error e{error, "refused by the test", reason};
    call.done(nullptr, error.empty() ? nullptr : &e);
    return true;
  }
  void advance(std::chrono::milliseconds by) {
    now_ += by;
    for (auto it = timers_.begin(); it != timers_.end();) {
      if (it->second.first > now_) {
        ++it;
        continue;
      }
      Task task = std::move(it->second.second);
      timers_.erase(it);
      task();
      it = timers_.begin();
    }
  }
  void runPosted() {
    while (!posted_.empty()) {
      Task task = std::move(posted_.front());
      posted_.erase(posted_.begin());
      task();
    }
  }
  const std::vector<Call>& pending() const { return pending_; }
  // The methods called so far, in order; cleared by the call.
  std::vector<std::string> takeSent() { return std::exchange(sent_, {}); }

 private:
  template <class Match>
  void drop(Match match) {
    std::vector<Call> dropped;  // destroyed after the list is consistent again
    for (auto it = pending_.begin(); it != pending_.end();) {
      if (match(*it)) {
        dropped.push_back(std::move(*it));
        it = pending_.erase(it);
      } else {
        ++it;
      }
    }
  }

  std::vector<Call> pending_;
  std::vector<std::string> sent_;
  std::map<uint64_t, std::pair<std::chrono::milliseconds, Task>> timers_;
  std::vector<Task> posted_;
  std::chrono::milliseconds now_{0};
  uint64_t nextId_ = 1;
};

}  // namespace qlt::bluez::test
