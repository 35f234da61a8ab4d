// The core's own promises, called as a firmware calls them: time that wraps and a queue of
// fixed slots. The recovery rules frame by frame are in tests/transports/LinkFaultTest.cpp
// (through the driver), the core against itself and an independent peer over lossy links
// there too, arbitrary frames in the fuzzers (fuzz/).
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "swcore/qlt_sw.h"

namespace {

struct Core {
  std::array<uint8_t, QLT_SW_STORAGE(120, 3)> slots{};
  qlt_sw sw{};
  explicit Core(uint32_t ackDelay = 1000) {
    qlt_sw_config cfg{};
    cfg.segment_size = 120;
    cfg.poll_timeout_us = 300000;
    cfg.ack_delay_us = ackDelay;
    cfg.slots = slots.data();
    cfg.slot_count = 3;
    EXPECT_EQ(qlt_sw_init(&sw, &cfg), 0);
  }
  // The lengths of every frame due at `now`, in order.
  std::vector<size_t> frames(uint32_t now) {
    std::vector<size_t> out;
    uint8_t frame[QLT_SW_FRAME_MAX];
    while (size_t n = qlt_sw_poll_frame(&sw, now, frame, sizeof frame)) {
      out.push_back(n);
      last.assign(frame, frame + n);
    }
    return out;
  }
  qlt_sw_kind in(std::vector<uint8_t> frame, uint32_t now) {
    return qlt_sw_receive(&sw, frame.data(), frame.size(), now, nullptr);
  }
  std::vector<uint8_t> last;
};

using Lengths = std::vector<size_t>;

}  // namespace

TEST(TheCore, KeepsItsDeadlinesAcrossTheWrapOfItsMicrosecondClock) {
  Core c;
  const uint32_t t0 = 0xFFFFFFFFu - 100000;  // 100 ms before the wrap
  const std::vector<uint8_t> bytes(10, 1);
  ASSERT_EQ(qlt_sw_send(&c.sw, bytes.data(), bytes.size()), 10u);
  EXPECT_EQ(qlt_sw_next_due(&c.sw, t0), 0u);
  EXPECT_EQ(c.frames(t0), Lengths{11});
  EXPECT_EQ(qlt_sw_next_due(&c.sw, t0), 300000u);
  EXPECT_EQ(c.frames(t0 + 299999), Lengths{}) << "wrapped, one microsecond early";
  EXPECT_EQ(c.frames(t0 + 300000), (Lengths{11, 3})) << "the segment again, then the poll";
  // A segment received owes an acknowledgement after the ack delay; polled earlier, it goes.
  const uint32_t t1 = t0 + 400000;
  EXPECT_EQ(c.in({0x00, 'a'}, t1), QLT_SW_TCP);
  EXPECT_EQ(qlt_sw_next_due(&c.sw, t1), 1000u);
  EXPECT_EQ(c.frames(t1), Lengths{1});
  EXPECT_EQ(c.last, std::vector<uint8_t>{0x13});
  EXPECT_EQ(c.in({0x13}, t1), QLT_SW_NONE);
  EXPECT_EQ(qlt_sw_next_due(&c.sw, t1), QLT_SW_IDLE) << "everything acknowledged";
  // A rejection honoured holds later ones for a round trip; after 40 minutes of silence
  // (more than half the clock's period) the hold is long over.
  const std::vector<uint8_t> three(360, 3);
  qlt_sw_send(&c.sw, three.data(), three.size());
  EXPECT_EQ(c.frames(t1), (Lengths{121, 121, 121}));
  c.in({0x25}, t1);  // segment 2 (of 1, 2, 3) is missing
  EXPECT_EQ(c.frames(t1), (Lengths{121, 121}));
  c.in({0x35}, t1 + 2400000000u);
  EXPECT_EQ(qlt_sw_get_counters(&c.sw)->rejections_honoured, 2u);
}

TEST(TheCore, QueuesWholeSegmentsIntoItsSlotsAndNeverJoinsTwoMessages) {
  Core c;
  std::vector<uint8_t> big(370, 7), small(5, 9);
  EXPECT_EQ(qlt_sw_send(&c.sw, big.data(), big.size()), 360u) << "three slots: 3 x 120";
  EXPECT_EQ(qlt_sw_send_space(&c.sw), 0u);
  EXPECT_EQ(qlt_sw_send(&c.sw, small.data(), small.size()), 0u);
  EXPECT_EQ(c.frames(0), (Lengths{121, 121, 121}));
  EXPECT_EQ(c.in({0x23}, 10), QLT_SW_NONE);  // two acknowledged: two slots free
  EXPECT_EQ(qlt_sw_send(&c.sw, big.data() + 360, 10), 10u);
  EXPECT_EQ(qlt_sw_send(&c.sw, small.data(), small.size()), 5u);
  EXPECT_EQ(c.frames(10), (Lengths{11, 6})) << "the tail and the next message: two segments";
  EXPECT_EQ(qlt_sw_get_counters(&c.sw)->bytes_queued, 135u);
  EXPECT_EQ(c.in({0x13}, 20), QLT_SW_NONE);  // 2, 3 and 0 (wrapped) acknowledged
  EXPECT_EQ(qlt_sw_queued(&c.sw), 0u);
  EXPECT_EQ(qlt_sw_get_counters(&c.sw)->bytes_queued, 0u);
}
