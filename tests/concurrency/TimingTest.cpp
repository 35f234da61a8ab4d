// Stopwatch, events and worker threads. Lower bounds and order are strict; upper bounds
// generous, because the machines are shared.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/HANDLE.h"
#include "QueltLibrary/ThreadBase.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;
using Clk = std::chrono::steady_clock;

namespace {

// Runs `wait` on a thread of its own: its result and how long it took, or nothing if it
// has not returned after `limit` (the thread is then left to finish on its own).
template <class R>
std::optional<std::pair<R, double>> timed(std::function<R()> wait, std::chrono::seconds limit) {
  auto task = std::make_shared<std::packaged_task<std::pair<R, double>()>>([wait] {
    const auto start = Clk::now();
    R r = wait();
    return std::make_pair(r, test::secondsSince(start));
  });
  auto f = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  if (f.wait_for(limit) != std::future_status::ready) return std::nullopt;
  return f.get();
}

}  // namespace

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

  auto real = ComTimer::timerWithTimeout(0.05);  // the monotonic clock by default
  EXPECT_FALSE(real->isTimeout());
  std::this_thread::sleep_for(60ms);
  EXPECT_TRUE(real->isTimeout());
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
  // Only one of many testers sees one auto-reset signal.
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

// A wait returns `result` after at least `atLeast` seconds (and well within `atLeast` + 2.5 s).
struct WaitCase {
  const char* name;
  std::function<long()> wait;
  long result;
  double atLeast;
};

TEST(AnEvent, WaitsAsLongAsItsRulesSayFromBothSides) {
  auto unset = HANDLE::createManualEvent(), set = HANDLE::createEvent(true, false);
  auto a = HANDLE::createAutoEvent(), b = HANDLE::createAutoEvent(), c = HANDLE::createEvent(true, true);
  const WaitCase cases[] = {
      {"0.5 s on an unset event", [=] { return long(unset->waitTimeout(0.5)); }, 0, 0.5},
      {"0 s on an unset event tests once", [=] { return long(unset->waitTimeout(0)); }, 0, 0.0},
      {"0 s on a set event", [=] { return long(set->waitTimeout(0)); }, 1, 0.0},
      // The index is not kept: the third event being set still gives 0.
      {"three events, the third set", [=] { return HANDLE::waitForMultipleObjects({a, b, c}, 0.1); }, 0, 0.0},
      // t is the pause between passes; the limit is a fixed 1.0 s for any t >= 0.
      {"none set, t = 0.1", [=] { return HANDLE::waitForMultipleObjects({a, b}, 0.1); }, -1, 1.0},
      {"none set, t = 0", [=] { return HANDLE::waitForMultipleObjects({a, b}, 0.0); }, -1, 1.0},
      {"an empty list, t = 0", [] { return HANDLE::waitForMultipleObjects({}, 0.0); }, -1, 1.0},
  };
  for (const auto& w : cases) {
    auto r = timed<long>(w.wait, 10s);
    ASSERT_TRUE(r) << w.name << ": never returned";
    EXPECT_EQ(r->first, w.result) << w.name;
    EXPECT_GE(r->second, w.atLeast) << w.name;
    EXPECT_LT(r->second, w.atLeast + 2.5) << w.name;
  }
  EXPECT_FALSE(c->isSet()) << "the wait consumed the signal";
}

TEST(AnEvent, IsSeenByAnEndlessWaitSoonAfterItIsSetButNotAfterALongPause) {
  auto late = HANDLE::createAutoEvent();
  std::thread setter([&] {
    std::this_thread::sleep_for(100ms);
    late->set();
  });
  auto r = timed<long>([&] { return long(late->waitTimeout(-1)); }, 10s);
  setter.join();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->first, 1);
  EXPECT_GE(r->second, 0.09);
  // A pause of 2.0 s ends after the 1.0 s limit: an event set 0.5 s in is never looked at.
  auto e = HANDLE::createManualEvent();
  std::thread setter2([&] {
    std::this_thread::sleep_for(500ms);
    e->set();
  });
  r = timed<long>([&] { return HANDLE::waitForSingleObject(e, 2.0); }, 10s);
  setter2.join();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->first, -1);
  EXPECT_GE(r->second, 2.0);
  EXPECT_LT(r->second, 5.0);
}

namespace {

class Worker : public ThreadBaseDelegate {
 public:
  std::atomic<int> started{0}, rounds{0}, stopped{0};
  std::atomic<bool> onCallersThread{false};
  std::thread::id caller = std::this_thread::get_id();
  bool giveLoop = true;
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& t) override {
    if (!giveLoop) return {};
    return [this, t] {
      while (!t->isClosing()) rounds++;
    };
  }
  void threadStarted(const std::shared_ptr<ThreadBase>&) override {
    if (std::this_thread::get_id() == caller) onCallersThread = true;
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
  const auto start = Clk::now();
  t->stop();
  ASSERT_TRUE(test::eventually([&] { return !t->alive(); }));
  EXPECT_LT(test::secondsSince(start), 2.0);
  EXPECT_EQ(w->started, 1);
  EXPECT_EQ(w->stopped, 1);
  EXPECT_FALSE(w->onCallersThread);
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
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(t->isClosing());
  const double seconds = test::secondsSince(start);
  EXPECT_GE(seconds, 0.020);
  EXPECT_LT(seconds, 1.0);
}
