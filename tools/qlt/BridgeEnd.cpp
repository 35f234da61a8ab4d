#include "BridgeEnd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "Errors.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

std::string osMessage(int error) { return std::generic_category().message(error); }

// "127.0.0.1:7000", "[::1]:7000".
std::string describeAddress(const sockaddr* address) {
  char host[INET6_ADDRSTRLEN] = "?";
  uint16_t port = 0;
  if (address->sa_family == AF_INET6) {
    const auto* a = reinterpret_cast<const sockaddr_in6*>(address);
    ::inet_ntop(AF_INET6, &a->sin6_addr, host, sizeof host);
    port = ntohs(a->sin6_port);
    return "[" + std::string(host) + "]:" + std::to_string(port);
  }
  const auto* a = reinterpret_cast<const sockaddr_in*>(address);
  ::inet_ntop(AF_INET, &a->sin_addr, host, sizeof host);
  port = ntohs(a->sin_port);
  return std::string(host) + ":" + std::to_string(port);
}

}  // namespace

void parseListenAddress(const std::string& address, std::string& host, uint16_t& port) {
  const auto bad = [&](const std::string& why) {
    return UsageError("--tcp: '" + address + "' " + why +
                      " (use PORT, :PORT, HOST:PORT or [IPv6]:PORT)");
  };
  std::string portText = address;
  host.clear();
  if (!address.empty() && address[0] == '[') {
    const size_t close = address.find("]:");
    if (close == std::string::npos) throw bad("has no ']:PORT'");
    host = address.substr(1, close - 1);
    portText = address.substr(close + 2);
  } else if (const size_t colon = address.rfind(':'); colon != std::string::npos) {
    host = address.substr(0, colon);
    portText = address.substr(colon + 1);
    if (host.find(':') != std::string::npos) throw bad("needs brackets round an IPv6 address");
  }
  if (portText.empty() || portText.size() > 5 ||
      portText.find_first_not_of("0123456789") != std::string::npos || std::stoul(portText) > 65535)
    throw bad("has no port number between 0 and 65535");
  port = static_cast<uint16_t>(std::stoul(portText));
  if (host.empty()) host = "127.0.0.1";
}

std::unique_ptr<BridgeEnd> BridgeEnd::standardStreams() {
  std::unique_ptr<BridgeEnd> end(new BridgeEnd(Kind::Streams));
  end->inFd_ = STDIN_FILENO;
  end->outFd_ = STDOUT_FILENO;
  return end;
}

std::unique_ptr<BridgeEnd> BridgeEnd::pseudoTerminal(const std::string& linkPath) {
  std::unique_ptr<BridgeEnd> end(new BridgeEnd(Kind::Terminal));
  struct stat st {};
  if (!linkPath.empty() && ::lstat(linkPath.c_str(), &st) == 0 && !S_ISLNK(st.st_mode))
    throw Failure("--link: '" + linkPath + "' exists and is not a symbolic link; left as it is");
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (master < 0) throw Failure("cannot make a pseudo-terminal: " + osMessage(errno));
  end->inFd_ = end->outFd_ = master;
  char name[PATH_MAX];
  if (::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
      ::ptsname_r(master, name, sizeof name) != 0)
    throw Failure("cannot make a pseudo-terminal: " + osMessage(errno));
  end->where_ = name;
  // Held open for the bridge's life: a client's close then never hangs the master up.
  end->slaveFd_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios raw{};
  if (end->slaveFd_ < 0 || ::tcgetattr(end->slaveFd_, &raw) != 0)
    throw Failure("cannot open '" + end->where_ + "': " + osMessage(errno));
  ::cfmakeraw(&raw);
  if (::tcsetattr(end->slaveFd_, TCSANOW, &raw) != 0)
    throw Failure("cannot make '" + end->where_ + "' raw: " + osMessage(errno));
  if (!linkPath.empty()) {
    // Made beside the target and renamed over it: an old link is replaced in one step.
    const std::string temporary = linkPath + ".bridge-" + std::to_string(::getpid());
    ::unlink(temporary.c_str());
    if (::symlink(name, temporary.c_str()) != 0)
      throw Failure("--link: cannot make '" + linkPath + "': " + osMessage(errno));
    if (::lstat(linkPath.c_str(), &st) == 0 && !S_ISLNK(st.st_mode)) {  // appeared meanwhile
      ::unlink(temporary.c_str());
      throw Failure("--link: '" + linkPath + "' exists and is not a symbolic link; left as it is");
    }
    if (std::rename(temporary.c_str(), linkPath.c_str()) != 0) {
      const int error = errno;
      ::unlink(temporary.c_str());
      throw Failure("--link: cannot make '" + linkPath + "': " + osMessage(error));
    }
    end->linkPath_ = linkPath;
  }
  return end;
}

std::unique_ptr<BridgeEnd> BridgeEnd::tcpListener(const std::string& address) {
  std::string host;
  uint16_t port = 0;
  parseListenAddress(address, host, port);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int e = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found))
    throw UsageError("--tcp: cannot listen on '" + host + "': " + ::gai_strerror(e));
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, ::freeaddrinfo);
  std::unique_ptr<BridgeEnd> end(new BridgeEnd(Kind::Tcp));
  end->listenFd_ = ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int yes = 1;
  if (end->listenFd_ < 0 ||
      ::setsockopt(end->listenFd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
      ::bind(end->listenFd_, found->ai_addr, found->ai_addrlen) != 0 ||
      ::listen(end->listenFd_, 4) != 0)
    throw Failure("cannot listen on " + address + ": " + osMessage(errno));
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  ::getsockname(end->listenFd_, reinterpret_cast<sockaddr*>(&bound), &length);
  end->where_ = describeAddress(reinterpret_cast<const sockaddr*>(&bound));
  return end;
}

BridgeEnd::~BridgeEnd() {
  if (!linkPath_.empty()) {
    char target[PATH_MAX];
    const ssize_t n = ::readlink(linkPath_.c_str(), target, sizeof target - 1);
    if (n > 0 && std::string(target, static_cast<size_t>(n)) == where_) ::unlink(linkPath_.c_str());
  }
  if (kind_ == Kind::Streams) return;  // stdin and stdout stay open
  for (const int fd : {inFd_, listenFd_, slaveFd_})
    if (fd >= 0) ::close(fd);
}

void BridgeEnd::accept() {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  const int fd = ::accept4(listenFd_, reinterpret_cast<sockaddr*>(&peer), &length,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return;  // gone again before it was taken
  const std::string name = describeAddress(reinterpret_cast<const sockaddr*>(&peer));
  if (inFd_ >= 0) {
    ::close(fd);
    printError("qlt bridge: refused a client from " + name + ": " + clientName_ +
               " is connected (one client at a time)");
    return;
  }
  inFd_ = outFd_ = fd;
  clientName_ = name;
  printError("qlt bridge: client " + name + " connected");
}

void BridgeEnd::dropClient(const std::string& why) {
  ::close(inFd_);
  inFd_ = outFd_ = -1;
  printError("qlt bridge: client " + clientName_ + " " + why);
  clientName_.clear();
}

size_t BridgeEnd::read(uint8_t* buffer, size_t size) {
  const ssize_t n = ::read(inFd_, buffer, size);
  if (n > 0) return static_cast<size_t>(n);
  const int error = n < 0 ? errno : 0;
  if (error == EINTR || error == EAGAIN) return 0;
  if (kind_ == Kind::Tcp) {
    dropClient(error ? "left: " + osMessage(error) : "left");
  } else if (kind_ == Kind::Streams) {
    if (error) throw Failure("cannot read standard input: " + osMessage(error));
    inFd_ = -1;
    inputEnded_ = true;
  }
  // A terminal whose slave side is held open reports neither an end nor an error.
  return 0;
}

size_t BridgeEnd::write(const uint8_t* data, size_t size) {
  const ssize_t n = ::write(outFd_, data, size);
  if (n >= 0) return static_cast<size_t>(n);
  const int error = errno;
  if (error == EINTR || error == EAGAIN) return 0;
  if (kind_ == Kind::Streams) throw Failure("cannot write to standard output: " + osMessage(error));
  if (kind_ == Kind::Tcp) dropClient("left: " + osMessage(error));
  return 0;
}

}  // namespace qlt::cli
