#include "Waiter.h"

#include <csignal>
#include <cstdio>

namespace qlt::cli {
namespace {

std::atomic<bool> interrupted{false};  // pending: wakes waiters
std::atomic<bool> everInterrupted{false};

extern "C" void onInterrupt(int) {
  interrupted.store(true);
  everInterrupted.store(true);
}

}  // namespace

void installInterruptHandler() {
  struct sigaction sa {};
  sa.sa_handler = onInterrupt;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: a blocking read() in chat returns EINTR
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &sa, nullptr);
}

bool wasInterrupted() { return everInterrupted.load(); }

bool interruptRequested() { return interrupted.load(); }

void acknowledgeInterrupt() { interrupted.store(false); }

void Waiter::update(const std::function<void()>& change) {
  {
    std::lock_guard lock(mutex_);
    change();
  }
  changed_.notify_all();
}

void Waiter::read(const std::function<void()>& reader) {
  std::lock_guard lock(mutex_);
  reader();
}

bool Waiter::waitUntil(const std::function<bool()>& condition, double timeoutS) {
  using clock = std::chrono::steady_clock;
  const bool limited = timeoutS >= 0 && timeoutS < 1e9;  // longer is "without limit"
  const auto deadline = clock::now() + std::chrono::duration_cast<clock::duration>(
                                           std::chrono::duration<double>(limited ? timeoutS : 0));
  std::unique_lock lock(mutex_);
  // Wait in short slices so that Ctrl-C (which cannot notify from a signal handler) is
  // noticed promptly.
  while (!condition()) {
    if (interruptRequested()) throw Interrupted();
    auto until = clock::now() + std::chrono::milliseconds(50);
    if (limited) {
      if (clock::now() >= deadline) return false;
      until = std::min(until, deadline);
    }
    changed_.wait_until(lock, until);
  }
  return true;
}

std::string seconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f s", s);
  return buf;
}

}  // namespace qlt::cli
