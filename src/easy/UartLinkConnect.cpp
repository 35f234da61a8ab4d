// UartLink's way to a connected link: find the device (a scan), connect, wait for the
// peripheral to be ready, within Options::timeout; a drop, and reconnection's tries.
#include <cstdlib>

#include "QueltLibrary/Log.h"
#include "easy/UartLinkImpl.h"

namespace qlt {

void UartLink::Impl::startConnect(std::string_view device) {
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
void UartLink::Impl::chooseAdapter() {
  auto central = manager_->centralManager();
  std::string wanted = options_.adapter;
  if (wanted.empty()) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
    const char* env = std::getenv("QLT_ADAPTER");
    if (!env || !*env || !central || central->adapters().empty()) return;
    wanted = env;
  }
  if (!central) throw Error(Reason::NoAdapter, "no Bluetooth central to choose adapter " + wanted);
  if (auto error = central->useAdapter(wanted)) {
    throw Error(Reason::NoAdapter, error->message);
  }
}

void UartLink::Impl::waitUntilConnected() {
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

void UartLink::Impl::manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&,
                                             int32_t state) {
  if (state != QLT_BLEManagerStateIdle) return;
  uint64_t attempt = 0;
  {
    std::lock_guard lock(mutex_);
    attempt = attempt_;
  }
  search(attempt);  // powered on, or someone else's scan ended: scan (again)
}

void UartLink::Impl::manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                                     const std::shared_ptr<QLT_Peripheral>& p) {
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

void UartLink::Impl::QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                                   int32_t state) {
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

// On queue_: scans for the current attempt's device if it is still wanted and the
// manager can scan now (otherwise its next idle state brings us back).
void UartLink::Impl::search(uint64_t attempt) {
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

void UartLink::Impl::timeOut(uint64_t attempt) {
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
bool UartLink::Impl::fail(Reason reason, const std::string& message) {
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
  change(
      State::Reconnecting, Reason::LinkLost,
      dropReason_ + "; reconnecting (try " + std::to_string(tries_) + " failed: " + message + ")");
  delay_ =
      std::min(delay_ * 2, std::chrono::duration_cast<std::chrono::milliseconds>(policy.maxDelay));
  scheduleTry();
  return true;
}

// Under mutex_: the attempt (or try) reached a ready peripheral.
void UartLink::Impl::connected(const std::shared_ptr<QLT_Peripheral>& p) {
  if (state_ == State::Reconnecting) ++counters_.reconnects;
  attachTransportLocked(p->transport());
  change(State::Connected, Reason::NotConnected, "");
}

// Under mutex_: the connected link went down. What the transport still held is counted
// and named, never sent again.
void UartLink::Impl::dropped(const std::shared_ptr<QLT_Peripheral>& p) {
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
void UartLink::Impl::scheduleTry() {
  const uint64_t attempt = ++attempt_;
  queue_->asyncAfter(delay_, [weak = weak_from_this(), attempt] {
    if (auto self = weak.lock()) self->tryAgain(attempt);
  });
}

// On queue_: one try to reconnect: search, connect, as connect() does.
void UartLink::Impl::tryAgain(uint64_t attempt) {
  {
    std::lock_guard lock(mutex_);
    if (attempt != attempt_ || state_ != State::Reconnecting) return;
    attempt = beginSearch();
  }
  launchSearch(attempt);  // logs "looking for" the device
}

// Under mutex_: a new attempt that searches for device_; returns its number.
uint64_t UartLink::Impl::beginSearch() {
  const uint64_t attempt = ++attempt_;
  deadline_ = SteadyClock::now() + options_.timeout;
  searching_ = true;
  if (peripheral_) previous_.push_back(std::exchange(peripheral_, nullptr));
  return attempt;
}

// Not under mutex_: starts the search of `attempt` and its time-out.
void UartLink::Impl::launchSearch(uint64_t attempt) {
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

// Not under mutex_: stops what an ended attempt or link left running.
void UartLink::Impl::endAttempt(bool searching, const std::shared_ptr<QLT_Peripheral>& peripheral) {
  if (searching) manager_->stopDiscover();
  if (peripheral && !isDown(*peripheral)) manager_->disconnect(peripheral);
}

}  // namespace qlt
