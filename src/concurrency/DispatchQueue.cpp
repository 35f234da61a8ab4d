// Serial queues over a growing pool of worker threads. See DispatchQueue.h for the
// contract; this file holds the three moving parts:
//   - State: a queue's task list and its `active` flag. A queue is active from the moment
//     it is handed to an executor until a drain finds it empty; whoever holds it active
//     (a pool worker, the main-queue driver, or a caller of sync()) is the only one running
//     its tasks, which is what makes the queue serial.
//   - ThreadPool: runs ready queues; adds a worker when none is idle, retires idle ones.
//   - MainLoop: runs the main queue on one driving thread.
#include "QueltLibrary/DispatchQueue.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "QueltLibrary/Log.h"

namespace qlt {

namespace {

// Runs one task of an asynchronous queue; an exception it throws is logged with the
// queue's label and goes no further, so the queue and the pool keep running.
void runContained(const DispatchQueue::Task& task, const std::string& label) {
  try {
    task();
  } catch (const std::exception& e) {
    QLTLog("DispatchQueue \"%@\" : a task threw an exception : %@", label, std::string(e.what()));
  } catch (...) {
    QLTLog("DispatchQueue \"%@\" : a task threw an exception that is not a std::exception", label);
  }
}

// Hands a queue from the worker that reached a sync() marker to the waiting caller.
struct SyncHandoff {
  std::mutex mutex;
  std::condition_variable cv;
  bool given = false;  // guarded by mutex

  void give() {
    std::lock_guard lock(mutex);
    given = true;
    cv.notify_one();
  }
  void wait() {
    std::unique_lock lock(mutex);
    cv.wait(lock, [this] { return given; });
  }
};

// The queues the calling thread is running, innermost first (a task that runs sync() on
// another queue pushes a second frame).
struct QueueFrame {
  const detail::DispatchQueueState* state;
  const QueueFrame* outer;
};
thread_local const QueueFrame* tCurrentFrame = nullptr;

// Tasks run so far by every queue: the pool's sign of progress.
std::atomic<uint64_t> gTasksRun{0};

class FrameScope {
 public:
  explicit FrameScope(const detail::DispatchQueueState* state) : frame_{state, tCurrentFrame} {
    tCurrentFrame = &frame_;
  }
  ~FrameScope() { tCurrentFrame = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  QueueFrame frame_;
};

void nameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

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

}  // namespace

struct detail::DispatchQueueState {
  struct Entry {
    DispatchQueue::Task task;
    SyncHandoff* handoff = nullptr;  // set for the marker of a waiting sync() caller
  };

  DispatchQueueState(std::string l, bool m) : label(std::move(l)), isMain(m) {}

  const std::string label;
  const bool isMain;

  std::mutex mutex;
  std::deque<Entry> entries;  // guarded by mutex
  bool active = false;        // guarded by mutex

  mutable std::mutex specificMutex;
  std::vector<std::pair<const void*, void*>> specifics;  // guarded by specificMutex
};

// Runs a queue's tasks for whoever holds it active.
class QueueRunner {
 public:
  static constexpr size_t kBatch = 64;  // tasks per turn before other queues get a worker

  // Called with the queue active and owned by the caller. Returns the number of tasks run.
  static size_t drain(const std::shared_ptr<DispatchQueue>& queue);
  // Gives up ownership after a sync() caller ran its task.
  static void release(const std::shared_ptr<DispatchQueue>& queue);
  static void schedule(const std::shared_ptr<DispatchQueue>& queue);
  static DispatchQueue::State& state(DispatchQueue& q) { return *q.state_; }
};

namespace {

class ThreadPool {
 public:
  static ThreadPool& shared() {
    // Never destroyed: queues may still be used from static destructors and other
    // threads while the process exits.
    static ThreadPool* pool = new ThreadPool;
    return *pool;
  }

  void schedule(std::shared_ptr<DispatchQueue> queue) {
    std::vector<std::thread> finished;
    {
      std::lock_guard lock(mutex_);
      ready_.push_back(std::move(queue));
      if (idle_ > wakeups_) {
        ++wakeups_;
        cv_.notify_one();
      } else if (threads_ < softLimit_) {
        spawnLocked();
      } else {
        // Every worker is busy: the monitor adds one if they stop making progress.
        if (!monitor_.joinable()) monitor_ = std::thread([this] { monitor(); });
        monitorCv_.notify_one();
      }
      finished.swap(retired_);
    }
    for (auto& t : finished) t.join();
  }

 private:
  static constexpr size_t kMaxThreads = 512;
  static constexpr size_t kReserve = 2;  // idle workers kept for ever
  static constexpr auto kRetireAfter = std::chrono::seconds(5);
  static constexpr auto kStallAfter = std::chrono::milliseconds(10);

  // Up to this many workers are started on demand; beyond it, only when work waits while
  // no task finishes for kStallAfter and every worker is asleep (blocked, not busy).
  const size_t softLimit_ = std::max<size_t>(4, std::thread::hardware_concurrency());

  struct Worker {
    std::thread thread;
    pid_t tid = 0;  // set by the worker itself before it takes any work
  };

  void spawnLocked() {
    ++threads_;
    std::thread worker([this] { work(); });
    const auto id = worker.get_id();
    workers_[id].thread = std::move(worker);
  }

  // On a loaded machine busy workers can go without a CPU for longer than kStallAfter;
  // they are runnable, not blocked, and another worker would only add to the load.
  bool everyWorkerAsleep(std::unique_lock<std::mutex>& lock) {
    std::vector<pid_t> tids;
    tids.reserve(workers_.size());
    for (const auto& [id, worker] : workers_) tids.push_back(worker.tid);
    lock.unlock();  // a worker waiting for mutex_ would otherwise look blocked
    const bool asleep = std::all_of(tids.begin(), tids.end(),
                                    [](pid_t tid) { return tid == 0 || threadIsAsleep(tid); });
    lock.lock();
    return asleep;
  }

  void monitor() {
    nameThisThread("qlt.poolmon");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (ready_.empty()) {
        monitorCv_.wait(lock);
        continue;
      }
      const uint64_t before = gTasksRun.load(std::memory_order_relaxed);
      monitorCv_.wait_for(lock, kStallAfter);
      const auto waiting = [&] {
        return !ready_.empty() && idle_ <= wakeups_ && threads_ < kMaxThreads &&
               gTasksRun.load(std::memory_order_relaxed) == before;
      };
      if (waiting() && everyWorkerAsleep(lock) && waiting()) spawnLocked();
    }
  }

  void work() {
    nameThisThread("qlt.pool");
    std::unique_lock lock(mutex_);
    workers_[std::this_thread::get_id()].tid = currentTid();
    for (;;) {
      if (!ready_.empty()) {
        auto queue = std::move(ready_.front());
        ready_.pop_front();
        lock.unlock();
        QueueRunner::drain(queue);
        queue.reset();
        lock.lock();
        continue;
      }
      ++idle_;
      const bool woken =
          cv_.wait_for(lock, kRetireAfter, [this] { return !ready_.empty() || !retired_.empty(); });
      --idle_;
      if (wakeups_ > 0) --wakeups_;
      if (!retired_.empty()) {
        // A retired worker has returned (or is returning) from work(): join it here.
        auto finished = std::move(retired_);
        retired_.clear();
        lock.unlock();
        for (auto& t : finished) t.join();
        lock.lock();
        continue;
      }
      if (!woken && threads_ > kReserve) {
        // Retire: hand our own handle to a worker that stays, which joins it.
        --threads_;
        auto self = workers_.find(std::this_thread::get_id());
        retired_.push_back(std::move(self->second.thread));
        workers_.erase(self);
        cv_.notify_all();
        return;
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<DispatchQueue>> ready_;     // guarded by mutex_
  size_t threads_ = 0;                                   // guarded by mutex_
  size_t idle_ = 0;                                      // guarded by mutex_
  size_t wakeups_ = 0;                                   // guarded by mutex_
  std::unordered_map<std::thread::id, Worker> workers_;  // guarded by mutex_
  std::vector<std::thread> retired_;                     // guarded by mutex_
  std::condition_variable monitorCv_;
  std::thread monitor_;  // guarded by mutex_; started when the soft limit is first reached
};

class MainLoop {
 public:
  static MainLoop& shared() {
    static MainLoop* loop = new MainLoop;  // never destroyed, see ThreadPool
    return *loop;
  }

  void useApplicationThread() {
    std::lock_guard lock(mutex_);
    applicationDriven_ = true;
  }

  void schedule(std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    pending_ = std::move(queue);
    if (!applicationDriven_ && !thread_.joinable()) {
      thread_ = std::thread([this] {
        nameThisThread("qlt.main");
        for (;;) serveOnce(std::chrono::steady_clock::time_point::max(), false);
      });
    }
    cv_.notify_all();
  }

  // Waits until the main queue has work (or `deadline`, or stop() when `stoppable`), then
  // runs one turn of it. Returns the number of tasks run.
  size_t serveOnce(std::chrono::steady_clock::time_point deadline, bool stoppable) {
    std::shared_ptr<DispatchQueue> queue;
    {
      std::unique_lock lock(mutex_);
      auto ready = [&] { return pending_ != nullptr || (stoppable && stopRequested_); };
      if (deadline == std::chrono::steady_clock::time_point::max()) {
        cv_.wait(lock, ready);
      } else {
        cv_.wait_until(lock, deadline, ready);
      }
      queue = std::move(pending_);
      pending_.reset();
    }
    return queue ? QueueRunner::drain(queue) : 0;
  }

  // A stop() that came while no run() was active is kept: this run() then runs what is
  // waiting and returns.
  void run() {
    for (;;) {
      serveOnce(std::chrono::steady_clock::time_point::max(), true);
      std::lock_guard lock(mutex_);
      if (stopRequested_) {
        stopRequested_ = false;
        return;
      }
    }
  }

  void stop() {
    std::lock_guard lock(mutex_);
    if (!applicationDriven_) return;  // the library's own thread serves on; nothing to stop
    stopRequested_ = true;
    cv_.notify_all();
  }

  size_t runPending() {
    size_t ran = 0;
    for (;;) {
      std::shared_ptr<DispatchQueue> queue;
      {
        std::lock_guard lock(mutex_);
        queue = std::move(pending_);
        pending_.reset();
      }
      if (!queue) return ran;
      ran += QueueRunner::drain(queue);
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::shared_ptr<DispatchQueue> pending_;  // guarded by mutex_
  bool applicationDriven_ = false;          // guarded by mutex_
  bool stopRequested_ = false;              // guarded by mutex_
  std::thread thread_;                      // guarded by mutex_
};

// Submits delayed tasks to their queues when they are due. One thread, started on first
// use, sleeping on a condition variable until the earliest deadline.
class TimerThread {
 public:
  static TimerThread& shared() {
    static TimerThread* timers = new TimerThread;  // never destroyed, see ThreadPool
    return *timers;
  }

  void add(std::chrono::steady_clock::time_point due, std::shared_ptr<DispatchQueue> queue,
           DispatchQueue::Task task) {
    std::lock_guard lock(mutex_);
    heap_.push_back({due, next_++, std::move(queue), std::move(task)});
    std::push_heap(heap_.begin(), heap_.end(), Later());
    if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
    cv_.notify_one();
  }

 private:
  struct Timer {
    std::chrono::steady_clock::time_point due;
    uint64_t sequence;  // keeps equal deadlines in submission order
    std::shared_ptr<DispatchQueue> queue;
    DispatchQueue::Task task;
  };
  struct Later {
    bool operator()(const Timer& a, const Timer& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };

  void loop() {
    nameThisThread("qlt.timer");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (heap_.empty()) {
        cv_.wait(lock);
        continue;
      }
      const auto due = heap_.front().due;
      if (std::chrono::steady_clock::now() < due) {
        cv_.wait_until(lock, due);
        continue;
      }
      std::pop_heap(heap_.begin(), heap_.end(), Later());
      Timer timer = std::move(heap_.back());
      heap_.pop_back();
      lock.unlock();
      timer.queue->async(std::move(timer.task));
      timer = Timer{};
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Timer> heap_;  // guarded by mutex_
  uint64_t next_ = 0;        // guarded by mutex_
  std::thread thread_;       // guarded by mutex_
};

}  // namespace

void QueueRunner::schedule(const std::shared_ptr<DispatchQueue>& queue) {
  if (queue->state_->isMain) {
    MainLoop::shared().schedule(queue);
  } else {
    ThreadPool::shared().schedule(queue);
  }
}

size_t QueueRunner::drain(const std::shared_ptr<DispatchQueue>& queue) {
  DispatchQueue::State& s = *queue->state_;
  FrameScope frame(&s);
  size_t ran = 0;
  for (;;) {
    std::unique_lock lock(s.mutex);
    if (s.entries.empty()) {
      s.active = false;
      return ran;
    }
    if (ran == kBatch) {
      lock.unlock();
      schedule(queue);  // stays active; another turn later
      return ran;
    }
    DispatchQueue::State::Entry entry = std::move(s.entries.front());
    s.entries.pop_front();
    lock.unlock();
    if (entry.handoff) {
      entry.handoff->give();  // the queue now belongs to the waiting sync() caller
      return ran;
    }
    runContained(entry.task, s.label);
    ++ran;
    gTasksRun.fetch_add(1, std::memory_order_relaxed);
  }
}

void QueueRunner::release(const std::shared_ptr<DispatchQueue>& queue) {
  DispatchQueue::State& s = *queue->state_;
  {
    std::lock_guard lock(s.mutex);
    if (s.entries.empty()) {
      s.active = false;
      return;
    }
  }
  schedule(queue);
}

DispatchQueue::DispatchQueue(std::string label, bool isMain)
    : state_(std::make_unique<State>(std::move(label), isMain)) {}

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label) {
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), false));
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  static const auto* mainQueue =
      new std::shared_ptr<DispatchQueue>(new DispatchQueue("qlt.main", true));
  return *mainQueue;
}

const std::string& DispatchQueue::label() const { return state_->label; }

void DispatchQueue::async(Task task) {
  bool mustSchedule = false;
  {
    std::lock_guard lock(state_->mutex);
    state_->entries.push_back({std::move(task), nullptr});
    if (!state_->active) {
      state_->active = true;
      mustSchedule = true;
    }
  }
  if (mustSchedule) QueueRunner::schedule(shared_from_this());
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
  if (delay <= std::chrono::nanoseconds::zero()) {
    async(std::move(task));
    return;
  }
  TimerThread::shared().add(std::chrono::steady_clock::now() + delay, shared_from_this(),
                            std::move(task));
}

void DispatchQueue::sync(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  SyncHandoff handoff;
  bool wait = false;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->active) {
      state_->entries.push_back({nullptr, &handoff});
      wait = true;
    } else {
      state_->active = true;
    }
  }
  if (wait) handoff.wait();
  try {
    FrameScope frame(state_.get());
    task();
  } catch (...) {
    QueueRunner::release(shared_from_this());  // the queue goes on; the caller gets the exception
    throw;
  }
  QueueRunner::release(shared_from_this());
}

bool DispatchQueue::isCurrent() const {
  for (const QueueFrame* f = tCurrentFrame; f; f = f->outer) {
    if (f->state == state_.get()) return true;
  }
  return false;
}

void DispatchQueue::setSpecific(const void* key, void* value) {
  std::lock_guard lock(state_->specificMutex);
  for (auto& [k, v] : state_->specifics) {
    if (k == key) {
      v = value;
      return;
    }
  }
  state_->specifics.emplace_back(key, value);
}

void* DispatchQueue::getSpecific(const void* key) {
  for (const QueueFrame* f = tCurrentFrame; f; f = f->outer) {
    std::lock_guard lock(f->state->specificMutex);
    for (const auto& [k, v] : f->state->specifics) {
      if (k == key) return v;
    }
  }
  return nullptr;
}

std::string DispatchQueue::currentLabel() {
  return tCurrentFrame ? tCurrentFrame->state->label : std::string();
}

void MainQueue::useApplicationThread() { MainLoop::shared().useApplicationThread(); }
void MainQueue::run() { MainLoop::shared().run(); }
void MainQueue::stop() { MainLoop::shared().stop(); }
size_t MainQueue::runPending() { return MainLoop::shared().runPending(); }

void MainQueue::runFor(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < deadline) MainLoop::shared().serveOnce(deadline, false);
}

}  // namespace qlt
