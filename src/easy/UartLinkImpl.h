// UartLink's inside, in three rooms: UartLink.cpp (the state, received bytes, callbacks,
// disconnecting), UartLinkConnect.cpp (attempts through a LinkOpener, drops and
// reconnection) and UartLinkSend.cpp (the bounded send buffer, flush, the
// everything-acknowledged event).
//
// Locking: one mutex (mutex_) guards every field below it; change() is the one place the
// state changes. Manager and peripheral callbacks arrive on queue_, one at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/LinkOpener.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/UartLink.h"
#include "easy/LinkWaits.h"

namespace qlt {

// The delegate of the peripheral; every callback arrives on queue_.
class QLT_HIDDEN UartLink::Impl : public QLT_PeripheralDidChangeState,
                                  public QLT_PeripheralDidReceivedTCPData,
                                  public QLT_PeripheralDidChangeSession,
                                  public std::enable_shared_from_this<Impl> {
 public:
  using Reason = UartLink::Error::Reason;

  explicit Impl(Options options);
  // Disconnects, waits a little for the device to be told, and lets go of the library.
  void close();

  // UartLinkConnect.cpp
  void startConnect(std::string_view device);
  void waitUntilConnected();

  // UartLinkSend.cpp
  // Hands a leading part of `bytes` to the transport, as the send buffer allows, waiting
  // for room until `deadline` (now: not at all). Returns the count handed over.
  size_t send(const Data& bytes, SteadyClock::time_point deadline, bool wait);
  bool flush(std::chrono::milliseconds timeout);
  uint64_t unacknowledged() const;

  // UartLink.cpp
  Counters counters() const;
  std::shared_ptr<BaseTransport> transport() const {
    std::lock_guard lock(mutex_);
    return transport_;
  }
  platform::LinkInfo linkInfo() const;
  int fd() const { return fd_.fd(); }
  Data read(std::chrono::milliseconds timeout);
  void onReceive(std::function<void(const Data&)> callback);
  void onStateChange(std::function<void(State, const std::string&)> callback);
  State state() const;
  std::string lastError() const;
  void disconnect();

  // QLT_Peripheral delegate (UartLinkConnect.cpp, UartLink.cpp)
  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override;
  void QLT_Peripheral_didReceivedTCPData(const std::shared_ptr<QLT_Peripheral>& p,
                                         const Data& data) override;
  void QLT_Peripheral_didChangeSession(const std::shared_ptr<QLT_Peripheral>& p,
                                       const SessionChange& change) override;

 private:
  using StateCallback = std::function<void(State, const std::string&)>;

  static bool isDown(const QLT_Peripheral& p) {
    return p.state() == QLT_PeripheralStateDisconnected ||
           p.state() == QLT_PeripheralStateFailedToConnect;
  }

  // UartLinkConnect.cpp
  void chooseAdapter();
  void found(uint64_t attempt, const std::shared_ptr<QLT_Peripheral>& p);
  void opened(uint64_t attempt, const LinkOpener::Result& r);
  void fail(Reason reason, const std::string& message);
  void connected(const std::shared_ptr<QLT_Peripheral>& p);
  void dropped(const std::shared_ptr<QLT_Peripheral>& p);
  // Whether the peripheral keeps the window's session across a drop for us (the extended
  // window, reconnecting).
  bool keepsSession() const {
    return options_.slidingWindow && options_.extendedWindow && options_.reconnect.enabled;
  }
  // Under mutex_: `bytes` handed over are lost (discarded, or in doubt), for reason `why`.
  void lost(uint64_t bytes, std::string why);
  // Under mutex_: a new session began instead of ours; counts, names and announces it.
  void sessionLost(uint64_t bytes);
  std::string sessionLossText(uint64_t bytes) const;
  // Ends the peripheral's session on queue_ (not under mutex_).
  void endSessionLater(const std::shared_ptr<QLT_Peripheral>& p);
  void scheduleTry();
  void tryAgain(uint64_t attempt);
  uint64_t beginAttempt();
  void launch(uint64_t attempt);

  // UartLinkSend.cpp
  void allAcknowledged();
  // Under mutex_.
  uint64_t unacknowledgedLocked() const { return transport_ ? transport_->unacknowledged() : 0; }
  size_t roomLocked() const {
    const uint64_t held = unacknowledgedLocked();
    return held >= options_.sendBuffer ? 0 : static_cast<size_t>(options_.sendBuffer - held);
  }
  void wantRoomLocked() {
    roomWanted_ = true;
    updateFdLocked();
  }
  void attachTransportLocked(std::shared_ptr<BaseTransport> transport);
  void detachTransportLocked();
  // The level of fd(): something waits for the application.
  void updateFdLocked() const;

  // UartLink.cpp, under mutex_.
  bool inAttempt() const { return state_ == State::Connecting || state_ == State::Reconnecting; }
  // The one place the state changes; tells waiters and the callback.
  void change(State state, Reason reason, std::string error);
  void throwUnlessConnected() const;
  // Connected, or reconnecting with the session (and the bytes handed over) kept.
  bool carriesOn() const {
    return state_ == State::Connected || (state_ == State::Reconnecting && sessionHeld_);
  }
  void throwUnlessConnectedOrBack() const {
    if (state_ != State::Reconnecting) throwUnlessConnected();
  }

  const Options options_;
  const std::shared_ptr<QLT_BLEManager> manager_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;       // any change below, and every state of the peripheral
  State state_ = State::Disconnected;     // guarded by mutex_
  Reason reason_ = Reason::NotConnected;  // guarded by mutex_; of error_
  std::string error_;                     // guarded by mutex_
  uint64_t attempt_ = 0;                  // guarded by mutex_; advances when one ends
  std::string device_;                    // guarded by mutex_
  SteadyClock::time_point deadline_;      // guarded by mutex_
  std::shared_ptr<LinkOpener> opener_;    // guarded by mutex_; the attempt under way
  std::shared_ptr<QLT_Peripheral> peripheral_;             // guarded by mutex_; the device found
  std::vector<Data> received_;                             // guarded by mutex_; not yet read
  std::function<void(const Data&)> onReceive_;             // guarded by mutex_
  std::shared_ptr<const StateCallback> onState_;           // guarded by mutex_
  std::vector<std::shared_ptr<QLT_Peripheral>> previous_;  // guarded; to let go of
  std::shared_ptr<BaseTransport> transport_;  // guarded by mutex_; the connected link's
  // Advances each time bytes handed over are lost: discarded at a drop, or in doubt when a
  // session is lost; a send() or flush() waiting then throws.
  uint64_t losses_ = 0;          // guarded by mutex_
  Counters counters_;            // guarded by mutex_
  uint64_t lostAtLast_ = 0;      // guarded by mutex_; bytes lost at the last loss
  std::string lossText_;         // guarded by mutex_; why, for the waits that end with it
  std::string sessionLossText_;  // guarded by mutex_; a session lost since the last drop
  bool sessionHeld_ = false;     // guarded by mutex_; dropped, the session kept for the next link
  std::string dropReason_;       // guarded by mutex_
  int tries_ = 0;                // guarded by mutex_; failed tries to reconnect in a row
  std::chrono::milliseconds delay_{0};  // guarded by mutex_; before the next try
  mutable bool stateUnseen_ = false;    // guarded by mutex_; a change state() has not returned
  mutable bool roomWanted_ = false;     // guarded by mutex_; a trySend found the buffer full
  mutable bool roomAnnounced_ = false;  // guarded by mutex_; fd() says the buffer emptied
  mutable LevelFd fd_;                  // its level guarded by mutex_
  std::mutex sendMutex_;                // one sender at a time, so the buffer's bound holds
};

}  // namespace qlt
