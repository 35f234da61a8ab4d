// A session across links that drop at awkward moments, frame by frame: a central and a device
// core back to back, every frame handed over at once unless a test refuses it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/WideCore.h"

namespace qlt::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Keep = std::function<bool(uint8_t header)>;

Bytes pattern(size_t n, uint8_t seed) {
  Bytes v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + seed);
  return v;
}

struct Pair {
  WideCore c{WideParams{.role = QLT_SW_ROLE_CENTRAL, .nonce = 0xC1}};
  WideCore d{WideParams{.role = QLT_SW_ROLE_DEVICE, .nonce = 0xD1}};
  Bytes gotByC, writtenByD;
  uint32_t now = 0, nonce = 0x100;

  // One round of `from`: its frames reach `to` unless `keep` refuses them.
  void round(WideCore& from, WideCore& to, Bytes& got, Bytes* written, const Keep& keep) {
    uint8_t f[600];
    qlt_sw_delivery dl;
    while (size_t n = qlt_sw_poll_frame(&from.sw, now, f, sizeof f)) {
      if (written) written->push_back(f[0]);
      if (keep && !keep(f[0])) continue;
      if (qlt_sw_receive(&to.sw, f, n, now, &dl) == QLT_SW_TCP)
        got.insert(got.end(), dl.payload, dl.payload + dl.len);
      while (qlt_sw_take_delivery(&to.sw, &dl))
        got.insert(got.end(), dl.payload, dl.payload + dl.len);
    }
  }
  void run(uint32_t ms, const Keep& toDevice = {}, const Keep& toCentral = {}) {
    Bytes ignored;
    for (uint32_t i = 0; i < ms; ++i, now += 1000) {
      round(c, d, ignored, nullptr, toDevice);
      round(d, c, gotByC, &writtenByD, toCentral);
    }
  }
  void dropLink(const std::function<void()>& whileDown = {}) {
    for (WideCore* e : {&c, &d}) qlt_sw_link_lost(&e->sw);
    if (whileDown) whileDown();
    for (WideCore* e : {&c, &d}) qlt_sw_link_up(&e->sw, ++nonce);
  }
  void send(const Bytes& b) { ASSERT_EQ(qlt_sw_send(&d.sw, b.data(), b.size()), b.size()); }
};
const Keep kNothing = [](uint8_t) { return false; };

TEST(WideSession, ALinkThatDropsBeforeResumingLeavesTheBytesOfEarlierLinksSent) {
  Pair p;
  p.run(20);
  ASSERT_EQ(p.d.info().send_extended, 2);
  const Bytes a = pattern(300, 1);
  p.send(a);
  p.run(5, kNothing);  // the central has it all; no acknowledgement reaches the device
  ASSERT_EQ(p.gotByC, a);
  p.dropLink();
  p.dropLink();  // before anything was written on it
  p.run(50);
  EXPECT_EQ(p.gotByC, a) << "resumed where the central is, nothing twice";
  EXPECT_EQ(p.d.c().sessions_resumed, 1u);
  EXPECT_EQ(p.d.c().sessions_lost, 0u);
}

// Each block: a new session begins after bytes went on a link, its first bytes reach the
// central but not their acknowledgements, and the next link resumes.
TEST(WideSession, ANewSessionCountsItsOffsetsFromTheLinkItBeganOn) {
  const Bytes first = pattern(50, 2), later = pattern(200, 3);
  const auto resumeAfter = [&](Pair& p) {
    p.run(20);
    ASSERT_EQ(p.d.info().send_extended, 2);
    p.send(later);
    p.run(3, kNothing);
    p.dropLink();
    p.run(50);
    Bytes expect = first;
    expect.insert(expect.end(), later.begin(), later.end());
    EXPECT_EQ(p.gotByC, expect) << "resumed where the central is: nothing lost or twice";
    EXPECT_EQ(p.d.c().sessions_resumed, 1u);
  };
  {  // the first link stayed classic (no OFFER got through), its bytes acknowledged
    Pair p;
    p.send(first);
    p.run(400, [](uint8_t h) { return h != 0x07; });
    ASSERT_EQ(p.c.info().state, QLT_SW_STATE_CLASSIC);
    ASSERT_EQ(p.gotByC, first);
    p.dropLink();
    resumeAfter(p);
  }
  {  // the device forgot its session and wrote before the central's OFFER arrived
    Pair p;
    p.run(20);
    p.dropLink([&] { qlt_sw_forget_session(&p.d.sw); });
    p.send(first);
    p.round(p.d, p.c, p.gotByC, nullptr, {});
    ASSERT_EQ(p.gotByC, first);
    resumeAfter(p);
  }
}

TEST(WideSession, AResumedDeviceAsksAgainUntilItHearsWhetherItsAnswerWasTaken) {
  Pair p;
  p.run(20);
  ASSERT_EQ(p.d.info().send_extended, 2);
  p.dropLink();
  const Bytes a = pattern(100, 4);
  p.send(a);
  p.writtenByD.clear();
  p.run(2000, [](uint8_t h) { return h != 0x27; });  // every CONFIRM is lost
  EXPECT_GT(std::count(p.writtenByD.begin(), p.writtenByD.end(), 0x17), 3) << "beyond 3 ANSWERs";
  EXPECT_TRUE(p.gotByC.empty()) << "its data waits for the answer";
  p.run(400);
  EXPECT_EQ(p.gotByC, a);
  EXPECT_EQ(p.d.c().sessions_resumed, 1u);
}

}  // namespace
}  // namespace qlt::test
