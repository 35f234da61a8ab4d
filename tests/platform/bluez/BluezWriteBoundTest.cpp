// The bounds on the write path against a fake bus port that answers only when told: a slow
// link must be absorbed by the sender's window, not by a queue of stale writes.
#include <gtest/gtest.h>

#ifndef QLT_TESTS_WITHOUT_BLUEZ

#include <sys/socket.h>
#include <unistd.h>

#include "FakeBusPort.h"
#include "platform/bluez/BluezSockets.h"

namespace qlt::bluez {
namespace {

using namespace std::chrono_literals;
constexpr Address kDevice = {0xC0, 0xFF, 0xEE, 0, 0, 1};
constexpr size_t kBound = GattQueue::kMaxCommandsPerDevice;

struct WritePath : SocketListener {
  void socketNotification(const Address&, const std::string&, size_t, Data) override {}
  void notifyAcquired(const Address&, const std::string&, bool) override {}
  void notifySocketClosed(const Address&, const std::string&) override {}
  // Answers every WriteValue, as places come free, until none is left; how many.
  size_t answerAll() {
    size_t answered = 0;
    for (; port.answer("WriteValue"); port.runPosted()) ++answered;
    return answered;
  }
  test::FakeBusPort port;
  GattQueue gatt{port, 10s};
  SocketPath sockets{port, gatt, *this, 10s};
};

// A burst of writes without response to a device that does not answer, by WriteValue or
// while the AcquireWrite reply is out: only the bound waits, the rest is dropped and
// counted, and the link carries writes again once the port answers.
TEST(AWritePath, HoldsAtMostTheBoundOfWritesWithoutResponseAndDropsTheRest) {
  for (const bool offered : {false, true}) {
    WritePath w;
    const Data frame(std::vector<uint8_t>(20, 0x10));
    for (size_t i = 0; i < 5 * kBound; ++i) w.sockets.write(kDevice, "/tx", frame, offered, 185);
    EXPECT_EQ(w.gatt.commandsDropped(), 4 * kBound) << offered;
    if (offered) {
      ASSERT_TRUE(w.port.answer("AcquireWrite", "org.bluez.Error.NotPermitted"));
    }
    EXPECT_EQ(w.answerAll(), kBound) << "nothing waited beyond the bound";
    for (int i = 0; i < 3; ++i) w.sockets.write(kDevice, "/tx", frame, offered, 185);
    EXPECT_EQ(w.answerAll(), 3u) << "the link delivers again";
  }
}

// Writes with response are never dropped silently: beyond the bound each fails by its callback.
TEST(AWritePath, FailsWritesWithResponseBeyondTheBoundWithAnError) {
  WritePath w;
  std::vector<std::string> outcomes;
  const size_t total = 1 + GattQueue::kMaxRequestsWaiting + 2;  // one in flight, the rest wait
  for (size_t i = 0; i < total; ++i) {
    w.gatt.request(kDevice, "/tx", Data(), [&](const std::optional<platform::Error>& failure) {
      outcomes.push_back(failure ? failure->domain + ": " + failure->message : "ok");
    });
  }
  w.port.runPosted();
  const std::string refused = "qlt.bluez: too many writes with response waiting (" +
                              std::to_string(GattQueue::kMaxRequestsWaiting) + "); not sent";
  EXPECT_EQ(outcomes, std::vector<std::string>(2, refused));
  EXPECT_EQ(w.answerAll(), total - 2);
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

}  // namespace
}  // namespace qlt::bluez

#endif  // QLT_TESTS_WITHOUT_BLUEZ
