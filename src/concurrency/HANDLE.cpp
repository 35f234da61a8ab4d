#include "QueltLibrary/HANDLE.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace qlt {

namespace {

// Sleeps `seconds`, saturated to `atMost` (NaN, infinite and huge pauses are not converted
// to an integer count, which would be undefined).
void sleepSeconds(double seconds, double atMost = 1.0) {
  if (!(seconds > 0)) return;
  std::this_thread::sleep_for(std::chrono::duration<double>(std::min(seconds, atMost)));
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
    // The pause never outlasts the stopwatch's limit, whatever t is.
    if (t > 0) sleepSeconds(t, std::max(0.0, stopwatch->Timeout() - stopwatch->elapse()) + 0.001);
    if (t >= 0 && stopwatch->isTimeout()) return -1;
  }
}

}  // namespace qlt
