// Submits the monotonic clock's delayed tasks to their queues when due: one thread
// (qlt.timer), started on first use, sleeping on a condition variable until the earliest
// deadline. Internal to the concurrency layer.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "TimerHeap.h"

namespace qlt::detail {

class TimerThread {
 public:
  static TimerThread& shared();
  // `due`: seconds on Clock::monotonic().
  void add(double due, std::shared_ptr<DispatchQueue> queue, DispatchQueue::Task task);

 private:
  void loop();

  std::mutex mutex_;
  std::condition_variable cv_;
  TimerHeap heap_;      // guarded by mutex_
  std::thread thread_;  // guarded by mutex_
};

}  // namespace qlt::detail
