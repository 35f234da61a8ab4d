// The simulated radio with no added delay: how fast it carries what the engines send; and
// on each named link profile, the share of the link's physical limit an echo reaches.
//   qlt_sim_radio --benchmark_filter=SwEcho
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "QueltLibrary/sim/SimRadio.h"

namespace qlt::sim {
namespace {

using platform::WriteType;

// A central on a private radio, connected to one device with notifications on.
class Link final : public platform::CentralDelegate,
                   public platform::PeripheralDelegate,
                   public TransportSenderDelegate,
                   public TransportDelegate,
                   public std::enable_shared_from_this<Link> {
 public:
  static std::shared_ptr<Link> open(SimBehaviour behaviour, const LinkParameters& air = {}) {
    auto link = std::make_shared<Link>();
    link->radio_ = SimRadio::create();
    link->radio_->setLink(air);
    SimDeviceConfig device;
    device.identifier = UUID::literal("0000BBBB-0000-4000-8000-000000000001");
    device.localName = "Bench";
    device.behaviour = behaviour;
    device.connectDelay = 0;
    device.mtu = air.mtu;
    link->radio_->addDevice(device);
    link->central_ = link->radio_->backend()->createCentral(link, link->queue_, {});
    link->waitFor([&] { return link->powered_; });
    link->peripheral_ =
        link->central_->retrievePeripheralsWithIdentifiers({device.identifier}).at(0);
    link->peripheral_->setDelegate(link);
    link->central_->connect(link->peripheral_);
    link->waitFor([&] { return link->subscribed_; });
    return link;
  }
  ~Link() override {
    if (transport_) transport_->stop();
  }

  void startTransport() {
    transport_ = SWTransport::create();
    transport_->setSenderDelegate(shared_from_this());
    transport_->addDelegate(shared_from_this(), DispatchQueue::create("bench.app"));
    transport_->start();
  }
  const std::shared_ptr<SWTransport>& transport() { return transport_; }
  void write(const Data& value) { peripheral_->writeValue(value, tx_, WriteType::WithoutResponse); }
  void resetCounts() {
    std::lock_guard lock(mutex_);
    tcpBytes_ = 0;
    notifications_ = 0;
  }
  void waitForTcp(size_t bytes) {
    waitFor([&] { return tcpBytes_ >= bytes; });
  }
  void waitForNotifications(size_t n) {
    waitFor([&] { return notifications_ >= n; });
  }

  // Central and peripheral callbacks, on the central's queue.
  void centralManagerDidUpdateState(platform::Central& c) override {
    signal([&] { powered_ = c.state() == platform::CentralState::PoweredOn; });
  }
  void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      platform::Central&, const std::shared_ptr<platform::Peripheral>&,
      const platform::AdvertisementData&, int) override {}
  void centralManager_didConnectPeripheral(
      platform::Central&, const std::shared_ptr<platform::Peripheral>& p) override {
    p->discoverServices(std::nullopt);
  }
  void centralManager_didFailToConnectPeripheral_error(
      platform::Central&, const std::shared_ptr<platform::Peripheral>&,
      const std::optional<platform::Error>&) override {}
  void centralManager_didDisconnectPeripheral_error(
      platform::Central&, const std::shared_ptr<platform::Peripheral>&,
      const std::optional<platform::Error>&) override {}
  void peripheral_didDiscoverServices(const std::shared_ptr<platform::Peripheral>& p,
                                      const std::optional<platform::Error>&) override {
    p->discoverCharacteristics(std::nullopt, p->services().at(0));
  }
  void peripheral_didDiscoverCharacteristicsForService_error(
      const std::shared_ptr<platform::Peripheral>& p, const std::shared_ptr<platform::Service>& s,
      const std::optional<platform::Error>&) override {
    for (const auto& c : s->characteristics()) {
      if (c->uuid() == QLT_UUID::txCharacteristicUUID()) tx_ = c;
      if (c->uuid() == QLT_UUID::rxCharacteristicUUID()) p->setNotifyValue(true, c);
    }
  }
  void peripheral_didUpdateNotificationStateForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>&,
      const std::optional<platform::Error>&) override {
    signal([&] { subscribed_ = true; });
  }
  void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>&,
      const std::shared_ptr<platform::Characteristic>& c,
      const std::optional<platform::Error>&) override {
    if (transport_) {
      transport_->receive(c->value().value_or(Data()));
    } else {
      signal([&] { ++notifications_; });
    }
  }
  // Transport callbacks.
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&,
                                  const Data& data) override {
    write(data);
  }
  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& data) override {
    signal([&] { tcpBytes_ += data.length(); });
  }
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>&, const Data&) override {}

 private:
  template <class F>
  void signal(F f) {
    {
      std::lock_guard lock(mutex_);
      f();
    }
    cv_.notify_all();
  }
  template <class F>
  void waitFor(F condition) {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, condition);
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::create("QLT_BLEManager");
  std::shared_ptr<SimRadio> radio_;
  std::shared_ptr<platform::Central> central_;
  std::shared_ptr<platform::Peripheral> peripheral_;
  std::shared_ptr<platform::Characteristic> tx_;
  std::shared_ptr<SWTransport> transport_;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool powered_ = false;      // guarded by mutex_
  bool subscribed_ = false;   // guarded by mutex_
  size_t tcpBytes_ = 0;       // guarded by mutex_
  size_t notifications_ = 0;  // guarded by mutex_
};

// One 20-byte write echoed as one notification (chunk-echo), one at a time.
void BM_ChunkEchoRoundTrip(benchmark::State& state) {
  auto link = Link::open(SimBehaviour::ChunkEcho);
  const Data value = Data::fromString("01234567890123456789");
  size_t n = 0;
  for (auto _ : state) {
    link->write(value);
    link->waitForNotifications(++n);
  }
}
BENCHMARK(BM_ChunkEchoRoundTrip)->UseRealTime();

// 1 MB through the sliding window to an sw-echo device and back.
void BM_SwEcho1MB(benchmark::State& state) {
  auto link = Link::open(SimBehaviour::SwEcho);
  link->startTransport();
  std::vector<uint8_t> message(1 << 20, 0x5A);
  for (auto _ : state) {
    link->resetCounts();
    link->transport()->sendTCP(message.data(), message.size());
    link->waitForTcp(message.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1 << 20));
}
BENCHMARK(BM_SwEcho1MB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// 64 kB through the sliding window on a named profile; counters: goodput and its share of
// the link's physical limit for this echo (never above 1).
void BM_SwEchoOnProfile(benchmark::State& state) {
  const auto& profile = linkProfiles().at(static_cast<size_t>(state.range(0)));
  state.SetLabel(profile.name);
  if (profile.parameters.mtu < kTcpSegmentSize + 4) {
    state.SkipWithError("the window's frames do not fit this profile's MTU");
    return;
  }
  auto link = Link::open(SimBehaviour::SwEcho, profile.parameters);
  link->startTransport();
  std::vector<uint8_t> message(64 * 1024, 0x5A);
  double seconds = 0;
  for (auto _ : state) {
    link->resetCounts();
    const auto start = std::chrono::steady_clock::now();
    link->transport()->sendTCP(message.data(), message.size());
    link->waitForTcp(message.size());
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  const double goodput = static_cast<double>(message.size() * state.iterations()) / seconds;
  const double limit = physicalLimitBps(profile.parameters, kTcpSegmentSize + 1, kTcpSegmentSize,
                                        LinkTraffic::Echo, message.size());
  state.counters["goodput_Bps"] = goodput;
  state.counters["physical_limit_Bps"] = limit;
  state.counters["share"] = goodput / limit;
}
BENCHMARK(BM_SwEchoOnProfile)
    ->DenseRange(0, 3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace
}  // namespace qlt::sim

BENCHMARK_MAIN();
