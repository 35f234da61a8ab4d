#include "protocol/SlideWindowDriver.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <random>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt {

SlideWindowDriver::SlideWindowDriver(SlideWindowParameters parameters, std::shared_ptr<Clock> clock,
                                     std::shared_ptr<DispatchQueue> strand, Outputs outputs)
    : parameters_{std::clamp<size_t>(parameters.segmentSize, 1, QLT_SW_MAX_SEGMENT),
                  parameters.pollTimeout},
      clock_(clock != nullptr ? std::move(clock) : std::shared_ptr<Clock>(Clock::monotonic())),
      strand_(std::move(strand)),
      outputs_(std::move(outputs)) {
  configure(ExtendedWindowSettings{});
}

// (Re)builds the core: the classic window alone, or with the extension in `settings`' role.
// Every buffer the core will use is allocated here, once: nothing on the byte path.
void SlideWindowDriver::configure(const ExtendedWindowSettings& settings) {
  qlt_sw_config cfg{};
  cfg.segment_size = static_cast<uint8_t>(parameters_.segmentSize);
  cfg.poll_timeout_us =
      static_cast<uint32_t>(std::clamp(parameters_.pollTimeout * 1e6, 1.0, 600e6));
  cfg.ack_delay_us = kAckDelayMicros;
  size_t slotCount = kQueueSegments;
  wideStorage_.clear();
  if (settings.enabled) {
    const ExtendedWindowSizing size = ExtendedWindowSizing::of(settings.link);
    cfg.wide_role = settings.role == WindowRole::Central ? QLT_SW_ROLE_CENTRAL : QLT_SW_ROLE_DEVICE;
    cfg.wide_segment = size.segment;
    cfg.wide_send_slots = size.slots;
    cfg.wide_recv_slots = size.slots;
    // The send stream holds the whole send window in the classic slots' bytes.
    const size_t window = size_t{size.slots} * size.segment;
    slotCount =
        std::max(slotCount, (window + parameters_.segmentSize - 1) / parameters_.segmentSize);
    wideStorage_.assign(QLT_SW_WIDE_STORAGE(size.segment, size.slots, size.slots), 0);
    cfg.wide_storage = wideStorage_.data();
    cfg.value_limit = valueLimitOf(settings.link);
    cfg.nonce = randomNonce();
    extendedAckDelayMicros_ =
        static_cast<uint32_t>(ExtendedWindowSizing::ackDelaySeconds(settings.link) * 1e6);
  }
  wideOn_ = settings.enabled;
  ackDelayWidened_ = false;
  slots_.assign(QLT_SW_STORAGE(parameters_.segmentSize, slotCount), 0);
  cfg.slots = slots_.data();
  cfg.slot_count = static_cast<uint16_t>(slotCount);
  qlt_sw_init(&core_, &cfg);
  qlt_sw_set_trace(&core_, &SlideWindowDriver::coreEvent, this);
}

uint16_t SlideWindowDriver::valueLimitOf(const WindowLink& link) {
  return static_cast<uint16_t>(std::clamp<size_t>(
      link.valueLimit > 0 ? link.valueLimit : ExtendedWindowSizing::kDefaultValueLimit,
      ExtendedWindowSizing::kDefaultValueLimit, kFrameCapacity));
}

uint32_t SlideWindowDriver::randomNonce() {
  static std::mutex mutex;
  static std::mt19937 generator{std::random_device{}()};
  std::lock_guard lock(mutex);
  uint32_t nonce = 0;
  while (nonce == 0) nonce = static_cast<uint32_t>(generator());
  return nonce;
}

namespace {
const char* faultName(uint32_t fault) {
  switch (fault) {
    case QLT_SW_FAULT_MALFORMED:
      return "a malformed frame of the extended window";
    case QLT_SW_FAULT_ABSURD:
      return "absurd sizes in the peer's terms (refused)";
    case QLT_SW_FAULT_CLAMPED:
      return "sizes beyond this end's in the peer's terms (clamped)";
    case QLT_SW_FAULT_CONTRADICTORY:
      return "terms that contradict those taken";
    case QLT_SW_FAULT_UNSOLICITED:
      return "a negotiation frame nobody asked for";
    case QLT_SW_FAULT_UNEXPECTED:
      return "an extended frame before the extension was agreed";
    case QLT_SW_FAULT_BAD_ACK:
      return "an acknowledgement outside the window";
    case QLT_SW_FAULT_BAD_SEGMENT:
      return "a segment outside the window offered, empty or too long";
    default:
      return "an unknown fault";
  }
}
}  // namespace

// On the strand (the core calls it from the call that noticed). The core reports each kind
// of fault once per link; every one is counted (counters().windowFaults).
void SlideWindowDriver::coreEvent(void* /*context*/, qlt_sw_event event, uint32_t a, uint32_t b) {
  switch (event) {
    case QLT_SW_EV_WIDE_FAULT:
      QLTLog("Slide window: the peer wrote %@; ignored (logged once per link)",
             std::string(faultName(a)));
      break;
    case QLT_SW_EV_SEND_EXTENDED:
      QLTLog("Slide window: sending in the extended format, segments of %d B, %d in flight",
             static_cast<int>(a), static_cast<int>(b));
      break;
    case QLT_SW_EV_SESSION_RESUMED:
      QLTLog(
          "Slide window: the session resumed (%d bytes of ours acknowledged, %d of the "
          "peer's taken)",
          static_cast<int>(a), static_cast<int>(b));
      break;
    case QLT_SW_EV_SESSION_LOST:
      QLTLog(
          "Slide window: a new session began; %d bytes sent on the last one were never "
          "acknowledged and are dropped (they may or may not have arrived)",
          static_cast<int>(a));
      break;
    default:
      break;
  }
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
    started_ = true;
  }
  strand_->async([self = shared_from_this()] { self->pump(); });
}

void SlideWindowDriver::setExtended(const ExtendedWindowSettings& settings) {
  strand_->sync([&] {
    {
      std::lock_guard lock(mutex_);
      const bool used = started_ || core_.counters.frames_sent > 0 ||
                        core_.counters.frames_received > 0 || core_.counters.bytes_queued > 0 ||
                        backlogBytes_ > 0;
      if (used) {
        QLTLog(
            "Slide window: the extended window is chosen before the window starts; this "
            "link keeps its format");
        return;
      }
      extended_ = settings;
    }
    configure(settings);
  });
}

ExtendedWindowSettings SlideWindowDriver::extended() const {
  std::lock_guard lock(mutex_);
  return extended_;
}

WindowFormat SlideWindowDriver::format() const {
  return onStrandSync([this] { return formatOnStrand(); });
}

WindowFormat SlideWindowDriver::formatOnStrand() const {
  qlt_sw_wide_info info{};
  qlt_sw_get_wide_info(&core_, &info);
  switch (info.state) {
    case QLT_SW_STATE_OFFERING:
    case QLT_SW_STATE_WAITING:
    case QLT_SW_STATE_ANSWERED:
      return WindowFormat::Negotiating;
    case QLT_SW_STATE_EXTENDED:
      return WindowFormat::Extended;
    default:
      return WindowFormat::Classic;
  }
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
  strand_->sync([this, &value] { receiveOnStrand(value); });
}

void SlideWindowDriver::receive(const Data& value, uint64_t link) {
  strand_->sync([this, &value, link] {
    if (link == link_) receiveOnStrand(value);
  });
}

void SlideWindowDriver::receiveOnStrand(const Data& value) {
  if (down_) return;  // the link it came on is gone
  trace(false, value.bytes(), value.length());
  const Snapshot before = snapshot();
  qlt_sw_delivery d{};
  qlt_sw_receive(&core_, value.bytes(), value.length(), nowMicros(), &d);
  settle(before);
  answersWait();  // the acknowledgement delay follows the peer's format
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
  // Segments held behind a gap that this frame filled follow, in order.
  while (qlt_sw_take_delivery(&core_, &d) != 0)
    if (outputs_.deliverTCP) outputs_.deliverTCP(Data(d.payload, d.len));
  schedule();
}

void SlideWindowDriver::linkLost() {
  onStrand([this] { loseOnStrand(); });
}

void SlideWindowDriver::linkLost(uint64_t link) {
  onStrand([this, link] {
    if (link == link_) loseOnStrand();
  });
}

void SlideWindowDriver::loseOnStrand() {
  if (down_) return;
  down_ = true;
  qlt_sw_link_lost(&core_);
  lostAt_ = clock_->now();
  const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::max(holdTime(), 0.0)));
  strand_->asyncAfter(
      delay,
      [weak = weak_from_this(), link = link_] {
        auto self = weak.lock();
        if (self && self->down_ && self->link_ == link) self->forgetOnStrand();
      },
      *clock_);
}

uint64_t SlideWindowDriver::linkUp() {
  return onStrandSync([this] { return linkUpOnStrand(nullptr); });
}

uint64_t SlideWindowDriver::linkUp(const WindowLink& link) {
  return onStrandSync([this, &link] { return linkUpOnStrand(&link); });
}

uint64_t SlideWindowDriver::linkUpOnStrand(const WindowLink* link) {
  if (!down_) qlt_sw_link_lost(&core_);
  // A late timer (a busy host) does not stretch the hold time.
  if (clock_->now() - lostAt_ >= holdTime()) forgetOnStrand();
  const Snapshot before = snapshot();
  qlt_sw_link_up(&core_, randomNonce());
  if (link != nullptr && wideOn_) {
    // The new link's negotiation has not begun (its first round writes the OFFER or
    // waits for one), so the core takes the new value limit: the segments it offers and
    // sends fit it, and a larger one is held to the buffers (the segment configured).
    // Bytes the last link left unacknowledged are cut again from the stream at the size
    // this link negotiates.
    if (qlt_sw_set_value_limit(&core_, valueLimitOf(*link)) != 0)
      QLTLog("Slide window: this link's value limit (%d B) came too late; the last one's stays",
             static_cast<int>(link->valueLimit));
    extendedAckDelayMicros_ =
        static_cast<uint32_t>(ExtendedWindowSizing::ackDelaySeconds(*link) * 1e6);
    std::lock_guard lock(mutex_);
    extended_.link = *link;
  }
  down_ = false;
  ++link_;
  ackDelayWidened_ = false;
  qlt_sw_set_ack_delay(&core_, kAckDelayMicros);
  settle(before);
  schedule();
  return link_;
}

uint64_t SlideWindowDriver::link() const {
  return onStrandSync([this] { return link_; });
}

void SlideWindowDriver::forgetSession() {
  strand_->sync([this] {
    if (down_) forgetOnStrand();
  });
}

void SlideWindowDriver::forgetOnStrand() {
  const Snapshot before = snapshot();
  qlt_sw_forget_session(&core_);
  settle(before);
}

void SlideWindowDriver::setHoldTime(double seconds) {
  std::lock_guard lock(mutex_);
  holdSeconds_ = std::max(seconds, 0.0);
}

double SlideWindowDriver::holdTime() const {
  std::lock_guard lock(mutex_);
  return holdSeconds_;
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

SlideWindowDriver::Snapshot SlideWindowDriver::snapshot() const {
  const qlt_sw_counters& k = core_.counters;
  return {k.bytes_queued, k.bytes_in_doubt, k.sessions_resumed, k.sessions_lost};
}

// What the core released since `before`: the backlog moves up, the session output hears of
// a session resumed or lost, and the handler hears when nothing is left unacknowledged. Bytes
// dropped in doubt leave the count too, but are not acknowledged: they call no handler.
void SlideWindowDriver::settle(const Snapshot& before) {
  const Snapshot now = snapshot();
  const uint64_t doubt = now.inDoubt - before.inDoubt;
  // Counted before they leave unacknowledged() and before the session output hears of
  // them: whoever sees either sees why.
  if (doubt > 0) inDoubt_.fetch_add(doubt, std::memory_order_acq_rel);
  bool drained = false;
  if (now.queued < before.queued) {
    const uint64_t released = before.queued - now.queued;
    feed();
    drained =
        unacknowledged_.fetch_sub(released, std::memory_order_acq_rel) == released && doubt == 0;
  }
  if (outputs_.session) {
    if (now.lost != before.lost) outputs_.session(SessionChange{false, doubt});
    if (now.resumed != before.resumed) outputs_.session(SessionChange{true, 0});
  }
  if (!drained) return;
  std::shared_ptr<const std::function<void()>> handler;
  {
    std::lock_guard lock(mutex_);
    handler = drained_;
  }
  if (handler && *handler) (*handler)();
}

void SlideWindowDriver::frames(unsigned kinds) {
  std::array<uint8_t, kFrameCapacity> frame;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  size_t n;
  const Snapshot before = snapshot();  // a negotiation that times out may end the session
  while ((n = qlt_sw_poll_frame_of(&core_, nowMicros(), kinds, frame.data(), frame.size())) > 0)
    write(frame.data(), n);
  settle(before);
}

void SlideWindowDriver::pump() {
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
  }
  for (int pass = 0; pass < 4; ++pass) {
    if (answersWait()) {
      // An acknowledgement owed waits for its delay even when data goes out: in an echo,
      // every received segment makes a round, and answering in each would cost the link
      // one frame per segment. Due ones (a gap, a poll, the delay over) still leave now.
      frames(QLT_SW_SEGMENTS | QLT_SW_POLLS);
      if (qlt_sw_next_due(&core_, nowMicros()) == 0) frames(QLT_SW_ANSWERS);
    } else {
      frames(QLT_SW_ALL);
    }
    const uint32_t due = qlt_sw_next_due(&core_, nowMicros());
    if (due == 0) continue;  // a deadline passed while the frames went out
    if (due != QLT_SW_IDLE) arm(due);
    return;
  }
  arm(1);
}

bool SlideWindowDriver::answersWait() {
  if (!wideOn_) return false;
  qlt_sw_wide_info info{};
  qlt_sw_get_wide_info(&core_, &info);
  if (info.receive_extended == 0) return false;
  if (!ackDelayWidened_) {
    // The core reads its acknowledgement delay where it is used; the classic one stays for
    // the classic window (a classic peer's timing is not changed).
    qlt_sw_set_ack_delay(&core_, extendedAckDelayMicros_);
    ackDelayWidened_ = true;
  }
  return true;
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
    const Snapshot before = snapshot();
    qlt_sw_release(&core_, static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)),
                   nowMicros());
    settle(before);
  });
}

void SlideWindowDriver::initState() {
  strand_->sync([this] {
    const uint64_t backlog = backlogBytes_;
    backlog_.clear();
    backlogHead_ = 0;
    backlogBytes_ = 0;
    unacknowledged_.fetch_sub(backlog, std::memory_order_acq_rel);
    const Snapshot before = snapshot();
    qlt_sw_reset_send(&core_);
    settle(before);
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
    c.negotiationFramesSent = k.negotiation_frames_sent;
    c.windowFaults = k.wide_faults;
    c.segmentsLost = k.segments_lost;
    c.segmentsHeld = k.segments_held;
    c.segmentsDropped = k.segments_dropped;
    c.sessionsResumed = k.sessions_resumed;
    c.sessionsLost = k.sessions_lost;
    c.bytesInDoubt = k.bytes_in_doubt;
    c.format = formatOnStrand();
    qlt_sw_wide_info info{};
    qlt_sw_get_wide_info(&core_, &info);
    if (info.send_extended == 2) {
      c.extendedSegment = info.send_segment;
      c.extendedWindow = info.send_window;
    }
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
