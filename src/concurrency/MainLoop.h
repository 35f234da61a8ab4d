// Runs the main queue on one driving thread: the library's own (qlt.main), started on
// first use, or the application's (MainQueue::useApplicationThread). Internal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace qlt::detail {

class QueueImpl;

class MainLoop {
 public:
  static MainLoop& shared();

  void useApplicationThread();
  void schedule(std::shared_ptr<QueueImpl> queue);
  // Waits until the main queue has work (or `deadline`, or stop() when `stoppable`), then
  // runs one turn of it. Returns the number of tasks run.
  size_t serveOnce(std::chrono::steady_clock::time_point deadline, bool stoppable);
  // A stop() that came while no run() was active is kept: this run() then runs what is
  // waiting and returns.
  void run();
  void stop();
  size_t runPending();

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::shared_ptr<QueueImpl> pending_;  // guarded by mutex_
  bool applicationDriven_ = false;      // guarded by mutex_
  bool stopRequested_ = false;          // guarded by mutex_
  std::thread thread_;                  // guarded by mutex_
};

}  // namespace qlt::detail
