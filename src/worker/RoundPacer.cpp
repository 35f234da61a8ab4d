#include "worker/RoundPacer.h"

#include <cmath>

namespace qlt {

RoundPacer::RoundPacer(std::shared_ptr<DispatchQueue> queue, std::function<double()> round)
    : queue_(std::move(queue)), round_(std::move(round)) {}

std::shared_ptr<RoundPacer> RoundPacer::create(std::shared_ptr<DispatchQueue> queue,
                                               std::function<double()> round) {
  return std::shared_ptr<RoundPacer>(new RoundPacer(std::move(queue), std::move(round)));
}

void RoundPacer::wake(double delaySeconds) {
  if (!(delaySeconds < 1e9)) return;  // infinity (or NaN): nothing is due
  const auto delay = std::chrono::duration_cast<Steady::duration>(
      std::chrono::duration<double>(std::max(delaySeconds, 0.0)));
  const auto now = Steady::now();
  std::lock_guard lock(mutex_);
  if (stopped_ || now + delay >= dueAt_) return;  // a round is due no later already
  dueAt_ = now + delay;
  armLocked(now);
}

void RoundPacer::armLocked(Steady::time_point now) {
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
  queue_->asyncAfter(dueAt_ - now, [weak = weak_from_this(), at = dueAt_] {
    if (auto self = weak.lock()) self->fire(at);
  });
}

void RoundPacer::fire(std::optional<Steady::time_point> armedFor) {
  {
    std::lock_guard lock(mutex_);
    if (!armedFor) {
      immediate_ = false;
    } else if (*armedFor == armedAt_) {
      armedAt_ = Steady::time_point::max();
    }
    if (stopped_) return;
    const auto now = Steady::now();
    if (dueAt_ > now) {
      // Stale (its round already ran) or early: arm for what is due, if anything.
      if (dueAt_ != Steady::time_point::max()) armLocked(now);
      return;
    }
    dueAt_ = Steady::time_point::max();  // wakes from now on ask for the next round
  }
  wake(round_());
}

void RoundPacer::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
}

}  // namespace qlt
