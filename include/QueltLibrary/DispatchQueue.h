// DispatchQueue: a serial queue of tasks.
//
// Tasks submitted to one queue run one at a time, in submission order, never two at once.
// A queue owns no thread: when it has work it is handed to a process-wide pool of worker
// threads, and when it is drained it is handed back, so thousands of idle queues cost
// only their memory (168 bytes each: the task list is taken while the queue has
// work and given back when it drains).
//
// The pool never lets ready work starve, up to its limits (poolLimits()):
// - While fewer than `onDemand` workers (max(4, cores)) are running tasks, a queue that
//   gets work and finds no idle worker gets a new one at once.
// - A worker that waits in one of the library's own waits (sync() on a queue that is busy,
//   the waits of HANDLE, or any code inside a BlockingScope) counts as blocked, not
//   running: the pool starts another worker at once if work is waiting.
// - A monitor watches for a stall: work waiting while no queue was taken up for 10 ms.
//   If every worker is then asleep in the kernel (blocked in code the library cannot see),
//   it starts a worker for each waiting queue at once; otherwise it replaces the asleep
//   ones and adds one more, as long as fewer than `running` (2 × onDemand) workers are
//   busy on a CPU. So ready work starts within a few stall periods beside CPU-bound tasks
//   too, while a loaded machine, whose busy workers merely wait for a CPU, does not make
//   the pool grow past `running`.
// - There are never more than `total` (1024) workers; beyond that, work waits for a
//   worker to finish.
// - Idle workers wait on a stack: new work goes to one of the few that went idle last
//   (for work submitted from outside the pool, the one of them that last slept on the
//   submitter's CPU, so it wakes without a cross-CPU wake-up; the one on top spins for up
//   to 50 µs before it sleeps, so work that follows work starts without a kernel
//   wake-up, and spins less while its spins miss), and those at the bottom, idle for two
//   seconds, retire down to a reserve of two.
//
// The bound that follows: workers are only started while none is idle, so under any mix
// of short tasks (however many queues, links or timers) the pool holds at most `running`
// workers plus those blocked inside tasks (in a library wait, or asleep in one task for
// 10 ms), and the extra ones a blocked spell left behind retire two seconds after it.
//
// The main queue is served by one thread at a time: by default a thread of the library's
// own, started on first use; or, after MainQueue::useApplicationThread(), by whichever
// application thread calls MainQueue::run(), runFor() or runPending().
//
// - async(f): never runs f inside the call; f runs later on the queue.
// - asyncAfter(d, f): as async, once d has passed; asyncAfter(d, f, clock): once d has
//   passed on `clock` (a ManualClock in tests: see Clock.h).
// - sync(f): runs f on the calling thread once the queue has finished everything submitted
//   before it, and returns after f. When the caller is already running on this queue (also
//   through nested sync calls), f runs at once, inline, so re-entrant code cannot deadlock.
// - isCurrent(): whether the calling thread is running a task of this queue right now.
//
// Exceptions: a task run by async or asyncAfter that throws (an application callback, a
// scan filter, any queued task) is contained: the library logs the queue's label and the
// exception's message, and the queue goes on with its next task. A task run by sync()
// that throws releases the queue, and the exception reaches the caller of sync().
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "QueltLibrary/Export.h"

namespace qlt {

class Clock;

class QLT_EXPORT DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  using Task = std::function<void()>;

  // A new serial queue. The label is for people: logs, debuggers, tests.
  static std::shared_ptr<DispatchQueue> create(std::string label);
  // The one main queue of the process.
  static const std::shared_ptr<DispatchQueue>& main();

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const;
  void async(Task task);
  // Submits `task` to this queue once `delay` has passed (measured on the monotonic
  // clock by one library timer thread). There is no cancelling: a task that may have
  // become pointless checks for itself when it runs.
  void asyncAfter(std::chrono::nanoseconds delay, Task task);
  // The same on `clock`: submitted once clock.now() has moved `delay` on. With a
  // ManualClock the task is submitted by the clock's advance() or set(), never by the
  // passing of real time; the clock must outlive the wait (tasks of a destroyed one are
  // dropped).
  void asyncAfter(std::chrono::nanoseconds delay, Task task, Clock& clock);
  void sync(const Task& task);
  bool isCurrent() const;

  // Queue-specific values: a key (any address) and an opaque value attached to this queue.
  void setSpecific(const void* key, void* value);
  // The value for `key` on the queue the calling thread runs now, or on any queue whose
  // task is waiting for it in sync(); null when there is none.
  static void* getSpecific(const void* key);
  // The label of the queue the calling thread runs now, or "" outside any queue.
  static std::string currentLabel();

  // The pool's limits on its workers; see above.
  struct PoolLimits {
    size_t onDemand;  // started at once when work finds no idle worker
    size_t running;   // grown to by stalls while workers are busy on a CPU
    size_t total;     // never more workers than this, blocked ones included
  };
  static PoolLimits poolLimits();
  // Workers of the pool right now: running, blocked or idle.
  static size_t poolThreads();

 protected:
  DispatchQueue() = default;  // queues are made by create(); the state lives in a subclass
  ~DispatchQueue() = default;
};

// Marks the calling thread as blocked for its lifetime (it nests). On a pool worker, the
// pool counts the worker as blocked and starts another at once if work is waiting; on any
// other thread it does nothing. The library's own waits use it; code that waits for long
// inside a task may too.
class QLT_EXPORT BlockingScope {
 public:
  BlockingScope();
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;
};

// How the main queue is served. See DispatchQueue.
class QLT_EXPORT MainQueue {
 public:
  // From now on the application serves the main queue with run(), runFor() or
  // runPending(); the library starts no thread for it. Call it before anything is put on
  // the main queue.
  static void useApplicationThread();
  // Serves the main queue on the calling thread until stop() is called.
  static void run();
  // Application-driven mode: makes run() return after the task it is running (if any). A
  // stop() while no run() is active is kept, and the next run() runs the tasks waiting then
  // and returns. With the library's own main thread (the default) stop() does nothing: that
  // thread serves the main queue for the life of the process.
  static void stop();
  // Serves the main queue for `duration`, then returns; stop() does not shorten it.
  static void runFor(std::chrono::milliseconds duration);
  // Runs the tasks that are waiting now and returns how many ran; does not wait.
  static size_t runPending();
};

}  // namespace qlt
