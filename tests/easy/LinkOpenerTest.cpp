// LinkOpener on the simulated radio: what it reports, the order in which a caller's delegate
// hears the states, and what it leaves running (nothing) once it has ended.
#include <gtest/gtest.h>

#include <future>

#include "QueltLibrary/LinkOpener.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using Outcome = LinkOpener::Outcome;

struct ALinkOpener : testing::Test {
  LinkOpener::Request request(const std::string& device, std::chrono::milliseconds timeout = 3s) {
    return {manager, device, nullptr, true, timeout, nullptr};
  }
  // Starts `r` and waits for its report; `onReport` runs within the opener's callback.
  LinkOpener::Result open(LinkOpener::Request r, std::function<void()> onReport = nullptr) {
    auto report = std::make_shared<std::promise<LinkOpener::Result>>();
    auto opener = LinkOpener::start(std::move(r), queue, [=](const LinkOpener::Result& x) {
      if (onReport) onReport();
      report->set_value(x);
    });
    return report->get_future().get();
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
  auto recorder = std::make_shared<test::PeripheralRecorder>();
  auto r = request("QLT-Echo");
  r.onFound = [&](const std::shared_ptr<QLT_Peripheral>& p) {
    p->addDelegate(recorder, queue);
    p->moduleQueue()->sync([] {});
  };
  std::vector<int32_t> heardByThen;
  const auto result = open(std::move(r), [&] { heardByThen = recorder->states(); });
  ASSERT_EQ(result.outcome, Outcome::Ready) << result.problem;
  EXPECT_TRUE(result.peripheral->answersTo("QLT-Echo"));
  ASSERT_FALSE(heardByThen.empty());
  EXPECT_EQ(heardByThen.front(), QLT_PeripheralStateConnecting);
  EXPECT_EQ(heardByThen.back(), QLT_PeripheralStateReady);
  EXPECT_TRUE(idle()) << "the scan ended once the device was found";
  EXPECT_TRUE(result.peripheral->ready()) << "a ready link is the caller's";
  manager->disconnect(result.peripheral);
}

// A link that drops just after it became ready was ready: the opener says so (the drop
// follows as Disconnected), and never calls the link unusable for the drop's sake.
TEST_F(ALinkOpener, ReportsALinkThatDroppedJustAfterReadyAsReady) {
  struct DropWhenReady : QLT_PeripheralDidChangeState {
    std::function<void()> drop;
    void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>&,
                                       int32_t state) override {
      if (state == QLT_PeripheralStateReady) drop();
    }
  };
  auto dropper = std::make_shared<DropWhenReady>();
  auto r = request("QLT-Echo");
  r.onFound = [&](const std::shared_ptr<QLT_Peripheral>& p) {
    // Heard on the opener's queue before the opener hears Ready: the link is gone by then.
    dropper->drop = [this, p] {
      sim.drop("QLT-Echo");
      ASSERT_TRUE(test::eventually([&] { return !p->linkProblem().empty(); }));
    };
    p->addDelegate(dropper, queue);
    p->moduleQueue()->sync([] {});
  };
  const auto result = open(std::move(r));
  EXPECT_EQ(result.outcome, Outcome::Ready) << result.problem;
}

TEST_F(ALinkOpener, SaysWhyItFailedAndLeavesNoScanAndNoLinkBehind) {
  auto onlyFind = request("QLT-Echo");
  onlyFind.connect = false;
  const auto found = open(onlyFind);
  ASSERT_EQ(found.outcome, Outcome::Found);
  EXPECT_EQ(found.peripheral->state(), QLT_PeripheralStateDisconnected) << "not connected";
  EXPECT_TRUE(idle());

  const auto sensor = open(request("HR-Sensor"));
  EXPECT_EQ(sensor.outcome, Outcome::NoUartService);
  EXPECT_TRUE(test::eventually(
      [&] { return sensor.peripheral->state() == QLT_PeripheralStateDisconnected; }));

  sim.failConnects(true);
  const auto refused = open({manager, "", found.peripheral, true, 3s, nullptr});  // no search
  EXPECT_EQ(refused.outcome, Outcome::ConnectFailed);
  EXPECT_EQ(refused.problemKind, QLT_LinkProblem::ConnectFailed);
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
