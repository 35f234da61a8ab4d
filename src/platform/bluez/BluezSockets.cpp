#include "platform/bluez/BluezSockets.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "QueltLibrary/Log.h"
#include "platform/bluez/BluezProperties.h"

namespace qlt::bluez {

namespace {

// Datagrams read from a notification socket in one round, so that a flood of them does not
// hold up the bus and posted tasks.
constexpr int kNotificationsPerRound = 64;
// Larger than any attribute value (512 bytes); MSG_TRUNC tells the length of a longer one,
// which is dropped where every notification is checked.
constexpr size_t kNotificationBuffer = 1024;

bool peerClosed(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR));
}

}  // namespace

bool limitSendBuffer(int fd) {
  const int size = kWriteSocketBuffer;
  return ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) == 0;
}

SocketPath::Sockets& SocketPath::of(const Address& device) {
  auto [it, made] = links_.try_emplace(device);
  if (made) it->second.epoch = nextEpoch_++;
  return it->second;
}

SocketPath::Sockets* SocketPath::current(const Address& device, uint64_t epoch) {
  auto it = links_.find(device);
  return it != links_.end() && it->second.epoch == epoch ? &it->second : nullptr;
}

void SocketPath::close(const Address& device) {
  QLT_ASSERT_BUS_THREAD(port_);
  links_.erase(device);  // every descriptor and watch goes with it
}

std::optional<SocketPath::Socket> SocketPath::adopt(sdbus::MethodReply& reply,
                                                    const std::string& path, const char* method) {
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
  Socket socket;
  socket.fd = std::move(fd);
  socket.mtu = mtu;
  return socket;
}

// ------------------------------------------------------------------------------------------
// Writes without response

void SocketPath::write(const Address& device, const std::string& path, Data data, bool offered,
                       int linkMtu) {
  QLT_ASSERT_BUS_THREAD(port_);
  WriteChannel& channel = of(device).writes[path];
  if (linkMtu > 0) channel.linkMtu = linkMtu;
  if (channel.mode == WriteMode::Untried) {
    channel.mode = offered ? WriteMode::Acquiring : WriteMode::Method;
    if (offered) acquireWrite(device, path);
  }
  if (channel.mode == WriteMode::Acquiring) {
    if (channel.held.size() >= GattQueue::kMaxCommandsPerDevice) {
      gatt_.dropCommand(path, "too many wait for the AcquireWrite reply");
      return;
    }
    channel.held.push_back(std::move(data));
    return;
  }
  if (channel.mode == WriteMode::Socket && sendOnSocket(device, path, channel, data)) return;
  const int mtu = channel.linkMtu;
  if (mtu > 0 && data.size() > platform::attPayloadLength(mtu)) {
    QLTLog(
        "BlueZ: write without response of %zu bytes to %s does not fit the link: at most "
        "%d bytes (MTU %d - 3); bluetoothd will refuse it",
        data.size(), path, platform::attPayloadLength(mtu), mtu);
  }
  gatt_.command(device, path, std::move(data));
}

void SocketPath::acquireWrite(const Address& device, const std::string& path) {
  port_.call(
      path, kCharacteristicInterface, "AcquireWrite",
      [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; }, callTimeout_,
      [this, device, epoch = of(device).epoch, path](sdbus::MethodReply* reply,
                                                     const platform::Error* error) {
        Sockets* link = current(device, epoch);
        if (!link) return;  // an earlier link's reply; its descriptor closes with the message
        auto ch = link->writes.find(path);
        if (ch == link->writes.end() || ch->second.mode != WriteMode::Acquiring) return;
        WriteChannel& channel = ch->second;
        std::optional<Socket> socket;
        if (error) {
          QLTLog("BlueZ: AcquireWrite of %s failed: %s; writing with WriteValue", path,
                 error->description());
        } else if (reply) {
          socket = adopt(*reply, path, "AcquireWrite");
        }
        if (socket && !limitSendBuffer(socket->fd.get())) {
          QLTLog(
              "BlueZ: AcquireWrite of %s: cannot shrink its send buffer (errno %d); using it "
              "as it is",
              path, errno);
        }
        if (socket) {
          QLTLog("BlueZ: %s: writing without response on an acquired socket (MTU %d)", path,
                 static_cast<int>(socket->mtu));
          channel.socket = std::move(*socket);
          channel.mode = WriteMode::Socket;
          // Nothing is read from a write socket: the watch (no events asked for) only
          // reports bluetoothd closing its end.
          channel.socket.watch =
              port_.watch(channel.socket.fd.get(), 0, [this, device, path](short) {
                fallBackToMethod(device, path, "bluetoothd closed the write socket");
              });
        } else {
          channel.mode = WriteMode::Method;
        }
        std::deque<Data> held;
        held.swap(channel.held);
        for (auto& data : held) write(device, path, std::move(data), false, 0);
      });
}

bool SocketPath::sendOnSocket(const Address& device, const std::string& path, WriteChannel& channel,
                              const Data& data) {
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
      gatt_.dropCommand(path, "its acquired socket is full");
      return true;
    }
    break;
  }
  const std::string why =
      std::string("the write socket failed: ") + std::generic_category().message(errno);
  fallBackToMethod(device, path, why.c_str());
  return false;
}

void SocketPath::fallBackToMethod(const Address& device, const std::string& path, const char* why) {
  auto link = links_.find(device);
  if (link == links_.end()) return;
  auto ch = link->second.writes.find(path);
  if (ch == link->second.writes.end() || ch->second.mode != WriteMode::Socket) return;
  if (!link->second.ending) {
    QLTLog("BlueZ: %s: %s; writing with WriteValue for the rest of this link", path, why);
  }
  ch->second.socket = Socket{};
  ch->second.mode = WriteMode::Method;
}

// ------------------------------------------------------------------------------------------
// Notifications

bool SocketPath::notifiesBySocket(const Address& device, const std::string& path) const {
  auto link = links_.find(device);
  return link != links_.end() && link->second.notifies.count(path);
}

bool SocketPath::stopNotify(const Address& device, const std::string& path) {
  QLT_ASSERT_BUS_THREAD(port_);
  auto link = links_.find(device);
  if (link == links_.end()) return false;
  return link->second.notifies.erase(path) + link->second.notifyAcquiring.erase(path) > 0;
}

bool SocketPath::acquireNotify(const Address& device, const std::string& path) {
  QLT_ASSERT_BUS_THREAD(port_);
  Sockets& link = of(device);
  if (!link.notifyAcquiring.insert(path).second) return false;
  port_.call(
      path, kCharacteristicInterface, "AcquireNotify",
      [](sdbus::MethodCall& m) { m << std::map<std::string, sdbus::Variant>{}; }, callTimeout_,
      [this, device, epoch = link.epoch, path](sdbus::MethodReply* reply,
                                               const platform::Error* error) {
        Sockets* link = current(device, epoch);
        if (!link || !link->notifyAcquiring.erase(path)) return;  // switched off meanwhile
        std::optional<Socket> socket;
        if (error) {
          QLTLog("BlueZ: AcquireNotify of %s failed: %s; asking with StartNotify", path,
                 error->description());
        } else if (reply) {
          socket = adopt(*reply, path, "AcquireNotify");
        }
        if (socket) {
          socket->watch = port_.watch(
              socket->fd.get(), POLLIN,
              [this, device, path](short revents) { readNotifications(device, path, revents); });
          link->notifies[path] = std::move(*socket);
        }
        listener_.notifyAcquired(device, path, socket.has_value());
      });
  return true;
}

void SocketPath::readNotifications(const Address& device, const std::string& path, short revents) {
  auto link = links_.find(device);
  if (link == links_.end()) return;
  auto socket = link->second.notifies.find(path);
  if (socket == link->second.notifies.end()) return;
  const int fd = socket->second.fd.get();
  uint8_t buffer[kNotificationBuffer];
  for (int i = 0; i < kNotificationsPerRound; ++i) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        // Drained. A hang-up seen with the data is the end once the data is read.
        if (revents & (POLLHUP | POLLERR)) closeNotify(device, path, "bluetoothd closed it");
        return;
      }
      const std::string why =
          std::string("reading it failed: ") + std::generic_category().message(errno);
      closeNotify(device, path, why.c_str());
      return;
    }
    // A packet socket carries empty datagrams too; 0 is the end only when the peer is gone.
    if (n == 0 && peerClosed(fd)) {
      closeNotify(device, path, "bluetoothd closed it");
      return;
    }
    const size_t length = static_cast<size_t>(n);
    listener_.socketNotification(device, path, length,
                                 length > sizeof buffer ? Data() : Data(buffer, length));
    // The listener may have closed the socket (switched notifications off).
    if (!notifiesBySocket(device, path)) return;
  }
}

void SocketPath::closeNotify(const Address& device, const std::string& path, const char* why) {
  auto link = links_.find(device);
  if (link == links_.end() || !link->second.notifies.count(path)) return;
  if (!link->second.ending) {
    QLTLog("BlueZ: notifications of %s stopped: their socket closed (%s)", path, why);
  }
  link->second.notifies.erase(path);
  listener_.notifySocketClosed(device, path);
}

}  // namespace qlt::bluez
