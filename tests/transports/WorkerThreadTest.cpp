// The transports with their worker threads running on the real clock: timing edge cases
// and the plain chunker. Lower bounds are strict, upper bounds generous.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/SWTransport.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using namespace std::chrono_literals;
using qlt::test::FrameSink;
using qlt::test::PayloadInbox;

namespace {

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), uint8_t{0});
  return v;
}

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// Segment at index 0, then polls (each behind the segment sent again): checks their
// spacing against the time-out.
void expectPollsEvery(std::vector<FrameSink::Frame> frames, double timeout) {
  frames.erase(std::remove_if(frames.begin() + 1, frames.end(),
                              [](const auto& f) { return f.data[0] == 0x00; }),
               frames.end());
  ASSERT_GE(frames.size(), 3u);
  EXPECT_EQ(frames[0].data[0], 0x00);
  for (size_t i = 1; i < 3; ++i) {
    EXPECT_EQ(frames[i].data, Data(std::vector<uint8_t>{0x01, 0x00, 0x01}));
    const double gap = seconds(frames[i].at - frames[i - 1].at);
    EXPECT_GE(gap, timeout);
    EXPECT_LT(gap, timeout + 1.5);
  }
}

// Stops `object` and waits until its worker has ended and been joined here (the test
// drops the last reference to the ThreadBase, whose destructor joins).
template <class Object>
void stopAndJoin(const std::shared_ptr<Object>& object) {
  std::shared_ptr<ThreadBase> t = object->thread();
  object->stop();
  if (!t) return;
  ASSERT_TRUE(test::eventually([&] { return !t->alive() && t.use_count() == 1; }));
  t.reset();
  ASSERT_TRUE(test::eventually([&] { return object->thread() == nullptr; }));
}

}  // namespace

TEST(StartedIdleTransports, MakeNoWakeUps) {
  auto sw = SWTransport::create();
  auto nus = NUSTransport::create();
  auto window = BLESlideWindow::create();
  auto wire = std::make_shared<FrameSink>();
  sw->setSenderDelegate(wire);
  nus->setSenderDelegate(wire);
  window->setSenderDelegate(wire);
  sw->start();
  nus->start();
  window->start();
  std::this_thread::sleep_for(50ms);
  const uint64_t before = test::processWakeups();
  std::this_thread::sleep_for(200ms);
  // A loop polling every millisecond would make about 600 here.
  EXPECT_LT(test::processWakeups() - before, 60u);
  EXPECT_EQ(wire->size(), 0u);
}

TEST(AStartedSWTransport, PollsAnUnansweredSegmentEveryThreeTenthsOfASecond) {
  auto transport = SWTransport::create();
  auto wire = std::make_shared<FrameSink>();
  transport->setSenderDelegate(wire);
  transport->start();
  auto p = pattern(5);
  transport->sendTCP(p.data(), p.size());
  ASSERT_TRUE(test::eventually([&] { return wire->size() >= 5; }, 10s));
  stopAndJoin(transport);
  expectPollsEvery(wire->timed(), SWTransport::kPollTimeout);
}

TEST(AStartedBLESlideWindow, PollsAnUnansweredSegmentEverySecond) {
  auto window = BLESlideWindow::create();
  auto wire = std::make_shared<FrameSink>();
  window->setSenderDelegate(wire);
  window->start();
  auto p = pattern(5);
  window->sendTCP(p.data(), p.size());
  ASSERT_TRUE(test::eventually([&] { return wire->size() >= 5; }, 15s));
  stopAndJoin(window);
  expectPollsEvery(wire->timed(), BLESlideWindow::kPollTimeout);
}

TEST(TwoStartedSWTransports, CarryMessagesBothWaysOverDirectWiring) {
  // Each side's writes are the other's received values, straight through.
  class Cross : public TransportSenderDelegate {
   public:
    std::weak_ptr<SWTransport> peer;
    void transport_requestWriteData(const std::shared_ptr<BaseTransport>&, const Data& d) override {
      if (auto p = peer.lock()) p->receive(d);
    }
  };
  auto a = SWTransport::create(), b = SWTransport::create();
  auto toB = std::make_shared<Cross>(), toA = std::make_shared<Cross>();
  toB->peer = b;
  toA->peer = a;
  a->setSenderDelegate(toB);
  b->setSenderDelegate(toA);
  auto inA = std::make_shared<PayloadInbox>(), inB = std::make_shared<PayloadInbox>();
  a->addDelegate(inA, inA->queue());
  b->addDelegate(inB, inB->queue());
  a->moduleQueue()->sync([] {});
  b->moduleQueue()->sync([] {});
  a->start();
  b->start();
  auto msg = pattern(5000);
  a->sendTCP(msg.data(), msg.size());
  b->sendTCP(msg.data(), 1000);
  ASSERT_TRUE(test::eventually(
      [&] { return a->counters().bytesQueued == 0 && b->counters().bytesQueued == 0; }));
  stopAndJoin(a);
  stopAndJoin(b);
  std::vector<uint8_t> got;
  for (const auto& d : inB->tcp()) got.insert(got.end(), d.bytes(), d.bytes() + d.length());
  EXPECT_EQ(got, msg);
  EXPECT_EQ(inA->tcp().size(), 9u);  // 1000 bytes = 8 × 120 + 40
}

TEST(ANUSTransport, WritesOneChunkOfAtMostTwentyBytesPerRound) {
  auto nus = NUSTransport::create();
  auto wire = std::make_shared<FrameSink>();
  nus->setSenderDelegate(wire);
  auto p = pattern(45);
  nus->sendTCP(p.data(), p.size());
  std::vector<size_t> sizes;
  for (int round = 0; round < 4; ++round) {
    nus->transfer();
    auto frames = wire->take();
    sizes.push_back(frames.empty() ? 0 : frames[0].length());
    EXPECT_LE(frames.size(), 1u);
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{20, 20, 5, 0}));

  nus->sendUDP(p.data(), p.size());
  auto big = pattern(100);
  nus->sendUDP(big.data(), big.size());
  EXPECT_EQ(nus->queuedChunks(), 3u + 5u);  // datagrams are chunked like messages
}

TEST(ANUSTransport, DiscardsWhatWasQueuedBeforeStartAndWritesTheRestInOrder) {
  auto nus = NUSTransport::create();
  auto wire = std::make_shared<FrameSink>();
  nus->setSenderDelegate(wire);
  auto old = pattern(60);
  nus->sendTCP(old.data(), old.size());
  nus->start();
  auto p = pattern(45);
  nus->sendTCP(p.data(), p.size());
  ASSERT_TRUE(test::eventually([&] { return wire->size() >= 3; }));
  stopAndJoin(nus);
  auto frames = wire->take();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].length(), 20u);
  EXPECT_EQ(frames[1].length(), 20u);
  EXPECT_EQ(frames[2].length(), 5u);
  EXPECT_EQ(frames[2][0], 40);
}

TEST(ANUSTransport, DeliversEveryValueUnchangedAsTCP) {
  auto nus = NUSTransport::create();
  auto inbox = std::make_shared<PayloadInbox>();
  nus->addDelegate(inbox, inbox->queue());
  nus->moduleQueue()->sync([] {});
  auto p = pattern(64);
  nus->receive(Data(p));
  nus->receive(Data());
  nus->receive(Data::fromString("\x03"));  // looks like an acknowledgement; is just data
  auto got = inbox->tcp();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0], Data(p));
  EXPECT_TRUE(got[1].empty());
  EXPECT_EQ(got[2].length(), 1u);
  EXPECT_TRUE(inbox->udp().empty());
}
