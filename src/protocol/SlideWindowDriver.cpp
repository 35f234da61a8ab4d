#include "protocol/SlideWindowDriver.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt {

SlideWindowDriver::SlideWindowDriver(SlideWindowParameters parameters, std::shared_ptr<Clock> clock,
                                     std::shared_ptr<DispatchQueue> strand, Outputs outputs)
    : parameters_{std::clamp<size_t>(parameters.segmentSize, 1, QLT_SW_MAX_SEGMENT),
                  parameters.pollTimeout},
      clock_(clock != nullptr ? std::move(clock) : std::shared_ptr<Clock>(Clock::monotonic())),
      strand_(std::move(strand)),
      outputs_(std::move(outputs)),
      slots_(QLT_SW_STORAGE(parameters_.segmentSize, kQueueSegments)) {
  qlt_sw_config cfg{};
  cfg.segment_size = static_cast<uint8_t>(parameters_.segmentSize);
  cfg.poll_timeout_us =
      static_cast<uint32_t>(std::clamp(parameters_.pollTimeout * 1e6, 1.0, 600e6));
  cfg.ack_delay_us = kAckDelayMicros;
  cfg.slots = slots_.data();
  cfg.slot_count = kQueueSegments;
  qlt_sw_init(&core_, &cfg);
}

SlideWindowDriver::~SlideWindowDriver() = default;

std::shared_ptr<SlideWindowDriver> SlideWindowDriver::create(SlideWindowParameters parameters,
                                                             std::shared_ptr<Clock> clock,
                                                             std::shared_ptr<DispatchQueue> strand,
                                                             Outputs outputs) {
  std::shared_ptr<SlideWindowDriver> driver(
      new SlideWindowDriver(parameters, std::move(clock), std::move(strand), std::move(outputs)));
  // A round pumps the core, which asks the pacer for its next deadline itself.
  driver->pacer_ = RoundPacer::create(
      driver->strand_,
      [weak = std::weak_ptr<SlideWindowDriver>(driver)] {
        if (auto self = weak.lock()) self->pump();
        return std::numeric_limits<double>::infinity();
      },
      driver->clock_);
  return driver;
}

uint32_t SlideWindowDriver::nowMicros() const {
  // The core's time wraps every 2^32 us; it compares times by their difference.
  const double us = std::max(clock_->now(), 0.0) * 1e6;
  return static_cast<uint32_t>(std::fmod(us, 4294967296.0));
}

void SlideWindowDriver::onStrand(std::function<void()> task) {
  if (strand_->isCurrent()) {
    task();
    return;
  }
  strand_->async([self = shared_from_this(), task = std::move(task)] { task(); });
}

void SlideWindowDriver::start() {
  {
    std::lock_guard lock(mutex_);
    if (running_) return;
    running_ = true;
  }
  strand_->async([self = shared_from_this()] { self->pump(); });
}

void SlideWindowDriver::stop() {
  std::lock_guard lock(mutex_);
  running_ = false;
}

void SlideWindowDriver::sendTCP(const uint8_t* bytes, uint64_t length) {
  if (bytes == nullptr || length == 0) return;
  unacknowledged_.fetch_add(length, std::memory_order_acq_rel);
  onStrand([this, data = Data(bytes, static_cast<size_t>(length))] {
    backlog_.push_back(data);
    backlogBytes_ += data.length();
    feed();
    schedule();
  });
}

bool SlideWindowDriver::sendUDP(const uint8_t* bytes, uint64_t length) {
  if (length >= parameters_.segmentSize) {
    QLTLog("UDP data length is too large than %d", static_cast<int>(parameters_.segmentSize));
    return false;
  }
  strand_->sync([&] {
    uint8_t frame[QLT_SW_FRAME_MAX];
    const size_t n =
        qlt_sw_datagram(&core_, bytes, static_cast<size_t>(length), frame, sizeof frame);
    if (n > 0) write(frame, n);
  });
  return true;
}

void SlideWindowDriver::receive(const Data& value) {
  // Run on the strand in a sync(): on the caller's thread when the strand is free (most of
  // the time), without a hop through the pool, and in order with everything posted before.
  strand_->sync([this, &value] {
    trace(false, value.bytes(), value.length());
    const uint64_t queued = core_.counters.bytes_queued;
    qlt_sw_delivery d{};
    qlt_sw_receive(&core_, value.bytes(), value.length(), nowMicros(), &d);
    settle(queued);
    switch (d.kind) {
      case QLT_SW_TCP:
        if (outputs_.deliverTCP) outputs_.deliverTCP(Data(d.payload, d.len));
        break;
      case QLT_SW_UDP:
        if (outputs_.deliverUDP) outputs_.deliverUDP(Data(d.payload, d.len));
        break;
      case QLT_SW_IGNORED:
        QLTLog("Slide window ignored a frame: %s", describeFrame(value.span(), false));
        break;
      case QLT_SW_NONE:
        break;
    }
    schedule();
  });
}

void SlideWindowDriver::feed() {
  while (!backlog_.empty()) {
    const Data& front = backlog_.front();
    const size_t accepted =
        qlt_sw_send(&core_, front.bytes() + backlogHead_, front.length() - backlogHead_);
    backlogHead_ += accepted;
    backlogBytes_ -= accepted;
    if (backlogHead_ < front.length()) return;  // the core's queue is full
    backlog_.pop_front();
    backlogHead_ = 0;
  }
}

// What the core released since it held `queuedBefore` bytes: the backlog moves up, and the
// handler hears when nothing is left unacknowledged.
void SlideWindowDriver::settle(uint64_t queuedBefore) {
  const uint64_t queued = core_.counters.bytes_queued;
  if (queued >= queuedBefore) return;
  const uint64_t released = queuedBefore - queued;
  feed();
  if (unacknowledged_.fetch_sub(released, std::memory_order_acq_rel) != released) return;
  std::shared_ptr<const std::function<void()>> handler;
  {
    std::lock_guard lock(mutex_);
    handler = drained_;
  }
  if (handler && *handler) (*handler)();
}

void SlideWindowDriver::frames(unsigned kinds) {
  uint8_t frame[QLT_SW_FRAME_MAX];
  size_t n;
  while ((n = qlt_sw_poll_frame_of(&core_, nowMicros(), kinds, frame, sizeof frame)) > 0)
    write(frame, n);
}

void SlideWindowDriver::pump() {
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
  }
  for (int pass = 0; pass < 4; ++pass) {
    frames(QLT_SW_ALL);
    const uint32_t due = qlt_sw_next_due(&core_, nowMicros());
    if (due == 0) continue;  // a deadline passed while the frames went out
    if (due != QLT_SW_IDLE) arm(due);
    return;
  }
  arm(1);
}

void SlideWindowDriver::schedule() {
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
  }
  const uint32_t due = qlt_sw_next_due(&core_, nowMicros());
  if (due == 0) {
    pump();
  } else if (due != QLT_SW_IDLE) {
    arm(due);
  }
}

void SlideWindowDriver::arm(uint32_t dueMicros) { pacer_->wake(dueMicros * 1e-6); }

void SlideWindowDriver::write(const uint8_t* bytes, size_t length) {
  trace(true, bytes, length);
  if (outputs_.write) outputs_.write(bytes, length);
}

void SlideWindowDriver::trace(bool outgoing, const uint8_t* bytes, size_t length) {
  std::shared_ptr<const FrameTrace> hook;
  {
    std::lock_guard lock(mutex_);
    hook = trace_;
  }
  if (hook && *hook) (*hook)(outgoing, Data(bytes, length));
}

void SlideWindowDriver::setFrameTrace(FrameTrace trace) {
  std::shared_ptr<const FrameTrace> hook;
  if (trace) hook = std::make_shared<const FrameTrace>(std::move(trace));
  std::lock_guard lock(mutex_);
  trace_ = std::move(hook);
}

void SlideWindowDriver::setAllAcknowledgedHandler(std::function<void()> handler) {
  std::shared_ptr<const std::function<void()>> h;
  if (handler) h = std::make_shared<const std::function<void()>>(std::move(handler));
  std::lock_guard lock(mutex_);
  drained_ = std::move(h);
}

void SlideWindowDriver::transfer() {
  strand_->sync([this] { frames(QLT_SW_SEGMENTS); });
}
void SlideWindowDriver::checkControl() {
  strand_->sync([this] { frames(QLT_SW_POLLS); });
}
void SlideWindowDriver::doPendingWork() {
  strand_->sync([this] { frames(QLT_SW_ANSWERS); });
}
void SlideWindowDriver::round() {
  strand_->sync([this] { frames(QLT_SW_ALL); });
}

void SlideWindowDriver::ackReceived(uint64_t count) {
  strand_->sync([this, count] {
    const uint64_t queued = core_.counters.bytes_queued;
    qlt_sw_release(&core_, static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)),
                   nowMicros());
    settle(queued);
  });
}

void SlideWindowDriver::initState() {
  strand_->sync([this] {
    const uint64_t backlog = backlogBytes_;
    backlog_.clear();
    backlogHead_ = 0;
    backlogBytes_ = 0;
    unacknowledged_.fetch_sub(backlog, std::memory_order_acq_rel);
    const uint64_t queued = core_.counters.bytes_queued;
    qlt_sw_reset_send(&core_);
    settle(queued);
  });
}

uint64_t SlideWindowDriver::pendingWork() const {
  return onStrandSync([this] { return static_cast<uint64_t>(qlt_sw_owed(&core_)); });
}
void SlideWindowDriver::setPendingWork(uint64_t bits) {
  strand_->sync([this, bits] { qlt_sw_set_owed(&core_, static_cast<uint8_t>(bits), nowMicros()); });
}

SlideWindowCounters SlideWindowDriver::counters() const {
  return onStrandSync([this] {
    const qlt_sw_counters& k = *qlt_sw_get_counters(&core_);
    SlideWindowCounters c;
    c.framesSent = k.frames_sent;
    c.framesReceived = k.frames_received;
    c.segmentsSent = k.segments_sent;
    c.segmentsResent = k.segments_resent;
    c.pollsSent = k.polls_sent;
    c.acksSent = k.acks_sent;
    c.rejectionsSent = k.rejections_sent;
    c.rejectionsReceived = k.rejections_received;
    c.rejectionsHonoured = k.rejections_honoured;
    c.acksReceived = k.acks_received;
    c.malformedIgnored = k.malformed_ignored;
    c.tcpDelivered = k.tcp_delivered;
    c.udpDelivered = k.udp_delivered;
    c.bytesQueued = k.bytes_queued + backlogBytes_;
    return c;
  });
}

uint64_t SlideWindowDriver::readPos() const {
  return onStrandSync([this] { return static_cast<uint64_t>(qlt_sw_read_pos(&core_)); });
}
uint8_t SlideWindowDriver::ackWindow() const {
  return onStrandSync([this] { return qlt_sw_send_seq(&core_); });
}
uint8_t SlideWindowDriver::remoteAck() const {
  return onStrandSync([this] { return qlt_sw_receive_seq(&core_); });
}
uint8_t SlideWindowDriver::inFlight() const {
  return onStrandSync([this] { return qlt_sw_in_flight(&core_); });
}
size_t SlideWindowDriver::queuedSegments() const {
  return onStrandSync([this] {
    size_t segments = qlt_sw_queued(&core_);
    const size_t s = parameters_.segmentSize;
    for (size_t i = 0; i < backlog_.size(); ++i) {
      const size_t left = backlog_[i].length() - (i == 0 ? backlogHead_ : 0);
      segments += (left + s - 1) / s;
    }
    return segments;
  });
}

}  // namespace qlt
