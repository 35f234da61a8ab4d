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

// The leading byte of every frame on the serial line of a process that outlives its links.
enum FrameType : uint8_t { kValue = 0x00, kLinkUp = 0x01, kLinkDown = 0x02 };

// One run of the command: its pipes, the I/O thread that moves its bytes and ends it, and the
// link its notifications go to. `typed`: every frame carries a FrameType first (a process
// that outlives its links); otherwise frames are bare values.
class ExternalProcess final : public std::enable_shared_from_this<ExternalProcess> {
 public:
  ExternalProcess(std::vector<std::string> command, std::string name, bool typed,
                  std::shared_ptr<DeviceCounters> counters)
      : command_(std::move(command)),
        name_(std::move(name)),
        typed_(typed),
        counters_(std::move(counters)) {}
  ~ExternalProcess() { stop(); }
  ExternalProcess(const ExternalProcess&) = delete;
  ExternalProcess& operator=(const ExternalProcess&) = delete;

  // Makes the pipes and the I/O thread, which starts the command. Called once; false, with
  // the reason for a lost link in `error`, when it cannot.
  bool start(std::string& error) {
    if (!makePipes(error)) {
      error = "external device \"" + name_ + "\": " + error;
      finish();
      return false;
    }
    // The thread holds the process: the last reference may drop on it (see stop()).
    io_ = std::thread([self = shared_from_this()] { self->run(); });
    return true;
  }

  // Where notifications go, and whom the process's end loses (none: nothing is up).
  void setLink(std::weak_ptr<SimLink> link) {
    std::lock_guard lock(mutex_);
    link_ = std::move(link);
  }

  // True once the process has ended (or could not be started).
  bool ended() const { return ended_.load(); }

  // Queues one frame for the process's stdin: `type` (if typed) then `value`. A process that
  // does not read loses it (counted), as a device's full receive buffer would.
  void send(FrameType type, const Data& value = {}) {
    std::vector<uint8_t> bytes;
    bytes.reserve(value.length() + 1);
    if (typed_) bytes.push_back(type);
    bytes.insert(bytes.end(), value.bytes(), value.bytes() + value.length());
    std::vector<uint8_t> frame(QLT_SLIP_ENCODED_MAX(bytes.size()));
    frame.resize(qlt_slip_encode(bytes.data(), bytes.size(), frame.data(), frame.size()));
    {
      std::lock_guard lock(mutex_);
      if (ended_.load()) return;
      if (type == kValue && input_.size() + frame.size() > kInputLimit) {
        counters_->writesLost.fetch_add(1);  // a link's start or end is never lost
        return;
      }
      input_.insert(input_.end(), frame.begin(), frame.end());
    }
    wake();
  }

  // Ends the I/O thread (which ends the process) and joins it; on the I/O thread itself (the
  // last reference dropped there), a pool task joins it once it returns.
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

 private:
  std::shared_ptr<SimLink> link() {
    std::lock_guard lock(mutex_);
    return link_.lock();
  }

  // Loses the link that is up, naming the device and `what` happened.
  void loseLink(const std::string& what) {
    if (auto up = link()) {
      up->lose("external device \"" + name_ + "\" " + what);
    } else {
      QLTLog("Simulated radio: external device \"%s\" %s while no link was up", name_, what);
    }
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

  // The I/O thread: the process's stdout to notifications, queued writes to its stdin.
  void run() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);  // a write to a process gone fails with EPIPE
    std::string error;
    if (!spawn(error)) {
      finish();
      if (auto up = link()) up->lose("external device \"" + name_ + "\": " + error);
      return;
    }

    std::vector<uint8_t> frameBuffer(kFrameLimit + (typed_ ? 1 : 0));
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
    finish();
    if (!stopping_.load()) loseLink(ending);
  }

  // The process has ended (or never started): nothing more is queued for it.
  void finish() {
    std::lock_guard lock(mutex_);
    ended_.store(true);
    input_.clear();
  }

  // Reads what the process wrote and notifies each whole frame; false at its end.
  bool readOutput(qlt_slip_decoder& decoder) {
    uint8_t buffer[4096];
    const ssize_t n = ::read(fromChild_.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    for (ssize_t i = 0; i < n; ++i) {
      const uint32_t dropped = decoder.dropped;
      const size_t length = qlt_slip_decode_byte(&decoder, buffer[i]);
      if (decoder.dropped != dropped) {
        QLTLog(
            "Simulated radio: external device \"%s\": a frame over %d bytes or with a bad "
            "escape was dropped",
            name_, static_cast<int>(decoder.capacity));
      }
      if (length > 0) notify(decoder.buffer, length);
    }
    return true;
  }

  // One frame the process wrote: a notification on the link that is up.
  void notify(const uint8_t* frame, size_t length) {
    if (typed_) {
      if (frame[0] != kValue) {
        if (!warnedType_) {
          QLTLog(
              "Simulated radio: external device \"%s\": frames of type 0x%02x are not values; "
              "dropped (logged once)",
              name_, static_cast<unsigned>(frame[0]));
        }
        warnedType_ = true;
        return;
      }
      ++frame;
      --length;
    }
    auto up = link();
    if (up && up->isUp()) {
      up->notify(Data(frame, length));
    } else if (typed_) {
      counters_->notificationsUnlinked.fetch_add(1);  // a stack notifies only on a connection
    }
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
  const bool typed_;
  const std::shared_ptr<DeviceCounters> counters_;

  pid_t pid_ = -1;         // the I/O thread's
  Fd childIn_, childOut_;  // the child's ends, closed once it has them
  Fd toChild_, fromChild_, wakeRead_, wakeWrite_;
  std::thread io_;  // the owner's (start, stop)
  std::atomic<bool> stopping_{false};
  std::atomic<bool> ended_{false};  // set under mutex_
  bool warnedType_ = false;         // the I/O thread's

  std::mutex mutex_;
  std::vector<uint8_t> input_;   // SLIP bytes for the process's stdin; guarded by mutex_
  std::weak_ptr<SimLink> link_;  // guarded by mutex_
};

std::string nameOf(const SimDeviceConfig& config) { return config.localName.value_or("unnamed"); }

// One process per link: started when the link connects, ended when it ends.
class ProcessPerLink final : public DeviceBehaviour {
 public:
  ProcessPerLink(const SimDeviceConfig& config, const std::shared_ptr<SimLink>& link)
      : process_(std::make_shared<ExternalProcess>(config.command, nameOf(config), false,
                                                   link->deviceCounters())),
        link_(link) {}
  ~ProcessPerLink() override { process_->stop(); }
  ProcessPerLink(const ProcessPerLink&) = delete;
  ProcessPerLink& operator=(const ProcessPerLink&) = delete;

  void connected() override {
    if (started_) return;
    started_ = true;
    process_->setLink(link_);
    std::string error;
    if (!process_->start(error)) {
      if (auto link = link_.lock()) link->lose(error);
    }
  }
  void written(const Data& value) override {
    if (started_) process_->send(kValue, value);
  }
  void disconnected() override { process_->stop(); }

 private:
  const std::shared_ptr<ExternalProcess> process_;
  const std::weak_ptr<SimLink> link_;
  bool started_ = false;  // device queue only
};

// What a device whose process outlives its links keeps from one link to the next (the
// radio's device state, released when the device is removed or the radio ends, which ends
// the process): the process, started again for a link when it has ended, and which link is
// up. Each link's start and end reach the process in order, even when the next link's start
// (on its own device queue) comes before the last link's end.
class KeptProcess {
 public:
  KeptProcess(const SimDeviceConfig& config, std::shared_ptr<DeviceCounters> counters)
      : command_(config.command), name_(nameOf(config)), counters_(std::move(counters)) {}
  ~KeptProcess() {
    if (process_) process_->stop();
  }
  KeptProcess(const KeptProcess&) = delete;
  KeptProcess& operator=(const KeptProcess&) = delete;

  // The link of `owner` (its behaviour) is up; false (with `error`) when no process runs.
  bool linkUp(const void* owner, const std::shared_ptr<SimLink>& link, std::string& error) {
    std::shared_ptr<ExternalProcess> ended;  // joined outside the lock
    std::lock_guard lock(mutex_);
    if (up_ && process_) process_->send(kLinkDown);
    up_ = owner;
    if (!process_ || process_->ended()) {
      ended = std::exchange(process_,
                            std::make_shared<ExternalProcess>(command_, name_, true, counters_));
      process_->setLink(link);
      if (!process_->start(error)) return false;
    } else {
      process_->setLink(link);
    }
    process_->send(kLinkUp);
    return true;
  }
  void written(const void* owner, const Data& value) {
    std::lock_guard lock(mutex_);
    if (up_ == owner && process_) process_->send(kValue, value);
  }
  void linkDown(const void* owner) {
    std::lock_guard lock(mutex_);
    if (up_ != owner) return;
    up_ = nullptr;
    process_->setLink({});
    process_->send(kLinkDown);
  }

 private:
  const std::vector<std::string> command_;
  const std::string name_;
  const std::shared_ptr<DeviceCounters> counters_;
  std::mutex mutex_;
  std::shared_ptr<ExternalProcess> process_;  // guarded by mutex_
  const void* up_ = nullptr;                  // the behaviour whose link is up; guarded by mutex_
};

// One link of a device whose process outlives its links.
class KeptProcessLink final : public DeviceBehaviour {
 public:
  explicit KeptProcessLink(const std::shared_ptr<SimLink>& link) : link_(link) {}
  ~KeptProcessLink() override { disconnected(); }
  KeptProcessLink(const KeptProcessLink&) = delete;
  KeptProcessLink& operator=(const KeptProcessLink&) = delete;

  void connected() override {
    auto link = link_.lock();
    if (!link || kept_) return;
    kept_ = std::static_pointer_cast<KeptProcess>(link->deviceState(
        [&] { return std::make_shared<KeptProcess>(link->config(), link->deviceCounters()); }));
    std::string error;
    if (!kept_->linkUp(this, link, error)) link->lose(error);
  }
  void written(const Data& value) override {
    if (kept_) kept_->written(this, value);
  }
  void disconnected() override {
    if (kept_) std::exchange(kept_, nullptr)->linkDown(this);
  }

 private:
  const std::weak_ptr<SimLink> link_;
  std::shared_ptr<KeptProcess> kept_;  // device queue only (or the destructor)
};

}  // namespace

std::shared_ptr<DeviceBehaviour> makeExternalDevice(const SimDeviceConfig& config,
                                                    const std::shared_ptr<SimLink>& link) {
  if (config.keepRunning) return std::make_shared<KeptProcessLink>(link);
  return std::make_shared<ProcessPerLink>(config, link);
}

}  // namespace qlt::sim
