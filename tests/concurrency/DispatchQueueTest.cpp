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

TEST(ASerialQueue, RunsEachProducersTasksInOrderOneAtATimeMixingSyncAndAsync) {
  constexpr int kQueues = 6, kProducers = 2, kTasks = 1500;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::vector<int>> seen(kQueues * kProducers);  // each written on its queue only
  std::vector<std::atomic<int>> running(kQueues);
  std::atomic<int> overlaps{0};
  for (int q = 0; q < kQueues; ++q) queues.push_back(DispatchQueue::create("q"));
  std::vector<std::thread> producers;
  for (int p = 0; p < kQueues * kProducers; ++p) {
    producers.emplace_back([&, p] {
      const int q = p % kQueues;
      for (int i = 0; i < kTasks; ++i) {
        auto task = [&, p, q, i] {
          if (running[q].fetch_add(1) != 0) overlaps++;
          seen[p].push_back(i);
          running[q].fetch_sub(1);
        };
        (i % 5 == p % 5) ? queues[q]->sync(task) : queues[q]->async(task);
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

TEST(ASerialQueue, HoldsNoThreadWhileIdle) {
  const size_t before = test::osThreadCount();
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::vector<std::shared_ptr<ComTimer>> timers;
  for (int i = 0; i < 10000; ++i) {
    queues.push_back(DispatchQueue::create("idle"));
    timers.push_back(ComTimer::timer());
  }
  EXPECT_LT(test::secondsSince(start), 5.0);  // well under a second on an idle machine
  EXPECT_LT(test::osThreadCount(), before + 8);
  std::atomic<int> ran{0};
  for (int i = 0; i < 10000; i += 997) queues[i]->async([&] { ran++; });
  EXPECT_TRUE(test::eventually([&] { return ran == 11; }));
}

TEST(ASerialQueue, SharesAFewWorkersAmongManyBusyQueues) {
  // Bursts of short tasks are not blocking: the pool must not grow a worker per queue.
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

TEST(ASerialQueue, KeepsOtherQueuesRunningWhileTasksBlock) {
  // More sleeping tasks than the pool keeps in reserve: a quick task elsewhere still runs.
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
  std::promise<int> finished;
  DispatchQueue::create("quick")->async([&] { finished.set_value(blockersDone.load()); });
  auto f = finished.get_future();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(f.get(), 0) << "the quick task waited for the sleeping ones";
  ASSERT_TRUE(test::eventually([&] { return blockersDone == kBlockers; }));
}

TEST(ASerialQueue, RunsSyncAfterEverythingBeforeAndInlineWhenNested) {
  auto a = DispatchQueue::create("a"), b = DispatchQueue::create("b");
  std::vector<int> order;
  a->async([&] {
    std::this_thread::sleep_for(50ms);
    order.push_back(1);
  });
  a->sync([&] {
    order.push_back(2);
    a->sync([&] { order.push_back(3); });  // inline: no deadlock
    b->sync([&] {
      EXPECT_TRUE(b->isCurrent());
      EXPECT_TRUE(a->isCurrent());  // a waits for us on this thread
      a->sync([&] { order.push_back(4); });
    });
  });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_FALSE(a->isCurrent());
}

TEST(ASerialQueue, KnowsItsLabelAndQueueSpecificValuesOnlyWhileRunningThere) {
  auto q = DispatchQueue::create("labelled");
  static const char key = 0;
  int value = 42;
  q->setSpecific(&key, &value);
  EXPECT_EQ(DispatchQueue::getSpecific(&key), nullptr);
  EXPECT_EQ(DispatchQueue::currentLabel(), "");
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
  std::set<std::thread::id> threads;
  for (int i = 0; i < 100; ++i) {
    DispatchQueue::main()->async([&, i] {
      EXPECT_TRUE(DispatchQueue::main()->isCurrent());
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
    });
  }
  DispatchQueue::main()->sync([] {});
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(threads.size(), 1u);
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
  ASSERT_TRUE(test::eventually([&] {
    size_t n = 0;
    q->sync([&] { n = ran.size(); });
    return n == 4;
  }));
  EXPECT_EQ(ran[0].first + ran[1].first, 1);  // the zero delay waits for no deadline
  EXPECT_EQ(ran[2].first, 2);
  EXPECT_EQ(ran[3].first, 3);
  EXPECT_GE(ran[2].second, 0.02);
  EXPECT_GE(ran[3].second, 0.08);
}
