// The simulated link layer against figures worked out by hand from the packet format:
// a data PDU is preamble + 4 + 2 + payload + 3 bytes (+ 4 MIC), at 1 µs a bit on 1M and
// 0.5 µs on 2M; pairs are separated by T_IFS = 150 µs.

#include <gtest/gtest.h>

#include "QueltLibrary/sim/LinkParameters.h"
#include "platform/sim/LinkLayer.h"

namespace qlt::sim {
namespace {

constexpr double kUs = 1e-6;

LinkParameters link(double intervalMs, Phy phy, uint32_t dataLength) {
  LinkParameters p;
  p.intervalMs = intervalMs;
  p.phy = phy;
  p.dataLength = dataLength;
  return p;
}

TEST(APdu, TakesItsBytesTimesEightAtThePhysRate) {
  EXPECT_NEAR(pduAirSeconds(Phy::LE1M, 27), (1 + 4 + 2 + 27 + 3) * 8 * kUs, 1e-12);    // 296 µs
  EXPECT_NEAR(pduAirSeconds(Phy::LE1M, 0), 80 * kUs, 1e-12);                           // empty
  EXPECT_NEAR(pduAirSeconds(Phy::LE2M, 251), (2 + 4 + 2 + 251 + 3) * 4 * kUs, 1e-12);  // 1048 µs
  EXPECT_NEAR(pduAirSeconds(Phy::LE1M, 27, true), (37 + 4) * 8 * kUs, 1e-12);          // MIC
  EXPECT_NEAR(pduAirSeconds(Phy::LE1M, 0, true), 80 * kUs, 1e-12);  // an empty PDU has none
}

// A 121-byte value is a 128-byte SDU: 27 + 27 + 27 + 27 + 20 on a 27-byte link. Sent just
// after the first anchor, it waits for the next one (10 ms), then takes five pairs, each a
// data PDU, T_IFS, the peripheral's empty PDU and T_IFS; it arrives when its last PDU ends.
TEST(ALinkLayer, CutsAValueIntoDataLengthPdusAndDeliversItAtItsLastPdu) {
  LinkLayer air(link(10, Phy::LE1M, 27), 1);
  air.send(LinkLayer::Central, 121, 0.001);
  const double fullPair = (296 + 150 + 80 + 150) * kUs;
  const double lastPdu = (1 + 4 + 2 + 20 + 3) * 8 * kUs;
  const double arrives = 0.010 + 4 * fullPair + lastPdu;
  ASSERT_TRUE(air.nextEvent());
  EXPECT_NEAR(*air.nextEvent(), arrives, 1e-9);
  EXPECT_TRUE(air.advance(arrives - 1e-7).empty());
  const auto delivered = air.advance(arrives + 1e-9);
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].from, LinkLayer::Central);
  EXPECT_EQ(air.counts().dataPdus, 5u);
  EXPECT_FALSE(air.nextEvent()) << "an idle link needs no wake-up";
}

// 7.5 ms on 1M with 27-byte PDUs one way: a pair takes 296 + 150 + 80 + 150 = 676 µs, so
// 11 fit in an event (7436 µs); a cap of 4 leaves 4 per event. Twenty 20-byte values (one
// PDU each) then take 2 events, or 5 with the cap: the last arrives in the event that
// carries it, at its pair's start + 296 µs.
TEST(ALinkLayer, FillsAnEventWithThePairsThatFitOrTheCap) {
  for (const uint32_t cap : {0u, 4u}) {
    LinkParameters p = link(7.5, Phy::LE1M, 27);
    p.maxPdusPerEvent = cap;
    LinkLayer air(p, 1);
    for (int i = 0; i < 20; ++i) air.send(LinkLayer::Central, 20, 0.0001);
    const auto delivered = air.advance(1.0);
    ASSERT_EQ(delivered.size(), 20u);
    const int perEvent = cap ? 4 : 11;
    const int lastEvent = 20 / perEvent - (20 % perEvent == 0 ? 1 : 0) + 1;  // events 1..n
    const int lastPair = 19 % perEvent;
    EXPECT_NEAR(delivered.back().at, lastEvent * 0.0075 + lastPair * 676 * kUs + 296 * kUs, 1e-9)
        << "cap " << cap;
    EXPECT_EQ(air.counts().events, static_cast<uint64_t>(lastEvent)) << "cap " << cap;
  }
}

// Both sides send at once: the pairs carry data both ways, and the physical limit of an
// echo counts each byte once per pair.
TEST(ThePhysicalLimit, PacksSdusIntoEventsForOneWayAndEcho) {
  // 2M, 251-byte data length, 7.5 ms: a 121-byte value is one 128-byte PDU of
  // (2+4+2+128+3)*4 = 556 µs; one way a pair is 556+150+(2+4+2+3)*4+150 = 900 µs → 8
  // per event; echoed 556+150+556+150 = 1412 µs → 5 per event.
  const LinkParameters fast = link(7.5, Phy::LE2M, 251);
  EXPECT_NEAR(physicalLimitBps(fast, 121, 120, LinkTraffic::OneWay), 8 * 120 / 0.0075, 1.0);
  EXPECT_NEAR(physicalLimitBps(fast, 121, 120, LinkTraffic::Echo), 5 * 120 / 0.0075, 1.0);
  LinkParameters capped = fast;
  capped.maxPdusPerEvent = 3;
  EXPECT_NEAR(physicalLimitBps(capped, 121, 120, LinkTraffic::OneWay), 3 * 120 / 0.0075, 1.0);
  LinkParameters small = fast;
  small.mtu = 23;  // the window's frame does not fit; the chunker's 20 bytes do
  EXPECT_EQ(physicalLimitBps(small, 121, 120, LinkTraffic::OneWay), 0);
  EXPECT_GT(physicalLimitBps(small, 20, 20, LinkTraffic::OneWay), 0);
  EXPECT_EQ(physicalLimitBps(LinkParameters{}, 121, 120, LinkTraffic::OneWay), 0) << "instant";
}

// With errors on the air every value still arrives, in order, later than without; the
// repeats are counted. The same seed gives the same timing.
TEST(ALinkLayer, RepeatsLostPdusAtTheCostOfTimeNotData) {
  auto run = [](double per, uint64_t seed) {
    LinkParameters p = link(7.5, Phy::LE1M, 27);
    p.packetErrorRate = per;
    LinkLayer air(p, seed);
    for (int i = 0; i < 200; ++i)
      air.send(i % 2 ? LinkLayer::Peripheral : LinkLayer::Central, 20, 0);
    auto delivered = air.advance(60.0);
    return std::make_pair(delivered, air.counts());
  };
  const auto [clean, cleanCounts] = run(0, 1);
  const auto [lossy, lossyCounts] = run(0.3, 1);
  ASSERT_EQ(clean.size(), 200u);
  ASSERT_EQ(lossy.size(), 200u);
  EXPECT_EQ(cleanCounts.repeatedPdus, 0u);
  EXPECT_GT(lossyCounts.repeatedPdus, 20u);
  EXPECT_EQ(lossyCounts.dataPdus, 200 + lossyCounts.repeatedPdus);
  EXPECT_GT(lossy.back().at, clean.back().at);
  EXPECT_EQ(run(0.3, 1).first.back().at, lossy.back().at);
}

// Out of range, nothing gets through: the link is lost one supervision timeout after the
// last PDU that did, and what was queued never arrives.
TEST(ALinkLayer, IsLostWhenNothingGetsThroughForTheSupervisionTimeout) {
  LinkParameters p = link(10, Phy::LE1M, 27);
  p.supervisionTimeoutMs = 100;
  LinkLayer air(p, 1);
  air.advance(0.0305);  // events at 0, 10, 20 and 30 ms got through
  air.silence(0.0305);
  air.send(LinkLayer::Central, 20, 0.0305);
  const double lastHeard = 0.030 + (80 + 150 + 80) * kUs;
  ASSERT_TRUE(air.nextEvent());
  EXPECT_NEAR(*air.nextEvent(), lastHeard + 0.1, 1e-9);
  EXPECT_TRUE(air.advance(1.0).empty());
  ASSERT_TRUE(air.lostAt());
  EXPECT_NEAR(*air.lostAt(), lastHeard + 0.1, 1e-9);
}

// Two notification buffers: of five notifications offered at once, the first two are
// queued and the other three find the buffers full; once the first has arrived, a buffer is
// free again.
TEST(ALinkLayer, HoldsANotificationInABufferUntilTheAirHasCarriedIt) {
  LinkLayer air(link(10, Phy::LE2M, 251), 1);
  std::vector<bool> accepted;
  for (int i = 0; i < 5; ++i) {
    accepted.push_back(air.hasRoom(LinkLayer::Peripheral, 2, 0.001));
    if (accepted.back()) air.send(LinkLayer::Peripheral, 20, 0.001);
  }
  EXPECT_EQ(accepted, (std::vector<bool>{true, true, false, false, false}));
  // The first arrives in the first pair of the event at 10 ms: after the central's empty
  // PDU (44 µs), T_IFS and its own (2 + 4 + 2 + 27 + 3) × 4 = 152 µs.
  const double first = 0.010 + (44 + 150 + 152) * kUs;
  EXPECT_FALSE(air.hasRoom(LinkLayer::Peripheral, 2, first - 1e-6));
  EXPECT_TRUE(air.hasRoom(LinkLayer::Peripheral, 2, first + 1e-6));
  EXPECT_EQ(air.advance(1.0).size(), 2u);
}

TEST(LinkParametersProblem, NamesThePlaceAndTheRange) {
  LinkParameters p;
  EXPECT_EQ(p.problem(), "");
  p.intervalMs = 5;
  EXPECT_EQ(
      p.problem("devices[1].link"),
      "devices[1].link.intervalMs: 5 is out of range (0 for the instant link, or 7.5 to 4000)");
  p = {};
  p.dataLength = 300;
  EXPECT_EQ(p.problem(), "link.dataLength: 300 is out of range (27 to 251)");
  p = {};
  p.mtu = 10;
  EXPECT_EQ(p.problem(), "link.mtu: 10 is out of range (23 to 517)");
  for (const auto& profile : linkProfiles())
    EXPECT_EQ(profile.parameters.problem(), "") << profile.name;
}

}  // namespace
}  // namespace qlt::sim
