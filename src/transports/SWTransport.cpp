#include "QueltLibrary/SWTransport.h"

#include "protocol/SlideWindowDriver.h"

namespace qlt {

SWTransport::SWTransport() : BaseTransport("SWTransport") {}

SWTransport::~SWTransport() = default;

std::shared_ptr<SWTransport> SWTransport::create(std::shared_ptr<Clock> clock) {
  auto transport = std::shared_ptr<SWTransport>(new SWTransport());
  std::weak_ptr<SWTransport> weak = transport;
  auto deliver = [weak](auto callback) {
    return [weak, callback](const Data& payload) {
      if (auto self = weak.lock())
        self->multicastDelegate()->invoke(callback, self->sharedTransport(), payload);
    };
  };
  transport->driver_ = SlideWindowDriver::create(
      {kSegmentSize, kPollTimeout}, std::move(clock), DispatchQueue::create("SWTransport.link"),
      {.write =
           [weak](const uint8_t* bytes, size_t length) {
             if (auto self = weak.lock()) self->writeRequest(bytes, length);
           },
       .deliverTCP = deliver(&TransportDelegate::transport_tcpDataReceived),
       .deliverUDP = deliver(&TransportDelegate::transport_udpDataReceived),
       .session =
           [weak](const SessionChange& change) {
             if (auto self = weak.lock())
               self->multicastDelegate()->invoke(
                   &TransportSessionDelegate::transport_sessionChanged, self->sharedTransport(),
                   change);
           }});
  transport->driver_->setAllAcknowledgedHandler([weak] {
    if (auto self = weak.lock()) self->notifyAllAcknowledged();
  });
  return transport;
}

void SWTransport::start() { driver_->start(); }
void SWTransport::stop() { driver_->stop(); }
void SWTransport::sendTCP(const uint8_t* bytes, uint64_t length) {
  driver_->sendTCP(bytes, length);
}
void SWTransport::sendUDP(const uint8_t* bytes, uint64_t length) {
  driver_->sendUDP(bytes, length);
}
void SWTransport::receive(const Data& value) { driver_->receive(value); }
void SWTransport::receive(const Data& value, uint64_t link) { driver_->receive(value, link); }
uint64_t SWTransport::unacknowledged() const { return driver_->unacknowledged(); }
uint64_t SWTransport::bytesInDoubt() const { return driver_->bytesInDoubt(); }
void SWTransport::setFrameTrace(FrameTrace trace) { driver_->setFrameTrace(std::move(trace)); }

void SWTransport::run(const std::shared_ptr<ThreadBase>& thread) {
  while (!thread || !thread->isClosing()) driver_->round();
}

}  // namespace qlt
