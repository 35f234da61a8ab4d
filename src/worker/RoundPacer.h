// RoundPacer: runs one owner's rounds on a serial queue, only when there is work. The one
// mechanism for rounds at deadlines: the chunker's (BaseTransport) and the sliding window's
// (SlideWindowDriver, on its strand) both run on it.
//
// The owner's round does what is due and returns how long until the next round is due
// when nothing else happens (a poll deadline, say), or infinity when nothing is. Between
// rounds nothing runs: an idle owner costs no thread and no wake-up. wake(delay) asks for
// a round within `delay` seconds (0: as soon as the queue runs it); a later wake while an
// earlier round is already due changes nothing, so segments arriving together draw one
// round. Deadlines are kept on the pacer's Clock (the monotonic one unless told otherwise;
// a ManualClock in tests brings them with advance(), no real time passing).
//
// Rounds never overlap (they run on the pacer's serial queue) and never start once stop()
// has returned; a round already running finishes. Stale timer tasks (for a deadline that
// a sooner round made moot) run no round unless one is due by then.
//
// Thread safety: wake and stop from any thread, also from inside a round.
#pragma once

#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt {

class RoundPacer : public std::enable_shared_from_this<RoundPacer> {
 public:
  // `round` returns the seconds until the next round is due (infinity: none).
  static std::shared_ptr<RoundPacer> create(std::shared_ptr<DispatchQueue> queue,
                                            std::function<double()> round,
                                            std::shared_ptr<Clock> clock = nullptr);

  void wake(double delaySeconds = 0);
  void stop();
  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

 private:
  static constexpr double kNever = std::numeric_limits<double>::infinity();
  static constexpr double kDueSlack = 1e-6;  // seconds
  RoundPacer(std::shared_ptr<DispatchQueue> queue, std::function<double()> round,
             std::shared_ptr<Clock> clock);
  void armLocked(double now);                 // mutex_ held
  void fire(std::optional<double> armedFor);  // nullopt: the immediate task

  const std::shared_ptr<DispatchQueue> queue_;
  const std::function<double()> round_;  // run on queue_ only
  const std::shared_ptr<Clock> clock_;
  std::mutex mutex_;
  bool stopped_ = false;    // guarded by mutex_
  bool immediate_ = false;  // guarded by mutex_: a task to run the round at once is queued
  // Guarded by mutex_: when the next round is due, and the earliest timer task it knows of
  // (seconds on clock_).
  double dueAt_ = kNever;
  double armedAt_ = kNever;
};

}  // namespace qlt
