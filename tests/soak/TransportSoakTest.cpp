// The transports' long runs (label soak): many more seeds and longer exchanges than the
// link tests, over links that also throttle and overflow (a frame rate and a queue limit),
// through the bare engine and between the two public faces.
#include <gtest/gtest.h>

#include "support/LinkHarness.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::test;

TEST(ASoakedLink, CarriesEverythingExactlyOnceOverManySeedsAndBothFaces) {
  static constexpr double kDelays[] = {0.0, 0.001, 0.005, 0.015, 0.03};
  ExchangeSpec engine, faces;
  engine.messagesPerSide = 6;
  engine.maxMessage = 20 * 1024;
  faces.messagesPerSide = 4;
  faces.make = [](LinkHarness::Side side, std::shared_ptr<Clock> clock) {
    return side == LinkHarness::A ? makeSWTransportEndpoint(std::move(clock))
                                  : makeBLESlideWindowEndpoint(std::move(clock));
  };
  struct Run {
    double loss, duplication;
    int seeds;
    const ExchangeSpec* exchange;
  };
  std::vector<Run> runs;
  for (double loss : {0.0, 0.01, 0.05, 0.2, 0.4})
    for (double dup : {0.0, 0.1, 0.3}) runs.push_back({loss, dup, 600, &engine});
  for (double loss : {0.01, 0.1}) runs.push_back({loss, 0.05, 300, &faces});
  for (const auto& run : runs) {
    for (int seed = 1; seed <= run.seeds; ++seed) {
      HarnessOptions o;
      o.aToB = {.lossProbability = run.loss,
                .duplicationProbability = run.duplication,
                .delaySeconds = kDelays[seed % 5],
                .jitterSeconds = (seed % 4) * 0.002,
                .framesPerSecond = (seed % 7 == 0) ? 400.0 : 0.0,
                .queueLimit = 8};
      o.bToA = o.aToB;
      o.seed = static_cast<uint64_t>(seed) + 100000;
      const auto r = runExchange(o, *run.exchange);
      ASSERT_TRUE(r.drained && r.exact[0] && r.exact[1])
          << "loss " << run.loss << " dup " << run.duplication << " seed " << o.seed;
      ASSERT_LE(r.stats.maxInFlight, 3);
    }
  }
}
