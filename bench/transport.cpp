// Sliding-window goodput and echo time in simulated time, and the cost of an idle round.
//
// Goodput: two engines with SWTransport's constants back to back over the link harness; A
// sends 1000 full segments (120 000 bytes) to B over a link with the given one-way delay and
// loss (both ways); goodput = bytes / simulated time until everything is acknowledged. The
// window bound is qlt bench's (Stats.h): 3 segments of 120 bytes per round trip, where a
// round trip is twice the one-way delay plus the receiver's acknowledgement delay (1 ms).
// resent_per_delivered = segments sent again / segments delivered.
//
// Echo: one 100-byte message at a time from A, echoed by B as it arrives, 400 times over 4
// seeds; the median and 99th percentile of the echo time, in ms and in round trips.
//
//   build/default/bench/qlt_transport --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "QueltLibrary/SWTransport.h"
#include "Stats.h"
#include "support/AllocationCounter.h"
#include "support/LinkHarness.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::test;
using qlt::bench::AllocationScope;

namespace {

constexpr size_t kSegments = 1000;
constexpr size_t kBytes = kSegments * SWTransport::kSegmentSize;

void BM_Goodput(benchmark::State& state) {
  const double delay = static_cast<double>(state.range(0)) / 10000.0;
  const double loss = static_cast<double>(state.range(1)) / 100.0;
  const int seeds = loss > 0 ? 8 : 1;
  LogCapture quiet;
  double simSeconds = 0, resent = 0, polls = 0, rejections = 0;
  for (auto _ : state) {
    simSeconds = resent = polls = rejections = 0;
    for (int seed = 1; seed <= seeds; ++seed) {
      HarnessOptions o;
      o.aToB = {.lossProbability = loss, .delaySeconds = delay};
      o.bToA = o.aToB;
      o.seed = static_cast<uint64_t>(seed);
      LinkHarness h(o);
      std::vector<uint8_t> data(kBytes, 0x5A);
      h.a().sendTCP(data);
      if (!h.runUntilDrained(3600)) state.SkipWithError("did not drain");
      simSeconds += h.now();
      const auto c = h.a().counters();
      resent += static_cast<double>(c.segmentsResent);
      polls += static_cast<double>(c.pollsSent);
      rejections += static_cast<double>(h.b().counters().rejectionsSent);
      if (h.b().delivered().size() != kSegments) state.SkipWithError("wrong delivery count");
    }
  }
  const double goodput = kBytes * seeds / simSeconds;
  const double bound = cli::windowBoundBps({}, {.oneWayS = delay});
  state.counters["delay_ms"] = delay * 1000;
  state.counters["loss_pct"] = loss * 100;
  state.counters["goodput_Bps"] = goodput;
  state.counters["bound_Bps"] = bound;
  state.counters["ratio"] = goodput / bound;
  state.counters["resent_per_delivered"] = resent / (kSegments * seeds);
  state.counters["polls_per_run"] = polls / seeds;
  state.counters["rejections_per_run"] = rejections / seeds;
}
BENCHMARK(BM_Goodput)
    ->ArgNames({"delay_100us", "loss_pct"})
    ->ArgsProduct({{0, 50, 75, 150}, {0, 1, 5, 20}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void BM_Echo(benchmark::State& state) {
  const double delay = static_cast<double>(state.range(0)) / 10000.0;
  const double loss = static_cast<double>(state.range(1)) / 100.0;
  std::vector<double> echoes;
  for (auto _ : state) {
    echoes.clear();
    for (uint64_t seed = 1; seed <= 4; ++seed) {
      HarnessOptions o;
      o.aToB = {.lossProbability = loss, .delaySeconds = delay};
      o.bToA = o.aToB;
      o.seed = seed;
      measureEchoes(o, 60, echoes);
    }
  }
  std::sort(echoes.begin(), echoes.end());
  const double roundTrip = 2 * delay + 0.001, p99 = echoes[echoes.size() * 99 / 100];
  state.counters["delay_ms"] = delay * 1000;
  state.counters["loss_pct"] = loss * 100;
  state.counters["round_trip_ms"] = roundTrip * 1000;
  state.counters["p50_ms"] = echoes[echoes.size() / 2] * 1000;
  state.counters["p99_ms"] = p99 * 1000;
  state.counters["p99_round_trips"] = p99 / roundTrip;
}
BENCHMARK(BM_Echo)
    ->ArgNames({"delay_100us", "loss_pct"})
    ->ArgsProduct({{0, 75, 150}, {0, 5}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// One idle worker round (nothing queued, nothing owed): no frame, no allocation.
void BM_IdleRound(benchmark::State& state) {
  auto clock = std::make_shared<ManualClock>();
  auto transport = SWTransport::create(clock);
  const auto framesBefore = transport->counters().framesSent;
  AllocationScope allocations;
  for (auto _ : state) {
    transport->transfer();
    transport->checkControl();
    transport->doPendingWork();
  }
  state.counters["allocs_per_round"] =
      static_cast<double>(allocations.count()) / static_cast<double>(state.iterations());
  state.counters["frames"] = static_cast<double>(transport->counters().framesSent - framesBefore);
}
BENCHMARK(BM_IdleRound);

}  // namespace

BENCHMARK_MAIN();
