// A sliding-window peer written from the wire format alone: it shares no code with the
// library's frame functions or engine, so a misreading of the format on both sides of an
// engine-to-engine test does not go unnoticed. It follows the protocol's literal rules:
// every out-of-order segment draws a rejection at once, every rejection inside the window
// is honoured, a status poll leaves after a fixed time-out, polls are answered at once and
// the cumulative acknowledgement is written by the next round.
#include <algorithm>
#include <deque>

#include "support/LinkHarness.h"

namespace qlt::test {

namespace {

class LiteralPeer final : public LinkEndpoint {
 public:
  LiteralPeer(size_t segment, double pollTimeout, std::shared_ptr<Clock> clock)
      : segment_(segment), pollTimeout_(pollTimeout), clock_(std::move(clock)) {}

  void sendTCP(std::span<const uint8_t> bytes) override {
    for (size_t at = 0; at < bytes.size(); at += segment_) {
      queue_.emplace_back(bytes.begin() + at,
                          bytes.begin() + std::min(bytes.size(), at + segment_));
      c_.bytesQueued += queue_.back().size();
    }
  }

  void receive(const Data& value) override {
    ++c_.framesReceived;
    if (value.empty()) return;
    const uint8_t h = value[0], seq = h >> 4;
    if ((h & 1) == 0) {  // data: bit 1 marks a datagram, a segment carries a payload
      if ((h & 2) || value.length() < 2) return;
      if (seq != expected_) return reject();
      expected_ = (expected_ + 1) % 4;
      ackOwed_ = true;
      ++c_.tcpDelivered;
      delivered_.emplace_back(value.bytes() + 1, value.length() - 1);
      if (onTCP) onTCP(delivered_.back());
      return;
    }
    const int type = (h >> 1) & 7;
    if (type == 0 && value.length() >= 3) {  // poll (a, b): answered when a <= R <= b
      const int a = value[1], b = value[2] < a ? value[2] + 4 : value[2];
      const int r = expected_ < a ? expected_ + 4 : expected_;
      if (a > r || r > b) return;
      if (r < b) return reject();
      ++c_.acksSent;
      return write({static_cast<uint8_t>(0x03 | expected_ << 4)}, false);
    }
    if ((type != 1 && type != 2) || seq > 3) return;
    const size_t distance = (seq + 4 - base_ % 4) % 4, inFlight = next_ - base_;
    if (type == 1) {  // acknowledgement: everything before seq arrived
      ++c_.acksReceived;
      if (distance > inFlight) return;
      for (size_t i = 0; i < distance; ++i) {
        c_.bytesQueued -= queue_.front().size();
        queue_.pop_front();
      }
      base_ += distance;
    } else {  // rejection: go back to seq
      ++c_.rejectionsReceived;
      if (distance >= inFlight) return;
      next_ = base_ + distance;
      ++c_.rejectionsHonoured;
    }
    lastActivity_ = clock_->now();
  }

  void round() override {
    while (next_ < base_ + 3 && next_ < base_ + queue_.size()) {
      const auto& payload = queue_[next_ - base_];
      std::vector<uint8_t> frame{static_cast<uint8_t>((next_ % 4) << 4)};
      frame.insert(frame.end(), payload.begin(), payload.end());
      ++c_.segmentsSent;
      if (next_ < everSent_) ++c_.segmentsResent;
      everSent_ = std::max(everSent_, ++next_);
      write(frame);
    }
    if (next_ > base_ && clock_->now() - lastActivity_ > pollTimeout_) {
      ++c_.pollsSent;
      write({0x01, static_cast<uint8_t>(base_ % 4), static_cast<uint8_t>(next_ % 4)});
    }
    if (ackOwed_) {
      ackOwed_ = false;
      ++c_.acksSent;
      write({static_cast<uint8_t>(0x03 | expected_ << 4)}, false);
    }
  }

  SlideWindowCounters counters() const override { return c_; }
  uint8_t inFlight() const override { return static_cast<uint8_t>(next_ - base_); }
  size_t queuedSegments() const override { return queue_.size(); }
  std::vector<Data> delivered() override { return delivered_; }

 private:
  void reject() {
    ++c_.rejectionsSent;
    write({static_cast<uint8_t>(0x05 | expected_ << 4)});
  }
  // Every frame but an acknowledgement restarts the poll timer.
  void write(const std::vector<uint8_t>& frame, bool restartsTimer = true) {
    ++c_.framesSent;
    if (restartsTimer) lastActivity_ = clock_->now();
    if (output) output(Data(frame));
  }

  const size_t segment_;
  const double pollTimeout_;
  const std::shared_ptr<Clock> clock_;
  std::deque<std::vector<uint8_t>> queue_;  // segments base_.. not yet acknowledged
  uint64_t base_ = 0, next_ = 0, everSent_ = 0;
  double lastActivity_ = 0;  // the poll timer's origin
  uint8_t expected_ = 0;
  bool ackOwed_ = false;
  std::vector<Data> delivered_;
  SlideWindowCounters c_;
};

}  // namespace

std::unique_ptr<LinkEndpoint> makeLiteralPeer(size_t segmentSize, double pollTimeout,
                                              std::shared_ptr<Clock> clock) {
  return std::make_unique<LiteralPeer>(segmentSize, pollTimeout, std::move(clock));
}

}  // namespace qlt::test
