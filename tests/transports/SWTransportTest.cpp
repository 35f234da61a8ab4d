// What differs between the sliding-window engine's two faces, SWTransport and
// BLESlideWindow, with the rounds driven by the test on a ManualClock. The protocol's own
// rules are the link tests' (LinkFaultTest.cpp) and the fuzz model's (SlideWindowFuzz).
#include <gtest/gtest.h>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using test::bytes;

namespace {

Data frame(std::initializer_list<uint8_t> b) { return Data(std::vector<uint8_t>(b)); }
Data operator+(const Data& a, const Data& b) {
  std::vector<uint8_t> v(a.bytes(), a.bytes() + a.length());
  v.insert(v.end(), b.bytes(), b.bytes() + b.length());
  return Data(v);
}
std::vector<size_t> lengths(const std::vector<Data>& frames) {
  std::vector<size_t> out;
  for (const auto& f : frames) out.push_back(f.length());
  return out;
}

// A face wired to a FrameSink and a PayloadInbox; round() is one worker round.
template <class Face>
struct Rig {
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Face> face = Face::create(clock);
  std::shared_ptr<test::FrameSink> wire = std::make_shared<test::FrameSink>();
  std::shared_ptr<test::PayloadInbox> inbox = std::make_shared<test::PayloadInbox>();
  Rig() {
    face->setSenderDelegate(wire);
    face->addDelegate(inbox, inbox->queue());
    face->moduleQueue()->sync([] {});
  }
  void round() {
    face->transfer();
    face->checkControl();
    face->doPendingWork();
  }
};

}  // namespace

TEST(TheTwoFaces, CutLimitAndPollByTheirOwnFiguresAndDeliverOnTheirDelegatesQueue) {
  test::LogCapture log;
  auto check = [&](auto& rig, size_t segment, double pollAfter) {
    rig.face->sendTCP(bytes(segment + 1).bytes(), segment + 1);
    rig.round();
    rig.face->sendUDP(bytes(segment - 1).bytes(), segment - 1);
    rig.face->sendUDP(bytes(segment).bytes(), segment);  // one byte too many: refused
    EXPECT_EQ(lengths(rig.wire->take()), (std::vector<size_t>{segment + 1, 2, segment}));
    EXPECT_TRUE(log.contains("UDP data length is too large than " + std::to_string(segment)));
    rig.clock->advance(pollAfter - 0.01);  // the two in flight are polled after this face's time
    rig.round();
    EXPECT_EQ(rig.wire->size(), 0u);
    rig.clock->advance(0.02);
    rig.round();
    auto polled = rig.wire->take();  // the oldest segment again, then the poll
    ASSERT_EQ(lengths(polled), (std::vector<size_t>{segment + 1, 3}));
    EXPECT_EQ(polled[1], frame({0x01, 0, 2}));
    // In: a full segment, an empty datagram, nothing; the segment again: a copy, acknowledged
    // once with the first by the next round (R = 1).
    auto seg = frame({0x00}) + bytes(segment, 9);
    for (const auto& f : {seg, frame({0x02}), Data(), seg}) rig.face->receive(f);
    EXPECT_EQ(rig.face->counters().framesReceived, 4u);  // waits for the posted receives
    EXPECT_TRUE(log.contains("Slide window ignored a frame: ← malformed 0 B"));
    EXPECT_EQ(rig.inbox->tcp(), std::vector<Data>{bytes(segment, 9)});
    EXPECT_EQ(rig.inbox->udp(), std::vector<Data>{Data()});
    EXPECT_EQ(rig.inbox->offQueue(), 0u);
    rig.round();
    EXPECT_EQ(rig.wire->take(), std::vector<Data>{frame({0x13})});
  };
  Rig<SWTransport> sw;
  check(sw, 120, SWTransport::kPollTimeout);
  Rig<BLESlideWindow> ble;
  check(ble, 160, BLESlideWindow::kPollTimeout);
}
