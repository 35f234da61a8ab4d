// The transport contract: the base transport's thread handling and the plain chunker.
#include <gtest/gtest.h>

#include <thread>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/NUSTransport.h"
#include "QueltLibrary/SWTransport.h"
#include "support/TestSupport.h"
#include "support/TransportProbes.h"

using namespace qlt;
using test::bytes;
using test::FrameSink;

namespace {

// Stops `object` and waits until its worker has ended and been joined here (the last
// reference to the ThreadBase is dropped here, and its destructor joins).
template <class Object>
void stopAndJoin(const std::shared_ptr<Object>& object) {
  std::shared_ptr<ThreadBase> t = object->thread();
  object->stop();
  if (!t) return;  // rounds on a queue: stopped once stop() returns
  ASSERT_TRUE(test::eventually([&] { return !t->alive() && t.use_count() == 1; }));
  t.reset();
  ASSERT_TRUE(test::eventually([&] { return object->thread() == nullptr; }));
}

}  // namespace

TEST(ABaseTransport, HandsExactlyLengthBytesToItsSenderAndRestartsOnAFreshThread) {
  const size_t before = test::osThreadCount();
  auto t = BaseTransport::create();
  auto sink = std::make_shared<FrameSink>();
  t->writeRequest(bytes(3).bytes(), 3);  // no sender: dropped
  t->setSenderDelegate(sink);
  t->writeRequest(bytes(5).bytes(), 3);
  t->writeRequest(bytes(5).bytes(), 0);
  EXPECT_EQ(sink->take(), (std::vector<Data>{bytes(3), Data()}));
  t->stop();  // never started: nothing
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

TEST(ANUSTransport, WritesOneChunkOfAtMostTwentyBytesPerRoundInOrderOnceStarted) {
  auto nus = NUSTransport::create();
  auto wire = std::make_shared<FrameSink>();
  nus->setSenderDelegate(wire);
  const Data data = bytes(100);
  for (auto [length, udp, chunks] : {std::tuple<size_t, bool, size_t>{45, false, 3},
                                     {100, true, 5},
                                     {0, false, 0},
                                     {0, true, 0}}) {
    udp ? nus->sendUDP(data.bytes(), length) : nus->sendTCP(data.bytes(), length);
    EXPECT_EQ(nus->queuedChunks(), chunks) << length;
    std::vector<Data> frames;
    for (size_t round = 0; round <= chunks; ++round) {
      nus->transfer();
      auto one = wire->take();
      ASSERT_EQ(one.size(), round < chunks ? 1u : 0u) << length << " round " << round;
      if (round < chunks) frames.push_back(one[0]);
    }
    for (size_t i = 0; i < chunks; ++i)
      EXPECT_EQ(frames[i], Data(data.bytes(), length).subdata(20 * i, 20)) << length;
  }
  nus->sendTCP(data.bytes(), 60);  // before start: discarded
  nus->start();
  nus->sendTCP(data.bytes(), 45);  // from its thread
  ASSERT_TRUE(test::eventually([&] { return wire->size() >= 3; }));
  stopAndJoin(nus);
  EXPECT_EQ(wire->take(),
            (std::vector<Data>{bytes(20), bytes(40).subdata(20, 20), bytes(45).subdata(40, 5)}));
}

TEST(ANUSTransport, DeliversEveryValueUnchangedAsTCPOnTheDelegatesQueue) {
  auto nus = NUSTransport::create();
  auto inbox = std::make_shared<test::PayloadInbox>();
  nus->addDelegate(inbox, inbox->queue());
  nus->moduleQueue()->sync([] {});
  size_t traced = 0;
  nus->setFrameTrace([&](bool, const Data&) { ++traced; });
  const std::vector<Data> values = {bytes(64), Data(), Data::fromString("\x03")};
  for (const auto& v : values) nus->receive(v);
  nus->setFrameTrace(nullptr);
  nus->receive(values[0]);
  EXPECT_EQ(inbox->tcp(), (std::vector<Data>{values[0], values[1], values[2], values[0]}));
  EXPECT_TRUE(inbox->udp().empty());
  EXPECT_EQ(inbox->offQueue(), 0u);
  EXPECT_EQ(traced, 3u);
}

// Idle means no deadline at all: a started window with nothing to send arms no timer, so
// however far its clock runs nothing wakes it and nothing is written. (bench/idle.cpp
// measures the wake-ups of whole idle links in real time.)
TEST(StartedIdleTransports, ArmNoDeadlineAndWriteNothing) {
  auto clock = std::make_shared<ManualClock>();
  auto sw = SWTransport::create(clock);
  auto window = BLESlideWindow::create(clock);
  auto wire = std::make_shared<FrameSink>();
  sw->setSenderDelegate(wire);
  window->setSenderDelegate(wire);
  sw->start();
  window->start();
  EXPECT_EQ(sw->queuedSegments() + window->queuedSegments(), 0u);  // each waits for its queue
  EXPECT_FALSE(clock->nextDue()) << "an idle window armed a deadline";
  clock->advance(3600);
  EXPECT_EQ(sw->queuedSegments() + window->queuedSegments(), 0u);
  EXPECT_EQ(wire->size(), 0u);

  // One segment sent and left unanswered arms exactly the poll's deadline, and the clock
  // brings the poll.
  const uint8_t byte = 7;
  sw->sendTCP(&byte, 1);
  ASSERT_TRUE(test::eventually([&] { return wire->size() == 1; }));
  ASSERT_TRUE(clock->nextDue());
  clock->advance(*clock->nextDue() - clock->now());
  EXPECT_TRUE(test::eventually([&] { return wire->size() >= 2; })) << "no poll on the clock";
}
