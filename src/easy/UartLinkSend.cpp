// UartLink's send buffer: send() hands bytes to the transport only while what it holds
// leaves room in Options::sendBuffer, and waits for the transport's everything-acknowledged
// event (or any change of state) otherwise; flush() waits for that event.
#include <algorithm>
#include <utility>

#include "easy/UartLinkImpl.h"

namespace qlt {

namespace {

// Set while this thread hands bytes to a transport with a link's lock held.
thread_local bool insideSend = false;

}  // namespace

size_t UartLink::Impl::send(const Data& bytes, SteadyClock::time_point deadline, bool wait) {
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
  // A drop with the session kept is waited through: the bytes go on on the next link.
  const uint64_t losses = losses_;
  while (done < bytes.size()) {
    const auto settled = [&] {
      return losses_ != losses || !carriesOn() || (state_ == State::Connected && roomLocked() > 0);
    };
    if (wait) waitUntil(changed_, lock, deadline, settled);
    if (losses_ != losses || !carriesOn()) {
      throw Error(Reason::LinkLost, error_.empty() ? "the link ended while sending" : error_);
    }
    const size_t n =
        state_ == State::Connected ? std::min<size_t>(roomLocked(), bytes.size() - done) : 0;
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

bool UartLink::Impl::flush(std::chrono::milliseconds timeout) {
  const auto deadline = deadlineAfter(timeout);
  std::unique_lock lock(mutex_);
  // Losses from here on end the flush, also while it waits for the link to come back. A
  // lost session drops its bytes in doubt from the count at once; its report follows.
  const uint64_t losses = losses_;
  const auto transport = transport_;
  const uint64_t doubt = transport ? transport->bytesInDoubt() : 0;
  const auto bytesLost = [&] { return losses_ != losses && lostAtLast_ > 0; };
  waitUntil(changed_, lock, deadline, [&] { return state_ != State::Reconnecting || bytesLost(); });
  if (bytesLost()) throw Error(Reason::LinkLost, lossText_);
  throwUnlessConnectedOrBack();
  if (state_ != State::Connected) return false;  // still reconnecting at the deadline
  waitUntil(changed_, lock, deadline, [&] {
    return losses_ != losses || !carriesOn() ||
           (state_ == State::Connected && unacknowledgedLocked() == 0);
  });
  if (bytesLost()) throw Error(Reason::LinkLost, lossText_);
  if (losses_ == losses && transport && transport == transport_ &&
      transport->bytesInDoubt() != doubt) {
    throw Error(Reason::LinkLost, sessionLossText(transport->bytesInDoubt() - doubt));
  }
  if (losses_ != losses) return true;               // it dropped with everything acknowledged
  if (state_ == State::Reconnecting) return false;  // the session waits for the next link
  throwUnlessConnected();
  return unacknowledgedLocked() == 0;
}

uint64_t UartLink::Impl::unacknowledged() const {
  std::lock_guard lock(mutex_);
  return unacknowledgedLocked();
}

// The transport's handler: everything handed over is acknowledged (any thread; with
// mutex_ held only when called from within send()).
void UartLink::Impl::allAcknowledged() {
  std::unique_lock lock(mutex_, std::defer_lock);
  if (!insideSend) lock.lock();
  updateFdLocked();
  changed_.notify_all();
}

void UartLink::Impl::attachTransportLocked(std::shared_ptr<BaseTransport> transport) {
  transport_ = std::move(transport);
  if (!transport_) return;
  transport_->setAllAcknowledgedHandler([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->allAcknowledged();
  });
}

void UartLink::Impl::detachTransportLocked() {
  if (transport_) transport_->setAllAcknowledgedHandler(nullptr);
  transport_ = nullptr;
}

void UartLink::Impl::updateFdLocked() const {
  if (roomWanted_ && state_ == State::Connected && roomLocked() == options_.sendBuffer) {
    roomWanted_ = false;
    roomAnnounced_ = true;
  }
  fd_.set((!received_.empty() && !onReceive_) || stateUnseen_ || roomAnnounced_);
}

}  // namespace qlt
