// The wide window end to end: two cores (or a core and the independent classic peer) back
// to back in simulated time over lossy links, through the negotiation, the extended window
// and a dropped link.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

#include "support/LinkHarness.h"
#include "swcore/qlt_sw.h"

namespace qlt::test {
namespace {

struct Wide {
  uint8_t role = QLT_SW_ROLE_OFF;
  uint16_t valueLimit = 244;
  uint16_t sendSlots = 32, recvSlots = 16;
  uint32_t nonce = 0x1234;
  bool manual = false;
  double consumePerSecond = 0;  // with `manual`: segments the application processes
};

// A raw core as a harness endpoint; a link that drops discards what it receives until up.
class CoreEndpoint final : public LinkEndpoint {
 public:
  CoreEndpoint(Wide w, std::shared_ptr<Clock> clock) : w_(w), clock_(std::move(clock)) {
    qlt_sw_config c{};
    c.segment_size = 120;
    c.poll_timeout_us = 300000;
    c.ack_delay_us = 1000;
    c.slots = slots_.data();
    c.slot_count = kSlots;
    c.wide_role = w.role;
    c.wide_manual_consume = w.manual;
    c.wide_segment = 512;
    c.wide_send_slots = w.sendSlots;
    c.wide_recv_slots = w.recvSlots;
    storage_.resize(QLT_SW_WIDE_STORAGE(512, w.sendSlots, w.recvSlots));
    c.wide_storage = storage_.data();
    c.value_limit = w.valueLimit;
    c.nonce = w.nonce;
    EXPECT_EQ(qlt_sw_init(&sw, &c), 0);
  }
  void sendTCP(std::span<const uint8_t> bytes) override {
    backlog_.insert(backlog_.end(), bytes.begin(), bytes.end());
  }
  void receive(const Data& v) override {
    if (down) return;
    qlt_sw_delivery d;
    if (qlt_sw_receive(&sw, v.bytes(), v.length(), now(), &d) == QLT_SW_TCP) take(d);
    while (qlt_sw_take_delivery(&sw, &d)) take(d);
  }
  void round() override {
    if (down) return;
    if (w_.manual) {
      const auto due = static_cast<uint64_t>(clock_->now() * w_.consumePerSecond);
      if (due > consumed_ && unread_ > 0) {
        const auto n = std::min<uint64_t>(due - consumed_, unread_);
        qlt_sw_consume(&sw, static_cast<uint32_t>(n), now());
        consumed_ += n;
        unread_ -= n;
      }
    }
    const size_t n = qlt_sw_send(&sw, backlog_.data(), backlog_.size());
    backlog_.erase(backlog_.begin(), backlog_.begin() + static_cast<long>(n));
    std::vector<uint8_t> out(qlt_sw_frame_max(&sw));
    while (size_t len = qlt_sw_poll_frame(&sw, now(), out.data(), out.size())) {
      longest = std::max(longest, len);
      written.push_back(out[0]);
      if (output) output(Data(out.data(), len));
    }
  }
  SlideWindowCounters counters() const override {
    const qlt_sw_counters* c = qlt_sw_get_counters(&sw);
    SlideWindowCounters s;
    s.segmentsSent = c->segments_sent;
    s.segmentsResent = c->segments_resent;
    s.pollsSent = c->polls_sent;
    return s;
  }
  uint8_t inFlight() const override { return qlt_sw_in_flight(&sw); }
  size_t queuedSegments() const override { return qlt_sw_queued(&sw) + !backlog_.empty(); }
  qlt_sw_wide_info info() const {
    qlt_sw_wide_info i;
    qlt_sw_get_wide_info(&sw, &i);
    return i;
  }
  const qlt_sw_counters& c() const { return *qlt_sw_get_counters(&sw); }

  qlt_sw sw{};
  bool down = false;
  size_t longest = 0;
  std::vector<uint8_t> written;  // the header of every frame written

 private:
  static constexpr uint16_t kSlots = 120;
  uint32_t now() const { return static_cast<uint32_t>(clock_->now() * 1e6); }
  void take(const qlt_sw_delivery& d) {
    deliver(Data(d.payload, d.len));
    if (w_.manual) ++unread_;
  }
  Wide w_;
  std::shared_ptr<Clock> clock_;
  std::array<uint8_t, QLT_SW_STORAGE(120, kSlots)> slots_{};
  std::vector<uint32_t> storage_;
  std::vector<uint8_t> backlog_;
  uint64_t consumed_ = 0, unread_ = 0;
};

sim::LinkConfig link(double loss, double dup = 0) {
  sim::LinkConfig c;
  c.lossProbability = loss;
  c.duplicationProbability = dup;
  c.delaySeconds = 0.0075;
  c.jitterSeconds = 0.004;
  c.bytesPerSecond = 160000;
  return c;
}

HarnessOptions options(double loss, double dup = 0, uint64_t seed = 1) {
  HarnessOptions o;
  o.aToB = link(loss, dup);
  o.bToA = link(loss, dup);
  o.seed = seed;
  return o;
}

using Make =
    std::function<std::unique_ptr<LinkEndpoint>(LinkHarness::Side, std::shared_ptr<Clock>)>;
Make cores(Wide a, Wide b) {
  return [a, b](LinkHarness::Side side, std::shared_ptr<Clock> clock) {
    return std::unique_ptr<LinkEndpoint>(
        new CoreEndpoint(side == LinkHarness::A ? a : b, std::move(clock)));
  };
}
CoreEndpoint& core(LinkHarness& h, LinkHarness::Side s) {
  return dynamic_cast<CoreEndpoint&>(h.endpoint(s));
}
const Wide kCentral{.role = QLT_SW_ROLE_CENTRAL, .nonce = 0xC0FFEE};
const Wide kDevice{.role = QLT_SW_ROLE_DEVICE, .nonce = 0xD0D0};

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 31 + seed + i / 251);
  return v;
}

TEST(WideLink, BothDirectionsGoExtendedAndArriveExactlyOnceOverLossAndCopies) {
  for (uint64_t seed : {1, 2, 3}) {
    ExchangePlan plan;
    plan.messagesPerSide = 6;
    plan.maxMessage = 40000;
    plan.limit = 120;
    plan.make = cores(kCentral, kDevice);
    const ExchangeResult r = runExchange(options(0.05, 0.02, seed), plan);
    EXPECT_TRUE(r.drained && r.exact[0] && r.exact[1]) << "seed " << seed;
  }
  LinkHarness h(options(0.01), cores(kCentral, kDevice));
  const auto bytes = pattern(200000, 1);
  h.a().sendTCP(bytes);
  h.b().sendTCP(bytes);
  ASSERT_TRUE(h.runUntilDrained(60));
  EXPECT_EQ(joined(h.b().delivered()), bytes);
  EXPECT_EQ(joined(h.a().delivered()), bytes);
  for (auto side : {LinkHarness::A, LinkHarness::B}) {
    const CoreEndpoint& e = core(h, side);
    EXPECT_EQ(e.info().state, QLT_SW_STATE_EXTENDED);
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
  Wide device = kDevice;
  device.recvSlots = 4;
  device.manual = true;
  device.consumePerSecond = 100;
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
    return std::unique_ptr<LinkEndpoint>(new CoreEndpoint(Wide{}, std::move(clock)));
  };
  const auto literal = [](LinkHarness::Side, std::shared_ptr<Clock> clock) {
    return makeLiteralPeer(120, 0.3, std::move(clock));
  };
  for (const Make& classic : {Make(classicCore), Make(literal)}) {
    for (auto wideSide : {LinkHarness::A, LinkHarness::B}) {
      const Wide wide = wideSide == LinkHarness::A ? kCentral : kDevice;
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
      const auto count = [&](uint8_t header) {
        return std::count(e.written.begin(), e.written.end(), header);
      };
      EXPECT_EQ(count(0x07), wideSide == LinkHarness::A ? 3 : 0) << "OFFERs";
      for (uint8_t h : e.written) {
        if (h != 0x07) {
          EXPECT_TRUE((h & 1) == 0 || ((h >> 1) & 7) <= 2) << std::hex << +h;
        }
      }
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
    for (auto s : {LinkHarness::A, LinkHarness::B}) {
      acked[s] = core(h, s).info().stream_acked;
    }
    qlt_sw_forget_session(&core(h, LinkHarness::B).sw);  // its hold time passed
  });
  ASSERT_TRUE(h.runUntilDrained(60));
  for (auto s : {LinkHarness::A, LinkHarness::B}) {
    const CoreEndpoint& e = core(h, s);
    const CoreEndpoint& peer = core(h, s == LinkHarness::A ? LinkHarness::B : LinkHarness::A);
    EXPECT_EQ(e.c().sessions_lost, 1u);
    EXPECT_EQ(e.c().sessions_resumed, 0u);
    EXPECT_GT(e.info().in_doubt, 0u) << "the drop came mid-transfer";
    // The peer has what it accepted of the old session, then the stream after the doubt.
    EXPECT_EQ(e.info().stream_acked, sent[s].size() - acked[s] - e.info().in_doubt);
    const auto delivered = joined(peer.delivered());
    ASSERT_GE(delivered.size(), e.info().stream_acked);
    const size_t old = delivered.size() - e.info().stream_acked;
    EXPECT_GE(old, acked[s]);
    EXPECT_LE(old, acked[s] + e.info().in_doubt);
    EXPECT_TRUE(
        std::equal(delivered.begin(), delivered.begin() + static_cast<long>(old), sent[s].begin()));
    EXPECT_TRUE(std::equal(delivered.begin() + static_cast<long>(old), delivered.end(),
                           sent[s].begin() + acked[s] + e.info().in_doubt));
  }
}

}  // namespace
}  // namespace qlt::test
