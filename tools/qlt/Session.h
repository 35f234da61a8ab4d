// The tool's use of the library: one Session per command run (the radio, the manager, the
// known-device store), and one Connection per connected device.
//
// Everything here goes through QueltLibrary's public headers only, in the order an
// application follows: take the manager, wait for power, scan with a filter, find and
// connect a device through LinkOpener (the library's one way from a name to a ready
// peripheral, UartLink's too), write, receive callbacks, disconnect.
//
// Threads: library callbacks reach the tool on one serial queue of its own ("qlt"); they
// update state guarded by a Waiter, and the command's thread waits on that. Callbacks
// given in ConnectionEvents and to scan() run on that queue, one at a time, in order.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "Stats.h"

namespace qlt {
class QLT_Peripheral;
class DispatchQueue;
}  // namespace qlt

namespace qlt::cli {

// One device as scan shows it.
struct DeviceInfo {
  std::string identifier;  // upper-case UUID text
  std::string address;     // "C0:FF:EE:00:00:01", "" when the platform does not know it
  std::string name;        // advertised name ("" when none)
  int rssi = 0;
  bool nus = false;                           // advertises the Nordic UART Service
  platform::AdvertisementData advertisement;  // the latest
};

// Which advertisements a scan keeps; every condition set must hold.
struct ScanFilter {
  std::string nameContains;              // in the advertised name, any case
  bool nusOnly = false;                  // advertises the UART service
  std::optional<uint16_t> manufacturer;  // carries manufacturer data of this company
  std::optional<UUID> service;           // lists this service UUID or carries its data
};

// Whether `text` is meant as a Bluetooth address (hexadecimal digits and ':', at least one
// ':'), so that a malformed one is reported as such rather than looked for as a name.
bool looksLikeAddress(const std::string& text);

// Link settings a command may put on the simulated radio (over --sim-config).
struct SimLinkSettings {
  // Fraction of data packets dropped above the link layer (both directions), 0..1.
  std::optional<double> loss;
  // The link layer: a named profile (sim::linkProfiles()), then single fields over it.
  std::optional<std::string> profile;
  std::optional<double> intervalMs;  // 0: the instant link
  std::optional<sim::Phy> phy;
  std::optional<uint32_t> dataLength, mtu, maxPdusPerEvent;
  std::optional<double> packetErrorRate;
  // Without --sim-config and without a profile, start from sim::kDefaultLinkProfile
  // (otherwise from the radio's link: the config's, or the instant link).
  bool defaultProfile = false;
  // Start with the radio switched off, so that powerOn() shows the manager coming up.
  bool startPoweredOff = false;
};

// The link options of the commands that measure (demo, bench): --profile, --interval-ms,
// --phy, --data-length, --mtu, --max-pdus-per-event, --per. Values left unset are -1 / "".
struct LinkOptions {
  std::string profile;
  double intervalMs = -1;
  std::string phy;
  int dataLength = -1, mtu = -1, maxPdusPerEvent = -1;
  double per = -1;
};
void addLinkOptions(CLI::App& command, LinkOptions& options);
// Puts the options given into `settings` (defaultProfile set).
void applyLinkOptions(const LinkOptions& options, SimLinkSettings& settings);
// The simulated radio's link as `settings` make it, starting from `base`; throws UsageError
// naming the option and its range for a value out of range.
sim::LinkParameters resolveLink(const SimLinkSettings& settings, sim::LinkParameters base);

// Transport counters of a connection, as the tool reports them.
struct TransferCounters {
  uint64_t retransmissions = 0;
  uint64_t pollsSent = 0;
  uint64_t rejectionsSent = 0;
  uint64_t rejectionsReceived = 0;
  uint64_t bytesQueued = 0;  // payload bytes in the send queue (sent but unacknowledged, or unsent)
  uint64_t segmentsSent = 0;
  uint64_t segmentsDropped = 0;    // received twice (or outside the window) and dropped
  std::string window = "classic";  // the window negotiated: classic, negotiating, extended
  uint32_t extendedSegment = 0, extendedWindow = 0;  // this end's, once extended
  bool present = false;  // false once the transport is gone (the figures are then 0)
};

class Session {
 public:
  // Chooses the backend (--platform), describes the simulated devices (--sim-config, then
  // `link`), routes the library's log lines. Throws UsageError for a bad platform or
  // config file.
  Session(const CommonOptions& options, const SimLinkSettings& link = {});
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const CommonOptions& options() const { return options_; }
  // "sim" or "bluez" (see resolvePlatform).
  const std::string& platform() const { return platform_; }

  // Waits until Bluetooth is powered on and the manager is idle (switching the simulated
  // radio on if it was started off). Prints each manager state when `show` is set. Throws
  // Failure after `timeoutS`, UsageError when the adapter asked for (--adapter,
  // $QLT_ADAPTER) is not there.
  void powerOn(double timeoutS, bool show = false);

  // The machine's adapters (BlueZ), once bluetoothd has listed them (waits up to
  // `timeoutS`); empty on the simulated radio.
  std::vector<platform::AdapterInfo> adapters(double timeoutS);

  // Scans for `durationS` seconds with `filter` as the filter handed to the library.
  // `onDevice` runs for every accepted advertisement, with `first` set the first time a
  // device is seen. Returns the devices seen, in the order first seen.
  std::vector<DeviceInfo> scan(const ScanFilter& filter, double durationS,
                               const std::function<void(const DeviceInfo&, bool first)>& onDevice);

  // Finds DEVICE, a name, an identifier (UUID text) or an address (either case; see
  // QLT_Peripheral::answersTo), among the devices seen in this run, by retrieving it or by
  // scanning. Throws UsageError for a malformed address ("C0:FF:EE:00:00"), Failure "no
  // device named 'foo' found within 5.0 s".
  std::shared_ptr<QLT_Peripheral> find(const std::string& device, double timeoutS);

  // What limits a round trip on the link to the simulated devices (for the bench bound).
  LinkTiming linkTiming() const;
  // The link-layer parameters of the simulated device `identifier`'s link (nullopt on real
  // hardware or for an unknown device).
  std::optional<sim::LinkParameters> linkParameters(const std::string& identifier) const;
  // The air loss the simulated radio applies (0 on real hardware).
  double airLoss() const;
  // Sliding-window segments the simulated radio lost on the device's links so far: written
  // by the central, or notified by the device (0 on real hardware).
  uint64_t segmentsLost(const std::string& identifier, bool written) const;

  // The serial queue on which the tool receives the library's callbacks.
  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  struct Impl;

 private:
  // --adapter, else $QLT_ADAPTER on BlueZ; "" for the default.
  std::string wantedAdapter() const;
  // Asks the central for that adapter; UsageError when it is known to be missing.
  void checkAdapter() const;

  CommonOptions options_;
  std::string platform_;
  SimLinkSettings link_;
  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<Impl> impl_;
};

struct ConnectionEvents {
  // Each peripheral state as it is announced: its number and display string.
  std::function<void(int32_t state, const std::string& text)> onState;
  // After each state is recorded: ready() and dropped() see it (onState runs before).
  std::function<void()> onRecorded;
  // Each received payload ("TCP" segment or "UDP" datagram), in order.
  std::function<void(const Data& payload, bool datagram)> onData;
};

enum class TransportKind { SlidingWindow, NUS };
// Parses "sw" / "nus" (throws UsageError otherwise).
TransportKind parseTransport(const std::string& text);
std::string transportName(TransportKind kind);

class Connection {
 public:
  Connection(Session& session, std::shared_ptr<QLT_Peripheral> peripheral, TransportKind transport,
             ConnectionEvents events);
  // Disconnects (without waiting long) if still connected.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Connects and waits until the peripheral is ready. Throws Failure on failure to
  // connect (with the platform's reason), an unexpected state (a device without the UART
  // service), a link that cannot carry the transport (QLT_Peripheral::linkProblem: a broken
  // UART table, an ATT MTU too small for the sliding window), or time-out.
  void open(double timeoutS);
  // Disconnects and waits for the disconnected state. Throws Failure on time-out.
  void close(double timeoutS);

  bool ready() const;
  // Whether the link is gone (disconnected or failed) after having been opened.
  bool dropped() const;

  void sendTCP(const Data& data);
  void sendUDP(const Data& data);

  TransferCounters counters() const;
  // The facts of the link (ATT MTU, largest write, interval, PHY, data length).
  platform::LinkInfo linkInfo() const;
  // The device's name made safe for a terminal (displayText), else its identifier.
  std::string deviceName() const;
  std::string deviceIdentifier() const;
  const std::shared_ptr<QLT_Peripheral>& peripheral() const { return peripheral_; }

  struct Delegate;

 private:
  Session& session_;
  std::shared_ptr<QLT_Peripheral> peripheral_;
  TransportKind transport_;
  std::shared_ptr<Delegate> delegate_;
  bool opened_ = false;
};

// "ATT MTU 185, writes of up to 182 B, connection interval 7.50 ms, PHY unknown, ...".
std::string describeLink(const platform::LinkInfo& info);
// {"att_mtu","max_write","interval_ms","phy","data_length"}, null for what is unknown.
nlohmann::json linkJson(const platform::LinkInfo& info);

}  // namespace qlt::cli
