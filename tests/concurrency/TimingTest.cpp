// Stopwatch, events and worker threads. Lower bounds and order are strict; upper bounds
// generous, because the machines are shared.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <thread>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/HANDLE.h"
#include "QueltLibrary/ThreadBase.h"
#include "support/TestSupport.h"
#include "worker/Pause.h"
#include "worker/RoundPacer.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

// `wait`'s result and its duration in seconds, run on a thread of its own; nothing if it
// has not returned within 10 s (the thread is then left to itself).
std::optional<std::pair<long, double>> timed(std::function<long()> wait) {
  auto task = std::make_shared<std::packaged_task<std::pair<long, double>()>>([wait] {
    const auto start = std::chrono::steady_clock::now();
    const long r = wait();
    return std::make_pair(r, test::secondsSince(start));
  });
  auto f = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  if (f.wait_for(10s) != std::future_status::ready) return std::nullopt;
  return f.get();
}

void setAfter(std::shared_ptr<HANDLE> e, std::chrono::milliseconds delay) {
  std::thread([e, delay] {
    std::this_thread::sleep_for(delay);
    e->set();
  }).detach();
}

}  // namespace

TEST(AComTimer, TimesOutStrictlyAfterItsTimeout) {
  auto clock = std::make_shared<ManualClock>(100.0);
  auto t = ComTimer::timer(clock);
  EXPECT_EQ(t->Timeout(), 1.0);
  clock->advance(1.0);
  EXPECT_FALSE(t->isTimeout());  // exactly the time-out is not past it
  clock->advance(0.001);
  EXPECT_TRUE(t->isTimeout());
  t->start();
  EXPECT_EQ(t->elapse(), 0.0);
  clock->advance(0.5);
  t->setTimeout(0.25);  // does not restart
  EXPECT_DOUBLE_EQ(t->elapse(), 0.5);
  EXPECT_TRUE(t->isTimeout());
  auto zero = ComTimer::timerWithTimeout(0, clock);
  EXPECT_FALSE(zero->isTimeout());  // no time has passed
  clock->advance(1e-9);
  EXPECT_TRUE(zero->isTimeout());
  EXPECT_TRUE(ComTimer::timerWithTimeout(-1, clock)->isTimeout());
  t->setTm(clock->now() + 5.0);  // as a start() on another thread that read a later time
  EXPECT_EQ(t->elapse(), 0.0) << "a negative elapsed time";
  EXPECT_FALSE(t->isTimeout());
  auto real = ComTimer::timerWithTimeout(0.05);  // the monotonic clock by default
  EXPECT_FALSE(real->isTimeout());
  std::this_thread::sleep_for(60ms);
  EXPECT_TRUE(real->isTimeout());
}

TEST(AnEvent, ConsumesAnAutoResetSignalOnceButKeepsAManualOne) {
  auto manual = HANDLE::createEvent(true, false);
  EXPECT_TRUE(manual->isSet() && manual->isSet());
  manual->reset();
  EXPECT_FALSE(manual->isSet());
  for (int round = 0; round < 50; ++round) {  // one of four testers sees the signal
    auto e = HANDLE::createAutoEvent();
    std::atomic<int> seen{0};
    e->set();
    std::vector<std::thread> testers;
    for (int i = 0; i < 4; ++i) testers.emplace_back([&] { seen += e->isSet() ? 1 : 0; });
    for (auto& t : testers) t.join();
    ASSERT_EQ(seen, 1);
    ASSERT_FALSE(e->isSet());
  }
}

TEST(AnEvent, WaitsAsLongAsItsRulesSayFromBothSides) {
  using Events = std::vector<std::shared_ptr<HANDLE>>;
  auto one = [](std::shared_ptr<HANDLE> e, double t, int setAfterMs = -1) {
    return [=] {
      if (setAfterMs >= 0) setAfter(e, std::chrono::milliseconds(setAfterMs));
      return long(e->waitTimeout(t));
    };
  };
  auto many = [](Events events, double t, int setAfterMs = -1) {
    return [=] {
      if (setAfterMs >= 0) setAfter(events.back(), std::chrono::milliseconds(setAfterMs));
      return events.size() == 1 ? HANDLE::waitForSingleObject(events[0], t)
                                : HANDLE::waitForMultipleObjects(events, t);
    };
  };
  auto unset = [] { return HANDLE::createManualEvent(); };
  auto autoSet = [] { return HANDLE::createEvent(true, true); };
  auto third = autoSet();
  // t of waitForMultipleObjects is the pause between passes, the limit a fixed 1.0 s; which
  // event was set is not kept. A pause longer than the limit ends it: no pass after it.
  const std::tuple<const char*, std::function<long()>, long, double> cases[] = {
      {"0.5 s, unset", one(unset(), 0.5), 0, 0.5},
      {"0 s, unset: tests once", one(unset(), 0), 0, 0.0},
      {"0 s, set", one(autoSet(), 0), 1, 0.0},
      {"endless, set after 100 ms", one(unset(), -1, 100), 1, 0.1},
      {"the third of three set", many({unset(), unset(), third}, 0.1), 0, 0.0},
      {"none set, t = 0.1", many({unset(), unset()}, 0.1), -1, 1.0},
      {"none set, t = 0", many({unset(), unset()}, 0.0), -1, 1.0},
      {"an empty list, t = 0", many({}, 0.0), -1, 1.0},
      {"t = 2.0, set at 0.5 s", many({unset()}, 2.0, 500), -1, 2.0}};
  for (const auto& [name, wait, result, atLeast] : cases) {
    auto r = timed(wait);
    ASSERT_TRUE(r) << name << ": never returned";
    EXPECT_EQ(r->first, result) << name;
    EXPECT_GE(r->second, atLeast) << name;
    EXPECT_LT(r->second, atLeast + 2.5) << name;
  }
  EXPECT_FALSE(third->isSet()) << "the wait consumed the signal";
}

// A pause far beyond what the clock can count (or infinite) saturates: the wait pauses for
// good. It is never converted to an integer count (undefined: UBSan reports it), nor cut
// short to return after the one-second limit as if it had waited.
TEST(AHandleWait, SaturatesHugeAndInfinitePauses) {
  using detail::pauseFor;
  for (const double pause : {1e300, std::numeric_limits<double>::infinity(), 1e12, 1e9}) {
    EXPECT_FALSE(pauseFor(pause)) << pause << " s ends";
  }
  EXPECT_EQ(pauseFor(2.5e8), std::chrono::seconds(250'000'000));
  EXPECT_EQ(pauseFor(0.0015), std::chrono::microseconds(1500));
  for (const double none : {0.0, -1.0, -std::numeric_limits<double>::infinity(),
                            std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(pauseFor(none), std::chrono::nanoseconds(0)) << none;
  }
  const auto event = HANDLE::createManualEvent();
  event->set();
  EXPECT_TRUE(event->waitTimeout(std::numeric_limits<double>::infinity()));
}

namespace {

class Worker : public ThreadBaseDelegate {
 public:
  std::atomic<int> started{0}, rounds{0}, stopped{0}, onCallersThread{0};
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<bool> giveLoop = true;
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& t) override {
    if (!giveLoop) return {};
    return [this, t] {
      while (!t->isClosing()) rounds++;
    };
  }
  void threadStarted(const std::shared_ptr<ThreadBase>&) override {
    onCallersThread += std::this_thread::get_id() == caller;
    started++;
  }
  void threadStopped(const std::shared_ptr<ThreadBase>&) override { stopped++; }
};

}  // namespace

TEST(AWorkerThread, RunsItsLoopOnItsOwnThreadUntilStoppedThenReportsTheStop) {
  auto w = std::make_shared<Worker>();
  auto t = ThreadBase::create(w);
  t->stop();  // before start: nothing, and the later start runs with the exit event clear
  EXPECT_FALSE(t->alive());
  t->start();
  t->start();  // while running: nothing new
  ASSERT_TRUE(test::eventually([&] { return w->rounds > 5; }));
  EXPECT_TRUE(t->alive());
  const auto start = std::chrono::steady_clock::now();
  t->stop();
  ASSERT_TRUE(test::eventually([&] { return !t->alive(); }));
  EXPECT_LT(test::secondsSince(start), 2.0);
  EXPECT_EQ(std::make_tuple(w->started.load(), w->stopped.load(), w->onCallersThread.load()),
            std::make_tuple(1, 1, 0));
  test::LogCapture log;  // a delegate without a loop: logged, and the stop still reported
  w->giveLoop = false;
  auto again = ThreadBase::create(w);
  again->start();
  ASSERT_TRUE(test::eventually([&] { return w->stopped == 2; }));
  EXPECT_TRUE(log.contains("No runloop was defined!!!"));
}

TEST(AWorkerThread, TakesAboutAMillisecondToSayItIsNotClosing) {
  auto t = ThreadBase::create();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(t->isClosing());
  EXPECT_GE(test::secondsSince(start), 0.020);
  EXPECT_LT(test::secondsSince(start), 1.0);
}

// A pacer's deadlines are its clock's: a manual clock brings them, real time does not.
TEST(ARoundPacer, RunsARoundWhenItsClockReachesTheDeadlineTheLastRoundAskedFor) {
  auto clock = std::make_shared<ManualClock>();
  auto queue = DispatchQueue::create("pacer");
  std::atomic<int> rounds{0};
  auto pacer = RoundPacer::create(
      queue, [&] { return ++rounds == 1 ? 0.5 : std::numeric_limits<double>::infinity(); }, clock);
  const auto settled = [&] { queue->sync([] {}); };
  pacer->wake();
  settled();
  EXPECT_EQ(rounds, 1);
  clock->advance(0.4);
  settled();
  EXPECT_EQ(rounds, 1) << "before its deadline";
  clock->advance(0.2);
  settled();
  EXPECT_EQ(rounds, 2);
  EXPECT_FALSE(clock->nextDue()) << "the last round asked for nothing more";
  pacer->stop();
}
