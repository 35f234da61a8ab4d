// AirFaults: what goes wrong on the simulated air, seeded so that a run can be repeated.
//
// Every random decision of a link (is this write lost? this notification? does this
// connection attempt fail?) comes from generators seeded with `seed`, the device's
// identifier and the number of its connection, one per direction, so the same seed and
// the same traffic give the same pattern of losses. Nothing is added by default: a radio with
// default faults delivers every packet at once, as fast as the two engines can exchange them.
//
// Thread safety: a plain value type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QueltLibrary/Export.h"

namespace qlt::sim {

struct QLT_EXPORT AirFaults {
  // Seeds every random decision of the links (and the RSSI variation of advertisements).
  uint64_t seed = 1;
  // Probability (0..1) that a write without response is lost, as a phone's stack drops
  // writes that come faster than it can send them. Writes with response are never lost.
  double lostWritesWithoutResponse = 0.0;
  // Probability (0..1) that a notification from the device is lost.
  double lostNotifications = 0.0;
  // Seconds added to every packet in either direction (GATT requests and answers too),
  // as if each waited for the next connection event. Order is kept.
  double connectionInterval = 0.0;
  // The link drops (didDisconnectPeripheral with an error) this long after connecting.
  std::optional<double> dropAfterSeconds;
  // The link drops right after the N-th data packet (writes and notifications, lost ones
  // included) has been carried; nothing after it is.
  std::optional<uint64_t> dropAfterPackets;
  // Probability (0..1) that a connection attempt fails (didFailToConnectPeripheral).
  double connectFailure = 0.0;
  // At most this many writes without response per second leave the central; faster
  // writes wait their turn behind each other (order is kept).
  std::optional<double> writeRateLimit;

  // Whether anything at all is configured to go wrong or to be slow.
  bool any() const;
  // "seed=7 lostWrites=0.05 ...": the non-default fields, for log lines.
  std::string description() const;
};

}  // namespace qlt::sim
