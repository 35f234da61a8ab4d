// Stopwatch, events and worker threads. Lower bounds are strict; upper bounds generous,
// because the machines are shared.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/HANDLE.h"
#include "QueltLibrary/ThreadBase.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;
using Clk = std::chrono::steady_clock;

TEST(AComTimer, TimesOutStrictlyAfterItsTimeout) {
  auto clock = std::make_shared<ManualClock>(100.0);
  auto t = ComTimer::timer(clock);
  EXPECT_EQ(t->Timeout(), 1.0);
  EXPECT_EQ(t->moduleName(), "ComTimer");
  clock->advance(1.0);
  EXPECT_FALSE(t->isTimeout());  // exactly the time-out is not past it
  clock->advance(0.001);
  EXPECT_TRUE(t->isTimeout());
  t->start();
  EXPECT_EQ(t->elapse(), 0.0);
  EXPECT_FALSE(t->isTimeout());
  clock->advance(0.5);
  t->setTimeout(0.25);  // does not restart
  EXPECT_DOUBLE_EQ(t->elapse(), 0.5);
  EXPECT_TRUE(t->isTimeout());

  auto zero = ComTimer::timerWithTimeout(0, clock);
  EXPECT_FALSE(zero->isTimeout());  // no time has passed
  clock->advance(1e-9);
  EXPECT_TRUE(zero->isTimeout());
  EXPECT_TRUE(ComTimer::timerWithTimeout(-1, clock)->isTimeout());
}

TEST(AComTimer, RunsOnTheMonotonicClockByDefault) {
  auto t = ComTimer::timerWithTimeout(0.05);
  EXPECT_FALSE(t->isTimeout());
  std::this_thread::sleep_for(60ms);
  EXPECT_TRUE(t->isTimeout());
  EXPECT_GE(t->elapse(), 0.06);
}

TEST(AnEvent, ConsumesAnAutoResetSignalButKeepsAManualOne) {
  auto autoEvent = HANDLE::createAutoEvent();
  autoEvent->set();
  EXPECT_TRUE(autoEvent->isSet());
  EXPECT_FALSE(autoEvent->isSet());
  auto manual = HANDLE::createManualEvent();
  manual->set();
  EXPECT_TRUE(manual->isSet());
  EXPECT_TRUE(manual->isSet());
  manual->reset();
  EXPECT_FALSE(manual->isSet());
  EXPECT_TRUE(HANDLE::createEvent(true, false)->isSet());
}

TEST(AnEvent, LetsOnlyOneOfManyTestersSeeAnAutoResetSignal) {
  for (int round = 0; round < 50; ++round) {
    auto e = HANDLE::createAutoEvent();
    std::atomic<int> seen{0};
    e->set();
    std::vector<std::thread> testers;
    for (int i = 0; i < 4; ++i) testers.emplace_back([&] { seen += e->isSet() ? 1 : 0; });
    for (auto& t : testers) t.join();
    ASSERT_EQ(seen, 1);
  }
}

TEST(AnEvent, WaitsWithATimeout) {
  auto e = HANDLE::createManualEvent();
  auto start = Clk::now();
  EXPECT_FALSE(e->waitTimeout(0.5));
  const double waited = test::secondsSince(start);
  EXPECT_GT(waited, 0.5);
  EXPECT_LT(waited, 3.0);

  e->set();
  start = Clk::now();
  EXPECT_TRUE(e->waitTimeout(0));
  EXPECT_LT(test::secondsSince(start), 0.5);

  auto late = HANDLE::createAutoEvent();
  start = Clk::now();  // before the setter starts its 100 ms
  std::thread setter([&] {
    std::this_thread::sleep_for(100ms);
    late->set();
  });
  EXPECT_TRUE(late->waitTimeout(-1));
  EXPECT_GE(test::secondsSince(start), 0.1);
  setter.join();
}

TEST(WaitForMultipleObjects, ReturnsZeroForAnySetEventAndMinusOneAfterItsFixedLimit) {
  auto a = HANDLE::createAutoEvent(), b = HANDLE::createAutoEvent(), c = HANDLE::createAutoEvent();
  c->set();
  EXPECT_EQ(HANDLE::waitForMultipleObjects({a, b, c}, 0.1), 0);  // not 2: the index is not kept
  EXPECT_FALSE(c->isSet());                                      // consumed

  auto start = Clk::now();
  EXPECT_EQ(HANDLE::waitForMultipleObjects({a, b, c}, 0.1), -1);
  double waited = test::secondsSince(start);
  EXPECT_GT(waited, 1.0);  // t is the pause, the limit is 1.0 s
  EXPECT_LT(waited, 4.0);

  EXPECT_EQ(HANDLE::waitForMultipleObjects({}, 0.0), -1);  // an empty list is never set
}

TEST(WaitForMultipleObjects, PausesForTBeforeGivingUpWhenTIsLong) {
  // A 2.0 s pause ends after the 1.0 s limit: an event set 0.5 s in is never seen.
  auto e = HANDLE::createManualEvent();
  std::thread setter([&] {
    std::this_thread::sleep_for(500ms);
    e->set();
  });
  const auto start = Clk::now();
  EXPECT_EQ(HANDLE::waitForSingleObject(e, 2.0), -1);
  const double waited = test::secondsSince(start);
  EXPECT_GE(waited, 2.0);
  EXPECT_LT(waited, 6.0);
  setter.join();
}

namespace {

class Worker : public ThreadBaseDelegate {
 public:
  std::atomic<int> started{0}, rounds{0}, stopped{0};
  bool giveLoop = true;
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& t) override {
    if (!giveLoop) return {};
    return [this, t] {
      while (!t->isClosing()) rounds++;
    };
  }
  void threadStarted(const std::shared_ptr<ThreadBase>&) override { started++; }
  void threadStopped(const std::shared_ptr<ThreadBase>&) override { stopped++; }
};

}  // namespace

TEST(AWorkerThread, RunsItsLoopUntilStoppedThenReportsTheStop) {
  auto w = std::make_shared<Worker>();
  auto t = ThreadBase::create(w);
  t->stop();  // before start: nothing
  EXPECT_FALSE(t->alive());
  t->start();
  t->start();  // while running: nothing new
  ASSERT_TRUE(test::eventually([&] { return w->rounds > 5; }));
  EXPECT_TRUE(t->alive());
  const auto start = Clk::now();
  t->stop();
  ASSERT_TRUE(test::eventually([&] { return !t->alive(); }));
  EXPECT_LT(test::secondsSince(start), 2.0);
  EXPECT_EQ(w->started, 1);
  EXPECT_EQ(w->stopped, 1);
}

TEST(AWorkerThread, LogsAMissingLoopAndStillReportsTheStop) {
  test::LogCapture log;
  auto w = std::make_shared<Worker>();
  w->giveLoop = false;
  auto t = ThreadBase::create(w);
  t->start();
  ASSERT_TRUE(test::eventually([&] { return !t->alive(); }));
  EXPECT_TRUE(log.contains("No runloop was defined!!!"));
  EXPECT_EQ(w->stopped, 1);
}

TEST(AWorkerThread, TakesAboutAMillisecondToSayItIsNotClosing) {
  auto t = ThreadBase::create();
  const auto start = Clk::now();
  EXPECT_FALSE(t->isClosing());
  EXPECT_GE(test::secondsSince(start), 0.001);
}

namespace {

class Sink : public TransportSenderDelegate {
 public:
  std::mutex m;
  std::vector<Data> frames;
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    std::lock_guard lock(m);
    frames.push_back(d);
  }
};

}  // namespace

TEST(ABaseTransport, HandsExactlyLengthBytesToItsSender) {
  auto t = BaseTransport::create();
  auto sink = std::make_shared<Sink>();
  t->writeRequest(reinterpret_cast<const uint8_t*>("ignored"), 3);  // no sender: dropped
  t->setSenderDelegate(sink);
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  t->writeRequest(bytes, 3);
  t->writeRequest(bytes, 0);
  ASSERT_EQ(sink->frames.size(), 2u);
  EXPECT_EQ(sink->frames[0], Data(bytes, 3));
  EXPECT_TRUE(sink->frames[1].empty());
}

TEST(ABaseTransport, StartsAFreshThreadAfterTheOldOneHasStopped) {
  const size_t threadsBefore = test::osThreadCount();
  auto t = BaseTransport::create();
  t->stop();  // never started: nothing
  EXPECT_EQ(t->thread(), nullptr);
  t->start();  // run() returns at once: the thread ends and is cleared
  ASSERT_TRUE(test::eventually([&] { return t->thread() == nullptr; }));
  t->start();
  ASSERT_TRUE(test::eventually([&] { return t->thread() == nullptr; }));
  std::weak_ptr<BaseTransport> watch = t;
  t.reset();
  EXPECT_TRUE(test::eventually([&] { return watch.expired(); }));
  EXPECT_TRUE(test::eventually([&] { return test::osThreadCount() <= threadsBefore + 2; }));
}

TEST(ABaseTransport, DestroyedWithoutStartingNeitherBlocksNorLeaksAThread) {
  const size_t before = test::osThreadCount();
  const auto start = Clk::now();
  for (int i = 0; i < 1000; ++i) BaseTransport::create();
  EXPECT_LT(test::secondsSince(start), 5.0);
  EXPECT_LE(test::osThreadCount(), before + 2);
}
