// Serial queues over a growing pool of worker threads. See DispatchQueue.h for the
// contract; this file holds the moving parts:
//   - QueueImpl: a queue's task list and its `active` flag. A queue is active from the
//     moment it is handed to an executor until a drain finds it empty; whoever holds it
//     active (a pool worker, the main-queue driver, or a caller of sync()) is the only one
//     running its tasks, which is what makes the queue serial.
//   - ThreadPool: runs ready queues; adds workers when none is idle, when one blocks in a
//     library wait, and when a monitor sees ready work stall; retires idle ones.
//   - MainLoop: runs the main queue on one driving thread.
//   - TimerThread: hands delayed tasks to their queues.
#include "QueltLibrary/DispatchQueue.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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
    BlockingScope blocked;
    std::unique_lock lock(mutex);
    cv.wait(lock, [this] { return given; });
  }
};

struct Entry {
  DispatchQueue::Task task;
  SyncHandoff* handoff = nullptr;  // set for the marker of a waiting sync() caller
};

// A queue's entries live in blocks of kBlock; a process-wide cache keeps blocks that queues
// gave back for the next queue that gets work (a queue going idle and busy in turn would
// otherwise allocate on one thread and free on another every turn). It keeps at most kKept.
struct EntryBlock {
  static constexpr uint32_t kBlock = 16;
  std::array<Entry, kBlock> slots;
  EntryBlock* next = nullptr;
};

class BlockCache {
 public:
  static constexpr size_t kKept = 256;

  static EntryBlock* take() {
    BlockCache& cache = shared();
    {
      std::lock_guard lock(cache.mutex_);
      if (!cache.blocks_.empty()) {
        EntryBlock* block = cache.blocks_.back().release();
        cache.blocks_.pop_back();
        return block;
      }
    }
    return new EntryBlock;
  }
  // `block` holds only empty entries.
  static void give(EntryBlock* block) {
    std::unique_ptr<EntryBlock> owned(block);
    owned->next = nullptr;
    BlockCache& cache = shared();
    std::lock_guard lock(cache.mutex_);
    if (cache.blocks_.size() < kKept) cache.blocks_.push_back(std::move(owned));
  }

 private:
  static BlockCache& shared() {
    static BlockCache* cache = new BlockCache;  // never destroyed, see ThreadPool
    return *cache;
  }
  std::mutex mutex_;
  std::vector<std::unique_ptr<EntryBlock>> blocks_;  // guarded by mutex_
};

// A FIFO of entries in a chain of blocks, taken as entries arrive and given back as they
// are used up; release() gives back the last one, so an idle queue holds no task memory.
class EntryList {
 public:
  EntryList() = default;
  EntryList(const EntryList&) = delete;
  EntryList& operator=(const EntryList&) = delete;
  ~EntryList() {
    while (head_ != nullptr) delete std::exchange(head_, head_->next);
  }

  bool empty() const { return head_ == tail_ && headIndex_ == tailIndex_; }
  void push(Entry entry) {
    if (tail_ == nullptr) {
      head_ = tail_ = BlockCache::take();
    } else if (tailIndex_ == EntryBlock::kBlock) {
      tail_->next = BlockCache::take();
      tail_ = tail_->next;
      tailIndex_ = 0;
    }
    tail_->slots[tailIndex_++] = std::move(entry);
  }
  // Only when not empty.
  Entry pop() {
    Entry entry = std::move(head_->slots[headIndex_]);
    head_->slots[headIndex_++] = Entry{};
    if (headIndex_ == EntryBlock::kBlock) {
      if (head_ == tail_) {
        tailIndex_ = 0;  // used up and empty: start the block again
      } else {
        BlockCache::give(std::exchange(head_, head_->next));
      }
      headIndex_ = 0;
    }
    return entry;
  }
  // Gives the block back; only when empty.
  void release() {
    if (tail_ != nullptr) BlockCache::give(tail_);
    head_ = tail_ = nullptr;
    headIndex_ = tailIndex_ = 0;
  }

 private:
  EntryBlock* head_ = nullptr;  // pops here
  EntryBlock* tail_ = nullptr;  // pushes here
  uint32_t headIndex_ = 0;
  uint32_t tailIndex_ = 0;
};

class QueueImpl;

// The queues the calling thread is running, innermost first (a task that runs sync() on
// another queue pushes a second frame).
struct QueueFrame {
  const QueueImpl* queue;
  const QueueFrame* outer;
};
thread_local const QueueFrame* tCurrentFrame = nullptr;

class FrameScope {
 public:
  explicit FrameScope(const QueueImpl* queue) : frame_{queue, tCurrentFrame} {
    tCurrentFrame = &frame_;
  }
  ~FrameScope() { tCurrentFrame = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  QueueFrame frame_;
};

// A queue's state. Idle, it is the label, a mutex, an empty ring and the first specific.
class QueueImpl final : public DispatchQueue {
 public:
  static constexpr size_t kBatch = 64;  // tasks per turn before other queues get a worker

  QueueImpl(std::string l, bool m) : label(std::move(l)), isMain(m) {}

  static QueueImpl& of(DispatchQueue& q) { return static_cast<QueueImpl&>(q); }
  static const QueueImpl& of(const DispatchQueue& q) { return static_cast<const QueueImpl&>(q); }
  std::shared_ptr<QueueImpl> self() {
    return std::static_pointer_cast<QueueImpl>(shared_from_this());
  }

  // Called with the queue active and owned by the caller. Returns the number of tasks run.
  size_t drain();
  // Gives up ownership after a sync() caller ran its task.
  void release();
  void schedule();
  void* specific(const void* key) const;

  const std::string label;
  mutable std::mutex mutex;
  EntryList entries;    // guarded by mutex
  bool active = false;  // guarded by mutex
  const bool isMain;
  std::pair<const void*, void*> firstSpecific{nullptr, nullptr};              // guarded by mutex
  std::unique_ptr<std::vector<std::pair<const void*, void*>>> moreSpecifics;  // guarded by mutex
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

class ThreadPool {
 public:
  static constexpr size_t kMaxThreads = 1024;
  static constexpr size_t kReserve = 2;  // idle workers kept for ever
  static constexpr auto kRetireAfter = std::chrono::seconds(2);
  static constexpr auto kStallAfter = std::chrono::milliseconds(10);

  static ThreadPool& shared() {
    // Never destroyed: queues may still be used from static destructors and other
    // threads while the process exits.
    static ThreadPool* pool = new ThreadPool;
    return *pool;
  }

  DispatchQueue::PoolLimits limits() const { return {onDemand_, 2 * onDemand_, kMaxThreads}; }

  size_t threads() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

  void schedule(std::shared_ptr<QueueImpl> queue) {
    std::vector<std::thread> finished;
    {
      std::lock_guard lock(mutex_);
      ready_.push_back(std::move(queue));
      if (idle_ > wakeups_) {
        ++wakeups_;
        cv_.notify_one();
      } else if (threads_ - blocked_ < onDemand_ && threads_ < kMaxThreads) {
        spawnLocked();
      } else {
        if (!monitor_.joinable()) monitor_ = std::thread([this] { monitor(); });
        monitorCv_.notify_one();
      }
      finished.swap(retired_);
    }
    for (auto& t : finished) t.join();
  }

  // A pool worker begins and ends one task: the monitor counts a worker as blocked only
  // once it has been asleep inside one task for kStallAfter, never while it only waits for
  // a lock between short tasks (its holder preempted on a busy machine). A task that runs
  // another queue's tasks inline (sync) keeps its own start: taskEnds gets taskBegins' value.
  static int64_t taskBegins() {
    Worker* worker = tWorker;
    if (worker == nullptr) return 0;
    const int64_t outer = worker->taskSince.load(std::memory_order_relaxed);
    if (outer == 0) {
      const int64_t now = std::chrono::steady_clock::now().time_since_epoch().count();
      worker->taskSince.store(std::max<int64_t>(1, now), std::memory_order_relaxed);
    }
    return outer;
  }
  static void taskEnds(int64_t outer) {
    if (Worker* worker = tWorker) worker->taskSince.store(outer, std::memory_order_relaxed);
  }

  // A pool worker enters (true) or leaves (false) a wait of the library's.
  static void markBlocked(bool blocked) {
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
    if (pool.starvingLocked() && pool.threads_ - pool.blocked_ < pool.onDemand_ &&
        pool.threads_ < kMaxThreads) {
      pool.spawnLocked();
    }
  }

 private:
  struct Worker {
    std::thread thread;
    pid_t tid = 0;         // set by the worker itself before it takes any work
    bool idle = false;     // waiting for work; guarded by mutex_
    bool blocked = false;  // inside a library wait; guarded by mutex_
    int blockDepth = 0;    // touched by the worker's own thread only
    // steady_clock ticks when its current task began; 0 between tasks (see taskBegins).
    std::atomic<int64_t> taskSince{0};
  };
  static thread_local Worker* tWorker;

  const size_t onDemand_ = std::max<size_t>(4, std::thread::hardware_concurrency());

  // Work waits and no idle worker is about to take it.
  bool starvingLocked() const { return !ready_.empty() && idle_ <= wakeups_; }

  void spawnLocked() {
    ++threads_;
    std::thread worker([this] { work(); });
    const auto id = worker.get_id();
    workers_[id].thread = std::move(worker);
  }

  // How many of `tids` the kernel has asleep. Called without mutex_: a worker waiting for
  // it would otherwise look blocked.
  static size_t countAsleep(const std::vector<pid_t>& tids) {
    return static_cast<size_t>(std::count_if(tids.begin(), tids.end(), threadIsAsleep));
  }

  // Adds workers when ready work has not been taken up for kStallAfter. Workers that are
  // asleep (blocked where the library cannot see) are replaced, all waiting queues at once
  // when every worker is; one more is added while fewer than limits().running are busy on
  // a CPU, so CPU-bound tasks cannot starve other queues either. A busy worker on a loaded
  // machine is runnable, not asleep, and is never mistaken for a blocked one.
  void monitor() {
    nameThisThread("qlt.poolmon");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (!starvingLocked()) {
        monitorCv_.wait(lock);
        continue;
      }
      const uint64_t before = taken_;
      monitorCv_.wait_for(lock, kStallAfter);
      const auto stalled = [&] { return starvingLocked() && taken_ == before; };
      if (!stalled()) continue;
      // Workers not idle and not in a library wait; of them, those in one task for at least
      // kStallAfter may be blocked where the library cannot see.
      size_t busy = 0;
      std::vector<pid_t> longTasks;
      const int64_t longSince =
          (std::chrono::steady_clock::now() - kStallAfter).time_since_epoch().count();
      for (const auto& [id, worker] : workers_) {
        if (worker.idle || worker.blocked || worker.tid == 0) continue;
        ++busy;
        const int64_t since = worker.taskSince.load(std::memory_order_relaxed);
        if (since != 0 && since <= longSince) longTasks.push_back(worker.tid);
      }
      lock.unlock();
      const size_t asleep = countAsleep(longTasks);
      lock.lock();
      if (!stalled()) continue;
      const size_t runnable = busy - asleep;
      size_t add = runnable == 0 ? ready_.size() : asleep + (runnable < 2 * onDemand_ ? 1 : 0);
      add = std::min(add, kMaxThreads - threads_);
      // One at a time, dropping the lock in between so that the new ones take work at once.
      for (; add > 0 && starvingLocked() && threads_ < kMaxThreads; --add) {
        ++threads_;
        lock.unlock();
        std::thread worker([this] { work(); });
        lock.lock();
        workers_[worker.get_id()].thread = std::move(worker);
      }
    }
  }

  void work() {
    nameThisThread("qlt.pool");
    std::unique_lock lock(mutex_);
    Worker& self = workers_[std::this_thread::get_id()];
    self.tid = currentTid();
    tWorker = &self;
    for (;;) {
      if (!ready_.empty()) {
        auto queue = std::move(ready_.front());
        ready_.pop_front();
        ++taken_;
        lock.unlock();
        queue->drain();
        queue.reset();
        lock.lock();
        continue;
      }
      ++idle_;
      self.idle = true;
      const bool woken =
          cv_.wait_for(lock, kRetireAfter, [this] { return !ready_.empty() || !retired_.empty(); });
      self.idle = false;
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
        tWorker = nullptr;
        auto it = workers_.find(std::this_thread::get_id());
        retired_.push_back(std::move(it->second.thread));
        workers_.erase(it);
        cv_.notify_all();
        return;
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<QueueImpl>> ready_;  // guarded by mutex_
  size_t threads_ = 0;                            // guarded by mutex_
  size_t idle_ = 0;                               // guarded by mutex_
  size_t wakeups_ = 0;                            // guarded by mutex_
  size_t blocked_ = 0;                            // guarded by mutex_
  uint64_t taken_ = 0;  // queues taken from ready_ so far; guarded by mutex_
  std::unordered_map<std::thread::id, Worker> workers_;  // guarded by mutex_
  std::vector<std::thread> retired_;                     // guarded by mutex_
  std::condition_variable monitorCv_;
  std::thread monitor_;  // guarded by mutex_; started when the pool first runs short
};

thread_local ThreadPool::Worker* ThreadPool::tWorker = nullptr;

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

  void schedule(std::shared_ptr<QueueImpl> queue) {
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
    std::shared_ptr<QueueImpl> queue;
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
    return queue ? queue->drain() : 0;
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
      std::shared_ptr<QueueImpl> queue;
      {
        std::lock_guard lock(mutex_);
        queue = std::move(pending_);
        pending_.reset();
      }
      if (!queue) return ran;
      ran += queue->drain();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::shared_ptr<QueueImpl> pending_;  // guarded by mutex_
  bool applicationDriven_ = false;      // guarded by mutex_
  bool stopRequested_ = false;          // guarded by mutex_
  std::thread thread_;                  // guarded by mutex_
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

void QueueImpl::schedule() {
  if (isMain) {
    MainLoop::shared().schedule(self());
  } else {
    ThreadPool::shared().schedule(self());
  }
}

size_t QueueImpl::drain() {
  FrameScope frame(this);
  size_t ran = 0;
  for (;;) {
    std::unique_lock lock(mutex);
    if (entries.empty()) {
      entries.release();
      active = false;
      return ran;
    }
    if (ran == kBatch) {
      lock.unlock();
      schedule();  // stays active; another turn later
      return ran;
    }
    Entry entry = entries.pop();
    lock.unlock();
    if (entry.handoff) {
      entry.handoff->give();  // the queue now belongs to the waiting sync() caller
      return ran;
    }
    const int64_t outer = ThreadPool::taskBegins();
    runContained(entry.task, label);
    ThreadPool::taskEnds(outer);
    ++ran;
  }
}

void QueueImpl::release() {
  {
    std::lock_guard lock(mutex);
    if (entries.empty()) {
      entries.release();
      active = false;
      return;
    }
  }
  schedule();
}

void* QueueImpl::specific(const void* key) const {
  std::lock_guard lock(mutex);
  if (firstSpecific.first == key) return firstSpecific.second;
  if (moreSpecifics) {
    for (const auto& [k, v] : *moreSpecifics) {
      if (k == key) return v;
    }
  }
  return nullptr;
}

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label) {
  return std::make_shared<QueueImpl>(std::move(label), false);
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  static const auto* mainQueue =
      new std::shared_ptr<DispatchQueue>(std::make_shared<QueueImpl>("qlt.main", true));
  return *mainQueue;
}

const std::string& DispatchQueue::label() const { return QueueImpl::of(*this).label; }

void DispatchQueue::async(Task task) {
  QueueImpl& q = QueueImpl::of(*this);
  bool mustSchedule = false;
  {
    std::lock_guard lock(q.mutex);
    q.entries.push({std::move(task), nullptr});
    if (!q.active) {
      q.active = true;
      mustSchedule = true;
    }
  }
  if (mustSchedule) q.schedule();
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
  QueueImpl& q = QueueImpl::of(*this);
  SyncHandoff handoff;
  bool wait = false;
  {
    std::lock_guard lock(q.mutex);
    if (q.active) {
      q.entries.push({nullptr, &handoff});
      wait = true;
    } else {
      q.active = true;
    }
  }
  if (wait) handoff.wait();
  try {
    FrameScope frame(&q);
    task();
  } catch (...) {
    q.release();  // the queue goes on; the caller gets the exception
    throw;
  }
  q.release();
}

bool DispatchQueue::isCurrent() const {
  for (const QueueFrame* f = tCurrentFrame; f; f = f->outer) {
    if (f->queue == this) return true;
  }
  return false;
}

void DispatchQueue::setSpecific(const void* key, void* value) {
  QueueImpl& q = QueueImpl::of(*this);
  std::lock_guard lock(q.mutex);
  if (q.firstSpecific.first == nullptr || q.firstSpecific.first == key) {
    q.firstSpecific = {key, value};
    return;
  }
  if (!q.moreSpecifics)
    q.moreSpecifics = std::make_unique<std::vector<std::pair<const void*, void*>>>();
  for (auto& [k, v] : *q.moreSpecifics) {
    if (k == key) {
      v = value;
      return;
    }
  }
  q.moreSpecifics->emplace_back(key, value);
}

void* DispatchQueue::getSpecific(const void* key) {
  for (const QueueFrame* f = tCurrentFrame; f; f = f->outer) {
    if (void* value = f->queue->specific(key)) return value;
  }
  return nullptr;
}

std::string DispatchQueue::currentLabel() {
  return tCurrentFrame ? tCurrentFrame->queue->label : std::string();
}

DispatchQueue::PoolLimits DispatchQueue::poolLimits() { return ThreadPool::shared().limits(); }
size_t DispatchQueue::poolThreads() { return ThreadPool::shared().threads(); }

BlockingScope::BlockingScope() { ThreadPool::markBlocked(true); }
BlockingScope::~BlockingScope() { ThreadPool::markBlocked(false); }

void MainQueue::useApplicationThread() { MainLoop::shared().useApplicationThread(); }
void MainQueue::run() { MainLoop::shared().run(); }
void MainQueue::stop() { MainLoop::shared().stop(); }
size_t MainQueue::runPending() { return MainLoop::shared().runPending(); }

void MainQueue::runFor(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < deadline) MainLoop::shared().serveOnce(deadline, false);
}

}  // namespace qlt
