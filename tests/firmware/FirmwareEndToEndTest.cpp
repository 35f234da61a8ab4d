// The firmware kit's example device, run as another process behind the simulated radio's
// external-device behaviour: the host build (stdin/stdout) and the micro:bit image under QEMU
// (its UART), each through the whole library and the radio's faults.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "QueltLibrary/UartLink.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;

struct Firmware {
  std::string name;
  std::vector<std::string> command;         // the echo device
  std::vector<std::string> restartCommand;  // one that restarts after 20,000 bytes received
};

void PrintTo(const Firmware& firmware, std::ostream* os) { *os << firmware.name; }

#ifdef QLT_FW_MICROBIT
std::vector<std::string> qemu(const std::string& image) {
  return {QLT_QEMU_SYSTEM_ARM,
          "-M",
          "microbit",
          "-nodefaults",
          "-display",
          "none",
          "-monitor",
          "none",
          "-no-reboot",
          "-chardev",
          "stdio,id=uart,signal=off",
          "-serial",
          "chardev:uart",
          "-kernel",
          image};
}
#endif

std::vector<Firmware> firmwares() {
  std::vector<Firmware> list{
      {"Host", {QLT_FW_HOST_ECHO}, {QLT_FW_HOST_ECHO, "--restart-after", "20000"}}};
#ifdef QLT_FW_MICROBIT
  list.push_back({"Chip", qemu(QLT_FW_MICROBIT), qemu(QLT_FW_MICROBIT_RESTART)});
#endif
  return list;
}

sim::SimDeviceConfig device(const std::vector<std::string>& command) {
  sim::SimDeviceConfig d;
  d.identifier = *UUID::fromString("51D0E001-0000-4000-8000-0000000000F1");
  d.localName = "QLT-FW";
  d.behaviour = sim::SimBehaviour::External;
  d.command = command;
  return d;
}

struct TheFirmware : testing::TestWithParam<Firmware> {
  // Sends `message` through a UartLink and reads until as many bytes came back, the link
  // ended or nothing came for 10 s; returns what came.
  std::string echo(e2e::Sim& sim, const std::string& message, std::string* error = nullptr) {
    UartLink link({5s, true, QLT_BLEManager::create(sim.backend())});
    link.connect("QLT-FW");
    link.send(message);
    std::string got;
    try {
      while (got.size() < message.size()) {
        const Data d = link.read(10s);
        if (d.empty()) break;
        got += d.toString();
      }
    } catch (const UartLink::Error& e) {
      if (error) *error = link.lastError();
      EXPECT_EQ(e.reason(), UartLink::Error::Reason::LinkLost) << e.what();
    }
    return got;
  }
};

TEST_P(TheFirmware, EchoesSixtyFourKilobytesExactlyOnceInOrderWithFivePercentLostEachWay) {
  e2e::Sim sim(false);
  auto config = device(GetParam().command);
  sim::AirFaults faults;
  faults.seed = 21;
  faults.lostWritesWithoutResponse = 0.05;
  faults.lostNotifications = 0.05;
  config.faults = faults;
  sim.radio->addDevice(config);
  const std::string message = e2e::pattern(64 * 1024);
  EXPECT_TRUE(echo(sim, message) == message);
  const auto stats = sim.radio->stats(config.identifier);
  EXPECT_GT(stats.writesLost, 0u);
  EXPECT_GT(stats.notificationsLost, 0u);
}

TEST_P(TheFirmware, EchoesADatagramAsADatagram) {
  e2e::SimWorld world;
  auto p = world.find(device(GetParam().command));
  ASSERT_TRUE(p);
  world.follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(world.connectReady(p));
  p->writeUDPData(Data::fromString("a datagram"));
  ASSERT_TRUE(world.app->waitFor("udp", 1));
  EXPECT_EQ(world.app->udp().front().toString(), "a datagram");
  EXPECT_TRUE(world.app->tcp().empty());
}

TEST_P(TheFirmware, RestartingMidTransferIsALostLinkNotData) {
  e2e::Sim sim(false);
  sim.radio->addDevice(device(GetParam().restartCommand));
  const std::string message = e2e::pattern(64 * 1024);
  std::string error;
  const std::string got = echo(sim, message, &error);
  EXPECT_EQ(error, "the link to QLT-FW was lost");
  EXPECT_LE(got.size(), 20000u + 4 * 120) << "no more than the device echoed before it restarted";
  EXPECT_TRUE(got == message.substr(0, got.size())) << "what came is the start, in order";
}

INSTANTIATE_TEST_SUITE_P(, TheFirmware, testing::ValuesIn(firmwares()),
                         [](const auto& info) { return info.param.name; });

// A stack whose one notification buffer frees up every 3 ms refuses most notifications; the
// device layer keeps each refused frame and offers it again, so nothing is lost.
TEST(TheHostFirmware, LosesNoSegmentWhenTheStackRefusesNotifications) {
  char path[] = "/tmp/qlt-fw-report-XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  {
    e2e::Sim sim(false);
    sim.radio->addDevice(
        device({"sh", "-c", std::string("exec \"$0\" --buffers 1 --buffer-free-ms 3 2>") + path,
                QLT_FW_HOST_ECHO}));
    UartLink link({5s, true, QLT_BLEManager::create(sim.backend())});
    link.connect("QLT-FW");
    const std::string message = e2e::pattern(16 * 1024);
    link.send(message);
    std::string got;
    while (got.size() < message.size()) {
      const Data d = link.read(10s);
      if (d.empty()) break;
      got += d.toString();
    }
    EXPECT_TRUE(got == message);
  }
  // The device reports its counters when its link ends.
  std::string report;
  EXPECT_TRUE(test::eventually([&] {
    std::ifstream in(path);
    std::getline(in, report);
    return !report.empty();
  }));
  std::remove(path);
  // "... N notifications, N refused by the stack, ... N segments resent, ..."
  auto count = [&](const std::string& before, const std::string& after) {
    unsigned long n = 0;
    const auto at = report.find(after);
    const auto from = report.rfind(before, at);
    EXPECT_TRUE(at != std::string::npos && from != std::string::npos) << report;
    if (at != std::string::npos && from != std::string::npos) {
      std::istringstream(report.substr(from + before.size())) >> n;
    }
    return n;
  };
  EXPECT_GT(count(", ", " refused by the stack"), 100u) << report;
  // The air loses nothing here: a segment sent again would be one the layer let go.
  EXPECT_LT(count(", ", " segments resent"), 10u) << report;
}

}  // namespace
}  // namespace qlt
