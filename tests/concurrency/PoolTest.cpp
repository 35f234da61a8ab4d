// The pool under tasks that hold their workers: CPU-bound, waiting for an event, many at
// once. Order and lower bounds are strict; the upper bounds are "before the others finish"
// and the pool's documented limits, never a number of milliseconds.
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/HANDLE.h"
#include "concurrency/ThreadPool.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

// Lets the idle workers of earlier tests retire, so that the tasks below hold every worker.
void startFromReserve() {
  ASSERT_TRUE(test::eventually([] { return DispatchQueue::poolThreads() <= 2; }, 20s));
}

double threadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// Runs `task` on `count` queues of its own; returns once all have started.
std::vector<std::shared_ptr<DispatchQueue>> occupy(size_t count, std::atomic<int>& started,
                                                   const std::function<void()>& task) {
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (size_t i = 0; i < count; ++i) {
    queues.push_back(DispatchQueue::create("occupied"));
    queues.back()->async([&started, task] {
      ++started;
      task();
    });
  }
  EXPECT_TRUE(test::eventually([&] { return started == int(count); }));
  return queues;
}

}  // namespace

TEST(APool, StartsAFreshTaskWhileAsManyTasksAsItStartsOnDemandSpin) {
  startFromReserve();
  std::atomic<bool> release{false};
  std::atomic<int> started{0};
  const auto spin = [&] {
    const auto giveUp = std::chrono::steady_clock::now() + 60s;
    while (!release && std::chrono::steady_clock::now() < giveUp) {}
  };
  auto busy = occupy(DispatchQueue::poolLimits().onDemand, started, spin);
  std::promise<void> fresh;
  DispatchQueue::create("fresh")->async([&] { fresh.set_value(); });
  EXPECT_EQ(fresh.get_future().wait_for(30s), std::future_status::ready)
      << "the fresh task waited for the spinning ones";
  release = true;
  for (auto& q : busy) q->sync([] {});
}

// Every worker waits for an event without limit; the task that sets it comes later, on
// another queue. The waiters block rather than spin, and the setter gets a worker.
TEST(APool, RunsTheTaskThatSetsTheEventAllItsWorkersWaitFor) {
  startFromReserve();
  const auto event = HANDLE::createManualEvent();
  std::atomic<int> started{0};
  std::vector<double> waitCpu(DispatchQueue::poolLimits().onDemand, -1.0), waited(waitCpu);
  std::atomic<size_t> next{0};
  auto waiters = occupy(waitCpu.size(), started, [&] {
    const size_t me = next++;
    const double cpu = threadCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    if (me % 2 == 0) {
      EXPECT_EQ(HANDLE::waitForSingleObject(event), 0);
    } else {
      EXPECT_TRUE(event->wait());
    }
    waited[me] = test::secondsSince(start);
    waitCpu[me] = threadCpuSeconds() - cpu;
  });
  DispatchQueue::create("setter")->async([event] {
    std::this_thread::sleep_for(500ms);
    event->set();
  });
  for (auto& q : waiters) {
    std::promise<void> done;
    q->async([&] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(30s), std::future_status::ready) << "a waiter hangs";
  }
  for (size_t i = 0; i < waitCpu.size(); ++i) {
    EXPECT_GE(waited[i], 0.45) << i;
    EXPECT_LT(waitCpu[i], 0.02) << i << ": the wait spun";
  }
}

// Three times as many CPU-bound tasks as the pool lets run: it grows to its cap for running
// workers and no further (a busy worker waiting for a CPU is not a blocked one), then its
// idle workers retire down to the reserve.
TEST(APool, StaysUnderItsCapForCpuBoundWorkThenRetiresItsIdleWorkers) {
  const size_t cap = DispatchQueue::poolLimits().running;
  std::atomic<int> started{0}, finished{0};
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (size_t i = 0; i < 3 * cap; ++i) {
    queues.push_back(DispatchQueue::create("cpu"));
    queues.back()->async([&] {
      ++started;
      const auto until = std::chrono::steady_clock::now() + 200ms;
      while (std::chrono::steady_clock::now() < until) {}
      ++finished;
    });
  }
  size_t most = 0;
  while (finished < int(queues.size())) {
    most = std::max(most, DispatchQueue::poolThreads());
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_GT(most, DispatchQueue::poolLimits().onDemand) << "CPU-bound work starved the rest";
  EXPECT_LE(most, cap + 2);
  EXPECT_TRUE(test::eventually([] { return DispatchQueue::poolThreads() <= 2; }, 20s))
      << DispatchQueue::poolThreads() << " workers left";
}

// Many queues passing short tasks around, as links echoing at once do, run on the workers
// the pool starts on demand, not on one per queue: none of these tasks blocks, so the pool
// stays within its `running` limit (with room for a busy machine's stalls).
TEST(APool, RunsManyQueuesOfShortTasksOnAFewWorkers) {
  startFromReserve();
  constexpr int kQueues = 64;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (int i = 0; i < kQueues; ++i) queues.push_back(DispatchQueue::create("link"));
  std::atomic<bool> stop{false};
  std::atomic<long> hops{0};
  std::atomic<int> chains{kQueues};
  std::function<void(int)> hop = [&](int i) {
    ++hops;
    if (stop) {
      --chains;
      return;
    }
    const int next = (i * 7 + 1) % kQueues;
    queues[next]->async([&, next] { hop(next); });
  };
  for (int i = 0; i < kQueues; ++i) queues[i]->async([&, i] { hop(i); });
  size_t most = 0;
  const auto until = std::chrono::steady_clock::now() + 1s;
  while (std::chrono::steady_clock::now() < until) {
    most = std::max(most, DispatchQueue::poolThreads());
    std::this_thread::sleep_for(2ms);
  }
  stop = true;
  ASSERT_TRUE(test::eventually([&] { return chains == 0; }));
  EXPECT_GT(hops.load(), 10 * kQueues);
  EXPECT_LE(most, 2 * DispatchQueue::poolLimits().running);
}

// The worker woken for a caller is one near the top of the idle stack that slept on the
// caller's CPU (where the kernel starts it without waking an idle CPU), the latest such;
// the workers further down stay asleep and retire. Without one, or with the CPU unknown,
// the top of the stack.
TEST(APool, WakesTheLatestWorkerThatSleptOnTheCallersCpu) {
  struct Idle {
    detail::SleptOn slept;
  };
  const auto stack = [](std::vector<detail::SleptOn> slept) {
    std::vector<std::shared_ptr<Idle>> idle;
    for (auto s : slept) idle.push_back(std::make_shared<Idle>(Idle{s}));
    return idle;
  };
  const auto woken = [](std::vector<std::shared_ptr<Idle>>& idle, int cpu, size_t depth) {
    return detail::idleToWake(idle, cpu, depth) - idle.begin();
  };
  // Bottom first: never slept, twice on 0, once on 0 (on 1 before), twice on 1, once on 2.
  auto idle = stack({{-1, -1}, {0, 0}, {0, 1}, {0, 1}, {1, 1}, {2, 0}});
  EXPECT_EQ(woken(idle, 0, 6), 1);   // twice on the CPU goes before the latest once
  EXPECT_EQ(woken(idle, 0, 4), 3);   // ... within the depth looked at
  EXPECT_EQ(woken(idle, 0, 2), 5);   // none there: the top
  EXPECT_EQ(woken(idle, 1, 6), 4);   // the latest on it; not those that slept there only before
  EXPECT_EQ(woken(idle, 5, 6), 5);   // no worker slept there: the top
  EXPECT_EQ(woken(idle, -1, 6), 5);  // unknown is no CPU, not the never-slept worker's
  idle = stack({{1, 0}, {1, 0}, {0, 1}});
  EXPECT_EQ(woken(idle, 1, 3), 1);  // of those once on the CPU, the latest
}

// An idle worker spins while spins catch tasks; after each miss in a row it skips twice as
// many idle spells (at most 64), and the first catch opens the gate again.
TEST(APool, SpinsLessWhileItsSpinsMissAndAgainOnceOneCatches) {
  detail::SpinGate gate;
  const auto spinsOf = [&](int spells) {
    std::string seen;
    for (int i = 0; i < spells; ++i) seen += gate.shouldSpin() ? 'S' : '.';
    return seen;
  };
  EXPECT_EQ(spinsOf(3), "SSS");  // nothing missed yet
  gate.spun(false);
  EXPECT_EQ(spinsOf(2), ".S");
  gate.spun(false);
  EXPECT_EQ(spinsOf(3), "..S");
  gate.spun(false);
  EXPECT_EQ(spinsOf(5), "....S");
  for (int i = 0; i < 20; ++i) gate.spun(false);
  EXPECT_EQ(spinsOf(65), std::string(64, '.') + "S");  // never more than 64 skipped
  gate.spun(true);
  EXPECT_EQ(spinsOf(3), "SSS");
}
