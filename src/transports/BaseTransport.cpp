#include "QueltLibrary/BaseTransport.h"

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
  std::shared_ptr<ThreadBase> t;
  {
    std::lock_guard lock(mutex_);
    if (!thread_) {
      thread_ = ThreadBase::create(std::static_pointer_cast<BaseTransport>(shared_from_this()));
    }
    t = thread_;
  }
  if (!t->alive()) t->start();
}

void BaseTransport::stop() {
  std::shared_ptr<ThreadBase> t = thread();
  if (t && t->alive()) t->stop();
}

std::shared_ptr<ThreadBase> BaseTransport::thread() const {
  std::lock_guard lock(mutex_);
  return thread_;
}

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

std::function<void()> BaseTransport::threadRunloop(const std::shared_ptr<ThreadBase>& thread) {
  return [self = sharedTransport(), thread] { self->run(thread); };
}

void BaseTransport::threadStopped(const std::shared_ptr<ThreadBase>& thread) {
  std::lock_guard lock(mutex_);
  if (thread_ == thread) thread_.reset();
}

}  // namespace qlt
