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
  Queue& queue = queueOf(device);
  if (queue.requests.size() >= kMaxRequestsWaiting) {
    const std::string why = "too many writes with response waiting (" +
                            std::to_string(kMaxRequestsWaiting) + "); not sent";
    QLTLog("BlueZ: write request of %zu bytes to %s failed: %s", data.size(), path, why);
    if (done) {
      port_.post([done = std::move(done), why] {
        done(backendError(platform::ErrorReason::Refused, why));
      });
    }
    return;
  }
  queue.requests.push_back(Write{path, std::move(data), std::move(done)});
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
  if (*queue.commandsInFlight + queue.commands.size() >= kMaxCommandsPerDevice) {
    dropCommand(path, "its device has the most WriteValue calls out and waiting");
    return;
  }
  queue.commands.push_back(Write{path, std::move(data), {}});
  withCommands_.insert(device);
  pumpCommands();
}

void GattQueue::dropCommand(const std::string& path, const char* why) {
  ++commandsDropped_;
  if (auto count = dropLog_.admit()) {
    QLTLog(
        "BlueZ: %llu write(s) without response dropped since the last such line (%llu in all), "
        "the last to %s: %s; the link is slower than the writer",
        static_cast<unsigned long long>(*count), static_cast<unsigned long long>(commandsDropped_),
        path, why);
  }
}

void GattQueue::pumpCommands() {
  // A ticket per write in flight: it gives its places back (of all devices, of its device)
  // when the reply has been handled or when the call is dropped unanswered.
  struct Ticket {
    Ticket(std::shared_ptr<size_t> all, std::shared_ptr<size_t> device, BusPort* p,
           std::function<void()> pump)
        : all(std::move(all)), device(std::move(device)), port(p), pump(std::move(pump)) {
      ++*this->all;
      ++*this->device;
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket() {
      --*all;
      --*device;
      port->post(pump);
    }
    std::shared_ptr<size_t> all, device;
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
    Queue& queue = queueOf(*turn);
    auto& commands = queue.commands;
    if (commands.empty()) {
      withCommands_.erase(turn);
      continue;
    }
    lastTurn_ = *turn;
    Write write = std::move(commands.front());
    commands.pop_front();
    auto ticket = std::make_shared<Ticket>(commandsInFlight_, queue.commandsInFlight, &port_, pump);
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
