// A serial queue's state, shared by the executors that run it (the pool, the main loop,
// sync() callers). Internal to the concurrency layer.
//
// A queue is active from the moment it is handed to an executor until a drain finds it
// empty; whoever holds it active (a pool worker, the main-queue driver, or a caller of
// sync()) is the only one running its tasks, which is what makes the queue serial.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "EntryList.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt::detail {

class QueueImpl;

// The queues the calling thread is running, innermost first (a task that runs sync() on
// another queue pushes a second frame).
struct QueueFrame {
  const QueueImpl* queue;
  const QueueFrame* outer;
};
extern thread_local const QueueFrame* tCurrentFrame;

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

// Idle, a queue is the label, a mutex, an empty entry list and the first specific.
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
  // With both task lists empty and `mutex` held: the queue goes idle, its blocks given back.
  void goIdleLocked();
  // Hands the active queue to its executor: the main loop or the pool.
  void schedule();
  void* specific(const void* key) const;

  const std::string label;
  mutable std::mutex mutex;
  EntryList entries;  // guarded by mutex
  // The tasks taken from `entries` to run, in order; only whoever holds the queue active
  // touches it, without the mutex. Empty while the queue is not active.
  EntryList running;
  bool active = false;  // guarded by mutex
  const bool isMain;
  std::pair<const void*, void*> firstSpecific{nullptr, nullptr};              // guarded by mutex
  std::unique_ptr<std::vector<std::pair<const void*, void*>>> moreSpecifics;  // guarded by mutex
};

// Names the calling thread for debuggers and /proc (at most 15 characters).
void nameThisThread(const char* name);

}  // namespace qlt::detail
