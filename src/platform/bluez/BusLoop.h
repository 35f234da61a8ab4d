// BusLoop: the BlueZ backend's own thread and its system-bus connection.
//
// sd-bus connections are not thread-safe, so one thread does everything with the bus: it
// opens the connection (the system bus, found through DBUS_SYSTEM_BUS_ADDRESS as every
// D-Bus client finds it), runs the callbacks of signals and method replies, runs the tasks
// that other threads post(), and fires timers. Nothing on it blocks: method calls are
// asynchronous with explicit time-outs, and the poll() of the loop wakes for the bus, for
// posted tasks and for the next timer.
//
// When the connection fails (at start, or later because the bus went away) the loop tells
// its owner through `lost`, keeps running tasks and timers, and tries again every
// `reconnectInterval`; each new connection is announced through `connected`.
//
// Other file descriptors (the sockets of acquired characteristics) are polled in the same
// round through watch(): their callbacks run on the loop thread, guarded like every other.
// The loop never owns a watched descriptor; its owner unwatches it before closing it.
//
// Every sdbus-c++ callback the owner installs must catch its own exceptions: a C++
// exception must never unwind through sd-bus. guard() helps with that.
//
// Thread safety: post() and stop() from any thread; everything else on the loop thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>

#include <sdbus-c++/sdbus-c++.h>

namespace qlt::bluez {

class BusLoop {
 public:
  using Task = std::function<void()>;
  using TimerId = uint64_t;
  using WatchId = uint64_t;
  // Called with the poll() result bits (POLLIN, POLLHUP, POLLERR, ...) of the descriptor.
  using FdCallback = std::function<void(short revents)>;
  using Clock = std::chrono::steady_clock;

  struct Hooks {
    std::function<void(sdbus::IConnection&)> connected;  // a connection is up
    // The connection is about to close: it failed, went away, or the loop is stopping
    // (`stopping` true). Drop every slot and proxy tied to it here.
    std::function<void(bool stopping)> lost;
  };

  explicit BusLoop(std::chrono::milliseconds reconnectInterval = std::chrono::seconds(2));
  ~BusLoop();
  BusLoop(const BusLoop&) = delete;
  BusLoop& operator=(const BusLoop&) = delete;

  void start(Hooks hooks);
  // Ends the thread after its current round and joins it. Tasks not yet run are dropped.
  void stop();
  void post(Task task);
  bool isLoopThread() const { return std::this_thread::get_id() == threadId_.load(); }

  // ---- loop thread only
  TimerId runAfter(std::chrono::milliseconds delay, Task task);
  void cancel(TimerId id);
  // Polls `fd` for `events` (POLLHUP and POLLERR are always reported) until unwatch().
  WatchId watch(int fd, short events, FdCallback callback);
  void unwatch(WatchId id);
  sdbus::IConnection* connection() const { return connection_.get(); }
  // A proxy for calls to `path` of `service` (kept for reuse). Null without a connection
  // or for a malformed name or path (logged).
  sdbus::IProxy* proxy(const std::string& service, const std::string& path);
  // Forgets the proxy of `path` (or all proxies). Their pending calls are dropped without
  // a callback. The proxies are destroyed at the end of the round, never inside a callback.
  void releaseProxy(const std::string& service, const std::string& path);
  void releaseAllProxies();

  // Runs `body`, logging any exception (named by `what`) instead of letting it escape.
  static void guard(const char* what, const std::function<void()>& body);

 private:
  void run(const Hooks& hooks);
  bool openConnection(const Hooks& hooks);
  void closeConnection(const Hooks& hooks, bool stopping);
  void runTasks();
  void runDueTimers();
  void runWatches(const std::vector<pollfd>& fds, const std::vector<WatchId>& ids, size_t first);
  int pollTimeoutMs();
  void wake();

  const std::chrono::milliseconds reconnectInterval_;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
  int wakeFd_ = -1;

  std::mutex mutex_;
  std::deque<Task> tasks_;  // guarded by mutex_
  bool stopping_ = false;   // guarded by mutex_

  // Loop thread only.
  std::unique_ptr<sdbus::IConnection> connection_;
  std::map<std::string, std::unique_ptr<sdbus::IProxy>> proxies_;
  std::vector<std::unique_ptr<sdbus::IProxy>> released_;
  std::multimap<Clock::time_point, TimerId> timerOrder_;
  std::map<TimerId, std::pair<Clock::time_point, Task>> timers_;
  TimerId nextTimer_ = 1;
  struct Watch {
    int fd;
    short events;
    FdCallback callback;
  };
  std::map<WatchId, Watch> watches_;
  WatchId nextWatch_ = 1;
  Clock::time_point nextConnectAttempt_{};
  int hangups_ = 0;
  bool connectFailureReported_ = false;
};

// A file descriptor owned by one object: closed when it is reset or destroyed.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  ~OwnedFd() { reset(); }
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

 private:
  int fd_ = -1;
};

}  // namespace qlt::bluez
