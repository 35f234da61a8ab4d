// Devices that speak the sliding window (sw-echo, source), driven by the library's own
// SWTransport on the central side, over a clean and a lossy air.
#include <gtest/gtest.h>

#include <vector>

#include "QueltLibrary/SWTransport.h"
#include "SimTestFixture.h"
#include "support/TestSupport.h"

namespace qlt::sim::test {
namespace {

// The central's side of a sliding-window link: writes the transport's frames to tx,
// feeds rx notifications to the transport, and collects what it delivers.
class Bridge final : public platform::PeripheralDelegate,
                     public TransportSenderDelegate,
                     public TransportDelegate,
                     public std::enable_shared_from_this<Bridge> {
 public:
  Bridge(std::shared_ptr<platform::Peripheral> peripheral, Nus nus)
      : peripheral_(std::move(peripheral)), nus_(std::move(nus)) {}

  void start(const std::shared_ptr<DispatchQueue>& queue) {
    transport_ = SWTransport::create();
    transport_->setSenderDelegate(shared_from_this());
    transport_->addDelegate(shared_from_this(), queue);
    peripheral_->setDelegate(shared_from_this());
    transport_->start();
  }
  ~Bridge() override {
    if (transport_) transport_->stop();
  }
  const std::shared_ptr<SWTransport>& transport() const { return transport_; }

  void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>& c,
      const std::optional<platform::Error>&) override {
    transport_->receive(c->value().value_or(Data()));
  }
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&,
                                  const Data& data) override {
    peripheral_->writeValue(data, nus_.tx, platform::WriteType::WithoutResponse);
  }
  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& data) override {
    std::lock_guard lock(mutex_);
    tcp_.insert(tcp_.end(), data.bytes(), data.bytes() + data.length());
    maxSegment_ = std::max(maxSegment_, data.length());
  }
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& data) override {
    std::lock_guard lock(mutex_);
    udp_.push_back(data);
  }

  std::vector<uint8_t> tcp() const {
    std::lock_guard lock(mutex_);
    return tcp_;
  }
  std::vector<Data> udp() const {
    std::lock_guard lock(mutex_);
    return udp_;
  }
  size_t maxSegment() const {
    std::lock_guard lock(mutex_);
    return maxSegment_;
  }

 private:
  const std::shared_ptr<platform::Peripheral> peripheral_;
  const Nus nus_;
  std::shared_ptr<SWTransport> transport_;
  mutable std::mutex mutex_;
  std::vector<uint8_t> tcp_;  // guarded by mutex_
  std::vector<Data> udp_;     // guarded by mutex_
  size_t maxSegment_ = 0;     // guarded by mutex_
};

std::vector<uint8_t> message(size_t length) {
  std::vector<uint8_t> bytes(length);
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>((i * 7 + i / 256) & 0xFF);
  return bytes;
}

class ASlidingWindowDevice : public ASimulatedRadio {
 protected:
  std::shared_ptr<Bridge> connect(const SimDeviceConfig& device) {
    radio->addDevice(device);
    start();
    auto p = retrieve(1);
    Nus nus = connectAndSubscribe(p);
    EXPECT_TRUE(nus.tx && nus.rx);
    auto bridge = std::make_shared<Bridge>(p, nus);
    bridge->start(DispatchQueue::create("app"));
    bridge_ = bridge;
    return bridge;
  }
  // Both engines stop with the link: the central's with its bridge, the device's when the
  // connection ends. No worker thread outlives a test.
  void TearDown() override {
    bridge_.reset();
    if (central) {
      central->cancelPeripheralConnection(retrieve(1));
      EXPECT_TRUE(::qlt::test::eventually([] { return workerThreads() == 0; }))
          << workerThreads() << " transport threads still running";
    }
    ASimulatedRadio::TearDown();
  }
  bool waitForTcp(const std::shared_ptr<Bridge>& bridge, size_t length,
                  std::chrono::milliseconds timeout = 20000ms) {
    return ::qlt::test::eventually([&] { return bridge->tcp().size() >= length; }, timeout);
  }

  std::shared_ptr<Bridge> bridge_;
};

TEST_F(ASlidingWindowDevice, EchoesAMessageCompleteAndInOrder) {
  auto bridge = connect(quickDevice(1, "Echo", SimBehaviour::SwEcho));
  const auto sent = message(10 * 1024);
  bridge->transport()->sendTCP(sent.data(), sent.size());
  ASSERT_TRUE(waitForTcp(bridge, sent.size()));
  EXPECT_EQ(bridge->tcp(), sent);
  EXPECT_LE(bridge->maxSegment(), SWTransport::kSegmentSize);
  auto stats = radio->stats(deviceId(1));
  EXPECT_EQ(stats.payloadBytesReceived, sent.size());
  EXPECT_EQ(stats.payloadBytesSent, sent.size());
}

TEST_F(ASlidingWindowDevice, EchoesADatagramAsADatagram) {
  auto bridge = connect(quickDevice(1, "Echo", SimBehaviour::SwEcho));
  const auto datagram = message(100);
  bridge->transport()->sendUDP(datagram.data(), datagram.size());
  ASSERT_TRUE(::qlt::test::eventually([&] { return !bridge->udp().empty(); }));
  EXPECT_EQ(bridge->udp()[0], Data(datagram.data(), datagram.size()));
  EXPECT_TRUE(bridge->tcp().empty());
}

TEST_F(ASlidingWindowDevice, EchoesEverythingExactlyOnceThroughALossyAir) {
  auto device = quickDevice(1, "Echo", SimBehaviour::SwEcho);
  AirFaults faults;
  faults.seed = 11;
  faults.lostWritesWithoutResponse = 0.05;
  faults.lostNotifications = 0.05;
  device.faults = faults;
  auto bridge = connect(device);
  const auto sent = message(3000);
  bridge->transport()->sendTCP(sent.data(), sent.size());
  ASSERT_TRUE(waitForTcp(bridge, sent.size(), 60000ms));
  std::this_thread::sleep_for(50ms);  // nothing more may come
  EXPECT_EQ(bridge->tcp(), sent);
  auto stats = radio->stats(deviceId(1));
  EXPECT_GT(stats.writesLost + stats.notificationsLost, 0u) << "the air did lose frames";
}

TEST_F(ASlidingWindowDevice, SourceSendsItsPatternOnceNotificationsAreOn) {
  auto device = quickDevice(1, "Source", SimBehaviour::Source);
  device.sourceBytes = 5000;
  auto bridge = connect(device);
  ASSERT_TRUE(waitForTcp(bridge, 5000));
  auto received = bridge->tcp();
  ASSERT_EQ(received.size(), 5000u);
  for (size_t i = 0; i < received.size(); ++i) {
    ASSERT_EQ(received[i], i % 251) << "at " << i;
  }
}

}  // namespace
}  // namespace qlt::sim::test
