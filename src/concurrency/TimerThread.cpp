#include "TimerThread.h"

#include <chrono>

#include "QueueImpl.h"

namespace qlt::detail {

namespace {

// The monotonic clock reads steady_clock in seconds since its epoch.
std::chrono::steady_clock::time_point toTimePoint(double seconds) {
  return std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::duration<double>(seconds)));
}

}  // namespace

TimerThread& TimerThread::shared() {
  static TimerThread* timers = new TimerThread;  // never destroyed, see ThreadPool
  return *timers;
}

void TimerThread::add(double due, std::shared_ptr<DispatchQueue> queue, DispatchQueue::Task task) {
  std::lock_guard lock(mutex_);
  heap_.push(due, std::move(queue), std::move(task));
  if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
  cv_.notify_one();
}

void TimerThread::loop() {
  nameThisThread("qlt.timer");
  std::unique_lock lock(mutex_);
  for (;;) {
    if (heap_.empty()) {
      cv_.wait(lock);
      continue;
    }
    const auto due = toTimePoint(heap_.earliest());
    if (std::chrono::steady_clock::now() < due) {
      cv_.wait_until(lock, due);
      continue;
    }
    TimerHeap::Timer timer = heap_.pop();
    lock.unlock();
    timer.queue->async(std::move(timer.task));
    timer = TimerHeap::Timer{};
    lock.lock();
  }
}

}  // namespace qlt::detail
