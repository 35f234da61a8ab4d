// The firmware's device layer against the core in the central's place, on a virtual clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "qlt_nus.h"

namespace {

// The central's end: a classic core of 120-byte segments over `count` slots of `slots`.
qlt_sw_config centralConfig(uint8_t* slots, uint16_t count) {
  qlt_sw_config c{};
  c.segment_size = 120;
  c.poll_timeout_us = 300000;
  c.ack_delay_us = 1000;
  c.slots = slots;
  c.slot_count = count;
  return c;
}

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
    qlt_sw_config pc = centralConfig(peerSlots, 4);
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
    uint8_t out[QLT_NUS_VALUE_MAX];
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

// The wide window: the layer offers the central only the receive slots the application has
// room behind, so an application with a small buffer that drains slowly is never handed more
// than it can take, and nothing is lost or repeated.
TEST(TheDeviceLayer, OffersTheWideWindowOnlyAsFarAsTheApplicationHasRoom) {
  constexpr uint16_t kSegment = QLT_NUS_VALUE_MAX - 3, kSlots = 4;
  static uint32_t wide[QLT_SW_WIDE_STORAGE(kSegment, kSlots, kSlots)];
  static uint32_t peerWide[QLT_SW_WIDE_STORAGE(kSegment, 8, 8)];
  static uint8_t sendQueue[QLT_NUS_SLOTS_BYTES(QLT_NUS_WIDE_SEND_QUEUE(kSegment, kSlots))];
  static uint8_t peerQueue[QLT_SW_STORAGE(120, 20)];
  struct App {
    std::string got;
    // Room for the slots offered and for the classic window's 3 × 120 bytes before the switch.
    size_t held = 0, capacity = kSlots * kSegment + 360, overflows = 0;
  } app;
  Link link;
  qlt_nus_config cfg{};
  cfg.notify = [](void* c, const uint8_t* v, size_t n) {
    return static_cast<Link*>(static_cast<void**>(c)[0])->notify({v, v + n});
  };
  cfg.on_bytes = [](void* c, const uint8_t* b, size_t n) {
    App& a = *static_cast<App*>(static_cast<void**>(c)[1]);
    if (n > a.capacity - a.held) ++a.overflows;
    a.held += n;
    a.got.append(reinterpret_cast<const char*>(b), n);
  };
  cfg.room = [](void* c) {
    const App& a = *static_cast<App*>(static_cast<void**>(c)[1]);
    return a.capacity - std::min(a.held, a.capacity);
  };
  void* context[] = {&link, &app};
  cfg.context = context;
  cfg.slots = sendQueue;
  cfg.slot_count = QLT_NUS_WIDE_SEND_QUEUE(kSegment, kSlots);
  cfg.wide_storage = wide;
  cfg.wide_segment = kSegment;
  cfg.wide_send_slots = cfg.wide_recv_slots = kSlots;
  cfg.nonce = 7;
  ASSERT_EQ(qlt_nus_init(&link.nus, &cfg), 0);
  qlt_sw_config pc = centralConfig(peerQueue, 20);
  pc.wide_role = QLT_SW_ROLE_CENTRAL;
  pc.wide_segment = kSegment;
  pc.wide_send_slots = pc.wide_recv_slots = 8;
  pc.wide_storage = peerWide;
  pc.value_limit = QLT_NUS_VALUE_MAX;
  pc.nonce = 9;
  ASSERT_EQ(qlt_sw_init(&link.peer, &pc), 0);

  std::string up(30000, 'u');
  for (size_t i = 0; i < up.size(); ++i) up[i] = static_cast<char>(i * 13 + i / 241);
  size_t sent = 0;
  for (int i = 0; i < 200000 && app.got.size() < up.size(); ++i) {
    sent += qlt_sw_send(&link.peer, bytes(up) + sent, std::min<size_t>(up.size() - sent, 1000));
    app.held -= std::min<size_t>(app.held, 40);  // the application drains 40 bytes a ms
    link.step();
  }
  EXPECT_TRUE(app.got == up) << app.got.size() << " of " << up.size();
  EXPECT_EQ(app.overflows, 0u);
  qlt_sw_wide_info info{};
  qlt_sw_get_wide_info(&link.peer, &info);
  EXPECT_EQ(info.state, QLT_SW_STATE_EXTENDED);
  EXPECT_EQ(info.send_segment, kSegment);

  // The session goes on across connections dropped mid-stream: nothing lost or twice. Once
  // the device forgets it, the next connection begins a new one.
  const auto reconnect = [&](uint32_t nonce, bool forget) {
    for (int i = 0; i < 3000 && app.got.size() < up.size(); ++i, link.step()) {
      sent += qlt_sw_send(&link.peer, bytes(up) + sent, up.size() - sent);
      app.held = 0;  // the application keeps up
      if (i == 5 && nonce < 23) break;
    }
    qlt_nus_disconnected(&link.nus);
    qlt_sw_link_lost(&link.peer);
    if (forget) qlt_nus_forget_session(&link.nus);
    qlt_nus_connected(&link.nus);
    qlt_sw_link_up(&link.peer, nonce);
  };
  up += up + up;
  for (uint32_t nonce = 20; nonce < 24; ++nonce) reconnect(nonce, nonce == 23);
  for (int i = 0; i < 50; ++i) link.step();
  EXPECT_TRUE(app.got == up) << app.got.size() << " of " << up.size();
  EXPECT_EQ(qlt_nus_protocol_counters(&link.nus)->sessions_resumed, 3u);
  EXPECT_EQ(qlt_sw_get_counters(&link.peer)->sessions_lost, 1u);
}

}  // namespace
