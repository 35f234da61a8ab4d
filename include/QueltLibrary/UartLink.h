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
// connecting, connected (the transport is up: send() and read() work), reconnecting (the
// link dropped and Options::reconnect brings it back), lost (the link dropped and is not
// coming back; lastError() says why). connect() may be called again from disconnected or
// lost.
//
// Errors are explicit: connect() throws when no device answering to the name is seen
// within the timeout ("no device named QLT-Echo within 5 s"), when connecting fails, or when
// the device cannot carry the transport; send() and read() throw when the link is lost or
// was never up. Data received before the link dropped is still handed out first.
//
// Sending is bounded. The bytes the transport holds (queued, or sent and not yet
// acknowledged; with the chunker, not yet written) never exceed Options::sendBuffer:
// send() waits while the buffer is full, trySend() takes what fits, flush() waits until the
// device has acknowledged everything (over the chunker: until every chunk is written), and
// unacknowledged() says how much is still out. A process that streams any amount through
// send() holds the buffer plus a small constant, not the stream.
//
// A dropped link, with the extended window and reconnection (both on: the session). The
// window keeps a session with the device: the bytes the transport still held when the link
// dropped (unacknowledged() at that moment) are kept, not discarded, and the next link to
// the same device resumes the stream where the device has it: nothing lost, nothing twice,
// across any number of drops (counters().sessionsResumed). A send() or flush() waiting at
// the drop waits on through reconnecting; calls made while reconnecting wait for the link
// to come back (trySend() takes nothing); unacknowledged() still counts the bytes held.
// When the device cannot resume (it restarted, another device answered to the name, or the
// link stayed down past the session's hold time, 30 s), a new session begins: the bytes
// sent and never acknowledged are in doubt (they may or may not have arrived) and dropped,
// the ones never sent go on. That is never silent: counters().sessionsLost and
// bytesInDoubt count it, lastError() names it ("a new session began with QLT-Echo (...):
// 480 bytes sent were never acknowledged and may or may not have arrived") until the next
// drop, onStateChange hears it (connected, or reconnecting, with that text), and a send() or
// flush() waiting at that moment throws Error(LinkLost). Giving up reconnecting drops what
// the session held (counted in bytesInDoubt).
//
// A dropped link otherwise (the classic window only, the chunker, or no reconnection). Bytes
// the transport still held when the link dropped are discarded, never sent again on a new
// link: the receiving side has an unknown part of them. They are counted
// (counters().bytesDiscarded), named in lastError() ("the link to QLT-Echo was lost with
// 480 bytes unacknowledged; they were discarded"), and a send() or flush() waiting at that
// moment throws Error(LinkLost). Calls made after the drop see the new state: while
// reconnecting, send() and flush() wait for the link to come back, trySend() takes nothing;
// once lost, they throw. (With the extended window offered to a device that answered in
// the classic format, the bytes in flight at a drop come back as bytes in doubt, the ones
// never sent go on.)
//
// Reconnection (Options::reconnect, off by default). When a connected link drops, the link
// goes to reconnecting and, after reconnect.firstDelay, looks for the device again (a
// scan), connects, discovers the UART service, enables notifications and takes up the
// session's transport again (or starts a fresh one), each try within Options::timeout;
// onStateChange sees reconnecting, then connected. A try that fails doubles the delay before the
// next, up to reconnect.maxDelay; after reconnect.maxTries failed tries in a row (0: no limit) the
// link is lost with lastError() "gave up reconnecting to D after N tries: <why the last one
// failed>". disconnect() ends reconnecting too. While reconnecting, lastError() holds the drop's
// reason; every drop is counted (counters().drops) and every success too (reconnects).
//
// Event loops. fd() is a file descriptor (an eventfd) that is readable while something
// waits for the application: received bytes for read() (not with onReceive), a change of
// state not yet seen through state(), or room in the send buffer after a trySend() that
// took less than it was given. Put it in poll/epoll/asio/Qt/GLib; when it is readable, call
// state(), read(0ms) and trySend() again: they clear what they consumed. Never read or
// close it yourself; it lives as long as the link.
//
// Adapters (BlueZ). Options::adapter, else the environment variable QLT_ADAPTER, names the
// adapter by name ("hci1") or address; without either, the first powered adapter is used.
// One that bluetoothd does not have makes connect() throw Error(NoAdapter) naming those it
// has. The adapter is the manager's: links on one manager share it, and choosing one
// applies to every link of that manager.
//
// Thread safety: every member may be called from any thread, concurrently. Blocking calls
// (connect, waitUntilConnected, read, send, flush) return early when another thread calls
// disconnect(). Callbacks (onReceive, onStateChange) run one at a time on the link's own
// serial queue, never under its lock; they must not destroy the link, and should not wait
// in send() or flush() (every other callback of the link waits behind them). The
// destructor disconnects and waits (at most about two seconds) for the device to be told,
// so a process that exits right after does not leave the link behind.
//
// The manager's scan is shared: while a link searches it runs the manager's discovery
// without a filter and stops it once its device is found; an application's own scan on
// the same manager meanwhile sees the same advertisements.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt {

class QLT_BLEManager;

class QLT_EXPORT UartLink {
 public:
  enum class State { Disconnected, Connecting, Connected, Reconnecting, Lost };

  // What went wrong, for code that acts on it; what() says it in words.
  class Error : public std::runtime_error {
   public:
    // NoAdapter: the adapter asked for (Options::adapter, QLT_ADAPTER) is not there, or the
    // backend has no adapters to choose from.
    enum class Reason { NotFound, ConnectFailed, Unusable, LinkLost, NotConnected, NoAdapter };
    Error(Reason reason, const std::string& message)
        : std::runtime_error(message), reason_(reason) {}
    Reason reason() const { return reason_; }

   private:
    Reason reason_;
  };

  // How a dropped link comes back.
  struct ReconnectPolicy {
    bool enabled = false;
    std::chrono::milliseconds firstDelay{std::chrono::milliseconds(100)};  // before the first try
    std::chrono::milliseconds maxDelay{std::chrono::seconds(10)};  // the doubling stops here
    int maxTries = 0;  // failed tries in a row before the link is lost; 0: no limit
  };

  struct Options {
    // How long connect() (and each try to reconnect) looks for the device and connects.
    std::chrono::milliseconds timeout{std::chrono::seconds(5)};
    // The sliding window (ordered, acknowledged); false: the plain 20-byte chunker that
    // stock UART firmware speaks.
    bool slidingWindow = true;
    // The sliding window's extended ("wide") format: offered to the device at every connect
    // and used when the device takes it (segments as large as the link's MTU allows, a window
    // that fills the link's round trip, selective acknowledgement); a device that does not
    // answer is spoken to in the classic format after at most 0.3 s of waiting, while its
    // classic window already runs. false: the classic window only (nothing new on the air).
    bool extendedWindow = true;
    // The manager to use; null: QLT_BLEManager::sharedInstance().
    std::shared_ptr<QLT_BLEManager> manager;
    // Off by default: a dropped link is lost.
    ReconnectPolicy reconnect;
    // The most bytes the transport holds at once (at least 1).
    size_t sendBuffer = size_t{64} * 1024;
    // BlueZ: the adapter by name ("hci1") or address; "": QLT_ADAPTER, else the first powered.
    std::string adapter;
  };

  // What happened to the link over its life.
  struct Counters {
    uint64_t drops = 0;           // connected links that dropped
    uint64_t reconnects = 0;      // links brought back by reconnection
    uint64_t bytesDiscarded = 0;  // unacknowledged at a drop, never sent again (no session)
    // The extended window's session across drops (see "A dropped link").
    uint64_t sessionsResumed = 0;  // links that went on with the stream where it stood
    uint64_t sessionsLost = 0;     // links that began a new session instead
    uint64_t bytesInDoubt = 0;     // sent in a lost session and never acknowledged
  };

  UartLink();
  // Throws std::invalid_argument for a sendBuffer of 0.
  explicit UartLink(Options options);
  ~UartLink();
  UartLink(const UartLink&) = delete;
  UartLink& operator=(const UartLink&) = delete;

  // Finds `device` (as QLT_Peripheral::answersTo reads it: its exact name, or its identifier
  // or address in any case) and connects, within the options' timeout. Throws Error;
  // UartLink::Error::Reason::NotFound when no such device was seen. Throws NotConnected when
  // already connecting, connected or reconnecting.
  void connect(std::string_view device);
  // The same in two steps: startConnect returns at once; waitUntilConnected blocks until
  // the attempt has succeeded (returns) or failed (throws, as connect does). While
  // reconnecting it waits until the link is back (returns) or lost (throws LinkLost).
  void startConnect(std::string_view device);
  void waitUntilConnected();

  // Hands every byte to the transport, waiting while the send buffer is full. Throws Error
  // (NotConnected or LinkLost) unless connected or reconnecting; while reconnecting it waits
  // for the link first. A drop while it waits throws LinkLost; the part handed over before
  // is then among the bytes discarded (with the session kept: only a lost session throws).
  void send(const Data& bytes);
  void send(std::string_view text) { send(Data::fromString(text)); }
  // The same, waiting at most `timeout` in all: returns how many bytes (a leading part)
  // were handed over; fewer than given when the time ran out.
  size_t send(const Data& bytes, std::chrono::milliseconds timeout);
  // Takes what fits in the send buffer now, without waiting, and returns the count (0 when
  // full or reconnecting). Throws as send() does when disconnected or lost.
  size_t trySend(const Data& bytes);
  // Waits until every byte handed over has been acknowledged by the device (over the
  // chunker: written), at most `timeout`: true when done, false when the time ran out.
  // Throws LinkLost when the link drops with bytes unacknowledged (with the session kept:
  // when a session is lost with bytes in doubt), and as send() does.
  bool flush(std::chrono::milliseconds timeout);
  // The bytes the transport still holds: queued or sent and not yet acknowledged (over the
  // chunker: not yet written). 0 when not connected, except while reconnecting with the
  // session kept: then the bytes it holds for the next link.
  uint64_t unacknowledged() const;

  // Waits up to `timeout` for received bytes and returns all that have arrived (at least
  // one byte), or an empty Data when none came in time. Throws Error once the link is
  // lost or disconnected and nothing received is left (not while reconnecting).
  Data read(std::chrono::milliseconds timeout);
  // Received bytes go to `callback` (on the link's queue) instead of read(); an empty
  // function hands them to read() again.
  void onReceive(std::function<void(const Data&)> callback);
  // Every change of state, with lastError() at the time (on the link's queue).
  void onStateChange(std::function<void(State, const std::string& error)> callback);

  State state() const;
  // Why the last attempt failed or the link was lost (while reconnecting: why it dropped);
  // "" while nothing went wrong.
  std::string lastError() const;
  Counters counters() const;
  // The sliding window's counters on the connected link, with the format it negotiated
  // (counters().format: extended, or classic with a device that did not take the offer);
  // empty when not connected or over the chunker.
  std::optional<SlideWindowCounters> windowCounters() const;

  // The facts of the current link (ATT MTU, the largest write; interval, PHY and data
  // length where the backend knows them: unknown ones are empty). Throws Error
  // (NotConnected, LinkLost) unless connected.
  platform::LinkInfo linkInfo() const;

  // See "Event loops" above.
  int fd() const;

  // Ends the link (or the attempt, or reconnecting) from any thread; waiting calls return
  // or throw.
  void disconnect();

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

QLT_EXPORT const char* toString(UartLink::State state);

}  // namespace qlt
