#include "platform/bluez/LoopPort.h"

#include <memory>

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezProperties.h"

namespace qlt::bluez {

namespace {

uint64_t microseconds(std::chrono::milliseconds ms) {
  return static_cast<uint64_t>(ms.count()) * 1000u;
}

// The sdbus-c++ reply callback for `done`: no exception unwinds through sd-bus.
auto replyHandler(const char* method, BusPort::Reply done) {
  return [done = std::move(done), what = std::string(method) + " reply"](
             sdbus::MethodReply& reply, const sdbus::Error* error) {
    BusLoop::guard(what.c_str(), [&] {
      if (error) {
        const platform::Error e = toError(*error);
        done(&reply, &e);
      } else {
        done(&reply, nullptr);
      }
    });
  };
}

}  // namespace

void LoopPort::call(const std::string& path, const char* interface, const char* method,
                    const Arguments& arguments, std::chrono::milliseconds timeout, Reply done,
                    ScopedHandle* keep) {
  QLT_ASSERT_BUS_THREAD(*this);
  std::optional<platform::Error> failure;
  try {
    sdbus::IProxy* proxy = loop_.proxy(kBluezService, path);
    if (!proxy) {
      failure = backendError(platform::ErrorReason::PoweredOff, "no connection to the system bus");
    } else {
      auto message = proxy->createMethodCall(interface, method);
      if (arguments) arguments(message);
      auto pending = proxy->callMethod(message, replyHandler(method, done), microseconds(timeout));
      if (keep) *keep = ScopedHandle([pending]() mutable { pending.cancel(); });
      return;
    }
  } catch (const sdbus::Error& e) {
    failure = toError(e);
  }
  QLTLog("BlueZ: cannot call %s on %s: %s", method, path, failure->description());
  // Answer later, never from inside the caller.
  loop_.post([done, failure] { done(nullptr, &*failure); });
}

void LoopPort::askBus(const char* method, const std::string& argument, Reply done) {
  QLT_ASSERT_BUS_THREAD(*this);
  constexpr const char* kBusName = "org.freedesktop.DBus";
  sdbus::IProxy* bus = loop_.proxy(kBusName, "/org/freedesktop/DBus");
  if (!bus) return;
  auto message = bus->createMethodCall(kBusName, method);
  message << argument;
  bus->callMethod(message, replyHandler(method, std::move(done)), microseconds(callTimeout_));
}

void LoopPort::releaseProxy(const std::string& path) { loop_.releaseProxy(kBluezService, path); }

ScopedHandle LoopPort::runAfter(std::chrono::milliseconds delay, Task task) {
  QLT_ASSERT_BUS_THREAD(*this);
  const BusLoop::TimerId id = loop_.runAfter(delay, std::move(task));
  return ScopedHandle([loop = &loop_, id] { loop->cancel(id); });
}

ScopedHandle LoopPort::watch(int fd, short events, std::function<void(short revents)> callback) {
  QLT_ASSERT_BUS_THREAD(*this);
  const BusLoop::WatchId id = loop_.watch(fd, events, std::move(callback));
  return ScopedHandle([loop = &loop_, id] { loop->unwatch(id); });
}

ScopedHandle LoopPort::match(const std::string& rule,
                             std::function<void(sdbus::Message&)> handler) {
  QLT_ASSERT_BUS_THREAD(*this);
  sdbus::IConnection* connection = loop_.connection();
  if (!connection) return {};
  auto slot = std::make_shared<sdbus::Slot>(connection->addMatch(rule, std::move(handler)));
  return ScopedHandle([slot] { slot->reset(); });
}

}  // namespace qlt::bluez
