// The transports' long runs (label soak): many more seeds and longer exchanges than the
// link tests, over links that also throttle and overflow, through the bare engine.
#include <gtest/gtest.h>

#include "support/LinkHarness.h"

using namespace qlt::test;

TEST(ASoakedLink, CarriesEverythingExactlyOnceOverManySeedsOfThrottledLinks) {
  ExchangePlan exchange;
  exchange.messagesPerSide = 6;
  exchange.maxMessage = 20 * 1024;
  for (double loss : {0.0, 0.05, 0.2, 0.4}) {
    for (int seed = 1; seed <= 1200; ++seed) {
      HarnessOptions o;
      o.aToB = {.lossProbability = loss,
                .duplicationProbability = (seed % 3) * 0.15,
                .delaySeconds = (seed % 5) * 0.0075,
                .jitterSeconds = (seed % 4) * 0.002,
                .framesPerSecond = (seed % 7 == 0) ? 400.0 : 0.0,
                .queueLimit = 8};
      o.bToA = o.aToB;
      o.seed = static_cast<uint64_t>(seed) + 100000;
      const auto r = runExchange(o, exchange);
      ASSERT_TRUE(r.drained && r.exact[0] && r.exact[1]) << "loss " << loss << " seed " << o.seed;
      ASSERT_LE(r.stats.maxInFlight, 3);
    }
  }
}
