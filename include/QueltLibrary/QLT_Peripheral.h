// QLT_Peripheral: the library's object for one remote device.
//
// It wraps the platform peripheral and is its delegate; it keeps the library's own
// connection state, discovers the UART service (NUS) and its characteristics, and once
// notifications are on it builds and starts its transport and becomes ready. Application
// data goes writeTCPData/writeUDPData → transport → NUSService::write → the platform;
// notified values come back platform → transport → QLT_Peripheral_didReceivedTCPData /
// QLT_Peripheral_didReceivedUDPData on each delegate's queue.
//
// States (the integers are part of the interface; see convertStateToNSString):
//   0 disconnected, 1 connecting, 2 connected, 3 disconnecting, 4 failedToConnect,
//   5 discoveringServices, 6 discoveringCharacteristics, 7 unavailable (reserved),
//   8 ready, 9 dfuInProgress (no NUS service, or an unknown platform state),
//   10 notSupported (reserved).
// A normal connection runs 1 2 5 6 8, then 3 0 on disconnect:, or 0 when the link drops;
// 1 4 when connecting fails. Every setState() is applied and announced, also repeats.
//
// Ownership: whoever holds the QLT_Peripheral (normally the application) keeps it alive;
// the platform peripheral refers to it weakly as its delegate, and the manager keeps no
// list. It holds its platform peripheral, its services, its NUSService and its transport;
// the transport refers back to it weakly. States 0 and 4 drop the services, the NUS
// service and the transport (after the delegates have been told), and destroying the
// QLT_Peripheral stops its transport.
//
// A session across links. With the sliding window and extendedWindow() on, the transport
// outlives its link: when the link drops it is told so (SlideWindowFace::linkLost) and
// kept, with every byte queued or unacknowledged, and the next link to this peripheral
// that becomes ready takes it up again (linkUp; each notified value is handed over with
// its link's number). The stream then resumes where the device has it, or, when the device
// cannot resume (it restarted, the session was held past its hold time, 30 s), a new
// session begins and the bytes sent and never acknowledged are in doubt: delegates hear
// either through QLT_Peripheral_didChangeSession (transportCounters() counts them too).
// endSession() ends the session (QLT_BLEManager::disconnect calls it): the transport then
// goes with its link. Without the extension every link builds a fresh transport.
//
// Threads and queues:
// - Platform callbacks (discovery, notifications) arrive on the "QLT_BLEManager" queue.
// - setState() may be called from any thread; the state is stored and announced on the
//   main queue, in the order of the setState() calls (state() may lag until then).
// - Transport payloads reach the peripheral on the main queue and each application
//   delegate on the queue it registered with.
// - writeTCPData/writeUDPData may be called from any thread.
// Every field shared between these threads is atomic or guarded by the object's lock; no
// user code and no platform call runs under that lock.
//
// Late and stale events: discovery results that arrive after the link was reported down
// (or after a new connection attempt began) are logged and ignored; a disconnection
// announced late never tears down what a newer connection has built; a transport replaced
// by a newer one, or left behind by an older connection, is stopped; frames written by a
// transport that is no longer the current one are dropped.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QueltLibrary/BLEService.h"
#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/NUSService.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/SWTransport.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt {

class QLT_Peripheral;

// Peripheral states, as passed to QLT_Peripheral_didChangeState.
enum QLT_PeripheralState : int32_t {
  QLT_PeripheralStateDisconnected = 0,
  QLT_PeripheralStateConnecting = 1,
  QLT_PeripheralStateConnected = 2,
  QLT_PeripheralStateDisconnecting = 3,
  QLT_PeripheralStateFailedToConnect = 4,
  QLT_PeripheralStateDiscoveringServices = 5,
  QLT_PeripheralStateDiscoveringCharacteristics = 6,
  QLT_PeripheralStateUnavailable = 7,
  QLT_PeripheralStateReady = 8,
  QLT_PeripheralStateDfuInProgress = 9,
  QLT_PeripheralStateNotSupported = 10,
};

// Application callbacks of a peripheral; a delegate inherits those it wants.
// What kind of problem linkProblem() describes, for code that acts on it.
enum class QLT_LinkProblem {
  None,
  ConnectFailed,  // the last attempt to connect failed (the platform's reason in the text)
  ServiceTable,   // the UART service is offered twice, or rx/tx cannot notify/be written
  MtuTooSmall,    // the ATT MTU cannot carry the transport's largest frame
  LinkLost,       // the link dropped with an error (the platform's reason in the text)
};

class QLT_EXPORT QLT_PeripheralDidChangeState : public virtual Delegate {
 public:
  virtual void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& peripheral,
                                             int32_t state) = 0;
};
class QLT_EXPORT QLT_PeripheralDidReceivedTCPData : public virtual Delegate {
 public:
  // One "TCP" payload: one segment (at most 120 bytes) with the sliding window, one
  // notified value with the chunking transport. Payloads are not joined into messages.
  virtual void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>& peripheral,
                                                 const Data& data) = 0;
};
class QLT_EXPORT QLT_PeripheralDidReceivedUDPData : public virtual Delegate {
 public:
  virtual void QLT_Peripheral_didReceivedUDPData(const std::shared_ptr<QLT_Peripheral>& peripheral,
                                                 const Data& data) = 0;
};

// What each new link made of the sliding window's session (extendedWindow() on: see
// "A session across links" below); on the delegate's queue, in order with the payloads.
class QLT_EXPORT QLT_PeripheralDidChangeSession : public virtual Delegate {
 public:
  virtual void QLT_Peripheral_didChangeSession(const std::shared_ptr<QLT_Peripheral>& peripheral,
                                               const SessionChange& change) = 0;
};

class QLT_EXPORT QLT_Peripheral : public QLT_Object,
                                  public platform::PeripheralDelegate,
                                  public TransportSenderDelegate,
                                  public TransportDelegate,
                                  public TransportSessionDelegate {
 public:
  using FrameTrace = BaseTransport::FrameTrace;

  // initWithPeripheral: the state follows the platform peripheral's state (no
  // announcement); the new object becomes the platform peripheral's delegate.
  static std::shared_ptr<QLT_Peripheral> create(std::shared_ptr<platform::Peripheral> peripheral);
  ~QLT_Peripheral() override;

  // Platform link state → peripheral state: 0..3 map to themselves, anything else to 9.
  static int32_t convertState(int64_t platformState);
  static int32_t convertState(platform::PeripheralState platformState) {
    return convertState(static_cast<int64_t>(platformState));
  }
  // The display string of a peripheral state. A value outside 0..10 is a programming
  // error: it is reported on standard error and the process aborts.
  static std::string convertStateToNSString(int32_t state);

  const std::shared_ptr<platform::Peripheral>& basePeripheral() const { return basePeripheral_; }
  int32_t state() const { return state_.load(std::memory_order_acquire); }
  bool ready() const { return state() == QLT_PeripheralStateReady; }
  // Logs "P state = %d" and hands the state to the main queue (notifyStateChange).
  void setState(int32_t state);
  // On the main queue: logs, stores, announces; 0 and 4 then tear the connection down.
  void notifyStateChange(int32_t state);

  std::optional<std::string> name() const;
  void setName(std::optional<std::string> name);
  // The Bluetooth address ("C0:FF:EE:00:00:01", upper-case) when the platform knows it.
  std::optional<std::string> address() const;
  // Whether `device`, as a user names a device, means this peripheral: its name (exactly
  // as advertised), its identifier (UUID text, any case) or its address (any case).
  // The one rule by which the library and its tools resolve a device named by a person;
  // any thread.
  bool answersTo(std::string_view device) const;
  int32_t RSSI() const { return rssi_.load(std::memory_order_relaxed); }
  void setRSSI(int32_t rssi) { rssi_.store(rssi, std::memory_order_relaxed); }
  // 0: the chunking transport; anything else: the sliding window. Read at startTransport.
  int32_t transportType() const { return transportType_.load(std::memory_order_relaxed); }
  void setTransportType(int32_t type) { transportType_.store(type, std::memory_order_relaxed); }
  // Whether the sliding window offers the extended window (SlideWindowFace::setExtendedWindow),
  // sized from the link's facts (linkInfo()). Off by default; UartLink turns it on. Read at
  // startTransport, so it applies from the next link up.
  bool extendedWindow() const { return extendedWindow_.load(std::memory_order_relaxed); }
  void setExtendedWindow(bool on) { extendedWindow_.store(on, std::memory_order_relaxed); }
  platform::AdvertisementData advertisementData() const;
  void setAdvertisementData(platform::AdvertisementData advertisementData);
  // The wrapped services of the last discovery (a copy of the list).
  std::vector<std::shared_ptr<BLEService>> services() const;
  // Declared for the application; the library never assigns them.
  std::shared_ptr<platform::Characteristic> rx() const;
  void setRx(std::shared_ptr<platform::Characteristic> rx);
  std::shared_ptr<platform::Characteristic> tx() const;
  void setTx(std::shared_ptr<platform::Characteristic> tx);

  // Why this connection cannot carry data, or why the last attempt to connect failed, in
  // words for people; empty when nothing is known to be wrong. When the peripheral becomes
  // ready it checks, once per connection, what would make the transport stall silently:
  // the UART service offered twice, rx (6E400003) that cannot notify ("the device's rx
  // characteristic does not notify"), tx (6E400002) that cannot be written, tx and rx
  // swapped, or an ATT MTU too small for the transport's largest frame (a sliding-window
  // frame is 121 bytes; at the minimum MTU of 23 a write carries 20). A failed connection
  // records the platform's reason (state 4 then follows). Each problem is logged once; the
  // states stay as they are (a problem does not change state numbers), so an application
  // reads this on state 8 or 4. A link that drops with an error records "the link
  // dropped: <reason>" before state 0. Cleared when a new connection attempt begins (state 1).
  std::string linkProblem() const;
  // The kind of that problem (None when there is none).
  QLT_LinkProblem linkProblemKind() const;
  // Records `problem` (logged once); the manager and the readiness check call it.
  void setLinkProblem(const std::string& problem,
                      QLT_LinkProblem kind = QLT_LinkProblem::ServiceTable);

  // The facts of the current link (see platform::LinkInfo): what the platform knows.
  platform::LinkInfo linkInfo() const;
  // The current connection's transport (null when none is running), for flow control:
  // its unacknowledged() and its everything-acknowledged handler. Any thread.
  std::shared_ptr<BaseTransport> transport() const;

  // Data path. Without a transport (not ready), the data is dropped silently; between two
  // links of a session (see above) "TCP" data waits in the held transport for the next.
  void writeTCPData(const Data& data);
  void writeUDPData(const Data& data);

  // A new transport of the kind transportType() selects (not stored, not started).
  std::shared_ptr<BaseTransport> createTransport();
  // Takes up the transport held across links (a session), else builds and starts one.
  void startTransport();
  // Stops the transport and ends its session.
  void stopTransport();
  // Ends the session held across links (see above): a transport held while the link is down
  // is stopped now; the current link's transport goes with its link. Any thread.
  void endSession();

  // Discovery (normally driven by QLT_BLEManager and the platform callbacks).
  void discoverServices();
  void discoverCharacteristics(const std::shared_ptr<BLEService>& service);
  std::shared_ptr<BLEService> findBLEService(
      const std::shared_ptr<platform::Service>& service) const;

  // Equal to its own platform peripheral, or to a QLT_Peripheral (exactly that class)
  // wrapping a platform peripheral with the same identifier.
  bool isEqual(const std::shared_ptr<platform::Peripheral>& other) const;
  bool isEqual(const std::shared_ptr<QLT_Peripheral>& other) const;

  // For tools: the counters of the current transport (sliding window only; empty with the
  // chunking transport or none), and a hook that sees every frame the transport writes
  // (outgoing) and every value it receives (incoming), on the thread doing it. The hook
  // is handed to the current transport (or the one a session holds between links) and to
  // every transport built later; it must be quick and must not call back into the
  // peripheral. An empty function turns it off.
  std::optional<SlideWindowCounters> transportCounters() const;
  void setFrameTrace(FrameTrace trace);

  std::string description() const;

  // platform::PeripheralDelegate
  void peripheral_didDiscoverServices(const std::shared_ptr<platform::Peripheral>& peripheral,
                                      const std::optional<platform::Error>& error) override;
  void peripheral_didDiscoverCharacteristicsForService_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Service>& service,
      const std::optional<platform::Error>& error) override;
  void peripheral_didUpdateNotificationStateForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;
  void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;
  void peripheral_didReceiveValue(const std::shared_ptr<platform::Peripheral>& peripheral,
                                  const std::shared_ptr<platform::Characteristic>& characteristic,
                                  const Data& value) override;
  void peripheral_didWriteValueForCharacteristic_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::optional<platform::Error>& error) override;
  void peripheralIsReadyToSendWriteWithoutResponse(
      const std::shared_ptr<platform::Peripheral>& /*peripheral*/) override {}
  void peripheral_didUpdateValueForDescriptor_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;
  void peripheral_didWriteValueForDescriptor_error(
      const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;

  // TransportSenderDelegate
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>& transport,
                                  const Data& data) override;
  // TransportDelegate
  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                 const Data& data) override;
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                 const Data& data) override;
  // TransportSessionDelegate
  void transport_sessionChanged(const std::shared_ptr<BaseTransport>& transport,
                                const SessionChange& change) override;

 private:
  friend class QLT_BLEManager;
  explicit QLT_Peripheral(std::shared_ptr<platform::Peripheral> peripheral);
  std::shared_ptr<QLT_Peripheral> self() {
    return std::static_pointer_cast<QLT_Peripheral>(shared_from_this());
  }
  // What one connection builds: its service wrappers, its NUS service and its transport.
  // A Connection is never changed once published: a change copies it, edits the copy and
  // swaps it in under mutex_, so one read of connection_ gives a consistent set.
  struct Connection {
    uint64_t generation = 0;  // the link generation that built it
    std::vector<std::shared_ptr<BLEService>> services;
    std::shared_ptr<NUSService> nus;
    std::shared_ptr<BaseTransport> transport;
    uint64_t windowLink = 0;  // the transport's number for this link (SlideWindowFace::linkUp)
  };

  // The state most recently handed to setState() (the state the main queue will reach).
  int32_t latestState() const;
  bool linkUp() const;
  std::shared_ptr<const Connection> connection() const;
  // Applies `change` to a copy of the current link generation's Connection and publishes
  // it. A Connection of an older generation is not carried over: it is ended (its
  // transport stopped) instead. `change` runs under mutex_: it may only assign.
  void changeConnection(const std::function<void(Connection&)>& change);
  // Stops and unhooks a transport that is no longer current; null is fine.
  void retireTransport(const std::shared_ptr<BaseTransport>& transport);
  // The end of an older connection's link for its transport: the session's is told the link
  // is lost and kept for the next link (unless a newer link has taken it up); any other is
  // retired.
  void endTransport(const std::shared_ptr<const Connection>& ended);
  // Hands a received value to the connection's transport (with its link's number).
  static void receiveOn(const Connection& connection, const Data& value);
  void applyState(int32_t state, uint64_t generation);
  void tearDown(uint64_t generation);
  // The readiness check behind linkProblem(): "" when the link can carry the transport.
  std::string checkReadiness(const std::optional<platform::Error>& notifyError,
                             QLT_LinkProblem* kind) const;

  const std::shared_ptr<platform::Peripheral> basePeripheral_;
  std::atomic<int32_t> state_;
  std::atomic<int32_t> rssi_{0};
  std::atomic<int32_t> transportType_{0};
  std::atomic<bool> extendedWindow_{false};

  mutable std::mutex mutex_;
  int32_t latestState_;  // guarded by mutex_
  // Each time the link comes up (state 2 after anything else) the generation advances;
  // the Connection built during a link carries it, and a teardown ends the Connection
  // only if it is no newer than the disconnection that asked for it.
  uint64_t linkGeneration_ = 0;                    // guarded by mutex_
  bool linkUp_ = false;                            // guarded by mutex_
  std::shared_ptr<const Connection> connection_;   // guarded by mutex_; never null
  std::optional<std::string> name_;                // guarded by mutex_
  platform::AdvertisementData advertisementData_;  // guarded by mutex_
  std::shared_ptr<platform::Characteristic> rx_;   // guarded by mutex_
  std::shared_ptr<platform::Characteristic> tx_;   // guarded by mutex_
  FrameTrace frameTrace_;                          // guarded by mutex_
  // The sliding window that keeps its session across links (current, or held while the
  // link is down); null without the extension or after endSession().
  std::shared_ptr<SWTransport> session_;                     // guarded by mutex_
  std::string linkProblem_;                                  // guarded by mutex_
  QLT_LinkProblem linkProblemKind_ = QLT_LinkProblem::None;  // guarded by mutex_
};

}  // namespace qlt
