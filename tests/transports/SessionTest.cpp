// Two drivers in the extended window back to back over a link that drops: the session
// resumes, or ends with its bytes in doubt named and nothing delivered twice.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "support/LinkHarness.h"

namespace qlt::test {
namespace {

// A driver as a harness endpoint. Each frame carries the number of the link it was written
// on (both ends count alike), so a frame of a dropped link can arrive once the next is up.
struct SessionEnd final : LinkEndpoint {
  SessionEnd(LinkHarness::Side side, std::shared_ptr<Clock> clock)
      : role(side == LinkHarness::A ? WindowRole::Central : WindowRole::Device), clock(clock) {
    restart();
  }
  void restart() {  // a new driver: the device restarted
    d = SlideWindowDriver::create(
        transportParameters(), clock, DispatchQueue::create("SessionEnd"),
        {.write =
             [this](const uint8_t* b, size_t n) {
               longest[wire] = std::max(longest[wire], n);
               std::vector<uint8_t> v{static_cast<uint8_t>(wire)};
               v.insert(v.end(), b, b + n);
               output(Data(v.data(), v.size()));
             },
         .deliverTCP = [this](const Data& payload) { deliver(payload); },
         .deliverUDP = nullptr,
         .session = [this](const SessionChange& c) { changes.push_back(c); }});
    d->setExtended({.enabled = true, .role = role, .link = {.valueLimit = 244}});
    d->setAllAcknowledgedHandler([this] { ++drained; });
    while (d->link() < wire) d->linkUp();
  }
  void sendTCP(std::span<const uint8_t> b) override { d->sendTCP(b.data(), b.size()); }
  void receive(const Data& v) override { d->receive(Data(v.bytes() + 1, v.length() - 1), v[0]); }
  void round() override { d->round(); }
  SlideWindowCounters counters() const override { return d->counters(); }
  uint8_t inFlight() const override { return d->inFlight(); }
  size_t queuedSegments() const override { return d->queuedSegments(); }
  WindowRole role;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<SlideWindowDriver> d;
  uint64_t wire = 0;  // the link this end writes on
  std::vector<SessionChange> changes;
  int drained = 0;
  std::map<uint64_t, size_t> longest;  // the longest frame written on each link
};

std::vector<uint8_t> bytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  for (auto& x : v) x = static_cast<uint8_t>((seed = seed * 1103515245 + 12345) >> 16);
  return v;
}

TEST(ASession, ResumesAcrossDropsAndEndsWithItsBytesInDoubtNamedAndNeverAcknowledged) {
  // Frames late by 7.5 to 11.5 ms, and more behind a queue at 160 kB/s: a dropped link's
  // frames still arrive after the next one is up.
  const sim::LinkConfig air{.lossProbability = 0.01,
                            .delaySeconds = 0.0075,
                            .jitterSeconds = 0.004,
                            .bytesPerSecond = 160000};
  LinkHarness h({.aToB = air, .bToA = air}, [](LinkHarness::Side s, std::shared_ptr<Clock> c) {
    return std::make_unique<SessionEnd>(s, std::move(c));
  });
  SessionEnd* ends[] = {&static_cast<SessionEnd&>(h.a()), &static_cast<SessionEnd&>(h.b())};
  const auto drop = [&](double down, bool restart, size_t valueLimit = 244) {
    for (auto* e : ends) e->d->linkLost();
    h.runFor(down);
    if (restart) ends[1]->restart();
    for (auto* e : ends) e->wire = e->d->linkUp({.valueLimit = valueLimit});
  };
  const auto a = bytes(200000, 1), b = bytes(150000, 2);
  h.a().sendTCP(a);
  h.b().sendTCP(b);
  // The window was built for 244-byte values; every other link takes 64, the rest 400 (more
  // than its buffers hold): what each link resumes is cut again to fit it.
  for (int i = 0; i < 5; ++i, drop(0.05, false, i % 2 ? 64 : 400)) h.runFor(0.23);
  ASSERT_TRUE(h.runUntilDrained(60));
  h.runFor(0.3);  // the last link's negotiation settles
  EXPECT_EQ(joined(h.b().delivered()), a);
  EXPECT_EQ(joined(h.a().delivered()), b);
  for (auto* e : ends) {
    EXPECT_EQ(e->counters().sessionsResumed, 5u);
    EXPECT_EQ(e->changes.size(), 5u);
    EXPECT_EQ(e->drained, 1);
    for (uint64_t k = 1; k <= 5; ++k) EXPECT_EQ(e->longest[k], k % 2 ? 64u : 244u) << "link " << k;
  }

  // Bytes on the air when the device restarts, or when the central's hold time passes
  // without a link: in doubt, reported, and never counted as acknowledged.
  SessionEnd& central = *ends[0];
  central.d->setHoldTime(2);
  for (const bool restart : {true, false}) {
    h.a().sendTCP(bytes(2000, 3));
    h.runFor(0.002);
    drop(restart ? 0.05 : 2.5, restart);
    h.runFor(0.3);
    ASSERT_EQ(central.changes.size(), restart ? 6u : 7u);
    EXPECT_FALSE(central.changes.back().resumed);
    EXPECT_EQ(central.changes.back().bytesInDoubt, 2000u);
    EXPECT_EQ(central.d->unacknowledged(), 0u);
    EXPECT_EQ(central.drained, 1);
  }
  h.a().sendTCP(a);
  ASSERT_TRUE(h.runUntilDrained(60));
  auto twice = a;
  twice.insert(twice.end(), a.begin(), a.end());
  EXPECT_EQ(joined(h.b().delivered()), twice) << "nothing of the bytes in doubt arrived";
  EXPECT_EQ(central.drained, 2);
}

}  // namespace
}  // namespace qlt::test
