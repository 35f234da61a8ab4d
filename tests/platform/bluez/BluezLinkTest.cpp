// The link state machine, the GATT request queue and the write path against a fake bus port:
// every reply, time-out and signal order by hand, without a bus. A slow link must be absorbed
// by the sender's window, not by a queue of stale writes.
#include <gtest/gtest.h>

#ifndef QLT_TESTS_WITHOUT_BLUEZ

#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "FakeBusPort.h"
#include "core/LogRateLimiter.h"
#include "platform/bluez/BluezGattQueue.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezSockets.h"

namespace qlt::bluez {
namespace {

using namespace std::chrono_literals;
using test::FakeBusPort;

constexpr Address kDevice = {0xC0, 0xFF, 0xEE, 0, 0, 1};
constexpr Address kOther = {0xC0, 0xFF, 0xEE, 0, 0, 2};
constexpr size_t kBound = GattQueue::kMaxCommandsPerDevice;

// A script of what happens to the link, one step a word: bluetoothd's answers ("ok:Connect",
// "fail:Connect", "already:Connect" for AlreadyConnected) and signals ("resolve", "lost"), the
// application's calls ("cancel", "connect") and a connect time-out ("timeout").
struct LinkCase {
  const char* name;
  bool reportedConnected;  // Device1.Connected when the application connects
  const char* steps;
  const char* calls;   // the methods sent to bluetoothd, in order
  const char* events;  // what the listener heard, comma-separated
  LinkPhase phase;
};
void PrintTo(const LinkCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::string> split(const std::string& text, char by) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, by);) out.push_back(item);
  return out;
}

class LinkScript : public LinkListener {
 public:
  bool servicesResolved(const Address&) override { return resolved; }
  void linkUp(const Address&) override { events.push_back("up"); }
  void linkEnded(const Address&, LinkPhase was,
                 const std::optional<platform::Error>& error) override {
    std::string event = was == LinkPhase::Connecting ? "failed" : "ended";
    if (error) event += std::string(":") + platform::toString(error->reason);
    events.push_back(event);
  }

  void run(const LinkCase& c) {
    link.setPath("/org/bluez/hci0/dev_C0_FF_EE_00_00_01");
    link.connect(generation++, c.reportedConnected);
    for (const std::string& step : split(c.steps, ' ')) {
      const auto colon = step.find(':');
      const std::string op = step.substr(0, colon), method = step.substr(colon + 1);
      ASSERT_NE(
          std::string(" ok fail already resolve lost cancel connect timeout ").find(" " + op + " "),
          std::string::npos)
          << step;
      if (op == "ok") {
        ASSERT_TRUE(port.answer(method)) << step;
      }
      if (op == "fail") {
        ASSERT_TRUE(port.answer(method, "org.bluez.Error.Failed")) << step;
      }
      if (op == "already") {
        ASSERT_TRUE(port.answer(method, "org.bluez.Error.AlreadyConnected")) << step;
      }
      if (op == "resolve" || op == "lost") resolved = op == "resolve";
      if (op == "resolve") link.checkReady();
      if (op == "lost") link.connectedLost();
      if (op == "cancel") link.cancel();
      if (op == "connect") link.connect(generation++, false);
      if (op == "timeout") port.advance(20s);
    }
  }

  FakeBusPort port;
  Link link{port, *this, kDevice, LinkTimings{20s, 10s}};
  bool resolved = false;
  uint64_t generation = 1;
  std::vector<std::string> events;
};

constexpr LinkPhase kUp = LinkPhase::Connected, kIdle = LinkPhase::Idle;
const LinkCase kLinkCases[] = {
    {"UpOnceConnectReturnedAndServicesResolved", false, "resolve ok:Connect", "Connect", "up", kUp},
    {"RefusedConnectFailsWithTheDaemonsError", false, "fail:Connect", "Connect", "failed:refused",
     kIdle},
    {"TimeOutDisconnectsAndFails", false, "timeout", "Connect Disconnect", "failed:timed out",
     kIdle},
    {"TimeOutAfterUpChangesNothing", false, "ok:Connect resolve timeout", "Connect", "up", kUp},
    {"ConnectedFalseBeforeTheReplyIsAnEarlierLinks", false, "lost ok:Connect resolve", "Connect",
     "up", kUp},
    {"LostWhileResolvingServicesFails", false, "ok:Connect lost", "Connect", "failed:link lost",
     kIdle},
    {"LostWhenUpEndsWithAnError", false, "ok:Connect resolve lost", "Connect", "up,ended:link lost",
     kIdle},
    {"CancelWhileConnectingIsADisconnection", false, "cancel", "Connect Disconnect", "ended",
     kIdle},
    {"CancelWhenUpEndsOnTheDisconnectReply", false, "ok:Connect resolve cancel ok:Disconnect",
     "Connect Disconnect", "up,ended", kIdle},
    {"CancelWhenIdleIsConfirmed", false, "fail:Connect cancel", "Connect", "failed:refused,ended",
     kIdle},
    {"AnEarlierLinksDisconnectReplyIsIgnored", false,
     "ok:Connect resolve cancel connect ok:Disconnect ok:Connect", "Connect Disconnect Connect",
     "up,up", kUp},
    {"AlreadyConnectedIsDisconnectedAndConnectedAfresh", false,
     "already:Connect resolve ok:Disconnect ok:Connect", "Connect Disconnect Connect", "up", kUp},
    {"ReportedConnectedIsDisconnectedFirst", true, "resolve lost ok:Disconnect ok:Connect resolve",
     "Disconnect Connect", "up", kUp},
    {"AlreadyConnectedAfterAFreshStartFails", false,
     "already:Connect ok:Disconnect already:Connect", "Connect Disconnect Connect",
     "failed:refused", kIdle},
};

class ALink : public testing::TestWithParam<LinkCase> {};

TEST_P(ALink, FollowsBluetoothd) {
  const LinkCase& c = GetParam();
  LinkScript script;
  script.run(c);
  EXPECT_EQ(script.port.takeSent(), split(c.calls, ' '));
  EXPECT_EQ(script.events, split(c.events, ','));
  EXPECT_EQ(script.link.phase(), c.phase) << toString(script.link.phase());
}

INSTANTIATE_TEST_SUITE_P(Scripts, ALink, testing::ValuesIn(kLinkCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ALink, NotListedByBluetoothdFailsAtOnceAsRemoved) {
  LinkScript script;
  script.link.connect(1, false);
  EXPECT_TRUE(script.port.takeSent().empty());
  EXPECT_EQ(script.events, std::vector<std::string>{"failed:device removed"});
}

TEST(ALink, GoneWithItsCallsAndTimerOutIsLeftAlone) {
  LinkScript listener;
  FakeBusPort& port = listener.port;
  auto make = [&] {
    auto link = std::make_unique<Link>(port, listener, kDevice, LinkTimings{20s, 10s});
    link->setPath("/org/bluez/hci0/dev_C0_FF_EE_00_00_01");
    return link;
  };
  auto link = make();
  link->connect(1, false);
  link.reset();
  EXPECT_FALSE(port.answer("Connect")) << "the Connect went with its link";
  port.advance(30s);  // and its time-out
  link = make();
  link->connect(2, false);
  ASSERT_TRUE(port.answer("Connect"));
  listener.resolved = true;
  link->checkReady();
  link->cancel();
  link.reset();
  EXPECT_TRUE(port.answer("Disconnect"));  // must not touch the destroyed link
  EXPECT_EQ(listener.events, std::vector<std::string>{"up"});
}

// ---- the GATT request queue

class AGattQueue : public testing::Test {
 protected:
  GattQueue::Done record(std::string name) {
    return [this, name](const std::optional<platform::Error>& failure) {
      outcomes.push_back(name + (failure ? ":" + failure->domain : ""));
    };
  }
  std::vector<std::string> pendingPaths() const {
    std::vector<std::string> paths;
    for (const auto& call : port.pending()) paths.push_back(call.path);
    return paths;
  }
  // Answers every WriteValue, as places come free, until none is left; how many.
  size_t answerAll() {
    size_t answered = 0;
    for (; port.answer("WriteValue"); port.runPosted()) ++answered;
    return answered;
  }
  size_t inFlightFor(const std::string& prefix) const {
    return std::count_if(port.pending().begin(), port.pending().end(),
                         [&](const auto& c) { return c.path.rfind(prefix, 0) == 0; });
  }

  FakeBusPort port;
  GattQueue queue{port, 10s};
  std::vector<std::string> outcomes;
};

TEST_F(AGattQueue, SendsRequestsOneAtATimeInOrderWithTheirOutcomes) {
  queue.request(kDevice, "/a", Data(), record("a"));
  queue.request(kDevice, "/b", Data(), record("b"));
  queue.request(kOther, "/x", Data(), record("x"));  // another device does not wait
  queue.request(kDevice, "/c", Data(), record("c"));
  EXPECT_EQ(pendingPaths(), (std::vector<std::string>{"/a", "/x"}));
  ASSERT_TRUE(port.answer("WriteValue"));
  EXPECT_EQ(pendingPaths(), (std::vector<std::string>{"/x", "/b"}));
  ASSERT_TRUE(port.answer("WriteValue", "org.bluez.Error.InProgress"));  // x
  ASSERT_TRUE(port.answer("WriteValue", "org.bluez.Error.Failed"));      // b
  ASSERT_TRUE(port.answer("WriteValue"));
  EXPECT_EQ(outcomes, (std::vector<std::string>{"a", "x:org.bluez.Error.InProgress",
                                                "b:org.bluez.Error.Failed", "c"}));
}

TEST_F(AGattQueue, ForgetsAClearedLinksWritesAndIgnoresTheirReplies) {
  queue.request(kDevice, "/a", Data(), record("a"));
  queue.request(kDevice, "/b", Data(), record("b"));
  queue.clear(kDevice);
  queue.request(kDevice, "/c", Data(), record("c"));  // the next link's first
  EXPECT_EQ(pendingPaths(), (std::vector<std::string>{"/a", "/c"}));
  ASSERT_TRUE(port.answer("WriteValue"));  // a: the old link's reply
  ASSERT_TRUE(port.answer("WriteValue"));
  EXPECT_EQ(outcomes, std::vector<std::string>{"c"});
  EXPECT_TRUE(port.pending().empty()) << "b went with its link";
}

TEST_F(AGattQueue, CapsCommandsInFlightAndLetsDevicesTakeTurns) {
  const size_t cap = GattQueue::kMaxCommandsInFlight, each = GattQueue::kMaxCommandsPerDevice;
  static_assert(GattQueue::kMaxCommandsPerDevice >= GattQueue::kMaxCommandsInFlight * 5 / 4);
  for (size_t i = 0; i < each; ++i) queue.command(kDevice, "/dev1/c", Data());
  for (size_t i = 0; i < cap; ++i) queue.command(kOther, "/dev2/c", Data());
  ASSERT_EQ(inFlightFor("/dev1"), cap);
  // Places come free one at a time; the waiting devices take turns at them.
  for (size_t i = 0; i < cap / 2; ++i) {
    ASSERT_TRUE(port.answer("WriteValue"));
    port.runPosted();
  }
  EXPECT_EQ(port.pending().size(), cap);
  EXPECT_EQ(inFlightFor("/dev2"), cap / 4);
  // Calls dropped unanswered (their link ended) give their places back too.
  queue.clear(kOther);
  port.releaseProxy("/dev2/c");
  port.runPosted();
  EXPECT_EQ(inFlightFor("/dev1"), each - cap / 2) << "all of its writes not answered yet";
}

struct AWritePath : AGattQueue, SocketListener {
  void socketNotification(const Address&, const std::string&, size_t, Data) override {}
  void notifyAcquired(const Address&, const std::string&, bool) override {}
  void notifySocketClosed(const Address&, const std::string&) override {}
  SocketPath sockets{port, queue, *this, 10s};
};

// A burst of writes without response to a device that does not answer, by WriteValue or
// while the AcquireWrite reply is out: only the bound waits, the rest is dropped and
// counted, and the link carries writes again once the port answers.
TEST_F(AWritePath, HoldsAtMostTheBoundOfWritesWithoutResponseAndDropsTheRest) {
  const Data frame(std::vector<uint8_t>(20, 0x10));
  for (const bool offered : {false, true}) {  // a device each
    const Address& device = offered ? kOther : kDevice;
    for (size_t i = 0; i < 5 * kBound; ++i) sockets.write(device, "/tx", frame, offered, 185);
    EXPECT_EQ(queue.commandsDropped(), (offered ? 8 : 4) * kBound) << offered;
    if (offered) {
      ASSERT_TRUE(port.answer("AcquireWrite", "org.bluez.Error.NotPermitted"));
    }
    EXPECT_EQ(answerAll(), kBound) << "nothing waited beyond the bound";
    for (int i = 0; i < 3; ++i) sockets.write(device, "/tx", frame, offered, 185);
    EXPECT_EQ(answerAll(), 3u) << "the link delivers again";
  }
}

// Writes with response are never dropped silently: beyond the bound each fails by its callback.
TEST_F(AGattQueue, FailsWritesWithResponseBeyondTheBoundWithAnError) {
  const size_t total = 1 + GattQueue::kMaxRequestsWaiting + 2;  // one in flight, the rest wait
  for (size_t i = 0; i < total; ++i) {
    queue.request(kDevice, "/tx", Data(), [&](const std::optional<platform::Error>& failure) {
      outcomes.push_back(failure ? failure->domain + ": " + failure->message : "ok");
    });
  }
  port.runPosted();
  const std::string refused = "qlt.bluez: too many writes with response waiting (" +
                              std::to_string(GattQueue::kMaxRequestsWaiting) + "); not sent";
  EXPECT_EQ(outcomes, std::vector<std::string>(2, refused));
  EXPECT_EQ(answerAll(), total - 2);
  EXPECT_EQ(std::count(outcomes.begin(), outcomes.end(), "ok"), static_cast<long>(total - 2));
}

// The acquired write socket holds a few frames, not hundreds, when bluetoothd reads nothing.
TEST(AWriteSocket, HoldsAFewFramesWhenItsReaderStalls) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, fds), 0);
  ASSERT_TRUE(limitSendBuffer(fds[0]));
  const std::string frame(161, 'x');
  size_t held = 0;
  while (held < 1000 && ::send(fds[0], frame.data(), frame.size(), MSG_NOSIGNAL) >= 0) ++held;
  EXPECT_GE(held, 3u) << "room for a window of segments";
  EXPECT_LE(held, 2 * kBound);
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(ALogRateLimiter, LetsTheFirstLineThroughThenOnePerIntervalWithTheCount) {
  LogRateLimiter limiter(1s);
  const LogRateLimiter::Clock::time_point t0{};
  struct Event {
    std::chrono::milliseconds at;
    std::optional<uint64_t> line;
  };
  const std::vector<Event> events = {{0ms, 1},    {10ms, std::nullopt},   {999ms, std::nullopt},
                                     {1000ms, 3}, {1500ms, std::nullopt}, {5000ms, 2}};
  for (const auto& e : events) EXPECT_EQ(limiter.admit(t0 + 1h + e.at), e.line) << e.at.count();
}

}  // namespace
}  // namespace qlt::bluez

#endif  // QLT_TESTS_WITHOUT_BLUEZ
