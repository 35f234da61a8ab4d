#include "QueltLibrary/ThreadBase.h"

#include <pthread.h>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Log.h"

namespace qlt {

ThreadBase::ThreadBase(std::shared_ptr<ThreadBaseDelegate> delegate)
    : hExit_(HANDLE::createManualEvent()), delegate_(std::move(delegate)) {}

std::shared_ptr<ThreadBase> ThreadBase::create(std::shared_ptr<ThreadBaseDelegate> delegate) {
  return std::shared_ptr<ThreadBase>(new ThreadBase(std::move(delegate)));
}

ThreadBase::~ThreadBase() {
  // Every thread is joined. The last reference may be dropped on the thread itself (its
  // delegate let go of it in threadStopped): then a pool task joins it once it returns.
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    auto finishing = std::make_shared<std::thread>(std::move(thread_));
    // Never destroyed: a worker may end while the process exits, after static destructors.
    static const auto* reaper =
        // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): out of memory ends the process
        new std::shared_ptr<DispatchQueue>(DispatchQueue::create("ThreadBase.reaper"));
    (*reaper)->async([finishing] { finishing->join(); });
  } else {
    thread_.join();
  }
}

void ThreadBase::start() {
  std::lock_guard lock(mutex_);
  if (alive() || started_) return;  // runs at most once
  started_ = true;
  hExit_->reset();
  alive_.store(true, std::memory_order_release);
  thread_ = std::thread([self = shared_from_this()] { self->threadInternalProcedure(); });
}

void ThreadBase::stop() {
  if (alive()) hExit_->set();
}

bool ThreadBase::isClosing() { return hExit_->waitTimeout(0.001); }

void ThreadBase::run() {
  while (!isClosing()) {}
}

std::shared_ptr<ThreadBaseDelegate> ThreadBase::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void ThreadBase::setDelegate(std::shared_ptr<ThreadBaseDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void ThreadBase::threadInternalProcedure() {
  pthread_setname_np(pthread_self(), "qlt.worker");
  auto self = shared_from_this();
  auto d = delegate();
  if (d) d->threadStarted(self);
  std::function<void()> loop;
  if (d) loop = d->threadRunloop(self);
  if (loop) {
    loop();
  } else {
    QLTLog("No runloop was defined!!!");
  }
  loop = nullptr;
  if (d) d->threadStopped(self);
  d.reset();
  alive_.store(false, std::memory_order_release);
}

}  // namespace qlt
