#include "support/TestSupport.h"

#include <dirent.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

namespace qlt::test {

LogCapture::LogCapture() {
  previous_ = setLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

size_t LogCapture::count(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
}

size_t osThreadCount() {
  std::error_code ignored;  // a thread may end while the directory is read
  auto tasks = std::filesystem::directory_iterator("/proc/self/task", ignored);
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

uint64_t processWakeups() {
  uint64_t n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* e = readdir(dir)) {
      if (e->d_name[0] == '.') continue;
      std::ifstream status(std::string("/proc/self/task/") + e->d_name + "/status");
      std::string key;
      uint64_t value = 0;
      while (status >> key) {
        if (key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") {
          if (status >> value) n += value;
        }
      }
    }
    closedir(dir);
  }
  return n;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace qlt::test
