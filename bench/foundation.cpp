// Foundation benchmarks: serial-queue throughput and latency (beside a plain mutex and
// condition-variable queue thread in the same run; the latency also counts the starts on
// the submitter's CPU and the threads that ran them), the bytes of an idle queue and of a
// timer, and how soon a fresh task starts beside CPU-bound, event-waiting and blocked tasks
// (beside an idle pool). What an idle connection costs: bench/idle.cpp.
//
//   build/default/bench/qlt_foundation
#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/HANDLE.h"
#include "support/AllocationCounter.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

// Bursts of 20,000 empty tasks handed over by `submit(i, task)`, each burst waited for.
template <class Submit>
void burst(benchmark::State& state, Submit submit) {
  constexpr int kTasks = 20000;
  for (auto _ : state) {
    std::atomic<int> left{kTasks};
    std::promise<void> done;
    for (int i = 0; i < kTasks; ++i) {
      submit(i, [&] {
        if (left.fetch_sub(1) == 1) done.set_value();
      });
    }
    done.get_future().wait();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}

void asyncThroughput(benchmark::State& state, int queues) {
  std::vector<std::shared_ptr<DispatchQueue>> qs;
  for (int i = 0; i < queues; ++i) qs.push_back(DispatchQueue::create("bench"));
  burst(state, [&](int i, auto task) { qs[i % queues]->async(task); });
}

void BM_AsyncThroughputOneQueue(benchmark::State& state) { asyncThroughput(state, 1); }
void BM_AsyncThroughputEightQueues(benchmark::State& state) { asyncThroughput(state, 8); }

// The same run's baseline: one thread serving a mutex, a condition variable and a deque.
class PlainQueueThread {
 public:
  PlainQueueThread() : thread_([this] { serve(); }) {}
  ~PlainQueueThread() {
    async({});
    thread_.join();
  }
  void async(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    cv_.notify_one();
  }

 private:
  void serve() {
    for (;;) {
      std::unique_lock lock(mutex_);
      cv_.wait(lock, [this] { return !tasks_.empty(); });
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      if (!task) return;
      task();
    }
  }
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> tasks_;
  std::thread thread_;
};

// The same bursts on the plain queue thread, the figure to beat.
void BM_PlainThreadThroughput(benchmark::State& state) {
  PlainQueueThread plain;
  burst(state, [&](int, auto task) { plain.async(task); });
}

// One start: microseconds from `submit` (which hands a task over) to the task starting,
// whether it started on the CPU the submitter was on, and the thread it ran on.
struct Start {
  double us;
  bool sameCpu;
  std::thread::id thread;
};

template <class Submit>
Start startLatency(Submit submit) {
  struct Seen {
    std::chrono::steady_clock::time_point at;
    int cpu;
    std::thread::id thread;
  };
  std::promise<Seen> started;
  const int cpu = sched_getcpu();
  const auto t0 = std::chrono::steady_clock::now();
  submit([&] {
    started.set_value(
        {std::chrono::steady_clock::now(), sched_getcpu(), std::this_thread::get_id()});
  });
  const Seen seen = started.get_future().get();
  std::this_thread::sleep_for(20us);  // the queue goes idle again
  return {std::chrono::duration<double, std::micro>(seen.at - t0).count(), seen.cpu == cpu,
          seen.thread};
}

std::pair<double, double> p50p99(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  return {us[us.size() / 2], us[us.size() * 99 / 100]};
}

// p50 and p99 of the starts, the share that started on the submitter's CPU (where no idle
// CPU has to wake up), and how many threads ran them.
void report(benchmark::State& state, const std::string& prefix, const std::vector<Start>& starts) {
  std::vector<double> us;
  std::vector<std::thread::id> threads;
  size_t sameCpu = 0;
  for (const Start& s : starts) {
    us.push_back(s.us);
    sameCpu += s.sameCpu ? 1 : 0;
    if (std::find(threads.begin(), threads.end(), s.thread) == threads.end()) {
      threads.push_back(s.thread);
    }
  }
  const auto [p50, p99] = p50p99(us);
  state.counters[prefix + "p50_us"] = p50;
  state.counters[prefix + "p99_us"] = p99;
  state.counters[prefix + "same_cpu"] = double(sameCpu) / double(starts.size());
  state.counters[prefix + "threads"] = double(threads.size());
}

// From async() on an idle queue to the task starting, beside the plain queue thread, their
// samples taken in turn, so that both see the same machine (on a shared one, what other
// processes do changes within a second: two runs one after the other compared that).
void BM_AsyncLatency(benchmark::State& state) {
  auto q = DispatchQueue::create("latency");
  PlainQueueThread plain;
  for (auto _ : state) {
    std::vector<Start> queue, baseline;
    for (int i = 0; i < 5000; ++i) {
      queue.push_back(startLatency([&](auto task) { q->async(task); }));
      baseline.push_back(startLatency([&](auto task) { plain.async(task); }));
    }
    report(state, "", queue);
    report(state, "plain_", baseline);
    state.counters["pool_threads"] = double(DispatchQueue::poolThreads());
  }
}

// Heap bytes of one idle queue and of one ComTimer (each a module with its queue and
// multicast delegate), averaged over 10,000 kept alive; the queues have run a task each.
void BM_IdleBytes(benchmark::State& state) {
  constexpr int kCount = 10000;
  for (auto _ : state) {
    std::vector<std::shared_ptr<DispatchQueue>> queues;
    std::vector<std::shared_ptr<ComTimer>> timers;
    queues.reserve(kCount);
    timers.reserve(kCount);
    const bench::AllocationScope queueBytes;
    for (int i = 0; i < kCount; ++i) queues.push_back(DispatchQueue::create("idle"));
    const double perQueue = double(queueBytes.liveBytes()) / kCount;
    for (auto& q : queues) q->async([] {});
    for (auto& q : queues) q->sync([] {});
    const bench::AllocationScope timerBytes;
    for (int i = 0; i < kCount; ++i) timers.push_back(ComTimer::timer());
    state.counters["bytes_per_queue"] = perQueue;
    state.counters["bytes_per_timer"] = double(timerBytes.liveBytes()) / kCount;
  }
}

// Milliseconds from async() of a fresh task on a queue of its own to its start, while
// `count` other queues run `occupy` until `release` is called, and the same on an idle pool
// in the same run; and the pool's workers then. The pool starts from its reserve of idle
// workers, as after a quiet spell. `settle`: the fresh task comes once the
// others have run 50 ms, else right after they were queued.
void startDelay(benchmark::State& state, int count, bool settle,
                const std::function<void()>& occupy, const std::function<void()>& release) {
  const auto delayMs = [] {
    std::promise<std::chrono::steady_clock::time_point> started;
    const auto t0 = std::chrono::steady_clock::now();
    DispatchQueue::create("fresh")->async(
        [&] { started.set_value(std::chrono::steady_clock::now()); });
    return std::chrono::duration<double, std::milli>(started.get_future().get() - t0).count();
  };
  for (auto _ : state) {
    // Idle workers of earlier runs would take the fresh task at once: let them retire.
    while (DispatchQueue::poolThreads() > 2) std::this_thread::sleep_for(10ms);
    state.counters["idle_pool_ms"] = delayMs();
    std::atomic<int> running{0};
    std::vector<std::shared_ptr<DispatchQueue>> others;
    for (int i = 0; i < count; ++i) {
      others.push_back(DispatchQueue::create("occupied"));
      others.back()->async([&] {
        ++running;
        occupy();
        --running;
      });
    }
    if (settle) {
      while (running < count) std::this_thread::sleep_for(1ms);
      std::this_thread::sleep_for(50ms);
    }
    state.counters["delay_ms"] = delayMs();
    state.counters["pool_threads"] = double(DispatchQueue::poolThreads());
    release();
    for (auto& q : others) q->sync([] {});
  }
  state.counters["cap_running"] = double(DispatchQueue::poolLimits().running);
}

void BM_StartDelayBesideFourCpuBound(benchmark::State& state) {
  std::atomic<bool> done{false};
  startDelay(
      state, 4, true,
      [&] {
        while (!done) {}
      },
      [&] { done = true; });
}

// Four tasks wait for an event without limit; the fresh task could be the one to set it.
void BM_StartDelayBesideFourEventWaiters(benchmark::State& state) {
  auto event = HANDLE::createManualEvent();
  startDelay(
      state, 4, true, [&] { HANDLE::waitForSingleObject(event); }, [&] { event->set(); });
}

// 600 tasks block where the pool cannot see it (a plain sleep), all queued at once.
void BM_StartDelayBeside600Blocked(benchmark::State& state) {
  std::atomic<bool> done{false};
  startDelay(
      state, 600, false,
      [&] {
        while (!done) std::this_thread::sleep_for(20ms);
      },
      [&] { done = true; });
}

}  // namespace

BENCHMARK(BM_PlainThreadThroughput)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AsyncThroughputOneQueue)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AsyncThroughputEightQueues)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AsyncLatency)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_IdleBytes)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StartDelayBesideFourCpuBound)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_StartDelayBesideFourEventWaiters)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_StartDelayBeside600Blocked)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_MAIN();
