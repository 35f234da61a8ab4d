#include "QueltLibrary/BLESlideWindow.h"

#include "protocol/SlideWindowEngine.h"
#include "worker/RoundPacer.h"

namespace qlt {

class BLESlideWindow::Face final : public SlideWindowEngine::Face {
 public:
  explicit Face(BLESlideWindow& owner) : owner_(owner) {}
  void writeFrame(const uint8_t* bytes, size_t length) override {
    owner_.writeRequest(bytes, length);
  }
  void deliverTCP(const Data& payload) override {
    owner_.multicastDelegate()->invoke(&BLESlideWindowDelegate::slideWindow_tcpDataReceived,
                                       owner_.self(), payload);
  }
  void deliverUDP(const Data& payload) override {
    owner_.multicastDelegate()->invoke(&BLESlideWindowDelegate::slideWindow_udpDataReceived,
                                       owner_.self(), payload);
  }

 private:
  BLESlideWindow& owner_;
};

BLESlideWindow::BLESlideWindow(std::shared_ptr<Clock> clock)
    : QLT_Object("BLESlideWindow"),
      face_(std::make_unique<Face>(*this)),
      engine_(std::make_unique<SlideWindowEngine>(
          *face_, SlideWindowParameters{kSegmentSize, kPollTimeout}, std::move(clock))) {
  engine_->setWakeup([this](double delay) {
    std::shared_ptr<RoundPacer> pacer;
    {
      std::lock_guard lock(mutex_);
      pacer = pacer_;
    }
    if (pacer) pacer->wake(delay);
  });
}

BLESlideWindow::~BLESlideWindow() {
  // A started slide window is held by its own thread until that thread ends, so here the
  // thread (if any) has already finished or was never started.
  stop();
}

std::shared_ptr<BLESlideWindow> BLESlideWindow::create(std::shared_ptr<Clock> clock) {
  if (!clock) clock = Clock::monotonic();
  return std::shared_ptr<BLESlideWindow>(new BLESlideWindow(std::move(clock)));
}

void BLESlideWindow::start() {
  std::shared_ptr<RoundPacer> pacer;
  {
    std::lock_guard lock(mutex_);
    if (pacer_) return;
    pacer_ = pacer = RoundPacer::create(DispatchQueue::create("BLESlideWindow.rounds"),
                                        [weak = std::weak_ptr<BLESlideWindow>(self())] {
                                          auto self = weak.lock();
                                          if (!self) return std::numeric_limits<double>::infinity();
                                          self->engine_->round();
                                          return self->engine_->untilNextRound();
                                        });
  }
  pacer->wake(0);
}

void BLESlideWindow::stop() {
  std::shared_ptr<RoundPacer> pacer;
  {
    std::lock_guard lock(mutex_);
    pacer = std::move(pacer_);
  }
  if (pacer) pacer->stop();
}

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
    engine_->round();
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

void BLESlideWindow::initState() { engine_->initState(); }
void BLESlideWindow::receive(const Data& value) { engine_->receive(value); }
void BLESlideWindow::ackReceived(uint64_t count) { engine_->ackReceived(count); }
void BLESlideWindow::sendTCP(const uint8_t* bytes, uint64_t length) {
  engine_->sendTCP(bytes, length);
}
void BLESlideWindow::sendUDP(const uint8_t* bytes, uint64_t length) {
  engine_->sendUDP(bytes, length);
}
void BLESlideWindow::transfer() { engine_->transfer(); }
void BLESlideWindow::checkControl() { engine_->checkControl(); }
void BLESlideWindow::doPendingWork() { engine_->doPendingWork(); }
uint64_t BLESlideWindow::pendingWork() const { return engine_->pendingWork(); }
void BLESlideWindow::setPendingWork(uint64_t bits) { engine_->setPendingWork(bits); }
SlideWindowCounters BLESlideWindow::counters() const { return engine_->counters(); }
void BLESlideWindow::setFrameTrace(std::function<void(bool, const Data&)> trace) {
  engine_->setFrameTrace(std::move(trace));
}
uint64_t BLESlideWindow::readPos() const { return engine_->readPos(); }
uint8_t BLESlideWindow::ackWindow() const { return engine_->ackWindow(); }
uint8_t BLESlideWindow::remoteAck() const { return engine_->remoteAck(); }
size_t BLESlideWindow::queuedSegments() const { return engine_->queuedSegments(); }
uint8_t BLESlideWindow::inFlight() const { return engine_->inFlight(); }

}  // namespace qlt
