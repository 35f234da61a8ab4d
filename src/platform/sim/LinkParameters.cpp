#include "QueltLibrary/sim/LinkParameters.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "QueltLibrary/Log.h"

namespace qlt::sim {

std::optional<Phy> phyFromName(const std::string& name) {
  if (name == "1M") return Phy::LE1M;
  if (name == "2M") return Phy::LE2M;
  return std::nullopt;
}

const char* phyName(Phy phy) { return phy == Phy::LE2M ? "2M" : "1M"; }

std::string shortNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

namespace {
std::string outOfRange(const std::string& place, const char* key, double value, const char* range) {
  return formatString("%s.%s: %s is out of range (%s)", place, key, shortNumber(value), range);
}
}  // namespace

std::string LinkParameters::problem(const std::string& place) const {
  if (!std::isfinite(intervalMs) || (intervalMs != 0 && (intervalMs < 7.5 || intervalMs > 4000)))
    return outOfRange(place, "intervalMs", intervalMs, "0 for the instant link, or 7.5 to 4000");
  if (dataLength < 27 || dataLength > 251)
    return outOfRange(place, "dataLength", dataLength, "27 to 251");
  if (mtu < 23 || mtu > 517) return outOfRange(place, "mtu", mtu, "23 to 517");
  if (maxPdusPerEvent > 1000)
    return outOfRange(place, "maxPdusPerEvent", maxPdusPerEvent, "0 for no limit, or 1 to 1000");
  if (!(packetErrorRate >= 0 && packetErrorRate <= 0.9))
    return outOfRange(place, "packetErrorRate", packetErrorRate, "0 to 0.9");
  if (!(supervisionTimeoutMs >= 100 && supervisionTimeoutMs <= 32000))
    return outOfRange(place, "supervisionTimeoutMs", supervisionTimeoutMs, "100 to 32000");
  if (notifyBuffers > 100000)
    return outOfRange(place, "notifyBuffers", notifyBuffers, "0 for no limit, or 1 to 100000");
  return "";
}

std::string LinkParameters::description() const {
  if (instant()) return formatString("instant link (no link layer), MTU %u", mtu);
  std::string text = formatString("%s ms %s, data length %u, MTU %u", shortNumber(intervalMs),
                                  phyName(phy), dataLength, mtu);
  if (maxPdusPerEvent) text += formatString(", %u PDUs per event", maxPdusPerEvent);
  if (packetErrorRate > 0) text += formatString(", PER %s", shortNumber(packetErrorRate));
  if (notifyBuffers) text += formatString(", %u notify buffers", notifyBuffers);
  if (encrypted) text += ", encrypted";
  return text;
}

const std::vector<LinkProfile>& linkProfiles() {
  // Sources: field notes in docs/simulated-radio.md (Profiles).
  static const std::vector<LinkProfile> profiles = {
      {"legacy",
       "a Bluetooth 4.0/4.1 pair: LE 1M, 27-byte PDUs, ATT MTU 23, 30 ms, 6 PDUs per event",
       {.intervalMs = 30, .phy = Phy::LE1M, .dataLength = 27, .mtu = 23, .maxPdusPerEvent = 6}},
      {"linux",
       "a Linux (BlueZ) central at its default 30 ms interval with an nRF52-class device: "
       "LE 1M, 251-byte PDUs, MTU 247",
       {.intervalMs = 30, .phy = Phy::LE1M, .dataLength = 251, .mtu = 247}},
      {"phone",
       "a recent phone with an nRF52-class device: 15 ms, LE 2M, 251-byte PDUs, MTU 185",
       {.intervalMs = 15, .phy = Phy::LE2M, .dataLength = 251, .mtu = 185}},
      {"fastest",
       "the fastest link BLE offers: 7.5 ms, LE 2M, 251-byte PDUs, MTU 247, no event limit",
       {.intervalMs = 7.5, .phy = Phy::LE2M, .dataLength = 251, .mtu = 247}},
  };
  return profiles;
}

const LinkProfile* findLinkProfile(const std::string& name) {
  for (const auto& p : linkProfiles())
    if (name == p.name) return &p;
  return nullptr;
}

double pduAirSeconds(Phy phy, size_t payload, bool encrypted) {
  const size_t preamble = phy == Phy::LE2M ? 2 : 1;
  const size_t mic = encrypted && payload > 0 ? kMicBytes : 0;
  const double secondsPerBit = phy == Phy::LE2M ? 0.5e-6 : 1e-6;
  return static_cast<double>((preamble + kPduOverheadBytes + payload + mic) * 8) * secondsPerBit;
}

double valueAirSeconds(const LinkParameters& link, size_t valueLength) {
  if (link.instant()) return 0;
  const double empty = pduAirSeconds(link.phy, 0, link.encrypted);
  double seconds = 0;
  for (size_t left = sduBytes(valueLength); left > 0;) {
    const size_t n = std::min<size_t>(left, link.dataLength);
    left -= n;
    seconds += pduAirSeconds(link.phy, n, link.encrypted);
    if (left > 0) seconds += kTifsSeconds + empty + kTifsSeconds;
  }
  return seconds;
}

double physicalLimitBps(const LinkParameters& link, size_t valueLength, size_t payloadLength,
                        LinkTraffic traffic, uint64_t bytes) {
  if (link.instant() || valueLength + kAttHeaderBytes > link.mtu) return 0;
  const size_t sdu = sduBytes(valueLength);
  const double interval = link.intervalSeconds();
  const double empty = pduAirSeconds(link.phy, 0, link.encrypted);
  // Pack a stream of SDUs into events until the pattern has repeated often enough: the
  // fragments of one SDU may span two events. 64 events make the rounding negligible.
  constexpr int kEvents = 64;
  size_t left = sdu;  // bytes of the current SDU still to send
  uint64_t sdus = 0;
  for (int e = 0; e < kEvents; ++e) {
    double used = 0;
    for (uint32_t pairs = 0; link.maxPdusPerEvent == 0 || pairs < link.maxPdusPerEvent; ++pairs) {
      const size_t n = std::min<size_t>(left, link.dataLength);
      const double data = pduAirSeconds(link.phy, n, link.encrypted);
      const double back = traffic == LinkTraffic::Echo ? data : empty;
      const double pair = data + kTifsSeconds + back + kTifsSeconds;
      if (used + pair > interval) break;
      used += pair;
      left -= n;
      if (left == 0) {
        ++sdus;
        left = sdu;
      }
    }
  }
  // The SDU under way counts by its share, so the figure is an upper bound.
  const double carried = static_cast<double>(sdus) + static_cast<double>(sdu - left) / sdu;
  const double stream = carried * static_cast<double>(payloadLength) / (kEvents * interval);
  if (bytes == 0 || stream <= 0) return stream;
  const double shortest =
      std::max(static_cast<double>(bytes) / stream - interval, valueAirSeconds(link, valueLength));
  return static_cast<double>(bytes) / shortest;
}

}  // namespace qlt::sim
