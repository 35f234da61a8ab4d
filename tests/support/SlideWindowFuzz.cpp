#include "support/SlideWindowFuzz.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "support/WideCore.h"
#include "swcore/qlt_sw.h"
#include "swcore/qlt_sw_wide.h"

namespace qlt::fuzz {

namespace {

#define QLT_FUZZ_CHECK(cond)                                              \
  do {                                                                    \
    if (!(cond)) {                                                        \
      std::fprintf(stderr, "slide-window invariant broken: %s\n", #cond); \
      std::abort();                                                       \
    }                                                                     \
  } while (0)

// One core with three segments of its own in flight, a model of its receiving side, and
// the checks; and the input, read byte by byte (zeros once it is used up).
class Rig final {
 public:
  Rig(const uint8_t* data, size_t size) : data_(data), size_(size) {
    qlt_sw_config cfg{};
    cfg.segment_size = SWTransport::kSegmentSize;
    cfg.poll_timeout_us = 300000;
    cfg.ack_delay_us = 1000;
    cfg.slots = slots_.data();
    cfg.slot_count = kSlots;
    QLT_FUZZ_CHECK(qlt_sw_init(&core_, &cfg) == 0);
    send(600);
    round(0);
  }
  bool done() const { return pos_ >= size_; }
  uint8_t next() { return pos_ < size_ ? data_[pos_++] : 0; }
  // Up to `n` bytes of the input into `to`; how many there were.
  size_t take(size_t n, uint8_t* to) {
    size_t got = 0;
    for (; got < n && !done(); ++got) to[got] = next();
    return got;
  }
  const qlt_sw& core() const { return core_; }
  uint8_t modelR() const { return modelR_; }

  void send(size_t n) {
    std::vector<uint8_t> msg(n);
    for (size_t i = 0; i < n; ++i) msg[i] = static_cast<uint8_t>(i);
    const size_t accepted = qlt_sw_send(&core_, msg.data(), n);
    QLT_FUZZ_CHECK(accepted <= n);
    queuedEver_ += (accepted + SWTransport::kSegmentSize - 1) / SWTransport::kSegmentSize;
  }
  // A wide window OFFER or ANSWER reads back as written; a peer's sizes never exceed ours.
  static void checkWideTerms(const uint8_t* bytes, size_t n) {
    qlt_sw_wide_terms t{};
    std::array<uint8_t, QLT_SW_WIDE_TERMS_LENGTH> again{};
    const qlt_sw_wide_read_result r = qlt_sw_wide_read(bytes, n, &t);
    if (r != QLT_SW_WIDE_READ_OFFER && r != QLT_SW_WIDE_READ_ANSWER) return;
    QLT_FUZZ_CHECK(qlt_sw_wide_write_terms(bytes[0], &t, again.data(), again.size()) == 19);
    for (size_t i = 0; i < again.size(); ++i)
      QLT_FUZZ_CHECK(again[i] == (i == 2 ? (bytes[i] & QLT_SW_WIDE_FLAG_RESUME) : bytes[i]));
    uint16_t seg = 0, win = 0;
    if (qlt_sw_wide_fit(&t, 244, 64, &seg, &win) != QLT_SW_WIDE_ABSURD)
      QLT_FUZZ_CHECK(seg >= QLT_SW_WIDE_MIN_SEGMENT && seg <= 244 && win >= 1 && win <= 64);
  }
  void receive(const uint8_t* bytes, size_t n) {
    checkWideTerms(bytes, n);
    const ParsedFrame p = parseFrame({bytes, n});
    const size_t queuedBefore = qlt_sw_queued(&core_);
    qlt_sw_delivery d{};
    qlt_sw_receive(&core_, bytes, n, now_, &d);
    const bool accepted = p.kind == FrameKind::Segment && p.sequence == modelR_;
    if (accepted) {
      modelR_ = (modelR_ + 1) & 3;
      QLT_FUZZ_CHECK(d.len == p.payload.size() && d.payload == bytes + 1);
      QLT_FUZZ_CHECK(qlt_sw_owed(&core_) & 1);
    }
    QLT_FUZZ_CHECK((d.kind == QLT_SW_TCP) == accepted);
    QLT_FUZZ_CHECK((d.kind == QLT_SW_IGNORED) ==
                   (p.kind == FrameKind::Malformed || p.kind == FrameKind::OtherControl));
    QLT_FUZZ_CHECK(qlt_sw_receive_seq(&core_) == modelR_);
    QLT_FUZZ_CHECK(qlt_sw_queued(&core_) <= queuedBefore);
    checkWindow();
  }
  void round(double seconds) {
    now_ += static_cast<uint32_t>(seconds * 1e6);
    uint8_t frame[QLT_SW_FRAME_MAX];
    size_t n, written = 0;
    while ((n = qlt_sw_poll_frame(&core_, now_, frame, sizeof frame)) > 0) {
      check(frame, n);
      QLT_FUZZ_CHECK(++written <= 8);  // a round ends: 3 segments, probe and poll, 2 answers
    }
    QLT_FUZZ_CHECK(qlt_sw_next_due(&core_, now_) != 0);
    checkWindow();
  }

 private:
  static constexpr uint16_t kSlots = 64;
  void checkWindow() {
    QLT_FUZZ_CHECK(qlt_sw_in_flight(&core_) <= kSlideWindowSize);
    QLT_FUZZ_CHECK(qlt_sw_in_flight(&core_) <= qlt_sw_queued(&core_));
    QLT_FUZZ_CHECK(qlt_sw_read_pos(&core_) >= lastReadPos_);
    lastReadPos_ = qlt_sw_read_pos(&core_);
    QLT_FUZZ_CHECK(qlt_sw_read_pos(&core_) + qlt_sw_queued(&core_) == queuedEver_);
  }
  // Every frame written is well formed; rejections and acknowledgements carry R.
  void check(const uint8_t* bytes, size_t length) {
    const ParsedFrame p = parseFrame({bytes, length});
    QLT_FUZZ_CHECK(p.kind != FrameKind::Malformed && p.kind != FrameKind::OtherControl);
    QLT_FUZZ_CHECK(length <= SWTransport::kSegmentSize + 1);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Segment || p.sequence < 4);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Reject || p.sequence == modelR_);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Ack || p.sequence == modelR_);
  }

  const uint8_t* data_;
  size_t size_, pos_ = 0;
  std::array<uint8_t, QLT_SW_STORAGE(SWTransport::kSegmentSize, kSlots)> slots_{};
  qlt_sw core_{};
  uint32_t now_ = 0;
  uint8_t modelR_ = 0;
  uint64_t lastReadPos_ = 0, queuedEver_ = 0;
};

}  // namespace

int runRaw(const uint8_t* data, size_t size) {
  Rig rig(data, size);
  uint8_t value[128];
  while (!rig.done()) {
    const uint8_t len = rig.next();
    rig.receive(value, rig.take(len & 0x7F, value));
    if (len & 0x80) rig.round(0.1);
  }
  rig.round(1.0);
  return 0;
}

int runStructured(const uint8_t* data, size_t size) {
  Rig rig(data, size);
  uint8_t frame[256];
  uint8_t running = 0;  // the sequence number a well-behaved peer would send next
  while (!rig.done()) {
    const uint8_t op = rig.next(), kind = op & 7, arg = static_cast<uint8_t>(op >> 3);
    if (kind <= 1) {  // a segment: running sequence (0) or a fuzzed header (1)
      const size_t n = 1 + rig.next() % 160;
      for (size_t i = rig.take(n, frame + 1); i < n; ++i) frame[1 + i] = static_cast<uint8_t>(i);
      frame[0] = kind == 0 ? static_cast<uint8_t>(running << 4) : (rig.next() & 0xF0);
      if (frame[0] >> 4 == rig.modelR())
        running = (rig.modelR() + 1) & 3;
      else if (kind == 0)
        running = (running + 1) & 3;        // one the receiver missed
      if (arg & 1) running = rig.modelR();  // the peer goes back
      rig.receive(frame, 1 + n);
    } else if (kind <= 3) {  // an acknowledgement or a rejection around the window
      const uint8_t oldest = qlt_sw_read_pos(&rig.core()) & 3;
      const uint8_t x = (arg & 4) ? (arg & 0x1F) : static_cast<uint8_t>((oldest + (arg & 3)) & 3);
      frame[0] = static_cast<uint8_t>((kind == 2 ? 0x03 : 0x05) | ((x & 0x0F) << 4));
      rig.receive(frame, 1);
    } else if (kind == 4) {  // a poll around our receive sequence or fuzzed, maybe cut short
      frame[0] = static_cast<uint8_t>(0x01 | (rig.next() & 0xF0));
      frame[1] =
          (arg & 1) ? rig.next() : static_cast<uint8_t>((rig.modelR() + 4 - (arg >> 1 & 3)) & 3);
      frame[2] = (arg & 1) ? rig.next() : static_cast<uint8_t>((frame[1] + (arg >> 3 & 3)) & 3);
      rig.receive(frame, (arg & 0x10) ? (arg & 3) : 3);
    } else if (kind == 5) {  // a datagram, or any short control value
      const size_t got = rig.take(arg, frame + 1);
      frame[0] = (arg & 1) ? 0x02 : rig.next();
      rig.receive(frame, 1 + got);
    } else if (kind == 6) {  // a worker round, after some time
      rig.round(arg * 0.01);
    } else {  // the application sends
      rig.send(std::min<size_t>(static_cast<size_t>(arg) * 16 + 1, 512));
    }
  }
  rig.round(1.0);
  return 0;
}

// A core with the wide window on, in the role the first byte picks, brought to the
// extended format by a well-formed peer (unless the second byte says otherwise), then fed
// the rest as raw values with rounds between. Whatever arrives: frames stay within the
// link's value limit, the window within its slots, and the stream in order.
int runWide(const uint8_t* data, size_t size) {
  Rig rig(data, size);
  const bool central = !(rig.next() & 1);
  test::WideCore w(
      {.role = static_cast<uint8_t>(central ? QLT_SW_ROLE_CENTRAL : QLT_SW_ROLE_DEVICE),
       .segment = 200,
       .sendSlots = 16,
       .recvSlots = 8,
       .valueLimit = 100,
       .nonce = 5});
  QLT_FUZZ_CHECK(w.initialized);
  qlt_sw& core = w.sw;
  const qlt_sw_config& cfg = w.config;
  uint32_t now = 0;
  uint64_t got = 0, queued = 0;
  uint8_t value[256] = {};
  qlt_sw_wide_info info;
  const auto in = [&](const uint8_t* v, size_t n) {
    qlt_sw_delivery d;
    const uint64_t before = qlt_sw_get_counters(&core)->bytes_queued;
    if (qlt_sw_receive(&core, v, n, now, &d) == QLT_SW_TCP) got += d.len;
    while (qlt_sw_take_delivery(&core, &d)) got += d.len;
    qlt_sw_get_wide_info(&core, &info);
    QLT_FUZZ_CHECK(info.stream_received == got && info.room <= cfg.wide_recv_slots);
    QLT_FUZZ_CHECK(qlt_sw_get_counters(&core)->bytes_queued <= before);
  };
  const auto round = [&](uint32_t ms) {
    uint8_t out[512];
    size_t n, written = 0;
    now += ms * 1000u;
    queued += qlt_sw_send(&core, value, 150);
    while ((n = qlt_sw_poll_frame(&core, now, out, sizeof out)) > 0) {
      const bool extended = (out[0] & 1) && ((out[0] >> 1) & 7) >= 3;
      QLT_FUZZ_CHECK(n <= qlt_sw_frame_max(&core) && (!extended || n <= cfg.value_limit));
      QLT_FUZZ_CHECK(++written <= 40);
    }
    qlt_sw_get_wide_info(&core, &info);
    QLT_FUZZ_CHECK(info.in_flight <= cfg.wide_send_slots);
    QLT_FUZZ_CHECK(info.stream_acked + qlt_sw_get_counters(&core)->bytes_queued == queued);
  };
  round(0);
  if (!(rig.next() & 1)) {  // a well-formed peer's side of the negotiation first
    const qlt_sw_wide_terms t{1, 0, 60, 4, central ? 5u : 9u, central ? 9u : 0u, 0};
    const uint8_t confirm = 0x27;
    in(value, qlt_sw_wide_write_terms(central ? 0x17 : 0x07, &t, value, sizeof value));
    round(0);
    if (!central) in(&confirm, 1);
  }
  while (!rig.done()) {
    const uint8_t len = rig.next();
    in(value, rig.take(len & 0x7F, value));
    if (len & 0x80) round(len & 0x7Fu);
  }
  round(1000);
  return 0;
}

}  // namespace qlt::fuzz
