// BusPort: what the BlueZ backend's layers need from the bus loop, and nothing more.
//
// Asynchronous method calls to bluetoothd, signal matches, descriptor watches and timers,
// and posting work to the bus thread. LoopPort implements it over BusLoop; the tests
// implement it with a fake that records the calls and answers them by hand, so the link
// state machine and the GATT request queue run there fast and deterministically.
//
// Timers, watches and matches are ScopedHandles: dropping or resetting the handle cancels
// them, so nothing outlives its owner by a forgotten id. A method call runs to its reply
// unless the caller keeps its handle and resets it, or the proxy of its path is released.
//
// Thread safety: post() from any thread; everything else on the bus thread only
// (isBusThread()).
#pragma once

#include <cassert>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "QueltLibrary/platform/Platform.h"

namespace qlt::bluez {

// Cancels what it stands for when reset, reassigned or destroyed.
class ScopedHandle {
 public:
  ScopedHandle() = default;
  explicit ScopedHandle(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  ScopedHandle(ScopedHandle&& other) noexcept : cancel_(std::exchange(other.cancel_, {})) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) {
      reset();
      cancel_ = std::exchange(other.cancel_, {});
    }
    return *this;
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  ~ScopedHandle() { reset(); }
  void reset() {
    if (auto cancel = std::exchange(cancel_, {})) cancel();
  }
  // Forgets it without cancelling: for the callback of what it stands for, which is done.
  void release() { cancel_ = {}; }
  explicit operator bool() const { return static_cast<bool>(cancel_); }

 private:
  std::function<void()> cancel_;
};

class BusPort {
 public:
  using Task = std::function<void()>;
  // The reply, or the error (the call's own D-Bus error, or one of the backend when the
  // call could not be sent; then `reply` is null). Void replies may come with a null reply.
  using Reply = std::function<void(sdbus::MethodReply* reply, const platform::Error* error)>;
  using Arguments = std::function<void(sdbus::MethodCall&)>;

  virtual ~BusPort() = default;
  virtual bool isBusThread() const = 0;
  virtual void post(Task task) = 0;

  // Calls `method` on bluetoothd's object `path`. `done` runs on the bus thread, never from
  // inside call(). With `keep`, the handle put there cancels the call (no reply then).
  virtual void call(const std::string& path, const char* interface, const char* method,
                    const Arguments& arguments, std::chrono::milliseconds timeout, Reply done,
                    ScopedHandle* keep = nullptr) = 0;
  // Calls `method` of the bus daemon itself (org.freedesktop.DBus) with one string.
  virtual void askBus(const char* method, const std::string& argument, Reply done) = 0;
  // Drops the calls pending on `path` (or on every path) without a reply.
  virtual void releaseProxy(const std::string& path) = 0;
  virtual void releaseAllProxies() = 0;
  virtual ScopedHandle runAfter(std::chrono::milliseconds delay, Task task) = 0;
  // Polls `fd` for `events` (POLLHUP and POLLERR always) until the handle goes.
  virtual ScopedHandle watch(int fd, short events, std::function<void(short revents)> callback) = 0;
  virtual ScopedHandle match(const std::string& rule,
                             std::function<void(sdbus::Message&)> handler) = 0;
};

// Bus-thread-only functions check it in debug builds.
#define QLT_ASSERT_BUS_THREAD(port) assert((port).isBusThread())

// Errors the backend makes itself (the daemon's own errors keep their D-Bus names).
inline constexpr const char* kBackendDomain = "qlt.bluez";
inline platform::Error backendError(platform::ErrorReason reason, std::string message) {
  return platform::Error{kBackendDomain, std::move(message), reason};
}

}  // namespace qlt::bluez
