// qlt chat through a pseudo-terminal: type a line, see the echo, Ctrl-D leaves cleanly.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "RunTool.h"

namespace qlt::test {
namespace {

class AChatOnATerminal : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto& e : toolEnvironment(store_.path(), {"TERM=xterm"}))
      envp_.push_back(strdup(e.c_str()));
    envp_.push_back(nullptr);
  }
  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0) ::close(master_);
    for (char* e : envp_) free(e);
  }

  void start(std::vector<std::string> args) {
    std::vector<char*> argv{const_cast<char*>(QLT_TOOL_PATH)};
    for (auto& a : args_ = std::move(args)) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::forkpty(&master_, nullptr, nullptr, nullptr);
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      ::execve(QLT_TOOL_PATH, argv.data(), envp_.data());
      ::_exit(127);
    }
  }

  // Reads from the terminal until `text` has appeared (true) or `limitS` has passed.
  bool readUntil(const std::string& text, double limitS = 15) {
    const auto start = std::chrono::steady_clock::now();
    while (screen_.find(text) == std::string::npos) {
      if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > limitS)
        return false;
      pollfd p{master_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::read(master_, buf, sizeof buf);
      if (n <= 0) return screen_.find(text) != std::string::npos;
      screen_.append(buf, static_cast<size_t>(n));
    }
    return true;
  }

  void type(const std::string& keys) {
    ASSERT_EQ(::write(master_, keys.data(), keys.size()), (ssize_t)keys.size());
  }

  // Waits for the process to end; its exit code, or -1 after `limitS`.
  int exitCode(double limitS = 15) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
      readUntil("\x01never", 0.05);  // keep draining the terminal
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > limitS)
        return -1;
    }
  }

  TempDir store_;
  std::vector<char*> envp_;
  std::vector<std::string> args_;
  pid_t pid_ = -1;
  int master_ = -1;
  std::string screen_;
};

// Ctrl-D leaves cleanly (exit 0); Ctrl-C, a closed terminal (SIGHUP) and SIGTERM
// disconnect as cleanly, then exit 130.
TEST_F(AChatOnATerminal, EchoesTypedLinesAndDisconnectsHoweverItIsLeft) {
  for (const int signal : {-1, 0, SIGHUP, SIGTERM}) {
    SCOPED_TRACE(signal);
    screen_.clear();
    start({"chat", "QLT-Chunk", "--transport", "nus", "--trace"});
    ASSERT_TRUE(readUntil("Ctrl-D to leave")) << screen_;
    type("ping\n");
    ASSERT_TRUE(readUntil("< ping")) << screen_;
    EXPECT_NE(screen_.find("→ chunk 5 B"), std::string::npos) << screen_;  // with "\n"
    if (signal <= 0) {
      type(signal < 0 ? "\x04" : "\x03");  // Ctrl-D, Ctrl-C
    } else {
      ::kill(pid_, signal);
    }
    EXPECT_EQ(exitCode(), signal < 0 ? 0 : 130) << screen_;
    EXPECT_NE(screen_.find("[disconnected]"), std::string::npos) << screen_;
    ::close(master_);
    master_ = -1;
  }
}

}  // namespace
}  // namespace qlt::test
