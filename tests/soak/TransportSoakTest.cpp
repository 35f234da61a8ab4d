// The transports' long runs (label soak): many more seeds and longer exchanges than the
// default suite, with both faces' segment sizes.
#include <gtest/gtest.h>

#include "QueltLibrary/BLESlideWindow.h"
#include "support/LinkHarness.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::test;

namespace {

void soak(double loss, double duplication, int seeds, const ExchangePlan& exchange) {
  static constexpr double kDelays[] = {0.0, 0.001, 0.005, 0.015, 0.03};
  for (int seed = 1; seed <= seeds; ++seed) {
    HarnessOptions o;
    o.aToB = {.lossProbability = loss,
              .duplicationProbability = duplication,
              .delaySeconds = kDelays[seed % 5],
              .jitterSeconds = (seed % 4) * 0.002,
              .framesPerSecond = (seed % 7 == 0) ? 400.0 : 0.0,
              .queueLimit = 8};
    o.bToA = o.aToB;
    o.seed = static_cast<uint64_t>(seed) + 100000;
    const auto r = runExchange(o, exchange);
    ASSERT_TRUE(r.drained) << "seed " << o.seed;
    ASSERT_TRUE(r.exact[0] && r.exact[1]) << "seed " << o.seed;
    ASSERT_LE(r.stats.maxInFlight, 3);
  }
}

}  // namespace

TEST(ASoakedLink, CarriesEverythingExactlyOnceOverManySeeds) {
  ExchangePlan exchange;
  exchange.messagesPerSide = 6;
  exchange.maxMessage = 20 * 1024;
  for (double loss : {0.0, 0.01, 0.05, 0.2, 0.4}) {
    for (double dup : {0.0, 0.1, 0.3}) {
      SCOPED_TRACE(testing::Message() << "loss " << loss << " dup " << dup);
      soak(loss, dup, 600, exchange);
    }
  }
}

TEST(ASoakedLink, CarriesEverythingBetweenTheTwoFacesSegmentSizes) {
  ExchangePlan exchange;
  exchange.messagesPerSide = 4;
  exchange.make = [](LinkHarness::Side side, std::shared_ptr<Clock> clock) {
    return makeEngineEndpoint(
        side == LinkHarness::A
            ? transportParameters()
            : SlideWindowParameters{BLESlideWindow::kSegmentSize, BLESlideWindow::kPollTimeout},
        std::move(clock));
  };
  for (double loss : {0.01, 0.1}) soak(loss, 0.05, 300, exchange);
}
