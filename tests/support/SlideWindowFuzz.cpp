#include "support/SlideWindowFuzz.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "protocol/SlideWindowEngine.h"

namespace qlt::fuzz {

namespace {

#define QLT_FUZZ_CHECK(cond)                                              \
  do {                                                                    \
    if (!(cond)) {                                                        \
      std::fprintf(stderr, "slide-window invariant broken: %s\n", #cond); \
      std::abort();                                                       \
    }                                                                     \
  } while (0)

// One engine with three segments of its own in flight, a model of its receiving side, and
// the checks; and the input, read byte by byte (zeros once it is used up).
class Rig final : private SlideWindowEngine::Face {
 public:
  Rig(const uint8_t* data, size_t size)
      : data_(data),
        size_(size),
        engine_(*this, {SWTransport::kSegmentSize, SWTransport::kPollTimeout}, clock_) {
    send(600);
    engine_.round();
  }
  bool done() const { return pos_ >= size_; }
  uint8_t next() { return pos_ < size_ ? data_[pos_++] : 0; }
  // Up to `n` bytes of the input into `to`; how many there were.
  size_t take(size_t n, uint8_t* to) {
    size_t got = 0;
    for (; got < n && !done(); ++got) to[got] = next();
    return got;
  }
  SlideWindowEngine& engine() { return engine_; }
  uint8_t modelR() const { return modelR_; }

  void send(size_t n) {
    std::vector<uint8_t> msg(n);
    for (size_t i = 0; i < n; ++i) msg[i] = static_cast<uint8_t>(i);
    engine_.sendTCP(msg.data(), n);
    queuedEver_ += (n + SWTransport::kSegmentSize - 1) / SWTransport::kSegmentSize;
  }
  void receive(const uint8_t* bytes, size_t n) {
    const Data value(bytes, n);
    const ParsedFrame p = parseFrame(value.span());
    const uint64_t deliveredBefore = delivered_;
    const size_t queuedBefore = engine_.queuedSegments();
    rejectionsWritten_ = 0;
    engine_.receive(value);
    const bool accepted = p.kind == FrameKind::Segment && p.sequence == modelR_;
    if (accepted) {
      modelR_ = (modelR_ + 1) & 3;
      QLT_FUZZ_CHECK(lastDelivered_ == p.payload.size() && (engine_.pendingWork() & 1));
    }
    QLT_FUZZ_CHECK(delivered_ == deliveredBefore + (accepted ? 1 : 0));
    QLT_FUZZ_CHECK(rejectionsWritten_ == 0);  // what a receive owes, a round writes
    QLT_FUZZ_CHECK(engine_.remoteAck() == modelR_);
    QLT_FUZZ_CHECK(engine_.queuedSegments() <= queuedBefore);
    checkWindow();
  }
  void round(double seconds) {
    clock_->advance(seconds);
    engine_.round();
    checkWindow();
  }

 private:
  void checkWindow() {
    QLT_FUZZ_CHECK(engine_.inFlight() <= kSlideWindowSize);
    QLT_FUZZ_CHECK(engine_.readPos() >= lastReadPos_);
    lastReadPos_ = engine_.readPos();
    QLT_FUZZ_CHECK(engine_.readPos() + engine_.queuedSegments() == queuedEver_);
  }
  // Every frame written is well formed; rejections and acknowledgements carry R.
  void writeFrame(const uint8_t* bytes, size_t length) override {
    const ParsedFrame p = parseFrame({bytes, length});
    QLT_FUZZ_CHECK(p.kind != FrameKind::Malformed && p.kind != FrameKind::OtherControl);
    QLT_FUZZ_CHECK(length <= SWTransport::kSegmentSize + 1);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Segment || p.sequence < 4);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Reject || p.sequence == modelR_);
    QLT_FUZZ_CHECK(p.kind != FrameKind::Ack || p.sequence == engine_.remoteAck());
    rejectionsWritten_ += p.kind == FrameKind::Reject;
  }
  void deliverTCP(const Data& payload) override {
    ++delivered_;
    lastDelivered_ = payload.length();
  }
  void deliverUDP(const Data&) override {}

  const uint8_t* data_;
  size_t size_, pos_ = 0;
  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  SlideWindowEngine engine_;
  uint8_t modelR_ = 0;
  uint64_t delivered_ = 0, lastReadPos_ = 0, queuedEver_ = 0;
  size_t lastDelivered_ = 0;
  int rejectionsWritten_ = 0;
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
      const uint8_t oldest = rig.engine().readPos() & 3;
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

}  // namespace qlt::fuzz
