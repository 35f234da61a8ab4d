// The process-wide pool of worker threads that runs ready queues. Internal; the contract
// (limits, what counts as blocked) is stated in DispatchQueue.h.
//
// Idle workers wait on a stack, each on a wake-up of its own. A queue that gets work goes
// to the ready list and takes a worker off the stack, for a caller outside the pool the
// one that went idle last on its CPU, else the top one (its stack and caches still warm),
// and wakes it; whichever worker comes first takes the queue, and a woken worker that
// finds nothing goes back on top. A wake-up is never lost or counted twice, and the
// workers at the bottom of the stack stay asleep and retire, so the pool shrinks to what
// the work needs. The worker on top spins briefly before it sleeps (one at a time), so a
// task that comes right after another skips the kernel's wake-up; while spins keep
// missing, ever fewer workers spin (see SpinGate).
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"

namespace qlt::detail {

class QueueImpl;

// One step of a spin-wait: tells the CPU (and a hyperthread sibling) that we only wait.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// The CPUs an idle worker went to sleep on, the last time and the time before; -1 unknown.
struct SleptOn {
  int last = -1;
  int before = -1;
};

// Of a stack of idle workers (each with a `slept`; the last went idle last), the one to
// wake for a thread on `cpu` (-1: unknown): of the top `depth`, the latest that slept on
// `cpu` the last two times, else the last time; else the top one. Returns an iterator into
// `idle`, not empty. Only the top few: the workers further down stay asleep and retire.
//
// Why the CPU: Linux wakes a thread on the CPU it slept on when that CPU is idle; when it
// is busy, on the thread's recently used CPU if that one is idle, else near the waker
// (kernel/sched/fair.c: wake_affine_idle(), select_idle_sibling() and its
// recent_used_cpu). A worker that slept on the caller's CPU starts there as soon as the
// caller waits, rather than on an idle CPU that has to wake up first (15-20 µs of a
// 20 µs start on a 2-CPU virtual machine); one that slept there twice in a row is the
// likelier to have it as its recent CPU too. By the stack alone the worker stayed where
// a burst of work had left it, typically on the CPU the submitter was not on. When no
// idle worker near the top slept on the caller's CPU (a burst that kept that CPU busy can
// leave them all on another), the top one still starts where it slept.
template <class Stack>
auto idleToWake(Stack& idle, int cpu, size_t depth) {
  const auto latest = [&](auto matches) {
    const auto from = idle.rbegin();
    const auto to = idle.size() > depth ? from + static_cast<ptrdiff_t>(depth) : idle.rend();
    const auto found =
        std::find_if(from, to, [&](const auto& worker) { return matches(worker->slept); });
    return found == to ? idle.end() : std::prev(found.base());
  };
  auto it = idle.end();
  if (cpu >= 0) {
    it = latest([&](SleptOn s) { return s.last == cpu && s.before == cpu; });
    if (it == idle.end()) it = latest([&](SleptOn s) { return s.last == cpu; });
  }
  return it != idle.end() ? it : std::prev(idle.end());
}

// Whether an idle worker spins before it sleeps. A spin pays when the next task comes
// within it; one that misses costs its CPU time and, worse, keeps the CPU busy just as
// the thread the task woke wants to run there, so the kernel puts that thread on another
// CPU and, when the next task comes, the worker wakes across CPUs (measured: a submitter
// that waits for each task and pauses ~100 µs between them had its tasks start on the
// other CPU in one run of four with a 50 µs spin, 25-35 µs per start; in none without).
// So after a miss the next spins are skipped, 1, 2, 4 ... up to kMaxSkip idle spells,
// and the first spin that catches a task opens the gate again. Not thread-safe: the
// pool calls it under its mutex.
class SpinGate {
 public:
  static constexpr unsigned kMaxSkip = 64;
  // Whether the worker going idle now should spin.
  bool shouldSpin() {
    if (skip_ == 0) return true;
    --skip_;
    return false;
  }
  // The spin caught a task (true) or timed out (false).
  void spun(bool caught) {
    if (caught) {
      nextSkip_ = 1;
      return;
    }
    skip_ = nextSkip_;
    nextSkip_ = std::min(kMaxSkip, 2 * nextSkip_);
  }

 private:
  unsigned nextSkip_ = 1;  // idle spells to skip after the next miss
  unsigned skip_ = 0;      // idle spells left to pass without a spin
};

class ThreadPool {
 public:
  static constexpr size_t kMaxThreads = 1024;
  static constexpr size_t kReserve = 2;  // idle workers kept for ever
  static constexpr auto kRetireAfter = std::chrono::seconds(2);
  static constexpr auto kStallAfter = std::chrono::milliseconds(10);
  // How long the top idle worker spins for the next task before it sleeps.
  static constexpr auto kSpin = std::chrono::microseconds(50);
  // How far down the idle stack a worker that slept on the caller's CPU is looked for.
  static constexpr size_t kCpuDepth = 4;

  static ThreadPool& shared();

  DispatchQueue::PoolLimits limits() const { return {onDemand_, 2 * onDemand_, kMaxThreads}; }
  size_t threads();
  void schedule(std::shared_ptr<QueueImpl> queue);
  // From a worker whose queue has had its turn: to the back of the ready list, without
  // waking anyone, as the worker takes the front one next (the same queue when no other
  // waits, so a long run of tasks stays on one warm worker).
  void requeue(std::shared_ptr<QueueImpl> queue);

  // A pool worker begins and ends one task: the monitor counts a worker as blocked only
  // once it has been asleep inside one task for kStallAfter, never while it only waits for
  // a lock between short tasks (its holder preempted on a busy machine). A task that runs
  // another queue's tasks inline (sync) is part of the outer one: taskBegins returns
  // whether it began a task, and taskEnds gets that value. A relaxed store each, no clock:
  // the monitor compares the workers' task counts across its stall period.
  static bool taskBegins();
  static void taskEnds(bool began);
  // A pool worker enters (true) or leaves (false) a wait of the library's.
  static void markBlocked(bool blocked);

 private:
  struct Worker {
    std::thread thread;
    pid_t tid = 0;                     // set by the worker itself before it takes any work
    bool idle = false;                 // on idle_; guarded by mutex_
    bool sleeping = false;             // waiting on `wake`; guarded by mutex_
    bool blocked = false;              // inside a library wait; guarded by mutex_
    int blockDepth = 0;                // touched by the worker's own thread only
    bool woken = false;                // taken off the idle stack to run; guarded by mutex_
    bool retired = false;              // has left work(); guarded by mutex_
    SleptOn slept;                     // guarded by mutex_
    std::atomic<bool> hasWork{false};  // `woken` is set: what a spinning worker watches
    std::condition_variable wake;
    // Tasks begun and ended, counted together: odd while in a task (see taskBegins).
    // Written by the worker's own thread only; read by the monitor.
    std::atomic<uint64_t> taskCount{0};
  };
  static thread_local Worker* tWorker;

  ThreadPool() = default;
  void spawnLocked();
  // Takes a worker off the idle stack to look at the ready list; returns it when it sleeps
  // (the caller notifies it, best outside the lock).
  std::shared_ptr<Worker> wakeLocked(int cpu);
  void monitor();
  void work(const std::shared_ptr<Worker>& worker);
  // Puts `self` on the idle stack and returns once it was woken (true) or should retire
  // (false, taken off the stack).
  bool waitForWork(const std::shared_ptr<Worker>& worker, std::unique_lock<std::mutex>& lock);
  // Takes `worker` off the idle stack.
  void unidleLocked(const Worker* worker);
  // Joins the retired workers' threads with `lock` (on mutex_) released meanwhile.
  void joinRetired(std::unique_lock<std::mutex>& lock);

  const size_t onDemand_ = std::max<size_t>(4, std::thread::hardware_concurrency());

  std::mutex mutex_;
  std::deque<std::shared_ptr<QueueImpl>> ready_;  // guarded by mutex_
  // Idle workers; the last went idle last. Guarded by mutex_.
  std::vector<std::shared_ptr<Worker>> idle_;
  Worker* spinner_ = nullptr;  // the idle worker spinning now, if any; guarded by mutex_
  SpinGate spinGate_;          // guarded by mutex_
  size_t waking_ = 0;   // workers woken that have not yet looked at ready_; guarded by mutex_
  size_t threads_ = 0;  // guarded by mutex_
  size_t blocked_ = 0;  // guarded by mutex_
  uint64_t taken_ = 0;  // queues taken up so far; guarded by mutex_
  std::vector<std::shared_ptr<Worker>> workers_;  // guarded by mutex_
  std::vector<std::thread> retired_;              // guarded by mutex_
  std::condition_variable monitorCv_;
  std::thread monitor_;  // guarded by mutex_; started when the pool first runs short
};

}  // namespace qlt::detail
