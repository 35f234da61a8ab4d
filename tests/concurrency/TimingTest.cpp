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
  auto real = ComTimer::timerWithTimeout(0.05);  // the monotonic clock by default
  EXPECT_FALSE(real->isTimeout());
  std::this_thread::sleep_for(60ms);
  EXPECT_TRUE(real->isTimeout());
}

TEST(AnEvent, ConsumesAnAutoResetSignalOnceButKeepsAManualOne) {
  auto manual = HANDLE::createManualEvent();
  manual->set();
  EXPECT_TRUE(manual->isSet() && manual->isSet());
  manual->reset();
  EXPECT_FALSE(manual->isSet());
  EXPECT_TRUE(HANDLE::createEvent(true, false)->isSet());
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
  auto unset = HANDLE::createManualEvent(), set = HANDLE::createEvent(true, false);
  auto a = HANDLE::createAutoEvent(), b = HANDLE::createAutoEvent();
  auto c = HANDLE::createEvent(true, true), late = HANDLE::createAutoEvent();
  auto single = HANDLE::createManualEvent();
  using Multi = std::vector<std::shared_ptr<HANDLE>>;
  struct Case {
    const char* name;
    std::function<long()> wait;
    long result;
    double atLeast;  // and less than atLeast + 2.5
  };
  const Case cases[] = {
      {"0.5 s, unset", [=] { return long(unset->waitTimeout(0.5)); }, 0, 0.5},
      {"0 s, unset: tests once", [=] { return long(unset->waitTimeout(0)); }, 0, 0.0},
      {"0 s, set", [=] { return long(set->waitTimeout(0)); }, 1, 0.0},
      {"endless, set after 100 ms", [=] { setAfter(late, 100ms); return long(late->waitTimeout(-1)); }, 1, 0.1},
      // Which event is not kept; t is the pause between passes, the limit a fixed 1.0 s.
      {"the third of three set", [=] { return HANDLE::waitForMultipleObjects({a, b, c}, 0.1); }, 0, 0},
      {"none set, t = 0.1", [=] { return HANDLE::waitForMultipleObjects({a, b}, 0.1); }, -1, 1.0},
      {"none set, t = 0", [=] { return HANDLE::waitForMultipleObjects({a, b}, 0.0); }, -1, 1.0},
      {"an empty list, t = 0", [] { return HANDLE::waitForMultipleObjects(Multi{}, 0.0); }, -1, 1.0},
      // One pass, one pause of 2.0 s, and no pass after it: the event set at 0.5 s is missed.
      {"t = 2.0, set at 0.5 s", [=] { setAfter(single, 500ms); return HANDLE::waitForSingleObject(single, 2.0); }, -1, 2.0},
  };
  for (const auto& w : cases) {
    auto r = timed(w.wait);
    ASSERT_TRUE(r) << w.name << ": never returned";
    EXPECT_EQ(r->first, w.result) << w.name;
    EXPECT_GE(r->second, w.atLeast) << w.name;
    EXPECT_LT(r->second, w.atLeast + 2.5) << w.name;
  }
  EXPECT_FALSE(c->isSet()) << "the wait consumed the signal";
}

namespace {

class Worker : public ThreadBaseDelegate {
 public:
  std::atomic<int> started{0}, rounds{0}, stopped{0}, onCallersThread{0};
  const std::thread::id caller = std::this_thread::get_id();
  bool giveLoop = true;
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
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(t->isClosing());
  EXPECT_GE(test::secondsSince(start), 0.020);
  EXPECT_LT(test::secondsSince(start), 1.0);
}
