#include "platform/bluez/BluezLink.h"

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezProperties.h"

namespace qlt::bluez {

using platform::Error;
using platform::ErrorReason;

const char* toString(LinkPhase phase) {
  switch (phase) {
    case LinkPhase::Idle:
      return "idle";
    case LinkPhase::Connecting:
      return "connecting";
    case LinkPhase::Connected:
      return "connected";
    case LinkPhase::Disconnecting:
      return "disconnecting";
  }
  return "?";
}

Link::Link(BusPort& port, LinkListener& listener, const Address& address, LinkTimings timings)
    : port_(port), listener_(listener), address_(address), timings_(timings) {}

bool Link::usable(uint64_t generation) const {
  return phase_ == LinkPhase::Connected && generation_ == generation && !path_.empty();
}

void Link::connect(uint64_t generation, bool reportedConnected) {
  QLT_ASSERT_BUS_THREAD(port_);
  const std::string name = addressString(address_);
  if (phase_ == LinkPhase::Connecting || phase_ == LinkPhase::Connected) {
    QLTLog("BlueZ: connect to %s ignored: already %s", name, toString(phase_));
    return;
  }
  if (path_.empty()) {
    QLTLog("BlueZ: cannot connect to %s: bluetoothd does not list it", name);
    listener_.linkEnded(address_, LinkPhase::Connecting,
                        backendError(ErrorReason::DeviceRemoved,
                                     "the device is not known to bluetoothd; scan for it first"));
    return;
  }
  if (phase_ == LinkPhase::Disconnecting) {
    // The earlier link's end is still to come; it must not be mistaken for this one's.
    QLTLog("BlueZ: %s: connecting again before the last disconnection completed", name);
  }
  connectCall_.reset();
  phase_ = LinkPhase::Connecting;
  generation_ = generation;
  connectReplied_ = false;
  startedAfresh_ = false;
  QLTLog("BlueZ: connecting to %s (attempt %llu)", name,
         static_cast<unsigned long long>(generation));
  timer_ = port_.runAfter(timings_.connectTimeout, [this, generation, name] {
    timer_.release();
    if (!current(generation, LinkPhase::Connecting)) return;
    QLTLog("BlueZ: connection to %s timed out after %lld ms; cancelling with Disconnect", name,
           static_cast<long long>(timings_.connectTimeout.count()));
    sendDisconnect("after a connection time-out");
    end(backendError(ErrorReason::TimedOut, "the connection timed out"));
  });
  if (reportedConnected) {
    startAfresh("bluetoothd reports it connected already");
  } else {
    sendConnect();
  }
}

void Link::startAfresh(const char* why) {
  QLTLog(
      "BlueZ: %s: %s (a link left up by an earlier session); disconnecting it and connecting "
      "again, so that both ends start afresh",
      addressString(address_), why);
  startedAfresh_ = true;
  const uint64_t generation = generation_;
  port_.call(
      path_, kDeviceInterface, "Disconnect", {}, timings_.callTimeout,
      [this, alive = std::weak_ptr<int>(alive_), generation](sdbus::MethodReply*,
                                                             const Error* error) {
        if (alive.expired()) return;
        connectCall_.release();
        if (!current(generation, LinkPhase::Connecting)) return;
        if (error) {
          QLTLog("BlueZ: Disconnect of %s failed: %s; connecting anyway", addressString(address_),
                 error->description());
        }
        sendConnect();
      },
      &connectCall_);
}

void Link::sendConnect() {
  const uint64_t generation = generation_;
  port_.call(
      path_, kDeviceInterface, "Connect", {}, timings_.connectTimeout + std::chrono::seconds(5),
      [this, alive = std::weak_ptr<int>(alive_), generation](sdbus::MethodReply*,
                                                             const Error* error) {
        if (alive.expired()) return;
        connectCall_.release();
        if (!current(generation, LinkPhase::Connecting)) return;
        if (error && error->domain == "org.bluez.Error.AlreadyConnected") {
          if (!startedAfresh_) {
            startAfresh("Connect answered AlreadyConnected");
            return;
          }
          QLTLog("BlueZ: %s is still connected after being disconnected; giving up",
                 addressString(address_));
        }
        if (error) {
          QLTLog("BlueZ: Connect to %s failed: %s", addressString(address_), error->description());
          end(*error);
          return;
        }
        connectReplied_ = true;
        checkReady();
      },
      &connectCall_);
}

void Link::checkReady() {
  QLT_ASSERT_BUS_THREAD(port_);
  if (phase_ != LinkPhase::Connecting || !connectReplied_) return;
  if (!listener_.servicesResolved(address_)) return;
  phase_ = LinkPhase::Connected;
  timer_.reset();
  QLTLog("BlueZ: connected to %s, services resolved", addressString(address_));
  listener_.linkUp(address_);
}

void Link::connectedLost() {
  QLT_ASSERT_BUS_THREAD(port_);
  const std::string name = addressString(address_);
  switch (phase_) {
    case LinkPhase::Connected:
      QLTLog("BlueZ: %s: link lost", name);
      end(backendError(ErrorReason::LinkLost, "the link was lost"));
      break;
    case LinkPhase::Disconnecting:
      end(std::nullopt);
      break;
    case LinkPhase::Connecting:
      if (connectReplied_) {
        QLTLog("BlueZ: %s: link lost while resolving services", name);
        end(backendError(ErrorReason::LinkLost, "the link was lost while resolving services"));
      } else {
        // The tail of an earlier link: the pending call tells how this one goes.
        QLTLog("BlueZ: %s: Connected=false from an earlier link ignored while connecting", name);
      }
      break;
    case LinkPhase::Idle:
      break;
  }
}

void Link::cancel() {
  QLT_ASSERT_BUS_THREAD(port_);
  switch (phase_) {
    case LinkPhase::Idle:
      // Nothing to cancel; confirm, so that whoever waits for the disconnection gets it.
      listener_.linkEnded(address_, LinkPhase::Idle, std::nullopt);
      return;
    case LinkPhase::Disconnecting:
      return;
    case LinkPhase::Connecting:
      connectCall_.reset();
      sendDisconnect("to cancel a pending connection");
      phase_ = LinkPhase::Disconnecting;  // reported as a disconnection, not a failure
      end(std::nullopt);
      return;
    case LinkPhase::Connected: {
      phase_ = LinkPhase::Disconnecting;
      const uint64_t generation = generation_;
      port_.call(path_, kDeviceInterface, "Disconnect", {}, timings_.callTimeout,
                 [this, alive = std::weak_ptr<int>(alive_), generation](sdbus::MethodReply*,
                                                                        const Error* error) {
                   if (alive.expired() || !current(generation, LinkPhase::Disconnecting)) return;
                   if (error) {
                     QLTLog("BlueZ: Disconnect of %s failed: %s", addressString(address_),
                            error->description());
                   }
                   end(error ? std::optional<Error>(*error) : std::nullopt);
                 });
      return;
    }
  }
}

void Link::sendDisconnect(const char* why) {
  if (path_.empty()) return;
  port_.call(path_, kDeviceInterface, "Disconnect", {}, timings_.callTimeout,
             [path = path_, why](sdbus::MethodReply*, const Error* error) {
               if (error) {
                 QLTLog("BlueZ: Disconnect of %s %s failed: %s", path, why, error->description());
               }
             });
}

void Link::end(const std::optional<Error>& error) {
  QLT_ASSERT_BUS_THREAD(port_);
  const LinkPhase was = phase_;
  if (was == LinkPhase::Idle) return;
  phase_ = LinkPhase::Idle;
  timer_.reset();
  connectCall_.reset();
  connectReplied_ = false;
  listener_.linkEnded(address_, was, error);
}

}  // namespace qlt::bluez
