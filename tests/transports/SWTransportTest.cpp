// The sliding-window engine as SWTransport and BLESlideWindow show it, with the rounds
// driven by the test on a ManualClock (no worker thread).
#include <gtest/gtest.h>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "support/AllocationCounter.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using Shapes = std::vector<std::string>;

namespace {

Data frame(std::initializer_list<uint8_t> b) { return Data(std::vector<uint8_t>(b)); }
Data bytes(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
  return Data(v);
}

class AnSWTransport : public ::testing::Test {
 protected:
  void SetUp() override {
    transport->setSenderDelegate(wire);
    transport->addDelegate(inbox, inbox->queue());
    transport->moduleQueue()->sync([] {});
  }
  void round() {
    transport->transfer();
    transport->checkControl();
    transport->doPendingWork();
  }
  void send(size_t n) { transport->sendTCP(bytes(n).bytes(), n); }
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

TEST_F(AnSWTransport, KeepsThreeSegmentsInFlightAndReleasesWhatACumulativeAckCovers) {
  send(600);  // five segments
  round();
  EXPECT_EQ(sent(), (Shapes{"00:121", "10:121", "20:121"}));
  round();
  EXPECT_EQ(sent(), Shapes{}) << "the window is full";
  // Equal to the oldest: nothing; 0 and 1; behind the window: ignored; 2.
  for (auto [ack, readPos] : {std::pair{0x03, 0}, {0x23, 2}, {0x13, 2}, {0x33, 3}}) {
    transport->receive(frame({uint8_t(ack)}));
    EXPECT_EQ(transport->readPos(), uint64_t(readPos)) << std::hex << ack;
  }
  round();
  EXPECT_EQ(sent(), (Shapes{"30:121", "00:121"}));
  transport->receive(frame({0x13}));  // both at once
  EXPECT_EQ(transport->readPos(), 5u);
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
  EXPECT_EQ(wire->take(), (std::vector<Data>{first[1], first[2]}));
  EXPECT_EQ(transport->readPos(), 0u) << "a rejection acknowledges nothing";
}

TEST_F(AnSWTransport, DeliversEachSegmentOnceRejectsTheRestAndAnswersPollsAroundR) {
  test::LogCapture log;
  for (auto f : {frame({0x00, 'a'}), frame({0x00, 'a'}), frame({0x40, 'x'}), Data(),
                 frame({0x01, 0x00}), frame({0x09})})
    transport->receive(f);  // again and nibble 4: rejected with R = 1; then malformed
  EXPECT_EQ(sent(), (Shapes{"15:1", "15:1"}));
  EXPECT_EQ(transport->counters().malformedIgnored, 3u);
  EXPECT_TRUE(log.contains("Slide window ignored a frame: ← malformed 0 B"));
  transport->receive(frame({0x10, 'b'}));
  round();  // one acknowledgement for both, owed once
  round();
  EXPECT_EQ(sent(), Shapes{"23:1"});
  EXPECT_EQ(inbox->tcp(), (std::vector<Data>{Data::fromString("a"), Data::fromString("b")}));
  EXPECT_EQ(inbox->offQueue(), 0u);
  // R = 2. All arrived: ack; R the oldest: rejection; 3..1 does not hold 2: ignored;
  // 1..2 holds 2 == end, the upper nibble of byte 0 ignored: ack.
  for (auto f : {frame({0x01, 0, 2}), frame({0x01, 2, 0}), frame({0x01, 3, 1}), frame({0xF1, 1, 2})})
    transport->receive(f);
  EXPECT_EQ(sent(), (Shapes{"23:1", "25:1", "23:1"}));
}

TEST_F(AnSWTransport, LimitsDatagramsTo119BytesButAcceptsSegmentsOf120) {
  test::LogCapture log;
  transport->sendUDP(bytes(119).bytes(), 119);
  transport->sendUDP(bytes(120).bytes(), 120);
  EXPECT_EQ(sent(), Shapes{"02:120"});
  EXPECT_TRUE(log.contains("UDP data length is too large than 120"));
  std::vector<uint8_t> seg(121, 9);
  seg[0] = 0x00;
  transport->receive(Data(seg));
  transport->receive(frame({0x02}));  // an empty datagram
  EXPECT_EQ(inbox->udp(), std::vector<Data>{Data()});
  EXPECT_EQ(inbox->tcp(), std::vector<Data>{Data(std::vector<uint8_t>(120, 9))});
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
  Shapes lines;
  transport->setFrameTrace([&](bool out, const Data& f) { lines.push_back(describeFrame(f.span(), out)); });
  send(130);
  round();
  transport->receive(frame({0x15}));
  transport->receive(frame({0x00, 7}));
  round();
  transport->setFrameTrace(nullptr);
  transport->receive(frame({0x23}));
  EXPECT_EQ(lines, (Shapes{"→ seg seq=0 120 B", "→ seg seq=1 10 B", "← rej R=1", "← seg seq=0 1 B",
                           "→ seg seq=1 10 B", "→ ack R=1"}));
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
  window->sendTCP(bytes(161).bytes(), 161);
  window->transfer();
  window->sendUDP(bytes(159).bytes(), 159);
  window->sendUDP(bytes(160).bytes(), 160);
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
