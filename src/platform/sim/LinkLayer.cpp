#include "LinkLayer.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qlt::sim {

LinkLayer::LinkLayer(const LinkParameters& parameters, uint64_t seed)
    : p_(parameters),
      interval_(parameters.intervalSeconds()),
      timeout_(parameters.supervisionTimeoutMs / 1000.0),
      rng_(seed) {}

void LinkLayer::send(Side from, size_t valueLength, double now) {
  // Pairs that started before `now` were settled without this value.
  while (step(now)) {}
  queue_[from].push_back(sduBytes(valueLength));
}

bool LinkLayer::hasRoom(Side side, size_t buffers, double now) {
  while (step(now)) {}
  size_t held = queue_[side].size();
  for (const auto& d : ready_) held += d.from == side && d.at > now ? 1 : 0;
  return held < buffers;
}

void LinkLayer::silence(double now) {
  while (step(now)) {}
  if (!silencedAt_) silencedAt_ = now;
}

std::vector<LinkLayer::Delivery> LinkLayer::advance(double now) {
  while (step(now)) {}
  std::vector<Delivery> due;
  while (!ready_.empty() && ready_.front().at <= now) {
    due.push_back(ready_.front());
    ready_.pop_front();
  }
  return due;
}

std::optional<double> LinkLayer::nextEvent() const {
  if (!ready_.empty()) return ready_.front().at;
  if (lost_) return std::nullopt;
  if (idle() && !silencedAt_) return std::nullopt;
  LinkLayer ahead = *this;
  constexpr double kForever = std::numeric_limits<double>::infinity();
  while (ahead.ready_.empty() && !ahead.lost_ && ahead.step(kForever)) {}
  if (!ahead.ready_.empty()) return ahead.ready_.front().at;
  return ahead.lost_;
}

bool LinkLayer::lostOnAir(double at) {
  // Always drawn, so a silence does not shift the stream of later draws.
  const bool error = p_.packetErrorRate > 0 && unit_(rng_) < p_.packetErrorRate;
  return error || (silencedAt_ && at >= *silencedAt_);
}

void LinkLayer::checkSupervision(double at) {
  if (!lost_ && at - lastHeard_ > timeout_) lost_ = lastHeard_ + timeout_;
}

double LinkLayer::transmit(Side side, size_t bytes, double start) {
  const double end = start + pduAirSeconds(p_.phy, bytes, p_.encrypted);
  if (bytes > 0) ++counts_.dataPdus;
  if (lostOnAir(start)) {
    if (bytes > 0) ++counts_.repeatedPdus;
    return end;  // sent again in the next pair
  }
  lastHeard_ = end;
  if (bytes > 0) {
    queue_[side].front() -= bytes;
    if (queue_[side].front() == 0) {
      queue_[side].pop_front();
      ready_.push_back({side, end});
    }
  }
  return end;
}

bool LinkLayer::step(double now) {
  if (lost_) return false;
  if (!inEvent_) {
    if (anchor_ > now) return false;
    if (idle() && p_.packetErrorRate == 0 && !silencedAt_) {
      // Every event up to `now` is one exchange of empty PDUs that gets through.
      const double skipped = std::floor((now - anchor_) / interval_);
      const double last = anchor_ + skipped * interval_;
      lastHeard_ = last + 2 * pduAirSeconds(p_.phy, 0) + kTifsSeconds;
      anchor_ = last + interval_;
      return true;
    }
    inEvent_ = true;
    carried_ = false;
    cursor_ = anchor_;
    pairs_ = 0;
  }
  if (cursor_ > now) return false;
  checkSupervision(cursor_);
  if (lost_) return false;
  const bool central = !queue_[Central].empty();
  const bool peripheral = !queue_[Peripheral].empty();
  const size_t nc = central ? std::min<size_t>(queue_[Central].front(), p_.dataLength) : 0;
  const size_t np = peripheral ? std::min<size_t>(queue_[Peripheral].front(), p_.dataLength) : 0;
  const double pair = pduAirSeconds(p_.phy, nc, p_.encrypted) + kTifsSeconds +
                      pduAirSeconds(p_.phy, np, p_.encrypted) + kTifsSeconds;
  const bool closes = (pairs_ > 0 && !central && !peripheral) ||
                      (p_.maxPdusPerEvent > 0 && pairs_ >= p_.maxPdusPerEvent) ||
                      (pairs_ > 0 && cursor_ + pair > anchor_ + interval_);
  if (closes) {
    inEvent_ = false;
    if (carried_) ++counts_.events;
    anchor_ += interval_;
    return true;
  }
  carried_ = carried_ || central || peripheral;
  const double centralEnd = transmit(Central, nc, cursor_);
  const double peripheralEnd = transmit(Peripheral, np, centralEnd + kTifsSeconds);
  cursor_ = peripheralEnd + kTifsSeconds;
  ++pairs_;
  if (queue_[Central].empty() && queue_[Peripheral].empty()) {
    // Neither side set More Data: the event ends with this pair. What a host queues from now
    // on (a device's answer to what just arrived, say) waits for the next anchor.
    inEvent_ = false;
    ++counts_.events;
    anchor_ += interval_;
  }
  return true;
}

}  // namespace qlt::sim
