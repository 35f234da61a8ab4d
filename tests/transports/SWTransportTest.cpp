// The sliding-window engine as SWTransport and BLESlideWindow show it, with the rounds
// driven by the test on a ManualClock (no worker thread).
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "support/AllocationCounter.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using qlt::test::FrameSink;
using qlt::test::PayloadInbox;

namespace {

std::vector<uint8_t> pattern(size_t n, uint8_t start = 0) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}
Data frame(std::initializer_list<uint8_t> b) { return Data(std::vector<uint8_t>(b)); }
// "header:length" of each frame, e.g. {"00:121", "10:121"}.
std::vector<std::string> shapes(const std::vector<Data>& frames) {
  std::vector<std::string> out;
  for (const auto& f : frames) {
    char buf[32];
    snprintf(buf, sizeof buf, "%02x:%zu", f.empty() ? 0 : f[0], f.length());
    out.push_back(buf);
  }
  return out;
}
using Shapes = std::vector<std::string>;

class AnSWTransport : public ::testing::Test {
 protected:
  void SetUp() override {
    transport->setSenderDelegate(wire);
    transport->addDelegate(inbox, inbox->queue());
    transport->moduleQueue()->sync([] {});  // the addition has taken effect
  }
  void round() {
    transport->transfer();
    transport->checkControl();
    transport->doPendingWork();
  }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<SWTransport> transport = SWTransport::create(clock);
  std::shared_ptr<FrameSink> wire = std::make_shared<FrameSink>();
  std::shared_ptr<PayloadInbox> inbox = std::make_shared<PayloadInbox>();
};

}  // namespace

TEST_F(AnSWTransport, SendsThreeSegmentsPerWindowAndTheFourthAfterAnAck) {
  auto msg = pattern(370);
  transport->sendTCP(msg.data(), msg.size());
  EXPECT_EQ(transport->queuedSegments(), 4u);
  EXPECT_EQ(transport->counters().bytesQueued, 370u);

  round();
  auto frames = wire->take();
  EXPECT_EQ(shapes(frames), (Shapes{"00:121", "10:121", "20:121"}));
  EXPECT_EQ(frames[1][1], 120);  // second segment starts at byte 120 of the message
  round();
  EXPECT_TRUE(wire->take().empty()) << "the window is full";

  transport->receive(frame({0x13}));  // acknowledges segment 0
  EXPECT_EQ(transport->readPos(), 1u);
  round();
  frames = wire->take();
  EXPECT_EQ(shapes(frames), (Shapes{"30:11"}));
  EXPECT_EQ(frames[0][1], static_cast<uint8_t>(360));
  EXPECT_EQ(transport->counters().bytesQueued, 250u);
}

TEST_F(AnSWTransport, ReleasesWhatACumulativeAckCoversAndIgnoresOthers) {
  auto msg = pattern(600);  // five segments
  transport->sendTCP(msg.data(), msg.size());
  round();
  wire->take();
  transport->receive(frame({0x23}));  // 0 and 1 arrived
  EXPECT_EQ(transport->readPos(), 2u);
  EXPECT_EQ(transport->queuedSegments(), 3u);
  round();
  EXPECT_EQ(shapes(wire->take()), (Shapes{"30:121", "00:121"}));  // 2, 3, 0 in flight

  transport->receive(frame({0x23}));  // equal to the oldest: releases nothing
  EXPECT_EQ(transport->readPos(), 2u);
  transport->receive(frame({0x33}));  // segment 2
  EXPECT_EQ(transport->readPos(), 3u);
  transport->receive(frame({0x23}));  // behind the window now: ignored
  EXPECT_EQ(transport->readPos(), 3u);
  transport->receive(frame({0x13}));  // 3 and 0: all released
  EXPECT_EQ(transport->readPos(), 5u);
  EXPECT_EQ(transport->counters().bytesQueued, 0u);
  EXPECT_EQ(transport->counters().acksReceived, 5u);

  // Three in flight from 0: 0x33 releases all three at once.
  auto two = std::make_shared<ManualClock>();
  auto other = SWTransport::create(two);
  auto sink = std::make_shared<FrameSink>();
  other->setSenderDelegate(sink);
  auto p = pattern(360);
  other->sendTCP(p.data(), p.size());
  other->transfer();
  other->receive(frame({0x33}));
  EXPECT_EQ(other->readPos(), 3u);
  EXPECT_EQ(other->inFlight(), 0u);
}

TEST_F(AnSWTransport, GoesBackOnARejectionInsideTheWindowWithTheOldSequenceNumbers) {
  auto msg = pattern(360);
  transport->sendTCP(msg.data(), msg.size());
  round();
  auto first = wire->take();
  transport->receive(frame({0x35}));  // 3 is the next send sequence: outside, ignored
  round();
  EXPECT_TRUE(wire->take().empty());

  transport->receive(frame({0x15}));  // segment 1 missing
  EXPECT_EQ(transport->ackWindow(), 1);
  round();
  auto again = wire->take();
  ASSERT_EQ(shapes(again), (Shapes{"10:121", "20:121"}));
  EXPECT_EQ(again[0], first[1]);
  EXPECT_EQ(again[1], first[2]);
  auto c = transport->counters();
  EXPECT_EQ(c.segmentsSent, 5u);
  EXPECT_EQ(c.segmentsResent, 2u);
  EXPECT_EQ(c.rejectionsReceived, 2u);
  EXPECT_EQ(c.rejectionsHonoured, 1u);
  EXPECT_EQ(transport->readPos(), 0u) << "a rejection acknowledges nothing";
}

TEST_F(AnSWTransport, DeliversEachSegmentOnceAndRejectsWhatItDoesNotExpect) {
  transport->receive(frame({0x00, 'a'}));
  transport->receive(frame({0x00, 'a'}));  // again: a copy, nothing missing
  transport->receive(frame({0x40, 'x'}));  // nibble 4 never matches: a gap at R = 1
  transport->receive(frame({0x20, 'y'}));  // the same gap: no second rejection
  round();
  EXPECT_EQ(shapes(wire->take()), (Shapes{"13:1", "15:1"}));
  transport->receive(frame({0x10, 'b'}));
  round();  // one acknowledgement for both
  EXPECT_EQ(shapes(wire->take()), (Shapes{"23:1"}));
  round();
  EXPECT_TRUE(wire->take().empty()) << "the acknowledgement is owed once";

  auto got = inbox->tcp();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].toString(), "a");
  EXPECT_EQ(got[1].toString(), "b");
  EXPECT_EQ(transport->counters().tcpDelivered, 2u);
  EXPECT_EQ(transport->counters().rejectionsSent, 1u);
}

TEST_F(AnSWTransport, AnswersAPollOnlyWhenItsWindowHoldsTheReceiveSequence) {
  transport->receive(frame({0x00, 1}));  // R = 1
  transport->doPendingWork();
  wire->take();
  for (auto poll : {frame({0x01, 0, 1}),     // all arrived: acknowledgement
                    frame({0x01, 1, 3}),     // R = 1 is the oldest: rejection
                    frame({0x01, 2, 0}),     // 2..0 does not hold 1: ignored
                    frame({0xF1, 3, 1})}) {  // 3..1 holds 1 == end; upper nibble ignored
    transport->receive(poll);
    transport->doPendingWork();
  }
  EXPECT_EQ(shapes(wire->take()), (Shapes{"13:1", "15:1", "13:1"}));
}

TEST_F(AnSWTransport, LimitsDatagramsTo119Bytes) {
  test::LogCapture log;
  auto p = pattern(120);
  transport->sendUDP(p.data(), 119);
  transport->sendUDP(p.data(), 120);
  auto frames = wire->take();
  ASSERT_EQ(shapes(frames), (Shapes{"02:120"}));
  EXPECT_EQ(frames[0][119], 118);
  EXPECT_TRUE(log.contains("UDP data length is too large than 120"));

  // Datagrams in: delivered as they are, including an empty one and a 121-byte segment.
  transport->receive(frame({0x02}));
  std::vector<uint8_t> seg(121, 9);
  seg[0] = 0x00;
  transport->receive(Data(seg));
  EXPECT_EQ(inbox->udp().size(), 1u);
  EXPECT_TRUE(inbox->udp()[0].empty());
  ASSERT_EQ(inbox->tcp().size(), 1u);
  EXPECT_EQ(inbox->tcp()[0].length(), 120u);
}

TEST_F(AnSWTransport, PollsAfterThreeTenthsOfASecondAndEveryPeriodAfter) {
  auto p = pattern(10);
  transport->sendTCP(p.data(), p.size());
  round();
  EXPECT_EQ(shapes(wire->take()), (Shapes{"00:11"}));
  clock->advance(0.29);
  round();
  EXPECT_TRUE(wire->take().empty());
  clock->advance(0.02);
  round();
  auto polls = wire->take();  // the oldest segment again, then the poll
  ASSERT_EQ(polls.size(), 2u);
  EXPECT_EQ(shapes(polls)[0], "00:11");
  EXPECT_EQ(polls[1], frame({0x01, 0x00, 0x01}));
  clock->advance(0.29);
  round();
  EXPECT_TRUE(wire->take().empty());
  clock->advance(0.02);
  round();
  EXPECT_EQ(wire->take().size(), 2u);

  // An acknowledgement equal to the oldest releases nothing but restarts the timer.
  clock->advance(0.2);
  transport->receive(frame({0x03}));
  clock->advance(0.2);
  round();
  EXPECT_TRUE(wire->take().empty());
  transport->receive(frame({0x13}));
  clock->advance(5);
  round();
  EXPECT_TRUE(wire->take().empty()) << "nothing in flight, no poll";
  EXPECT_EQ(transport->counters().pollsSent, 2u);
}

TEST_F(AnSWTransport, IgnoresAndCountsMalformedFrames) {
  test::LogCapture log;
  transport->receive(Data());
  transport->receive(frame({0x01, 0x00}));
  transport->receive(frame({0x20}));
  transport->receive(frame({0x09}));
  EXPECT_TRUE(wire->take().empty());
  EXPECT_TRUE(inbox->tcp().empty());
  auto c = transport->counters();
  EXPECT_EQ(c.malformedIgnored, 4u);
  EXPECT_EQ(c.framesReceived, 4u);
  EXPECT_TRUE(log.contains("Slide window ignored a frame: ← malformed 0 B"));
  EXPECT_TRUE(log.contains("Slide window ignored a frame: ← malformed 2 B"));
}

TEST_F(AnSWTransport, MakesNoAllocationAndNoFrameInAnIdleRound) {
  auto p = pattern(300);
  transport->sendTCP(p.data(), p.size());
  round();
  transport->receive(frame({0x33}));
  round();  // warm: everything acknowledged and sent once
  transport->receive(frame({0x13}));
  wire->take();
  const auto before = transport->counters().framesSent;
  test::AllocationScope scope;
  for (int i = 0; i < 1000; ++i) {
    clock->advance(0.001);
    round();
  }
  EXPECT_EQ(scope.count(), 0u);
  EXPECT_EQ(transport->counters().framesSent, before);
}

TEST_F(AnSWTransport, TracesEveryFrameBothWays) {
  std::vector<std::string> lines;
  transport->setFrameTrace(
      [&](bool out, const Data& f) { lines.push_back(describeFrame(f.span(), out)); });
  auto p = pattern(130);
  transport->sendTCP(p.data(), p.size());
  round();
  transport->receive(frame({0x15}));
  transport->receive(frame({0x00, 7}));
  round();
  transport->setFrameTrace(nullptr);
  transport->receive(frame({0x23}));
  EXPECT_EQ(lines, (std::vector<std::string>{"→ seg seq=0 120 B", "→ seg seq=1 10 B", "← rej R=1",
                                             "← seg seq=0 1 B", "→ seg seq=1 10 B", "→ ack R=1"}));
}

TEST(ABLESlideWindow, CutsAt160AndLimitsDatagramsTo159) {
  test::LogCapture log;
  auto clock = std::make_shared<ManualClock>();
  auto window = BLESlideWindow::create(clock);
  auto wire = std::make_shared<FrameSink>();
  window->setSenderDelegate(wire);
  auto p = pattern(161);
  window->sendTCP(p.data(), 161);
  window->transfer();
  EXPECT_EQ(shapes(wire->take()), (Shapes{"00:161", "10:2"}));
  window->sendUDP(p.data(), 159);
  window->sendUDP(p.data(), 160);
  EXPECT_EQ(shapes(wire->take()), (Shapes{"02:160"}));
  EXPECT_TRUE(log.contains("UDP data length is too large than 160"));

  // The first poll leaves after 1.0 s, not 0.3 s.
  clock->advance(0.9);
  window->checkControl();
  EXPECT_TRUE(wire->take().empty());
  clock->advance(0.11);
  window->checkControl();
  EXPECT_EQ(shapes(wire->take()), (Shapes{"00:161", "01:3"}));
}

TEST(ABLESlideWindow, DeliversThroughItsOwnCallbacks) {
  auto window = BLESlideWindow::create(std::make_shared<ManualClock>());
  auto inbox = std::make_shared<PayloadInbox>();
  window->addDelegate(inbox, inbox->queue());
  window->moduleQueue()->sync([] {});
  window->receive(frame({0x00, 'x'}));
  window->receive(frame({0x02, 'y'}));
  ASSERT_EQ(inbox->tcp().size(), 1u);
  EXPECT_EQ(inbox->tcp()[0].toString(), "x");
  ASSERT_EQ(inbox->udp().size(), 1u);
  EXPECT_EQ(inbox->udp()[0].toString(), "y");
}
