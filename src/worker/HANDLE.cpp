#include "QueltLibrary/HANDLE.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>

#include "Pause.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt {

namespace {

// Sleeps `seconds`; NaN and negative pauses do not sleep, huge and infinite ones saturate
// (the thread sleeps on, a day at a time, for good).
void sleepSeconds(double seconds) {
  const auto pause = detail::pauseFor(seconds);
  if (!pause) {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
  }
  if (pause->count() > 0) std::this_thread::sleep_for(*pause);
}

// Where waiters block until some event is set: one lock and condition for every event, so
// a waiter may watch several. set() notifies only while someone waits. Lock order: the
// parking lock, then an event's own lock (isSet under it); set() takes the event's lock and
// releases it before taking the parking lock.
struct Parking {
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<int> waiters{0};

  static Parking& shared() {
    static Parking* parking = new Parking;  // never destroyed: events outlive static destructors
    return *parking;
  }

  // Until one of `events` is seen set (consuming an auto-reset signal) or `until` passes.
  // Returns whether one was set. Marks the calling thread blocked for the pool.
  template <class Events>
  bool waitUntil(const Events& events, std::chrono::steady_clock::time_point until) {
    BlockingScope blocked;
    waiters.fetch_add(1);
    std::unique_lock lock(mutex);
    bool set = false;
    const auto anySet = [&] {
      for (const auto& event : events) {
        if (event && event->isSet()) return set = true;
      }
      return false;
    };
    if (until == std::chrono::steady_clock::time_point::max()) {
      cv.wait(lock, anySet);
    } else {
      cv.wait_until(lock, until, anySet);
    }
    waiters.fetch_sub(1);
    return set;
  }

  void wakeWaiters() {
    if (waiters.load() == 0) return;
    std::lock_guard lock(mutex);
    cv.notify_all();
  }
};

}  // namespace

HANDLE::HANDLE() : timer_(ComTimer::timerWithTimeout(0.001)) {}

std::shared_ptr<HANDLE> HANDLE::createEvent(bool initialState, bool autoReset) {
  auto event = std::make_shared<HANDLE>();
  event->setFlag(initialState);
  event->setAutoReset(autoReset);
  return event;
}

void HANDLE::set() {
  {
    std::lock_guard lock(mutex_);
    flag_.store(true, std::memory_order_relaxed);
  }
  Parking::shared().wakeWaiters();
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

// Each pause lasts a millisecond, or until the event is set; a wait without limit blocks
// until then.
bool HANDLE::waitTimeout(double t) {
  timer_->setTimeout(t);
  timer_->start();
  const std::array<HANDLE*, 1> self{this};
  for (;;) {
    if (isSet()) return true;
    const auto until = t < 0 ? std::chrono::steady_clock::time_point::max()
                             : std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
    if (Parking::shared().waitUntil(self, until)) return true;
    if (t >= 0 && timer_->isTimeout()) return false;
  }
}

long HANDLE::waitForSingleObject(const std::shared_ptr<HANDLE>& event, double t) {
  return waitForMultipleObjects({event}, t);
}

long HANDLE::waitForMultipleObjects(const std::vector<std::shared_ptr<HANDLE>>& events, double t) {
  // The stopwatch keeps its default limit of 1.0 s whatever t is; t is only the pause.
  // Without a pause (t <= 0 or NaN) the passes do not spin: the wait blocks until an event
  // is set or, for t == 0, the limit has passed.
  const auto stopwatch = ComTimer::timer();
  const auto limit = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(stopwatch->Timeout())) +
                     std::chrono::microseconds(1);
  for (;;) {
    long counter = 0;
    for (const auto& event : events) {
      if (event && event->isSet()) return counter;
    }
    ++counter;
    if (t > 0) {
      BlockingScope blocked;
      sleepSeconds(t);
    } else if (Parking::shared().waitUntil(
                   events, t == 0 ? limit : std::chrono::steady_clock::time_point::max())) {
      return 0;
    }
    if (t >= 0 && stopwatch->isTimeout()) return -1;
  }
}

}  // namespace qlt
