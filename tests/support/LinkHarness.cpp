#include "support/LinkHarness.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "QueltLibrary/SWTransport.h"

namespace qlt::test {

namespace {

// The driver and its core as the faces run them, without their delegates and without
// started rounds: every call runs inline on the caller's thread inside a sync() on the
// driver's strand, so writes and payloads come out synchronously and in simulated time.
class DriverEndpoint final : public LinkEndpoint {
 public:
  DriverEndpoint(SlideWindowParameters parameters, std::shared_ptr<Clock> clock)
      : driver_(SlideWindowDriver::create(
            parameters, std::move(clock), DispatchQueue::create("LinkHarness"),
            {.write =
                 [this](const uint8_t* bytes, size_t length) {
                   if (output) output(Data(bytes, length));
                 },
             .deliverTCP = [this](const Data& payload) { deliver(payload); },
             .deliverUDP = nullptr,
             .session = nullptr})) {}
  void sendTCP(std::span<const uint8_t> bytes) override {
    inline_([&] { driver_->sendTCP(bytes.data(), bytes.size()); });
  }
  void receive(const Data& value) override {
    inline_([&] { driver_->receive(value); });
  }
  void round() override { driver_->round(); }
  SlideWindowCounters counters() const override { return driver_->counters(); }
  uint8_t inFlight() const override { return driver_->inFlight(); }
  size_t queuedSegments() const override { return driver_->queuedSegments(); }

 private:
  template <class F>
  void inline_(F f) {
    driver_->strand()->sync(f);
  }
  std::shared_ptr<SlideWindowDriver> driver_;
};

}  // namespace

SlideWindowParameters transportParameters() {
  return {SWTransport::kSegmentSize, SWTransport::kPollTimeout};
}

std::unique_ptr<LinkEndpoint> makeEngineEndpoint(SlideWindowParameters parameters,
                                                 std::shared_ptr<Clock> clock) {
  return std::make_unique<DriverEndpoint>(parameters, std::move(clock));
}

LinkHarness::LinkHarness(HarnessOptions options)
    : LinkHarness(options, [](Side, std::shared_ptr<Clock> clock) {
        return makeEngineEndpoint(transportParameters(), std::move(clock));
      }) {}

LinkHarness::LinkHarness(
    HarnessOptions options,
    const std::function<std::unique_ptr<LinkEndpoint>(Side, std::shared_ptr<Clock>)>& make)
    : options_(options),
      clock_(std::make_shared<ManualClock>()),
      links_{sim::LinkModel(options.aToB, options.seed * 2 + 1),
             sim::LinkModel(options.bToA, options.seed * 2 + 2)},
      nextRound_{0.0, options.phaseB} {
  for (int side : {A, B}) {
    endpoints_[side] = make(static_cast<Side>(side), clock_);
    endpoints_[side]->output = [this, side](const Data& frame) { carry(side, frame); };
  }
}

void LinkHarness::carry(int from, const Data& frame) {
  const sim::LinkFate fate = links_[from].transmit(clock_->now(), frame.length());
  for (int c = 0; c < fate.copies; ++c) events_.push({fate.at[c], order_++, 1 - from, frame});
}

double LinkHarness::nextTime() const {
  double t = std::min(nextRound_[A], nextRound_[B]);
  if (!events_.empty()) t = std::min(t, events_.top().at);
  return t;
}

void LinkHarness::step() {
  const double t = nextTime();
  if (t > clock_->now()) clock_->set(t);
  if (!events_.empty() && events_.top().at <= t) {
    Event e = events_.top();
    events_.pop();
    endpoints_[e.to]->receive(e.frame);
  } else {
    const int side = nextRound_[A] <= nextRound_[B] ? A : B;
    nextRound_[side] += options_.roundPeriod;
    endpoints_[side]->round();
  }
  for (auto& e : endpoints_) stats_.maxInFlight = std::max(stats_.maxInFlight, e->inFlight());
}

void LinkHarness::runFor(double seconds) {
  const double until = clock_->now() + seconds;
  while (nextTime() <= until) step();
  clock_->set(std::max(clock_->now(), until));
}

bool LinkHarness::runUntilDrained(double limit) {
  const double until = clock_->now() + limit;
  for (;;) {
    if (a().queuedSegments() == 0 && b().queuedSegments() == 0) return true;
    if (nextTime() > until) return false;
    step();
  }
}

std::vector<uint8_t> joined(const std::vector<Data>& payloads) {
  std::vector<uint8_t> out;
  for (const auto& d : payloads) out.insert(out.end(), d.bytes(), d.bytes() + d.length());
  return out;
}

void measureEchoes(const HarnessOptions& options, double limit, std::vector<double>& echoes) {
  LinkHarness h(options);
  size_t got = 0;
  h.b().onTCP = [&](const Data& d) { h.b().sendTCP(d.span()); };
  h.a().onTCP = [&](const Data& d) { got += d.length(); };
  for (size_t i = 1; i <= 100; ++i) {
    const double sent = h.now();
    h.a().sendTCP(std::vector<uint8_t>(100, static_cast<uint8_t>(i)));
    while (got < i * 100 && h.now() - sent < limit) h.runFor(0.0002);
    echoes.push_back(h.now() - sent);
    h.runFor(0.003 * (i % 5));
  }
}

ExchangeResult runExchange(const HarnessOptions& options, const ExchangePlan& exchange) {
  LinkHarness h = exchange.make ? LinkHarness(options, exchange.make) : LinkHarness(options);
  std::mt19937_64 rng(options.seed * 7919 + 17);
  std::uniform_real_distribution<double> logSize(
      0.0, std::log(static_cast<double>(exchange.maxMessage)));
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_real_distribution<double> pause(0.0, 0.2);

  std::vector<uint8_t> sent[2];
  for (int i = 0; i < exchange.messagesPerSide; ++i) {
    for (int side : {0, 1}) {
      auto n = static_cast<size_t>(std::lround(std::exp(logSize(rng))));
      n = std::clamp<size_t>(n, 1, exchange.maxMessage);
      std::vector<uint8_t> msg(n);
      for (auto& b : msg) b = static_cast<uint8_t>(byte(rng));
      h.endpoint(static_cast<LinkHarness::Side>(side)).sendTCP(msg);
      sent[side].insert(sent[side].end(), msg.begin(), msg.end());
    }
    h.runFor(pause(rng));
  }

  ExchangeResult r;
  r.drained = h.runUntilDrained(exchange.limit);
  r.simSeconds = h.now();
  r.stats = h.stats();
  for (int from : {0, 1}) {
    auto& receiver = h.endpoint(static_cast<LinkHarness::Side>(1 - from));
    const auto got = joined(receiver.delivered());
    r.exact[from] = got == sent[from];
    r.counters[from] = h.endpoint(static_cast<LinkHarness::Side>(from)).counters();
  }
  return r;
}

}  // namespace qlt::test
