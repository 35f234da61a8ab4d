// Helpers shared by the test suites.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "QueltLibrary/Log.h"

namespace qlt::test {

// Captures every log line while it lives (restores the previous sink afterwards).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { setLogSink(previous_); }
  std::vector<std::string> lines() const;
  size_t count(const std::string& line) const;
  bool contains(const std::string& line) const { return count(line) > 0; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
  LogSink previous_;
};

// Context switches (voluntary and not) of every thread of this process so far.
uint64_t processWakeups();
// Number of OS threads of this process (from /proc/self/task).
size_t osThreadCount();
// Polls `condition` every millisecond until true (returns true) or until `timeout`.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Seconds since `start`, as a double.
double secondsSince(std::chrono::steady_clock::time_point start);

}  // namespace qlt::test
