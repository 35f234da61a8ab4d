#include "LogRouting.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>

#include "Errors.h"
#include "QueltLibrary/Log.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[40];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  char out[48];
  std::snprintf(out, sizeof out, "%s.%03d", buf, static_cast<int>(ms.count()));
  return out;
}

struct Routing {
  std::mutex mutex;
  bool verbose = false;
  std::ofstream file;        // guarded by mutex
  std::string path;          // the file's name, for the failure message
  bool writeFailed = false;  // guarded by mutex; said once, then the file is left alone
};

std::mutex gBackendMutex;
std::string gBackendLine;  // guarded by gBackendMutex

void noteBackendLine(std::string_view line) {
  const auto at = line.find("BlueZ: ");
  if (at == std::string_view::npos) return;
  std::lock_guard lock(gBackendMutex);
  gBackendLine = std::string(line.substr(at + 7));
}

}  // namespace

std::string lastBackendLogLine() {
  std::lock_guard lock(gBackendMutex);
  return gBackendLine;
}

void routeLibraryLog(bool verbose, const std::string& logFile) {
  auto routing = std::make_shared<Routing>();
  routing->verbose = verbose;
  if (!logFile.empty()) {
    routing->path = logFile;
    routing->file.open(logFile, std::ios::app);
    if (!routing->file) throw UsageError("cannot open log file '" + logFile + "' for writing");
  }
  // The sink is called from any library thread, never under a library lock.
  qlt::setLogSink([routing](std::string_view line) {
    noteBackendLine(line);
    std::lock_guard lock(routing->mutex);
    if (routing->verbose) {
      printError(timestamp() + " " + std::string(line));
    }
    if (routing->file.is_open() && !routing->writeFailed) {
      routing->file << timestamp() << ' ' << line << '\n';
      routing->file.flush();
      if (!routing->file) {
        routing->writeFailed = true;
        printError("qlt: cannot write the log file '" + routing->path +
                   "' (disk full?); later log lines are not written to it");
      }
    }
  });
}

}  // namespace qlt::cli
