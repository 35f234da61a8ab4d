#include "Backends.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>

#include <gtest/gtest.h>

#include "platform/bluez/BluezCentral.h"

extern char** environ;

#ifndef QLT_TESTS_WITHOUT_BLUEZ
namespace qlt::test {

std::string Bluez::address(const std::string& name) {
  return name == "QLT-Echo"    ? "C0:FF:EE:00:00:01"
         : name == "QLT-Chunk" ? "C0:FF:EE:00:00:02"
                               : "C0:FF:EE:00:00:03";
}

Bluez::~Bluez() {
  if (toMock_ >= 0) ::close(toMock_);
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
  if (fromMock_ >= 0) ::close(fromMock_);
}

std::string Bluez::start() {
  if (std::system("command -v dbus-daemon >/dev/null 2>&1") != 0) return "skip: no dbus-daemon";
  if (std::system("/usr/bin/python3 -c 'import dbus, gi' >/dev/null 2>&1") != 0)
    return "skip: python3-dbus or python3-gi is missing for /usr/bin/python3";
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return "pipe failed";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  char python[] = "/usr/bin/python3", script[] = QLT_MOCK_BLUEZ, session[] = "--session";
  char* argv[] = {python, script, session, nullptr};
  ::unsetenv("QLT_MOCK_BLUEZ_DIR");
  const int rc = posix_spawn(&pid_, python, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  toMock_ = in[1];
  fromMock_ = out[0];
  std::string line;
  if (rc != 0 || !readLine(&line, 30000) || line.rfind("READY ", 0) != 0) {
    return "the mock bluetoothd did not start: " + line;
  }
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", line.substr(6).c_str(), 1);
  return "";
}

bool Bluez::readLine(std::string* line, int timeoutMs) {
  for (;;) {
    if (auto newline = buffer_.find('\n'); newline != std::string::npos) {
      *line = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      return true;
    }
    pollfd fd{fromMock_, POLLIN, 0};
    char chunk[4096];
    if (::poll(&fd, 1, timeoutMs) <= 0) return false;
    const ssize_t n = ::read(fromMock_, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

void Bluez::passTime(double seconds, platform::Central& central, DispatchQueue& queue) {
  auto& bluez = dynamic_cast<bluez::BluezCentral&>(central);
  const auto roundTrips = [&](int rounds) {
    auto done = std::make_shared<std::promise<void>>();
    bluez.afterRoundTrips(rounds, [done] { done->set_value(); });
    EXPECT_EQ(done->get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  };
  roundTrips(1);  // what the library was asked to send is on its way
  mock({{"op", "settle"}, {"seconds", seconds}});
  roundTrips(2);
  queue.sync([] {});
}

nlohmann::json Bluez::mock(nlohmann::json request) {
  const std::string text = request.dump() + "\n";
  std::string line = "(no answer)";
  if (::write(toMock_, text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
    // A restart announces itself again with READY once it is back.
    while (readLine(&line, 30000) && line.rfind("READY ", 0) == 0) {}
  }
  auto reply = nlohmann::json::parse(line, nullptr, false);
  if (!reply.is_object() || !reply.contains("ok")) {
    ADD_FAILURE() << "the mock refused " << request.dump() << ": " << line;
    return nullptr;
  }
  return reply["ok"];
}

}  // namespace qlt::test
#endif
