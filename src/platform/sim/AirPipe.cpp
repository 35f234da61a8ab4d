#include "AirPipe.h"

#include <algorithm>
#include <vector>

namespace qlt::sim {

namespace {
// A packet this close to its deadline is due: the delay handed to the clock is rounded to
// nanoseconds, and a wake-up a hair early must not leave the packet for the next one.
constexpr double kDueSlack = 1e-6;
}  // namespace

std::shared_ptr<AirPipe> AirPipe::create(std::shared_ptr<DispatchQueue> target,
                                         std::shared_ptr<Clock> clock) {
  return std::shared_ptr<AirPipe>(new AirPipe(std::move(target), std::move(clock)));
}

void AirPipe::push(double delaySeconds, std::function<void()> packet) {
  const double now = clock_->now();
  std::lock_guard lock(mutex_);
  const double deadline = std::max(now + std::max(delaySeconds, 0.0), lastDeadline_);
  lastDeadline_ = deadline;
  packets_.emplace_back(deadline, std::move(packet));
  if (!scheduled_) {
    scheduled_ = true;
    schedule(deadline, now);
  }
}

void AirPipe::schedule(double deadline, double now) {
  auto self = shared_from_this();
  if (deadline <= now) {
    target_->async([self] { self->drain(); });
  } else {
    const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(deadline - now));
    target_->asyncAfter(
        delay, [self] { self->drain(); }, *clock_);
  }
}

void AirPipe::drain() {
  std::vector<std::function<void()>> due;
  {
    std::lock_guard lock(mutex_);
    const double now = clock_->now();
    while (!packets_.empty() && packets_.front().first <= now + kDueSlack) {
      due.push_back(std::move(packets_.front().second));
      packets_.pop_front();
    }
    if (packets_.empty()) {
      scheduled_ = false;
    } else {
      schedule(packets_.front().first, now);
    }
  }
  for (auto& packet : due) packet();
}

}  // namespace qlt::sim
