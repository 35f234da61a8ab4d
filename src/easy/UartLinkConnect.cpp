// UartLink's way to a connected link: each attempt (connect(), every try to reconnect) is a
// LinkOpener's, within Options::timeout; here are what the link makes of its report, a
// drop, and reconnection's tries.
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
    attempt = beginAttempt();
  }
  launch(attempt);
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
    auto opener = opener_;
    lock.unlock();
    // The opener's timer may be late on a busy machine; this is the same end.
    if (opener) opener->expire();
    opener.reset();
    lock.lock();
    changed_.wait(lock, settled);
  }
  if (attempt_ == attempt && state_ == State::Connected) return;
  if (attempt_ != attempt || error_.empty()) {
    throw Error(Reason::NotConnected, "disconnected while connecting to " + device_);
  }
  throw Error(reason_, error_);
}

// The opener's report of the attempt (or try) `attempt`: a ready link, or why not.
void UartLink::Impl::opened(uint64_t attempt, const LinkOpener::Result& r) {
  std::shared_ptr<LinkOpener> opener;
  std::lock_guard lock(mutex_);
  if (attempt != attempt_ || !inAttempt()) return;
  opener = std::move(opener_);  // let go of outside the lock (it has ended)
  const std::string why = r.problem.empty() ? "" : ": " + r.problem;
  switch (r.outcome) {
    case LinkOpener::Outcome::Ready:
      connected(r.peripheral);
      return;
    case LinkOpener::Outcome::NotFound:
    case LinkOpener::Outcome::Found:
      fail(Reason::NotFound, "no device named " + device_ + " within " +
                                 inSeconds(options_.timeout) +
                                 (r.bluetoothOff ? " (Bluetooth is not powered on)" : ""));
      return;
    case LinkOpener::Outcome::TimedOut:
      fail(Reason::ConnectFailed,
           device_ + " did not connect within " + inSeconds(options_.timeout));
      return;
    case LinkOpener::Outcome::ConnectFailed:
    case LinkOpener::Outcome::Dropped:
      fail(Reason::ConnectFailed, "cannot connect to " + device_ + why);
      return;
    case LinkOpener::Outcome::NoUartService:
      fail(Reason::Unusable, device_ + " offers no UART service");
      return;
    case LinkOpener::Outcome::Unusable:
      fail(Reason::Unusable, device_ + " cannot carry data" + why);
      return;
  }
}

// On queue_, before the opener connects: the link's transport and delegate.
void UartLink::Impl::found(uint64_t attempt, const std::shared_ptr<QLT_Peripheral>& p) {
  std::shared_ptr<QLT_Peripheral> other;
  {
    std::lock_guard lock(mutex_);
    if (attempt != attempt_ || !inAttempt()) return;
    if (p == peripheral_) return;  // the one that holds our session: still our delegate
    other = std::exchange(peripheral_, p);
    if (other) previous_.push_back(other);
  }
  if (other) other->endSession();  // another peripheral answered: the session stays behind
  p->setTransportType(options_.slidingWindow ? 1 : 0);
  p->setExtendedWindow(options_.extendedWindow);
  p->addDelegate(shared_from_this(), queue_);
  p->moduleQueue()->sync([] {});  // every state from here on reaches us
}

// QLT_Peripheral delegate: a drop of the connected link (the opener follows the attempt).
void UartLink::Impl::QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                                   int32_t state) {
  std::lock_guard lock(mutex_);
  changed_.notify_all();  // close() may be waiting for the device to go down
  if (p == peripheral_ && state_ == State::Connected && state == QLT_PeripheralStateDisconnected)
    dropped(p);
}

// Under mutex_: the current attempt failed (the opener has stopped what it started). A try
// to reconnect that fails schedules the next, or gives up after the last.
void UartLink::Impl::fail(Reason reason, const std::string& message) {
  if (state_ != State::Reconnecting) {
    change(State::Disconnected, reason, message);
    return;
  }
  ++tries_;
  const auto& policy = options_.reconnect;
  if (policy.maxTries > 0 && tries_ >= policy.maxTries) {
    const std::string gaveUp = "gave up reconnecting to " + device_ + " after " +
                               std::to_string(tries_) + (tries_ == 1 ? " try: " : " tries: ") +
                               message;
    if (std::exchange(sessionHeld_, false)) {
      // What the held session had, queued or in flight, goes with it.
      const uint64_t held = unacknowledgedLocked();
      counters_.bytesInDoubt += held;
      lost(held,
           gaveUp + (held > 0 ? "; " + std::to_string(held) + " bytes unacknowledged were discarded"
                              : ""));
      detachTransportLocked();
    }
    endSessionLater(peripheral_);
    change(State::Lost, Reason::LinkLost, gaveUp);
    return;
  }
  change(
      State::Reconnecting, Reason::LinkLost,
      dropReason_ + "; reconnecting (try " + std::to_string(tries_) + " failed: " + message + ")");
  delay_ =
      std::min(delay_ * 2, std::chrono::duration_cast<std::chrono::milliseconds>(policy.maxDelay));
  scheduleTry();
}

// Under mutex_: the attempt (or try) reached a ready peripheral. A session held since the
// drop goes on in the same transport; another transport (another peripheral answered to
// the name) means what the held one had is lost.
void UartLink::Impl::connected(const std::shared_ptr<QLT_Peripheral>& p) {
  const bool back = state_ == State::Reconnecting;
  if (back) ++counters_.reconnects;
  const auto transport = p->transport();
  if (sessionHeld_ && transport_ && transport != transport_) sessionLost(unacknowledgedLocked());
  sessionHeld_ = false;
  if (transport != transport_) attachTransportLocked(transport);
  // A session lost on the way back stays in lastError() until the next drop.
  const bool lostSince = back && !sessionLossText_.empty();
  change(State::Connected, lostSince ? Reason::LinkLost : Reason::NotConnected,
         lostSince ? sessionLossText_ : "");
}

// Under mutex_.
void UartLink::Impl::lost(uint64_t bytes, std::string why) {
  ++losses_;
  lostAtLast_ = bytes;
  lossText_ = std::move(why);
}

std::string UartLink::Impl::sessionLossText(uint64_t bytes) const {
  return "a new session began with " + device_ +
         " (the device restarted, or another one answered, or the session was held too " +
         "long): " + std::to_string(bytes) +
         " bytes sent were never acknowledged and may or may not have arrived";
}

// Under mutex_: a new session began where ours was held; `bytes` of ours are in doubt.
void UartLink::Impl::sessionLost(uint64_t bytes) {
  ++counters_.sessionsLost;
  if (bytes == 0) return;  // nothing was in flight: nothing is lost
  counters_.bytesInDoubt += bytes;
  sessionLossText_ = sessionLossText(bytes);
  lost(bytes, sessionLossText_);
  if (state_ == State::Connected) {
    change(State::Connected, Reason::LinkLost, sessionLossText_);
  } else if (state_ == State::Reconnecting) {
    change(State::Reconnecting, Reason::LinkLost, dropReason_ + "; " + sessionLossText_);
  }
}

void UartLink::Impl::endSessionLater(const std::shared_ptr<QLT_Peripheral>& p) {
  if (p) queue_->async([p] { p->endSession(); });
}

// QLT_Peripheral delegate: what the link that came up made of the session (on queue_).
void UartLink::Impl::QLT_Peripheral_didChangeSession(const std::shared_ptr<QLT_Peripheral>& p,
                                                     const SessionChange& change) {
  std::lock_guard lock(mutex_);
  if (p != peripheral_) return;
  if (change.resumed) {
    ++counters_.sessionsResumed;
  } else {
    sessionLost(change.bytesInDoubt);
  }
}

// Under mutex_: the connected link went down. With a session kept, what the transport
// still holds waits in it for the next link; otherwise it is counted and named, never sent
// again.
void UartLink::Impl::dropped(const std::shared_ptr<QLT_Peripheral>& p) {
  const uint64_t held = unacknowledgedLocked();
  ++counters_.drops;
  sessionLossText_.clear();
  std::string why;  // "the link dropped: <the platform's reason>"
  if (p->linkProblemKind() == QLT_LinkProblem::LinkLost) {
    why = p->linkProblem();
    why.erase(0, why.find(": ") == std::string::npos ? 0 : why.find(": ") + 2);
  }
  dropReason_ = "the link to " + device_ + " was lost" + (why.empty() ? "" : ": " + why);
  sessionHeld_ = keepsSession();
  if (sessionHeld_) {
    if (held > 0) {
      dropReason_ += " with " + std::to_string(held) +
                     " bytes unacknowledged; they are kept for the next link";
    }
  } else {
    detachTransportLocked();
    counters_.bytesDiscarded += held;
    if (held > 0) {
      dropReason_ += " with " + std::to_string(held) + " bytes unacknowledged; they were discarded";
    }
    lost(held, dropReason_);  // a send() or flush() waiting ends with the link
    endSessionLater(p);
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
    attempt = beginAttempt();
  }
  launch(attempt);  // logs "looking for" the device
}

// Under mutex_: a new attempt for device_; returns its number.
uint64_t UartLink::Impl::beginAttempt() {
  const uint64_t attempt = ++attempt_;
  deadline_ = SteadyClock::now() + options_.timeout;
  // The peripheral that holds our session stays ours (and we its delegate) for the try.
  if (peripheral_ && !sessionHeld_) previous_.push_back(std::exchange(peripheral_, nullptr));
  return attempt;
}

// Not under mutex_: hands `attempt` to an opener (search, connect, its time-out).
void UartLink::Impl::launch(uint64_t attempt) {
  std::vector<std::shared_ptr<QLT_Peripheral>> previous;
  LinkOpener::Request request;
  {
    std::lock_guard lock(mutex_);
    previous.swap(previous_);
    request.device = device_;
  }
  for (const auto& p : previous) p->removeDelegate(shared_from_this());
  QLTLog("UartLink: looking for %s", request.device);
  std::weak_ptr<Impl> weak = weak_from_this();
  request.manager = manager_;
  request.timeout = options_.timeout;
  request.onFound = [weak, attempt](const std::shared_ptr<QLT_Peripheral>& p) {
    if (auto self = weak.lock()) self->found(attempt, p);
  };
  auto opener = LinkOpener::start(std::move(request), queue_,
                                  [weak, attempt](const LinkOpener::Result& result) {
                                    if (auto self = weak.lock()) self->opened(attempt, result);
                                  });
  std::lock_guard lock(mutex_);
  // Ended meanwhile (disconnect()): the opener goes with this scope, cancelled.
  if (attempt == attempt_ && inAttempt()) opener_.swap(opener);
}

}  // namespace qlt
