// Clock: where the library's stopwatches read the time.
//
// The default is the monotonic clock. Tests and simulations hand a ManualClock to the
// objects that take one (ComTimer, the sliding-window engines) and advance it by hand, so
// that a retransmission scenario of minutes runs in microseconds without sleeping.
//
// Thread safety: now() may be called from any thread; ManualClock::advance too.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since an arbitrary fixed origin.
  virtual double now() const = 0;
  // The process-wide monotonic clock.
  static const std::shared_ptr<Clock>& monotonic();
};

class QLT_EXPORT ManualClock final : public Clock {
 public:
  explicit ManualClock(double start = 0.0) : now_(start) {}
  double now() const override { return now_.load(std::memory_order_acquire); }
  void advance(double seconds) { set(now() + seconds); }
  void set(double seconds) { now_.store(seconds, std::memory_order_release); }

 private:
  std::atomic<double> now_;
};

}  // namespace qlt
