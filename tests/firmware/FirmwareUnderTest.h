// The kit's example device as the tests run it: the host build and, when QEMU and the
// Cortex-M0 build are there, the micro:bit image; each started per link or kept running.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::firmware {

struct Firmware {
  std::string name;
  std::vector<std::string> command;         // the echo device
  std::vector<std::string> restartCommand;  // one that restarts after 20,000 bytes received
  bool keepRunning = false;                 // one run across links, link events on the line
  size_t resumedTransfer = 0;               // bytes for a transfer of about 10 s
};

inline void PrintTo(const Firmware& firmware, std::ostream* os) { *os << firmware.name; }

#ifdef QLT_FW_MICROBIT
inline std::vector<std::string> qemu(const std::string& image) {
  std::istringstream words(
      "-M microbit -nodefaults -display none -monitor none -no-reboot "
      "-chardev stdio,id=uart,signal=off -serial chardev:uart -kernel");
  std::vector<std::string> command{QLT_QEMU_SYSTEM_ARM};
  for (std::string w; words >> w;) command.push_back(w);
  command.push_back(image);
  return command;
}
#endif

inline std::vector<Firmware> firmwares() {
  const char* events = "--link-events";
  std::vector<Firmware> list{
      {"Host", {QLT_FW_HOST_ECHO}, {QLT_FW_HOST_ECHO, "--restart-after", "20000"}},
      {"HostKeptRunning",
       {QLT_FW_HOST_ECHO, events},
       {QLT_FW_HOST_ECHO, events, "--restart-after", "20000"},
       true,
       size_t{1} << 20}};
#ifdef QLT_FW_MICROBIT
  list.push_back({"Chip", qemu(QLT_FW_MICROBIT), qemu(QLT_FW_MICROBIT_RESTART)});
  list.push_back({"ChipKeptRunning", qemu(QLT_FW_MICROBIT_EVENTS),
                  qemu(QLT_FW_MICROBIT_EVENTS_RESTART), true, size_t{512} << 10});
#endif
  return list;
}

inline sim::SimDeviceConfig device(const std::vector<std::string>& command,
                                   bool keepRunning = false) {
  sim::SimDeviceConfig d;
  d.identifier = *UUID::fromString("51D0E001-0000-4000-8000-0000000000F1");
  d.localName = "QLT-FW";
  d.behaviour = sim::SimBehaviour::External;
  d.command = command;
  d.keepRunning = keepRunning;
  return d;
}

}  // namespace qlt::firmware
