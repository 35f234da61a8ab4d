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

[[noreturn]] void broken(const char* what) {
  std::fprintf(stderr, "slide-window invariant broken: %s\n", what);
  std::abort();
}
#define QLT_FUZZ_CHECK(cond)    \
  do {                          \
    if (!(cond)) broken(#cond); \
  } while (0)

// One engine, a model of its receiving side, and the checks.
class Rig final : private SlideWindowEngine::Face {
 public:
  Rig()
      : clock_(std::make_shared<ManualClock>()),
        engine_(*this, {SWTransport::kSegmentSize, SWTransport::kPollTimeout}, clock_) {
    std::vector<uint8_t> msg(600);
    for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(i);
    send(msg.data(), msg.size());
    engine_.round();  // three segments in flight
  }

  SlideWindowEngine& engine() { return engine_; }
  uint8_t modelR() const { return modelR_; }

  void send(const uint8_t* bytes, size_t n) {
    engine_.sendTCP(bytes, n);
    queuedEver_ += (n + SWTransport::kSegmentSize - 1) / SWTransport::kSegmentSize;
  }

  void receive(const uint8_t* bytes, size_t n) {
    const Data value(bytes, n);
    const ParsedFrame p = parseFrame(value.span());
    const uint64_t deliveredBefore = delivered_;
    const size_t queuedBefore = engine_.queuedSegments();
    rejectionsWritten_ = 0;
    engine_.receive(value);
    if (p.kind == FrameKind::Segment) {
      if (p.sequence == modelR_) {
        modelR_ = (modelR_ + 1) & 3;
        QLT_FUZZ_CHECK(delivered_ == deliveredBefore + 1);
        QLT_FUZZ_CHECK(lastDelivered_.size() == p.payload.size());
        QLT_FUZZ_CHECK(engine_.pendingWork() & 1);
      } else {
        QLT_FUZZ_CHECK(delivered_ == deliveredBefore);
        QLT_FUZZ_CHECK(rejectionsWritten_ == 0);  // owed, written by a round
      }
    } else {
      QLT_FUZZ_CHECK(delivered_ == deliveredBefore);
    }
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

  void writeFrame(const uint8_t* bytes, size_t length) override {
    const ParsedFrame p = parseFrame({bytes, length});
    QLT_FUZZ_CHECK(p.kind != FrameKind::Malformed && p.kind != FrameKind::OtherControl);
    QLT_FUZZ_CHECK(length <= SWTransport::kSegmentSize + 1);
    if (p.kind == FrameKind::Segment) QLT_FUZZ_CHECK(p.sequence < 4);
    if (p.kind == FrameKind::Reject) {
      ++rejectionsWritten_;
      QLT_FUZZ_CHECK(p.sequence == modelR_);
    }
    if (p.kind == FrameKind::Ack) QLT_FUZZ_CHECK(p.sequence == engine_.remoteAck());
  }
  void deliverTCP(const Data& payload) override {
    ++delivered_;
    lastDelivered_ = payload;
  }
  void deliverUDP(const Data&) override {}

  std::shared_ptr<ManualClock> clock_;
  SlideWindowEngine engine_;
  uint8_t modelR_ = 0;
  uint64_t delivered_ = 0;
  Data lastDelivered_;
  int rejectionsWritten_ = 0;
  uint64_t lastReadPos_ = 0;
  uint64_t queuedEver_ = 0;
};

// Reads bytes of the input one by one; zeros once it is used up.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool done() const { return pos_ >= size_; }
  uint8_t next() { return pos_ < size_ ? data_[pos_++] : 0; }
  // Up to `n` bytes of the input (fewer at its end).
  const uint8_t* take(size_t n, size_t* got) {
    *got = std::min(n, size_ - pos_);
    const uint8_t* p = data_ + pos_;
    pos_ += *got;
    return p;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace

int runRaw(const uint8_t* data, size_t size) {
  Rig rig;
  Reader in(data, size);
  while (!in.done()) {
    const uint8_t len = in.next();
    size_t got = 0;
    const uint8_t* bytes = in.take(len & 0x7F, &got);
    rig.receive(bytes, got);
    if (len & 0x80) rig.round(0.1);
  }
  rig.round(1.0);
  return 0;
}

int runStructured(const uint8_t* data, size_t size) {
  Rig rig;
  Reader in(data, size);
  uint8_t frame[256];
  uint8_t running = 0;  // the sequence number a well-behaved peer would send next
  while (!in.done()) {
    const uint8_t op = in.next();
    const uint8_t arg = static_cast<uint8_t>(op >> 3);
    SlideWindowEngine& e = rig.engine();
    switch (op & 7) {
      case 0:
      case 1: {  // a segment: running sequence (op 0) or a fuzzed header (op 1)
        const size_t n = 1 + in.next() % 160;
        size_t got = 0;
        const uint8_t* payload = in.take(n, &got);
        frame[0] = (op & 7) == 0 ? static_cast<uint8_t>(running << 4)
                                 : static_cast<uint8_t>(in.next() & 0xF0);
        std::copy(payload, payload + got, frame + 1);
        for (size_t i = got; i < n; ++i) frame[1 + i] = static_cast<uint8_t>(i);
        if (frame[0] >> 4 == rig.modelR())
          running = (rig.modelR() + 1) & 3;
        else if ((op & 7) == 0)
          running = (running + 1) & 3;        // one the receiver missed
        if (arg & 1) running = rig.modelR();  // the peer goes back
        rig.receive(frame, 1 + n);
        break;
      }
      case 2:
      case 3: {  // acknowledgement or rejection around the window
        const uint8_t oldest = e.readPos() & 3;
        const uint8_t x = (arg & 4) ? (arg & 0x1F) : static_cast<uint8_t>((oldest + (arg & 3)) & 3);
        frame[0] = static_cast<uint8_t>(((op & 7) == 2 ? 0x03 : 0x05) | ((x & 0x0F) << 4));
        rig.receive(frame, 1);
        break;
      }
      case 4: {  // a poll: around our receive sequence, or fuzzed; sometimes cut short
        frame[0] = static_cast<uint8_t>(0x01 | (in.next() & 0xF0));
        frame[1] =
            (arg & 1) ? in.next() : static_cast<uint8_t>((rig.modelR() + 4 - (arg >> 1 & 3)) & 3);
        frame[2] = (arg & 1) ? in.next() : static_cast<uint8_t>((frame[1] + (arg >> 3 & 3)) & 3);
        rig.receive(frame, (arg & 0x10) ? (arg & 3) : 3);
        break;
      }
      case 5: {  // a datagram, or any short control value
        size_t got = 0;
        const uint8_t* payload = in.take(arg, &got);
        frame[0] = (arg & 1) ? 0x02 : in.next();
        std::copy(payload, payload + got, frame + 1);
        rig.receive(frame, 1 + got);
        break;
      }
      case 6:  // a worker round, after some time
        rig.round(arg * 0.01);
        break;
      case 7: {  // the application sends
        uint8_t msg[512];
        const size_t n = static_cast<size_t>(arg) * 16 + 1;
        for (size_t i = 0; i < n && i < sizeof msg; ++i) msg[i] = static_cast<uint8_t>(i);
        rig.send(msg, std::min(n, sizeof msg));
        break;
      }
    }
  }
  rig.round(1.0);
  return 0;
}

}  // namespace qlt::fuzz
