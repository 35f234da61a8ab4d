// ExternalDevice: a simulated device whose UART service is served by another process, such as
// the firmware kit's host build or its micro:bit image under QEMU.
//
// One process per link: connected() starts the configured command with pipes on its stdin and
// stdout. Each value the central writes to 6E400002 goes to its stdin as one SLIP frame
// (RFC 1055); each SLIP frame it writes to stdout is notified on 6E400003. The process ending
// while the link is up (its exit, a crash, a device that reboots) ends the link as a lost link:
// the central sees a disconnection with an error, never more data. disconnected() ends it:
// its stdin is closed, and it is killed if it has not exited a moment later.
//
// Threads: the DeviceBehaviour calls arrive on the link's device queue and never block on the
// process (a write only queues bytes). One I/O thread per link, owned and joined, moves the
// bytes both ways, sleeping in poll() while nothing moves: no busy loop, no wake-up while idle.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "DeviceBehaviour.h"

namespace qlt::sim {

std::shared_ptr<DeviceBehaviour> makeExternalDevice(const SimDeviceConfig& config,
                                                    const std::shared_ptr<SimLink>& link);

}  // namespace qlt::sim
