#include "QueltLibrary/BLESlideWindow.h"

#include "protocol/SlideWindowDriver.h"

namespace qlt {

BLESlideWindow::BLESlideWindow() : QLT_Object("BLESlideWindow") {}

BLESlideWindow::~BLESlideWindow() = default;

std::shared_ptr<BLESlideWindow> BLESlideWindow::create(std::shared_ptr<Clock> clock) {
  auto window = std::shared_ptr<BLESlideWindow>(new BLESlideWindow());
  std::weak_ptr<BLESlideWindow> weak = window;
  auto deliver = [weak](auto callback) {
    return [weak, callback](const Data& payload) {
      if (auto self = weak.lock()) self->multicastDelegate()->invoke(callback, self, payload);
    };
  };
  window->driver_ = SlideWindowDriver::create(
      {kSegmentSize, kPollTimeout}, std::move(clock), DispatchQueue::create("BLESlideWindow.link"),
      {.write =
           [weak](const uint8_t* bytes, size_t length) {
             if (auto self = weak.lock()) self->writeRequest(bytes, length);
           },
       .deliverTCP = deliver(&BLESlideWindowDelegate::slideWindow_tcpDataReceived),
       .deliverUDP = deliver(&BLESlideWindowDelegate::slideWindow_udpDataReceived),
       .session =
           [weak](const SessionChange& change) {
             if (auto self = weak.lock())
               self->multicastDelegate()->invoke(
                   &BLESlideWindowSessionDelegate::slideWindow_sessionChanged, self, change);
           }});
  return window;
}

void BLESlideWindow::start() { driver_->start(); }
void BLESlideWindow::stop() { driver_->stop(); }

std::shared_ptr<ThreadBase> BLESlideWindow::thread() const {
  std::lock_guard lock(mutex_);
  return thread_;
}

std::function<void()> BLESlideWindow::threadRunloop(const std::shared_ptr<ThreadBase>&) {
  return [self = self()] { self->run(); };
}

void BLESlideWindow::threadStarted(const std::shared_ptr<ThreadBase>& thread) {
  std::lock_guard lock(mutex_);
  thread_ = thread;
}

void BLESlideWindow::threadStopped(const std::shared_ptr<ThreadBase>& thread) {
  std::lock_guard lock(mutex_);
  if (thread_ == thread) thread_.reset();
}

void BLESlideWindow::run() {
  for (;;) {
    // The field is read afresh every round.
    std::shared_ptr<ThreadBase> t = thread();
    if (t && t->isClosing()) return;
    driver_->round();
  }
}

void BLESlideWindow::writeRequest(const uint8_t* bytes, uint64_t length) {
  auto sender = senderDelegate();
  if (!sender) return;
  sender->slideWindow_requestWriteData(self(), Data(bytes, length));
}

std::shared_ptr<BLESlideWindowSenderDelegate> BLESlideWindow::senderDelegate() const {
  std::lock_guard lock(mutex_);
  return senderDelegate_.lock();
}

void BLESlideWindow::setSenderDelegate(
    const std::shared_ptr<BLESlideWindowSenderDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  senderDelegate_ = delegate;
}

void BLESlideWindow::receive(const Data& value) { driver_->receive(value); }
void BLESlideWindow::receive(const Data& value, uint64_t link) { driver_->receive(value, link); }
void BLESlideWindow::sendTCP(const uint8_t* bytes, uint64_t length) {
  driver_->sendTCP(bytes, length);
}
void BLESlideWindow::sendUDP(const uint8_t* bytes, uint64_t length) {
  driver_->sendUDP(bytes, length);
}
uint64_t BLESlideWindow::unacknowledged() const { return driver_->unacknowledged(); }
void BLESlideWindow::setFrameTrace(std::function<void(bool, const Data&)> trace) {
  driver_->setFrameTrace(std::move(trace));
}

}  // namespace qlt
