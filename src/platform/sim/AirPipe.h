// AirPipe: one direction of a simulated link. Packets (tasks) put in are run on the
// target queue in the order they were put in, each no earlier than its delay after it
// was put in; a later packet never overtakes an earlier one, whatever the delays.
//
// With no delay a packet is run as soon as the target queue gets to it; several packets
// waiting at once are run in one task.
//
// Thread safety: push() may be called from any thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/DispatchQueue.h"

namespace qlt::sim {

class AirPipe : public std::enable_shared_from_this<AirPipe> {
 public:
  static std::shared_ptr<AirPipe> create(std::shared_ptr<DispatchQueue> target);
  void push(double delaySeconds, std::function<void()> packet);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;
  explicit AirPipe(std::shared_ptr<DispatchQueue> target) : target_(std::move(target)) {}
  void schedule(TimePoint deadline, TimePoint now);  // with mutex_ held
  void drain();

  const std::shared_ptr<DispatchQueue> target_;
  std::mutex mutex_;
  std::deque<std::pair<TimePoint, std::function<void()>>> packets_;  // guarded by mutex_
  TimePoint lastDeadline_{};                                         // guarded by mutex_
  bool scheduled_ = false;  // a drain is submitted; guarded by mutex_
};

}  // namespace qlt::sim
