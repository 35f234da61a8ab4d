// What an idle connection costs, and what the chunker costs per megabyte, each beside a
// same-run baseline, so that the ratios hold on a loaded machine.
//
//   build/default/bench/qlt_idle
//
// Idle: N peripherals connected over the simulated radio with the sliding window, doing
// nothing, against N bare threads each sleeping 1 ms in a loop (what a polling worker
// costs). Wake-ups are the context switches (voluntary and not) of every thread of the
// process, from /proc/self/task/*/status; CPU is user + system time. Goal: the idle
// connections make at most 1 % of the sleepers' wake-ups.
//
// Chunker: the plain transport writes 100 kB (5000 chunks of 20 bytes) to a sender that
// discards them; CPU seconds of the whole process per megabyte written.
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include "QueltLibrary/QueltLibrary.h"
#include "QueltLibrary/sim/SimRadio.h"
#include "support/PeripheralRecorder.h"
#include "support/SimDevices.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Cost {
  double wakeupsPerS, cpuPct;
};

// Context switches of each live thread of the process, by thread id.
std::map<std::string, uint64_t> threadWakeups() {
  std::map<std::string, uint64_t> counts;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(entry.path() / "status");
    std::string key;
    uint64_t value = 0;
    while (status >> key) {
      if ((key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") &&
          status >> value)
        counts[entry.path().filename()] += value;
    }
  }
  return counts;
}

// Wake-ups per second and CPU (% of one core) of the whole process over `window`. A thread
// that ends during the window (a pool worker retiring) counts what it did up to its last
// look; one that starts counts from zero.
Cost measure(std::chrono::milliseconds window) {
  const auto w0 = threadWakeups();
  const double c0 = cpuSeconds();
  const auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(window);
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  uint64_t wakeups = 0;
  for (const auto& [thread, n] : threadWakeups()) {
    const auto before = w0.find(thread);
    wakeups += n - (before == w0.end() ? 0 : std::min(before->second, n));
  }
  return {static_cast<double>(wakeups) / s, (cpuSeconds() - c0) / s * 100};
}

Cost idlePeripherals(int n) {
  // The library's main thread counts too, after a stop() that came outside any run.
  DispatchQueue::main()->sync([] {});
  MainQueue::stop();
  auto radio = sim::SimRadio::create();
  // Links that behave like BLE's: their idle connection events are computed, not woken for.
  radio->setLink(sim::findLinkProfile(sim::kDefaultLinkProfile)->parameters);
  std::vector<UUID> ids;
  for (int i = 0; i < n; ++i) {
    sim::SimDeviceConfig d = bench::numberedEcho("1D1E0000-0000-4000-8000-", "Idle", i);
    radio->addDevice(d);
    ids.push_back(d.identifier);
  }
  auto manager = QLT_BLEManager::create(radio->backend());
  while (manager->state() != QLT_BLEManagerStateIdle) std::this_thread::sleep_for(1ms);
  auto queue = DispatchQueue::create("bench-app");
  std::vector<std::shared_ptr<QLT_Peripheral>> peripherals;
  std::vector<std::shared_ptr<test::PeripheralRecorder>> apps;
  for (const auto& p : manager->centralManager()->retrievePeripheralsWithIdentifiers(ids)) {
    auto peripheral = QLT_Peripheral::create(p);
    auto app = std::make_shared<test::PeripheralRecorder>();
    peripheral->setTransportType(1);
    peripheral->addDelegate(app, queue);
    peripheral->moduleQueue()->sync([] {});
    manager->connect(peripheral);
    peripherals.push_back(peripheral);
    apps.push_back(app);
  }
  for (auto& app : apps) app->waitForState(QLT_PeripheralStateReady);
  // Let the connection's own work settle and the pool workers it woke retire (after 2 s).
  std::this_thread::sleep_for(2500ms);
  const Cost cost = measure(2s);
  for (size_t i = 0; i < peripherals.size(); ++i) {
    manager->disconnect(peripherals[i]);
    apps[i]->waitForState(QLT_PeripheralStateDisconnected);
  }
  return cost;
}

Cost sleepers(int n) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i)
    threads.emplace_back([&] {
      while (!stop.load()) std::this_thread::sleep_for(1ms);
    });
  std::this_thread::sleep_for(200ms);
  const Cost cost = measure(2s);
  stop = true;
  for (auto& t : threads) t.join();
  return cost;
}

class Discard : public TransportSenderDelegate {
 public:
  std::atomic<size_t> bytes{0};
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    bytes += d.length();
  }
};

void chunker() {
  constexpr size_t kBytes = 100'000;
  auto nus = NUSTransport::create();
  auto sink = std::make_shared<Discard>();
  nus->setSenderDelegate(sink);
  nus->start();
  std::vector<uint8_t> data(kBytes, 0x5A);
  const double c0 = cpuSeconds();
  const auto t0 = std::chrono::steady_clock::now();
  nus->sendTCP(data.data(), data.size());
  while (sink->bytes < kBytes) std::this_thread::sleep_for(5ms);
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  nus->stop();
  std::printf("chunker: %.0f kB in %.2f s (%.1f kB/s), %.3f CPU-s per MB (goal <= 2)\n",
              kBytes / 1e3, s, kBytes / 1e3 / s, (cpuSeconds() - c0) / (kBytes / 1e6));
}

}  // namespace

int main() {
  setLogSink([](std::string_view) {});
  const Cost base = measure(1s);
  std::printf("process at rest: %.0f wake-ups/s, %.2f %% CPU\n", base.wakeupsPerS, base.cpuPct);
  std::printf("%4s %14s %10s %14s %10s %8s\n", "N", "idle wake/s", "idle CPU%", "sleeper wake/s",
              "sleep CPU%", "ratio");
  for (int n : {1, 10, 50}) {
    const Cost idle = idlePeripherals(n);
    const Cost sleep = sleepers(n);
    std::printf("%4d %14.0f %10.2f %14.0f %10.2f %7.2f%%\n", n, idle.wakeupsPerS, idle.cpuPct,
                sleep.wakeupsPerS, sleep.cpuPct, 100 * idle.wakeupsPerS / sleep.wakeupsPerS);
  }
  chunker();
  return 0;
}
