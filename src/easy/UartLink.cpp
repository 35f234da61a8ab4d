#include "QueltLibrary/UartLink.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "easy/LinkWaits.h"

namespace qlt {

namespace {

using Reason = UartLink::Error::Reason;
using State = UartLink::State;
// Set while this thread hands bytes to a transport with a link's lock held.
thread_local bool insideSend = false;

}  // namespace

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
        queue_(DispatchQueue::create("UartLink")) {
    if (options_.sendBuffer == 0) throw std::invalid_argument("UartLink: a sendBuffer of 0 bytes");
  }

  void attach() {
    manager_->addDelegate(shared_from_this(), queue_);
    manager_->moduleQueue()->sync([] {});  // from here on every manager event reaches us
  }

  void startConnect(std::string_view device) {
    {
      std::lock_guard lock(mutex_);
      if (inAttempt() || state_ == State::Connected) {
        throw Error(Reason::NotConnected, std::string("already ") + toString(state_) +
                                              (device_.empty() ? "" : " to " + device_));
      }
    }
    chooseAdapter();
    uint64_t attempt = 0;
    {
      std::lock_guard lock(mutex_);
      if (inAttempt() || state_ == State::Connected) {
        throw Error(Reason::NotConnected, std::string("already ") + toString(state_));
      }
      device_ = std::string(device);
      received_.clear();
      change(State::Connecting, Reason::NotConnected, "");
      attempt = beginSearch();
    }
    launchSearch(attempt);
  }

  // Uses Options::adapter, else QLT_ADAPTER where the backend has adapters to choose from.
  void chooseAdapter() {
    auto central = manager_->centralManager();
    std::string wanted = options_.adapter;
    if (wanted.empty()) {
      // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
      const char* env = std::getenv("QLT_ADAPTER");
      if (!env || !*env || !central || central->adapters().empty()) return;
      wanted = env;
    }
    if (!central)
      throw Error(Reason::NoAdapter, "no Bluetooth central to choose adapter " + wanted);
    if (auto error = central->useAdapter(wanted)) {
      throw Error(Reason::NoAdapter, error->message);
    }
  }

  void waitUntilConnected() {
    std::unique_lock lock(mutex_);
    if (state_ == State::Reconnecting) {
      changed_.wait(lock, [&] { return state_ != State::Reconnecting; });
      if (state_ == State::Connected) return;
      throwUnlessConnected();
    }
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

  // Hands a leading part of `bytes` to the transport, as the send buffer allows, waiting
  // for room until `deadline` (now: not at all). Returns the count handed over.
  size_t send(const Data& bytes, SteadyClock::time_point deadline, bool wait) {
    std::unique_lock sendLock(sendMutex_, std::defer_lock);
    if (wait) {
      sendLock.lock();
    } else if (!sendLock.try_lock()) {
      std::lock_guard lock(mutex_);
      throwUnlessConnectedOrBack();
      return 0;  // another thread is sending: the buffer is as good as full
    }
    size_t done = 0;
    std::unique_lock lock(mutex_);
    if (std::exchange(roomAnnounced_, false)) updateFdLocked();
    if (wait) waitUntil(changed_, lock, deadline, [&] { return state_ != State::Reconnecting; });
    throwUnlessConnectedOrBack();
    if (state_ != State::Connected) {
      wantRoomLocked();
      return 0;
    }
    const uint64_t link = links_;
    while (done < bytes.size()) {
      const auto settled = [&] {
        return links_ != link || state_ != State::Connected || roomLocked() > 0;
      };
      if (wait) waitUntil(changed_, lock, deadline, settled);
      if (links_ != link || state_ != State::Connected) {
        throw Error(Reason::LinkLost, error_.empty() ? "the link ended while sending" : error_);
      }
      const size_t n = std::min<size_t>(roomLocked(), bytes.size() - done);
      if (n == 0) {
        wantRoomLocked();
        break;  // out of time, or trySend's buffer is full
      }
      // Under mutex_, so a drop counts exactly what the transport took. The transport may
      // call allAcknowledged() from in here; it knows the lock is held.
      insideSend = true;
      transport_->sendTCP(bytes.bytes() + done, n);
      insideSend = false;
      done += n;
    }
    return done;
  }

  bool flush(std::chrono::milliseconds timeout) {
    const auto deadline = deadlineAfter(timeout);
    std::unique_lock lock(mutex_);
    waitUntil(changed_, lock, deadline, [&] { return state_ != State::Reconnecting; });
    throwUnlessConnectedOrBack();
    if (state_ != State::Connected) return false;  // still reconnecting at the deadline
    const uint64_t link = links_;
    waitUntil(changed_, lock, deadline, [&] {
      return links_ != link || state_ != State::Connected || unacknowledgedLocked() == 0;
    });
    if (links_ != link && discardedAtLastDrop_ > 0) throw Error(Reason::LinkLost, dropReason_);
    if (links_ != link) return true;  // it dropped with everything acknowledged
    throwUnlessConnected();
    return unacknowledgedLocked() == 0;
  }

  uint64_t unacknowledged() const {
    std::lock_guard lock(mutex_);
    return unacknowledgedLocked();
  }

  Counters counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
  }

  std::shared_ptr<BaseTransport> transport() const {
    std::lock_guard lock(mutex_);
    return transport_;
  }

  platform::LinkInfo linkInfo() const {
    std::shared_ptr<QLT_Peripheral> peripheral;
    {
      std::lock_guard lock(mutex_);
      throwUnlessConnected();
      peripheral = peripheral_;
    }
    return peripheral->linkInfo();
  }

  int fd() const { return fd_.fd(); }

  // The transport's handler: everything handed over is acknowledged (any thread; with
  // mutex_ held only when called from within send()).
  void allAcknowledged() {
    std::unique_lock lock(mutex_, std::defer_lock);
    if (!insideSend) lock.lock();
    updateFdLocked();
    changed_.notify_all();
  }

  Data read(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] {
      return !received_.empty() || (state_ != State::Connected && state_ != State::Reconnecting);
    });
    if (received_.empty()) {
      throwUnlessConnectedOrBack();
      return {};
    }
    std::vector<uint8_t> bytes;
    for (const auto& d : received_) bytes.insert(bytes.end(), d.bytes(), d.bytes() + d.size());
    received_.clear();
    updateFdLocked();
    return Data(bytes);
  }

  void onReceive(std::function<void(const Data&)> callback) {
    std::lock_guard lock(mutex_);
    onReceive_ = std::move(callback);
    updateFdLocked();
  }
  void onStateChange(std::function<void(State, const std::string&)> callback) {
    std::lock_guard lock(mutex_);
    onState_ = callback ? std::make_shared<const StateCallback>(std::move(callback)) : nullptr;
  }
  State state() const {
    std::lock_guard lock(mutex_);
    stateUnseen_ = false;
    updateFdLocked();
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
      if (inAttempt() || state_ == State::Connected) {
        detachTransportLocked();
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
    std::vector<std::shared_ptr<QLT_Peripheral>> previous;
    {
      std::lock_guard lock(mutex_);
      previous.swap(previous_);
    }
    for (const auto& p : previous) p->removeDelegate(shared_from_this());
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
      if (!inAttempt() || !searching_ || !p->answersTo(device_)) return;
      searching_ = false;
      peripheral_ = p;
      attempt = attempt_;
    }
    manager_->stopDiscover();
    p->setTransportType(options_.slidingWindow ? 1 : 0);
    p->setExtendedWindow(options_.extendedWindow);
    p->addDelegate(shared_from_this(), queue_);
    p->moduleQueue()->sync([] {});  // every state from here on reaches us
    QLTLog("UartLink: found %@, connecting", p);
    manager_->connect(p);
    bool ended = false;
    {
      std::lock_guard lock(mutex_);
      // Ended meanwhile (disconnect(), the timeout) while it was still down: undo.
      ended = attempt != attempt_ || !inAttempt();
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
      const bool connecting = inAttempt() && !searching_;
      if (connecting && state == QLT_PeripheralStateReady) {
        const std::string problem = p->linkProblem();
        if (problem.empty()) {
          connected(p);
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
        dropped(p);
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
        updateFdLocked();
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
      if (attempt != attempt_ || !inAttempt()) return;
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

  // Under mutex_: the current attempt failed. True: the caller calls endAttempt. A try to
  // reconnect that fails schedules the next, or gives up after the last.
  bool fail(Reason reason, const std::string& message) {
    searching_ = false;
    if (state_ != State::Reconnecting) {
      change(State::Disconnected, reason, message);
      return true;
    }
    ++tries_;
    const auto& policy = options_.reconnect;
    if (policy.maxTries > 0 && tries_ >= policy.maxTries) {
      change(State::Lost, Reason::LinkLost,
             "gave up reconnecting to " + device_ + " after " + std::to_string(tries_) +
                 (tries_ == 1 ? " try: " : " tries: ") + message);
      return true;
    }
    change(State::Reconnecting, Reason::LinkLost,
           dropReason_ + "; reconnecting (try " + std::to_string(tries_) + " failed: " + message +
               ")");
    delay_ = std::min(delay_ * 2,
                      std::chrono::duration_cast<std::chrono::milliseconds>(policy.maxDelay));
    scheduleTry();
    return true;
  }

  // Under mutex_: the attempt (or try) reached a ready peripheral.
  void connected(const std::shared_ptr<QLT_Peripheral>& p) {
    if (state_ == State::Reconnecting) ++counters_.reconnects;
    transport_ = p->transport();
    if (transport_) {
      transport_->setAllAcknowledgedHandler([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->allAcknowledged();
      });
    }
    change(State::Connected, Reason::NotConnected, "");
  }

  // Under mutex_: the connected link went down. What the transport still held is counted
  // and named, never sent again.
  void dropped(const std::shared_ptr<QLT_Peripheral>& p) {
    const uint64_t discarded = unacknowledgedLocked();
    detachTransportLocked();
    ++links_;
    ++counters_.drops;
    counters_.bytesDiscarded += discarded;
    discardedAtLastDrop_ = discarded;
    std::string why;  // "the link dropped: <the platform's reason>"
    if (p->linkProblemKind() == QLT_LinkProblem::LinkLost) {
      why = p->linkProblem();
      why.erase(0, why.find(": ") == std::string::npos ? 0 : why.find(": ") + 2);
    }
    dropReason_ = "the link to " + device_ + " was lost" + (why.empty() ? "" : ": " + why);
    if (discarded > 0) {
      dropReason_ +=
          " with " + std::to_string(discarded) + " bytes unacknowledged; they were discarded";
    }
    if (!options_.reconnect.enabled) {
      change(State::Lost, Reason::LinkLost, dropReason_);
      return;
    }
    tries_ = 0;
    delay_ = options_.reconnect.firstDelay;
    change(State::Reconnecting, Reason::LinkLost, dropReason_);
    scheduleTry();
  }

  // Under mutex_: the next try to reconnect, after delay_.
  void scheduleTry() {
    const uint64_t attempt = ++attempt_;
    queue_->asyncAfter(delay_, [weak = weak_from_this(), attempt] {
      if (auto self = weak.lock()) self->tryAgain(attempt);
    });
  }

  // On queue_: one try to reconnect: search, connect, as connect() does.
  void tryAgain(uint64_t attempt) {
    {
      std::lock_guard lock(mutex_);
      if (attempt != attempt_ || state_ != State::Reconnecting) return;
      attempt = beginSearch();
    }
    launchSearch(attempt);  // logs "looking for" the device
  }

  // Under mutex_: a new attempt that searches for device_; returns its number.
  uint64_t beginSearch() {
    const uint64_t attempt = ++attempt_;
    deadline_ = SteadyClock::now() + options_.timeout;
    searching_ = true;
    if (peripheral_) previous_.push_back(std::exchange(peripheral_, nullptr));
    return attempt;
  }

  // Not under mutex_: starts the search of `attempt` and its time-out.
  void launchSearch(uint64_t attempt) {
    std::vector<std::shared_ptr<QLT_Peripheral>> previous;
    std::string device;
    {
      std::lock_guard lock(mutex_);
      previous.swap(previous_);
      device = device_;
    }
    for (const auto& p : previous) p->removeDelegate(shared_from_this());
    QLTLog("UartLink: looking for %s", device);
    std::weak_ptr<Impl> weak = weak_from_this();
    queue_->async([weak, attempt] {
      if (auto self = weak.lock()) self->search(attempt);
    });
    queue_->asyncAfter(options_.timeout, [weak, attempt] {
      if (auto self = weak.lock()) self->timeOut(attempt);
    });
  }

  // Under mutex_.
  bool inAttempt() const { return state_ == State::Connecting || state_ == State::Reconnecting; }
  uint64_t unacknowledgedLocked() const { return transport_ ? transport_->unacknowledged() : 0; }
  size_t roomLocked() const {
    const uint64_t held = unacknowledgedLocked();
    return held >= options_.sendBuffer ? 0 : static_cast<size_t>(options_.sendBuffer - held);
  }
  void wantRoomLocked() {
    roomWanted_ = true;
    updateFdLocked();
  }
  void detachTransportLocked() {
    if (transport_) transport_->setAllAcknowledgedHandler(nullptr);
    transport_ = nullptr;
  }
  // The level of fd(): something waits for the application.
  void updateFdLocked() const {
    if (roomWanted_ && state_ == State::Connected && roomLocked() == options_.sendBuffer) {
      roomWanted_ = false;
      roomAnnounced_ = true;
    }
    fd_.set((!received_.empty() && !onReceive_) || stateUnseen_ || roomAnnounced_);
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
    stateUnseen_ = true;
    updateFdLocked();
    if (!error_.empty()) QLTLog("UartLink: %s", error_);
    changed_.notify_all();
    if (onState_) {
      queue_->async([callback = onState_, state, error = error_] { (*callback)(state, error); });
    }
  }

  // Under mutex_.
  void throwUnlessConnected() const {
    if (state_ == State::Connected) return;
    if (state_ == State::Lost || state_ == State::Reconnecting) {
      throw Error(Reason::LinkLost, error_);
    }
    throw Error(Reason::NotConnected, "not connected");
  }
  void throwUnlessConnectedOrBack() const {
    if (state_ != State::Reconnecting) throwUnlessConnected();
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
  std::shared_ptr<QLT_Peripheral> peripheral_;             // guarded by mutex_; the device found
  std::vector<Data> received_;                             // guarded by mutex_; not yet read
  std::function<void(const Data&)> onReceive_;             // guarded by mutex_
  std::shared_ptr<const StateCallback> onState_;           // guarded by mutex_
  std::vector<std::shared_ptr<QLT_Peripheral>> previous_;  // guarded; to let go of
  std::shared_ptr<BaseTransport> transport_;  // guarded by mutex_; the connected link's
  uint64_t links_ = 0;                        // guarded by mutex_; advances at every drop
  Counters counters_;                         // guarded by mutex_
  uint64_t discardedAtLastDrop_ = 0;          // guarded by mutex_
  std::string dropReason_;                    // guarded by mutex_
  int tries_ = 0;                       // guarded by mutex_; failed tries to reconnect in a row
  std::chrono::milliseconds delay_{0};  // guarded by mutex_; before the next try
  mutable bool stateUnseen_ = false;    // guarded by mutex_; a change state() has not returned
  mutable bool roomWanted_ = false;     // guarded by mutex_; a trySend found the buffer full
  mutable bool roomAnnounced_ = false;  // guarded by mutex_; fd() says the buffer emptied
  mutable LevelFd fd_;                  // its level guarded by mutex_
  std::mutex sendMutex_;                // one sender at a time, so the buffer's bound holds
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
void UartLink::send(const Data& bytes) { impl_->send(bytes, kForever, true); }
size_t UartLink::send(const Data& bytes, std::chrono::milliseconds timeout) {
  return impl_->send(bytes, deadlineAfter(timeout), true);
}
size_t UartLink::trySend(const Data& bytes) {
  return impl_->send(bytes, SteadyClock::now(), false);
}
bool UartLink::flush(std::chrono::milliseconds timeout) { return impl_->flush(timeout); }
uint64_t UartLink::unacknowledged() const { return impl_->unacknowledged(); }
UartLink::Counters UartLink::counters() const { return impl_->counters(); }
std::optional<SlideWindowCounters> UartLink::windowCounters() const {
  const auto transport = impl_->transport();
  return transport ? transport->windowCounters() : std::nullopt;
}
platform::LinkInfo UartLink::linkInfo() const { return impl_->linkInfo(); }
int UartLink::fd() const { return impl_->fd(); }
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
