#include "QueltLibrary/SlideWindowFace.h"

#include "protocol/SlideWindowDriver.h"

namespace qlt {

const char* toString(WindowFormat format) {
  switch (format) {
    case WindowFormat::Negotiating:
      return "negotiating";
    case WindowFormat::Extended:
      return "extended";
    case WindowFormat::Classic:
      break;
  }
  return "classic";
}

SlideWindowFace::SlideWindowFace() = default;
SlideWindowFace::~SlideWindowFace() {
  if (driver_) driver_->stop();
}

void SlideWindowFace::setExtendedWindow(bool enabled, WindowLink link) {
  driver_->setExtended({.enabled = enabled, .role = WindowRole::Central, .link = link});
}
bool SlideWindowFace::extendedWindow() const { return driver_->extended().enabled; }
WindowFormat SlideWindowFace::windowFormat() const { return driver_->format(); }

void SlideWindowFace::linkLost(uint64_t link) { driver_->linkLost(link); }
uint64_t SlideWindowFace::linkUp() { return driver_->linkUp(); }
uint64_t SlideWindowFace::linkUp(const WindowLink& link) { return driver_->linkUp(link); }
uint64_t SlideWindowFace::link() const { return driver_->link(); }
void SlideWindowFace::forgetSession() { driver_->forgetSession(); }
void SlideWindowFace::setSessionHoldTime(double seconds) { driver_->setHoldTime(seconds); }
double SlideWindowFace::sessionHoldTime() const { return driver_->holdTime(); }

void SlideWindowFace::initState() { driver_->initState(); }
void SlideWindowFace::ackReceived(uint64_t count) { driver_->ackReceived(count); }
void SlideWindowFace::transfer() { driver_->transfer(); }
void SlideWindowFace::checkControl() { driver_->checkControl(); }
void SlideWindowFace::doPendingWork() { driver_->doPendingWork(); }
uint64_t SlideWindowFace::pendingWork() const { return driver_->pendingWork(); }
void SlideWindowFace::setPendingWork(uint64_t bits) { driver_->setPendingWork(bits); }
SlideWindowCounters SlideWindowFace::counters() const { return driver_->counters(); }
uint64_t SlideWindowFace::readPos() const { return driver_->readPos(); }
uint8_t SlideWindowFace::ackWindow() const { return driver_->ackWindow(); }
uint8_t SlideWindowFace::remoteAck() const { return driver_->remoteAck(); }
size_t SlideWindowFace::queuedSegments() const { return driver_->queuedSegments(); }
uint8_t SlideWindowFace::inFlight() const { return driver_->inFlight(); }

}  // namespace qlt
