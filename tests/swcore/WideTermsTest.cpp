// The wide window's negotiation frames (docs/wide-window.md, "Checks on an OFFER or
// ANSWER"); the fuzz corpus replay checks that any OFFER or ANSWER reads back as written.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "swcore/qlt_sw_wide.h"

namespace {

qlt_sw_wide_terms terms(uint16_t segment, uint16_t window, uint8_t version = 1) {
  return qlt_sw_wide_terms{version, 0, segment, window, 0x11223344u, 0, 0};
}

TEST(WideTerms, ReadsOnlyWellFormedNegotiationFrames) {
  std::array<uint8_t, 19> offer{}, answer{};
  qlt_sw_wide_terms t = terms(241, 300, 0);
  ASSERT_EQ(qlt_sw_wide_write_terms(QLT_SW_WIDE_OFFER, &t, offer.data(), 19), 19u);
  ASSERT_EQ(qlt_sw_wide_write_terms(QLT_SW_WIDE_ANSWER, &t, answer.data(), 19), 19u);
  EXPECT_EQ(std::vector<uint8_t>(offer.begin() + 3, offer.begin() + 8),
            (std::vector<uint8_t>{241, 0, 0x2C, 1, 0x44}));                     // little-endian
  EXPECT_EQ(qlt_sw_wide_read(offer.data(), 19, &t), QLT_SW_WIDE_MALFORMED);     // version 0
  EXPECT_EQ(qlt_sw_wide_read(answer.data(), 19, &t), QLT_SW_WIDE_READ_ANSWER);  // declined
  EXPECT_EQ(qlt_sw_wide_read(answer.data(), 18, &t), QLT_SW_WIDE_MALFORMED);    // short
  for (uint8_t h : {0x00, 0x02, 0x01, 0x13, 0x25, 0x47, 0x09, 0x0B})
    EXPECT_EQ(qlt_sw_wide_read(&h, 1, &t), QLT_SW_WIDE_NOT_OURS) << +h;
}

TEST(WideTerms, APeersSizesAreClampedToThisEndOrRefusedWhenAbsurd) {
  uint16_t segment = 0, window = 0;
  // Never beyond this end's buffers, nor half the sequence space.
  qlt_sw_wide_terms peer = terms(65535, 65535);
  EXPECT_EQ(qlt_sw_wide_fit(&peer, 17, 8, &segment, &window), QLT_SW_WIDE_CLAMPED);
  EXPECT_EQ(segment + window, 17 + 8);
  EXPECT_EQ(qlt_sw_wide_fit(&peer, 241, 65535, &segment, &window), QLT_SW_WIDE_CLAMPED);
  EXPECT_EQ(window, QLT_SW_WIDE_MAX_WINDOW);
  for (const auto& absurd : {terms(15, 8), terms(241, 0)})
    EXPECT_EQ(qlt_sw_wide_fit(&absurd, 241, 8, &segment, &window), QLT_SW_WIDE_ABSURD);
}

}  // namespace
