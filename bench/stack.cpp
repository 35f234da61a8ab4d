// The whole stack on the simulated radio with no added delay: manager, peripheral,
// UART service, sliding window, and a simulated device running the same engine.
//
//   build/default/bench/qlt_stack
//
// Each figure is printed beside the bound that the design's constants allow:
// - connect → ready: the design itself waits for nothing; the radio's own connection
//   delay (set to 0 here) plus queue hops is all there is.
// - 20-byte echo: each direction's segment goes at once; its acknowledgement waits about
//   1 ms to gather others, which the echo does not wait for.
// - 1 MB echo goodput: the window bound of qlt bench (Stats.h, one definition): 3 segments
//   of 120 bytes per round trip, here no air delay and the receiver's 1 ms acknowledgement
//   delay: 360 kB/s, whatever the radio's speed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "QueltLibrary/QueltLibrary.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "Stats.h"
#include "support/PeripheralRecorder.h"

using namespace qlt;
using SteadyClock = std::chrono::steady_clock;

namespace {

struct Bench {
  std::shared_ptr<sim::SimRadio> radio = sim::SimRadio::create();
  std::shared_ptr<QLT_BLEManager> manager;
  std::shared_ptr<test::PeripheralRecorder> app = std::make_shared<test::PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue = DispatchQueue::create("bench-app");
  std::shared_ptr<QLT_Peripheral> peripheral;

  Bench() {
    setLogSink([](std::string_view) {});
    sim::SimDeviceConfig d;
    d.identifier = *UUID::fromString("BE7C0000-0000-4000-8000-00000000E0E0");
    d.localName = "Bench-Echo";
    d.behaviour = sim::SimBehaviour::SwEcho;
    d.connectDelay = 0.0;
    radio->addDevice(d);
    manager = QLT_BLEManager::create(radio->backend());
    while (manager->state() != QLT_BLEManagerStateIdle)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    auto found = manager->centralManager()->retrievePeripheralsWithIdentifiers({d.identifier});
    peripheral = QLT_Peripheral::create(found.at(0));
    peripheral->setTransportType(1);
    peripheral->addDelegate(app, appQueue);
    peripheral->moduleQueue()->sync([] {});
  }
  ~Bench() {
    manager->disconnect(peripheral);
    app->waitForState(QLT_PeripheralStateDisconnected);
  }
  void connect() {
    app->clear();
    manager->connect(peripheral);
    app->waitForState(QLT_PeripheralStateReady);
  }
  void disconnect() {
    manager->disconnect(peripheral);
    app->waitForState(QLT_PeripheralStateDisconnected);
  }
};

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

void BM_ConnectToReady(benchmark::State& state) {
  Bench b;
  std::vector<double> ms;
  for (auto _ : state) {
    const auto start = SteadyClock::now();
    b.connect();
    ms.push_back(std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count());
    state.PauseTiming();
    b.disconnect();
    state.ResumeTiming();
  }
  state.counters["p50_ms"] = percentile(ms, 0.5);
  state.counters["p99_ms"] = percentile(ms, 0.99);
  state.counters["bound_ms"] = 0.0;  // the design adds no wait of its own
}
BENCHMARK(BM_ConnectToReady)->Iterations(50)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Echo20Bytes(benchmark::State& state) {
  Bench b;
  b.connect();
  const Data message = Data::fromString("0123456789abcdefghij");
  std::vector<double> ms;
  size_t expected = 0;
  for (auto _ : state) {
    const auto start = SteadyClock::now();
    b.peripheral->writeTCPData(message);
    expected += message.length();
    b.app->waitForTcpBytes(expected);
    ms.push_back(std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count());
  }
  state.counters["p50_ms"] = percentile(ms, 0.5);
  state.counters["p99_ms"] = percentile(ms, 0.99);
  state.counters["bound_ms"] = 0.0;  // nothing on the way waits
  b.disconnect();
}
BENCHMARK(BM_Echo20Bytes)->Iterations(300)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Echo1MBGoodput(benchmark::State& state) {
  Bench b;
  b.connect();
  std::string text(1 << 20, '\0');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i % 251);
  const Data message = Data::fromString(text);
  size_t expected = 0;
  double seconds = 0;
  for (auto _ : state) {
    const auto start = SteadyClock::now();
    b.peripheral->writeTCPData(message);
    expected += message.length();
    b.app->waitForTcpBytes(expected, std::chrono::minutes(5));
    seconds += std::chrono::duration<double>(SteadyClock::now() - start).count();
  }
  state.counters["goodput_kB_s"] = expected / 1000.0 / seconds;
  state.counters["bound_kB_s"] = cli::windowBoundBps({}, {}) / 1000;
  b.disconnect();
}
BENCHMARK(BM_Echo1MBGoodput)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
