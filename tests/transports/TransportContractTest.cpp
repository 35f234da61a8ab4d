// The transport contract with real worker threads: the base transport's thread handling,
// the plain chunker, and the sliding-window transports running on their own threads.
// Lower bounds and order are strict, upper bounds generous.
#include <gtest/gtest.h>

#include <numeric>
#include <thread>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/SWTransport.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using namespace std::chrono_literals;
using test::FrameSink;
using test::PayloadInbox;

namespace {

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), uint8_t{0});
  return v;
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

TEST(ABaseTransport, HandsExactlyLengthBytesToItsSender) {
  auto t = BaseTransport::create();
  auto sink = std::make_shared<FrameSink>();
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  t->writeRequest(bytes, 3);  // no sender: dropped
  t->setSenderDelegate(sink);
  t->writeRequest(bytes, 3);
  t->writeRequest(bytes, 0);
  EXPECT_EQ(sink->take(), (std::vector<Data>{Data(bytes, 3), Data()}));
}

TEST(ABaseTransport, StartsAFreshThreadAfterTheOldOneHasStoppedAndLeavesNoneBehind) {
  const size_t before = test::osThreadCount();
  auto t = BaseTransport::create();
  t->stop();  // never started: nothing
  EXPECT_EQ(t->thread(), nullptr);
  for (int i = 0; i < 2; ++i) {
    t->start();  // run() returns at once: the thread ends and is cleared
    ASSERT_TRUE(test::eventually([&] { return t->thread() == nullptr; }));
  }
  std::weak_ptr<BaseTransport> watch = t;
  t.reset();
  EXPECT_TRUE(test::eventually([&] { return watch.expired(); }));
  for (int i = 0; i < 1000; ++i) BaseTransport::create();  // never started: nothing to join
  EXPECT_TRUE(test::eventually([&] { return test::osThreadCount() <= before + 2; }));
}

TEST(ANUSTransport, WritesOneChunkOfAtMostTwentyBytesPerRoundInOrder) {
  auto nus = NUSTransport::create();
  auto wire = std::make_shared<FrameSink>();
  nus->setSenderDelegate(wire);
  auto p = pattern(100);
  struct Case {
    uint64_t length;
    bool datagram;
    std::vector<size_t> chunks;
  };
  for (const Case& c : {Case{45, false, {20, 20, 5}}, Case{100, true, {20, 20, 20, 20, 20}},
                        Case{0, false, {}}, Case{0, true, {}}}) {
    c.datagram ? nus->sendUDP(p.data(), c.length) : nus->sendTCP(p.data(), c.length);
    EXPECT_EQ(nus->queuedChunks(), c.chunks.size()) << c.length;
    std::vector<uint8_t> joined;
    for (size_t round = 0; round <= c.chunks.size(); ++round) {
      nus->transfer();
      auto frames = wire->take();
      ASSERT_EQ(frames.size(), round < c.chunks.size() ? 1u : 0u) << c.length;
      if (frames.empty()) break;
      EXPECT_EQ(frames[0].length(), c.chunks[round]) << c.length;
      joined.insert(joined.end(), frames[0].bytes(), frames[0].bytes() + frames[0].length());
    }
    EXPECT_EQ(joined, std::vector<uint8_t>(p.begin(), p.begin() + c.length));
  }
}

TEST(ANUSTransport, DiscardsWhatWasQueuedBeforeStartAndWritesTheRestFromItsThread) {
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
  EXPECT_EQ(frames[2], Data(p.data() + 40, 5));
}

TEST(ANUSTransport, DeliversEveryValueUnchangedAsTCPOnTheDelegatesQueue) {
  auto nus = NUSTransport::create();
  auto inbox = std::make_shared<PayloadInbox>();
  nus->addDelegate(inbox, inbox->queue());
  nus->moduleQueue()->sync([] {});
  size_t traced = 0;
  nus->setFrameTrace([&](bool, const Data&) { ++traced; });
  const std::vector<Data> values = {Data(pattern(64)), Data(), Data::fromString("\x03")};
  for (const auto& v : values) nus->receive(v);
  nus->setFrameTrace(nullptr);
  nus->receive(values[0]);
  EXPECT_EQ(inbox->tcp(), (std::vector<Data>{values[0], values[1], values[2], values[0]}));
  EXPECT_TRUE(inbox->udp().empty());
  EXPECT_EQ(inbox->offQueue(), 0u);
  EXPECT_EQ(traced, 3u);
}

// An unanswered segment is polled once per time-out, neither sooner nor much later.
template <class Window>
void expectPollsOncePerTimeout(const std::shared_ptr<Window>& window, double timeout) {
  auto wire = std::make_shared<FrameSink>();
  window->setSenderDelegate(wire);
  window->start();
  auto p = pattern(5);
  window->sendTCP(p.data(), p.size());
  ASSERT_TRUE(test::eventually([&] { return wire->size() >= 3; }, 15s));
  stopAndJoin(window);
  auto frames = wire->timed();
  EXPECT_EQ(frames[0].data[0], 0x00);
  for (size_t i = 1; i < 3; ++i) {
    EXPECT_EQ(frames[i].data, Data(std::vector<uint8_t>{0x01, 0x00, 0x01}));
    const double gap = std::chrono::duration<double>(frames[i].at - frames[i - 1].at).count();
    EXPECT_GE(gap, timeout);
    EXPECT_LT(gap, timeout + 1.5);
  }
}

TEST(AStartedSWTransport, PollsAnUnansweredSegmentEveryThreeTenthsOfASecond) {
  expectPollsOncePerTimeout(SWTransport::create(), SWTransport::kPollTimeout);
}

TEST(AStartedBLESlideWindow, PollsAnUnansweredSegmentEverySecond) {
  expectPollsOncePerTimeout(BLESlideWindow::create(), BLESlideWindow::kPollTimeout);
}
