#include "QueltLibrary/UartLink.h"

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"

namespace qlt {

namespace {

using SteadyClock = std::chrono::steady_clock;
using Reason = UartLink::Error::Reason;

std::string inSeconds(std::chrono::milliseconds d) {
  char text[32];
  std::snprintf(text, sizeof text, d.count() % 1000 ? "%.1f s" : "%.0f s", d.count() / 1000.0);
  return text;
}

}  // namespace

const char* toString(UartLink::State state) {
  switch (state) {
    case UartLink::State::Disconnected:
      return "disconnected";
    case UartLink::State::Connecting:
      return "connecting";
    case UartLink::State::Connected:
      return "connected";
    case UartLink::State::Lost:
      return "lost";
  }
  return "invalid";
}

// The delegate of the manager and of the peripheral; every callback arrives on queue_.
class QLT_HIDDEN UartLink::Impl : public QLT_BLEManagerDidChangedState,
                                  public QLT_BLEManagerDidDiscoveredPeripheral,
                                  public QLT_PeripheralDidChangeState,
                                  public QLT_PeripheralDidReceivedTCPData,
                                  public std::enable_shared_from_this<Impl> {
 public:
  explicit Impl(Options options)
      : options_(std::move(options)),
        manager_(options_.manager ? options_.manager : QLT_BLEManager::sharedInstance()),
        queue_(DispatchQueue::create("UartLink")) {}

  void attach() {
    manager_->addDelegate(shared_from_this(), queue_);
    manager_->moduleQueue()->sync([] {});  // from here on every manager event reaches us
  }

  void startConnect(std::string_view device) {
    std::shared_ptr<QLT_Peripheral> previous;
    uint64_t attempt = 0;
    {
      std::lock_guard lock(mutex_);
      if (state_ == State::Connecting || state_ == State::Connected) {
        throw Error(Reason::NotConnected, std::string("already ") + toString(state_) +
                                              (device_.empty() ? "" : " to " + device_));
      }
      attempt = ++attempt_;
      device_ = std::string(device);
      deadline_ = SteadyClock::now() + options_.timeout;
      searching_ = true;
      previous = std::exchange(peripheral_, nullptr);
      received_.clear();
      change(State::Connecting, Reason::NotConnected, "");
    }
    if (previous) previous->removeDelegate(shared_from_this());
    QLTLog("UartLink: looking for %s", std::string(device));
    std::weak_ptr<Impl> weak = weak_from_this();
    queue_->async([weak, attempt] {
      if (auto self = weak.lock()) self->search(attempt);
    });
    queue_->asyncAfter(options_.timeout, [weak, attempt] {
      if (auto self = weak.lock()) self->timeOut(attempt);
    });
  }

  void waitUntilConnected() {
    std::unique_lock lock(mutex_);
    const uint64_t attempt = attempt_;
    auto settled = [&] { return attempt_ != attempt || state_ != State::Connecting; };
    if (!changed_.wait_until(lock, deadline_, settled)) {
      lock.unlock();
      timeOut(attempt);  // the timer may be late on a busy machine; this is the same end
      lock.lock();
      changed_.wait(lock, settled);
    }
    if (attempt_ == attempt && state_ == State::Connected) return;
    if (attempt_ != attempt || error_.empty()) {
      throw Error(Reason::NotConnected, "disconnected while connecting to " + device_);
    }
    throw Error(reason_, error_);
  }

  void send(const Data& bytes) {
    std::shared_ptr<QLT_Peripheral> peripheral;
    {
      std::lock_guard lock(mutex_);
      throwUnlessConnected();
      peripheral = peripheral_;
    }
    peripheral->writeTCPData(bytes);
  }

  Data read(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout,
                      [&] { return !received_.empty() || state_ != State::Connected; });
    if (received_.empty()) {
      throwUnlessConnected();
      return {};
    }
    std::vector<uint8_t> bytes;
    for (const auto& d : received_) bytes.insert(bytes.end(), d.bytes(), d.bytes() + d.size());
    received_.clear();
    return Data(bytes);
  }

  void onReceive(std::function<void(const Data&)> callback) {
    std::lock_guard lock(mutex_);
    onReceive_ = std::move(callback);
  }
  void onStateChange(std::function<void(State, const std::string&)> callback) {
    std::lock_guard lock(mutex_);
    onState_ = callback ? std::make_shared<const StateCallback>(std::move(callback)) : nullptr;
  }
  State state() const {
    std::lock_guard lock(mutex_);
    return state_;
  }
  std::string lastError() const {
    std::lock_guard lock(mutex_);
    return error_;
  }

  void disconnect() {
    std::shared_ptr<QLT_Peripheral> peripheral;
    bool searching = false;
    {
      std::lock_guard lock(mutex_);
      ++attempt_;
      peripheral = peripheral_;
      searching = std::exchange(searching_, false);
      if (state_ == State::Connecting || state_ == State::Connected) {
        change(State::Disconnected, Reason::NotConnected, "");
      }
    }
    endAttempt(searching, peripheral);
  }

  // Disconnects, waits a little for the device to be told, and lets go of the library.
  void close() {
    disconnect();
    std::shared_ptr<QLT_Peripheral> peripheral;
    {
      std::unique_lock lock(mutex_);
      peripheral = peripheral_;
      // The state arrives through our own queue: waiting on it from there would only delay.
      if (peripheral && !queue_->isCurrent()) {
        changed_.wait_for(lock, std::chrono::seconds(2), [&] { return isDown(*peripheral); });
      }
    }
    manager_->removeDelegate(shared_from_this());
    if (peripheral) peripheral->removeDelegate(shared_from_this());
  }

  // QLT_BLEManager delegate
  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    if (state != QLT_BLEManagerStateIdle) return;
    uint64_t attempt = 0;
    {
      std::lock_guard lock(mutex_);
      attempt = attempt_;
    }
    search(attempt);  // powered on, or someone else's scan ended: scan (again)
  }

  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    uint64_t attempt = 0;
    {
      std::lock_guard lock(mutex_);
      if (state_ != State::Connecting || !searching_ || !p->answersTo(device_)) return;
      searching_ = false;
      peripheral_ = p;
      attempt = attempt_;
    }
    manager_->stopDiscover();
    p->setTransportType(options_.slidingWindow ? 1 : 0);
    p->addDelegate(shared_from_this(), queue_);
    p->moduleQueue()->sync([] {});  // every state from here on reaches us
    QLTLog("UartLink: found %@, connecting", p);
    manager_->connect(p);
    bool ended = false;
    {
      std::lock_guard lock(mutex_);
      // Ended meanwhile (disconnect(), the timeout) while it was still down: undo.
      ended = attempt != attempt_ || state_ != State::Connecting;
    }
    if (ended) endAttempt(false, p);
  }

  // QLT_Peripheral delegate
  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override {
    bool endIt = false;
    {
      std::lock_guard lock(mutex_);
      changed_.notify_all();  // close() may be waiting for the device to go down
      if (p != peripheral_) return;
      const bool connecting = state_ == State::Connecting && !searching_;
      if (connecting && state == QLT_PeripheralStateReady) {
        const std::string problem = p->linkProblem();
        if (problem.empty()) {
          change(State::Connected, Reason::NotConnected, "");
        } else {
          endIt = fail(Reason::Unusable, device_ + " cannot carry data: " + problem);
        }
      } else if (connecting && state == QLT_PeripheralStateDfuInProgress) {
        endIt = fail(Reason::Unusable, device_ + " offers no UART service");
      } else if (connecting && (state == QLT_PeripheralStateFailedToConnect ||
                                state == QLT_PeripheralStateDisconnected)) {
        const std::string problem = p->linkProblem();
        endIt = fail(Reason::ConnectFailed,
                     "cannot connect to " + device_ + (problem.empty() ? "" : ": " + problem));
      } else if (state_ == State::Connected && state == QLT_PeripheralStateDisconnected) {
        change(State::Lost, Reason::LinkLost, "the link to " + device_ + " was lost");
      }
    }
    if (endIt) endAttempt(false, p);
  }

  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>& p,
                                         const Data& data) override {
    std::function<void(const Data&)> callback;
    {
      std::lock_guard lock(mutex_);
      if (p != peripheral_) return;
      callback = onReceive_;
      if (!callback) {
        received_.push_back(data);
        changed_.notify_all();
      }
    }
    if (callback) callback(data);
  }

 private:
  using StateCallback = std::function<void(State, const std::string&)>;

  static bool isDown(const QLT_Peripheral& p) {
    return p.state() == QLT_PeripheralStateDisconnected ||
           p.state() == QLT_PeripheralStateFailedToConnect;
  }

  // On queue_: scans for the current attempt's device if it is still wanted and the
  // manager can scan now (otherwise its next idle state brings us back).
  void search(uint64_t attempt) {
    {
      std::lock_guard lock(mutex_);
      if (attempt != attempt_ || !searching_) return;
    }
    if (manager_->state() != QLT_BLEManagerStateIdle) return;
    manager_->startDiscover();
    bool ended = false;
    {
      std::lock_guard lock(mutex_);
      ended = attempt != attempt_ || !searching_;  // disconnected or timed out meanwhile
    }
    if (ended) manager_->stopDiscover();
  }

  void timeOut(uint64_t attempt) {
    bool searching = false;
    std::shared_ptr<QLT_Peripheral> peripheral;
    {
      std::lock_guard lock(mutex_);
      if (attempt != attempt_ || state_ != State::Connecting) return;
      searching = searching_;
      peripheral = peripheral_;
      if (searching) {
        const bool off = manager_->state() == QLT_BLEManagerStateUnavailable;
        fail(Reason::NotFound, "no device named " + device_ + " within " +
                                   inSeconds(options_.timeout) +
                                   (off ? " (Bluetooth is not powered on)" : ""));
      } else {
        fail(Reason::ConnectFailed,
             device_ + " did not connect within " + inSeconds(options_.timeout));
      }
    }
    endAttempt(searching, peripheral);
  }

  // Under mutex_: the current attempt failed. True: the caller calls endAttempt.
  bool fail(Reason reason, const std::string& message) {
    searching_ = false;
    change(State::Disconnected, reason, message);
    return true;
  }

  // Not under mutex_: stops what an ended attempt or link left running.
  void endAttempt(bool searching, const std::shared_ptr<QLT_Peripheral>& peripheral) {
    if (searching) manager_->stopDiscover();
    if (peripheral && !isDown(*peripheral)) manager_->disconnect(peripheral);
  }

  // Under mutex_: the one place the state changes; tells waiters and the callback.
  void change(State state, Reason reason, std::string error) {
    state_ = state;
    reason_ = reason;
    error_ = std::move(error);
    if (!error_.empty()) QLTLog("UartLink: %s", error_);
    changed_.notify_all();
    if (onState_) {
      queue_->async([callback = onState_, state, error = error_] { (*callback)(state, error); });
    }
  }

  // Under mutex_.
  void throwUnlessConnected() const {
    if (state_ == State::Connected) return;
    if (state_ == State::Lost) throw Error(Reason::LinkLost, error_);
    throw Error(Reason::NotConnected, "not connected");
  }

  const Options options_;
  const std::shared_ptr<QLT_BLEManager> manager_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;       // any change below, and every state of the peripheral
  State state_ = State::Disconnected;     // guarded by mutex_
  Reason reason_ = Reason::NotConnected;  // guarded by mutex_; of error_
  std::string error_;                     // guarded by mutex_
  uint64_t attempt_ = 0;                  // guarded by mutex_; advances when one ends
  std::string device_;                    // guarded by mutex_
  SteadyClock::time_point deadline_;      // guarded by mutex_
  bool searching_ = false;                // guarded by mutex_; the attempt awaits its device
  std::shared_ptr<QLT_Peripheral> peripheral_;    // guarded by mutex_; the device found
  std::vector<Data> received_;                    // guarded by mutex_; not yet read
  std::function<void(const Data&)> onReceive_;    // guarded by mutex_
  std::shared_ptr<const StateCallback> onState_;  // guarded by mutex_
};

UartLink::UartLink() : UartLink(Options{}) {}

UartLink::UartLink(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {
  impl_->attach();
}

UartLink::~UartLink() { impl_->close(); }

void UartLink::connect(std::string_view device) {
  impl_->startConnect(device);
  impl_->waitUntilConnected();
}
void UartLink::startConnect(std::string_view device) { impl_->startConnect(device); }
void UartLink::waitUntilConnected() { impl_->waitUntilConnected(); }
void UartLink::send(const Data& bytes) { impl_->send(bytes); }
Data UartLink::read(std::chrono::milliseconds timeout) { return impl_->read(timeout); }
void UartLink::onReceive(std::function<void(const Data&)> callback) {
  impl_->onReceive(std::move(callback));
}
void UartLink::onStateChange(std::function<void(State, const std::string&)> callback) {
  impl_->onStateChange(std::move(callback));
}
UartLink::State UartLink::state() const { return impl_->state(); }
std::string UartLink::lastError() const { return impl_->lastError(); }
void UartLink::disconnect() { impl_->disconnect(); }

}  // namespace qlt
