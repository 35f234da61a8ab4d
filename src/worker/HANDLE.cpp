#include "QueltLibrary/HANDLE.h"

#include <chrono>
#include <thread>

namespace qlt {

namespace {

// Pauses longer than this sleep for good: converting them to the clock's integer count
// would overflow, which is undefined.
constexpr double kLongestPauseS = 1e9;  // about 31 years

// Sleeps `seconds`; NaN and negative pauses do not sleep, huge and infinite ones saturate
// (the thread sleeps on, a day at a time, for good).
void sleepSeconds(double seconds) {
  if (!(seconds > 0)) return;
  if (seconds >= kLongestPauseS) {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

HANDLE::HANDLE() : timer_(ComTimer::timerWithTimeout(0.001)) {}

std::shared_ptr<HANDLE> HANDLE::createEvent(bool initialState, bool autoReset) {
  auto event = std::make_shared<HANDLE>();
  event->setFlag(initialState);
  event->setAutoReset(autoReset);
  return event;
}

void HANDLE::set() {
  std::lock_guard lock(mutex_);
  flag_.store(true, std::memory_order_relaxed);
}

void HANDLE::reset() {
  std::lock_guard lock(mutex_);
  flag_.store(false, std::memory_order_relaxed);
}

bool HANDLE::isSet() {
  std::lock_guard lock(mutex_);
  const bool set = flag_.load(std::memory_order_relaxed);
  if (set && autoReset()) flag_.store(false, std::memory_order_relaxed);
  return set;
}

bool HANDLE::waitTimeout(double t) {
  timer_->setTimeout(t);
  timer_->start();
  for (;;) {
    if (isSet()) return true;
    sleepSeconds(0.001);
    if (t >= 0 && timer_->isTimeout()) return false;
  }
}

long HANDLE::waitForSingleObject(const std::shared_ptr<HANDLE>& event, double t) {
  return waitForMultipleObjects({event}, t);
}

long HANDLE::waitForMultipleObjects(const std::vector<std::shared_ptr<HANDLE>>& events, double t) {
  // The stopwatch keeps its default limit of 1.0 s whatever t is; t is only the pause.
  const auto stopwatch = ComTimer::timer();
  for (;;) {
    long counter = 0;
    for (const auto& event : events) {
      if (event && event->isSet()) return counter;
    }
    ++counter;
    if (t > 0) sleepSeconds(t);
    if (t >= 0 && stopwatch->isTimeout()) return -1;
  }
}

}  // namespace qlt
