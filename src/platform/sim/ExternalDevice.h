// ExternalDevice: a simulated device whose UART service is served by another process, such as
// the firmware kit's host build or its micro:bit image under QEMU.
//
// Each value the central writes to 6E400002 goes to the process's stdin as one SLIP frame
// (RFC 1055); each SLIP frame it writes to stdout is notified on 6E400003. The process ending
// while a link is up (its exit, a crash, a device that reboots) ends the link as a lost link:
// the central sees a disconnection with an error, never more data.
//
// By default there is one process per link: connected() starts the configured command and
// disconnected() ends it (its stdin is closed, and it is killed if it has not exited a
// moment later), so every link meets a freshly started device.
//
// With keepRunning the process outlives its links, as a chip outlives its connections: it
// starts with the device's first link and runs until the device is removed or the radio ends
// (held in the radio's device state); a process that ended is started again by the next link.
// Every frame then carries a type byte first, both ways: 0x00 a value (written, or to
// notify), 0x01 a link is up, 0x02 it is down. The process hears of each link's start and end
// in order; values written reach it only between them, and values it sends while no link is
// up are dropped and counted (SimDeviceStats::notificationsUnlinked), as a stack refuses to
// notify without a connection. A frame of another type from the process is dropped (logged
// once).
//
// Threads: the DeviceBehaviour calls arrive on the link's device queue and never block on the
// process (a write only queues bytes; starting a process makes a thread). One I/O thread per
// process, owned and joined, moves the bytes both ways, sleeping in poll() while nothing
// moves: no busy loop, no wake-up while idle.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "DeviceBehaviour.h"

namespace qlt::sim {

std::shared_ptr<DeviceBehaviour> makeExternalDevice(const SimDeviceConfig& config,
                                                    const std::shared_ptr<SimLink>& link);

}  // namespace qlt::sim
