#include "ThreadPool.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "QueueImpl.h"

namespace qlt::detail {

namespace {

// Whether the kernel has the thread `tid` of this process asleep (blocked in a wait, a
// sleep or I/O) rather than running or waiting for a CPU. Unknown counts as asleep.
bool threadIsAsleep(pid_t tid) {
#ifdef __linux__
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(tid));
  FILE* file = std::fopen(path, "re");
  if (file == nullptr) return true;
  char line[512];
  const bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  // "tid (name) S ...": the name may hold spaces and parentheses, so look after the last ')'.
  const char* close = read ? std::strrchr(line, ')') : nullptr;
  if (close == nullptr || close[1] != ' ') return true;
  return close[2] != 'R';
#else
  (void)tid;
  return true;
#endif
}

pid_t currentTid() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// The CPU the calling thread runs on now, -1 if unknown. With glibc 2.35 or later this
// reads the kernel's rseq area, no system call.
int currentCpu() {
#ifdef __linux__
  return sched_getcpu();
#else
  return -1;
#endif
}

// How many of `tids` the kernel has asleep.
size_t countAsleep(const std::vector<pid_t>& tids) {
  return static_cast<size_t>(std::count_if(tids.begin(), tids.end(), threadIsAsleep));
}

}  // namespace

thread_local ThreadPool::Worker* ThreadPool::tWorker = nullptr;

ThreadPool& ThreadPool::shared() {
  // Never destroyed: queues may still be used from static destructors and other threads
  // while the process exits.
  static ThreadPool* pool = new ThreadPool;
  return *pool;
}

size_t ThreadPool::threads() {
  std::lock_guard lock(mutex_);
  return threads_;
}

void ThreadPool::schedule(std::shared_ptr<QueueImpl> queue) {
  // A worker that slept on the caller's CPU, for a caller outside the pool: such a thread
  // typically waits for what it queued, leaving its CPU to the worker, where a pool worker
  // goes on with its own queue and the worker woken would wait behind it.
  const int cpu = tWorker == nullptr ? currentCpu() : -1;
  std::vector<std::thread> finished;
  std::shared_ptr<Worker> woken;  // keeps the worker alive until it is notified
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(queue));
    if (ready_.size() <= waking_) {
      // Workers woken before will take it: each takes the front of the list.
    } else if (!idle_.empty() && threads_ - idle_.size() - blocked_ < 2 * onDemand_) {
      woken = wakeLocked(cpu);
    } else if (idle_.empty() && threads_ - blocked_ < onDemand_ && threads_ < kMaxThreads) {
      spawnLocked();
    } else {
      // Enough workers are awake (or as many as may be): one of them takes it when its
      // task ends, and the monitor adds one if none does.
      if (!monitor_.joinable()) monitor_ = std::thread([this] { monitor(); });
      monitorCv_.notify_one();
    }
    finished.swap(retired_);
  }
  // Outside the lock, so the worker does not wake only to wait for it.
  if (woken) woken->wake.notify_one();
  for (auto& t : finished) t.join();
}

void ThreadPool::requeue(std::shared_ptr<QueueImpl> queue) {
  std::lock_guard lock(mutex_);
  ready_.push_back(std::move(queue));
}

std::shared_ptr<ThreadPool::Worker> ThreadPool::wakeLocked(int cpu) {
  // The spinning worker if there is one (no kernel wake-up), else the idle one for `cpu`.
  // It takes the front of the ready list, or, when a worker that finished first took that,
  // goes back to the top of the stack.
  const auto it = spinner_ != nullptr
                      ? std::find_if(idle_.begin(), idle_.end(),
                                     [&](const auto& w) { return w.get() == spinner_; })
                      : idleToWake(idle_, cpu, kCpuDepth);
  spinner_ = nullptr;
  std::shared_ptr<Worker> worker = std::move(*it);
  idle_.erase(it);
  worker->idle = false;
  worker->woken = true;
  ++waking_;
  worker->hasWork.store(true, std::memory_order_release);
  return worker->sleeping ? worker : nullptr;
}

bool ThreadPool::taskBegins() {
  Worker* worker = tWorker;
  if (worker == nullptr) return false;
  const uint64_t count = worker->taskCount.load(std::memory_order_relaxed);
  if (count % 2 == 1) return false;  // inside an outer task
  worker->taskCount.store(count + 1, std::memory_order_relaxed);
  return true;
}

void ThreadPool::taskEnds(bool began) {
  if (!began) return;
  Worker* worker = tWorker;
  worker->taskCount.store(worker->taskCount.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
}

void ThreadPool::markBlocked(bool blocked) {
  Worker* worker = tWorker;
  if (worker == nullptr) return;
  if (blocked ? worker->blockDepth++ > 0 : --worker->blockDepth > 0) return;
  ThreadPool& pool = shared();
  std::lock_guard lock(pool.mutex_);
  worker->blocked = blocked;
  if (!blocked) {
    --pool.blocked_;
    return;
  }
  ++pool.blocked_;
  // Ready work waits only while no worker is idle.
  if (!pool.ready_.empty() && pool.threads_ - pool.blocked_ < pool.onDemand_ &&
      pool.threads_ < kMaxThreads) {
    pool.spawnLocked();
  }
}

void ThreadPool::spawnLocked() {
  ++threads_;
  auto worker = std::make_shared<Worker>();
  workers_.push_back(worker);
  worker->thread = std::thread([this, worker] { work(worker); });
}

// Adds workers when ready work has not been taken up for kStallAfter (so no worker is
// idle). Workers that are asleep (blocked where the library cannot see) are replaced, all
// waiting queues at once when every worker is; one more is added while fewer than
// limits().running are busy on a CPU, so CPU-bound tasks cannot starve other queues
// either. A busy worker on a loaded machine is runnable, not asleep, and is never mistaken
// for a blocked one.
void ThreadPool::monitor() {
  nameThisThread("qlt.poolmon");
  std::unique_lock lock(mutex_);
  for (;;) {
    if (ready_.empty()) {
      monitorCv_.wait(lock);
      continue;
    }
    // The workers' task counts now: one still in the same task after kStallAfter has been
    // in it at least that long.
    const uint64_t before = taken_;
    std::vector<std::pair<std::shared_ptr<Worker>, uint64_t>> counts;
    counts.reserve(workers_.size());
    for (const auto& worker : workers_) {
      counts.emplace_back(worker, worker->taskCount.load(std::memory_order_relaxed));
    }
    const auto stalled = [&] { return !ready_.empty() && taken_ == before; };
    // The whole period, however often schedule() notifies meanwhile.
    monitorCv_.wait_for(lock, kStallAfter, [&] { return !stalled(); });
    if (!stalled()) continue;
    // Workers not idle and not in a library wait; of them, those in one task for at least
    // kStallAfter may be blocked where the library cannot see.
    const auto isBusy = [](const Worker& w) {
      return !w.retired && !w.idle && !w.blocked && w.tid != 0;
    };
    const size_t busy = static_cast<size_t>(
        std::count_if(workers_.begin(), workers_.end(), [&](const auto& w) { return isBusy(*w); }));
    std::vector<pid_t> longTasks;
    for (const auto& [worker, count] : counts) {
      if (isBusy(*worker) && count % 2 == 1 &&
          worker->taskCount.load(std::memory_order_relaxed) == count) {
        longTasks.push_back(worker->tid);
      }
    }
    counts.clear();
    // Without mutex_: a worker waiting for it would otherwise look blocked.
    lock.unlock();
    const size_t asleep = countAsleep(longTasks);
    lock.lock();
    if (!stalled()) continue;
    const size_t runnable = busy - std::min(busy, asleep);
    size_t add = runnable == 0 ? ready_.size() : asleep + (runnable < 2 * onDemand_ ? 1 : 0);
    for (; add > 0 && !ready_.empty(); --add) {
      if (!idle_.empty()) {
        if (auto worker = wakeLocked(-1)) worker->wake.notify_one();
      } else if (threads_ < kMaxThreads) {
        spawnLocked();
      } else {
        break;
      }
    }
  }
}

void ThreadPool::work(const std::shared_ptr<Worker>& worker) {
  Worker& self = *worker;
  nameThisThread("qlt.pool");
  std::unique_lock lock(mutex_);
  self.tid = currentTid();
  tWorker = &self;
  for (;;) {
    if (!retired_.empty()) {
      // Retired workers have returned (or are returning) from work(): join them here.
      joinRetired(lock);
      continue;
    }
    if (!ready_.empty()) {
      std::shared_ptr<QueueImpl> queue = std::move(ready_.front());
      ready_.pop_front();
      ++taken_;
      lock.unlock();
      queue->drain();
      queue.reset();
      lock.lock();
      continue;
    }
    if (!waitForWork(worker, lock)) {
      // Retire: a worker that stays (or the next schedule()) joins our thread.
      --threads_;
      self.retired = true;
      tWorker = nullptr;
      retired_.push_back(std::move(self.thread));
      workers_.erase(std::find_if(workers_.begin(), workers_.end(),
                                  [&](const auto& w) { return w.get() == &self; }));
      // The idle worker on top joins our thread (it stays asleep otherwise, on the stack).
      if (!idle_.empty() && idle_.back()->sleeping) idle_.back()->wake.notify_one();
      return;
    }
  }
}

void ThreadPool::joinRetired(std::unique_lock<std::mutex>& lock) {
  auto finished = std::move(retired_);
  retired_.clear();
  lock.unlock();
  for (auto& t : finished) t.join();
  lock.lock();
}

bool ThreadPool::waitForWork(const std::shared_ptr<Worker>& worker,
                             std::unique_lock<std::mutex>& lock) {
  Worker& self = *worker;
  self.idle = true;
  idle_.push_back(worker);
  if (spinner_ == nullptr && spinGate_.shouldSpin()) {
    spinner_ = &self;
    lock.unlock();
    const auto until = std::chrono::steady_clock::now() + kSpin;
    // The clock every 32 steps: reading it costs more than a step.
    for (unsigned step = 1; !self.hasWork.load(std::memory_order_acquire); ++step) {
      if (step % 32 == 0 && std::chrono::steady_clock::now() >= until) break;
      cpuRelax();
    }
    lock.lock();
    if (spinner_ == &self) spinner_ = nullptr;  // else schedule() took us and cleared it
    spinGate_.spun(self.woken);
  }
  self.slept = {currentCpu(), self.slept.last};
  while (!self.woken) {
    self.sleeping = true;
    const bool woken =
        self.wake.wait_for(lock, kRetireAfter, [&] { return self.woken || !retired_.empty(); });
    self.sleeping = false;
    if (self.woken) break;
    if (woken) {
      // A worker retired and woke us to join its thread.
      joinRetired(lock);
      continue;
    }
    if (threads_ > kReserve) {
      unidleLocked(&self);
      return false;
    }
  }
  self.woken = false;
  --waking_;
  self.hasWork.store(false, std::memory_order_relaxed);
  return true;
}

void ThreadPool::unidleLocked(const Worker* worker) {
  const auto it =
      std::find_if(idle_.begin(), idle_.end(), [&](const auto& w) { return w.get() == worker; });
  if (it != idle_.end()) {
    (*it)->idle = false;
    idle_.erase(it);
  }
}

}  // namespace qlt::detail
