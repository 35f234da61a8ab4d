// LogRateLimiter: one log line for a burst of repeated events, then at most one per interval,
// each carrying the count of the events it stood for.
//
//   if (auto count = limiter.admit()) QLTLog("... (%llu such since the last line)", *count);
//
// admit() counts every event and answers with the count (this one included) when a line is
// due: the first event after a quiet interval, and then once per interval while they go on.
// Events between two lines are only counted; none is lost from the count.
//
// Thread safety: none; each limiter belongs to one thread (or is guarded by its owner).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace qlt {

class LogRateLimiter {
 public:
  using Clock = std::chrono::steady_clock;
  explicit LogRateLimiter(Clock::duration interval = std::chrono::seconds(1))
      : interval_(interval) {}

  std::optional<uint64_t> admit(Clock::time_point now = Clock::now()) {
    ++count_;
    if (logged_ && now - lastLine_ < interval_) return std::nullopt;
    logged_ = true;
    lastLine_ = now;
    const uint64_t count = count_;
    count_ = 0;
    return count;
  }

 private:
  const Clock::duration interval_;
  bool logged_ = false;
  Clock::time_point lastLine_{};
  uint64_t count_ = 0;  // events since the last line
};

}  // namespace qlt
