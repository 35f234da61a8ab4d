// LinkLayer: the link layer of one simulated connection, shared by both directions and
// computed rather than clocked.
//
// Connection events start every interval, the first at time 0. In an event the central
// and the peripheral alternate PDUs in pairs (central PDU, T_IFS, peripheral PDU, T_IFS);
// a side with nothing to send sends an empty PDU. The event goes on while either side has
// data, the next pair ends before the next anchor and neither side has reached the
// per-event limit (maxPdusPerEvent). After a pair in which neither side had more data (both
// More Data bits clear) the event ends at once, so a value queued in answer to what that
// pair carried goes in the next event, as on a real controller. Each ATT value travels as one L2CAP
// SDU (value + 3 + 4 bytes) cut into PDUs of at most dataLength bytes, and arrives when its last
// PDU ends. Every PDU is lost with probability packetErrorRate (seeded) and then sent again in the
// next pair: an error costs air time, never data. When no PDU gets through for the
// supervision timeout, the link is lost at that time.
//
// Nothing ticks: the owner asks advance(now) what arrived by `now`, and nextEvent() when
// the next value will arrive (or the link be lost) if nothing more is sent; an idle link
// needs no wake-up (idle events with no errors to draw are skipped arithmetically).
// Sources: docs/simulated-radio.md (the sections of Bluetooth Core v5.3 it follows).
//
// Not thread-safe: one owner drives it (SimLink, under its lock).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <vector>

#include "QueltLibrary/sim/LinkParameters.h"

namespace qlt::sim {

class LinkLayer {
 public:
  enum Side : uint8_t { Central = 0, Peripheral = 1 };
  struct Delivery {
    Side from;
    double at;  // when the value's last PDU ended
  };
  struct Counts {
    uint64_t events = 0;        // connection events that carried data
    uint64_t dataPdus = 0;      // non-empty PDUs sent, repeats included
    uint64_t repeatedPdus = 0;  // of those, lost on the air and sent again
  };

  LinkLayer(const LinkParameters& parameters, uint64_t seed);

  // Queues a value of `valueLength` bytes from `from` at time `now`; calls must come with
  // non-decreasing times.
  void send(Side from, size_t valueLength, double now);
  // Whether `side` has fewer than `buffers` values on their way at `now` (a stack holds a
  // value in a buffer until the air has carried it).
  bool hasRoom(Side side, size_t buffers, double now);
  // The values that arrived by `now`, in the order they arrived (each side's in the
  // order sent).
  std::vector<Delivery> advance(double now);
  // When the next value arrives or the link is lost, if nothing more is sent; nullopt
  // when the link is idle.
  std::optional<double> nextEvent() const;
  // From `now` on nothing gets through (out of range): the supervision timeout follows.
  void silence(double now);
  // When the supervision timeout ended the link (once advance has passed it).
  std::optional<double> lostAt() const { return lost_; }
  const Counts& counts() const { return counts_; }
  const LinkParameters& parameters() const { return p_; }

 private:
  bool idle() const { return queue_[0].empty() && queue_[1].empty(); }
  // One step of the air (an event opened or closed, idle events skipped, or one pair);
  // false when the next step starts after `now`.
  bool step(double now);
  // Sends the front PDU of `side` (or an empty one) starting at `start`; returns its end.
  double transmit(Side side, size_t bytes, double start);
  bool lostOnAir(double at);
  void checkSupervision(double at);

  LinkParameters p_;
  double interval_;
  double timeout_;
  std::mt19937_64 rng_;
  std::uniform_real_distribution<double> unit_{0.0, 1.0};
  std::deque<size_t> queue_[2];  // bytes still to send of each queued SDU
  std::deque<Delivery> ready_;   // arrived, handed out by advance once due
  double anchor_ = 0;            // start of the current (or next) event
  bool inEvent_ = false;
  bool carried_ = false;  // the current event carried data
  double cursor_ = 0;     // start of the next pair in the current event
  uint32_t pairs_ = 0;    // pairs so far in the current event
  double lastHeard_ = 0;  // end of the last PDU that got through
  std::optional<double> silencedAt_;
  std::optional<double> lost_;
  Counts counts_;
};

}  // namespace qlt::sim
