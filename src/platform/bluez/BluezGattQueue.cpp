#include "platform/bluez/BluezGattQueue.h"

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezProperties.h"

namespace qlt::bluez {

using platform::Error;

void GattQueue::writeValue(BusPort& port, const std::string& path, const Data& data,
                           platform::WriteType type, std::chrono::milliseconds timeout,
                           BusPort::Reply done) {
  const char* kind = type == platform::WriteType::WithResponse ? "request" : "command";
  port.call(
      path, kCharacteristicInterface, "WriteValue",
      [&](sdbus::MethodCall& m) {
        m << std::vector<uint8_t>(data.bytes(), data.bytes() + data.size())
          << std::map<std::string, sdbus::Variant>{{"type", sdbus::Variant(std::string(kind))}};
      },
      timeout, std::move(done));
}

GattQueue::Queue& GattQueue::queueOf(const Address& device) {
  auto [it, made] = queues_.try_emplace(device);
  if (made) it->second.epoch = nextEpoch_++;
  return it->second;
}

void GattQueue::clear(const Address& device) {
  QLT_ASSERT_BUS_THREAD(port_);
  queues_.erase(device);
  withCommands_.erase(device);
}

void GattQueue::request(const Address& device, const std::string& path, Data data, Done done) {
  QLT_ASSERT_BUS_THREAD(port_);
  queueOf(device).requests.push_back(Write{path, std::move(data), std::move(done)});
  pumpRequests(device);
}

void GattQueue::pumpRequests(const Address& device) {
  Queue& queue = queueOf(device);
  if (queue.requestInFlight || queue.requests.empty()) return;
  Write write = std::move(queue.requests.front());
  queue.requests.pop_front();
  queue.requestInFlight = true;
  writeValue(
      port_, write.path, write.data, platform::WriteType::WithResponse, callTimeout_,
      [this, alive = std::weak_ptr<int>(alive_), device, epoch = queue.epoch, path = write.path,
       done = std::move(write.done)](sdbus::MethodReply*, const Error* error) {
        if (alive.expired()) return;
        auto it = queues_.find(device);
        if (it == queues_.end() || it->second.epoch != epoch) return;
        it->second.requestInFlight = false;
        std::optional<Error> failure;
        if (error) {
          failure = *error;
          QLTLog("BlueZ: write request to %s failed: %s", path, error->description());
        }
        if (done) done(failure);
        pumpRequests(device);
      });
}

void GattQueue::command(const Address& device, const std::string& path, Data data) {
  QLT_ASSERT_BUS_THREAD(port_);
  Queue& queue = queueOf(device);
  queue.commands.push_back(Write{path, std::move(data), {}});
  withCommands_.insert(device);
  pumpCommands();
}

void GattQueue::pumpCommands() {
  // A ticket per write in flight: it gives its place back when the reply has been handled
  // or when the call is dropped unanswered.
  struct Ticket {
    Ticket(std::shared_ptr<size_t> c, BusPort* p, std::function<void()> pump)
        : counter(std::move(c)), port(p), pump(std::move(pump)) {
      ++*counter;
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket() {
      --*counter;
      port->post(pump);
    }
    std::shared_ptr<size_t> counter;
    BusPort* port;
    std::function<void()> pump;
  };
  auto pump = [this, alive = std::weak_ptr<int>(alive_)] {
    if (!alive.expired()) pumpCommands();
  };
  while (*commandsInFlight_ < kMaxCommandsInFlight && !withCommands_.empty()) {
    // The turn goes to the device after the one served last, round the set.
    auto turn = withCommands_.upper_bound(lastTurn_);
    if (turn == withCommands_.end()) turn = withCommands_.begin();
    auto& commands = queueOf(*turn).commands;
    if (commands.empty()) {
      withCommands_.erase(turn);
      continue;
    }
    lastTurn_ = *turn;
    Write write = std::move(commands.front());
    commands.pop_front();
    auto ticket = std::make_shared<Ticket>(commandsInFlight_, &port_, pump);
    writeValue(port_, write.path, write.data, platform::WriteType::WithoutResponse, callTimeout_,
               [path = write.path, size = write.data.size(), ticket](sdbus::MethodReply*,
                                                                     const Error* error) {
                 if (error) {
                   QLTLog("BlueZ: write without response of %zu bytes to %s failed: %s", size, path,
                          error->description());
                 }
               });
  }
}

}  // namespace qlt::bluez
