// What UartLink waits with: deadlines, condition waits that may have none, and the eventfd
// behind UartLink::fd().
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

namespace qlt {

using SteadyClock = std::chrono::steady_clock;
inline constexpr auto kForever = SteadyClock::time_point::max();

inline SteadyClock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
  return SteadyClock::now() + std::max(timeout, std::chrono::milliseconds(0));
}

// Waits on `cv` until `done` or `deadline` (kForever: no deadline); returns done().
template <class Predicate>
bool waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               SteadyClock::time_point deadline, Predicate done) {
  if (deadline == kForever) {
    cv.wait(lock, done);
    return true;
  }
  return cv.wait_until(lock, deadline, done);
}

// "5 s", "0.3 s": how a time-out reads in messages.
inline std::string inSeconds(std::chrono::milliseconds d) {
  char text[32];
  std::snprintf(text, sizeof text, d.count() % 1000 ? "%.1f s" : "%.0f s",
                static_cast<double>(d.count()) / 1000.0);
  return text;
}

// An eventfd kept readable exactly while the last set() said so. Not thread-safe: its owner
// calls set() under its own lock.
class LevelFd {
 public:
  LevelFd();  // throws std::runtime_error when the kernel refuses an eventfd
  ~LevelFd();
  LevelFd(const LevelFd&) = delete;
  LevelFd& operator=(const LevelFd&) = delete;
  int fd() const { return fd_; }
  void set(bool readable);

 private:
  const int fd_;
  bool readable_ = false;
};

}  // namespace qlt
