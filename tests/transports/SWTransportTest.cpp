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
using Shapes = std::vector<std::string>;

namespace {

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), uint8_t{0});
  return v;
}
Data frame(std::initializer_list<uint8_t> b) { return Data(std::vector<uint8_t>(b)); }

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
  void send(size_t n) {
    auto p = pattern(n);
    transport->sendTCP(p.data(), p.size());
  }
  // "header:length" of each frame written since the last call, e.g. {"00:121", "10:121"}.
  Shapes sent() {
    Shapes out;
    for (const auto& f : wire->take()) {
      char buf[32];
      snprintf(buf, sizeof buf, "%02x:%zu", f.empty() ? 0 : f[0], f.length());
      out.push_back(buf);
    }
    return out;
  }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<SWTransport> transport = SWTransport::create(clock);
  std::shared_ptr<test::FrameSink> wire = std::make_shared<test::FrameSink>();
  std::shared_ptr<test::PayloadInbox> inbox = std::make_shared<test::PayloadInbox>();
};

}  // namespace

TEST_F(AnSWTransport, SendsThreeSegmentsPerWindowAndTheFourthAfterAnAck) {
  send(370);
  EXPECT_EQ(transport->queuedSegments(), 4u);
  round();
  auto frames = wire->timed();
  EXPECT_EQ(sent(), (Shapes{"00:121", "10:121", "20:121"}));
  EXPECT_EQ(frames[1].data[1], 120);  // the second segment starts at byte 120
  round();
  EXPECT_EQ(sent(), Shapes{}) << "the window is full";
  transport->receive(frame({0x13}));  // acknowledges segment 0
  EXPECT_EQ(transport->readPos(), 1u);
  round();
  EXPECT_EQ(sent(), Shapes{"30:11"});
  EXPECT_EQ(transport->counters().bytesQueued, 250u);
}

TEST_F(AnSWTransport, ReleasesWhatACumulativeAckCoversAndIgnoresOthers) {
  send(600);  // five segments, 0 1 2 in flight
  round();
  sent();
  const std::pair<uint8_t, uint64_t> acks[] = {
      {0x03, 0},  // equal to the oldest: releases nothing
      {0x23, 2},  // 0 and 1
      {0x13, 2},  // behind the window: ignored
      {0x33, 3},  // 2
  };
  for (auto [ack, readPos] : acks) {
    transport->receive(frame({ack}));
    EXPECT_EQ(transport->readPos(), readPos) << std::hex << int(ack);
  }
  round();
  EXPECT_EQ(sent(), (Shapes{"30:121", "00:121"}));  // 3 and 4 (sequence 0) in flight
  transport->receive(frame({0x13}));                 // both at once
  EXPECT_EQ(transport->readPos(), 5u);
  EXPECT_EQ(transport->inFlight(), 0u);
  EXPECT_EQ(transport->counters().bytesQueued, 0u);
}

TEST_F(AnSWTransport, GoesBackOnARejectionInsideTheWindowWithTheSameBytes) {
  send(360);
  round();
  auto first = wire->take();
  transport->receive(frame({0x35}));  // 3 is the next send sequence: outside, ignored
  round();
  EXPECT_EQ(sent(), Shapes{});
  transport->receive(frame({0x15}));  // segment 1 missing
  round();
  auto again = wire->take();
  ASSERT_EQ(again.size(), 2u);
  EXPECT_EQ(again[0], first[1]);
  EXPECT_EQ(again[1], first[2]);
  EXPECT_EQ(transport->readPos(), 0u) << "a rejection acknowledges nothing";
  EXPECT_EQ(transport->counters().segmentsResent, 2u);
}

TEST_F(AnSWTransport, DeliversEachSegmentOnceAndRejectsWhatItDoesNotExpect) {
  transport->receive(frame({0x00, 'a'}));
  transport->receive(frame({0x00, 'a'}));  // again: rejected with R = 1
  transport->receive(frame({0x40, 'x'}));  // nibble 4 never matches
  EXPECT_EQ(sent(), (Shapes{"15:1", "15:1"}));
  transport->receive(frame({0x10, 'b'}));
  round();  // one acknowledgement for both
  EXPECT_EQ(sent(), Shapes{"23:1"});
  round();
  EXPECT_EQ(sent(), Shapes{}) << "the acknowledgement is owed once";
  EXPECT_EQ(inbox->tcp(), (std::vector<Data>{Data::fromString("a"), Data::fromString("b")}));
  EXPECT_EQ(inbox->offQueue(), 0u);
}

TEST_F(AnSWTransport, AnswersAPollOnlyWhenItsWindowHoldsTheReceiveSequence) {
  transport->receive(frame({0x00, 1}));  // R = 1
  round();
  sent();
  transport->receive(frame({0x01, 0, 1}));  // all arrived: acknowledgement
  transport->receive(frame({0x01, 1, 3}));  // R = 1 is the oldest: rejection
  transport->receive(frame({0x01, 2, 0}));  // 2..0 does not hold 1: ignored
  transport->receive(frame({0xF1, 3, 1}));  // 3..1 holds 1 == end; upper nibble ignored
  EXPECT_EQ(sent(), (Shapes{"13:1", "15:1", "13:1"}));
}

TEST_F(AnSWTransport, LimitsDatagramsTo119BytesAndDeliversThemAsTheyAre) {
  test::LogCapture log;
  auto p = pattern(120);
  transport->sendUDP(p.data(), 119);
  transport->sendUDP(p.data(), 120);
  EXPECT_EQ(sent(), Shapes{"02:120"});
  EXPECT_TRUE(log.contains("UDP data length is too large than 120"));
  // In: an empty datagram, and a 121-byte segment (the limits differ by one).
  transport->receive(frame({0x02}));
  std::vector<uint8_t> seg(121, 9);
  seg[0] = 0x00;
  transport->receive(Data(seg));
  EXPECT_EQ(inbox->udp(), std::vector<Data>{Data()});
  ASSERT_EQ(inbox->tcp().size(), 1u);
  EXPECT_EQ(inbox->tcp()[0].length(), 120u);
}

TEST_F(AnSWTransport, IgnoresAndCountsMalformedFrames) {
  test::LogCapture log;
  for (auto f : {Data(), frame({0x01, 0x00}), frame({0x20}), frame({0x09})}) transport->receive(f);
  EXPECT_EQ(sent(), Shapes{});
  EXPECT_TRUE(inbox->tcp().empty());
  EXPECT_EQ(transport->counters().malformedIgnored, 4u);
  EXPECT_TRUE(log.contains("Slide window ignored a frame: ← malformed 0 B"));
}

TEST_F(AnSWTransport, MakesNoAllocationAndNoFrameInAnIdleRound) {
  send(300);
  round();
  transport->receive(frame({0x33}));
  round();  // warm: everything acknowledged and sent once
  transport->receive(frame({0x13}));
  wire->take();
  test::AllocationScope scope;
  for (int i = 0; i < 1000; ++i) {
    clock->advance(0.001);
    round();
  }
  EXPECT_EQ(scope.count(), 0u);
  EXPECT_EQ(wire->size(), 0u);
}

TEST_F(AnSWTransport, TracesEveryFrameBothWaysUntilTheTraceIsCleared) {
  std::vector<std::string> lines;
  transport->setFrameTrace(
      [&](bool out, const Data& f) { lines.push_back(describeFrame(f.span(), out)); });
  send(130);
  round();
  transport->receive(frame({0x15}));
  transport->receive(frame({0x00, 7}));
  round();
  transport->setFrameTrace(nullptr);
  transport->receive(frame({0x23}));
  EXPECT_EQ(lines, (std::vector<std::string>{"→ seg seq=0 120 B", "→ seg seq=1 10 B", "← rej R=1",
                                             "← seg seq=0 1 B", "→ seg seq=1 10 B", "→ ack R=1"}));
}

TEST(ABLESlideWindow, CutsAt160LimitsDatagramsTo159PollsAfterASecondAndDeliversToItsDelegates) {
  test::LogCapture log;
  auto clock = std::make_shared<ManualClock>();
  auto window = BLESlideWindow::create(clock);
  auto wire = std::make_shared<test::FrameSink>();
  auto inbox = std::make_shared<test::PayloadInbox>();
  window->setSenderDelegate(wire);
  window->addDelegate(inbox, inbox->queue());
  window->moduleQueue()->sync([] {});
  auto p = pattern(161);
  window->sendTCP(p.data(), 161);
  window->transfer();
  window->sendUDP(p.data(), 159);
  window->sendUDP(p.data(), 160);
  std::vector<size_t> lengths;
  for (const auto& f : wire->take()) lengths.push_back(f.length());
  EXPECT_EQ(lengths, (std::vector<size_t>{161, 2, 160}));
  EXPECT_TRUE(log.contains("UDP data length is too large than 160"));
  clock->advance(0.9);
  window->checkControl();
  EXPECT_EQ(wire->size(), 0u);
  clock->advance(0.11);
  window->checkControl();
  EXPECT_EQ(wire->take(), std::vector<Data>{frame({0x01, 0, 2})});

  window->receive(frame({0x00, 'x'}));
  window->receive(frame({0x02, 'y'}));
  EXPECT_EQ(inbox->tcp(), std::vector<Data>{Data::fromString("x")});
  EXPECT_EQ(inbox->udp(), std::vector<Data>{Data::fromString("y")});
  EXPECT_EQ(inbox->offQueue(), 0u);
}
