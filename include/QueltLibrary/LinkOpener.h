// LinkOpener: the way from a device's name to a ready peripheral, written once for UartLink
// and for applications (and tools) that drive QLT_Peripheral themselves.
//
// It finds the device (as QLT_Peripheral::answersTo reads a name, identifier or address)
// by scanning with the manager (again whenever the manager comes back to idle: powered on,
// or another scan ended), stops the scan once it is found, connects, and follows the
// peripheral's states until it is ready and can carry the transport (no linkProblem()), or
// until it fails, within one time-out. It reports once, with the reason as a type and the
// facts behind it; wording the message is the caller's.
//
//   auto opener = LinkOpener::start(request, queue, [](const LinkOpener::Result& r) { ... });
//
// A request names the device (a search), or hands a peripheral already found (no search);
// `connect` false stops at the search. Before connecting, onFound(peripheral) runs on the
// queue: the place to choose the transport type and to add the caller's own delegates, so
// that they see every state from the connection's first. An attempt that fails after
// connecting leaves the peripheral disconnected (it asks the manager to disconnect unless
// the link is down already).
//
// Threads: the opener is the manager's and the peripheral's delegate on `queue`; onFound and
// done run there, or done runs on the thread that calls expire(). done runs at most once
// (never for an attempt cancelled), never under the opener's lock; a Ready result is
// reported from within the callback of the ready state, so a delegate the caller added in
// onFound on the same queue sees every later state after done has run. Every member may be
// called from any thread; destroying the opener cancels what is still under way (also
// from inside done: it has ended by then). It lets go of its delegates when it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Peripheral.h"

namespace qlt {

class QLT_BLEManager;
class DispatchQueue;

class QLT_EXPORT LinkOpener {
 public:
  enum class Outcome {
    Ready,          // connected, services discovered, notifications on, transport built
    Found,          // the search found the device (a request with connect false)
    NotFound,       // no device answering to the name was seen in time
    TimedOut,       // found, but not ready in time (lastState says how far it got)
    ConnectFailed,  // the platform refused or failed the connection (problem says why)
    Dropped,        // the link went down before it was ready
    NoUartService,  // connected, but the device offers no UART service
    Unusable,       // ready, but it cannot carry the transport (problemKind, problem)
  };

  struct Request {
    std::shared_ptr<QLT_BLEManager> manager;  // null: QLT_BLEManager::sharedInstance()
    std::string device;                       // looked for when no peripheral is given
    std::shared_ptr<QLT_Peripheral> peripheral;
    bool connect = true;                                         // false: only find it
    std::chrono::milliseconds timeout{std::chrono::seconds(5)};  // for all of it
    std::function<void(const std::shared_ptr<QLT_Peripheral>&)> onFound;
  };

  struct Result {
    Outcome outcome = Outcome::NotFound;
    std::shared_ptr<QLT_Peripheral> peripheral;           // null when none was found
    int32_t lastState = -1;                               // the last state seen after connecting
    QLT_LinkProblem problemKind = QLT_LinkProblem::None;  // linkProblemKind() at the end
    std::string problem;                                  // linkProblem() at the end
    bool bluetoothOff = false;  // NotFound while the manager was unavailable
  };

  using Done = std::function<void(const Result&)>;

  // Starts at once (the search, or the connection); throws std::invalid_argument for a
  // request with neither device nor peripheral.
  static std::shared_ptr<LinkOpener> start(Request request, std::shared_ptr<DispatchQueue> queue,
                                           Done done);
  ~LinkOpener();
  LinkOpener(const LinkOpener&) = delete;
  LinkOpener& operator=(const LinkOpener&) = delete;

  // Ends the attempt without a report: stops the scan, disconnects what it connected.
  void cancel();
  // Ends it now as out of time (NotFound while searching, else TimedOut), as its own timer
  // would: for a waiter whose clock ran out before that timer fired on a busy machine.
  // Does nothing once it has ended.
  void expire();

 private:
  class Impl;
  explicit LinkOpener(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  std::shared_ptr<Impl> impl_;
};

}  // namespace qlt
