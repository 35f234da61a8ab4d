// The concurrency layer at its edges: tasks that throw, a stop outside run(), clocks that
// race, waits with absurd pauses.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <future>
#include <limits>
#include <stdexcept>
#include <thread>

#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/HANDLE.h"
#include "QueltLibrary/Log.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

double processCpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Whatever a task throws, and however it was queued, the queue runs its next task and the
// exception is logged with the queue's label.
TEST(AThrowingTask, IsContainedAndTheQueueGoesOn) {
  std::mutex m;
  std::string logged;
  auto previous = setLogSink([&](std::string_view line) {
    std::lock_guard lock(m);
    logged += std::string(line) + "\n";
  });
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
  setLogSink(previous);
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

TEST(AStopOutsideRun, LeavesTheLibraryMainThreadServingAndIdle) {
  std::promise<void> before;
  DispatchQueue::main()->async([&] { before.set_value(); });
  ASSERT_EQ(before.get_future().wait_for(10s), std::future_status::ready);
  MainQueue::stop();
  const double cpu = processCpuSeconds();
  std::this_thread::sleep_for(500ms);
  // A spinning main thread would burn about the whole half second.
  EXPECT_LT(processCpuSeconds() - cpu, 0.25);
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

TEST(AComTimer, NeverReportsANegativeElapsedTime) {
  const auto clock = std::make_shared<ManualClock>(100.0);
  const auto timer = ComTimer::timerWithTimeout(1.0, clock);
  timer->setTm(clock->now() + 5.0);  // as a start() on another thread that read a later time
  EXPECT_EQ(timer->elapse(), 0.0);
  EXPECT_FALSE(timer->isTimeout());
}

// A pause far beyond what the clock can count (or infinite) saturates: the wait pauses for
// good. It is never converted to an integer count (undefined: UBSan reports it), nor cut
// short to return after the one-second limit as if it had waited.
TEST(AHandleWait, SaturatesHugeAndInfinitePauses) {
  for (const double pause : {1e300, std::numeric_limits<double>::infinity(), 1e12}) {
    SCOPED_TRACE(pause);
    auto returned = std::make_shared<std::atomic<bool>>(false);
    std::thread([pause, returned] {
      HANDLE::waitForSingleObject(HANDLE::createManualEvent(), pause);
      returned->store(true);
    }).detach();  // pauses for good
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(returned->load());
  }
  const auto event = HANDLE::createManualEvent();
  event->set();
  EXPECT_TRUE(event->waitTimeout(std::numeric_limits<double>::infinity()));
}

}  // namespace
