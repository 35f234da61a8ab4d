// The link options of demo and bench, and how they shape the simulated radio's link.

#include <CLI/CLI.hpp>

#include "Errors.h"
#include "Numbers.h"
#include "Session.h"

namespace qlt::cli {

void addLinkOptions(CLI::App& command, LinkOptions& o) {
  std::vector<std::string> names;
  std::string list;
  for (const auto& p : sim::linkProfiles()) {
    names.emplace_back(p.name);
    list += std::string("\n  ") + p.name + ": " + p.summary;
  }
  command
      .add_option("--profile", o.profile,
                  "Named link of real hardware (default " + std::string(sim::kDefaultLinkProfile) +
                      " unless --sim-config describes one):" + list)
      ->check(CLI::IsMember(names))
      ->group("Simulated link");
  addNumberOption(command, "--interval-ms", o.intervalMs,
                  "Connection interval in ms: 7.5 to 4000, or 0 for the instant link (no link "
                  "layer: every packet handed over at once)",
                  0, 4000, "a number of ms")
      ->group("Simulated link");
  command.add_option("--phy", o.phy, "PHY: 1M or 2M")
      ->check(CLI::IsMember({"1M", "2M"}))
      ->group("Simulated link");
  addCountOption(command, "--data-length", o.dataLength,
                 "Link-layer data length: bytes a PDU carries at most", 27, 251)
      ->group("Simulated link");
  addCountOption(command, "--mtu", o.mtu, "ATT MTU of the link (both sides)", 23, 517)
      ->group("Simulated link");
  addCountOption(command, "--max-pdus-per-event", o.maxPdusPerEvent,
                 "PDUs each side sends at most per connection event (0: no limit)", 0, 1000)
      ->group("Simulated link");
  addNumberOption(command, "--per", o.per,
                  "Packet error rate on the air: PDUs lost and sent again (costs time, never data)",
                  0, 0.9, "a fraction")
      ->group("Simulated link");
}

void applyLinkOptions(const LinkOptions& o, SimLinkSettings& s) {
  s.defaultProfile = true;
  if (!o.profile.empty()) s.profile = o.profile;
  if (o.intervalMs >= 0) s.intervalMs = o.intervalMs;
  if (!o.phy.empty()) s.phy = sim::phyFromName(o.phy);
  if (o.dataLength >= 0) s.dataLength = static_cast<uint32_t>(o.dataLength);
  if (o.mtu >= 0) s.mtu = static_cast<uint32_t>(o.mtu);
  if (o.maxPdusPerEvent >= 0) s.maxPdusPerEvent = static_cast<uint32_t>(o.maxPdusPerEvent);
  if (o.per >= 0) s.packetErrorRate = o.per;
}

sim::LinkParameters resolveLink(const SimLinkSettings& s, sim::LinkParameters link) {
  if (s.profile) {
    const auto* profile = sim::findLinkProfile(*s.profile);
    if (!profile) throw UsageError("--profile: unknown profile '" + *s.profile + "'");
    link = profile->parameters;
  }
  if (s.intervalMs) link.intervalMs = *s.intervalMs;
  if (s.phy) link.phy = *s.phy;
  if (s.dataLength) link.dataLength = *s.dataLength;
  if (s.mtu) link.mtu = *s.mtu;
  if (s.maxPdusPerEvent) link.maxPdusPerEvent = *s.maxPdusPerEvent;
  if (s.packetErrorRate) link.packetErrorRate = *s.packetErrorRate;
  // The options check their own ranges; what is left is the interval's gap (0, 7.5).
  std::string problem = link.problem("link");
  if (!problem.empty()) {
    const std::pair<const char*, const char*> kOptions[] = {
        {"link.intervalMs", "--interval-ms"},
        {"link.dataLength", "--data-length"},
        {"link.maxPdusPerEvent", "--max-pdus-per-event"},
        {"link.packetErrorRate", "--per"},
        {"link.mtu", "--mtu"}};
    for (const auto& [key, option] : kOptions) {
      if (problem.rfind(key, 0) == 0) problem = option + problem.substr(std::string(key).size());
    }
    throw UsageError(problem);
  }
  return link;
}

}  // namespace qlt::cli
