// Delayed tasks in due order: the heap behind the timer thread and behind each
// ManualClock. Not thread-safe; its owner guards it. Internal to the concurrency layer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"

namespace qlt::detail {

class TimerHeap {
 public:
  struct Timer {
    double due = 0;         // seconds, on the owner's clock
    uint64_t sequence = 0;  // keeps equal deadlines in submission order
    std::shared_ptr<DispatchQueue> queue;
    DispatchQueue::Task task;
  };

  bool empty() const { return heap_.empty(); }
  double earliest() const { return heap_.front().due; }
  void push(double due, std::shared_ptr<DispatchQueue> queue, DispatchQueue::Task task) {
    heap_.push_back({due, next_++, std::move(queue), std::move(task)});
    std::push_heap(heap_.begin(), heap_.end(), Later());
  }
  // Only when not empty.
  Timer pop() {
    std::pop_heap(heap_.begin(), heap_.end(), Later());
    Timer timer = std::move(heap_.back());
    heap_.pop_back();
    return timer;
  }

 private:
  struct Later {
    bool operator()(const Timer& a, const Timer& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };
  std::vector<Timer> heap_;
  uint64_t next_ = 0;
};

}  // namespace qlt::detail
