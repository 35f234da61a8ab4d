// The wide window end to end: two cores (or a core and the independent classic peer) back
// to back in simulated time over lossy links, through the negotiation, the extended window
// and a dropped link.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/LinkHarness.h"
#include "support/WideCore.h"

namespace qlt::test {
namespace {

// A raw core as a harness endpoint; a link that drops discards what it receives until up.
class CoreEndpoint final : public LinkEndpoint, public WideCore {
 public:
  // With manual consume, the application processes a segment every 10 rounds.
  CoreEndpoint(WideParams w, std::shared_ptr<Clock> clock)
      : WideCore(w), consumeEvery_(w.manualConsume ? 10 : 0), clock_(std::move(clock)) {
    EXPECT_TRUE(initialized);
  }
  void sendTCP(std::span<const uint8_t> b) override {
    backlog_.insert(backlog_.end(), b.begin(), b.end());
  }
  void receive(const Data& v) override {
    qlt_sw_delivery d;
    if (!down && qlt_sw_receive(&sw, v.bytes(), v.length(), now(), &d) == QLT_SW_TCP) take(d);
    while (qlt_sw_take_delivery(&sw, &d)) take(d);
  }
  void round() override {
    if (down) return;
    if (consumeEvery_ && ++rounds_ % consumeEvery_ == 0 && unread_ > 0) {
      qlt_sw_consume(&sw, 1, now());
      --unread_;
    }
    backlog_.erase(
        backlog_.begin(),
        backlog_.begin() + static_cast<long>(qlt_sw_send(&sw, backlog_.data(), backlog_.size())));
    std::vector<uint8_t> out(qlt_sw_frame_max(&sw));
    while (size_t len = qlt_sw_poll_frame(&sw, now(), out.data(), out.size())) {
      longest = std::max(longest, len);
      written.push_back(out[0]);
      output(Data(out.data(), len));
    }
  }
  SlideWindowCounters counters() const override { return {}; }
  uint8_t inFlight() const override { return qlt_sw_in_flight(&sw); }
  size_t queuedSegments() const override { return qlt_sw_queued(&sw) + !backlog_.empty(); }
  bool down = false;
  size_t longest = 0;
  std::vector<uint8_t> written;  // the header of every frame written

 private:
  uint32_t now() const { return static_cast<uint32_t>(clock_->now() * 1e6); }
  void take(const qlt_sw_delivery& d) {
    deliver(Data(d.payload, d.len));
    unread_ += consumeEvery_ > 0;
  }
  int consumeEvery_;
  std::shared_ptr<Clock> clock_;
  std::vector<uint8_t> backlog_;
  uint64_t rounds_ = 0, unread_ = 0;
};

// A 2M link at a 7.5 ms interval, its frames late by up to 4 ms more.
HarnessOptions options(double loss, double dup = 0) {
  HarnessOptions o;
  o.aToB = {.lossProbability = loss,
            .duplicationProbability = dup,
            .delaySeconds = 0.0075,
            .jitterSeconds = 0.004,
            .bytesPerSecond = 160000};
  o.bToA = o.aToB;
  return o;
}

using Make =
    std::function<std::unique_ptr<LinkEndpoint>(LinkHarness::Side, std::shared_ptr<Clock>)>;
Make cores(WideParams a, WideParams b) {
  return [a, b](LinkHarness::Side side, std::shared_ptr<Clock> clock) {
    return std::unique_ptr<LinkEndpoint>(
        new CoreEndpoint(side == LinkHarness::A ? a : b, std::move(clock)));
  };
}
CoreEndpoint& core(LinkHarness& h, LinkHarness::Side s) {
  return dynamic_cast<CoreEndpoint&>(h.endpoint(s));
}
const WideParams kCentral{.role = QLT_SW_ROLE_CENTRAL, .nonce = 0xC0FFEE};
const WideParams kDevice{.role = QLT_SW_ROLE_DEVICE, .nonce = 0xD0D0};

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 31 + seed + i / 251);
  return v;
}

TEST(WideLink, BothDirectionsGoExtendedAndArriveExactlyOnceOverLossAndCopies) {
  LinkHarness h(options(0.01, 0.01), cores(kCentral, kDevice));
  const auto bytes = pattern(200000, 1);
  h.a().sendTCP(bytes);
  h.b().sendTCP(bytes);
  ASSERT_TRUE(h.runUntilDrained(60));
  EXPECT_EQ(joined(h.b().delivered()), bytes);
  EXPECT_EQ(joined(h.a().delivered()), bytes);
  for (auto side : {LinkHarness::A, LinkHarness::B}) {
    const CoreEndpoint& e = core(h, side);
    EXPECT_EQ(e.info().send_extended, 2);
    EXPECT_EQ(e.longest, 244u) << "a large message goes out in segments as long as the link takes";
    // Every resend answers a loss the evidence showed, and the evidence is about 1 %.
    EXPECT_EQ(e.c().segments_resent, e.c().segments_lost);
    EXPECT_LT(e.c().segments_resent, e.c().segments_sent / 40);
    EXPECT_EQ(e.c().wide_faults, 0u);
  }
}

TEST(WideLink, ASlowOrClosedReceiverIsWaitedForNeverResentTo) {
  // A link with jitter and a rate limit answers late; the receiver processes 100 segments a
  // second out of 4 slots, so the window closes again and again. Nothing is lost: nothing
  // may be sent twice.
  WideParams device = kDevice;
  device.recvSlots = 4;
  device.manualConsume = true;  // 100 segments a second
  LinkHarness h(options(0), cores(kCentral, device));
  const auto bytes = pattern(40000, 2);
  h.a().sendTCP(bytes);
  ASSERT_TRUE(h.runUntilDrained(60));
  EXPECT_EQ(joined(h.b().delivered()), bytes);
  EXPECT_EQ(core(h, LinkHarness::A).c().segments_resent, 0u);
  EXPECT_GT(h.now(), 40000.0 / 241 / 100 - 0.1) << "no faster than the receiver takes them";
}

TEST(WideLink, AClassicPeerAtEitherEndSeesNothingNewBeyondThreeOffers) {
  const auto classicCore = [](LinkHarness::Side, std::shared_ptr<Clock> clock) {
    return std::unique_ptr<LinkEndpoint>(
        new CoreEndpoint({.role = QLT_SW_ROLE_OFF}, std::move(clock)));
  };
  const auto literal = [](LinkHarness::Side, std::shared_ptr<Clock> clock) {
    return makeLiteralPeer(120, 0.3, std::move(clock));
  };
  for (const Make& classic : {Make(classicCore), Make(literal)}) {
    for (auto wideSide : {LinkHarness::A, LinkHarness::B}) {
      const WideParams wide = wideSide == LinkHarness::A ? kCentral : kDevice;
      LinkHarness h(options(0.03), [&](LinkHarness::Side s, std::shared_ptr<Clock> clock) {
        return s == wideSide ? cores(wide, wide)(s, clock) : classic(s, clock);
      });
      const auto a = pattern(30000, 3), b = pattern(20000, 4);
      h.a().sendTCP(a);
      h.b().sendTCP(b);
      ASSERT_TRUE(h.runUntilDrained(300));
      EXPECT_EQ(joined(h.b().delivered()), a);
      EXPECT_EQ(joined(h.a().delivered()), b);
      const CoreEndpoint& e = core(h, wideSide);
      EXPECT_EQ(e.info().send_extended, 0);
      EXPECT_EQ(std::count(e.written.begin(), e.written.end(), 0x07),
                wideSide == LinkHarness::A ? 3 : 0);
      for (uint8_t x : e.written) EXPECT_TRUE(x == 0x07 || (x & 1) == 0 || ((x >> 1) & 7) <= 2);
    }
  }
}

// Both ends lose the link; what was in flight arrives at a dead link and is discarded.
void dropLink(LinkHarness& h, uint32_t nonce, const std::function<void()>& whileDown = {}) {
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    core(h, s).down = true;
    qlt_sw_link_lost(&core(h, s).sw);
  }
  h.runFor(0.05);
  if (whileDown) whileDown();
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    core(h, s).down = false;
    qlt_sw_link_up(&core(h, s).sw, nonce);
  }
}

TEST(WideLink, ASessionResumesAcrossDroppedLinksWithNothingLostOrTwice) {
  LinkHarness h(options(0.01), cores(kCentral, kDevice));
  const auto a = pattern(300000, 5), b = pattern(200000, 6);
  h.a().sendTCP(a);
  h.b().sendTCP(b);
  for (uint32_t drop = 0; drop < 4; ++drop) {
    h.runFor(0.4);
    dropLink(h, 0x5000u + drop);
  }
  ASSERT_TRUE(h.runUntilDrained(60));
  EXPECT_EQ(joined(h.b().delivered()), a);
  EXPECT_EQ(joined(h.a().delivered()), b);
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    EXPECT_EQ(core(h, s).c().sessions_resumed, 4u);
    EXPECT_EQ(core(h, s).c().sessions_lost, 0u);
    EXPECT_EQ(core(h, s).info().stream_acked, s == LinkHarness::A ? a.size() : b.size());
  }
}

TEST(WideLink, ASessionTheDeviceForgotEndsWithTheBytesInDoubtReportedAndDropped) {
  LinkHarness h(options(0.01), cores(kCentral, kDevice));
  const std::vector<uint8_t> sent[2] = {pattern(100000, 7), pattern(100000, 8)};
  h.a().sendTCP(sent[0]);
  h.b().sendTCP(sent[1]);
  h.runFor(0.3);
  uint32_t acked[2];
  dropLink(h, 0x6000, [&] {
    for (auto s : {LinkHarness::A, LinkHarness::B}) acked[s] = core(h, s).info().stream_acked;
    qlt_sw_forget_session(&core(h, LinkHarness::B).sw);  // its hold time passed
  });
  ASSERT_TRUE(h.runUntilDrained(60));
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    const CoreEndpoint& e = core(h, s);
    const CoreEndpoint& peer = core(h, s == LinkHarness::A ? LinkHarness::B : LinkHarness::A);
    EXPECT_EQ(e.c().sessions_lost + e.c().sessions_resumed, 1u);
    EXPECT_GT(e.info().in_doubt, 0u) << "the drop came mid-transfer";
    // The peer has what it accepted of the old session, then the stream after the doubt.
    EXPECT_EQ(e.info().stream_acked, sent[s].size() - acked[s] - e.info().in_doubt);
    const auto got = joined(peer.delivered());
    const size_t old = got.size() - e.info().stream_acked;
    EXPECT_TRUE(old >= acked[s] && old <= acked[s] + e.info().in_doubt) << old;
    std::vector<uint8_t> expect(sent[s].begin(), sent[s].begin() + static_cast<long>(old));
    expect.insert(expect.end(), sent[s].begin() + acked[s] + e.info().in_doubt, sent[s].end());
    EXPECT_EQ(got, expect);
  }
}

}  // namespace
}  // namespace qlt::test
