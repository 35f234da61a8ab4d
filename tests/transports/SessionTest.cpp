// Two drivers in the extended window back to back over a link that drops: the session
// resumes, or ends with its bytes in doubt named and never delivered twice.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/LinkHarness.h"

namespace qlt::test {
namespace {

// A driver as a harness endpoint. Each frame carries the number of the link it was written
// on (the link counts the same at both ends), so a frame of a dropped link can reach the
// driver after the next one is up, as it can from a radio stack's queues.
class SessionEndpoint final : public LinkEndpoint {
 public:
  SessionEndpoint(WindowRole role, std::shared_ptr<Clock> clock)
      : role_(role), clock_(std::move(clock)) {
    restart();
  }
  // A new driver: the device restarted, with a link already up.
  void restart() {
    driver_ = SlideWindowDriver::create(
        transportParameters(), clock_, DispatchQueue::create("SessionEndpoint"),
        {.write =
             [this](const uint8_t* bytes, size_t length) {
               std::vector<uint8_t> tagged{static_cast<uint8_t>(wire)};
               tagged.insert(tagged.end(), bytes, bytes + length);
               if (output) output(Data(tagged.data(), tagged.size()));
             },
         .deliverTCP = [this](const Data& payload) { deliver(payload); },
         .deliverUDP = nullptr,
         .session = [this](const SessionChange& c) { changes.push_back(c); }});
    driver_->setExtended({.enabled = true, .role = role_, .link = {.valueLimit = 244}});
    driver_->setAllAcknowledgedHandler([this] { ++drained; });
    while (driver_->link() < wire) driver_->linkUp();
  }
  void sendTCP(std::span<const uint8_t> bytes) override {
    driver_->sendTCP(bytes.data(), bytes.size());
  }
  void receive(const Data& value) override {
    driver_->receive(Data(value.bytes() + 1, value.length() - 1), value.bytes()[0]);
  }
  void round() override { driver_->round(); }
  SlideWindowCounters counters() const override { return driver_->counters(); }
  uint8_t inFlight() const override { return driver_->inFlight(); }
  size_t queuedSegments() const override { return driver_->queuedSegments(); }
  SlideWindowDriver& driver() { return *driver_; }

  uint64_t wire = 0;  // the link this end writes on
  std::vector<SessionChange> changes;
  int drained = 0;

 private:
  WindowRole role_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<SlideWindowDriver> driver_;
};

// A link whose frames are late by 7.5 to 11.5 ms; `rate` bytes a second, or any.
HarnessOptions options(uint64_t seed, double rate = 160000) {
  HarnessOptions o;
  o.aToB = {.lossProbability = 0.01,
            .delaySeconds = 0.0075,
            .jitterSeconds = 0.004,
            .bytesPerSecond = rate};
  o.bToA = o.aToB;
  o.seed = seed;
  return o;
}

std::unique_ptr<LinkEndpoint> make(LinkHarness::Side side, std::shared_ptr<Clock> clock) {
  return std::make_unique<SessionEndpoint>(
      side == LinkHarness::A ? WindowRole::Central : WindowRole::Device, std::move(clock));
}

SessionEndpoint& end(LinkHarness& h, LinkHarness::Side s) {
  return static_cast<SessionEndpoint&>(h.endpoint(s));
}

std::vector<uint8_t> bytes(size_t n, unsigned seed) {
  std::mt19937 g(seed);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(g());
  return v;
}

// Both ends lose the link; `gap` seconds later the next one is up. With no gap, the old
// link's frames still in flight arrive on the new one and must be refused (a link without a
// rate limit, so that they do not hold up the new link's frames behind them).
void dropLink(LinkHarness& h, double gap) {
  for (auto s : {LinkHarness::A, LinkHarness::B}) end(h, s).driver().linkLost();
  if (gap > 0) h.runFor(gap);
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    end(h, s).wire = end(h, s).driver().linkUp();
    EXPECT_EQ(end(h, s).wire, end(h, LinkHarness::A).wire);
  }
}

TEST(ASession, ResumesAcrossManyDropsWithEveryByteOnceAndInOrder) {
  for (const double gap : {0.0, 0.05}) {
    LinkHarness h(gap > 0 ? options(3) : options(4, 0), make);
    const auto a = bytes(200000, 1), b = bytes(150000, 2);
    h.a().sendTCP(a);
    h.b().sendTCP(b);
    for (int drop = 0; drop < 5; ++drop) {
      h.runFor(0.23);
      dropLink(h, gap);
    }
    ASSERT_TRUE(h.runUntilDrained(60)) << gap;
    h.runFor(0.3);  // the last link's negotiation settles
    EXPECT_EQ(joined(h.b().delivered()), a) << gap;
    EXPECT_EQ(joined(h.a().delivered()), b) << gap;
    for (auto s : {LinkHarness::A, LinkHarness::B}) {
      const auto& e = end(h, s);
      EXPECT_EQ(e.changes.size(), 5u) << gap;
      EXPECT_TRUE(std::all_of(e.changes.begin(), e.changes.end(),
                              [](const SessionChange& c) { return c.resumed; }));
      const auto c = h.endpoint(s).counters();
      EXPECT_EQ(c.sessionsResumed, 5u) << gap;
      EXPECT_EQ(c.bytesInDoubt, 0u);
      EXPECT_EQ(end(h, s).driver().unacknowledged(), 0u);
      EXPECT_EQ(e.drained, 1);
    }
  }
}

// The device restarted: a new session, the central's unacknowledged bytes in doubt. The
// device has what it took of the old stream, then the new one: at most the doubt missing,
// nothing twice, and the drop does not count as acknowledgement.
TEST(ASession, WithARestartedDeviceEndsWithTheBytesInDoubtReportedAndNothingTwice) {
  LinkHarness h(options(5), make);
  const auto a = bytes(120000, 3);
  h.a().sendTCP(a);
  h.runFor(0.3);
  auto& central = end(h, LinkHarness::A);
  const uint64_t pending = central.driver().unacknowledged();
  ASSERT_GT(pending, 0u);
  central.driver().linkLost();
  h.runFor(0.05);
  central.wire = central.driver().linkUp();
  end(h, LinkHarness::B).wire = central.wire;
  end(h, LinkHarness::B).restart();
  h.runFor(0.5);
  ASSERT_EQ(central.changes.size(), 1u);
  const SessionChange lost = central.changes[0];
  EXPECT_FALSE(lost.resumed);
  EXPECT_GT(lost.bytesInDoubt, 0u);
  EXPECT_EQ(central.drained, 0) << "bytes in doubt are not acknowledged";
  ASSERT_TRUE(h.runUntilDrained(60));
  EXPECT_EQ(central.drained, 1);
  EXPECT_EQ(central.driver().unacknowledged(), 0u);
  EXPECT_EQ(central.counters().bytesInDoubt, lost.bytesInDoubt);
  const auto got = joined(h.b().delivered());
  ASSERT_LE(got.size(), a.size());
  const size_t missing = a.size() - got.size();
  EXPECT_LE(missing, lost.bytesInDoubt);
  const size_t prefix =
      static_cast<size_t>(std::mismatch(got.begin(), got.end(), a.begin()).first - got.begin());
  EXPECT_TRUE(std::equal(got.begin() + static_cast<long>(prefix), got.end(),
                         a.begin() + static_cast<long>(prefix + missing)))
      << "after the old session's bytes, the new session's follow in order";
}

// Past the hold time without a link, both ends forget the session: what was sent and not
// acknowledged is in doubt; the next link begins a new session and carries what follows.
TEST(ASession, IsForgottenAfterTheHoldTimeAndTheNextLinkCarriesOnlyNewBytes) {
  LinkHarness h(options(6), make);
  h.runFor(0.3);  // the extended window agreed
  auto& central = end(h, LinkHarness::A);
  for (auto s : {LinkHarness::A, LinkHarness::B}) end(h, s).driver().setHoldTime(2);
  const auto first = bytes(2000, 4), second = bytes(3000, 5);
  h.a().sendTCP(first);
  h.runFor(0.002);  // on the air, no acknowledgement yet
  for (auto s : {LinkHarness::A, LinkHarness::B}) end(h, s).driver().linkLost();
  h.runFor(1.5);
  EXPECT_TRUE(central.changes.empty()) << "still held";
  h.runFor(1);
  EXPECT_EQ(central.driver().link(), 0u);  // the hold timer ran on the strand
  ASSERT_EQ(central.changes.size(), 1u);
  EXPECT_EQ(central.changes[0].bytesInDoubt, first.size());
  EXPECT_EQ(central.driver().unacknowledged(), 0u);
  EXPECT_EQ(central.drained, 0);
  for (auto s : {LinkHarness::A, LinkHarness::B}) end(h, s).wire = end(h, s).driver().linkUp();
  h.a().sendTCP(second);
  ASSERT_TRUE(h.runUntilDrained(30));
  EXPECT_EQ(joined(h.b().delivered()), second);
  EXPECT_EQ(central.changes.size(), 1u) << "the new link begins the session, loses nothing";
  EXPECT_EQ(central.drained, 1);
}

}  // namespace
}  // namespace qlt::test
