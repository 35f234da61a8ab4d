#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "easy/LinkWaits.h"

namespace qlt {

LevelFd::LevelFd() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (fd_ < 0) throw std::runtime_error("eventfd: errno " + std::to_string(errno));
}

LevelFd::~LevelFd() { ::close(fd_); }

void LevelFd::set(bool readable) {
  if (readable == readable_) return;
  uint64_t value = 1;
  // A counter far from overflow cannot refuse the write, and a readable one gives its value
  // back; either way the level follows readable_.
  const ssize_t n =
      readable ? ::write(fd_, &value, sizeof value) : ::read(fd_, &value, sizeof value);
  if (n == sizeof value) readable_ = readable;
}

}  // namespace qlt
