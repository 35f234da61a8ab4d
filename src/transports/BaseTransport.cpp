#include "QueltLibrary/BaseTransport.h"

#include "worker/RoundPacer.h"

namespace qlt {

BaseTransport::BaseTransport(std::string className) : QLT_Object(std::move(className)) {}

std::shared_ptr<BaseTransport> BaseTransport::create() {
  return std::shared_ptr<BaseTransport>(new BaseTransport("BaseTransport"));
}

BaseTransport::~BaseTransport() {
  // A started transport is held by its own thread until that thread ends, so here the
  // thread (if any) has already finished or was never started.
  stop();
}

void BaseTransport::start() {
  std::shared_ptr<RoundPacer> pacer;
  {
    std::lock_guard lock(mutex_);
    if (pacer_) return;
    pacer_ = pacer =
        RoundPacer::create(DispatchQueue::create(moduleQueue()->label() + ".rounds"),
                           [weak = std::weak_ptr<BaseTransport>(sharedTransport())] {
                             auto self = weak.lock();
                             return self ? self->round() : std::numeric_limits<double>::infinity();
                           });
  }
  pacer->wake(0);
}

void BaseTransport::stop() {
  std::shared_ptr<RoundPacer> pacer;
  {
    std::lock_guard lock(mutex_);
    pacer = std::move(pacer_);
  }
  if (pacer) pacer->stop();
}

void BaseTransport::wakeRounds(double delaySeconds) {
  std::shared_ptr<RoundPacer> pacer;
  {
    std::lock_guard lock(mutex_);
    pacer = pacer_;
  }
  if (pacer) pacer->wake(delaySeconds);
}

std::shared_ptr<ThreadBase> BaseTransport::thread() const { return nullptr; }

void BaseTransport::writeRequest(const uint8_t* bytes, uint64_t length) {
  auto sender = senderDelegate();
  if (!sender) return;
  sender->transport_requestWriteData(sharedTransport(), Data(bytes, length));
}

std::shared_ptr<TransportSenderDelegate> BaseTransport::senderDelegate() const {
  std::lock_guard lock(mutex_);
  return senderDelegate_.lock();
}

void BaseTransport::setSenderDelegate(const std::shared_ptr<TransportSenderDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  senderDelegate_ = delegate;
}

void BaseTransport::setAllAcknowledgedHandler(std::function<void()> handler) {
  std::shared_ptr<const std::function<void()>> h;
  if (handler) h = std::make_shared<const std::function<void()>>(std::move(handler));
  std::lock_guard lock(mutex_);
  allAcknowledged_ = std::move(h);
}

void BaseTransport::notifyAllAcknowledged() {
  std::shared_ptr<const std::function<void()>> handler;
  {
    std::lock_guard lock(mutex_);
    handler = allAcknowledged_;
  }
  if (handler && *handler) (*handler)();
}

std::function<void()> BaseTransport::threadRunloop(const std::shared_ptr<ThreadBase>& thread) {
  return [self = sharedTransport(), thread] { self->run(thread); };
}

void BaseTransport::threadStopped(const std::shared_ptr<ThreadBase>& /*thread*/) {}

}  // namespace qlt
