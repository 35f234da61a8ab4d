#include "worker/RoundPacer.h"

#include <chrono>
#include <cmath>

namespace qlt {

RoundPacer::RoundPacer(std::shared_ptr<DispatchQueue> queue, std::function<double()> round,
                       std::shared_ptr<Clock> clock)
    : queue_(std::move(queue)),
      round_(std::move(round)),
      clock_(clock ? std::move(clock) : std::shared_ptr<Clock>(Clock::monotonic())) {}

std::shared_ptr<RoundPacer> RoundPacer::create(std::shared_ptr<DispatchQueue> queue,
                                               std::function<double()> round,
                                               std::shared_ptr<Clock> clock) {
  return std::shared_ptr<RoundPacer>(
      new RoundPacer(std::move(queue), std::move(round), std::move(clock)));
}

void RoundPacer::wake(double delaySeconds) {
  if (!(delaySeconds < 1e9)) return;  // infinity (or NaN): nothing is due
  const double delay = std::max(delaySeconds, 0.0);
  const double now = clock_->now();
  std::lock_guard lock(mutex_);
  if (stopped_ || now + delay >= dueAt_) return;  // a round is due no later already
  dueAt_ = now + delay;
  armLocked(now);
}

void RoundPacer::armLocked(double now) {
  if (dueAt_ <= now) {
    if (immediate_) return;
    immediate_ = true;
    queue_->async([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->fire(std::nullopt);
    });
    return;
  }
  if (armedAt_ <= dueAt_) return;  // that task runs the round (or rearms for it)
  armedAt_ = dueAt_;
  queue_->asyncAfter(
      std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::duration<double>(dueAt_ - now)),
      [weak = weak_from_this(), at = dueAt_] {
        if (auto self = weak.lock()) self->fire(at);
      },
      *clock_);
}

void RoundPacer::fire(std::optional<double> armedFor) {
  {
    std::lock_guard lock(mutex_);
    if (!armedFor) {
      immediate_ = false;
    } else if (*armedFor == armedAt_) {
      armedAt_ = kNever;
    }
    if (stopped_) return;
    // A timer task a hair early is on time: its delay was rounded to whole nanoseconds, and
    // on a ManualClock that does not move it would otherwise re-arm for ever.
    const double now = clock_->now();
    if (dueAt_ > now + kDueSlack) {
      // Stale (its round already ran) or early: arm for what is due, if anything.
      if (dueAt_ != kNever) armLocked(now);
      return;
    }
    dueAt_ = kNever;  // wakes from now on ask for the next round
  }
  wake(round_());
}

void RoundPacer::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
}

}  // namespace qlt
