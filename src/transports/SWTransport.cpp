#include "QueltLibrary/SWTransport.h"

#include "protocol/SlideWindowEngine.h"

namespace qlt {

// Frames go to writeRequest (and so to the sender delegate); payloads to the delegates.
class SWTransport::Face final : public SlideWindowEngine::Face {
 public:
  explicit Face(SWTransport& owner) : owner_(owner) {}
  void writeFrame(const uint8_t* bytes, size_t length) override {
    owner_.writeRequest(bytes, length);
  }
  void deliverTCP(const Data& payload) override {
    owner_.multicastDelegate()->invoke(&TransportDelegate::transport_tcpDataReceived,
                                       owner_.sharedTransport(), payload);
  }
  void deliverUDP(const Data& payload) override {
    owner_.multicastDelegate()->invoke(&TransportDelegate::transport_udpDataReceived,
                                       owner_.sharedTransport(), payload);
  }

 private:
  SWTransport& owner_;
};

SWTransport::SWTransport(std::shared_ptr<Clock> clock)
    : BaseTransport("SWTransport"),
      face_(std::make_unique<Face>(*this)),
      engine_(std::make_unique<SlideWindowEngine>(
          *face_, SlideWindowParameters{kSegmentSize, kPollTimeout}, std::move(clock))) {
  engine_->setWakeup([this](double delay) { wakeRounds(delay); });
}

SWTransport::~SWTransport() = default;

std::shared_ptr<SWTransport> SWTransport::create(std::shared_ptr<Clock> clock) {
  if (!clock) clock = Clock::monotonic();
  return std::shared_ptr<SWTransport>(new SWTransport(std::move(clock)));
}

void SWTransport::sendTCP(const uint8_t* bytes, uint64_t length) {
  engine_->sendTCP(bytes, length);
  if (length > 0 && bytes != nullptr) noteAccepted();
}
void SWTransport::sendUDP(const uint8_t* bytes, uint64_t length) {
  engine_->sendUDP(bytes, length);
}
void SWTransport::receive(const Data& value) {
  engine_->receive(value);
  noteReleased();  // an acknowledgement may have released the last segment
}

void SWTransport::run(const std::shared_ptr<ThreadBase>& thread) {
  while (!thread || !thread->isClosing()) engine_->round();
}

double SWTransport::round() {
  engine_->round();
  return engine_->untilNextRound();
}

void SWTransport::initState() {
  engine_->initState();
  noteReleased();
}
void SWTransport::ackReceived(uint64_t count) {
  engine_->ackReceived(count);
  noteReleased();
}
uint64_t SWTransport::unacknowledged() const { return engine_->counters().bytesQueued; }
void SWTransport::transfer() { engine_->transfer(); }
void SWTransport::checkControl() { engine_->checkControl(); }
void SWTransport::doPendingWork() { engine_->doPendingWork(); }
uint64_t SWTransport::pendingWork() const { return engine_->pendingWork(); }
void SWTransport::setPendingWork(uint64_t bits) { engine_->setPendingWork(bits); }
SlideWindowCounters SWTransport::counters() const { return engine_->counters(); }
void SWTransport::setFrameTrace(FrameTrace trace) { engine_->setFrameTrace(std::move(trace)); }
uint64_t SWTransport::readPos() const { return engine_->readPos(); }
uint8_t SWTransport::ackWindow() const { return engine_->ackWindow(); }
uint8_t SWTransport::remoteAck() const { return engine_->remoteAck(); }
size_t SWTransport::queuedSegments() const { return engine_->queuedSegments(); }
uint8_t SWTransport::inFlight() const { return engine_->inFlight(); }

}  // namespace qlt
