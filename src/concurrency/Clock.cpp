#include "QueltLibrary/Clock.h"

#include <mutex>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "TimerHeap.h"
#include "TimerThread.h"

namespace qlt {

namespace {

class MonotonicClock final : public Clock {
 public:
  double now() const override {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
  }

 private:
  void submitAt(double due, std::shared_ptr<DispatchQueue> queue,
                std::function<void()> task) override {
    detail::TimerThread::shared().add(due, std::move(queue), std::move(task));
  }
};

}  // namespace

const std::shared_ptr<Clock>& Clock::monotonic() {
  static const auto* clock = new std::shared_ptr<Clock>(std::make_shared<MonotonicClock>());
  return *clock;
}

struct ManualClock::Timers {
  std::mutex moving;         // one advance() or set() at a time, so due tasks keep their order
  mutable std::mutex mutex;  // guards heap and the writes of now_
  detail::TimerHeap heap;
};

ManualClock::ManualClock(double start) : now_(start), timers_(std::make_unique<Timers>()) {}
ManualClock::~ManualClock() = default;

template <class Moved>
void ManualClock::moveTo(const Moved& moved) {
  std::lock_guard moving(timers_->moving);
  std::vector<detail::TimerHeap::Timer> due;
  {
    std::lock_guard lock(timers_->mutex);
    const double to = moved(now());
    now_.store(to, std::memory_order_release);
    while (!timers_->heap.empty() && timers_->heap.earliest() <= to) {
      due.push_back(timers_->heap.pop());
    }
  }
  for (auto& timer : due) timer.queue->async(std::move(timer.task));
}

void ManualClock::advance(double seconds) {
  moveTo([seconds](double from) { return from + seconds; });
}

void ManualClock::set(double seconds) {
  moveTo([seconds](double) { return seconds; });
}

std::optional<double> ManualClock::nextDue() const {
  std::lock_guard lock(timers_->mutex);
  if (timers_->heap.empty()) return std::nullopt;
  return timers_->heap.earliest();
}

void ManualClock::submitAt(double due, std::shared_ptr<DispatchQueue> queue,
                           std::function<void()> task) {
  // Behind a task that came due in an advance() still submitting: it was due earlier.
  std::lock_guard moving(timers_->moving);
  {
    std::lock_guard lock(timers_->mutex);
    if (due > now()) {
      timers_->heap.push(due, std::move(queue), std::move(task));
      return;
    }
  }
  queue->async(std::move(task));
}

}  // namespace qlt
