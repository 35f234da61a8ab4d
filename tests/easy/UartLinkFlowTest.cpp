// UartLink's bounded sending, its flush, its event descriptor, its link facts and its
// reconnection, on the simulated radio.
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>

#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "QueltLibrary/UartLink.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using Reason = UartLink::Error::Reason;
using State = UartLink::State;

// Bytes the process holds on the heap now, in every allocator arena (0 where a sanitizer's
// allocator stands in and does not say).
size_t liveHeap() { return mallinfo2().uordblks; }

bool readable(int fd, int timeoutMs = 0) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

struct AUartLinkFlow : testing::Test {
  AUartLinkFlow() {
    sink.localName = "QLT-SwSink";
    sink.behaviour = sim::SimBehaviour::SwSink;
    sim.radio->addDevice(sink);
  }
  void slowAir(double oneWaySeconds) {
    sim::AirFaults faults;
    faults.connectionInterval = oneWaySeconds;
    sim.radio->setFaults(faults);
  }
  e2e::Sim sim;  // the default devices, and the sliding-window sink below
  sim::SimDeviceConfig sink = e2e::device("QLT-SwSink", sim::SimBehaviour::SwSink);
  UartLink::Options options = test::linkOptions(2s, QLT_BLEManager::create(sim.backend()));
  test::LogCapture log;
};

TEST_F(AUartLinkFlow, HoldsNoMoreThanItsBufferAndFlushesOnceTheLastByteIsAcknowledged) {
  slowAir(0.002);
  options.sendBuffer = 2000;
  UartLink link(options);
  link.connect("QLT-SwSink");
  const std::string payload = e2e::pattern(30000);
  EXPECT_EQ(link.trySend(Data::fromString(payload)), 2000u) << "what fits, no more";
  EXPECT_EQ(link.trySend(Data::fromString("x")), 0u) << "full";
  auto sender = std::async(std::launch::async, [&] { link.send(Data::fromString(payload)); });
  uint64_t most = 0;
  while (sender.wait_for(1ms) != std::future_status::ready)
    most = std::max(most, link.unacknowledged());
  sender.get();
  EXPECT_LE(most, 2000u);
  EXPECT_GT(most, 0u);
  EXPECT_TRUE(link.flush(10s));
  EXPECT_EQ(link.unacknowledged(), 0u);
  EXPECT_EQ(sim.radio->stats(sink.identifier).payloadBytesReceived, 32000u);
}

// What the whole process holds while a stream goes through: the buffer and a constant,
// whatever queues, copies or timers the layers below keep along the way.
TEST_F(AUartLinkFlow, HoldsItsBufferNotTheStreamOnTheHeap) {
  if (liveHeap() == 0) GTEST_SKIP() << "the allocator does not count what it holds";
  options.sendBuffer = 16 * 1024;
  UartLink link(options);
  link.connect("QLT-SwSink");
  const Data block = Data::fromString(e2e::pattern(128 * 1024));
  const size_t before = liveHeap();
  auto sender = std::async(std::launch::async, [&] {
    for (int i = 0; i < 8; ++i) link.send(block);
    return link.flush(10s);
  });
  size_t most = before;
  while (sender.wait_for(1ms) != std::future_status::ready) most = std::max(most, liveHeap());
  EXPECT_TRUE(sender.get());
  EXPECT_EQ(sim.radio->stats(sink.identifier).payloadBytesReceived, 8u * block.size());
  EXPECT_LT(most - before, size_t{256} << 10) << "1 MB went through a 16 KiB buffer";
}

TEST_F(AUartLinkFlow, FlushesTheChunkerOnceEveryChunkIsWritten) {
  options.slidingWindow = false;
  UartLink link(options);
  link.connect("QLT-Sink");  // nothing comes back to wake a waiter by chance
  link.send(Data::fromString(e2e::pattern(2000)));
  EXPECT_GT(link.unacknowledged(), 0u) << "a chunk a millisecond: 100 ms of writing";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(link.flush(20s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << "woken by the last write";
  // Written is handed to the stack, not yet carried: the last writes may still be in the air.
  EXPECT_TRUE(
      test::eventually([&] { return sim.radio->stats(sim.id("QLT-Sink")).bytesReceived == 2000; }));
}

TEST_F(AUartLinkFlow, ReportsTheBytesADropDiscardsAndNeverSendsThemAgain) {
  slowAir(0.05);
  UartLink link(options);
  link.connect("QLT-SwSink");
  link.send(Data::fromString(e2e::pattern(600)));
  EXPECT_FALSE(link.flush(1ms));
  auto flusher = std::async(std::launch::async, [&] {
    try {
      link.flush(30s);
    } catch (const UartLink::Error& e) {
      return e.reason();
    }
    return Reason::NotConnected;
  });
  sim.radio->dropLink(sink.identifier);
  EXPECT_EQ(flusher.get(), Reason::LinkLost);
  EXPECT_EQ(link.state(), State::Lost);
  EXPECT_EQ(link.counters().bytesDiscarded, 600u);
  EXPECT_EQ(link.counters().drops, 1u);
  EXPECT_NE(link.lastError().find("with 600 bytes unacknowledged; they were discarded"),
            std::string::npos)
      << link.lastError();
  EXPECT_EQ(link.unacknowledged(), 0u);
}

TEST_F(AUartLinkFlow, SaysThroughItsDescriptorWhenBytesOrAStateWait) {
  UartLink link(options);
  link.connect("QLT-Echo");
  EXPECT_TRUE(readable(link.fd())) << "connected, not yet seen";
  EXPECT_EQ(link.state(), State::Connected);
  EXPECT_FALSE(readable(link.fd()));
  link.send("ping");
  EXPECT_TRUE(readable(link.fd(), 5000));
  EXPECT_EQ(link.read(0ms).toString(), "ping");
  EXPECT_FALSE(readable(link.fd())) << "everything read";
  sim.drop("QLT-Echo");
  EXPECT_TRUE(readable(link.fd(), 5000));
  EXPECT_EQ(link.state(), State::Lost);
  EXPECT_FALSE(readable(link.fd()));
}

TEST_F(AUartLinkFlow, TellsTheLinksFactsOnlyWhileConnected) {
  slowAir(0.0075);
  UartLink link(options);
  EXPECT_THROW(link.linkInfo(), UartLink::Error);
  link.connect("QLT-Echo");
  const auto info = link.linkInfo();
  EXPECT_EQ(info.attMtu, 185);
  EXPECT_EQ(info.maxWriteLength, 182u);
  EXPECT_DOUBLE_EQ(info.connectionIntervalMs.value_or(0), 7.5);
  EXPECT_FALSE(info.phy) << "not modelled: unknown";
  link.disconnect();

  // On a modelled link every fact is the link layer's, the MTU both sides' smaller.
  sim::LinkParameters air = sim::findLinkProfile("linux")->parameters;
  air.mtu = 100;
  ASSERT_TRUE(sim.radio->setLink(air));
  link.connect("QLT-Echo");
  const auto modelled = link.linkInfo();
  EXPECT_EQ(modelled.attMtu, 100);
  EXPECT_EQ(modelled.maxWriteLength, 97u);
  EXPECT_DOUBLE_EQ(modelled.connectionIntervalMs.value_or(0), 30);
  EXPECT_EQ(modelled.phy.value_or(""), "1M");
  EXPECT_EQ(modelled.dataLength.value_or(0), 251);
}

// Records every state change with its error; the callback holds it, so a change queued
// before the link's end still finds it.
struct StateLog {
  static std::shared_ptr<StateLog> of(UartLink& link) {
    auto log = std::make_shared<StateLog>();
    link.onStateChange([log](State s, const std::string& error) {
      std::lock_guard lock(log->mutex);
      log->states.emplace_back(s, error);
    });
    return log;
  }
  size_t count(State wanted) {
    std::lock_guard lock(mutex);
    return std::count_if(states.begin(), states.end(), [&](auto& e) { return e.first == wanted; });
  }
  std::mutex mutex;
  std::vector<std::pair<State, std::string>> states;
};

TEST_F(AUartLinkFlow, SurvivesTwentyDropsInARowReportingEach) {
  sim::AirFaults faults;
  faults.dropAfterSeconds = 0.1;  // every link, once it has had time to come up
  sim.radio->setFaults(faults);
  options.reconnect.enabled = true;
  options.reconnect.firstDelay = 5ms;
  UartLink link(options);
  auto seen = StateLog::of(link);
  link.connect("QLT-Echo");
  ASSERT_TRUE(test::eventually([&] { return link.counters().drops >= 20; }, 30s));
  sim.radio->setFaults({});
  link.waitUntilConnected();
  const auto counters = link.counters();
  EXPECT_GE(counters.reconnects, 20u);
  EXPECT_GE(seen->count(State::Reconnecting), 20u);
  EXPECT_EQ(seen->count(State::Lost), 0u);
  {
    std::lock_guard lock(seen->mutex);
    for (const auto& [state, error] : seen->states) {
      if (state == State::Reconnecting) {
        EXPECT_EQ(error.rfind("the link to QLT-Echo was lost", 0), 0u) << error;
      }
    }
  }
  link.send("still here");
  std::string echoed;
  for (int i = 0; i < 50 && echoed.size() < 10; ++i) echoed += link.read(100ms).toString();
  EXPECT_EQ(echoed, "still here");
}

TEST_F(AUartLinkFlow, GivesUpAfterItsLastTryAndSaysWhy) {
  options.timeout = 200ms;
  options.reconnect = {true, 20ms, 1s, 2};
  UartLink link(options);
  link.connect("QLT-Echo");
  auto seen = StateLog::of(link);
  const auto start = std::chrono::steady_clock::now();
  const UUID echo = sim.id("QLT-Echo");
  sim.radio->dropLink(echo);
  sim.radio->removeDevice(echo);
  ASSERT_TRUE(test::eventually([&] { return seen->count(State::Lost) == 1; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms + 200ms + 40ms + 200ms);
  EXPECT_EQ(
      link.lastError(),
      "gave up reconnecting to QLT-Echo after 2 tries: no device named QLT-Echo within 0.2 s");
  EXPECT_EQ(seen->count(State::Reconnecting), 2u) << "the drop, then the first failed try";
  EXPECT_THROW(link.waitUntilConnected(), UartLink::Error);
}

}  // namespace
}  // namespace qlt
