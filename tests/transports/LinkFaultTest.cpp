// Exactly once and in order over a lossy, duplicating, delaying link that keeps order: the
// engine against itself, against the other face's segment size and against an independent
// peer that follows the protocol's literal rules. The recovery rules frame by frame, and
// what recovery costs (goodput against the window bound, resends, echo time), in simulated
// time: every figure asserted here is deterministic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "support/LinkHarness.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::test;

namespace {

// Who is at the ends: the engine at both, or against it the literal peer at B, the engine
// with BLESlideWindow's 160-byte segments at B, or the literal peer at A.
enum Ends { kEngines, kLiteralAtB, k160AtB, kLiteralAtA };

auto ends(int which) {
  return [which](LinkHarness::Side side, std::shared_ptr<Clock> clock) {
    if (which == (side == LinkHarness::A ? kLiteralAtA : kLiteralAtB))
      return makeLiteralPeer(SWTransport::kSegmentSize, SWTransport::kPollTimeout,
                             std::move(clock));
    if (which == k160AtB && side == LinkHarness::B)
      return makeEngineEndpoint({BLESlideWindow::kSegmentSize, BLESlideWindow::kPollTimeout},
                                std::move(clock));
    return makeEngineEndpoint(transportParameters(), std::move(clock));
  };
}

// A link as the seed picks it: one of four delays, a little FIFO jitter, same faults both ways.
HarnessOptions optionsFor(double loss, double duplication, uint64_t seed) {
  static constexpr double kDelays[] = {0.0, 0.002, 0.005, 0.015};
  sim::LinkConfig link{.lossProbability = loss,
                       .duplicationProbability = duplication,
                       .delaySeconds = kDelays[seed % 4],
                       .jitterSeconds = (seed % 3) * 0.001};
  return {.aToB = link, .bToA = link, .seed = seed};
}

struct FaultConfig {
  double loss, duplication;
  double maxResent;  // segments sent again per segment delivered, all seeds together
};

class ExactlyOnce : public ::testing::TestWithParam<FaultConfig> {};

}  // namespace

TEST_P(ExactlyOnce, DeliversEveryByteOnceAndInOrderBothWaysAndDrainsBothQueues) {
  const FaultConfig& c = GetParam();
  uint64_t resent = 0, delivered = 0;
  for (uint64_t seed = 1; seed <= 200; ++seed) {
    const auto r = runExchange(optionsFor(c.loss, c.duplication, seed),
                               {.make = ends(static_cast<int>(seed % 4))});
    ASSERT_TRUE(r.drained) << "seed " << seed << " after " << r.simSeconds << " s";
    ASSERT_TRUE(r.exact[0] && r.exact[1]) << "seed " << seed;
    ASSERT_LE(r.stats.maxInFlight, 3);
    for (const auto& k : r.counters) {
      resent += k.segmentsResent;
      delivered += k.segmentsSent - k.segmentsResent;
      ASSERT_EQ(k.bytesQueued, 0u);
    }
  }
  const double perSegment = static_cast<double>(resent) / static_cast<double>(delivered);
  std::printf("[ loss %.2f dup %.2f ] %.4f resent per segment delivered\n", c.loss, c.duplication,
              perSegment);
  EXPECT_LE(perSegment, c.maxResent);
}

INSTANTIATE_TEST_SUITE_P(OverAnOrderedLink, ExactlyOnce,
                         ::testing::Values(FaultConfig{0.0, 0.0, 0.001},
                                           FaultConfig{0.01, 0.0, 0.05},
                                           FaultConfig{0.05, 0.0, 0.2}, FaultConfig{0.20, 0.0, 1.0},
                                           FaultConfig{0.0, 0.1, 0.08}, FaultConfig{0.01, 0.1, 0.1},
                                           FaultConfig{0.05, 0.1, 0.25},
                                           FaultConfig{0.20, 0.1, 1.0}));

namespace {

// The driver and its core on a manual clock, rounds by hand, and the frames written, decoded.
struct ByHand {
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::vector<std::string> wire;
  std::shared_ptr<SlideWindowDriver> driver = SlideWindowDriver::create(
      transportParameters(), clock, DispatchQueue::create("ByHand"),
      {.write =
           [this](const uint8_t* bytes, size_t n) {
             wire.push_back(describeFrame({bytes, n}, true).substr(4));  // without the arrow
           },
       .deliverTCP = nullptr,
       .deliverUDP = nullptr,
       .session = nullptr});
  void in(std::vector<uint8_t> frame) { driver->receive(Data(frame)); }
  std::vector<std::string> round(double after = 0) {
    clock->advance(after);
    driver->round();
    return std::exchange(wire, {});
  }
};
using Frames = std::vector<std::string>;

}  // namespace

TEST(TheRecoveryRules, RejectAGapOnceAndOnceMoreIfItPersistsButNeverAStaleOne) {
  ByHand b;
  b.in({0x00, 'a'});
  b.in({0x20, 'c'});  // segment 1 is missing: a gap at R = 1
  EXPECT_EQ(b.round(), (Frames{"ack R=1", "rej R=1"}));
  b.in({0x30, 'd'});  // the same gap
  b.in({0x00, 'a'});  // a copy of the segment accepted last: no gap
  EXPECT_EQ(b.round(), (Frames{"ack R=1"}));
  EXPECT_EQ(b.round(0.2), Frames{}) << "no round trip measured: rto is 0.3 s";
  EXPECT_EQ(b.round(0.11), Frames{"rej R=1"}) << "the gap persists";
  EXPECT_EQ(b.round(5), Frames{}) << "at most two per gap";
  b.in({0x10, 'b'});
  b.in({0x30, 'd'});  // a new gap at R = 2 ...
  b.in({0x20, 'c'});  // ... filled before the round: its rejection is stale
  EXPECT_EQ(b.round(), (Frames{"ack R=3"}));
  EXPECT_EQ(b.driver->counters().rejectionsSent, 2u);
}

TEST(TheRecoveryRules, HonourARejectionOnceAndPollOnTheMeasuredRoundTrip) {
  ByHand b;
  std::vector<uint8_t> msg(600, 7);  // five segments
  b.driver->sendTCP(msg.data(), msg.size());
  EXPECT_EQ(b.round().size(), 3u);
  b.clock->advance(0.010);
  b.in({0x13});  // a 10 ms sample: rto = 10 + 4 * 5 = 30 ms
  EXPECT_EQ(b.round(), (Frames{"seg seq=3 120 B"}));
  b.in({0x25});
  b.in({0x25});  // the same rejection again, before the resent segment can have been seen
  EXPECT_EQ(b.round(), (Frames{"seg seq=2 120 B", "seg seq=3 120 B"}));
  b.clock->advance(0.012);  // past the round trip: a rejection of 2 now means it was lost
  b.in({0x25});
  EXPECT_EQ(b.round().size(), 2u);
  EXPECT_EQ(b.driver->counters().rejectionsHonoured, 2u);
  // Unanswered: the oldest segment and a poll after rto, again after rto, then after 2 rto.
  const Frames probe{"seg seq=1 120 B", "poll 1..0"};
  EXPECT_EQ(b.round(0.029), Frames{});
  EXPECT_EQ(b.round(0.002), probe);
  EXPECT_EQ(b.round(0.031), probe);
  EXPECT_EQ(b.round(0.031), Frames{});
  EXPECT_EQ(b.round(0.030), probe);
  b.in({0x03});  // everything up to 0 arrived: the wait is rto again
  EXPECT_EQ(b.round(), (Frames{"seg seq=0 120 B"}));
  EXPECT_EQ(b.round(0.031), (Frames{"seg seq=0 120 B", "poll 0..1"}));
}

namespace {

double windowBound(double delay) { return 3.0 * SWTransport::kSegmentSize / (2 * delay + 0.001); }

// 300 full segments from A to B over a link with `delay` and `loss` both ways, 4 seeds;
// exactly once and in order every time. Returns goodput / bound and segments sent again
// (both ends) per segment delivered.
std::pair<double, double> oneWay(int which, double delay, double loss) {
  constexpr size_t kSegments = 300, kBytes = kSegments * SWTransport::kSegmentSize;
  double seconds = 0, resent = 0;
  for (uint64_t seed = 1; seed <= 4; ++seed) {
    sim::LinkConfig link{.lossProbability = loss, .delaySeconds = delay};
    LinkHarness h({.aToB = link, .bToA = link, .seed = seed}, ends(which));
    std::vector<uint8_t> data(kBytes);
    for (size_t i = 0; i < kBytes; ++i) data[i] = static_cast<uint8_t>(i * 7 + seed);
    h.a().sendTCP(data);
    EXPECT_TRUE(h.runUntilDrained(600)) << "seed " << seed;
    EXPECT_EQ(joined(h.b().delivered()), data) << "seed " << seed;
    seconds += h.now();
    resent +=
        static_cast<double>(h.a().counters().segmentsResent + h.b().counters().segmentsResent);
  }
  return {kBytes * 4 / seconds / windowBound(delay), resent / (kSegments * 4)};
}

}  // namespace

TEST(LossRecovery, KeepsGoodputNearTheWindowBoundWithFewResends) {
  struct Case {
    int ends;
    double delay, loss, minRatio, maxResent;
  } const cases[] = {
      // No loss; 5 % loss each way; 20 % loss each way completes. The literal peer receiving
      // (a rejection for every out-of-order segment) and sending (every rejection honoured,
      // polls at 0.3 s only): no storm either way.
      {kEngines, 0.0075, 0.0, 0.95, 0.0},  {kEngines, 0.015, 0.0, 0.95, 0.0},
      {kEngines, 0.0, 0.05, 0.25, 0.3},    {kEngines, 0.015, 0.05, 0.6, 0.3},
      {kEngines, 0.005, 0.20, 0.1, 1.0},   {kLiteralAtB, 0.015, 0.05, 0.6, 0.3},
      {kLiteralAtA, 0.015, 0.05, 0.3, 0.3}};
  for (const Case& c : cases) {
    const auto [ratio, resent] = oneWay(c.ends, c.delay, c.loss);
    std::printf("[ ends %d, %.1f ms, loss %.2f ] %.3f of the bound, %.3f resent per segment\n",
                c.ends, c.delay * 1000, c.loss, ratio, resent);
    EXPECT_GE(ratio, c.minRatio) << c.ends << " " << c.delay << " " << c.loss;
    EXPECT_LE(resent, c.maxResent) << c.ends << " " << c.delay << " " << c.loss;
  }
}

// One 100-byte message at a time from A, echoed by B as it arrives: under 5 % loss each
// way the 99th percentile of 400 echoes stays within 4 round trips of the link.
TEST(LossRecovery, EchoesWithinFourRoundTripsAtThe99thPercentile) {
  for (double delay : {0.0075, 0.015}) {
    std::vector<double> echoes;
    for (uint64_t seed = 1; seed <= 4; ++seed) {
      sim::LinkConfig link{.lossProbability = 0.05, .delaySeconds = delay};
      measureEchoes({.aToB = link, .bToA = link, .seed = seed}, 10, echoes);
    }
    std::sort(echoes.begin(), echoes.end());
    const double p99 = echoes[echoes.size() * 99 / 100], roundTrip = 2 * delay + 0.001;
    std::printf("[ %.1f ms ] echo median %.1f ms, p99 %.1f ms = %.2f round trips\n", delay * 1000,
                echoes[echoes.size() / 2] * 1000, p99 * 1000, p99 / roundTrip);
    EXPECT_LE(p99, 4 * roundTrip) << delay;
  }
}
