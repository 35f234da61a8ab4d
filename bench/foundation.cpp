// Foundation benchmarks: serial-queue throughput and latency, and the cost of an idle
// transport worker beside a bare thread that only sleeps 1 ms per round.
//
//   build/default/bench/qlt_foundation
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

size_t osThreads() {
  size_t n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
  }
  return n;
}

double threadCpuSeconds(pthread_t t) {
  clockid_t id;
  if (pthread_getcpuclockid(t, &id) != 0) return 0;
  timespec ts{};
  clock_gettime(id, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

void asyncThroughput(benchmark::State& state, int queues) {
  std::vector<std::shared_ptr<DispatchQueue>> qs;
  for (int i = 0; i < queues; ++i) qs.push_back(DispatchQueue::create("bench"));
  constexpr int kTasks = 20000;
  for (auto _ : state) {
    std::atomic<int> left{kTasks};
    std::promise<void> done;
    for (int i = 0; i < kTasks; ++i) {
      qs[i % queues]->async([&] {
        if (left.fetch_sub(1) == 1) done.set_value();
      });
    }
    done.get_future().wait();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}

void BM_AsyncThroughputOneQueue(benchmark::State& state) { asyncThroughput(state, 1); }
void BM_AsyncThroughputEightQueues(benchmark::State& state) { asyncThroughput(state, 8); }

// From async() on an idle queue to the task starting.
void BM_AsyncLatency(benchmark::State& state) {
  auto q = DispatchQueue::create("latency");
  std::vector<double> samples;
  for (auto _ : state) {
    std::promise<std::chrono::steady_clock::time_point> started;
    const auto t0 = std::chrono::steady_clock::now();
    q->async([&] { started.set_value(std::chrono::steady_clock::now()); });
    const auto t1 = started.get_future().get();
    samples.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
  }
  std::sort(samples.begin(), samples.end());
  state.counters["p50_us"] = samples[samples.size() / 2];
  state.counters["p99_us"] = samples[samples.size() * 99 / 100];
}

class IdleTransport : public BaseTransport {
 public:
  static std::shared_ptr<IdleTransport> create() {
    return std::shared_ptr<IdleTransport>(new IdleTransport);
  }
  void run(const std::shared_ptr<ThreadBase>& t) override {
    native.store(pthread_self());
    while (!t->isClosing()) rounds.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<pthread_t> native{};
  std::atomic<long> rounds{0};

 private:
  IdleTransport() : BaseTransport("IdleTransport") {}
};

// CPU per idle worker per second and wake-ups per second: a started transport whose loop
// only polls isClosing, beside a bare thread sleeping 1 ms per round, in the same run.
void BM_IdleWorkerCost(benchmark::State& state) {
  for (auto _ : state) {
    const size_t threadsBefore = osThreads();
    auto transport = IdleTransport::create();
    transport->start();
    while (transport->native.load() == pthread_t{}) std::this_thread::sleep_for(1ms);
    const size_t threadsPerTransport = osThreads() - threadsBefore;

    std::atomic<bool> stop{false};
    std::atomic<long> bareRounds{0};
    std::thread bare([&] {
      while (!stop) {
        std::this_thread::sleep_for(1ms);
        bareRounds.fetch_add(1, std::memory_order_relaxed);
      }
    });
    const double seconds = 2.0;
    const double w0 = threadCpuSeconds(transport->native),
                 b0 = threadCpuSeconds(bare.native_handle());
    const long wr0 = transport->rounds, br0 = bareRounds;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double w1 = threadCpuSeconds(transport->native),
                 b1 = threadCpuSeconds(bare.native_handle());
    const long wr1 = transport->rounds, br1 = bareRounds;
    stop = true;
    bare.join();
    transport->stop();
    while (transport->thread()) std::this_thread::sleep_for(1ms);

    const double workerCpu = (w1 - w0) / seconds, bareCpu = (b1 - b0) / seconds;
    state.counters["worker_cpu_pct"] = 100 * workerCpu;
    state.counters["bare_cpu_pct"] = 100 * bareCpu;
    state.counters["ratio"] = bareCpu > 0 ? workerCpu / bareCpu : 0;
    state.counters["worker_wakeups_per_s"] = (wr1 - wr0) / seconds;
    state.counters["bare_wakeups_per_s"] = (br1 - br0) / seconds;
    state.counters["os_threads_per_transport"] = static_cast<double>(threadsPerTransport);
  }
}

}  // namespace

BENCHMARK(BM_AsyncThroughputOneQueue)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AsyncThroughputEightQueues)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AsyncLatency)->Iterations(5000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_IdleWorkerCost)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK_MAIN();
