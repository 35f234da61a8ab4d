// UartLink on the simulated radio: reading, and its failures (the common case runs on every
// backend in the end-to-end suite).
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "QueltLibrary/UartLink.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using Reason = UartLink::Error::Reason;

struct AUartLink : testing::Test {
  e2e::Sim sim;  // QLT-Echo, QLT-Chunk, HR-Sensor
  UartLink::Options options = test::linkOptions(1500ms, QLT_BLEManager::create(sim.backend()));
  test::LogCapture log;
};

template <class F>
Reason reasonOf(F&& f) {
  try {
    f();
  } catch (const UartLink::Error& e) {
    return e.reason();
  }
  return Reason(-1);
}

TEST_F(AUartLink, HandsOnBytesThroughReadOrACallback) {
  UartLink link(options);
  link.connect("QLT-Echo");
  EXPECT_EQ(link.state(), UartLink::State::Connected);
  link.send("hello");
  EXPECT_EQ(link.read(5s).toString(), "hello");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(link.read(100ms).empty()) << "nothing more came";
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
  std::promise<std::string> echoed;
  link.onReceive([&](const Data& d) { echoed.set_value(d.toString()); });
  link.send("again");
  EXPECT_EQ(echoed.get_future().get(), "again");
  link.onReceive(nullptr);
}

TEST_F(AUartLink, SaysWhichDeviceItDidNotFindOnceTheTimeoutHasPassed) {
  UartLink link(test::linkOptions(300ms, options.manager));
  const auto start = std::chrono::steady_clock::now();
  try {
    link.connect("Nobody");
    FAIL() << "connected to nobody";
  } catch (const UartLink::Error& e) {
    EXPECT_EQ(e.reason(), Reason::NotFound);
    EXPECT_STREQ(e.what(), "no device named Nobody within 0.3 s");
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_EQ(link.state(), UartLink::State::Disconnected);
  EXPECT_EQ(reasonOf([&] { link.connect("HR-Sensor"); }), Reason::Unusable) << "no UART service";
}

TEST_F(AUartLink, ReportsALostLinkAndWakesTheReader) {
  UartLink link(options);
  link.connect("QLT-Echo");
  std::promise<UartLink::State> told;
  link.onStateChange([&](UartLink::State s, const std::string&) { told.set_value(s); });
  auto reader = std::async(std::launch::async, [&] { return reasonOf([&] { link.read(30s); }); });
  std::this_thread::sleep_for(50ms);  // the reader is waiting (or about to: either way it wakes)
  sim.drop("QLT-Echo");
  EXPECT_EQ(reader.get(), Reason::LinkLost);
  EXPECT_EQ(told.get_future().get(), UartLink::State::Lost);
  EXPECT_EQ(link.lastError(), "the link to QLT-Echo was lost: the device went out of range");
  EXPECT_EQ(reasonOf([&] { link.send("x"); }), Reason::LinkLost);
  link.onStateChange(nullptr);
  link.connect("QLT-Echo");  // and it connects again
}

TEST_F(AUartLink, IsDestroyedPromptlyWhileConnectedOrConnectingOrSearching) {
  for (const char* device : {"QLT-Echo", "QLT-Chunk", "Nobody"}) {
    const auto start = std::chrono::steady_clock::now();
    {
      UartLink link(options);
      link.startConnect(device);
      if (std::string(device) == "QLT-Echo") link.waitUntilConnected();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1400ms) << device;
  }
}

}  // namespace
}  // namespace qlt
