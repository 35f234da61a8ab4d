#include "MockBluez.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "QueltLibrary/DispatchQueue.h"

extern char** environ;

namespace qlt::test {

namespace {

const char* const kPython = "/usr/bin/python3";

std::string sessionScript() {
  return (std::filesystem::path(__FILE__).parent_path() / "mock_session.py").string();
}

bool runQuietly(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace

std::string MockBluez::unavailableReason() {
  if (!runQuietly("command -v dbus-daemon") && access("/usr/bin/dbus-daemon", X_OK) != 0) {
    return "dbus-daemon is not installed (apt-get install dbus-daemon)";
  }
  if (access(kPython, X_OK) != 0) return "/usr/bin/python3 is not installed";
  if (!runQuietly(std::string(kPython) + " -c 'import dbusmock, dbus, gi'")) {
    return "python3-dbusmock (with python3-dbus and python3-gi) is not installed for "
           "/usr/bin/python3 (apt-get install python3-dbusmock)";
  }
  return "";
}

MockBluez::~MockBluez() {
  if (toChild_ >= 0) ::close(toChild_);  // end of input: the session tears everything down
  if (pid_ > 0) {
    for (int i = 0; i < 200; ++i) {  // up to 10 s
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      ::usleep(50000);
    }
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  if (fromChild_ >= 0) ::close(fromChild_);
}

bool MockBluez::start(const std::vector<std::string>& arguments, std::string* error) {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    *error = "pipe failed";
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  std::vector<std::string> argv = {kPython, "-u", sessionScript()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> cargv;
  for (auto& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  const int rc = posix_spawn(&pid_, kPython, &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  toChild_ = in[1];
  fromChild_ = out[0];
  if (rc != 0) {
    pid_ = -1;
    *error = "cannot start " + sessionScript();
    return false;
  }
  std::string line;
  if (!readLine(&line, std::chrono::seconds(60))) {
    *error = "the mock session did not start within 60 s";
    return false;
  }
  if (line.rfind("READY ", 0) != 0) {
    *error = "the mock session failed: " + line;
    return false;
  }
  address_ = line.substr(6);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
  return true;
}

bool MockBluez::readLine(std::string* line, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      *line = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd fd{fromChild_, POLLIN, 0};
    const int ready = ::poll(&fd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[4096];
    const ssize_t n = ::read(fromChild_, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

nlohmann::json MockBluez::request(const nlohmann::json& request) {
  const std::string text = request.dump() + "\n";
  if (::write(toChild_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    return {{"error", "session.Broken"}, {"message", "cannot write to the mock session"}};
  }
  std::string line;
  if (!readLine(&line, std::chrono::seconds(30))) {
    return {{"error", "session.Timeout"}, {"message", "no answer from the mock session"}};
  }
  try {
    return nlohmann::json::parse(line);
  } catch (const std::exception& e) {
    return {{"error", "session.Garbled"}, {"message", line}};
  }
}

nlohmann::json MockBluez::control(const std::string& method, const std::string& signature,
                                  const nlohmann::json& args) {
  auto reply = request({{"op", "call"},
                        {"path", "/org/bluez/test"},
                        {"iface", "org.bluez.Test"},
                        {"method", method},
                        {"signature", signature},
                        {"args", args}});
  if (reply.contains("error")) {
    ADD_FAILURE() << "org.bluez.Test." << method << " failed: " << reply.dump();
    return nullptr;
  }
  return reply["ok"];
}

std::string MockBluez::log() {
  auto reply = request({{"op", "log"}});
  return reply.contains("ok") ? reply["ok"].get<std::string>() : reply.dump();
}

// ------------------------------------------------------------------------------------------

void Recorder::record(Event event) {
  event.queue = DispatchQueue::currentLabel();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }
  cv_.notify_all();
}

void Recorder::centralManagerDidUpdateState(platform::Central& central) {
  Event e{"state"};
  e.state = central.state();
  record(std::move(e));
}

void Recorder::centralManager_didDiscoverPeripheral_advertisementData_RSSI(
    platform::Central&, const std::shared_ptr<platform::Peripheral>& peripheral,
    const platform::AdvertisementData& advertisementData, int rssi) {
  Event e{"discover", peripheral};
  e.advertisement = advertisementData;
  e.rssi = rssi;
  record(std::move(e));
}

void Recorder::centralManager_didConnectPeripheral(
    platform::Central&, const std::shared_ptr<platform::Peripheral>& peripheral) {
  record(Event{"connect", peripheral});
}

void Recorder::centralManager_didFailToConnectPeripheral_error(
    platform::Central&, const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  record(Event{"fail", peripheral, error});
}

void Recorder::centralManager_didDisconnectPeripheral_error(
    platform::Central&, const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  record(Event{"disconnect", peripheral, error});
}

void Recorder::peripheral_didDiscoverServices(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::optional<platform::Error>& error) {
  record(Event{"services", peripheral, error});
}

void Recorder::peripheral_didDiscoverCharacteristicsForService_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Service>& service,
    const std::optional<platform::Error>& error) {
  Event e{"characteristics", peripheral, error};
  e.service = service;
  record(std::move(e));
}

void Recorder::peripheral_didUpdateNotificationStateForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  Event e{"notify-state", peripheral, error};
  e.characteristic = characteristic;
  e.notifying = characteristic->isNotifying();
  record(std::move(e));
}

void Recorder::peripheral_didUpdateValueForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  Event e{"value", peripheral, error};
  e.characteristic = characteristic;
  e.value = characteristic->value();
  record(std::move(e));
}

void Recorder::peripheral_didWriteValueForCharacteristic_error(
    const std::shared_ptr<platform::Peripheral>& peripheral,
    const std::shared_ptr<platform::Characteristic>& characteristic,
    const std::optional<platform::Error>& error) {
  Event e{"write", peripheral, error};
  e.characteristic = characteristic;
  record(std::move(e));
}

std::vector<Event> Recorder::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<Event> Recorder::events(const std::string& kind) const {
  std::vector<Event> out;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& e : events_) {
    if (e.kind == kind) out.push_back(e);
  }
  return out;
}

bool Recorder::waitUntil(const std::function<bool(const std::vector<Event>&)>& predicate,
                         std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] { return predicate(events_); });
}

std::optional<Event> Recorder::waitFor(const std::string& kind, size_t n,
                                       std::chrono::milliseconds timeout) const {
  std::optional<Event> found;
  waitUntil(
      [&](const std::vector<Event>& events) {
        size_t seen = 0;
        for (const auto& e : events) {
          if (e.kind == kind && ++seen == n) {
            found = e;
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

void Recorder::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.clear();
}

}  // namespace qlt::test
