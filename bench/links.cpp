// Threads per link: N UartLinks on the simulated radio, each echoing through the sliding
// window at a 7.5 ms connection interval at once, for N = 8, 32 and 64. Reports the most
// pool workers and OS threads seen during the run (sampled every 10 ms), the pool's bound
// (DispatchQueue::poolLimits().running: workers not blocked in a task are never more), and
// each link's goodput against the classic window's bound for an echo.
//
//   build/default/bench/qlt_links
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/UartLink.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "Stats.h"
#include "support/SimDevices.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

constexpr double kIntervalS = 0.0075;

using bench::osThreads;

void BM_EchoingLinks(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    auto radio = sim::SimRadio::create();
    sim::AirFaults faults;
    faults.connectionInterval = kIntervalS;
    radio->setFaults(faults);
    for (int i = 0; i < n; ++i) {
      sim::SimDeviceConfig d = bench::numberedEcho("11E40000-0000-4000-8000-", "Echo", i);
      d.advertisingInterval = 0.02;
      radio->addDevice(d);
    }
    UartLink::Options options;
    options.manager = QLT_BLEManager::create(radio->backend());
    options.timeout = 30s;
    // The classic window, whose bound for an echo the goodput is measured against (the
    // extended one carries more per round trip: qlt bench reports it against the link).
    options.extendedWindow = false;
    std::vector<std::unique_ptr<UartLink>> links;
    for (int i = 0; i < n; ++i) {
      links.push_back(std::make_unique<UartLink>(options));
      links.back()->startConnect("Echo-" + std::to_string(i));
    }
    for (auto& link : links) link->waitUntilConnected();

    // Each link keeps 720 bytes (two windows) in flight and reads its echo back.
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> echoed{0};
    std::vector<std::thread> clients;
    const Data chunk(std::vector<uint8_t>(360, 0x5A));
    for (auto& link : links) {
      clients.emplace_back([&, l = link.get()] {
        size_t inFlight = 0;
        while (!stop) {
          while (inFlight < 2 * chunk.size()) {
            l->send(chunk);
            inFlight += chunk.size();
          }
          const size_t got = l->read(100ms).size();
          inFlight -= std::min(inFlight, got);
          echoed += got;
        }
      });
    }
    // Every link under way, and the workers that connecting left idle retired (2 s).
    std::this_thread::sleep_for(2500ms);
    size_t maxPool = 0, maxOs = 0, lastPool = 0;
    const uint64_t e0 = echoed;
    const auto t0 = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - t0 < 3s) {
      lastPool = DispatchQueue::poolThreads();
      maxPool = std::max(maxPool, lastPool);
      maxOs = std::max(maxOs, osThreads());
      std::this_thread::sleep_for(10ms);
    }
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double perLink = static_cast<double>(echoed - e0) / s / n;
    stop = true;
    for (auto& c : clients) c.join();
    links.clear();

    cli::LinkTiming timing;
    timing.oneWayS = kIntervalS;
    state.counters["pool_threads_max"] = static_cast<double>(maxPool);
    state.counters["pool_threads_end"] = static_cast<double>(lastPool);
    state.counters["os_threads_max"] = static_cast<double>(maxOs);
    state.counters["client_threads"] = n;
    state.counters["pool_bound"] = static_cast<double>(DispatchQueue::poolLimits().running);
    state.counters["goodput_per_link_Bps"] = perLink;
    state.counters["of_bound"] = perLink / cli::windowBoundBps({}, timing, cli::Traffic::Echo);
  }
}

}  // namespace

BENCHMARK(BM_EchoingLinks)
    ->Arg(8)
    ->Arg(32)
    ->Arg(64)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
BENCHMARK_MAIN();
