#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "QueltLibrary/SlideWindowFrame.h"

using namespace qlt;
using Bytes = std::vector<uint8_t>;

TEST(TheFrameFormat, BuildsEachKindByteForByteAndNothingThatDoesNotFit) {
  std::array<uint8_t, 121> buf{};
  const uint8_t payload[] = {0xAA, 0xBB};
  auto built = [&](size_t n) { return Bytes(buf.begin(), buf.begin() + n); };
  EXPECT_EQ(built(buildSegment(buf, 7, payload)), (Bytes{0x30, 0xAA, 0xBB}));  // 7 modulo 4
  EXPECT_EQ(built(buildDatagram(buf, payload)), (Bytes{0x02, 0xAA, 0xBB}));
  EXPECT_EQ(built(buildPoll(buf, 1, 3)), (Bytes{0x01, 0x01, 0x03}));
  EXPECT_EQ((Bytes{ackHeader(0), ackHeader(3), rejectHeader(1)}), (Bytes{0x03, 0x33, 0x15}));
  EXPECT_EQ(buildSegment(buf, 0, Bytes(120, 7)), 121u);  // fills the buffer exactly
  buf[0] = 0xEE;
  EXPECT_EQ(buildSegment(buf, 1, Bytes(121, 7)), 0u);  // one byte too many: nothing written
  EXPECT_EQ(buildPoll(std::span(buf.data(), 2), 0, 1), 0u);
  EXPECT_EQ(buf[0], 0xEE);
}

TEST(TheFrameFormat, ParsesEachKindWithinTheSpanAndCallsShortFramesMalformed) {
  const std::tuple<Bytes, FrameKind, int, size_t> cases[] = {
      {{}, FrameKind::Malformed, -1, 0},
      {{0x01, 0x00}, FrameKind::Malformed, -1, 0},  // a poll needs 3 bytes
      {{0x10}, FrameKind::Malformed, -1, 0},        // a segment needs a payload
      {{0x40, 1, 2}, FrameKind::Segment, 4, 2},     // the whole nibble, never matched
      {{0xF2}, FrameKind::Datagram, -1, 0},  // any data frame with bit 1; header only is empty
      {{0x23}, FrameKind::Ack, 2, 0},
      {{0x15}, FrameKind::Reject, 1, 0},
      {{0x0F}, FrameKind::OtherControl, -1, 0}};
  for (const auto& [frame, kind, sequence, payload] : cases) {
    const auto p = parseFrame(frame);
    EXPECT_EQ(p.kind, kind) << testing::PrintToString(frame);
    EXPECT_TRUE(sequence < 0 || p.sequence == sequence) << testing::PrintToString(frame);
    EXPECT_EQ(p.payload.size(), payload) << testing::PrintToString(frame);
  }
  const Bytes big = {0x01, 0x02, 0x03, 0x99};  // a view of a larger buffer: only the view counts
  EXPECT_EQ(parseFrame(std::span(big.data(), 2)).kind, FrameKind::Malformed);
  auto poll = parseFrame(std::span(big.data(), 3));
  EXPECT_EQ(std::make_tuple(poll.kind, poll.pollFirst, poll.pollNext),
            std::make_tuple(FrameKind::Poll, uint8_t{2}, uint8_t{3}));
  EXPECT_EQ(describeFrame(Bytes{0x01, 0, 3}, true), "→ poll 0..3");
  EXPECT_EQ(describeFrame(Bytes{0x0B}, false), "← ctl type=5 1 B");
}

TEST(TheFrameFormat, ComparesUnwrappedSequenceNumbers) {
  // Window 3..1 (3, 0, 1 in flight): 3, 0, 1 are inside, 2 is not; 1 is its end.
  // An empty window 2..2 holds only its start (inclusive) and nothing (exclusive).
  const std::tuple<uint8_t, uint8_t, uint8_t, bool, bool> cases[] = {
      {3, 3, 1, true, true},   {3, 0, 1, true, true},  {3, 1, 1, true, false},
      {3, 2, 1, false, false}, {2, 2, 2, true, false}, {0, 4, 3, false, false}};
  for (auto [a, x, b, inclusive, exclusive] : cases) {
    EXPECT_EQ(inWindowInclusive(a, x, b), inclusive) << int(a) << int(x) << int(b);
    EXPECT_EQ(inWindowExclusive(a, x, b), exclusive) << int(a) << int(x) << int(b);
  }
  EXPECT_EQ(sequenceDistance(3, 1), 2);
  EXPECT_EQ(sequenceDistance(1, 1), 0);
}
