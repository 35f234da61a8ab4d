// Two UART links bridged in one poll() loop, on one thread: whatever "QLT-Source" sends goes
// to "QLT-Echo", and whatever "QLT-Echo" sends back goes to "QLT-Source". The loop waits on
// both links' descriptors (UartLink::fd) and never blocks in the library: read(0) takes what
// arrived, trySend() takes what fits in the send buffer and the rest waits for the
// descriptor to say there is room again.
//
// QLT-Source streams a counting pattern (byte i is i mod 251); the program checks that the
// echo of the first 64 kB comes back intact, then stops. On the simulated radio (QLT_PLATFORM=sim)
// both devices are always there.
#include <poll.h>

#include <QueltLibrary/UartLink.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// One direction of the bridge: bytes read from one link, waiting to go out on the other.
struct Pending {
  std::vector<uint8_t> bytes;
  // Hands over what the link takes now; keeps the rest.
  void pushTo(qlt::UartLink& link) {
    if (bytes.empty()) return;
    const size_t taken = link.trySend(qlt::Data(bytes.data(), bytes.size()));
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(taken));
  }
};

void append(std::vector<uint8_t>& to, const qlt::Data& data) {
  to.insert(to.end(), data.bytes(), data.bytes() + data.size());
}

}  // namespace

int main() {
  constexpr size_t kWanted = 64 * 1024;
  try {
    qlt::UartLink source, echo;
    source.connect("QLT-Source");
    echo.connect("QLT-Echo");
    Pending toEcho, toSource;
    size_t echoed = 0;
    bool intact = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (echoed < kWanted && std::chrono::steady_clock::now() < deadline) {
      pollfd fds[2] = {{source.fd(), POLLIN, 0}, {echo.fd(), POLLIN, 0}};
      if (::poll(fds, 2, 1000) < 0) return 1;
      // A readable descriptor: received bytes, a change of state, or room to send again.
      for (auto* link : {&source, &echo}) {
        if (link->state() != qlt::UartLink::State::Connected) {
          std::fprintf(stderr, "bridge: %s\n", link->lastError().c_str());
          return 1;
        }
      }
      append(toEcho.bytes, source.read(std::chrono::milliseconds(0)));
      const qlt::Data back = echo.read(std::chrono::milliseconds(0));
      for (size_t i = 0; i < back.size(); ++i) {
        intact = intact && back.bytes()[i] == (echoed + i) % 251;
      }
      echoed += back.size();
      append(toSource.bytes, back);
      toEcho.pushTo(echo);
      toSource.pushTo(source);
    }
    std::printf("bridged %zu bytes from QLT-Source through QLT-Echo and back: %s\n", echoed,
                echoed >= kWanted && intact ? "intact" : "NOT intact");
    return echoed >= kWanted && intact ? 0 : 1;
  } catch (const qlt::UartLink::Error& e) {
    std::fprintf(stderr, "bridge: %s\n", e.what());
    return 1;
  }
}
