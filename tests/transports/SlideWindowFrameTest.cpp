#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "QueltLibrary/SlideWindowFrame.h"

using namespace qlt;

namespace {
std::vector<uint8_t> bytes(std::initializer_list<uint8_t> b) { return b; }
}  // namespace

TEST(TheFrameFormat, BuildsEachKindByteForByteAndNothingThatDoesNotFit) {
  std::array<uint8_t, 121> buf{};
  const uint8_t payload[] = {0xAA, 0xBB};
  ASSERT_EQ(buildSegment(buf, 2, payload), 3u);
  EXPECT_EQ(bytes({buf[0], buf[1], buf[2]}), bytes({0x20, 0xAA, 0xBB}));
  ASSERT_EQ(buildSegment(buf, 7, payload), 3u);  // sequence taken modulo 4
  EXPECT_EQ(buf[0], 0x30);
  ASSERT_EQ(buildDatagram(buf, payload), 3u);
  EXPECT_EQ(buf[0], 0x02);
  ASSERT_EQ(buildPoll(buf, 1, 3), 3u);
  EXPECT_EQ(bytes({buf[0], buf[1], buf[2]}), bytes({0x01, 0x01, 0x03}));
  EXPECT_EQ(bytes({ackHeader(0), ackHeader(3), rejectHeader(1)}), bytes({0x03, 0x33, 0x15}));

  // A full segment fits the 121-byte buffer exactly; one more byte does not, and nothing
  // is written then.
  std::vector<uint8_t> p120(120, 7), p121(121, 7);
  EXPECT_EQ(buildSegment(buf, 0, p120), 121u);
  buf[0] = 0xEE;
  EXPECT_EQ(buildSegment(buf, 1, p121), 0u);
  EXPECT_EQ(buildPoll(std::span(buf.data(), 2), 0, 1), 0u);
  EXPECT_EQ(buf[0], 0xEE);
}

TEST(TheFrameFormat, ParsesEachKindWithinTheSpanAndCallsShortFramesMalformed) {
  struct Case {
    std::vector<uint8_t> frame;
    FrameKind kind;
    int sequence;      // -1: not looked at
    size_t payload;
  };
  const Case cases[] = {
      {{}, FrameKind::Malformed, -1, 0},
      {{0x01, 0x00}, FrameKind::Malformed, -1, 0},  // a poll needs 3 bytes
      {{0x10}, FrameKind::Malformed, -1, 0},        // a segment needs a payload
      {{0x40, 1, 2}, FrameKind::Segment, 4, 2},     // the whole nibble, never matched
      {{0x30, 1}, FrameKind::Segment, 3, 1},
      {{0xF2}, FrameKind::Datagram, -1, 0},  // any data frame with bit 1; header only is empty
      {{0x23}, FrameKind::Ack, 2, 0},
      {{0x15}, FrameKind::Reject, 1, 0},
      {{0x07}, FrameKind::OtherControl, -1, 0},
      {{0x0F}, FrameKind::OtherControl, -1, 0},
  };
  for (const auto& c : cases) {
    const auto p = parseFrame(c.frame);
    EXPECT_EQ(p.kind, c.kind) << testing::PrintToString(c.frame);
    EXPECT_TRUE(c.sequence < 0 || p.sequence == c.sequence) << testing::PrintToString(c.frame);
    EXPECT_EQ(p.payload.size(), c.payload) << testing::PrintToString(c.frame);
  }
  // A view of a larger buffer: nothing beyond the view may count.
  auto big = bytes({0x01, 0x02, 0x03, 0x99});
  EXPECT_EQ(parseFrame(std::span(big.data(), 2)).kind, FrameKind::Malformed);
  auto poll = parseFrame(std::span(big.data(), 3));
  EXPECT_EQ(poll.kind, FrameKind::Poll);
  EXPECT_EQ(poll.pollFirst, 2);
  EXPECT_EQ(poll.pollNext, 3);
}

TEST(TheFrameFormat, ComparesUnwrappedSequenceNumbers) {
  // Window 3..1 (3, 0, 1 in flight): 3, 0, 1 are inside, 2 is not; 1 is its end.
  // An empty window 2..2 holds only its start (inclusive) and nothing (exclusive).
  const std::tuple<uint8_t, uint8_t, uint8_t, bool, bool> cases[] = {
      {3, 3, 1, true, true},  {3, 0, 1, true, true},   {3, 1, 1, true, false},
      {3, 2, 1, false, false}, {2, 2, 2, true, false}, {0, 4, 3, false, false}};
  for (auto [a, x, b, inclusive, exclusive] : cases) {
    EXPECT_EQ(inWindowInclusive(a, x, b), inclusive) << int(a) << int(x) << int(b);
    EXPECT_EQ(inWindowExclusive(a, x, b), exclusive) << int(a) << int(x) << int(b);
  }
  EXPECT_EQ(sequenceDistance(3, 1), 2);
  EXPECT_EQ(sequenceDistance(1, 1), 0);
}

TEST(TheFrameFormat, DescribesFramesInOneLine) {
  std::vector<uint8_t> seg(121, 0), dgram(13, 0);
  seg[0] = 0x10;
  dgram[0] = 0x02;
  EXPECT_EQ(describeFrame(seg, true), "→ seg seq=1 120 B");
  EXPECT_EQ(describeFrame(dgram, true), "→ dgram 12 B");
  const std::pair<std::vector<uint8_t>, const char*> incoming[] = {
      {{0x23}, "← ack R=2"}, {{0x15}, "← rej R=1"}, {{0x01, 0, 3}, "← poll 0..3"},
      {{0x01}, "← malformed 1 B"}, {{}, "← malformed 0 B"}, {{0x0B}, "← ctl type=5 1 B"}};
  for (const auto& [f, line] : incoming) EXPECT_EQ(describeFrame(f, false), line);
}
