#include "QueltLibrary/LinkOpener.h"

#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_BLEManager.h"

namespace qlt {

namespace {

bool isDown(const QLT_Peripheral& p) {
  return p.state() == QLT_PeripheralStateDisconnected ||
         p.state() == QLT_PeripheralStateFailedToConnect;
}

}  // namespace

// The delegate of the manager (while searching) and of the peripheral (while connecting).
class QLT_HIDDEN LinkOpener::Impl : public QLT_BLEManagerDidChangedState,
                                    public QLT_BLEManagerDidDiscoveredPeripheral,
                                    public QLT_PeripheralDidChangeState,
                                    public std::enable_shared_from_this<Impl> {
 public:
  Impl(Request request, std::shared_ptr<DispatchQueue> queue, Done done)
      : request_(std::move(request)),
        manager_(request_.manager ? request_.manager : QLT_BLEManager::sharedInstance()),
        queue_(std::move(queue)),
        done_(std::move(done)) {}

  void begin() {
    std::weak_ptr<Impl> weak = weak_from_this();
    queue_->asyncAfter(request_.timeout, [weak] {
      if (auto self = weak.lock()) self->expire();
    });
    if (request_.peripheral) {
      {
        std::lock_guard lock(mutex_);
        phase_ = Phase::Connecting;
        peripheral_ = request_.peripheral;
      }
      queue_->async([weak, p = request_.peripheral] {
        if (auto self = weak.lock()) self->connectTo(p);
      });
      return;
    }
    manager_->addDelegate(shared_from_this(), queue_);
    manager_->moduleQueue()->sync([] {});  // every manager event from here on reaches us
    queue_->async([weak] {
      if (auto self = weak.lock()) self->search();
    });
  }

  void cancel() { end(std::nullopt); }

  void expire() {
    Result result;
    result.outcome = Outcome::TimedOut;  // NotFound if it is still searching
    end(result);
  }

  // QLT_BLEManager delegate
  void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>&, int32_t state) override {
    if (state == QLT_BLEManagerStateIdle) search();  // powered on, or another scan ended
  }

  void manager_didDiscoveredPeripheral(const std::shared_ptr<QLT_BLEManager>&,
                                       const std::shared_ptr<QLT_Peripheral>& p) override {
    {
      std::lock_guard lock(mutex_);
      if (phase_ != Phase::Searching || !p->answersTo(request_.device)) return;
      peripheral_ = p;
      if (request_.connect) phase_ = Phase::Connecting;
    }
    if (!request_.connect) {
      Result result;
      result.outcome = Outcome::Found;
      end(result);
      return;
    }
    manager_->stopDiscover();
    manager_->removeDelegate(shared_from_this());
    connectTo(p);
  }

  // QLT_Peripheral delegate
  void QLT_Peripheral_didChangeState(const std::shared_ptr<QLT_Peripheral>& p,
                                     int32_t state) override {
    Result result;
    {
      std::lock_guard lock(mutex_);
      if (phase_ != Phase::Connecting || p != peripheral_) return;
      // A disconnection announced before this connection began is not its end.
      if (state == QLT_PeripheralStateDisconnected && lastState_ < 0) return;
      lastState_ = state;
      switch (state) {
        case QLT_PeripheralStateReady: {
          // The problem is read now, not when Ready was reported: a link that dropped since
          // was ready, and its Disconnected follows to tell the caller it was lost.
          const QLT_LinkProblem kind = p->linkProblemKind();
          const bool unusable =
              kind == QLT_LinkProblem::ServiceTable || kind == QLT_LinkProblem::MtuTooSmall;
          result.outcome = unusable ? Outcome::Unusable : Outcome::Ready;
          break;
        }
        case QLT_PeripheralStateDfuInProgress:
          result.outcome = Outcome::NoUartService;
          break;
        case QLT_PeripheralStateFailedToConnect:
          result.outcome = Outcome::ConnectFailed;
          break;
        case QLT_PeripheralStateDisconnected:
          result.outcome = Outcome::Dropped;
          break;
        default:
          return;  // on its way
      }
    }
    end(result);
  }

 private:
  enum class Phase { Searching, Connecting, Ended };

  // On queue_: scans if the search is still on and the manager can scan now (otherwise
  // its next idle state brings us back).
  void search() {
    if (phaseNow() != Phase::Searching) return;
    if (manager_->state() != QLT_BLEManagerStateIdle) return;
    manager_->startDiscover();
    if (phaseNow() != Phase::Searching) manager_->stopDiscover();  // ended meanwhile
  }

  // On queue_.
  void connectTo(const std::shared_ptr<QLT_Peripheral>& p) {
    if (phaseNow() == Phase::Ended) return;
    if (request_.onFound) request_.onFound(p);
    p->addDelegate(shared_from_this(), queue_);
    p->moduleQueue()->sync([] {});  // every state from here on reaches us
    QLTLog("LinkOpener: connecting to %@", p);
    manager_->connect(p);
    if (phaseNow() != Phase::Ended) return;
    // Ended meanwhile (cancelled, timed out) while it was still down: undo.
    p->removeDelegate(shared_from_this());
    if (!isDown(*p)) manager_->disconnect(p);
  }

  Phase phaseNow() const {
    std::lock_guard lock(mutex_);
    return phase_;
  }

  // Ends the attempt, with a report unless cancelled: stops the scan, disconnects what
  // did not become usable, lets go of the delegates.
  void end(std::optional<Result> result) {
    Phase was = Phase::Ended;
    std::shared_ptr<QLT_Peripheral> p;
    {
      std::lock_guard lock(mutex_);
      was = std::exchange(phase_, Phase::Ended);
      if (was == Phase::Ended) return;
      p = peripheral_;
      if (result) result->lastState = lastState_;
    }
    if (result && result->outcome == Outcome::TimedOut && was == Phase::Searching) {
      result->outcome = Outcome::NotFound;
      result->bluetoothOff = manager_->state() == QLT_BLEManagerStateUnavailable;
    }
    const auto self = shared_from_this();
    if (was == Phase::Searching) {
      manager_->stopDiscover();
      manager_->removeDelegate(self);
    }
    if (p && was == Phase::Connecting) {
      p->removeDelegate(self);
      const bool usable = result && result->outcome == Outcome::Ready;
      if (!usable && !isDown(*p)) manager_->disconnect(p);
    }
    if (!result) return;
    result->peripheral = p;
    if (p) {
      result->problemKind = p->linkProblemKind();
      result->problem = p->linkProblem();
    }
    if (done_) done_(*result);
  }

  const Request request_;
  const std::shared_ptr<QLT_BLEManager> manager_;
  const std::shared_ptr<DispatchQueue> queue_;
  const Done done_;

  mutable std::mutex mutex_;
  Phase phase_ = Phase::Searching;              // guarded by mutex_
  std::shared_ptr<QLT_Peripheral> peripheral_;  // guarded by mutex_; the device found
  int32_t lastState_ = -1;                      // guarded by mutex_; since connecting
};

std::shared_ptr<LinkOpener> LinkOpener::start(Request request, std::shared_ptr<DispatchQueue> queue,
                                              Done done) {
  if (!request.peripheral && request.device.empty())
    throw std::invalid_argument("LinkOpener: neither a device nor a peripheral to open");
  auto impl = std::make_shared<Impl>(std::move(request), std::move(queue), std::move(done));
  impl->begin();
  return std::shared_ptr<LinkOpener>(new LinkOpener(std::move(impl)));
}

LinkOpener::~LinkOpener() { impl_->cancel(); }

void LinkOpener::cancel() { impl_->cancel(); }

void LinkOpener::expire() { impl_->expire(); }

}  // namespace qlt
