// Clock: where the library's stopwatches read the time, and what its delayed tasks wait on.
//
// The default is the monotonic clock. Tests and simulations hand a ManualClock to the
// objects that take one (ComTimer, the sliding-window engines, DispatchQueue::asyncAfter)
// and advance it by hand, so that a retransmission scenario of minutes runs in
// microseconds without sleeping.
//
// Delayed tasks: queue->asyncAfter(delay, task, clock) submits `task` to the queue once
// `clock` has moved `delay` past its now(). On the monotonic clock the library's timer
// thread (qlt.timer) waits for the deadline; on a ManualClock nothing waits: advance() and
// set() themselves submit every task that has come due, in due order, before they return
// (each then runs on its queue like any async task: queue->sync([]{}) waits for it).
//
// Thread safety: now() may be called from any thread; ManualClock::advance and set too
// (concurrent ones submit their due tasks one after the other).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "QueltLibrary/Export.h"

namespace qlt {

class DispatchQueue;

class QLT_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since an arbitrary fixed origin.
  virtual double now() const = 0;
  // The process-wide monotonic clock.
  static const std::shared_ptr<Clock>& monotonic();

 protected:
  friend class DispatchQueue;
  // Submits `task` to `queue` (async) once now() has reached `due`, or at once when it has
  // already. Called by DispatchQueue::asyncAfter.
  virtual void submitAt(double due, std::shared_ptr<DispatchQueue> queue,
                        std::function<void()> task) = 0;
};

class QLT_EXPORT ManualClock final : public Clock {
 public:
  explicit ManualClock(double start = 0.0);
  // Tasks still waiting for their time are dropped unrun.
  ~ManualClock() override;
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  double now() const override { return now_.load(std::memory_order_acquire); }
  // Moves the time on (or to `seconds`) and submits the delayed tasks that are now due.
  void advance(double seconds);
  void set(double seconds);
  // The earliest deadline of the delayed tasks still waiting; nullopt when none waits.
  std::optional<double> nextDue() const;

 private:
  void submitAt(double due, std::shared_ptr<DispatchQueue> queue,
                std::function<void()> task) override;
  template <class Moved>
  void moveTo(const Moved& moved);

  struct Timers;
  std::atomic<double> now_;
  std::unique_ptr<Timers> timers_;
};

}  // namespace qlt
