// LinkParameters: what a simulated BLE connection is made of below GATT: its connection
// interval, PHY, link-layer data length, ATT MTU, the controller's per-event limit, the
// packet error rate on the air, the supervision timeout and the device's notification
// buffers. One value per link, resolved from the radio's default, a device's own and the
// tool's options (SimLink::parameters() answers what a live link uses).
//
// An interval of 0 is the instant link: no link-layer model, every packet handed over at
// once (plus whatever AirFaults add). Any other interval (7.5 ms to 4 s) runs the link-layer
// model described in docs/simulated-radio.md.
//
// The air-time arithmetic lives here, once: pduAirSeconds() for one data PDU and
// physicalLimitBps() for the most application bytes a second a link can carry. Sources:
// Bluetooth Core v5.3, Vol 6, Part B, 2.1 (packet format: preamble 1 octet on
// LE 1M, 2 on LE 2M; access address 4; CRC 3), 2.4 (data PDU: 2-octet header, payload 0 to
// 251, 4-octet MIC when encrypted), 4.1.1 (T_IFS = 150 µs), 4.5.1 (connection interval
// 7.5 ms to 4 s), 4.5.2 (supervision timeout 100 ms to 32 s), 4.6.6 (data length 27 to 251);
// Vol 3, Part A, 3.1 (4-octet L2CAP basic header), Part F, 3.2.8 (ATT_MTU ≥ 23) and 3.4.7
// (a notification or write command carries opcode + handle, 3 octets, and at most
// ATT_MTU - 3 octets of value).
//
// Thread safety: plain value types and pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/Export.h"

namespace qlt::sim {

enum class Phy { LE1M, LE2M };

// "1M" / "2M"; nullopt for any other text.
QLT_EXPORT std::optional<Phy> phyFromName(const std::string& name);
QLT_EXPORT const char* phyName(Phy phy);

struct QLT_EXPORT LinkParameters {
  // Connection interval in ms: 0 (the instant link) or 7.5 to 4000.
  double intervalMs = 0;
  Phy phy = Phy::LE1M;
  // Largest link-layer payload of a data PDU, both sides' smaller value: 27 to 251.
  uint32_t dataLength = 251;
  // ATT MTU the central offers, 23 to 517; a link uses the smaller of this and the
  // device's own (SimDeviceConfig::mtu).
  uint32_t mtu = 517;
  // PDUs each side sends at most per connection event, the controller's limit; 0: none.
  uint32_t maxPdusPerEvent = 0;
  // Probability (0 to 0.9) that one PDU is lost on the air; the link layer sends it again.
  double packetErrorRate = 0;
  // The link is lost when no PDU gets through for this long: 100 to 32000 ms.
  double supervisionTimeoutMs = 4000;
  // Notifications the device's stack holds until the air has carried them; one more is
  // refused and dropped, as a firmware that ignores the stack's error does. 0: no limit.
  uint32_t notifyBuffers = 0;
  // Encrypted links carry a 4-octet MIC in every non-empty PDU.
  bool encrypted = false;

  bool instant() const { return intervalMs == 0; }
  double intervalSeconds() const { return intervalMs / 1000.0; }
  // "" when every field is within its range, else the first that is not, naming `place`
  // and the allowed range: "link.intervalMs: 5 is out of range (0, or 7.5 to 4000)".
  std::string problem(const std::string& place = "link") const;
  // "7.5 ms 2M, data length 251, MTU 247, ...", for log lines and reports.
  std::string description() const;
};

// "7.5", "0.1", "4000": a number as short as it reads (printf's %g).
QLT_EXPORT std::string shortNumber(double value);

// A named combination that real hardware has (docs/simulated-radio.md lists them).
struct LinkProfile {
  const char* name;
  const char* summary;
  LinkParameters parameters;
};
QLT_EXPORT const std::vector<LinkProfile>& linkProfiles();
QLT_EXPORT const LinkProfile* findLinkProfile(const std::string& name);
// The profile qlt demo and qlt bench use unless told otherwise.
inline constexpr const char* kDefaultLinkProfile = "phone";

// Link-layer constants.
inline constexpr double kTifsSeconds = 150e-6;  // inter-frame space
inline constexpr size_t kL2capHeaderBytes = 4;  // basic L2CAP header
inline constexpr size_t kAttHeaderBytes = 3;    // opcode + attribute handle
inline constexpr size_t kPduOverheadBytes = 9;  // access address 4 + header 2 + CRC 3
inline constexpr size_t kMicBytes = 4;

// Air time of one data PDU with `payload` link-layer payload bytes (0: an empty PDU).
QLT_EXPORT double pduAirSeconds(Phy phy, size_t payload, bool encrypted = false);
// Bytes on the link layer for one ATT value (L2CAP SDU): value + 3 + 4.
inline size_t sduBytes(size_t valueLength) {
  return valueLength + kAttHeaderBytes + kL2capHeaderBytes;
}

// The shortest time a value of `valueLength` bytes takes to cross a link whose event is
// under way: a pair for each PDU but the last (PDU, T_IFS, the empty answer, T_IFS), then
// the last PDU. 0 for the instant link.
QLT_EXPORT double valueAirSeconds(const LinkParameters& link, size_t valueLength);

// Which way the application's data goes.
enum class LinkTraffic {
  OneWay,  // one side sends values, the other sends empty PDUs back
  Echo,    // every value comes back: both sides send one in every pair
};

// The most application bytes per second the link can carry, for values of `valueLength`
// bytes each carrying `payloadLength` application bytes (the sliding window: 121 and 120;
// the chunker: 20 and 20). Air errors only lower it (packetErrorRate is not counted).
//
//   SDU   = valueLength + 7, cut into PDUs of at most dataLength
//   pair  = air(PDU one way) + T_IFS + air(PDU or empty back) + T_IFS
//   an event holds the pairs that end before the next anchor (at most maxPdusPerEvent)
//   limit = payloadLength × SDUs carried per event / interval
//
// computed by packing a stream of SDUs into connection events (fragments continue in the
// next event). An echo counts each byte once: the pairs carry it both ways at once. For a
// transfer of `bytes` (0: an endless stream), which may start just before an anchor and
// end early in its last event, the limit allows it one interval less than the stream's
// rate would take:
//
//   limit(bytes) = bytes / max(bytes / limit − interval, one value's air time)
//
// 0 for the instant link (no limit) or a value that does not fit the MTU.
QLT_EXPORT double physicalLimitBps(const LinkParameters& link, size_t valueLength,
                                   size_t payloadLength, LinkTraffic traffic, uint64_t bytes = 0);

}  // namespace qlt::sim
