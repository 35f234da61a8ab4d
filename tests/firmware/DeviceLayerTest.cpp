// The firmware's device layer against the core in the central's place, on a virtual clock.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "qlt_nus.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Link {
  Link() {
    const qlt_nus_config cfg{[](void* c, const uint8_t* v, size_t n) {
                               return static_cast<Link*>(c)->notify({v, v + n});
                             },
                             [](void* c, const uint8_t* b, size_t n) {
                               static_cast<Link*>(c)->deviceGot.append(
                                   reinterpret_cast<const char*>(b), n);
                             },
                             nullptr,
                             [](void* c) { return static_cast<Link*>(c)->room; },
                             this,
                             slots,
                             4,
                             nullptr,
                             0,
                             0,
                             0,
                             0,
                             0};
    EXPECT_EQ(qlt_nus_init(&nus, &cfg), 0);
    qlt_sw_config pc{};
    pc.segment_size = 120;
    pc.poll_timeout_us = 300000;
    pc.ack_delay_us = 1000;
    pc.slots = peerSlots;
    pc.slot_count = 4;
    EXPECT_EQ(qlt_sw_init(&peer, &pc), 0);
  }
  // The stack: refuses when told to; a value offered after a refusal must be the one refused.
  int notify(const Bytes& value) {
    if (!refused.empty()) {
      EXPECT_EQ(value, refused) << "a refused frame goes first";
    }
    refused = refuseNext ? value : Bytes();
    if (!refuseNext) toPeer.push_back(value);
    return refuseNext ? 1 : 0;
  }
  // One millisecond: the device's tick, the peer's frames to the device, the device's back.
  void step() {
    const uint32_t now = ++nowMs * 1000;
    qlt_nus_tick(&nus, nowMs);
    uint8_t out[QLT_SW_FRAME_MAX];
    while (size_t n = qlt_sw_poll_frame(&peer, now, out, sizeof out)) {
      qlt_nus_written(&nus, out, n, nowMs);
    }
    for (const Bytes& v : toPeer) {
      qlt_sw_delivery d{};
      if (qlt_sw_receive(&peer, v.data(), v.size(), now, &d) == QLT_SW_TCP) {
        peerGot.append(reinterpret_cast<const char*>(d.payload), d.len);
      }
    }
    toPeer.clear();
  }
  qlt_nus nus{};
  uint8_t slots[QLT_NUS_SLOTS_BYTES(4)]{};
  qlt_sw peer{};
  uint8_t peerSlots[QLT_SW_STORAGE(120, 4)]{};
  uint32_t nowMs = 1000;
  bool refuseNext = false;
  size_t room = 1 << 20;
  Bytes refused;
  std::vector<Bytes> toPeer;
  std::string deviceGot, peerGot;
};

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

TEST(TheDeviceLayer, LosesNothingWhenTheStackRefusesAndTheApplicationIsShortOfRoom) {
  Link link;
  std::mt19937 random(7);
  std::string up(20000, 'u'), down(20000, 'd');
  for (size_t i = 0; i < up.size(); ++i) up[i] = static_cast<char>(i * 13 + i / 241);
  for (size_t i = 0; i < down.size(); ++i) down[i] = static_cast<char>(i * 7 + i / 251);
  size_t sentUp = 0, sentDown = 0;
  for (int i = 0;
       i < 200000 && (link.deviceGot.size() < up.size() || link.peerGot.size() < down.size());
       ++i) {
    link.refuseNext = random() % 2 == 0;
    link.room = (i / 50) % 4 == 0 ? 0 : 1 << 20;  // now and then, no room at all
    sentDown += qlt_nus_write(&link.nus, bytes(down) + sentDown,
                              std::min<size_t>(down.size() - sentDown, 300), link.nowMs);
    sentUp +=
        qlt_sw_send(&link.peer, bytes(up) + sentUp, std::min<size_t>(up.size() - sentUp, 300));
    link.step();
  }
  EXPECT_TRUE(link.deviceGot == up) << link.deviceGot.size() << " of " << up.size();
  EXPECT_TRUE(link.peerGot == down) << link.peerGot.size() << " of " << down.size();
  const qlt_nus_counters* c = qlt_nus_get_counters(&link.nus);
  EXPECT_GT(c->notify_refused, 100u);
  EXPECT_GT(c->values_left_unread, 0u);
}

TEST(TheDeviceLayer, SendsDatagramsShorterThanASegmentAndNotPastAHeldFrame) {
  Link link;
  const std::string d(120, 'd');
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, bytes(d), 120, link.nowMs), -1) << "too long";
  link.refuseNext = true;
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, bytes(d), 119, link.nowMs), 0) << "taken, held";
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, bytes(d), 1, link.nowMs), -1) << "one held at most";
  link.refuseNext = false;
  EXPECT_EQ(qlt_nus_tick(&link.nus, link.nowMs), QLT_NUS_IDLE);
  ASSERT_EQ(link.toPeer.size(), 1u);
  EXPECT_EQ(link.toPeer.front().size(), 120u);
}

}  // namespace
