// LinkOpener on the simulated radio: what it reports, the order in which a caller's delegate
// hears the states, and what it leaves running (nothing) once it has ended.
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <vector>

#include "QueltLibrary/LinkOpener.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using Outcome = LinkOpener::Outcome;

struct StateLog : QLT_PeripheralDidChangeState {
  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>&, int32_t s) override {
    std::lock_guard lock(mutex);
    states.push_back(s);
  }
  std::vector<int32_t> taken() {
    std::lock_guard lock(mutex);
    return states;
  }
  std::mutex mutex;
  std::vector<int32_t> states;  // guarded by mutex
};

struct ALinkOpener : testing::Test {
  LinkOpener::Request request(const std::string& device, std::chrono::milliseconds timeout = 3s) {
    LinkOpener::Request r;
    r.manager = manager;
    r.device = device;
    r.timeout = timeout;
    return r;
  }
  // Starts `r` and waits for its report.
  LinkOpener::Result open(LinkOpener::Request r) {
    auto report = std::make_shared<std::promise<LinkOpener::Result>>();
    auto opener = LinkOpener::start(
        std::move(r), queue, [report](const LinkOpener::Result& x) { report->set_value(x); });
    auto future = report->get_future();
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    return future.get();
  }
  bool idle() {
    return test::eventually([&] { return manager->state() == QLT_BLEManagerStateIdle; });
  }

  e2e::Sim sim;  // QLT-Echo, QLT-Chunk, HR-Sensor
  std::shared_ptr<QLT_BLEManager> manager = QLT_BLEManager::create(sim.backend());
  std::shared_ptr<DispatchQueue> queue = DispatchQueue::create("opener test");
  test::LogCapture log;
};

TEST_F(ALinkOpener, ReportsReadyAfterTheDelegateAddedWhenFoundHasHeardEveryState) {
  auto states = std::make_shared<StateLog>();
  auto r = request("QLT-Echo");
  r.onFound = [&](const std::shared_ptr<QLT_Peripheral>& p) {
    p->addDelegate(states, queue);
    p->moduleQueue()->sync([] {});
  };
  std::vector<int32_t> heardByThen;
  auto report = std::make_shared<std::promise<LinkOpener::Result>>();
  auto opener = LinkOpener::start(std::move(r), queue, [&, report](const LinkOpener::Result& x) {
    heardByThen = states->taken();
    report->set_value(x);
  });
  const auto result = report->get_future().get();
  ASSERT_EQ(result.outcome, Outcome::Ready) << result.problem;
  EXPECT_TRUE(result.peripheral->answersTo("QLT-Echo"));
  EXPECT_EQ(result.lastState, QLT_PeripheralStateReady);
  ASSERT_FALSE(heardByThen.empty());
  EXPECT_EQ(heardByThen.front(), QLT_PeripheralStateConnecting);
  EXPECT_EQ(heardByThen.back(), QLT_PeripheralStateReady);
  EXPECT_TRUE(idle()) << "the scan ended once the device was found";
  EXPECT_TRUE(result.peripheral->ready()) << "a ready link is the caller's";
  manager->disconnect(result.peripheral);
}

TEST_F(ALinkOpener, SaysWhyItFailedAndLeavesNoScanAndNoLinkBehind) {
  auto found = request("QLT-Echo");
  found.connect = false;
  const auto onlyFound = open(found);
  ASSERT_EQ(onlyFound.outcome, Outcome::Found);
  EXPECT_EQ(onlyFound.peripheral->state(), QLT_PeripheralStateDisconnected) << "not connected";
  EXPECT_TRUE(idle());

  const auto sensor = open(request("HR-Sensor"));
  EXPECT_EQ(sensor.outcome, Outcome::NoUartService);
  ASSERT_TRUE(sensor.peripheral);
  EXPECT_TRUE(test::eventually(
      [&] { return sensor.peripheral->state() == QLT_PeripheralStateDisconnected; }));

  sim.failConnects(true);
  LinkOpener::Request again;  // the peripheral already found: no search
  again.manager = manager;
  again.peripheral = onlyFound.peripheral;
  const auto refused = open(again);
  EXPECT_EQ(refused.outcome, Outcome::ConnectFailed);
  EXPECT_EQ(refused.problemKind, QLT_LinkProblem::ConnectFailed);
  sim.failConnects(false);

  const auto start = std::chrono::steady_clock::now();
  const auto nobody = open(request("Nobody", 300ms));
  EXPECT_EQ(nobody.outcome, Outcome::NotFound);
  EXPECT_FALSE(nobody.peripheral);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_TRUE(idle());
}

TEST_F(ALinkOpener, CancelledReportsNothingAndStopsItsScan) {
  bool reported = false;
  auto opener =
      LinkOpener::start(request("Nobody", 30s), queue, [&](const auto&) { reported = true; });
  ASSERT_TRUE(test::eventually([&] { return manager->state() == QLT_BLEManagerStateScanning; }));
  opener->cancel();
  EXPECT_TRUE(idle());
  opener->expire();  // would report at once, on this thread, had it not ended
  queue->sync([] {});
  EXPECT_FALSE(reported);
}

}  // namespace
}  // namespace qlt
