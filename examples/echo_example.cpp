// Scan for a device called "QLT-Echo", connect to it, send a message over the sliding
// window and print what comes back. Every callback arrives on the application's own
// queue; the main thread only waits.
//
// This is the callback API, for full control; qlt::UartLink (README) does the same in a
// dozen lines. On the simulated radio (the default where no bluetoothd has an adapter, or
// with QLT_PLATFORM=sim) "QLT-Echo" is always there; on a machine with Bluetooth it looks for
// a real device of that name that echoes over the UART service.
#include <QueltLibrary/QueltLibrary.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

class EchoClient : public qlt::QLT_BLEManagerDidChangedState,
                   public qlt::QLT_BLEManagerDidDiscoveredPeripheral,
                   public qlt::QLT_PeripheralDidChangeState,
                   public qlt::QLT_PeripheralDidReceivedTCPData,
                   public std::enable_shared_from_this<EchoClient> {
 public:
  explicit EchoClient(std::string message) : message_(std::move(message)) {}

  void start() {
    manager_->addDelegate(shared_from_this(), queue_);
    // addDelegate takes effect on the manager's own queue. Looking at the state there, after
    // it, means a power-on is either seen now or announced to us later: never missed.
    manager_->moduleQueue()->async([self = shared_from_this()] {
      if (self->manager_->state() != qlt::QLT_BLEManagerStateIdle) return;
      self->queue_->async([self] { self->scan(); });
    });
  }

  // Blocks until the echo is complete, the device went away, or `seconds` have passed.
  bool wait(int seconds) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(seconds), [&] { return done_; }) && echoed_;
  }

  void manager_didChangedState(const std::shared_ptr<qlt::QLT_BLEManager>&,
                               int32_t state) override {
    std::printf("manager: %s\n", qlt::QLT_BLEManager::convertStateToNSString(state).c_str());
    if (state == qlt::QLT_BLEManagerStateIdle && !peripheral_) scan();
  }

  void manager_didDiscoveredPeripheral(
      const std::shared_ptr<qlt::QLT_BLEManager>& manager,
      const std::shared_ptr<qlt::QLT_Peripheral>& peripheral) override {
    if (peripheral_) return;  // advertisements keep coming until the scan stops
    peripheral_ = peripheral;
    std::printf("found %s (RSSI %d)\n", peripheral->name().value_or("?").c_str(),
                peripheral->RSSI());
    manager->stopDiscover();
    peripheral->setTransportType(1);  // the sliding window
    peripheral->addDelegate(shared_from_this(), queue_);
    manager->connect(peripheral);
  }

  void QLT_Peripheral_didChangeState(const std::shared_ptr<qlt::QLT_Peripheral>& peripheral,
                                     int32_t state) override {
    std::printf("peripheral: %s\n", qlt::QLT_Peripheral::convertStateToNSString(state).c_str());
    if (state == qlt::QLT_PeripheralStateReady) {
      peripheral->writeTCPData(qlt::Data::fromString(message_));
    } else if (state == qlt::QLT_PeripheralStateDisconnected ||
               state == qlt::QLT_PeripheralStateFailedToConnect ||
               state == qlt::QLT_PeripheralStateDfuInProgress) {
      finish();
    }
  }

  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<qlt::QLT_Peripheral>& peripheral,
                                         const qlt::Data& data) override {
    received_ += data.toString();  // payloads arrive one segment at a time
    if (received_.size() >= message_.size()) {
      std::printf("echoed: %s\n", received_.c_str());
      {
        std::lock_guard lock(mutex_);
        echoed_ = received_ == message_;
      }
      manager_->disconnect(peripheral);
    }
  }

 private:
  void scan() {
    if (scanStarted_) return;  // both the look at the state and the announcement may ask
    scanStarted_ = true;
    std::printf("scanning\n");
    manager_->startDiscover(
        [](const std::shared_ptr<qlt::platform::Peripheral>&,
           const std::optional<std::string>& localName, const qlt::platform::AdvertisementData&,
           int rssi) { return localName == std::string("QLT-Echo") && rssi > -100; });
  }
  void finish() {
    std::lock_guard lock(mutex_);
    done_ = true;
    cv_.notify_all();
  }

  const std::string message_;
  const std::shared_ptr<qlt::QLT_BLEManager> manager_ = qlt::QLT_BLEManager::sharedInstance();
  const std::shared_ptr<qlt::DispatchQueue> queue_ = qlt::DispatchQueue::create("example");
  std::shared_ptr<qlt::QLT_Peripheral> peripheral_;  // on queue_ only
  std::string received_;                             // on queue_ only
  bool scanStarted_ = false;                         // on queue_ only
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;    // guarded by mutex_
  bool echoed_ = false;  // guarded by mutex_
};

}  // namespace

int main() {
  qlt::setLogSink([](std::string_view) {});  // keep the output to what the example prints
  auto client = std::make_shared<EchoClient>(
      "Hello from QueltLibrary! This message is longer than one 120-byte segment, so it "
      "travels as several segments through the sliding window and comes back in order.");
  client->start();
  const bool ok = client->wait(30);
  std::printf("%s\n", ok ? "done" : "the echo did not complete");
  return ok ? 0 : 1;
}
