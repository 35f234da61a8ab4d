// qlt bridge as a user runs it: a binary file through stdin/stdout, a pseudo-terminal and a
// TCP socket to the simulated echo device over a lossy air, byte for byte.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "RunTool.h"

namespace qlt::test {
namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class ABridge : public ::testing::Test {
 protected:
  void SetUp() override {
    uint32_t x = 12345;
    for (size_t i = 0; i < 80000; ++i) {  // every byte value, in no simple order
      x = x * 1103515245 + 12345;
      data_.push_back(static_cast<char>(i < 256 ? i : x >> 24));
    }
    std::ofstream(dir_.path() + "/in.bin", std::ios::binary) << data_;
    std::ofstream(radio_) << R"({"faults": {"seed": 7, "lostWritesWithoutResponse": 0.05,
        "lostNotifications": 0.05}, "devices": [{"identifier":
        "B21D0E00-0000-4000-8000-000000000001", "name": "Echo", "behaviour": "sw-echo"}]})";
  }
  void TearDown() override {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  // Starts qlt bridge Echo `args` with stdin from `in`, stdout and stderr into files.
  void start(std::vector<std::string> args, const std::string& in = "/dev/null") {
    args.insert(args.begin(), {"bridge", "Echo", "--sim-config", radio_});
    std::vector<std::string> env = toolEnvironment(dir_.path(), {});
    std::vector<char*> argv{const_cast<char*>(QLT_TOOL_PATH)}, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const int fds[3] = {::open(in.c_str(), O_RDONLY | O_CLOEXEC),
                        ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
                        ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    pid_ = ::fork();
    if (pid_ == 0) {
      for (int i = 0; i < 3; ++i) ::dup2(fds[i], i);
      ::execve(QLT_TOOL_PATH, argv.data(), envp.data());
      ::_exit(127);
    }
    for (const int fd : fds) ::close(fd);
  }
  // The first line the bridge prints (where to connect), or "" after 20 s.
  std::string where() {
    for (const auto start = Clock::now(); Clock::now() - start < std::chrono::seconds(20);) {
      const std::string out = readFile(out_);
      if (out.find('\n') != std::string::npos) return out.substr(0, out.find('\n'));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return "";
  }
  int exitCode(double limitS = 60) {
    for (const auto start = Clock::now();
         Clock::now() - start < std::chrono::duration<double>(limitS);) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -2;
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

  TempDir dir_;
  const std::string radio_ = dir_.path() + "/radio.json";
  const std::string out_ = dir_.path() + "/out", err_ = dir_.path() + "/err";
  std::string data_;
  pid_t pid_ = -1;
};

TEST_F(ABridge, CarriesAFileFromStdinToStdoutAndEndsWithTheInput) {
  start({"--linger", "5"}, dir_.path() + "/in.bin");
  ASSERT_EQ(exitCode(), 0) << readFile(err_);
  EXPECT_TRUE(readFile(out_) == data_) << readFile(out_).size() << " bytes came back";
  EXPECT_NE(readFile(err_).find("80000 bytes to the device (80000 acknowledged), 80000 bytes"),
            std::string::npos)
      << readFile(err_);
}

TEST_F(ABridge, CarriesAFileThroughARawPseudoTerminalThatMayBeReopened) {
  const std::string link = dir_.path() + "/ttyBLE";
  start({"--pty", "--link", link});
  const std::string path = where();
  ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << readFile(err_);
  for (const std::string& bytes : {data_, std::string("again\r\n\x03\x04", 9)}) {
    const int fd = ::open(link.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(exchange(fd, bytes) == bytes) << readFile(err_);
    ::close(fd);
  }
  ::kill(pid_, SIGINT);
  EXPECT_EQ(exitCode(), 130);
  EXPECT_NE(::access(link.c_str(), F_OK), 0);  // the link went with the bridge
  EXPECT_NE(readFile(err_).find("80009 bytes to the device"), std::string::npos) << readFile(err_);
}

TEST_F(ABridge, CarriesAFileForOneTcpClientAtATime) {
  start({"--tcp", "127.0.0.1:0"});
  const std::string at = where();
  ASSERT_FALSE(at.empty()) << readFile(err_);
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
  EXPECT_TRUE(exchange(first, data_) == data_) << readFile(err_);
  const int second = dial();  // refused while the first is there
  pollfd closed{second, POLLIN, 0};
  char byte;
  EXPECT_TRUE(::poll(&closed, 1, 10000) == 1 && ::read(second, &byte, 1) == 0);
  ::close(second);
  ::close(first);  // which lets the next one in
  const int third = dial();
  EXPECT_EQ(exchange(third, "next"), "next") << readFile(err_);
  ::close(third);
  ::kill(pid_, SIGTERM);
  EXPECT_EQ(exitCode(), 130);
}

TEST_F(ABridge, RefusesABadAddressOrALinkOverAFile) {
  const std::string file = dir_.path() + "/precious";
  std::ofstream(file) << "keep me";
  const std::vector<std::pair<std::vector<std::string>, int>> cases{
      {{"--pty", "--link", file}, 1}, {{"--tcp", "70000"}, 2}, {{"--tcp", "host:"}, 2},
      {{"--tcp", "::1:80"}, 2},       {{"--tcp", "7x"}, 2},    {{"--tcp", "1", "--pty"}, 2}};
  for (const auto& [args, code] : cases) {
    std::vector<std::string> all{"bridge", "Echo", "--sim-config", radio_};
    all.insert(all.end(), args.begin(), args.end());
    EXPECT_EQ(runTool(all, dir_.path(), 30).exitCode, code) << args[1];
  }
  EXPECT_EQ(readFile(file), "keep me");
}

}  // namespace
}  // namespace qlt::test
