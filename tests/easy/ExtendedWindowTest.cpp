// The extended window on the simulated radio: what UartLink negotiates by default, the classic
// window it falls back to with a device that ignores the offer, and the callback API's switch.
#include <gtest/gtest.h>

#include <mutex>

#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/UartLink.h"
#include "protocol/SlideWindowDriver.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;

std::string echoed(UartLink& link, const std::string& bytes) {
  link.send(bytes);
  std::string back;
  while (back.size() < bytes.size()) {
    const Data d = link.read(10s);
    if (d.empty()) break;
    back += d.toString();
  }
  return back;
}

struct TheExtendedWindow : testing::Test {
  e2e::Sim sim;  // QLT-Echo answers the offer
  UartLink::Options options = test::linkOptions(3s, QLT_BLEManager::create(sim.backend()));
  TheExtendedWindow() {
    auto classic = e2e::device("Classic-Echo", sim::SimBehaviour::SwEcho);
    classic.classicWindow = true;
    sim.radio->addDevice(classic);
  }
};

TEST_F(TheExtendedWindow, IsWhatAUartLinkSpeaksAndCarriesAnEchoExactly) {
  UartLink link(options);
  link.connect("QLT-Echo");
  const std::string payload = e2e::pattern(96 * 1024);
  EXPECT_EQ(echoed(link, payload), payload);
  const auto c = link.windowCounters();
  ASSERT_TRUE(c);
  EXPECT_EQ(c->format, WindowFormat::Extended);
  // Segments as large as one value of the link carries, a window of at least 2.4 kB.
  EXPECT_EQ(c->extendedSegment, link.linkInfo().maxWriteLength - 3);
  EXPECT_GE(c->extendedSegment * c->extendedWindow, 2400u);
  EXPECT_LT(c->segmentsSent, payload.size() / 120) << "fewer and larger than classic ones";
  EXPECT_EQ(c->windowFaults, 0u);
}

// The device ignores the offers: the link goes on in the classic window, after at most three
// offers, and the device is never sent anything else it would not have been sent before.
TEST_F(TheExtendedWindow, FallsBackToTheClassicWindowWithADeviceThatIgnoresTheOffer) {
  for (const bool extended : {true, false}) {
    options.extendedWindow = extended;
    UartLink link(options);
    link.connect("Classic-Echo");
    const std::string payload = e2e::pattern(8 * 1024, 3);
    EXPECT_EQ(echoed(link, payload), payload) << extended;
    ASSERT_TRUE(test::eventually(
        [&] { return link.windowCounters()->format == WindowFormat::Classic; }, 3s))
        << "the negotiation's wait is bounded";
    const auto c = *link.windowCounters();
    EXPECT_EQ(c.negotiationFramesSent, extended ? 3u : 0u);
    EXPECT_EQ(c.extendedSegment, 0u);
  }
}

// The callback API keeps the classic window unless asked, before it starts.
TEST_F(TheExtendedWindow, IsOffByDefaultOnAFaceAndChosenOnlyBeforeItStarts) {
  test::LogCapture log;
  auto face = SWTransport::create();
  EXPECT_FALSE(face->extendedWindow());
  EXPECT_EQ(face->windowFormat(), WindowFormat::Classic);
  face->setExtendedWindow(true, {.valueLimit = 244});
  EXPECT_TRUE(face->extendedWindow());
  face->start();
  face->setExtendedWindow(false);
  EXPECT_TRUE(face->extendedWindow()) << "too late: the link keeps its format";
  EXPECT_TRUE(log.contains(
      "Slide window: the extended window is chosen before the window starts; this link keeps "
      "its format"));
  face->stop();
}

// What the driver sizes from a link's facts.
TEST(ExtendedWindowSizing, FillsTheRoundTripWithSegmentsAsLargeAsAValue) {
  // The fastest link: 7.5 ms, LE 2M, 251-byte PDUs, MTU 247.
  const auto fastest = ExtendedWindowSizing::of(
      {.valueLimit = 244, .intervalMs = 7.5, .phyMbps = 2, .dataLength = 251});
  EXPECT_EQ(fastest.segment, 241);
  EXPECT_GE(fastest.segment * fastest.slots, 2400u);
  // A long interval needs more in flight; the link's rate, not the interval, bounds it.
  const auto slow = ExtendedWindowSizing::of(
      {.valueLimit = 244, .intervalMs = 50, .phyMbps = 2, .dataLength = 251});
  EXPECT_GT(slow.slots, fastest.slots);
  const auto narrow = ExtendedWindowSizing::of(
      {.valueLimit = 244, .intervalMs = 50, .phyMbps = 1, .dataLength = 27});
  EXPECT_LT(narrow.slots, slow.slots);
  // Nothing known: a 20-byte value limit, still 2.4 kB in flight; an MTU of 517 is clamped to
  // the 512 bytes an attribute value may have; never more than the driver's bound.
  const auto unknown = ExtendedWindowSizing::of({});
  EXPECT_EQ(unknown.segment, 17);
  EXPECT_GE(unknown.segment * unknown.slots, 2400u);
  EXPECT_EQ(ExtendedWindowSizing::of({.valueLimit = 514}).segment, 509);
  EXPECT_LE(unknown.segment * unknown.slots, ExtendedWindowSizing::kMaxWindowBytes);
}

}  // namespace
}  // namespace qlt
