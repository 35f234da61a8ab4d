// Turning callbacks into "wait until X, or give up after a time-out".
//
// Library callbacks arrive on the tool's delegate queue; the command's own thread waits
// for what it needs. A Waiter pairs one mutex with one condition variable: callbacks change
// the state they share with the command inside update(), which wakes every waiter; the
// command calls waitUntil() with a condition over that state.
//
//   Waiter w; int state = 0;                          // state guarded by w
//   callback:  w.update([&] { state = newState; });
//   command:   if (!w.waitUntil([&] { return state == 8; }, 5.0))
//                throw Failure("'" + name + "' did not become ready within " + seconds(5.0));
//
// Ctrl-C (SIGINT), SIGTERM and SIGHUP (the terminal closed) wake every waiter: waitUntil
// then throws Interrupted, so a command unwinds and disconnects cleanly; the process then
// exits 130.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "Errors.h"

namespace qlt::cli {

struct Interrupted : Failure {
  Interrupted() : Failure("interrupted") {}
};

class Waiter {
 public:
  // Runs `change` under the lock, then wakes the waiters.
  void update(const std::function<void()>& change);
  // Runs `read` under the lock (to copy shared state out).
  void read(const std::function<void()>& reader);
  // Waits until `condition` (evaluated under the lock) holds: true; false once `timeoutS`
  // seconds have passed (a negative time-out waits without limit). Throws Interrupted on
  // Ctrl-C.
  bool waitUntil(const std::function<bool()>& condition, double timeoutS);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
};

// Installs the SIGINT, SIGTERM and SIGHUP handler that wakes waiters (once per process).
void installInterruptHandler();
// Whether an interrupt is pending (not yet acknowledged).
bool interruptRequested();
// Takes note of an interrupt that the command handles itself (it prints its summary and
// disconnects), so that the waits of its clean-up are not interrupted by it.
void acknowledgeInterrupt();
// Whether the process was interrupted at all (the exit code is then 130).
bool wasInterrupted();

// "5.0 s": how time-outs are written in messages.
std::string seconds(double s);

}  // namespace qlt::cli
