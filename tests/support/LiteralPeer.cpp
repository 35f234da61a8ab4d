// A sliding-window peer written from the wire format alone, sharing no code with the
// library's frames or engine, so that a misreading of the format shared by both ends of an
// engine-to-engine run shows. It follows the protocol's literal rules: a rejection at once
// for every out-of-order segment, every rejection inside the window honoured, a poll after
// a fixed time-out, polls answered at once, acknowledgements written by the next round.
#include <algorithm>
#include <deque>
#include <utility>

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
    if (value.empty()) return;
    const uint8_t h = value[0], seq = h >> 4;
    if ((h & 1) == 0) {  // data: bit 1 marks a datagram; a segment carries a payload
      if ((h & 2) || value.length() < 2) return;
      if (seq != expected_) return control(0x05);
      expected_ = (expected_ + 1) % 4;
      ackOwed_ = true;
      deliver(Data(value.bytes() + 1, value.length() - 1));
      return;
    }
    const int type = (h >> 1) & 7;
    if (type == 0 && value.length() >= 3) {  // poll (a, b): answered when a <= R <= b
      const int a = value[1], b = value[2] < a ? value[2] + 4 : value[2];
      const int r = expected_ < a ? expected_ + 4 : expected_;
      if (a <= r && r <= b) control(r < b ? 0x05 : 0x03);
      return;
    }
    if ((type != 1 && type != 2) || seq > 3) return;
    const size_t distance = (seq + 4 - base_ % 4) % 4, inFlight = next_ - base_;
    if (type == 1 && distance <= inFlight) {  // acknowledgement: all before seq arrived
      for (size_t i = 0; i < distance; ++i) {
        c_.bytesQueued -= queue_.front().size();
        queue_.pop_front();
      }
      base_ += distance;
      lastSent_ = clock_->now();
    } else if (type == 2 && distance < inFlight) {  // rejection: go back to seq
      next_ = base_ + distance;
      lastSent_ = clock_->now();
    }
  }

  void round() override {
    for (; next_ < base_ + 3 && next_ < base_ + queue_.size(); ++next_) {
      std::vector<uint8_t> frame{static_cast<uint8_t>((next_ % 4) << 4)};
      frame.insert(frame.end(), queue_[next_ - base_].begin(), queue_[next_ - base_].end());
      ++c_.segmentsSent;
      if (next_ < everSent_) ++c_.segmentsResent;
      everSent_ = std::max(everSent_, next_ + 1);
      write(frame);
    }
    if (next_ > base_ && clock_->now() - lastSent_ > pollTimeout_) {
      write({0x01, static_cast<uint8_t>(base_ % 4), static_cast<uint8_t>(next_ % 4)});
    }
    if (std::exchange(ackOwed_, false)) control(0x03);
  }

  SlideWindowCounters counters() const override { return c_; }
  uint8_t inFlight() const override { return static_cast<uint8_t>(next_ - base_); }
  size_t queuedSegments() const override { return queue_.size(); }

 private:
  // An acknowledgement (0x03) or rejection (0x05) carrying the expected sequence.
  void control(uint8_t type) {
    (type == 0x05 ? c_.rejectionsSent : c_.acksSent)++;
    if (output) output(Data(std::vector<uint8_t>{static_cast<uint8_t>(type | expected_ << 4)}));
  }
  // Segments and polls restart the poll timer.
  void write(const std::vector<uint8_t>& frame) {
    lastSent_ = clock_->now();
    if (output) output(Data(frame));
  }

  const size_t segment_;
  const double pollTimeout_;
  const std::shared_ptr<Clock> clock_;
  std::deque<std::vector<uint8_t>> queue_;  // segments base_.. not yet acknowledged
  uint64_t base_ = 0, next_ = 0, everSent_ = 0;
  double lastSent_ = 0;  // the poll timer's origin
  uint8_t expected_ = 0;
  bool ackOwed_ = false;
  SlideWindowCounters c_;
};

}  // namespace

std::unique_ptr<LinkEndpoint> makeLiteralPeer(size_t segmentSize, double pollTimeout,
                                              std::shared_ptr<Clock> clock) {
  return std::make_unique<LiteralPeer>(segmentSize, pollTimeout, std::move(clock));
}

}  // namespace qlt::test
