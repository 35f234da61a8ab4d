#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/DispatchQueue.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;

TEST(ASerialQueue, RunsTasksInSubmissionOrderOneAtATime) {
  constexpr int kQueues = 8, kTasks = 2000;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::vector<int>> seen(kQueues);
  std::vector<std::atomic<int>> running(kQueues);
  std::atomic<int> overlaps{0}, done{0};
  for (int q = 0; q < kQueues; ++q)
    queues.push_back(DispatchQueue::create("q" + std::to_string(q)));
  // Two producer threads per queue interleave their submissions; each keeps its own order.
  std::vector<std::thread> producers;
  for (int q = 0; q < kQueues; ++q) {
    producers.emplace_back([&, q] {
      for (int i = 0; i < kTasks; ++i) {
        queues[q]->async([&, q, i] {
          if (running[q].fetch_add(1) != 0) overlaps++;
          seen[q].push_back(i);
          running[q].fetch_sub(1);
          done++;
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(test::eventually([&] { return done == kQueues * kTasks; }));
  EXPECT_EQ(overlaps, 0);
  for (int q = 0; q < kQueues; ++q) {
    ASSERT_EQ(seen[q].size(), size_t(kTasks));
    for (int i = 0; i < kTasks; ++i) ASSERT_EQ(seen[q][i], i) << "queue " << q;
  }
}

TEST(ASerialQueue, HoldsNoThreadWhileIdle) {
  const size_t before = test::osThreadCount();
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::shared_ptr<ComTimer>> timers;
  for (int i = 0; i < 10000; ++i) {
    queues.push_back(DispatchQueue::create("idle"));
    timers.push_back(ComTimer::timer());
  }
  const double seconds = test::secondsSince(start);
  EXPECT_LT(test::osThreadCount(), before + 8);
  EXPECT_LT(seconds, 5.0);  // well under a second on an idle machine
  // Each one still works when asked.
  std::atomic<int> ran{0};
  for (int i = 0; i < 10000; i += 997) queues[i]->async([&] { ran++; });
  EXPECT_TRUE(test::eventually([&] { return ran == 11; }));
}

TEST(ASerialQueue, KeepsOtherQueuesRunningWhileTasksBlock) {
  // More blocking tasks than the pool keeps in reserve, then a quick task elsewhere: it
  // must finish while the blockers still sleep.
  constexpr int kBlockers = 12;
  std::atomic<int> blockersDone{0};
  std::vector<std::shared_ptr<DispatchQueue>> blockers;
  for (int i = 0; i < kBlockers; ++i) {
    blockers.push_back(DispatchQueue::create("blocker"));
    blockers.back()->async([&] {
      std::this_thread::sleep_for(2s);
      blockersDone++;
    });
  }
  auto quick = DispatchQueue::create("quick");
  std::promise<int> finished;
  quick->async([&] { finished.set_value(blockersDone.load()); });
  auto f = finished.get_future();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(f.get(), 0) << "the quick task waited for the sleeping ones";
  ASSERT_TRUE(test::eventually([&] { return blockersDone == kBlockers; }));
}

TEST(ASerialQueue, RunsSyncInlineWhenAlreadyOnTheQueueAndNestsAcrossQueues) {
  auto a = DispatchQueue::create("a");
  auto b = DispatchQueue::create("b");
  std::promise<std::vector<int>> result;
  a->async([&] {
    std::vector<int> order;
    order.push_back(1);
    a->sync([&] { order.push_back(2); });  // inline: no deadlock
    b->sync([&] {
      EXPECT_TRUE(b->isCurrent());
      EXPECT_TRUE(a->isCurrent());  // a waits for us on this thread
      a->sync([&] { order.push_back(3); });
    });
    order.push_back(4);
    result.set_value(order);
  });
  auto f = result.get_future();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(f.get(), (std::vector<int>{1, 2, 3, 4}));
}

TEST(ASerialQueue, RunsSyncAfterEverythingSubmittedBefore) {
  auto q = DispatchQueue::create("q");
  std::vector<int> order;
  q->async([&] {
    std::this_thread::sleep_for(50ms);
    order.push_back(1);
  });
  q->async([&] { order.push_back(2); });
  q->sync([&] { order.push_back(3); });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(q->isCurrent());
}

TEST(ASerialQueue, StaysSerialUnderConcurrentSyncAndAsync) {
  auto q = DispatchQueue::create("q");
  std::atomic<int> running{0}, overlaps{0};
  long counter = 0;  // only ever touched on q
  auto body = [&] {
    if (running.fetch_add(1) != 0) overlaps++;
    ++counter;
    running.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) (i + t) % 3 == 0 ? q->sync(body) : q->async(body);
    });
  }
  for (auto& t : threads) t.join();
  q->sync([] {});
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(counter, 8000);
}

TEST(ASerialQueue, KnowsQueueSpecificValuesOfTheQueueItRuns) {
  auto q = DispatchQueue::create("labelled");
  static const char key = 0;
  int value = 42;
  q->setSpecific(&key, &value);
  EXPECT_EQ(DispatchQueue::getSpecific(&key), nullptr);
  void* seen = nullptr;
  std::string label;
  q->sync([&] {
    seen = DispatchQueue::getSpecific(&key);
    label = DispatchQueue::currentLabel();
  });
  EXPECT_EQ(seen, &value);
  EXPECT_EQ(label, "labelled");
}

TEST(TheMainQueue, RunsTasksInOrderOnOneThread) {
  std::vector<int> order;
  std::mutex m;
  std::set<std::thread::id> threads;
  std::promise<void> done;
  for (int i = 0; i < 100; ++i) {
    DispatchQueue::main()->async([&, i] {
      EXPECT_TRUE(DispatchQueue::main()->isCurrent());
      std::lock_guard lock(m);
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
      if (i == 99) done.set_value();
    });
  }
  ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
  std::lock_guard lock(m);
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(threads.size(), 1u);
}

TEST(ASerialQueue, RunsDelayedTasksNoSoonerThanAskedAndInDeadlineOrder) {
  auto q = DispatchQueue::create("later");
  std::mutex m;
  std::vector<int> order;
  std::promise<double> lastAt;
  const auto start = std::chrono::steady_clock::now();
  q->asyncAfter(80ms, [&] {
    std::lock_guard lock(m);
    order.push_back(2);
    lastAt.set_value(test::secondsSince(start));
  });
  q->asyncAfter(20ms, [&] {
    std::lock_guard lock(m);
    order.push_back(1);
  });
  q->async([&] {
    std::lock_guard lock(m);
    order.push_back(0);
  });
  auto f = lastAt.get_future();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_GE(f.get(), 0.08);
  std::lock_guard lock(m);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(ASerialQueue, SharesAFewWorkersAmongManyBusyQueues) {
  // Bursts of short tasks on many queues are not blocking: the pool must not grow a
  // worker per queue (only work that stops finishing adds workers beyond a few).
  const size_t before = test::osThreadCount();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (int i = 0; i < 300; ++i) queues.push_back(DispatchQueue::create("busy"));
  std::atomic<int> done{0};
  for (int round = 0; round < 20; ++round) {
    for (auto& q : queues) {
      q->async([&] {
        volatile int spin = 0;
        for (int k = 0; k < 2000; ++k) spin = spin + k;
        done++;
      });
    }
  }
  ASSERT_TRUE(test::eventually([&] { return done == 300 * 20; }, 30s));
  EXPECT_LT(test::osThreadCount(), before + 24);
}
