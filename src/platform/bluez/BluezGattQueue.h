// GattQueue: the writes of every link on their way to bluetoothd by WriteValue, on the bus
// thread.
//
// - Writes with response: one in flight per device, the rest wait in order (bluetoothd
//   refuses a second with InProgress); each one's outcome goes to its `done`.
// - Writes without response ("command"): pipelined. A bus connection may wait for a limited
//   number of replies (128 on a default dbus-daemon; beyond it calls fail at once), so at
//   most kMaxCommandsInFlight are in flight for all devices together; the others wait in
//   order on their device, and the devices take turns as replies come back. A call dropped
//   unanswered (its proxy released at the end of a link) gives its place back too.
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
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

class GattQueue {
 public:
  static constexpr size_t kMaxCommandsInFlight = 48;
  using Done = std::function<void(const std::optional<platform::Error>& failure)>;

  GattQueue(BusPort& port, std::chrono::milliseconds callTimeout)
      : port_(port), callTimeout_(callTimeout) {}
  GattQueue(const GattQueue&) = delete;
  GattQueue& operator=(const GattQueue&) = delete;

  void request(const Address& device, const std::string& path, Data data, Done done);
  void command(const Address& device, const std::string& path, Data data);
  void clear(const Address& device);

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
};

}  // namespace qlt::bluez
