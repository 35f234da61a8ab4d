#include "platform/bluez/BusLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <set>

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

namespace {

// Loops still running when the process exits. sdbus-c++ keeps a process-wide pseudo
// connection for the messages inside its variants, destroyed with the other statics at
// exit; a bus thread still reading messages then would use it after its end. So every loop
// is stopped (its thread joined) by an exit handler that runs before that static goes.
std::mutex gLoopsMutex;
std::set<BusLoop*>& liveLoops() {
  static auto* loops = new std::set<BusLoop*>;  // never destroyed: used during exit
  return *loops;
}

void stopLoopsAtExit() {
  std::lock_guard<std::mutex> lock(gLoopsMutex);
  for (BusLoop* loop : liveLoops()) loop->stop();
}

// On the bus thread, before its first use of sd-bus messages: make sdbus-c++'s static
// first, then register the exit handler, which therefore runs before the static's end.
void registerExitHandlerOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    try {
      sdbus::Variant warmUp(int32_t{0});
    } catch (const sdbus::Error& e) {
      QLTLog("BlueZ: cannot prepare D-Bus messages: %s", e.getMessage());
    }
    std::atexit(stopLoopsAtExit);
  });
}

}  // namespace

BusLoop::BusLoop(std::chrono::milliseconds reconnectInterval)
    : reconnectInterval_(reconnectInterval) {
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) QLTLog("BlueZ: eventfd failed (errno %d); the bus thread will poll", errno);
}

BusLoop::~BusLoop() {
  {
    std::lock_guard<std::mutex> lock(gLoopsMutex);
    liveLoops().erase(this);
  }
  stop();
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

void BusLoop::start(Hooks hooks) {
  {
    std::lock_guard<std::mutex> lock(gLoopsMutex);
    liveLoops().insert(this);
  }
  thread_ = std::thread([this, hooks = std::move(hooks)] { run(hooks); });
}

void BusLoop::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake();
  if (!thread_.joinable()) return;
  if (isLoopThread()) {
    // The owner is being released by a task of this very thread; let the thread end by
    // itself rather than joining itself.
    thread_.detach();
    return;
  }
  thread_.join();
}

void BusLoop::post(Task task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    tasks_.push_back(std::move(task));
  }
  wake();
}

void BusLoop::wake() {
  if (wakeFd_ < 0) return;
  const uint64_t one = 1;
  ssize_t n = ::write(wakeFd_, &one, sizeof one);
  (void)n;  // EAGAIN means a wake-up is already pending
}

BusLoop::TimerId BusLoop::runAfter(std::chrono::milliseconds delay, Task task) {
  const TimerId id = nextTimer_++;
  const auto when = Clock::now() + delay;
  timers_.emplace(id, std::make_pair(when, std::move(task)));
  timerOrder_.emplace(when, id);
  return id;
}

void BusLoop::cancel(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  auto range = timerOrder_.equal_range(it->second.first);
  for (auto o = range.first; o != range.second; ++o) {
    if (o->second == id) {
      timerOrder_.erase(o);
      break;
    }
  }
  timers_.erase(it);
}

BusLoop::WatchId BusLoop::watch(int fd, short events, FdCallback callback) {
  const WatchId id = nextWatch_++;
  watches_.emplace(id, Watch{fd, events, std::move(callback)});
  return id;
}

void BusLoop::unwatch(WatchId id) { watches_.erase(id); }

void BusLoop::runWatches(const std::vector<pollfd>& fds, const std::vector<WatchId>& ids,
                         size_t first) {
  for (size_t i = first; i < fds.size(); ++i) {
    if (!fds[i].revents) continue;
    // A callback may have unwatched this one (or any other) earlier in the round.
    auto it = watches_.find(ids[i - first]);
    if (it == watches_.end() || it->second.fd != fds[i].fd) continue;
    FdCallback callback = it->second.callback;  // a copy: the callback may unwatch itself
    const short revents = fds[i].revents;
    guard("a descriptor watch", [&] { callback(revents); });
  }
}

void OwnedFd::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

sdbus::IProxy* BusLoop::proxy(const std::string& service, const std::string& path) {
  if (!connection_) return nullptr;
  const std::string key = service + "|" + path;
  auto it = proxies_.find(key);
  if (it != proxies_.end()) return it->second.get();
  try {
    auto made = sdbus::createProxy(*connection_, service, path);
    auto* raw = made.get();
    proxies_.emplace(key, std::move(made));
    return raw;
  } catch (const sdbus::Error& e) {
    QLTLog("BlueZ: cannot address %s at %s: %s", service, path, e.getMessage());
    return nullptr;
  }
}

void BusLoop::releaseProxy(const std::string& service, const std::string& path) {
  auto it = proxies_.find(service + "|" + path);
  if (it == proxies_.end()) return;
  released_.push_back(std::move(it->second));
  proxies_.erase(it);
}

void BusLoop::releaseAllProxies() {
  for (auto& [key, proxy] : proxies_) released_.push_back(std::move(proxy));
  proxies_.clear();
}

void BusLoop::guard(const char* what, const std::function<void()>& body) {
  try {
    body();
  } catch (const sdbus::Error& e) {
    QLTLog("BlueZ: %s failed: %s: %s", what, e.getName(), e.getMessage());
  } catch (const std::exception& e) {
    QLTLog("BlueZ: %s failed: %s", what, e.what());
  } catch (...) {
    QLTLog("BlueZ: %s failed with an unknown exception", what);
  }
}

bool BusLoop::openConnection(const Hooks& hooks) {
  nextConnectAttempt_ = Clock::now() + reconnectInterval_;
  try {
    connection_ = sdbus::createSystemBusConnection();
  } catch (const sdbus::Error& e) {
    // Said once per outage; the retries go on quietly.
    if (!connectFailureReported_) {
      // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process modifies the environment.
      const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
      QLTLog("BlueZ: cannot connect to the system bus (%s): %s: %s; retrying every %lld ms",
             address ? address : "the standard address", e.getName(), e.getMessage(),
             static_cast<long long>(reconnectInterval_.count()));
      connectFailureReported_ = true;
    }
    connection_.reset();
    return false;
  }
  if (connectFailureReported_) QLTLog("BlueZ: connected to the system bus again");
  connectFailureReported_ = false;
  guard("setting up the bus connection", [&] {
    if (hooks.connected) hooks.connected(*connection_);
  });
  return true;
}

void BusLoop::closeConnection(const Hooks& hooks, bool stopping) {
  guard("dropping the bus connection", [&] {
    if (hooks.lost) hooks.lost(stopping);
  });
  hangups_ = 0;
  releaseAllProxies();
  released_.clear();
  connection_.reset();
  nextConnectAttempt_ = Clock::now() + reconnectInterval_;
}

void BusLoop::runTasks() {
  std::deque<Task> batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch.swap(tasks_);
  }
  for (auto& task : batch) guard("a bus task", task);
}

void BusLoop::runDueTimers() {
  const auto now = Clock::now();
  while (!timerOrder_.empty() && timerOrder_.begin()->first <= now) {
    const TimerId id = timerOrder_.begin()->second;
    timerOrder_.erase(timerOrder_.begin());
    auto it = timers_.find(id);
    if (it == timers_.end()) continue;
    Task task = std::move(it->second.second);
    timers_.erase(it);
    guard("a bus timer", task);
  }
}

int BusLoop::pollTimeoutMs() {
  auto until = [](Clock::time_point when) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
    return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left, 60000)));
  };
  int timeout = -1;
  if (!timerOrder_.empty()) timeout = until(timerOrder_.begin()->first);
  if (!connection_) {
    const int retry = until(nextConnectAttempt_);
    timeout = timeout < 0 ? retry : std::min(timeout, retry);
  }
  if (wakeFd_ < 0) timeout = timeout < 0 ? 10 : std::min(timeout, 10);
  return timeout;
}

void BusLoop::run(const Hooks& hooks) {
  threadId_ = std::this_thread::get_id();
  registerExitHandlerOnce();
  openConnection(hooks);
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) break;
    }
    runTasks();
    runDueTimers();
    released_.clear();
    if (!connection_ && Clock::now() >= nextConnectAttempt_) openConnection(hooks);

    std::vector<pollfd> fds;
    fds.reserve(2 + watches_.size());
    if (wakeFd_ >= 0) fds.push_back({wakeFd_, POLLIN, 0});
    int busIndex = -1;
    int timeout = pollTimeoutMs();
    if (connection_) {
      bool broken = false;
      try {
        while (connection_->processPendingRequest()) {}
        released_.clear();
        const auto data = connection_->getEventLoopPollData();
        busIndex = static_cast<int>(fds.size());
        fds.push_back({data.fd, data.events, 0});
        const int busTimeout = data.getPollTimeout();
        if (busTimeout >= 0) timeout = timeout < 0 ? busTimeout : std::min(timeout, busTimeout);
      } catch (const sdbus::Error& e) {
        QLTLog("BlueZ: lost the system bus: %s: %s", e.getName(), e.getMessage());
        broken = true;
      }
      if (broken) {
        closeConnection(hooks, false);
        continue;
      }
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) break;
      if (!tasks_.empty()) timeout = 0;
    }
    const size_t firstWatch = fds.size();
    std::vector<WatchId> watchIds;
    watchIds.reserve(watches_.size());
    for (const auto& [id, w] : watches_) {
      fds.push_back({w.fd, w.events, 0});
      watchIds.push_back(id);
    }
    const int ready = ::poll(fds.data(), fds.size(), timeout);
    if (ready < 0 && errno != EINTR) {
      QLTLog("BlueZ: poll failed (errno %d)", errno);
      ::usleep(10000);
    }
    if (wakeFd_ >= 0 && ready > 0 && (fds[0].revents & POLLIN)) {
      uint64_t value = 0;
      ssize_t n = ::read(wakeFd_, &value, sizeof value);
      (void)n;
    }
    if (ready > 0) runWatches(fds, watchIds, firstWatch);
    if (connection_ && busIndex >= 0) {
      // sd-bus normally reports a hang-up from processPendingRequest; should it keep quiet,
      // do not spin on a dead socket.
      if (fds[busIndex].revents & (POLLERR | POLLHUP | POLLNVAL)) {
        if (++hangups_ > 3) {
          QLTLog("BlueZ: lost the system bus (the connection hung up)");
          closeConnection(hooks, false);
        }
      } else {
        hangups_ = 0;
      }
    }
  }
  // Close in order: the owner's match slots, the proxies, then the connection.
  if (connection_) closeConnection(hooks, true);
  timers_.clear();
  timerOrder_.clear();
  watches_.clear();
  std::deque<Task> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(tasks_);
  }
}

}  // namespace qlt::bluez
