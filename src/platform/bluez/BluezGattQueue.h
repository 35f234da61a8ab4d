// GattQueue: the writes of every link on their way to bluetoothd by WriteValue, on the bus
// thread.
//
// - Writes with response: one in flight per device, the rest wait in order (bluetoothd
//   refuses a second with InProgress); each one's outcome goes to its `done`. At most
//   kMaxRequestsWaiting wait per device: one more fails at once (its `done`, posted, gets a
//   `qlt.bluez` error "too many writes with response waiting"); none is dropped silently.
// - Writes without response ("command"): pipelined. A bus connection may wait for a limited
//   number of replies (128 on a default dbus-daemon; beyond it calls fail at once), so at
//   most kMaxCommandsInFlight are in flight for all devices together; the others wait in
//   order on their device, and the devices take turns as replies come back. A call dropped
//   unanswered (its proxy released at the end of a link) gives its place back too.
//   Per device at most kMaxCommandsPerDevice are in flight and waiting together; a write
//   beyond that is dropped, as a full socket drops one: counted (commandsDropped) and logged
//   at most once a second. The sender above keeps what it has not seen acknowledged and
//   sends it again, so a slow link is absorbed by its window, not by a queue of stale
//   frames here.
//
// clear() forgets a device's queue when its link ends: waiting writes are dropped and the
// replies still due are ignored (no `done` for them).
//
// Thread safety: bus thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/platform/Platform.h"
#include "core/LogRateLimiter.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

class GattQueue {
 public:
  static constexpr size_t kMaxCommandsInFlight = 48;
  // Room for a burst an application may write at once (a sliding window has 3 segments
  // and a control frame out per round trip), not for seconds of stale frames.
  static constexpr size_t kMaxCommandsPerDevice = 64;
  static constexpr size_t kMaxRequestsWaiting = 32;
  using Done = std::function<void(const std::optional<platform::Error>& failure)>;

  GattQueue(BusPort& port, std::chrono::milliseconds callTimeout)
      : port_(port), callTimeout_(callTimeout) {}
  GattQueue(const GattQueue&) = delete;
  GattQueue& operator=(const GattQueue&) = delete;

  void request(const Address& device, const std::string& path, Data data, Done done);
  void command(const Address& device, const std::string& path, Data data);
  void clear(const Address& device);
  // Counts and logs (rate-limited) a write without response to `path` that is not sent:
  // `why` says what was full. Used by every path of such writes (this queue, the sockets).
  void dropCommand(const std::string& path, const char* why);
  // Writes without response dropped so far, on every path.
  uint64_t commandsDropped() const { return commandsDropped_; }

  // The WriteValue call, with its `type` option always set.
  static void writeValue(BusPort& port, const std::string& path, const Data& data,
                         platform::WriteType type, std::chrono::milliseconds timeout,
                         BusPort::Reply done);

 private:
  struct Write {
    std::string path;
    Data data;
    Done done;
  };
  struct Queue {
    uint64_t epoch = 0;  // new for every link's queue: replies of an earlier one are ignored
    std::deque<Write> requests;
    bool requestInFlight = false;
    std::deque<Write> commands;
    // Its commands in flight; shared with their reply tickets.
    std::shared_ptr<size_t> commandsInFlight = std::make_shared<size_t>(0);
  };
  Queue& queueOf(const Address& device);
  void pumpRequests(const Address& device);
  void pumpCommands();

  BusPort& port_;
  const std::chrono::milliseconds callTimeout_;
  std::map<Address, Queue> queues_;
  uint64_t nextEpoch_ = 1;
  std::set<Address> withCommands_;  // devices whose commands wait, in turn order
  Address lastTurn_{};              // the device whose command went out last
  // Shared with the calls' reply tickets, which may outlive this queue.
  std::shared_ptr<size_t> commandsInFlight_ = std::make_shared<size_t>(0);
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  uint64_t commandsDropped_ = 0;
  LogRateLimiter dropLog_;
};

}  // namespace qlt::bluez
