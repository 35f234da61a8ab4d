#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/DispatchQueue.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;

TEST(ASerialQueue, RunsEachProducersTasksInOrderOneAtATimeMixingSyncAndAsyncAsTheMainQueueDoes) {
  constexpr int kQueues = 6, kTasks = 1500;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::vector<int>> seen(2 * kQueues);  // each written on its queue only
  std::vector<std::atomic<int>> running(kQueues);
  std::atomic<int> overlaps{0};
  queues.push_back(DispatchQueue::main());
  for (int q = 1; q < kQueues; ++q) queues.push_back(DispatchQueue::create("q"));
  std::vector<std::thread> producers;  // two per queue
  for (int p = 0; p < 2 * kQueues; ++p) {
    producers.emplace_back([&, p, q = p % kQueues] {
      for (int i = 0; i < kTasks; ++i) {
        auto task = [&, p, q, i] {
          overlaps += running[q].fetch_add(1) != 0;
          seen[p].push_back(i);
          running[q].fetch_sub(1);
        };
        i % 5 == p % 5 ? queues[q]->sync(task) : queues[q]->async(task);
      }
    });
  }
  for (auto& t : producers) t.join();
  for (auto& q : queues) q->sync([] {});
  EXPECT_EQ(overlaps, 0);
  for (const auto& s : seen) {
    ASSERT_EQ(s.size(), size_t(kTasks));
    for (int i = 0; i < kTasks; ++i) ASSERT_EQ(s[i], i);
  }
}

TEST(ASerialQueue, HoldsNoThreadWhileIdleAndSharesAFewWorkersWhileBusy) {
  const size_t before = test::osThreadCount();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::shared_ptr<ComTimer>> timers;  // each a module with a queue of its own
  for (int i = 0; i < 10000; ++i) {
    queues.push_back(DispatchQueue::create("idle"));
    timers.push_back(ComTimer::timer());
  }
  EXPECT_LT(test::osThreadCount(), before + 8);
  // Bursts of short tasks on 300 of them do not block: no worker per queue.
  std::atomic<int> done{0};
  for (int round = 0; round < 20; ++round) {
    for (int q = 0; q < 300; ++q) {
      queues[q * 33]->async([&] {
        volatile int spin = 0;
        for (int k = 0; k < 2000; ++k) spin = spin + k;
        done++;
      });
    }
  }
  ASSERT_TRUE(test::eventually([&] { return done == 300 * 20; }, 30s));
  EXPECT_LT(test::osThreadCount(), before + 24);
}

TEST(ASerialQueue, KeepsOtherQueuesRunningWhileTasksBlock) {
  // More sleeping tasks than the pool keeps in reserve: a quick task elsewhere still runs.
  std::atomic<int> blockersDone{0};
  std::vector<std::shared_ptr<DispatchQueue>> blockers(12);
  for (auto& b : blockers) {
    b = DispatchQueue::create("blocker");
    b->async([&] {
      std::this_thread::sleep_for(2s);
      blockersDone++;
    });
  }
  std::promise<int> finished;
  DispatchQueue::create("quick")->async([&] { finished.set_value(blockersDone.load()); });
  auto f = finished.get_future();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(f.get(), 0) << "the quick task waited for the sleeping ones";
  ASSERT_TRUE(test::eventually([&] { return blockersDone == 12; }));
}

TEST(ASerialQueue, RunsSyncAfterEverythingBeforeInlineWhenNestedWithItsLabelAndSpecifics) {
  auto a = DispatchQueue::create("a"), b = DispatchQueue::create("b");
  static const char key = 0;
  a->setSpecific(&key, a.get());
  EXPECT_EQ(DispatchQueue::getSpecific(&key), nullptr);
  std::vector<int> order;
  a->async([&] {
    std::this_thread::sleep_for(50ms);
    order.push_back(1);
  });
  a->sync([&] {
    order.push_back(2);
    a->sync([&] { order.push_back(3); });  // inline: no deadlock
    b->sync([&] {
      EXPECT_TRUE(b->isCurrent() && a->isCurrent());  // a waits for us on this thread
      EXPECT_EQ(DispatchQueue::currentLabel(), "b");
      EXPECT_EQ(DispatchQueue::getSpecific(&key), a.get());
      a->sync([&] { order.push_back(4); });
    });
  });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_FALSE(a->isCurrent());
}

TEST(ASerialQueue, RunsDelayedTasksNoSoonerThanAskedInDeadlineOrderAndAZeroDelayFirst) {
  auto q = DispatchQueue::create("later");
  std::vector<std::pair<int, double>> ran;  // written on q only
  const auto start = std::chrono::steady_clock::now();
  auto record = [&](int n) { return [&, n] { ran.emplace_back(n, test::secondsSince(start)); }; };
  q->asyncAfter(80ms, record(3));
  q->asyncAfter(20ms, record(2));
  q->asyncAfter(0ms, record(1));
  q->async(record(0));
  auto count = [&] {
    size_t n = 0;
    q->sync([&] { n = ran.size(); });
    return n;
  };
  ASSERT_TRUE(test::eventually([&] { return count() == 4; }));
  EXPECT_EQ(ran[0].first + ran[1].first, 1);  // the zero delay waits for no deadline
  EXPECT_EQ(std::make_pair(ran[2].first, ran[3].first), std::make_pair(2, 3));
  EXPECT_GE(ran[2].second, 0.02);
  EXPECT_GE(ran[3].second, 0.08);
}

// On a ManualClock delayed tasks come due only as the clock is moved, in deadline order
// (equal deadlines in submission order), wherever they were asked from; those of a clock
// that goes away are dropped unrun, with what they hold.
TEST(ASerialQueue, RunsDelayedTasksOfAManualClockWhenItIsMovedAndDropsThemWithIt) {
  auto clock = std::make_unique<ManualClock>(50.0);
  auto q = DispatchQueue::create("manual");
  std::vector<int> ran;  // written on q only
  auto ranNow = [&] {
    std::vector<int> copy;
    q->sync([&] { copy = ran; });
    return copy;
  };
  auto record = [&](int n) { return [&ran, n] { ran.push_back(n); }; };
  q->asyncAfter(30ms, record(3), *clock);
  q->asyncAfter(10ms, record(1), *clock);
  q->asyncAfter(30ms, record(4), *clock);
  q->asyncAfter(
      20ms, [&] { q->asyncAfter(5ms, record(5), *clock); }, *clock);
  q->asyncAfter(0ms, record(0), *clock);
  EXPECT_EQ(ranNow(), std::vector<int>{0});
  EXPECT_DOUBLE_EQ(*clock->nextDue(), 50.01);
  clock->advance(0.0099);
  EXPECT_EQ(ranNow(), std::vector<int>{0}) << "a deadline not yet reached";
  clock->advance(0.0001);
  EXPECT_EQ(ranNow(), (std::vector<int>{0, 1}));
  clock->set(50.03);
  EXPECT_EQ(ranNow(), (std::vector<int>{0, 1, 3, 4}));
  EXPECT_DOUBLE_EQ(*clock->nextDue(), 50.035) << "asked at 50.03 by the task due at 50.02";
  clock->advance(0.005);
  EXPECT_EQ(ranNow(), (std::vector<int>{0, 1, 3, 4, 5}));
  EXPECT_FALSE(clock->nextDue());

  auto held = std::make_shared<int>(7);
  q->asyncAfter(
      1s, [held, &ran] { ran.push_back(*held); }, *clock);
  clock.reset();
  EXPECT_EQ(held.use_count(), 1) << "the dropped task let go of what it held";
  EXPECT_EQ(ranNow().size(), 5u);
}

// Whatever a task throws, and however it was queued, the queue runs its next task and the
// exception is logged with the queue's label.
TEST(AThrowingTask, IsContainedAndTheQueueGoesOn) {
  test::LogCapture log;
  const auto queue = DispatchQueue::create("edges.thrower");
  using Submit = std::function<void(const std::shared_ptr<DispatchQueue>&, DispatchQueue::Task)>;
  const std::vector<std::pair<const char*, Submit>> ways{
      {"async", [](auto& q, auto t) { q->async(std::move(t)); }},
      {"asyncAfter", [](auto& q, auto t) { q->asyncAfter(1ms, std::move(t)); }},
      {"main", [](auto&, auto t) { DispatchQueue::main()->async(std::move(t)); }},
  };
  for (const auto& [name, submit] : ways) {
    SCOPED_TRACE(name);
    submit(queue, [] { throw std::runtime_error("callback failed"); });
    submit(queue, [] { throw 42; });
    std::promise<void> next;
    submit(queue, [&] { next.set_value(); });
    ASSERT_EQ(next.get_future().wait_for(10s), std::future_status::ready);
  }
  std::string logged;
  for (const auto& line : log.lines()) logged += line + "\n";
  EXPECT_NE(logged.find("\"edges.thrower\" : a task threw an exception : callback failed"),
            std::string::npos)
      << logged;
  EXPECT_NE(logged.find("\"qlt.main\""), std::string::npos) << logged;
  // sync() hands the exception to its caller and releases the queue.
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("to the caller"); }), std::runtime_error);
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

// What the idle thread costs (no wake-up while nothing is queued) is bench/idle's to
// measure (it stops the main queue
// outside a run first): a test would have to sleep to see nothing happen.
TEST(AStopOutsideRun, LeavesTheLibraryMainThreadServing) {
  std::promise<void> before;
  DispatchQueue::main()->async([&] { before.set_value(); });
  ASSERT_EQ(before.get_future().wait_for(10s), std::future_status::ready);
  MainQueue::stop();
  std::promise<void> after;
  DispatchQueue::main()->async([&] { after.set_value(); });
  EXPECT_EQ(after.get_future().wait_for(10s), std::future_status::ready);
}

TEST(AStopOutsideRun, IsKeptForTheNextRunOfAnApplicationDrivenMainQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, its main queue unused
  EXPECT_EXIT(
      {
        alarm(10);  // a lost stop would leave run() waiting forever
        MainQueue::useApplicationThread();
        int ran = 0;
        DispatchQueue::main()->async([&] { ++ran; });
        MainQueue::stop();
        MainQueue::run();  // runs what waits, then returns
        std::_Exit(ran == 1 ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}
