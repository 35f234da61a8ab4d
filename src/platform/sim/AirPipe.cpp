#include "AirPipe.h"

#include <algorithm>
#include <vector>

namespace qlt::sim {

std::shared_ptr<AirPipe> AirPipe::create(std::shared_ptr<DispatchQueue> target) {
  return std::shared_ptr<AirPipe>(new AirPipe(std::move(target)));
}

void AirPipe::push(double delaySeconds, std::function<void()> packet) {
  const TimePoint now = std::chrono::steady_clock::now();
  std::lock_guard lock(mutex_);
  TimePoint deadline = now;
  if (delaySeconds > 0) {
    deadline += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(delaySeconds));
  }
  deadline = std::max(deadline, lastDeadline_);
  lastDeadline_ = deadline;
  packets_.emplace_back(deadline, std::move(packet));
  if (!scheduled_) {
    scheduled_ = true;
    schedule(deadline, now);
  }
}

void AirPipe::schedule(TimePoint deadline, TimePoint now) {
  auto self = shared_from_this();
  if (deadline <= now) {
    target_->async([self] { self->drain(); });
  } else {
    target_->asyncAfter(deadline - now, [self] { self->drain(); });
  }
}

void AirPipe::drain() {
  std::vector<std::function<void()>> due;
  {
    std::lock_guard lock(mutex_);
    const TimePoint now = std::chrono::steady_clock::now();
    while (!packets_.empty() && packets_.front().first <= now) {
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
