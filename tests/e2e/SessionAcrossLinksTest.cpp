// A peripheral with the extended window keeps its sliding window, and the session in it,
// across a dropped link; the application's disconnect, or the classic window, starts afresh.
#include <gtest/gtest.h>

#include "support/SimWorld.h"

namespace qlt {
namespace {

TEST(APeripheralWithTheExtendedWindow, KeepsItsWindowAcrossADropUntilTheApplicationDisconnects) {
  e2e::SimWorld w;
  auto device = e2e::device("QLT-Echo", sim::SimBehaviour::SwEcho);
  device.mtu = 247;  // the first link's; the next one has a smaller MTU
  auto p = w.find(device);
  ASSERT_TRUE(p);
  w.follow(p);
  p->setTransportType(1);
  p->setExtendedWindow(true);
  ASSERT_TRUE(w.connectReady(p));
  const auto first = p->transport();
  // A session exists once the extended window is agreed; a link lost before that has none
  // to resume, and what it had in flight is in doubt.
  ASSERT_TRUE(test::eventually([&] {
    const auto c = p->transportCounters();
    return c && c->format == WindowFormat::Extended;
  }));
  const std::string text = e2e::pattern(6000);
  p->writeTCPData(Data::fromString(text.substr(0, 3000)));
  w.radio->dropLink(device.identifier);
  ASSERT_TRUE(w.app->waitForState(QLT_PeripheralStateDisconnected));
  p->writeTCPData(Data::fromString(text.substr(3000)));  // between links: waits for the next
  w.radio->setLink({.mtu = 160});  // the radio refuses a write longer than 157 bytes
  ASSERT_TRUE(w.connectReady(p));
  EXPECT_EQ(p->transport(), first);
  ASSERT_TRUE(w.app->waitForTcpBytes(text.size()))
      << "resumed " << p->transportCounters()->sessionsResumed << ", lost "
      << p->transportCounters()->sessionsLost;
  EXPECT_EQ(w.app->tcpJoined(), text) << "every byte once, in order";
  EXPECT_EQ(p->transportCounters()->sessionsResumed, 1u);

  w.manager->disconnect(p);  // ends the session: the next link builds a window of its own
  ASSERT_TRUE(w.app->waitForState(QLT_PeripheralStateDisconnected));
  ASSERT_TRUE(w.connectReady(p));
  const auto second = p->transport();
  EXPECT_NE(second, first);

  p->setExtendedWindow(false);  // the classic path: a fresh window for every link
  w.radio->dropLink(device.identifier);
  ASSERT_TRUE(w.app->waitForState(QLT_PeripheralStateDisconnected));
  ASSERT_TRUE(w.connectReady(p));
  EXPECT_NE(p->transport(), second);
  EXPECT_EQ(p->transport()->windowCounters()->format, WindowFormat::Classic);
}

}  // namespace
}  // namespace qlt
