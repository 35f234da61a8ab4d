#include "QueltLibrary/ComTimer.h"

#include <algorithm>

namespace qlt {

ComTimer::ComTimer(double seconds, std::shared_ptr<Clock> clock)
    : QLT_Object("ComTimer"), clock_(std::move(clock)), timeout_(seconds), tm_(0.0) {
  start();
}

std::shared_ptr<ComTimer> ComTimer::timer(std::shared_ptr<Clock> clock) {
  return timerWithTimeout(1.0, std::move(clock));
}

std::shared_ptr<ComTimer> ComTimer::timerWithTimeout(double seconds, std::shared_ptr<Clock> clock) {
  // One allocation for the timer and its reference count.
  struct Made final : ComTimer {
    Made(double s, std::shared_ptr<Clock> c) : ComTimer(s, std::move(c)) {}
  };
  return std::make_shared<Made>(seconds, std::move(clock));
}

void ComTimer::start() { tm_.store(clock_->now(), std::memory_order_relaxed); }

// Never negative: a start() on another thread may move the origin past the clock reading.
double ComTimer::elapse() const {
  const double origin = tm_.load(std::memory_order_relaxed);
  return std::max(0.0, clock_->now() - origin);
}

bool ComTimer::isTimeout() const { return elapse() > Timeout(); }

}  // namespace qlt
