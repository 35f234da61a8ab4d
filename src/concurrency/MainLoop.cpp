#include "MainLoop.h"

#include "QueueImpl.h"

namespace qlt::detail {

MainLoop& MainLoop::shared() {
  static MainLoop* loop = new MainLoop;  // never destroyed, see ThreadPool
  return *loop;
}

void MainLoop::useApplicationThread() {
  std::lock_guard lock(mutex_);
  applicationDriven_ = true;
}

void MainLoop::schedule(std::shared_ptr<QueueImpl> queue) {
  std::lock_guard lock(mutex_);
  pending_ = std::move(queue);
  if (!applicationDriven_ && !thread_.joinable()) {
    thread_ = std::thread([this] {
      nameThisThread("qlt.main");
      for (;;) serveOnce(std::chrono::steady_clock::time_point::max(), false);
    });
  }
  cv_.notify_all();
}

size_t MainLoop::serveOnce(std::chrono::steady_clock::time_point deadline, bool stoppable) {
  std::shared_ptr<QueueImpl> queue;
  {
    std::unique_lock lock(mutex_);
    auto ready = [&] { return pending_ != nullptr || (stoppable && stopRequested_); };
    if (deadline == std::chrono::steady_clock::time_point::max()) {
      cv_.wait(lock, ready);
    } else {
      cv_.wait_until(lock, deadline, ready);
    }
    queue = std::move(pending_);
    pending_.reset();
  }
  return queue ? queue->drain() : 0;
}

void MainLoop::run() {
  for (;;) {
    serveOnce(std::chrono::steady_clock::time_point::max(), true);
    std::lock_guard lock(mutex_);
    if (stopRequested_) {
      stopRequested_ = false;
      return;
    }
  }
}

void MainLoop::stop() {
  std::lock_guard lock(mutex_);
  if (!applicationDriven_) return;  // the library's own thread serves on; nothing to stop
  stopRequested_ = true;
  cv_.notify_all();
}

size_t MainLoop::runPending() {
  size_t ran = 0;
  for (;;) {
    std::shared_ptr<QueueImpl> queue;
    {
      std::lock_guard lock(mutex_);
      queue = std::move(pending_);
      pending_.reset();
    }
    if (!queue) return ran;
    ran += queue->drain();
  }
}

}  // namespace qlt::detail
