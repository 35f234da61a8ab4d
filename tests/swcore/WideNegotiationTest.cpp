// The negotiation frame by frame: what each end writes for what it reads, and what it
// refuses, clamps or ignores (docs/wide-window.md, "Negotiation" and "Checks").
#include <gtest/gtest.h>

#include "support/WideCore.h"

namespace {

using Frame = std::vector<uint8_t>;
using Frames = std::vector<Frame>;

struct End : qlt::test::WideCore {
  explicit End(uint8_t role)
      : WideCore({.role = role, .segment = 300, .sendSlots = 8, .recvSlots = 8}) {
    EXPECT_TRUE(initialized);
  }
  Frames frames(uint32_t now) {
    Frames out;
    uint8_t f[600];
    while (size_t n = qlt_sw_poll_frame(&sw, now, f, sizeof f)) out.emplace_back(f, f + n);
    return out;
  }
  Frames in(const Frame& f, uint32_t now) {
    qlt_sw_receive(&sw, f.data(), f.size(), now, nullptr);
    return frames(now);
  }
  qlt_sw_wide_state state() const { return info().state; }
  uint64_t faults() const { return c().wide_faults; }
};

Frame terms(uint8_t header, uint8_t version, uint16_t segment, uint16_t window,
            uint32_t central = 77, uint32_t device = 0) {
  qlt_sw_wide_terms t{version, 0, segment, window, central, device, 0};
  Frame f(19);
  qlt_sw_wide_write_terms(header, &t, f.data(), f.size());
  return f;
}
Frame offer(uint16_t segment, uint16_t window, uint8_t version = 1) {
  return terms(QLT_SW_WIDE_OFFER, version, segment, window, 0xAB);
}
const Frame kConfirm{0x27}, kDecline{0x37};

TEST(WideNegotiation, TheDeviceAnswersOnlyAnOfferItCanTakeAndStandsByItsFirstAnswer) {
  {  // too short, twice: ignored and counted
    End d(QLT_SW_ROLE_DEVICE);
    Frame shortOffer = offer(200, 8);
    shortOffer.pop_back();
    EXPECT_TRUE(d.in(shortOffer, 0).empty());
    EXPECT_TRUE(d.in(shortOffer, 10).empty());
    EXPECT_EQ(d.faults(), 2u);
    EXPECT_TRUE(d.in(kConfirm, 20).empty()) << "a CONFIRM nobody asked for";
  }
  for (const Frame& absurd : {offer(15, 8), offer(200, 0)}) {
    End d(QLT_SW_ROLE_DEVICE);
    EXPECT_EQ(d.in(absurd, 0), Frames{terms(QLT_SW_WIDE_ANSWER, 0, 0, 0, 0)}) << "declined";
    EXPECT_EQ(d.state(), QLT_SW_STATE_CLASSIC);
  }
  End d(QLT_SW_ROLE_DEVICE);
  const Frames first = d.in(offer(65535, 65535, 9), 0);
  ASSERT_EQ(first.size(), 1u);
  const Frame answer = first[0];
  qlt_sw_wide_terms t{};
  ASSERT_EQ(qlt_sw_wide_read(answer.data(), answer.size(), &t), QLT_SW_WIDE_READ_ANSWER);
  EXPECT_EQ(t.version, 1) << "a later version is taken as 1";
  EXPECT_EQ(t.segment, 241) << "its own limit: the value limit less 3";
  EXPECT_EQ(t.central_nonce, 0xABu);
  EXPECT_EQ(d.in(offer(65535, 65535, 9), 5), Frames{answer}) << "the same OFFER, the same ANSWER";
  EXPECT_TRUE(d.in(offer(200, 8), 6).empty()) << "a different OFFER is contradictory";
  // Unconfirmed, it answers again after its rto, twice at most, and stays classic.
  EXPECT_EQ(d.frames(300000 + 5), Frames{answer});
  EXPECT_EQ(d.frames(600000 + 5), Frames{answer});
  EXPECT_TRUE(d.frames(2000000).empty());
  EXPECT_EQ(d.state(), QLT_SW_STATE_ANSWERED);
  EXPECT_TRUE(d.in(kConfirm, 2000001).empty());
  EXPECT_EQ(d.info().state, QLT_SW_STATE_EXTENDED);
  EXPECT_EQ(d.info().send_segment + d.info().send_window, 241 + 8) << "65535 each, clamped";
  EXPECT_EQ(d.faults(), 2u) << "contradictory, clamped";
}

TEST(WideNegotiation, TheCentralTakesOneAnswerToItsOwnOfferAndRefusesTheRest) {
  const std::vector<uint8_t> data(50, 1);
  const auto answerTo = [](uint16_t segment, uint16_t window, uint8_t version = 1,
                           uint32_t central = 77) {
    return terms(QLT_SW_WIDE_ANSWER, version, segment, window, central, 99);
  };
  {
    End c(QLT_SW_ROLE_CENTRAL);
    const Frame early = answerTo(200, 8);
    qlt_sw_receive(&c.sw, early.data(), early.size(), 0, nullptr);  // before its OFFER
    EXPECT_EQ(c.faults(), 1u);
    qlt_sw_send(&c.sw, data.data(), data.size());
    const Frames first = c.frames(0);
    ASSERT_EQ(first.size(), 2u) << "the OFFER, then the classic segment: no wait";
    EXPECT_EQ(first[0][0], 0x07);
    EXPECT_EQ(first[1][0], 0x00);
    EXPECT_TRUE(c.in(answerTo(200, 8, 1, 78), 1).empty()) << "another central's nonce";
    EXPECT_EQ(c.in(answerTo(200, 8), 2), Frames{kConfirm});
    EXPECT_EQ(c.in(answerTo(200, 8), 3), Frames{kConfirm}) << "the first may have been lost";
    EXPECT_TRUE(c.in(answerTo(100, 8), 4).empty()) << "contradictory";
    EXPECT_EQ(c.state(), QLT_SW_STATE_EXTENDED);
    // Extended, once the classic segment is acknowledged; an ACK beyond what was sent is
    // refused.
    EXPECT_EQ(c.in({0x13}, 5), Frames{});
    qlt_sw_send(&c.sw, data.data(), data.size());
    ASSERT_EQ(c.frames(6).size(), 1u);
    EXPECT_TRUE(c.in({0x0B, 5, 0, 8, 0, 0}, 7).empty());
    EXPECT_EQ(c.faults(), 4u) << "unsolicited, nonce, contradictory, the ACK";
  }
  for (const Frame& bad : {answerTo(200, 8, 2), answerTo(10, 8), answerTo(200, 0)}) {
    End c(QLT_SW_ROLE_CENTRAL);
    c.frames(0);
    EXPECT_EQ(c.in(bad, 1), Frames{kDecline});
    EXPECT_EQ(c.state(), QLT_SW_STATE_CLASSIC);
    EXPECT_EQ(c.in(answerTo(200, 8), 2), Frames{kDecline}) << "classic for the link";
  }
  End c(QLT_SW_ROLE_CENTRAL);
  EXPECT_EQ(c.frames(0).size() + c.frames(99999).size(), 1u);
  EXPECT_EQ(c.frames(100000).size(), 1u) << "again at W/3";
  EXPECT_EQ(c.frames(200000).size(), 1u) << "and 2W/3";
  EXPECT_EQ(qlt_sw_next_due(&c.sw, 299999), 1u);
  EXPECT_EQ(c.frames(300000).size(), 0u);
  EXPECT_EQ(c.state(), QLT_SW_STATE_CLASSIC) << "no answer in W";
  EXPECT_EQ(c.in(answerTo(200, 8), 300001), Frames{kDecline}) << "too late";
}

}  // namespace
