// Serial queues over a growing pool of worker threads. See DispatchQueue.h for the
// contract. The moving parts each have a room of their own:
//   - QueueImpl.h: a queue's task list (EntryList.h) and its `active` flag; drained here.
//   - ThreadPool: runs ready queues; adds workers when none is idle, when one blocks in a
//     library wait, and when a monitor sees ready work stall; retires idle ones.
//   - MainLoop: runs the main queue on one driving thread.
//   - TimerThread (and ManualClock, in Clock.cpp): hands delayed tasks to their queues.
#include "QueltLibrary/DispatchQueue.h"

#include <pthread.h>

#include <exception>
#include <mutex>
#include <utility>

#include "MainLoop.h"
#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Log.h"
#include "QueueImpl.h"
#include "ThreadPool.h"

namespace qlt {

namespace detail {

thread_local const QueueFrame* tCurrentFrame = nullptr;

void nameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

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

}  // namespace

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
    if (running.empty()) {
      std::unique_lock lock(mutex);
      if (entries.empty()) {
        goIdleLocked();
        return ran;
      }
      // Every task queued so far at once: the threads adding tasks and the worker running
      // them meet on the mutex once per take, not once per task.
      running.swap(entries);
    }
    if (ran == kBatch) {
      // Stays active; another turn later, after the queues that wait.
      if (isMain) {
        MainLoop::shared().schedule(self());
      } else {
        ThreadPool::shared().requeue(self());
      }
      return ran;
    }
    Entry entry = running.pop();
    if (entry.handoff) {
      entry.handoff->give();  // the queue now belongs to the waiting sync() caller
      return ran;
    }
    const bool began = ThreadPool::taskBegins();
    runContained(entry.task, label);
    ThreadPool::taskEnds(began);
    ++ran;
  }
}

void QueueImpl::goIdleLocked() {
  entries.release();
  running.release();
  active = false;
}

void QueueImpl::release() {
  if (running.empty()) {
    std::lock_guard lock(mutex);
    if (entries.empty()) {
      goIdleLocked();
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

}  // namespace detail

using detail::QueueImpl;

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
  asyncAfter(delay, std::move(task), *Clock::monotonic());
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, Task task, Clock& clock) {
  if (delay <= std::chrono::nanoseconds::zero()) {
    async(std::move(task));
    return;
  }
  clock.submitAt(clock.now() + std::chrono::duration<double>(delay).count(), shared_from_this(),
                 std::move(task));
}

void DispatchQueue::sync(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  QueueImpl& q = QueueImpl::of(*this);
  detail::SyncHandoff handoff;
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
    detail::FrameScope frame(&q);
    task();
  } catch (...) {
    q.release();  // the queue goes on; the caller gets the exception
    throw;
  }
  q.release();
}

bool DispatchQueue::isCurrent() const {
  for (const detail::QueueFrame* f = detail::tCurrentFrame; f; f = f->outer) {
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
  for (const detail::QueueFrame* f = detail::tCurrentFrame; f; f = f->outer) {
    if (void* value = f->queue->specific(key)) return value;
  }
  return nullptr;
}

std::string DispatchQueue::currentLabel() {
  return detail::tCurrentFrame ? detail::tCurrentFrame->queue->label : std::string();
}

DispatchQueue::PoolLimits DispatchQueue::poolLimits() {
  return detail::ThreadPool::shared().limits();
}
size_t DispatchQueue::poolThreads() { return detail::ThreadPool::shared().threads(); }

BlockingScope::BlockingScope() { detail::ThreadPool::markBlocked(true); }
BlockingScope::~BlockingScope() { detail::ThreadPool::markBlocked(false); }

void MainQueue::useApplicationThread() { detail::MainLoop::shared().useApplicationThread(); }
void MainQueue::run() { detail::MainLoop::shared().run(); }
void MainQueue::stop() { detail::MainLoop::shared().stop(); }
size_t MainQueue::runPending() { return detail::MainLoop::shared().runPending(); }

void MainQueue::runFor(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < deadline) {
    detail::MainLoop::shared().serveOnce(deadline, false);
  }
}

}  // namespace qlt
