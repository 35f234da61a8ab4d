// The firmware's device layer (qlt_nus) against the core in the central's place, on a virtual
// clock: what a BLE stack that refuses notifications and an application short of room do to
// the byte stream.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "qlt_nus.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 13 + seed + i / 241) & 0xFF);
  return s;
}

struct Link {
  Link() {
    qlt_nus_config cfg{};
    cfg.notify = [](void* c, const uint8_t* v, size_t n) {
      return static_cast<Link*>(c)->notify(Bytes(v, v + n));
    };
    cfg.on_bytes = [](void* c, const uint8_t* b, size_t n) {
      static_cast<Link*>(c)->deviceGot.append(reinterpret_cast<const char*>(b), n);
    };
    cfg.on_datagram = [](void* c, const uint8_t* b, size_t n) {
      static_cast<Link*>(c)->datagrams.emplace_back(reinterpret_cast<const char*>(b), n);
    };
    cfg.room = [](void* c) { return static_cast<Link*>(c)->room; };
    cfg.context = this;
    cfg.slots = slots;
    cfg.slot_count = 4;
    EXPECT_EQ(qlt_nus_init(&nus, &cfg), 0);
    const qlt_sw_config pc{120, 300000, 1000, peerSlots, 4};
    EXPECT_EQ(qlt_sw_init(&peer, &pc), 0);
  }

  // The stack: refuses when told to; a value offered after a refusal must be the one refused.
  int notify(const Bytes& value) {
    if (!refused.empty()) {
      EXPECT_EQ(value, refused) << "a refused frame is offered again before any other";
      refused.clear();
    }
    if (refuseNext) {
      refused = value;
      return 1;
    }
    toPeer.push_back(value);
    return 0;
  }

  // One millisecond: the device's tick, the peer's frames to the device, the device's to the
  // peer.
  void step() {
    ++nowMs;
    const uint32_t now = nowMs * 1000;
    qlt_nus_tick(&nus, nowMs);
    uint8_t out[QLT_SW_FRAME_MAX];
    while (size_t n = qlt_sw_poll_frame(&peer, now, out, sizeof out)) {
      qlt_nus_written(&nus, out, n, nowMs);
    }
    for (; !toPeer.empty(); toPeer.pop_front()) {
      qlt_sw_delivery d{};
      if (qlt_sw_receive(&peer, toPeer.front().data(), toPeer.front().size(), now, &d) ==
          QLT_SW_TCP) {
        peerGot.append(reinterpret_cast<const char*>(d.payload), d.len);
      }
    }
  }

  qlt_nus nus{};
  uint8_t slots[QLT_NUS_SLOTS_BYTES(4)]{};
  qlt_sw peer{};
  uint8_t peerSlots[QLT_SW_STORAGE(120, 4)]{};
  uint32_t nowMs = 1000;
  bool refuseNext = false;
  size_t room = 1 << 20;
  Bytes refused;
  std::deque<Bytes> toPeer;
  std::string deviceGot, peerGot;
  std::vector<std::string> datagrams;
};

TEST(TheDeviceLayer, LosesNothingWhenTheStackRefusesAndTheApplicationIsShortOfRoom) {
  Link link;
  std::mt19937 random(7);
  const std::string up = pattern(20000, 1), down = pattern(20000, 2);
  size_t sentUp = 0, sentDown = 0;
  for (int i = 0;
       i < 200000 && (link.deviceGot.size() < up.size() || link.peerGot.size() < down.size());
       ++i) {
    link.refuseNext = random() % 2 == 0;
    link.room = (i / 50) % 4 == 0 ? 0 : 1 << 20;  // now and then, no room at all
    sentDown += qlt_nus_write(&link.nus, reinterpret_cast<const uint8_t*>(down.data()) + sentDown,
                              std::min<size_t>(down.size() - sentDown, 300), link.nowMs);
    sentUp += qlt_sw_send(&link.peer, reinterpret_cast<const uint8_t*>(up.data()) + sentUp,
                          std::min<size_t>(up.size() - sentUp, 300));
    link.step();
  }
  EXPECT_TRUE(link.deviceGot == up) << link.deviceGot.size() << " of " << up.size();
  EXPECT_TRUE(link.peerGot == down) << link.peerGot.size() << " of " << down.size();
  const qlt_nus_counters* c = qlt_nus_get_counters(&link.nus);
  EXPECT_GT(c->notify_refused, 100u);
  EXPECT_GT(c->values_left_unread, 0u);
  EXPECT_EQ(c->bytes_received, up.size());
  EXPECT_EQ(c->bytes_accepted, down.size());
}

TEST(TheDeviceLayer, SendsDatagramsShorterThanASegmentAndNotPastAHeldFrame) {
  Link link;
  const std::string longest(119, 'd');
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, reinterpret_cast<const uint8_t*>(longest.data()), 120,
                                  link.nowMs),
            -1);
  link.refuseNext = true;
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, reinterpret_cast<const uint8_t*>(longest.data()), 119,
                                  link.nowMs),
            0)
      << "taken, and held for the stack";
  EXPECT_EQ(qlt_nus_send_datagram(&link.nus, reinterpret_cast<const uint8_t*>("x"), 1, link.nowMs),
            -1)
      << "one frame held at a time";
  EXPECT_EQ(qlt_nus_tick(&link.nus, link.nowMs), QLT_NUS_RETRY_MS);
  link.refuseNext = false;
  EXPECT_EQ(qlt_nus_tick(&link.nus, link.nowMs), QLT_NUS_IDLE);
  ASSERT_EQ(link.toPeer.size(), 1u);
  EXPECT_EQ(link.toPeer.front().size(), 120u);
  EXPECT_EQ(link.toPeer.front()[0], 0x02);

  const uint8_t datagram[] = {0x02, 'h', 'i'};
  qlt_nus_written(&link.nus, datagram, sizeof datagram, link.nowMs);
  EXPECT_EQ(link.datagrams, (std::vector<std::string>{"hi"}));
}

}  // namespace
