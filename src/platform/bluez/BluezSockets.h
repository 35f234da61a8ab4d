// SocketPath: the data path over the sockets of AcquireWrite and AcquireNotify, on the bus
// thread.
//
// When bluetoothd offers them (the properties WriteAcquired / NotifyAcquired are present),
// a write without response is one send() on a SOCK_SEQPACKET socket and a notification one
// recv(), with no D-Bus message per packet. The method calls (WriteValue "command" through
// the GattQueue, StartNotify + PropertiesChanged of Value) stay the fallback: for daemons
// and characteristics without these properties, when an Acquire call fails or hands out
// something unusable, and for the rest of a link once its write socket broke.
//
// The write socket is acquired on the first write without response of a link, not at
// discovery: a link that never writes then holds no socket, and the first write is the
// moment the MTU it is checked against matters. Writes made while the reply is out wait
// for it in order, at most GattQueue::kMaxCommandsPerDevice of them. The write socket's send
// buffer is kept small (kWriteSocketBuffer: about 80 frames), so that frames wait in the
// sender's window rather than in the kernel. A full socket (EAGAIN, ENOBUFS) drops the
// write, as a phone's stack drops writes without response it has no room for; the sliding
// window sends it again. Every drop is counted and logged by GattQueue::dropCommand.
//
// Sockets belong to one link: close() (at every end of a link) closes them, and replies of
// an earlier link's Acquire calls are ignored (their descriptors close with the message).
// A notification socket also closes when notifications are switched off and when
// bluetoothd closes its end; everything closes with this object (OwnedFd, ScopedHandle).
//
// Thread safety: bus thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "QueltLibrary/Data.h"
#include "platform/bluez/BluezGattQueue.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BusLoop.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

// The send buffer asked for on a write socket (the kernel doubles it and counts each datagram
// with its overhead: about 80 frames of up to 161 bytes, against about 280 by default).
inline constexpr int kWriteSocketBuffer = 32768;
// Shrinks the send buffer of `fd` to kWriteSocketBuffer; false (errno set) if refused.
bool limitSendBuffer(int fd);

class SocketListener {
 public:
  virtual ~SocketListener() = default;
  // One datagram read from a notification socket: `length` long, its bytes in `data` unless
  // it is longer than any attribute value (then the receiver drops it by its length).
  virtual void socketNotification(const Address& device, const std::string& path, size_t length,
                                  Data data) = 0;
  // AcquireNotify answered: notifications now come on a socket, or (`acquired` false) it
  // failed and the method calls must be used.
  virtual void notifyAcquired(const Address& device, const std::string& path, bool acquired) = 0;
  // The notification socket ended by itself: notifications are off.
  virtual void notifySocketClosed(const Address& device, const std::string& path) = 0;
};

class SocketPath {
 public:
  SocketPath(BusPort& port, GattQueue& gatt, SocketListener& listener,
             std::chrono::milliseconds callTimeout)
      : port_(port), gatt_(gatt), listener_(listener), callTimeout_(callTimeout) {}

  // A write without response of the current link. `offered`: the characteristic has
  // WriteAcquired; `linkMtu`: the ATT MTU known for the link (0 unknown).
  void write(const Address& device, const std::string& path, Data data, bool offered, int linkMtu);
  // Asks for a notification socket; false when one is asked for already.
  bool acquireNotify(const Address& device, const std::string& path);
  bool notifiesBySocket(const Address& device, const std::string& path) const;
  // Switches notifications off: closes the socket, or drops the AcquireNotify still out
  // (its reply is ignored). False when there was neither.
  bool stopNotify(const Address& device, const std::string& path);
  // The link of `device` is being disconnected: its sockets closing is no news.
  void linkEnding(const Address& device) { of(device).ending = true; }
  // The link of `device` ended.
  void close(const Address& device);

 private:
  // A socket handed out by AcquireWrite or AcquireNotify, watched on the bus thread.
  struct Socket {
    OwnedFd fd;
    uint16_t mtu = 0;  // the ATT MTU bluetoothd returned with it
    ScopedHandle watch;
  };
  enum class WriteMode { Untried, Acquiring, Socket, Method };
  struct WriteChannel {
    WriteMode mode = WriteMode::Untried;
    Socket socket;
    std::deque<Data> held;  // writes waiting for the AcquireWrite reply
    int linkMtu = 0;        // as last told
  };
  struct Sockets {  // of one link
    uint64_t epoch = 0;
    bool ending = false;
    std::map<std::string, WriteChannel> writes;  // by characteristic path
    std::map<std::string, Socket> notifies;      // by characteristic path
    std::set<std::string> notifyAcquiring;       // AcquireNotify sent, its reply still wanted
  };

  Sockets& of(const Address& device);
  // The link's sockets if the reply of attempt `epoch` still concerns them.
  Sockets* current(const Address& device, uint64_t epoch);
  void acquireWrite(const Address& device, const std::string& path);
  // Sends one write on the socket; false when the socket failed (it is closed then).
  bool sendOnSocket(const Address& device, const std::string& path, WriteChannel& channel,
                    const Data& data);
  void fallBackToMethod(const Address& device, const std::string& path, const char* why);
  std::optional<Socket> adopt(sdbus::MethodReply& reply, const std::string& path,
                              const char* method);
  void readNotifications(const Address& device, const std::string& path, short revents);
  void closeNotify(const Address& device, const std::string& path, const char* why);

  BusPort& port_;
  GattQueue& gatt_;
  SocketListener& listener_;
  const std::chrono::milliseconds callTimeout_;
  std::map<Address, Sockets> links_;
  uint64_t nextEpoch_ = 1;
};

}  // namespace qlt::bluez
