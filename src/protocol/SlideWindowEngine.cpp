#include "protocol/SlideWindowEngine.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt {

namespace {
// The clock granularity of the estimate: a worker round, plus the peer's delayed
// acknowledgement (one round of its own).
constexpr double kGranularity = 0.002;
// How long past the estimated round trip a rejection of the same segment is ignored.
constexpr double kHoldMargin = 0.001;
}  // namespace

SlideWindowEngine::SlideWindowEngine(Face& face, SlideWindowParameters parameters,
                                     std::shared_ptr<Clock> clock)
    : face_(face),
      parameters_{std::clamp<size_t>(parameters.segmentSize, 1, kMaxSlideWindowSegment),
                  parameters.pollTimeout},
      clock_(std::move(clock)),
      timer_(ComTimer::timerWithTimeout(parameters.pollTimeout, clock_)),
      rto_(parameters.pollTimeout) {
  initState();
}

void SlideWindowEngine::initState() {
  {
    std::lock_guard lock(txMutex_);
    txBuffer_.clear();
    bytesQueued_ = 0;
    neverSentFrom_ = 0;
    counters_.bytesQueued.store(0, std::memory_order_relaxed);
    readPos_.store(0, std::memory_order_release);
    ackWindow_.store(0, std::memory_order_release);
    timedIndex_ = rewoundIndex_ = kNone;
    pollBackoff_ = 0;
    setPollWaitLocked();
  }
  setPendingWork(0);
}

void SlideWindowEngine::sendTCP(const uint8_t* bytes, uint64_t length) {
  if (length == 0 || bytes == nullptr) return;
  std::unique_lock lock(txMutex_);
  while (length > 0) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(parameters_.segmentSize, length));
    txBuffer_.emplace_back(bytes, n);
    bytes += n;
    length -= n;
    bytesQueued_ += n;
  }
  counters_.bytesQueued.store(bytesQueued_, std::memory_order_relaxed);
  lock.unlock();
  wake(0);
}

void SlideWindowEngine::sendUDP(const uint8_t* bytes, uint64_t length) {
  if (length >= parameters_.segmentSize) {
    QLTLog("UDP data length is too large than %d", static_cast<int>(parameters_.segmentSize));
    return;
  }
  std::array<uint8_t, kMaxSlideWindowSegment + 1> frame{};
  const size_t n = buildDatagram(std::span(frame.data(), parameters_.segmentSize + 1),
                                 std::span(bytes, bytes ? static_cast<size_t>(length) : 0));
  write(frame.data(), n);
}

void SlideWindowEngine::releaseLocked(uint64_t count) {
  count = std::min<uint64_t>(count, txBuffer_.size());
  for (uint64_t i = 0; i < count; ++i) {
    bytesQueued_ -= txBuffer_.front().length();
    txBuffer_.pop_front();
  }
  const uint64_t readPos = readPos_.fetch_add(count, std::memory_order_acq_rel) + count;
  counters_.bytesQueued.store(bytesQueued_, std::memory_order_relaxed);
  if (timedIndex_ != kNone && readPos > timedIndex_) {
    timedIndex_ = kNone;
    sampleLocked(clock_->now() - timedAt_);
  }
}

void SlideWindowEngine::sampleLocked(double seconds) {
  seconds = std::max(seconds, 0.0);
  if (!haveSample_) {
    srtt_ = seconds;
    rttvar_ = seconds / 2;
    haveSample_ = true;
  } else {
    rttvar_ = 0.75 * rttvar_ + 0.25 * std::fabs(srtt_ - seconds);
    srtt_ = 0.875 * srtt_ + 0.125 * seconds;
  }
  rto_.store(std::clamp(srtt_ + std::max(kGranularity, 4 * rttvar_), kGranularity,
                        parameters_.pollTimeout),
             std::memory_order_release);
  setPollWaitLocked();
}

void SlideWindowEngine::sample(double seconds) {
  std::lock_guard lock(txMutex_);
  sampleLocked(seconds);
}

void SlideWindowEngine::setPollWaitLocked() {
  // The first poll that goes unanswered is repeated after rto; from then on the wait doubles.
  const double wait = std::ldexp(rto_.load(std::memory_order_relaxed),
                                 static_cast<int>(std::clamp(pollBackoff_, 1u, 17u)) - 1);
  timer_->setTimeout(std::min(wait, parameters_.pollTimeout));
}

double SlideWindowEngine::srtt() const {
  std::lock_guard lock(txMutex_);
  return srtt_;
}

void SlideWindowEngine::ackReceived(uint64_t count) {
  std::lock_guard lock(txMutex_);
  releaseLocked(count);
}

void SlideWindowEngine::transfer() {
  struct Pending {
    uint8_t sequence = 0;
    Data payload;  // shares the queued bytes: no copy, no allocation
  };
  std::array<Pending, kSlideWindowSize> batch;
  size_t count = 0;
  {
    std::lock_guard lock(txMutex_);
    if (txBuffer_.empty()) return;
    const uint64_t readPos = readPos_.load(std::memory_order_relaxed);
    uint8_t ackWindow = ackWindow_.load(std::memory_order_relaxed);
    uint8_t inFlight = sequenceDistance(readPos & 3, ackWindow);
    while (inFlight < kSlideWindowSize && inFlight < txBuffer_.size()) {
      const uint64_t index = readPos + inFlight;
      if (index < neverSentFrom_) {
        bump(counters_.segmentsResent);
        if (index == timedIndex_) timedIndex_ = kNone;  // Karn: no sample from a resend
      } else {
        neverSentFrom_ = index + 1;
        if (timedIndex_ == kNone) {
          timedIndex_ = index;
          timedAt_ = clock_->now();
        }
      }
      batch[count++] = {ackWindow, txBuffer_[inFlight]};
      ++inFlight;
      ackWindow = (ackWindow + 1) & 3;
    }
    ackWindow_.store(ackWindow, std::memory_order_release);
  }
  // Written outside the lock, so that no user code runs under it.
  std::array<uint8_t, kMaxSlideWindowSegment + 1> frame;
  for (size_t i = 0; i < count; ++i) {
    const size_t n = buildSegment(std::span(frame.data(), parameters_.segmentSize + 1),
                                  batch[i].sequence, batch[i].payload.span());
    bump(counters_.segmentsSent);
    write(frame.data(), n);
    timer_->start();
  }
}

void SlideWindowEngine::checkControl() {
  // Idle test without the lock: nothing in flight, or the acknowledgement is not late.
  if (ackWindow_.load(std::memory_order_acquire) ==
      (readPos_.load(std::memory_order_acquire) & 3)) {
    return;
  }
  if (!timer_->isTimeout()) return;
  uint8_t oldest, next;
  Data probe;  // the oldest segment, sent again ahead of the poll
  {
    std::lock_guard lock(txMutex_);  // one consistent pair for the poll
    oldest = readPos_.load(std::memory_order_relaxed) & 3;
    next = ackWindow_.load(std::memory_order_relaxed);
    if (oldest == next) return;
    if (!txBuffer_.empty()) probe = txBuffer_.front();
    timedIndex_ = kNone;  // an answer to a poll times the poll, not the segment
    ++pollBackoff_;
    setPollWaitLocked();
  }
  if (!probe.empty()) {
    std::array<uint8_t, kMaxSlideWindowSegment + 1> segment;
    const size_t n =
        buildSegment(std::span(segment.data(), parameters_.segmentSize + 1), oldest, probe.span());
    bump(counters_.segmentsSent);
    bump(counters_.segmentsResent);
    write(segment.data(), n);
  }
  std::array<uint8_t, kPollFrameLength> frame;
  const size_t n = buildPoll(frame, oldest, next);
  bump(counters_.pollsSent);
  write(frame.data(), n);
  timer_->start();
}

void SlideWindowEngine::doPendingWork() {
  // A gap that still stands rto after its last rejection owes one more, up to the bound.
  if (gapOpen_.load(std::memory_order_acquire)) {
    std::lock_guard lock(gapMutex_);
    const double now = clock_->now();
    if (gapOpen_.load(std::memory_order_relaxed) && gapRejections_ < kRejectionsPerGap &&
        now - rejectedAt_ >= rto_.load(std::memory_order_acquire)) {
      ++gapRejections_;
      rejectedAt_ = now;
      gapTimed_ = false;
      oweRejection(gapSequence_);
    }
  }
  if ((pendingWork_.load(std::memory_order_acquire) & 3) == 0) return;
  // Take the slot first: whatever receive() owes from now on is written next round, so
  // nothing owed is lost between the test and the clear.
  const uint64_t owed = pendingWork_.exchange(0, std::memory_order_acq_rel);
  const uint8_t r = remoteAck_.load(std::memory_order_acquire);
  if (owed & 1) {
    bump(counters_.acksSent);
    writeControl(ackHeader(r));
  }
  // A rejection whose gap closed meanwhile is stale: the acknowledgement says it all.
  if ((owed & 2) && ((owed >> 4) & 3) == r) {
    {
      std::lock_guard lock(gapMutex_);
      if (!gapOpen_.load(std::memory_order_relaxed) || gapSequence_ != r) return;
      rejectedAt_ = clock_->now();
      gapWritten_ = true;
    }
    bump(counters_.rejectionsSent);
    writeControl(rejectHeader(r));
  }
}

void SlideWindowEngine::oweRejection(uint8_t sequence) {
  uint64_t v = pendingWork_.load(std::memory_order_relaxed);
  while (!pendingWork_.compare_exchange_weak(v, (v & ~uint64_t{0x30}) | 2 | ((sequence & 3) << 4),
                                             std::memory_order_acq_rel)) {}
}

void SlideWindowEngine::receive(const Data& value) {
  bump(counters_.framesReceived);
  trace(false, value.bytes(), value.length());
  const ParsedFrame frame = parseFrame(value.span());
  switch (frame.kind) {
    case FrameKind::Malformed:
    case FrameKind::OtherControl:
      bump(counters_.malformedIgnored);
      QLTLog("Slide window ignored a frame: %s", describeFrame(value.span(), false));
      return;

    case FrameKind::Poll: {
      // Answer only when our receive sequence lies in the peer's window [a, b].
      unsigned a = frame.pollFirst, b = frame.pollNext,
               r = remoteAck_.load(std::memory_order_acquire);
      const uint8_t reply = static_cast<uint8_t>(r);
      if (b < a) b += 4;
      if (r < a) r += 4;
      if (a <= r && r <= b) {
        if (r >= b) {
          pendingWork_.fetch_or(1, std::memory_order_acq_rel);
        } else {
          // A poll is answered whenever it comes; the answer opens the gap if none stands.
          std::lock_guard lock(gapMutex_);
          if (!gapOpen_.load(std::memory_order_relaxed) || gapSequence_ != reply) {
            gapOpen_.store(true, std::memory_order_release);
            gapSequence_ = reply;
            gapRejections_ = 0;
            gapWritten_ = false;
          }
          rejectedAt_ = clock_->now();
          gapTimed_ = false;
          oweRejection(reply);
        }
        wake(kOwedDelay);  // lock released
      }
      return;
    }

    case FrameKind::Ack: {
      bump(counters_.acksReceived);
      bool honoured = false;
      {
        std::lock_guard lock(txMutex_);
        const uint8_t a = readPos_.load(std::memory_order_relaxed) & 3;
        const uint8_t b = ackWindow_.load(std::memory_order_relaxed);
        if (inWindowInclusive(a, frame.sequence, b)) {
          unsigned x = frame.sequence;
          if (x < a) x += 4;
          releaseLocked(x - a);
          honoured = true;
          pollBackoff_ = 0;
          setPollWaitLocked();
        }
      }
      if (honoured) {
        timer_->start();
        wake(0);
      }
      return;
    }

    case FrameKind::Reject: {
      bump(counters_.rejectionsReceived);
      bool honoured = false;
      {
        std::lock_guard lock(txMutex_);
        const uint8_t a = readPos_.load(std::memory_order_relaxed) & 3;
        const uint8_t b = ackWindow_.load(std::memory_order_relaxed);
        if (inWindowExclusive(a, frame.sequence, b)) {
          const uint64_t index =
              readPos_.load(std::memory_order_relaxed) + sequenceDistance(a, frame.sequence & 3);
          const double now = clock_->now();
          // Honour a rejection once: the segments from the one rewound to are on their way
          // again, and what the peer said before it saw them is stale.
          if (rewoundIndex_ == kNone || index < rewoundIndex_ || now >= holdUntil_) {
            ackWindow_.store(frame.sequence & 3, std::memory_order_release);
            honoured = true;
            rewoundIndex_ = index;
            holdUntil_ = now + (haveSample_ ? srtt_ + kHoldMargin : rto_.load());
            pollBackoff_ = 0;
            setPollWaitLocked();
          }
        }
      }
      if (honoured) {
        bump(counters_.rejectionsHonoured);
        timer_->start();
        wake(0);
      }
      return;
    }

    case FrameKind::Datagram:
      bump(counters_.udpDelivered);
      face_.deliverUDP(Data(frame.payload));
      return;

    case FrameKind::Segment: {
      uint8_t expected = remoteAck_.load(std::memory_order_acquire);
      if (frame.sequence != expected ||
          !remoteAck_.compare_exchange_strong(expected, (expected + 1) & 3,
                                              std::memory_order_acq_rel)) {
        if (frame.sequence == ((expected + 3) & 3)) {
          // A copy of the segment accepted last: nothing is missing.
          pendingWork_.fetch_or(1, std::memory_order_acq_rel);
          wake(kOwedDelay);
          return;
        }
        std::unique_lock lock(gapMutex_);
        if (gapOpen_.load(std::memory_order_relaxed) && gapSequence_ == expected) return;
        gapOpen_.store(true, std::memory_order_release);
        gapSequence_ = expected;
        gapRejections_ = 1;
        rejectedAt_ = clock_->now();
        gapTimed_ = true;
        gapWritten_ = false;
        oweRejection(expected);
        timer_->start();
        lock.unlock();
        wake(kOwedDelay);
        return;
      }
      if (gapOpen_.load(std::memory_order_acquire)) {
        double sampled = -1;
        {
          std::lock_guard lock(gapMutex_);
          if (gapTimed_ && gapWritten_) sampled = clock_->now() - rejectedAt_;
          gapOpen_.store(false, std::memory_order_release);
          gapRejections_ = 0;
          gapTimed_ = false;
        }
        if (sampled >= 0) sample(sampled);
      }
      Data payload(frame.payload);
      pendingWork_.fetch_or(1, std::memory_order_acq_rel);
      bump(counters_.tcpDelivered);
      face_.deliverTCP(payload);
      wake(kOwedDelay);
      return;
    }
  }
}

double SlideWindowEngine::untilNextRound() const {
  const double now = clock_->now();
  double due = std::numeric_limits<double>::infinity();
  if ((pendingWork() & 3) != 0) return 0;
  // The poll: the timer's time-out is strict, so a hair past it.
  if (ackWindow_.load(std::memory_order_acquire) != (readPos_.load(std::memory_order_acquire) & 3))
    due = timer_->tm() + timer_->Timeout() + 1e-4;
  if (gapOpen_.load(std::memory_order_acquire)) {
    std::lock_guard lock(gapMutex_);
    if (gapOpen_.load(std::memory_order_relaxed) && gapRejections_ < kRejectionsPerGap)
      due = std::min(due, rejectedAt_ + rto_.load(std::memory_order_acquire));
  }
  return std::max(due - now, 0.0);
}

void SlideWindowEngine::writeControl(uint8_t header) { write(&header, 1); }

void SlideWindowEngine::write(const uint8_t* bytes, size_t length) {
  bump(counters_.framesSent);
  trace(true, bytes, length);
  face_.writeFrame(bytes, length);
}

void SlideWindowEngine::trace(bool outgoing, const uint8_t* bytes, size_t length) {
  if (!tracing_.load(std::memory_order_acquire)) return;
  std::shared_ptr<const FrameTrace> hook;
  {
    std::lock_guard lock(traceMutex_);
    hook = trace_;
  }
  if (hook && *hook) (*hook)(outgoing, Data(bytes, length));
}

void SlideWindowEngine::setFrameTrace(FrameTrace trace) {
  std::shared_ptr<const FrameTrace> hook;
  if (trace) hook = std::make_shared<const FrameTrace>(std::move(trace));
  std::lock_guard lock(traceMutex_);
  trace_ = std::move(hook);
  tracing_.store(trace_ != nullptr, std::memory_order_release);
}

size_t SlideWindowEngine::queuedSegments() const {
  std::lock_guard lock(txMutex_);
  return txBuffer_.size();
}

uint8_t SlideWindowEngine::inFlight() const {
  std::lock_guard lock(txMutex_);
  return sequenceDistance(readPos_.load(std::memory_order_relaxed) & 3,
                          ackWindow_.load(std::memory_order_relaxed));
}

SlideWindowCounters SlideWindowEngine::counters() const {
  auto get = [](const std::atomic<uint64_t>& c) { return c.load(std::memory_order_relaxed); };
  SlideWindowCounters c;
  c.framesSent = get(counters_.framesSent);
  c.framesReceived = get(counters_.framesReceived);
  c.segmentsSent = get(counters_.segmentsSent);
  c.segmentsResent = get(counters_.segmentsResent);
  c.pollsSent = get(counters_.pollsSent);
  c.acksSent = get(counters_.acksSent);
  c.rejectionsSent = get(counters_.rejectionsSent);
  c.rejectionsReceived = get(counters_.rejectionsReceived);
  c.rejectionsHonoured = get(counters_.rejectionsHonoured);
  c.acksReceived = get(counters_.acksReceived);
  c.malformedIgnored = get(counters_.malformedIgnored);
  c.tcpDelivered = get(counters_.tcpDelivered);
  c.udpDelivered = get(counters_.udpDelivered);
  c.bytesQueued = get(counters_.bytesQueued);
  return c;
}

}  // namespace qlt
