#include "ExternalDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "QueltLibrary/Log.h"
#include "SimLink.h"
#include "qlt_slip.h"

namespace qlt::sim {

namespace {

// Bytes waiting for the process's stdin, at most: a process that stops reading loses writes
// (counted as lost), as a device's full receive buffer would.
constexpr size_t kInputLimit = size_t{64} * 1024;
// The largest value a notification carries (ATT MTU 517 - 3), and so the largest frame read.
constexpr size_t kFrameLimit = 514;
// How long a process whose stdin was closed may take to exit before it is asked to
// (SIGTERM), and then before it is killed.
constexpr int kExitGraceMs = 50;
constexpr int kTermGraceMs = 250;

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

bool makePipe(Fd& readEnd, Fd& writeEnd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  readEnd.reset(fds[0]);
  writeEnd.reset(fds[1]);
  return true;
}

std::string errorText(int code) {
  char buffer[128];
  return ::strerror_r(code, buffer, sizeof buffer);  // the GNU one: returns the text
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "ended";
}

class ExternalDevice final : public DeviceBehaviour,
                             public std::enable_shared_from_this<ExternalDevice> {
 public:
  ExternalDevice(std::vector<std::string> command, std::string name, std::weak_ptr<SimLink> link)
      : command_(std::move(command)), name_(std::move(name)), link_(std::move(link)) {}
  ~ExternalDevice() override { stop(); }

  void connected() override {
    if (io_.joinable()) return;
    std::string error;
    if (!makePipes(error)) {
      fail(error);
      return;
    }
    // The thread holds the device: the last reference may drop on it (see stop()).
    io_ = std::thread([self = shared_from_this()] { self->run(); });
  }

  void written(const Data& value) override {
    if (!io_.joinable()) return;
    std::vector<uint8_t> frame(QLT_SLIP_ENCODED_MAX(value.length()));
    frame.resize(qlt_slip_encode(value.bytes(), value.length(), frame.data(), frame.size()));
    {
      std::lock_guard lock(mutex_);
      if (input_.size() + frame.size() > kInputLimit) {
        if (auto link = link_.lock()) link->counters().writesLost.fetch_add(1);
        return;
      }
      input_.insert(input_.end(), frame.begin(), frame.end());
    }
    wake();
  }

  void disconnected() override { stop(); }

 private:
  void fail(const std::string& error) {
    if (auto link = link_.lock()) link->lose("external device \"" + name_ + "\": " + error);
  }

  bool makePipes(std::string& error) {
    if (!makePipe(childIn_, toChild_) || !makePipe(fromChild_, childOut_) ||
        !makePipe(wakeRead_, wakeWrite_)) {
      error = std::string("no pipe: ") + errorText(errno);
      return false;
    }
    for (const Fd* fd : {&toChild_, &wakeRead_, &wakeWrite_}) {
      ::fcntl(fd->get(), F_SETFL, O_NONBLOCK);
    }
    return true;
  }

  // Starts the command on the I/O thread, which it outlives by nothing: the child gets SIGKILL
  // when the thread that made it ends (PR_SET_PDEATHSIG), so a program that exits without
  // ending its links leaves no device behind.
  bool spawn(std::string& error) {
    std::vector<char*> argv;
    for (auto& arg : command_) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    int report[2];  // the child writes errno here when exec fails; closes on exec
    if (::pipe2(report, O_CLOEXEC) != 0) {
      error = std::string("no pipe: ") + errorText(errno);
      return false;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      // The child: only async-signal-safe calls until exec.
      sigset_t none;
      sigemptyset(&none);
      ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
      ::signal(SIGPIPE, SIG_DFL);
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(127);
      ::dup2(childIn_.get(), STDIN_FILENO);
      ::dup2(childOut_.get(), STDOUT_FILENO);
      ::execvp(argv[0], argv.data());
      const int code = errno;
      [[maybe_unused]] auto n = ::write(report[1], &code, sizeof code);
      ::_exit(127);
    }
    ::close(report[1]);
    childIn_.reset();
    childOut_.reset();
    int code = 0;
    const ssize_t n = pid_ < 0 ? 0 : ::read(report[0], &code, sizeof code);
    ::close(report[0]);
    if (pid_ < 0 || n == sizeof code) {
      error = "cannot run " + command_[0] + ": " + errorText(pid_ < 0 ? errno : code);
      if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
      return false;
    }
    return true;
  }

  void wake() {
    const char byte = 0;
    [[maybe_unused]] auto n = ::write(wakeWrite_.get(), &byte, 1);  // full: a wake-up is pending
  }

  // Ends the I/O thread (which ends the process) and joins it; on the I/O thread itself (the
  // link's last reference dropped there), a pool task joins it once it returns.
  void stop() {
    if (!io_.joinable()) return;
    stopping_.store(true);
    wake();
    if (io_.get_id() == std::this_thread::get_id()) {
      auto finishing = std::make_shared<std::thread>(std::move(io_));
      static const auto* reaper =
          // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): out of memory ends the process
          new std::shared_ptr<DispatchQueue>(DispatchQueue::create("qlt.sim.external.reaper"));
      (*reaper)->async([finishing] { finishing->join(); });
    } else {
      io_.join();
    }
  }

  // The I/O thread: the process's stdout to notifications, queued writes to its stdin.
  void run() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);  // a write to a process gone fails with EPIPE
    std::string error;
    if (!spawn(error)) {
      fail(error);
      return;
    }

    std::vector<uint8_t> frameBuffer(kFrameLimit);
    qlt_slip_decoder decoder;
    qlt_slip_decoder_init(&decoder, frameBuffer.data(), frameBuffer.size());
    std::vector<uint8_t> pending;  // bytes taken from input_, not yet written
    bool outputOpen = true;
    while (!stopping_.load() && outputOpen) {
      if (pending.empty()) {
        std::lock_guard lock(mutex_);
        pending.swap(input_);
      }
      pollfd fds[3] = {{wakeRead_.get(), POLLIN, 0},
                       {fromChild_.get(), POLLIN, 0},
                       {toChild_.get(), static_cast<short>(pending.empty() ? 0 : POLLOUT), 0}};
      const nfds_t count = toChild_.get() >= 0 ? 3 : 2;
      if (::poll(fds, count, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[0].revents & POLLIN) {
        char drain[64];
        while (::read(wakeRead_.get(), drain, sizeof drain) > 0) {}
      }
      if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) outputOpen = readOutput(decoder);
      if (count == 3 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) writeInput(pending);
    }
    const std::string ending = endProcess();
    if (!stopping_.load()) {
      if (auto link = link_.lock()) link->lose("external device \"" + name_ + "\" " + ending);
    }
  }

  // Reads what the process wrote and notifies each whole frame; false at its end.
  bool readOutput(qlt_slip_decoder& decoder) {
    uint8_t buffer[4096];
    const ssize_t n = ::read(fromChild_.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    auto link = link_.lock();
    for (ssize_t i = 0; i < n; ++i) {
      const uint32_t dropped = decoder.dropped;
      const size_t length = qlt_slip_decode_byte(&decoder, buffer[i]);
      if (decoder.dropped != dropped) {
        QLTLog(
            "Simulated radio: external device \"%s\": a frame over %d bytes or with a bad "
            "escape was dropped",
            name_, static_cast<int>(kFrameLimit));
      }
      if (length > 0 && link) link->notify(Data(decoder.buffer, length));
    }
    return true;
  }

  void writeInput(std::vector<uint8_t>& pending) {
    const ssize_t n = ::write(toChild_.get(), pending.data(), pending.size());
    if (n > 0) {
      pending.erase(pending.begin(), pending.begin() + n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      pending.clear();  // the process closed its stdin: its output's end follows
      toChild_.reset();
    }
  }

  // Waits up to `ms` for the process to exit; its pid once reaped, else 0.
  pid_t reap(int& status, int ms) {
    for (int waited = 0;; waited += 5) {
      const pid_t done = ::waitpid(pid_, &status, WNOHANG);
      if (done != 0 || waited >= ms) return done;
      ::poll(nullptr, 0, 5);
    }
  }

  // Closes the process's stdin, gives it a moment to exit, then ends it (SIGTERM, then
  // SIGKILL); says how it ended.
  std::string endProcess() {
    toChild_.reset();
    if (pid_ < 0) return "ended";
    int status = 0;
    pid_t done = reap(status, kExitGraceMs);
    if (done == 0) {
      ::kill(pid_, SIGTERM);
      done = reap(status, kTermGraceMs);
    }
    if (done == 0) {
      ::kill(pid_, SIGKILL);
      done = ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return done > 0 ? describeStatus(status) : "ended";
  }

  std::vector<std::string> command_;
  const std::string name_;
  const std::weak_ptr<SimLink> link_;

  pid_t pid_ = -1;         // set before the I/O thread starts, then the I/O thread's
  Fd childIn_, childOut_;  // the child's ends, closed once it has them
  Fd toChild_, fromChild_, wakeRead_, wakeWrite_;
  std::thread io_;  // device queue only (or the destructor)
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;
  std::vector<uint8_t> input_;  // SLIP bytes for the process's stdin; guarded by mutex_
};

}  // namespace

std::shared_ptr<DeviceBehaviour> makeExternalDevice(const SimDeviceConfig& config,
                                                    const std::shared_ptr<SimLink>& link) {
  return std::make_shared<ExternalDevice>(config.command, config.localName.value_or("unnamed"),
                                          link);
}

}  // namespace qlt::sim
