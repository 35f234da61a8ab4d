#include "QueltLibrary/Log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

namespace qlt {

namespace {

// The installed sink and how many threads are inside it now: setLogSink returns only once
// the sink it replaced has no call left in flight (other than the caller's own, when a
// sink replaces itself), so the caller may destroy what that sink used.
struct InstalledSink {
  explicit InstalledSink(LogSink f) : fn(std::move(f)) {}
  const LogSink fn;
  int calls = 0;  // guarded by gSinkMutex
};
std::mutex gSinkMutex;
std::condition_variable gSinkIdle;          // a call of a replaced sink ended
std::shared_ptr<InstalledSink> gSink;       // guarded by gSinkMutex; empty = default sink
thread_local const InstalledSink* tInSink;  // the sink this thread is calling, if any
thread_local int tInSinkDepth;              // and how many calls deep

std::string errorText(int error) { return std::generic_category().message(error); }

// Where the default sink writes, read from QLT_LOG once, on the first line logged:
// nothing when it is unset or empty, standard error for "stderr", else the file it names
// (appended to).
struct DefaultDestination {
  std::mutex mutex;
  FILE* file = nullptr;          // guarded by mutex; stderr or an opened file; null: nowhere
  std::string path;              // guarded by mutex; the file's name, for the failure message
  bool failureReported = false;  // guarded by mutex
};

DefaultDestination& defaultDestination() {
  static auto* destination = [] {
    auto* d = new DefaultDestination;  // never destroyed: lines may be logged during exit
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
    const char* env = std::getenv("QLT_LOG");
    const std::string name = env ? env : "";
    if (name == "stderr") {
      d->file = stderr;
    } else if (!name.empty()) {
      d->path = name;
      d->file = std::fopen(name.c_str(), "ae");
      if (!d->file) {
        std::fprintf(stderr,
                     "QueltLibrary: cannot open the log file \"%s\" named by QLT_LOG: %s; "
                     "log lines are dropped\n",
                     name.c_str(), errorText(errno).c_str());
      }
    }
    return d;
  }();
  return *destination;
}

void defaultSink(std::string_view line) {
  DefaultDestination& destination = defaultDestination();
  std::lock_guard lock(destination.mutex);
  if (!destination.file) return;
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t secs = system_clock::to_time_t(now);
  const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm tm{};
  localtime_r(&secs, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
  // One fprintf per line, so lines from several threads do not interleave.
  const int written = std::fprintf(destination.file, "%s.%03d QueltLibrary[%d:%ld] %.*s\n", stamp,
                                   static_cast<int>(ms), static_cast<int>(getpid()),
                                   static_cast<long>(syscall(SYS_gettid)),
                                   static_cast<int>(line.size()), line.data());
  if ((written < 0 || std::fflush(destination.file) != 0) && destination.file != stderr &&
      !destination.failureReported) {
    destination.failureReported = true;
    std::fprintf(stderr, "QueltLibrary: cannot write the log file \"%s\" named by QLT_LOG: %s\n",
                 destination.path.c_str(), errorText(errno).c_str());
  }
}

}  // namespace

namespace {

void endCall(InstalledSink& sink) {
  std::lock_guard lock(gSinkMutex);
  --sink.calls;
  if (gSink.get() != &sink) gSinkIdle.notify_all();  // a setLogSink may wait for it
}

}  // namespace

LogSink setLogSink(LogSink sink) {
  std::shared_ptr<InstalledSink> replaced;
  if (sink) replaced = std::make_shared<InstalledSink>(std::move(sink));
  std::unique_lock lock(gSinkMutex);
  std::swap(gSink, replaced);
  if (!replaced) return LogSink();
  const int own = tInSink == replaced.get() ? tInSinkDepth : 0;
  gSinkIdle.wait(lock, [&] { return replaced->calls <= own; });
  return replaced->fn;
}

void logLine(std::string_view line) {
  std::shared_ptr<InstalledSink> sink;
  {
    std::lock_guard lock(gSinkMutex);
    sink = gSink;
    if (sink) ++sink->calls;
  }
  if (!sink) {
    defaultSink(line);
    return;
  }
  const InstalledSink* outer = std::exchange(tInSink, sink.get());
  const int outerDepth = std::exchange(tInSinkDepth, outer == sink.get() ? tInSinkDepth + 1 : 1);
  const auto leave = [&] {
    tInSink = outer;
    tInSinkDepth = outerDepth;
    endCall(*sink);
  };
  try {
    sink->fn(line);
  } catch (...) {
    leave();
    throw;
  }
  leave();
}

void failLoudly(std::string_view message) {
  logLine(message);
  std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

namespace detail {

std::string formatLog(std::string_view format, const LogArg* args, size_t count) {
  std::string out;
  out.reserve(format.size() + 16 * count);
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c != '%' || i + 1 >= format.size()) {
      out.push_back(c);
      continue;
    }
    if (format[i + 1] == '%') {
      out.push_back('%');
      ++i;
      continue;
    }
    // Skip flags, width, precision and length modifiers; keep the conversion letter.
    size_t j = i + 1;
    while (j < format.size() &&
           std::string_view("-+ #0123456789.lhzjqt").find(format[j]) != std::string_view::npos) {
      ++j;
    }
    if (j >= format.size()) {
      out.append(format.substr(i));
      break;
    }
    const char conv = format[j];
    i = j;
    if (next >= count) {
      out.append("(missing)");
      continue;
    }
    const LogArg& a = args[next++];
    char buf[64];
    switch (a.kind) {
      case LogArg::Kind::Signed:
        if (conv == 'x' || conv == 'X') {
          std::snprintf(buf, sizeof buf, conv == 'x' ? "%llx" : "%llX",
                        static_cast<unsigned long long>(a.s));
        } else {
          std::snprintf(buf, sizeof buf, "%lld", a.s);
        }
        out.append(buf);
        break;
      case LogArg::Kind::Unsigned:
        std::snprintf(buf, sizeof buf, conv == 'x' ? "%llx" : conv == 'X' ? "%llX" : "%llu", a.u);
        out.append(buf);
        break;
      case LogArg::Kind::Float:
        if (conv == 'd' || conv == 'i') {
          std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(a.f));
        } else {
          std::snprintf(buf, sizeof buf, "%f", a.f);
        }
        out.append(buf);
        break;
      case LogArg::Kind::Text:
        out.append(a.text);
        break;
    }
  }
  return out;
}

}  // namespace detail

}  // namespace qlt
