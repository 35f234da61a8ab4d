// ComTimer: a stopwatch with a time-out. It calls nobody back; its users poll it.
//
// A timer runs from the moment it is made; start() moves its origin to now. isTimeout()
// is true when strictly more than Timeout seconds have passed since the origin. Like every
// module it has a queue and a multicast delegate of its own, which it does not use (the
// queue is made on first use, so an unused timer is about 240 bytes and no thread).
//
// Thread safety: start, elapse, isTimeout and the accessors may be called from any
// thread; the origin and the time-out are atomic, but a start() followed by isTimeout()
// is not one step, so a timer is meant to be driven by one thread at a time.
#pragma once

#include <atomic>
#include <memory>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"

namespace qlt {

class QLT_EXPORT ComTimer : public QLT_Object {
 public:
  // A timer with the default time-out of 1.0 s.
  static std::shared_ptr<ComTimer> timer(std::shared_ptr<Clock> clock = Clock::monotonic());
  static std::shared_ptr<ComTimer> timerWithTimeout(
      double seconds, std::shared_ptr<Clock> clock = Clock::monotonic());

  void start();
  // Seconds since the origin; never below 0, also while start() runs on another thread.
  double elapse() const;
  bool isTimeout() const;

  double Timeout() const { return timeout_.load(std::memory_order_relaxed); }
  void setTimeout(double seconds) { timeout_.store(seconds, std::memory_order_relaxed); }
  // The origin, in seconds of the timer's clock.
  double tm() const { return tm_.load(std::memory_order_relaxed); }
  void setTm(double seconds) { tm_.store(seconds, std::memory_order_relaxed); }

 protected:
  ComTimer(double seconds, std::shared_ptr<Clock> clock);

 private:
  const std::shared_ptr<Clock> clock_;
  std::atomic<double> timeout_;
  std::atomic<double> tm_;
};

}  // namespace qlt
