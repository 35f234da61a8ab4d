// qlt bridge as a user runs it: a binary file through stdin/stdout, a pseudo-terminal and a
// TCP socket to the simulated echo device over a lossy air, byte for byte.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "RunTool.h"

namespace qlt::test {
namespace {

using Clock = std::chrono::steady_clock;

class ABridge : public ToolTest {
 protected:
  void SetUp() override {
    uint32_t x = 12345;
    for (size_t i = 0; i < 80000; ++i) {  // every byte value, in no simple order
      x = x * 1103515245 + 12345;
      data_.push_back(static_cast<char>(i < 256 ? i : x >> 24));
    }
    std::ofstream(radio_) << R"({"faults": {"seed": 7, "lostWritesWithoutResponse": 0.05,
        "lostNotifications": 0.05}, "devices": [{"identifier":
        "B21D0E00-0000-4000-8000-000000000001", "name": "Echo", "behaviour": "sw-echo"}]})";
  }
  // qlt bridge Echo `args`; once it has said where to connect (its first line), `use` runs with
  // that line, then `signal` is sent.
  ToolRun bridge(std::vector<std::string> args, std::function<void(const std::string&)> use,
                 int signal) {
    args.insert(args.begin(), {"bridge", "Echo", "--sim-config", radio_});
    return qlt(args, 120, {.steps = {{.expect = "\n", .signal = signal, .then = [&](auto& out) {
                                        use(out.substr(0, out.find('\n')));
                                      }}}});
  }
  // Writes `bytes` into fd while reading back as many; what came back.
  static std::string exchange(int fd, const std::string& bytes, double limitS = 60) {
    std::string back;
    size_t sent = 0;
    const auto start = Clock::now();
    while (back.size() < bytes.size() &&
           Clock::now() - start < std::chrono::duration<double>(limitS)) {
      pollfd p{fd, static_cast<short>(POLLIN | (sent < bytes.size() ? POLLOUT : 0)), 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      if (p.revents & POLLOUT) {
        const ssize_t n =
            ::write(fd, bytes.data() + sent, std::min<size_t>(1000, bytes.size() - sent));
        if (n > 0) sent += static_cast<size_t>(n);
      }
      char buf[4096];
      const ssize_t n = (p.revents & POLLIN) ? ::read(fd, buf, sizeof buf) : 0;
      if (n > 0) back.append(buf, static_cast<size_t>(n));
      if (p.revents & (POLLHUP | POLLERR)) break;
    }
    return back;
  }

  const std::string radio_ = store_.path() + "/radio.json";
  std::string data_;
};

TEST_F(ABridge, CarriesAFileFromStdinToStdoutAndEndsWithTheInput) {
  const auto run =
      qlt({"bridge", "Echo", "--sim-config", radio_, "--linger", "5"}, 60, withStdin(data_));
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(run.out == data_) << run.out.size() << " bytes came back";
  EXPECT_NE(run.err.find("80000 bytes to the device (80000 acknowledged), 80000 bytes"),
            std::string::npos)
      << run.err;
}

// A link that drops after every 5000 packets (about a fifth of the megabyte each way, with
// tens of kilobytes in flight): with --reconnect the session resumes on each new link, and
// the whole megabyte comes back once, in order.
TEST_F(ABridge, CarriesAMegabyteExactlyOnceThroughLinksThatKeepDropping) {
  std::ofstream(radio_) << R"({"faults": {"seed": 7, "lostWritesWithoutResponse": 0.01,
      "lostNotifications": 0.01, "dropAfterPackets": 5000}, "devices": [{"identifier":
      "B21D0E00-0000-4000-8000-000000000001", "name": "Echo", "behaviour": "sw-echo"}]})";
  std::string data;
  while (data.size() < (size_t{1} << 20)) data += data_;
  data.resize(size_t{1} << 20);
  const auto run =
      qlt({"bridge", "Echo", "--sim-config", radio_, "--reconnect"}, 120, withStdin(data));
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(run.out == data) << run.out.size() << " bytes came back";
  size_t reconnects = 0;
  for (size_t at = 0;
       (at = run.err.find("qlt bridge: reconnected to 'Echo'", at)) != std::string::npos; ++at)
    ++reconnects;
  EXPECT_GE(reconnects, 3u) << run.err;
  EXPECT_NE(run.err.find("bytes unconfirmed, kept for the next link; reconnecting in"),
            std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.find("new session"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("1048576 bytes to the device (1048576 acknowledged), 1048576 bytes"),
            std::string::npos)
      << run.err;
}

TEST_F(ABridge, CarriesAFileThroughARawPseudoTerminalThatMayBeReopened) {
  const std::string link = store_.path() + "/ttyBLE";
  const auto run = bridge(
      {"--pty", "--link", link},
      [&](const std::string& path) {
        ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u);
        for (const std::string& bytes : {data_, std::string("again\r\n\x03\x04", 9)}) {
          const int fd = ::open(link.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
          ASSERT_GE(fd, 0);
          EXPECT_TRUE(exchange(fd, bytes) == bytes);
          ::close(fd);
        }
      },
      SIGINT);
  EXPECT_EQ(run.exitCode, 130) << run.err;
  EXPECT_FALSE(std::filesystem::is_symlink(link));  // the link went with the bridge
  EXPECT_NE(run.err.find("80009 bytes to the device"), std::string::npos) << run.err;
}

TEST_F(ABridge, CarriesAFileForOneTcpClientAtATime) {
  const auto run = bridge(
      {"--tcp", "127.0.0.1:0"},
      [&](const std::string& at) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(at.substr(at.rfind(':') + 1))));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto dial = [&] {
          const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
          EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
          return fd;
        };
        const int first = dial();
        EXPECT_TRUE(exchange(first, data_) == data_);
        const int second = dial();  // refused while the first is there
        pollfd closed{second, POLLIN, 0};
        char byte;
        EXPECT_TRUE(::poll(&closed, 1, 10000) == 1 && ::read(second, &byte, 1) == 0);
        ::close(second);
        ::close(first);  // which lets the next one in
        const int third = dial();
        EXPECT_EQ(exchange(third, "next"), "next");
        ::close(third);
      },
      SIGTERM);
  EXPECT_EQ(run.exitCode, 130) << run.err;
}

}  // namespace
}  // namespace qlt::test
