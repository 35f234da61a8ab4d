// The socket data path of BluezCentral: AcquireWrite and AcquireNotify.
//
// When bluetoothd offers them (the properties WriteAcquired / NotifyAcquired are present),
// a write without response is one send() on a SOCK_SEQPACKET socket and a notification one
// recv(), with no D-Bus message per packet. The method calls (WriteValue "command",
// StartNotify + PropertiesChanged of Value) stay the fallback: for daemons and
// characteristics without these properties, when an Acquire call fails or hands out
// something unusable, and for the rest of a link once its write socket broke.
//
// The write socket is acquired on the first write without response of a link, not at
// discovery: a link that never writes then holds no socket, and the first write is the
// moment the MTU it is checked against matters. Writes made while the reply is out wait
// for it in order. A full socket (EAGAIN, ENOBUFS) drops the write, as a phone's stack
// drops writes without response it has no room for; the sliding window sends it again.
//
// Everything here runs on the bus thread. Sockets are closed when the link ends (endLink,
// which every disconnection, link loss, power-off and bluetoothd leaving goes through),
// when notifications are switched off, when bluetoothd closes its end, and with the
// central (OwnedFd).
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezCentral.h"

namespace qlt::bluez {

namespace {

// Datagrams read from a notification socket in one round, so that a flood of them does not
// hold up the bus and posted tasks.
constexpr int kNotificationsPerRound = 64;
// Larger than any attribute value (512 bytes): a longer datagram shows as truncated.
constexpr size_t kNotificationBuffer = 1024;

bool peerClosed(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR));
}

}  // namespace

std::optional<BluezCentral::AcquiredSocket> BluezCentral::adoptSocket(sdbus::MethodReply& reply,
                                                                      const std::string& path,
                                                                      const char* method) {
  sdbus::UnixFd received;
  uint16_t mtu = 0;
  try {
    reply >> received >> mtu;
  } catch (const sdbus::Error& e) {
    QLTLog("BlueZ: %s of %s returned an unreadable reply (%s); not using it", method, path,
           e.getMessage());
    return std::nullopt;
  }
  OwnedFd fd(received.release());  // our own duplicate, closed on every way out below
  if (!fd) {
    QLTLog("BlueZ: %s of %s returned no descriptor; not using it", method, path);
    return std::nullopt;
  }
  struct stat st {};
  int type = 0;
  socklen_t length = sizeof type;
  if (::fstat(fd.get(), &st) != 0 || !S_ISSOCK(st.st_mode) ||
      ::getsockopt(fd.get(), SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_SEQPACKET) {
    QLTLog("BlueZ: %s of %s returned a descriptor that is not a packet socket; not using it",
           method, path);
    return std::nullopt;
  }
  if (platform::attPayloadLength(int{mtu}) == 0) {
    QLTLog("BlueZ: %s of %s returned the unusable MTU %d; not using its socket", method, path,
           static_cast<int>(mtu));
    return std::nullopt;
  }
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
      ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0) {
    QLTLog("BlueZ: %s of %s: cannot make its socket non-blocking (errno %d); not using it", method,
           path, errno);
    return std::nullopt;
  }
  AcquiredSocket socket;
  socket.fd = std::move(fd);
  socket.mtu = mtu;
  return socket;
}

void BluezCentral::closeSockets(Device& device) {
  for (auto& [path, channel] : device.writeChannels) {
    if (channel.socket.watch) loop_.unwatch(channel.socket.watch);
  }
  device.writeChannels.clear();
  for (auto& [path, socket] : device.notifySockets) loop_.unwatch(socket.watch);
  device.notifySockets.clear();
  device.notifyAcquiring.clear();
}

// ------------------------------------------------------------------------------------------
// Writes without response

void BluezCentral::sendCommand(const Address& address, PendingRequest write) {
  Device& device = devices_[address];
  const std::string path = write.characteristic->path();
  WriteChannel& channel = device.writeChannels[path];
  if (channel.path == WritePath::Untried) {
    const PropertyMap* props = properties(path, kCharacteristicInterface);
    const bool offered = props && props->count("WriteAcquired");
    channel.path = offered ? WritePath::Acquiring : WritePath::Method;
    if (offered) acquireWrite(address, path);
  }
  if (channel.path == WritePath::Acquiring) {
    channel.held.push_back(std::move(write));
    return;
  }
  if (channel.path == WritePath::Socket && sendOnSocket(address, channel, write)) return;

  const Data& data = write.data;
  const int mtu = peripheralFor(address)->mtu();
  if (mtu > 0 && data.size() > platform::attPayloadLength(mtu)) {
    QLTLog(
        "BlueZ: write without response of %zu bytes to %s does not fit the link: at most "
        "%d bytes (MTU %d - 3); bluetoothd will refuse it",
        data.size(), path, platform::attPayloadLength(mtu), mtu);
  }
  device.commands.push_back(std::move(write));
  devicesWithCommands_.insert(address);
  pumpCommands();
}

void BluezCentral::acquireWrite(const Address& address, const std::string& path) {
  const uint64_t generation = devices_[address].generation;
  call(
      path, kCharacteristicInterface, "AcquireWrite",
      [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; },
      options_.callTimeout,
      [this, address, generation, path](sdbus::MethodReply* reply, const platform::Error* error) {
        auto dev = devices_.find(address);
        if (dev == devices_.end() || dev->second.generation != generation ||
            dev->second.phase != Phase::Connected) {
          return;  // an earlier link's reply; its descriptor closes with the message
        }
        auto ch = dev->second.writeChannels.find(path);
        if (ch == dev->second.writeChannels.end() || ch->second.path != WritePath::Acquiring)
          return;
        WriteChannel& channel = ch->second;
        std::optional<AcquiredSocket> socket;
        if (error) {
          QLTLog("BlueZ: AcquireWrite of %s failed: %s; writing with WriteValue", path,
                 error->description());
        } else if (reply) {
          socket = adoptSocket(*reply, path, "AcquireWrite");
        }
        if (socket) {
          QLTLog("BlueZ: %s: writing without response on an acquired socket (MTU %d)", path,
                 static_cast<int>(socket->mtu));
          channel.socket = std::move(*socket);
          channel.path = WritePath::Socket;
          // Nothing is read from a write socket: the watch (no events asked for) only
          // reports bluetoothd closing its end.
          channel.socket.watch =
              loop_.watch(channel.socket.fd.get(), 0, [this, address, path](short) {
                fallBackToMethod(address, path, "bluetoothd closed the write socket");
              });
        } else {
          channel.path = WritePath::Method;
        }
        std::deque<PendingRequest> held;
        held.swap(channel.held);
        for (auto& write : held) sendCommand(address, std::move(write));
      });
}

bool BluezCentral::sendOnSocket(const Address& address, WriteChannel& channel,
                                const PendingRequest& write) {
  const Data& data = write.data;
  const std::string& path = write.characteristic->path();
  const int mtu = channel.socket.mtu;
  if (data.size() > platform::attPayloadLength(mtu)) {
    QLTLog(
        "BlueZ: write without response of %zu bytes to %s does not fit the acquired socket: "
        "at most %d bytes (MTU %d - 3); not sent",
        data.size(), path, platform::attPayloadLength(mtu), mtu);
    return true;  // handled: sending it any other way would fail the same
  }
  for (;;) {
    const ssize_t sent =
        ::send(channel.socket.fd.get(), data.bytes(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) return true;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) {
      noteDroppedWrite(path);
      return true;
    }
    break;
  }
  const std::string why = std::string("the write socket failed: ") + std::strerror(errno);
  fallBackToMethod(address, path, why.c_str());
  return false;
}

void BluezCentral::fallBackToMethod(const Address& address, const std::string& path,
                                    const char* why) {
  auto dev = devices_.find(address);
  if (dev == devices_.end()) return;
  auto ch = dev->second.writeChannels.find(path);
  if (ch == dev->second.writeChannels.end() || ch->second.path != WritePath::Socket) return;
  // While a disconnection is under way bluetoothd closing its end is expected: no news.
  if (dev->second.phase == Phase::Connected) {
    QLTLog("BlueZ: %s: %s; writing with WriteValue for the rest of this link", path, why);
  }
  loop_.unwatch(ch->second.socket.watch);
  ch->second.socket = AcquiredSocket{};
  ch->second.path = WritePath::Method;
}

void BluezCentral::noteDroppedWrite(const std::string& path) {
  ++droppedWrites_;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastDropLog_ < std::chrono::seconds(1)) return;
  QLTLog(
      "BlueZ: %llu write(s) without response dropped since the last such line: the socket "
      "of %s is full (the link is slower than the writer)",
      static_cast<unsigned long long>(droppedWrites_), path);
  droppedWrites_ = 0;
  lastDropLog_ = now;
}

// ------------------------------------------------------------------------------------------
// Notifications

void BluezCentral::acquireNotify(const std::shared_ptr<BluezPeripheral>& peripheral,
                                 const std::shared_ptr<BluezCharacteristic>& characteristic) {
  const Address address = peripheral->address();
  const uint64_t generation = characteristic->generation();
  const std::string path = characteristic->path();
  call(
      path, kCharacteristicInterface, "AcquireNotify",
      [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; },
      options_.callTimeout,
      [this, address, generation, peripheral, characteristic, path](sdbus::MethodReply* reply,
                                                                    const platform::Error* error) {
        auto dev = devices_.find(address);
        if (dev == devices_.end() || !linkUsable(dev->second, generation)) return;
        Device& device = dev->second;
        if (!device.notifyAcquiring.erase(path)) return;  // switched off meanwhile
        std::optional<AcquiredSocket> socket;
        if (error) {
          QLTLog("BlueZ: AcquireNotify of %s failed: %s; asking with StartNotify", path,
                 error->description());
        } else if (reply) {
          socket = adoptSocket(*reply, path, "AcquireNotify");
        }
        if (!socket) {
          setNotifyByMethod(peripheral, characteristic, true);
          return;
        }
        socket->watch = loop_.watch(socket->fd.get(), POLLIN, [this, address, path](short revents) {
          readNotifySocket(address, path, revents);
        });
        device.notifySockets[path] = std::move(*socket);
        device.notifying.insert(path);
        reportNotifying(peripheral, characteristic, true);
      });
}

void BluezCentral::readNotifySocket(const Address& address, const std::string& path,
                                    short revents) {
  auto dev = devices_.find(address);
  if (dev == devices_.end()) return;
  Device& device = dev->second;
  auto socket = device.notifySockets.find(path);
  if (socket == device.notifySockets.end()) return;
  auto ch = device.characteristics.find(path);
  if (ch == device.characteristics.end()) {
    closeNotifySocket(address, path, "its characteristic is gone");  // else it would spin
    return;
  }
  const int fd = socket->second.fd.get();
  auto peripheral = peripheralFor(address);
  auto characteristic = ch->second;
  uint8_t buffer[kNotificationBuffer];
  for (int i = 0; i < kNotificationsPerRound; ++i) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        // Drained. A hang-up seen with the data is the end once the data is read.
        if (revents & (POLLHUP | POLLERR)) closeNotifySocket(address, path, "bluetoothd closed it");
        return;
      }
      const std::string why = std::string("reading it failed: ") + std::strerror(errno);
      closeNotifySocket(address, path, why.c_str());
      return;
    }
    // A packet socket carries empty datagrams too; 0 is the end only when the peer is gone.
    if (n == 0 && peerClosed(fd)) {
      closeNotifySocket(address, path, "bluetoothd closed it");
      return;
    }
    if (static_cast<size_t>(n) > sizeof buffer) {
      QLTLog(
          "BlueZ: a notification of %zd bytes on %s is longer than any attribute value; "
          "dropped",
          n, path);
      continue;
    }
    deliverNotification(peripheral, characteristic, Data(buffer, static_cast<size_t>(n)));
  }
}

void BluezCentral::closeNotifySocket(const Address& address, const std::string& path,
                                     const char* why) {
  auto dev = devices_.find(address);
  if (dev == devices_.end()) return;
  Device& device = dev->second;
  auto socket = device.notifySockets.find(path);
  if (socket == device.notifySockets.end()) return;
  if (device.phase == Phase::Connected) {
    QLTLog("BlueZ: notifications of %s stopped: their socket closed (%s)", path, why);
  }
  loop_.unwatch(socket->second.watch);
  device.notifySockets.erase(socket);
  device.notifying.erase(path);
  // As when bluetoothd reports Notifying false: the characteristic says so, no callback.
  auto ch = device.characteristics.find(path);
  if (ch == device.characteristics.end()) return;
  auto characteristic = ch->second;
  deliverToPeripheral(peripheralFor(address), {},
                      [characteristic] { characteristic->setNotifying(false); });
}

}  // namespace qlt::bluez
