#include "QueltLibrary/UartLink.h"

#include <iterator>
#include <vector>

#include "QueltLibrary/Log.h"
#include "easy/UartLinkImpl.h"

namespace qlt {

const char* toString(UartLink::State state) {
  static constexpr const char* kNames[] = {"disconnected", "connecting", "connected",
                                           "reconnecting", "lost"};
  const auto i = static_cast<size_t>(state);
  return i < std::size(kNames) ? kNames[i] : "invalid";
}

UartLink::Impl::Impl(Options options)
    : options_(std::move(options)),
      manager_(options_.manager ? options_.manager : QLT_BLEManager::sharedInstance()),
      queue_(DispatchQueue::create("UartLink")) {
  if (options_.sendBuffer == 0) throw std::invalid_argument("UartLink: a sendBuffer of 0 bytes");
}

UartLink::Counters UartLink::Impl::counters() const {
  std::lock_guard lock(mutex_);
  return counters_;
}

platform::LinkInfo UartLink::Impl::linkInfo() const {
  std::shared_ptr<QLT_Peripheral> peripheral;
  {
    std::lock_guard lock(mutex_);
    throwUnlessConnected();
    peripheral = peripheral_;
  }
  return peripheral->linkInfo();
}

Data UartLink::Impl::read(std::chrono::milliseconds timeout) {
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

void UartLink::Impl::onReceive(std::function<void(const Data&)> callback) {
  std::lock_guard lock(mutex_);
  onReceive_ = std::move(callback);
  updateFdLocked();
}
void UartLink::Impl::onStateChange(std::function<void(State, const std::string&)> callback) {
  std::lock_guard lock(mutex_);
  onState_ = callback ? std::make_shared<const StateCallback>(std::move(callback)) : nullptr;
}
UartLink::State UartLink::Impl::state() const {
  std::lock_guard lock(mutex_);
  stateUnseen_ = false;
  updateFdLocked();
  return state_;
}
std::string UartLink::Impl::lastError() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void UartLink::Impl::disconnect() {
  std::shared_ptr<QLT_Peripheral> peripheral;
  std::shared_ptr<LinkOpener> opener;
  {
    std::lock_guard lock(mutex_);
    ++attempt_;
    peripheral = peripheral_;
    opener = std::move(opener_);
    sessionHeld_ = false;
    if (inAttempt() || state_ == State::Connected) {
      detachTransportLocked();
      change(State::Disconnected, Reason::NotConnected, "");
    }
  }
  if (opener) opener->cancel();  // stops its scan, disconnects what it connected
  if (peripheral) peripheral->endSession();
  if (peripheral && !isDown(*peripheral)) manager_->disconnect(peripheral);
}

void UartLink::Impl::close() {
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
  if (peripheral) peripheral->removeDelegate(shared_from_this());
  std::vector<std::shared_ptr<QLT_Peripheral>> previous;
  {
    std::lock_guard lock(mutex_);
    previous.swap(previous_);
  }
  for (const auto& p : previous) p->removeDelegate(shared_from_this());
}

void UartLink::Impl::QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>& p,
                                                       const Data& data) {
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

void UartLink::Impl::change(State state, Reason reason, std::string error) {
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

void UartLink::Impl::throwUnlessConnected() const {
  if (state_ == State::Connected) return;
  if (state_ == State::Lost || state_ == State::Reconnecting) {
    throw Error(Reason::LinkLost, error_);
  }
  throw Error(Reason::NotConnected, "not connected");
}

UartLink::UartLink() : UartLink(Options{}) {}

UartLink::UartLink(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {}

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
