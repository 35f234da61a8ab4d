#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "QueltLibrary/SlideWindowFrame.h"

using namespace qlt;

namespace {
std::vector<uint8_t> bytes(std::initializer_list<uint8_t> b) { return b; }
}  // namespace

TEST(TheFrameFormat, BuildsEachKindByteForByte) {
  std::array<uint8_t, 121> buf{};
  const uint8_t payload[] = {0xAA, 0xBB};
  ASSERT_EQ(buildSegment(buf, 2, payload), 3u);
  EXPECT_EQ(buf[0], 0x20);
  EXPECT_EQ(buf[2], 0xBB);
  ASSERT_EQ(buildSegment(buf, 7, payload), 3u);  // sequence taken modulo 4
  EXPECT_EQ(buf[0], 0x30);
  ASSERT_EQ(buildDatagram(buf, payload), 3u);
  EXPECT_EQ(buf[0], 0x02);
  ASSERT_EQ(buildPoll(buf, 1, 3), 3u);
  EXPECT_EQ(bytes({buf[0], buf[1], buf[2]}), bytes({0x01, 0x01, 0x03}));
  EXPECT_EQ(ackHeader(3), 0x33);
  EXPECT_EQ(ackHeader(0), 0x03);
  EXPECT_EQ(rejectHeader(1), 0x15);

  // A full segment fits the 121-byte buffer exactly; one more byte does not, and nothing
  // is written then.
  std::array<uint8_t, 121> big{};
  std::vector<uint8_t> p120(120, 7), p121(121, 7);
  EXPECT_EQ(buildSegment(big, 0, p120), 121u);
  big[0] = 0xEE;
  EXPECT_EQ(buildSegment(big, 1, p121), 0u);
  EXPECT_EQ(big[0], 0xEE);
  EXPECT_EQ(buildPoll(std::span(big.data(), 2), 0, 1), 0u);
}

TEST(TheFrameFormat, ParsesWithinTheSpanAndCallsShortFramesMalformed) {
  EXPECT_EQ(parseFrame({}).kind, FrameKind::Malformed);
  auto shortPoll = bytes({0x01, 0x00});
  EXPECT_EQ(parseFrame(shortPoll).kind, FrameKind::Malformed);
  auto headerOnlySegment = bytes({0x10});
  EXPECT_EQ(parseFrame(headerOnlySegment).kind, FrameKind::Malformed);

  // Parse a view of a larger buffer: nothing beyond the view may count.
  auto big = bytes({0x01, 0x02, 0x03, 0x99});
  EXPECT_EQ(parseFrame(std::span(big.data(), 2)).kind, FrameKind::Malformed);
  auto poll = parseFrame(std::span(big.data(), 3));
  EXPECT_EQ(poll.kind, FrameKind::Poll);
  EXPECT_EQ(poll.pollFirst, 2);
  EXPECT_EQ(poll.pollNext, 3);

  auto seg = parseFrame(bytes({0x40, 1, 2}));
  EXPECT_EQ(seg.kind, FrameKind::Segment);
  EXPECT_EQ(seg.sequence, 4);  // the whole nibble, never matched by a reader
  EXPECT_EQ(seg.payload.size(), 2u);

  // A datagram is any data frame with bit 1 set; header only is an empty payload.
  auto dgram = parseFrame(bytes({0xF2}));
  EXPECT_EQ(dgram.kind, FrameKind::Datagram);
  EXPECT_TRUE(dgram.payload.empty());

  EXPECT_EQ(parseFrame(bytes({0x23})).kind, FrameKind::Ack);
  EXPECT_EQ(parseFrame(bytes({0x23})).sequence, 2);
  EXPECT_EQ(parseFrame(bytes({0x15})).kind, FrameKind::Reject);
  EXPECT_EQ(parseFrame(bytes({0x07})).kind, FrameKind::OtherControl);
  EXPECT_EQ(parseFrame(bytes({0x0F})).kind, FrameKind::OtherControl);
}

TEST(TheFrameFormat, ComparesUnwrappedSequenceNumbers) {
  // Window 3..1 (3, 0, 1 in flight): 3, 0, 1 are inside, 2 is not.
  EXPECT_TRUE(inWindowInclusive(3, 3, 1));
  EXPECT_TRUE(inWindowInclusive(3, 0, 1));
  EXPECT_TRUE(inWindowInclusive(3, 1, 1));
  EXPECT_FALSE(inWindowInclusive(3, 2, 1));
  EXPECT_FALSE(inWindowExclusive(3, 1, 1));
  EXPECT_TRUE(inWindowExclusive(3, 0, 1));
  // An empty window holds only its start (inclusive) and nothing (exclusive).
  EXPECT_TRUE(inWindowInclusive(2, 2, 2));
  EXPECT_FALSE(inWindowExclusive(2, 2, 2));
  EXPECT_FALSE(inWindowInclusive(0, 4, 3));
  EXPECT_EQ(sequenceDistance(3, 1), 2);
  EXPECT_EQ(sequenceDistance(1, 1), 0);
}

TEST(TheFrameFormat, DescribesFramesInOneLine) {
  std::vector<uint8_t> seg(121, 0);
  seg[0] = 0x10;
  EXPECT_EQ(describeFrame(seg, true), "→ seg seq=1 120 B");
  std::vector<uint8_t> dgram(13, 0);
  dgram[0] = 0x02;
  EXPECT_EQ(describeFrame(dgram, true), "→ dgram 12 B");
  EXPECT_EQ(describeFrame(bytes({0x23}), false), "← ack R=2");
  EXPECT_EQ(describeFrame(bytes({0x15}), false), "← rej R=1");
  EXPECT_EQ(describeFrame(bytes({0x01, 0, 3}), true), "→ poll 0..3");
  EXPECT_EQ(describeFrame(bytes({0x01}), false), "← malformed 1 B");
  EXPECT_EQ(describeFrame({}, false), "← malformed 0 B");
  EXPECT_EQ(describeFrame(bytes({0x0B}), false), "← ctl type=5 1 B");
}
