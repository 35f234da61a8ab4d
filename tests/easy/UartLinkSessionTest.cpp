// UartLink with reconnection and the extended window: the session goes on across dropped
// links (nothing lost, nothing twice), and a device that restarted is reported, never silent.
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>

#include "QueltLibrary/UartLink.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;

struct AUartLinkSession : testing::Test {
  AUartLinkSession() {
    options.reconnect.enabled = true;
    options.reconnect.firstDelay = 20ms;
  }
  // Sends `payload` and returns its echo once complete, or what came back within `limit`.
  static std::string echo(UartLink& link, const std::string& payload, std::chrono::seconds limit) {
    struct Echoed {
      std::mutex mutex;
      std::string bytes;  // guarded by mutex
      size_t size() {
        std::lock_guard lock(mutex);
        return bytes.size();
      }
    };
    auto back = std::make_shared<Echoed>();  // the callback may outlive this call
    link.onReceive([back](const Data& d) {
      std::lock_guard lock(back->mutex);
      back->bytes += d.toString();
    });
    for (size_t at = 0; at < payload.size(); at += 4096)
      link.send(Data::fromString(payload.substr(at, 4096)));
    test::eventually([&] { return back->size() >= payload.size(); }, limit);
    std::lock_guard lock(back->mutex);
    return back->bytes;
  }
  e2e::Sim sim;
  UartLink::Options options = test::linkOptions(5s, QLT_BLEManager::create(sim.backend()));
  test::LogCapture log;
};

TEST_F(AUartLinkSession, CarriesAMegabyteExactlyOnceAcrossADropEveryFewThousandPackets) {
  sim::AirFaults faults;
  faults.dropAfterPackets = 3000;  // a drop every 250 kB or so each way, mid-stream
  faults.lostNotifications = 0.002;
  faults.lostWritesWithoutResponse = 0.002;
  sim.radio->setFaults(faults);
  UartLink link(options);
  link.connect("QLT-Echo");
  const std::string payload = e2e::pattern(1 << 20);
  const std::string back = echo(link, payload, 60s);
  ASSERT_EQ(back.size(), payload.size()) << link.lastError();
  EXPECT_TRUE(back == payload) << "every byte once, in order";
  const auto counters = link.counters();
  EXPECT_GE(counters.drops, 3u);
  EXPECT_EQ(counters.sessionsResumed, counters.reconnects);
  EXPECT_EQ(counters.sessionsLost, 0u);
  EXPECT_EQ(counters.bytesInDoubt, 0u);
  EXPECT_EQ(counters.bytesDiscarded, 0u);
}

// A device removed and added again between links has forgotten the session: the link
// comes back with a new one, and what was in flight is named as in doubt.
TEST_F(AUartLinkSession, ReportsTheBytesInDoubtWhenTheDeviceRestarted) {
  sim::AirFaults faults;
  faults.connectionInterval = 0.02;  // segments are still in the air at the drop
  sim.radio->setFaults(faults);
  options.reconnect.firstDelay = 300ms;  // the flush below is waiting long before the loss
  UartLink link(options);
  std::promise<std::string> told;
  link.connect("QLT-Echo");
  link.onStateChange(
      [&told, once = false](UartLink::State state, const std::string& error) mutable {
        if (state == UartLink::State::Connected && !error.empty() && !once) {
          once = true;
          told.set_value(error);
        }
      });
  const auto echoDevice = *sim.radio->device(sim.id("QLT-Echo"));
  link.send(Data::fromString(e2e::pattern(20000)));
  ASSERT_GT(link.unacknowledged(), 0u);
  auto flushing = std::async(std::launch::async, [&] { return link.flush(30s); });
  sim.radio->removeDevice(echoDevice.identifier);
  ASSERT_TRUE(test::eventually([&] { return link.state() == UartLink::State::Reconnecting; }));
  EXPECT_GT(link.unacknowledged(), 0u) << "kept for the next link";
  sim.radio->addDevice(echoDevice);
  auto future = told.get_future();
  ASSERT_EQ(future.wait_for(20s), std::future_status::ready);
  const std::string error = future.get();
  const auto counters = link.counters();
  EXPECT_EQ(counters.sessionsLost, 1u);
  EXPECT_EQ(counters.sessionsResumed, 0u);
  EXPECT_GT(counters.bytesInDoubt, 0u);
  EXPECT_EQ(counters.bytesDiscarded, 0u);
  EXPECT_NE(
      error.find(std::to_string(counters.bytesInDoubt) + " bytes sent were never acknowledged"),
      std::string::npos)
      << error;
  EXPECT_EQ(link.lastError(), error);
  EXPECT_THROW(flushing.get(), UartLink::Error) << "a flush waiting through it is no success";
}

}  // namespace
}  // namespace qlt
