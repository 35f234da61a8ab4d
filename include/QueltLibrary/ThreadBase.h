// ThreadBase: one body of work on a dedicated OS thread, and a way to ask it to finish.
//
// The delegate supplies the work: threadStarted, then threadRunloop (which returns the
// thread's whole loop, run once), then threadStopped, all called on the new thread. The
// loop is expected to poll isClosing(), which waits about a millisecond on the exit event
// and so paces an idle loop at about one round per millisecond. The delegate is held
// strongly until the thread has ended.
//
// A ThreadBase runs at most once; to run again, make a new one. The thread holds its
// ThreadBase alive until it ends, and every thread is joined: by whoever drops the last
// reference, or, when that happens on the thread itself, by the library's pool.
//
// Thread safety: start, stop, alive and isClosing may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "QueltLibrary/Export.h"
#include "QueltLibrary/HANDLE.h"

namespace qlt {

class ThreadBase;

class QLT_EXPORT ThreadBaseDelegate {
 public:
  virtual ~ThreadBaseDelegate() = default;
  virtual void threadStarted(const std::shared_ptr<ThreadBase>& /*thread*/) {}
  // The thread's loop, or an empty function ("No runloop was defined!!!" is logged).
  virtual std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& thread) = 0;
  virtual void threadStopped(const std::shared_ptr<ThreadBase>& /*thread*/) {}
};

class QLT_EXPORT ThreadBase : public std::enable_shared_from_this<ThreadBase> {
 public:
  static std::shared_ptr<ThreadBase> create(std::shared_ptr<ThreadBaseDelegate> delegate = {});
  ~ThreadBase();

  // Starts the thread unless it is executing: clears the exit event first.
  void start();
  // Sets the exit event if the thread is executing; does not wait.
  void stop();
  // True once stop() was called; otherwise false after waiting about a millisecond.
  bool isClosing();
  bool alive() const { return alive_.load(std::memory_order_acquire); }
  // Blocks the calling thread until stop(), checking about every millisecond.
  void run();

  std::shared_ptr<ThreadBaseDelegate> delegate() const;
  void setDelegate(std::shared_ptr<ThreadBaseDelegate> delegate);

 private:
  explicit ThreadBase(std::shared_ptr<ThreadBaseDelegate> delegate);
  void threadInternalProcedure();

  const std::shared_ptr<HANDLE> hExit_;
  mutable std::mutex mutex_;
  std::shared_ptr<ThreadBaseDelegate> delegate_;  // guarded by mutex_
  std::thread thread_;                            // guarded by mutex_
  bool started_ = false;                          // guarded by mutex_
  std::atomic<bool> alive_{false};
};

}  // namespace qlt
