// HANDLE: a waitable event, auto-reset or manual-reset, waited for by polling.
//
// set() signals the event; isSet() tests it and, for an auto-reset event, consumes the
// signal (of several threads testing, only one sees it). A wait tests the flag, then pauses
// about a millisecond, or until set() wakes it, and tests again; a wait without limit
// blocks until set(). No wait spins. On a pool worker every wait counts as blocked
// (BlockingScope), so the pool starts another worker for the queues that are waiting,
// among them the one that may set the event.
//
// waitForMultipleObjects keeps the quirks of the interface it copies, on purpose: the
// result is 0 when any event was set (whichever it was) and -1 on time-out; `t` is the
// pause between passes, not the limit (a set() does not cut a pause short); the limit for
// any t >= 0 is a fixed 1.0 s, and a negative t waits without limit (NaN too): both t = 0
// and t < 0 block between passes until an event is set. A pause of 10^9 s or more,
// infinite included, saturates: the pause never ends, so such a wait does not return (it is
// never converted to the clock's integer count, which would overflow).
//
// Thread safety: set, reset and isSet may be called from any thread. waitTimeout re-arms
// the event's one stopwatch, so an event is meant to have one waiter at a time; the class
// waits have no such limit.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT HANDLE {
 public:
  static std::shared_ptr<HANDLE> createEvent(bool initialState, bool autoReset);
  static std::shared_ptr<HANDLE> createAutoEvent() { return createEvent(false, true); }
  static std::shared_ptr<HANDLE> createManualEvent() { return createEvent(false, false); }

  static long waitForSingleObject(const std::shared_ptr<HANDLE>& event, double t = -1.0);
  static long waitForMultipleObjects(const std::vector<std::shared_ptr<HANDLE>>& events,
                                     double t = -1.0);

  HANDLE();
  void set();
  void reset();
  bool isSet();
  bool wait() { return waitTimeout(-1.0); }
  // True as soon as the event is seen set; false once strictly more than `t` seconds have
  // passed (t < 0: never).
  bool waitTimeout(double t);

  bool autoReset() const { return autoReset_.load(std::memory_order_relaxed); }
  void setAutoReset(bool value) { autoReset_.store(value, std::memory_order_relaxed); }
  bool flag() const { return flag_.load(std::memory_order_relaxed); }
  void setFlag(bool value) { flag_.store(value, std::memory_order_relaxed); }

 private:
  std::shared_ptr<ComTimer> timer_;
  std::mutex mutex_;
  std::atomic<bool> autoReset_{false};
  std::atomic<bool> flag_{false};  // changed under mutex_ by set/reset/isSet
};

}  // namespace qlt
