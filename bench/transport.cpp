// Sliding-window goodput in simulated time, and the cost of an idle worker round.
//
// Goodput: two SWTransports back to back over the link harness; A sends 1000 full segments
// (120 000 bytes) to B over a link with the given one-way delay and loss (both ways);
// goodput = bytes / simulated time until everything is acknowledged. The window bound is
// 3 segments of 120 bytes per round trip, where a round trip is twice the one-way delay
// plus the receiver's acknowledgement delay of one worker round (1 ms):
//   bound_Bps = 360 / (2 * delay + 0.001).
// resent_per_delivered = segments sent again / segments delivered.
//
//   build/default/bench/qlt_transport --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "QueltLibrary/SWTransport.h"
#include "support/AllocationCounter.h"
#include "support/LinkHarness.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::test;

namespace {

constexpr size_t kSegments = 1000;
constexpr size_t kBytes = kSegments * SWTransport::kSegmentSize;

void BM_Goodput(benchmark::State& state) {
  const double delay = static_cast<double>(state.range(0)) / 1000.0;
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
      LinkHarness h(o, [](LinkHarness::Side, std::shared_ptr<Clock> clock) {
        return makeEngineEndpoint(transportParameters(), std::move(clock));
      });
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
  const double bound = 3.0 * SWTransport::kSegmentSize / (2 * delay + 0.001);
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
    ->ArgNames({"delay_ms", "loss_pct"})
    ->ArgsProduct({{0, 5, 15}, {0, 1, 5}})
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
