// Link: the state machine of one device's connection, on the bus thread.
//
//   Idle --connect--> Connecting --Connect ok + ServicesResolved--> Connected
//   Connecting --Connect error / time-out / link lost / cancel--> Idle (a failed attempt,
//     or a disconnection for a cancel)
//   Connected --cancel--> Disconnecting --Connected false / Disconnect reply--> Idle
//   Connected --Connected false / end() (device removed, power off, bluetoothd gone)--> Idle
//
// Both ends start every connection afresh: a device bluetoothd still reports connected
// when the application connects, or whose Connect is answered AlreadyConnected (a link an
// earlier session or a restarted daemon left up, whose peer still holds that session's
// protocol state), is disconnected and connected again, once per attempt, with a log line.
//
// Every attempt has a generation number (given by the owner, unique per central); replies
// and timers of an earlier attempt are recognised and ignored, so the tail of one
// connection never tears down the next. The connection time-out covers the whole attempt.
//
// Thread safety: bus thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QueltLibrary/platform/Platform.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

enum class LinkPhase { Idle, Connecting, Connected, Disconnecting };
const char* toString(LinkPhase phase);

class LinkListener {
 public:
  virtual ~LinkListener() = default;
  // Whether bluetoothd reports the device's services resolved (Device1.ServicesResolved).
  virtual bool servicesResolved(const Address& address) = 0;
  // Connect returned and the services are resolved.
  virtual void linkUp(const Address& address) = 0;
  // The link ended. `was` Connecting: the attempt failed (`error` says why); otherwise a
  // disconnection (without error when asked for; Idle for a cancel with nothing to end).
  virtual void linkEnded(const Address& address, LinkPhase was,
                         const std::optional<platform::Error>& error) = 0;
};

struct LinkTimings {
  std::chrono::milliseconds connectTimeout{20000};
  std::chrono::milliseconds callTimeout{10000};
};

class Link {
 public:
  Link(BusPort& port, LinkListener& listener, const Address& address, LinkTimings timings);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  const Address& address() const { return address_; }
  LinkPhase phase() const { return phase_; }
  uint64_t generation() const { return generation_; }
  // The Device1 object; empty while bluetoothd does not list the device.
  const std::string& path() const { return path_; }
  void setPath(std::string path) { path_ = std::move(path); }
  // Up, listed, and of this generation: operations on its objects may go ahead.
  bool usable(uint64_t generation) const;

  // Starts attempt `generation`; `reportedConnected` is Device1.Connected as mirrored now.
  void connect(uint64_t generation, bool reportedConnected);
  void cancel();
  // Device1.Connected turned false.
  void connectedLost();
  // Connected or ServicesResolved changed: the attempt may be complete.
  void checkReady();
  // Ends the link from outside (device removed, power off, bluetoothd gone).
  void end(const std::optional<platform::Error>& error);

 private:
  void sendConnect();
  // Disconnects the link left up, then connects.
  void startAfresh(const char* why);
  void sendDisconnect(const char* why);
  // Whether a reply or timer of attempt `generation` still concerns this link in `phase`.
  bool current(uint64_t generation, LinkPhase phase) const {
    return generation == generation_ && phase == phase_;
  }

  BusPort& port_;
  LinkListener& listener_;
  const Address address_;
  const LinkTimings timings_;
  std::string path_;
  LinkPhase phase_ = LinkPhase::Idle;
  uint64_t generation_ = 0;
  bool connectReplied_ = false;
  bool startedAfresh_ = false;  // this attempt disconnected a link left up already
  ScopedHandle timer_;
  ScopedHandle connectCall_;
  // Replies and timers hold it weakly: they do nothing once the link is gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace qlt::bluez
