// AirPipe: one direction of a simulated link. Packets (tasks) put in are run on the
// target queue in the order they were put in, each no earlier than its delay after it
// was put in; a later packet never overtakes an earlier one, whatever the delays.
//
// With no delay a packet is run as soon as the target queue gets to it; several packets
// waiting at once are run in one task. Delays pass on the radio's clock.
//
// Thread safety: push() may be called from any thread.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt::sim {

class AirPipe : public std::enable_shared_from_this<AirPipe> {
 public:
  static std::shared_ptr<AirPipe> create(std::shared_ptr<DispatchQueue> target,
                                         std::shared_ptr<Clock> clock);
  void push(double delaySeconds, std::function<void()> packet);

 private:
  AirPipe(std::shared_ptr<DispatchQueue> target, std::shared_ptr<Clock> clock)
      : target_(std::move(target)), clock_(std::move(clock)) {}
  void schedule(double deadline, double now);  // with mutex_ held; times on clock_
  void drain();

  const std::shared_ptr<DispatchQueue> target_;
  const std::shared_ptr<Clock> clock_;
  std::mutex mutex_;
  std::deque<std::pair<double, std::function<void()>>> packets_;  // guarded by mutex_
  double lastDeadline_ = 0;                                       // guarded by mutex_
  bool scheduled_ = false;  // a drain is submitted; guarded by mutex_
};

}  // namespace qlt::sim
