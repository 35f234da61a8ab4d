// UartLink: one connection to one UART device, for the common case: find it by name,
// identifier or address, connect, send bytes, receive them, disconnect.
//
//   qlt::UartLink link;
//   link.connect("QLT-Echo");                       // throws UartLink::Error on failure
//   link.send("hello");
//   qlt::Data echo = link.read(std::chrono::seconds(5));
//
// It is built on QLT_BLEManager and QLT_Peripheral (which stay available for full control)
// and owns what they ask of an application: the delegates and the queue they run on, the
// scan, the peripheral (kept alive while the link is wanted), the transport type.
//
// States: disconnected (before connect, after disconnect() or a failed attempt),
// connecting, connected (the transport is up: send() and read() work), lost (the link
// dropped; lastError() says so). connect() may be called again from disconnected or lost.
//
// Errors are explicit: connect() throws when no device answering to the name is seen
// within the timeout ("no device named QLT-Echo within 5 s"), when connecting fails, or when
// the device cannot carry the transport; send() and read() throw when the link is lost or
// was never up. Data received before the link dropped is still handed out first.
//
// Thread safety: every member may be called from any thread, concurrently. Blocking calls
// (connect, waitUntilConnected, read) return early when another thread calls disconnect().
// Callbacks (onReceive, onStateChange) run one at a time on the link's own serial queue,
// never under its lock; they must not destroy the link. The destructor disconnects and
// waits (at most about two seconds) for the device to be told, so a process that exits
// right after does not leave the link behind.
//
// The manager's scan is shared: while a link searches it runs the manager's discovery
// without a filter and stops it once its device is found; an application's own scan on
// the same manager meanwhile sees the same advertisements.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_BLEManager;

class QLT_EXPORT UartLink {
 public:
  enum class State { Disconnected, Connecting, Connected, Lost };

  // What went wrong, for code that acts on it; what() says it in words.
  class Error : public std::runtime_error {
   public:
    enum class Reason { NotFound, ConnectFailed, Unusable, LinkLost, NotConnected };
    Error(Reason reason, const std::string& message)
        : std::runtime_error(message), reason_(reason) {}
    Reason reason() const { return reason_; }

   private:
    Reason reason_;
  };

  struct Options {
    // How long connect() looks for the device and connects to it.
    std::chrono::milliseconds timeout{std::chrono::seconds(5)};
    // The sliding window (ordered, acknowledged); false: the plain 20-byte chunker that
    // stock UART firmware speaks.
    bool slidingWindow = true;
    // The manager to use; null: QLT_BLEManager::sharedInstance().
    std::shared_ptr<QLT_BLEManager> manager;
  };

  UartLink();
  explicit UartLink(Options options);
  ~UartLink();
  UartLink(const UartLink&) = delete;
  UartLink& operator=(const UartLink&) = delete;

  // Finds `device` (as QLT_Peripheral::answersTo reads it: its exact name, or its identifier
  // or address in any case) and connects, within the options' timeout. Throws Error;
  // UartLink::Error::Reason::NotFound when no such device was seen. Throws NotConnected when
  // already connecting or connected.
  void connect(std::string_view device);
  // The same in two steps: startConnect returns at once; waitUntilConnected blocks until
  // the attempt has succeeded (returns) or failed (throws, as connect does).
  void startConnect(std::string_view device);
  void waitUntilConnected();

  // Queues bytes for the device. Throws Error (NotConnected or LinkLost) unless connected.
  void send(const Data& bytes);
  void send(std::string_view text) { send(Data::fromString(text)); }

  // Waits up to `timeout` for received bytes and returns all that have arrived (at least
  // one byte), or an empty Data when none came in time. Throws Error once the link is
  // lost or disconnected and nothing received is left.
  Data read(std::chrono::milliseconds timeout);
  // Received bytes go to `callback` (on the link's queue) instead of read(); an empty
  // function hands them to read() again.
  void onReceive(std::function<void(const Data&)> callback);
  // Every change of state, with lastError() at the time (on the link's queue).
  void onStateChange(std::function<void(State, const std::string& error)> callback);

  State state() const;
  // Why the last attempt failed or the link was lost; "" while nothing went wrong.
  std::string lastError() const;

  // Ends the link (or the attempt) from any thread; waiting calls return or throw.
  void disconnect();

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

QLT_EXPORT const char* toString(UartLink::State state);

}  // namespace qlt
