// The kit's example device behind the simulated radio, through the whole library: the host
// build (SLIP on stdin/stdout) and the micro:bit image under QEMU (SLIP on its UART), each
// started for every link or kept running across links (link events on its serial line).
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "QueltLibrary/UartLink.h"
#include "RunTool.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

struct Firmware {
  std::string name;
  std::vector<std::string> command;         // the echo device
  std::vector<std::string> restartCommand;  // one that restarts after 20,000 bytes received
  bool keepRunning = false;                 // one run across links, link events on the line
};

void PrintTo(const Firmware& firmware, std::ostream* os) { *os << firmware.name; }

#ifdef QLT_FW_MICROBIT
std::vector<std::string> qemu(const std::string& image) {
  std::istringstream words(
      "-M microbit -nodefaults -display none -monitor none -no-reboot "
      "-chardev stdio,id=uart,signal=off -serial chardev:uart -kernel");
  std::vector<std::string> command{QLT_QEMU_SYSTEM_ARM};
  for (std::string w; words >> w;) command.push_back(w);
  command.push_back(image);
  return command;
}
#endif

std::vector<Firmware> firmwares(bool keptRunningOnly = false) {
  const char* events = "--link-events";
  std::vector<Firmware> list{{"HostKeptRunning",
                              {QLT_FW_HOST_ECHO, events},
                              {QLT_FW_HOST_ECHO, events, "--restart-after", "20000"},
                              true}};
  if (!keptRunningOnly) {
    list.push_back({"Host", {QLT_FW_HOST_ECHO}, {QLT_FW_HOST_ECHO, "--restart-after", "20000"}});
  }
#ifdef QLT_FW_MICROBIT
  list.push_back({"ChipKeptRunning", qemu(QLT_FW_MICROBIT_EVENTS),
                  qemu(QLT_FW_MICROBIT_EVENTS_RESTART), true});
  if (!keptRunningOnly) {
    list.push_back({"Chip", qemu(QLT_FW_MICROBIT), qemu(QLT_FW_MICROBIT_RESTART)});
  }
#endif
  return list;
}

sim::SimDeviceConfig device(const std::vector<std::string>& command, bool keepRunning = false) {
  sim::SimDeviceConfig d;
  d.identifier = *UUID::fromString("51D0E001-0000-4000-8000-0000000000F1");
  d.localName = "QLT-FW";
  d.behaviour = sim::SimBehaviour::External;
  d.command = command;
  d.keepRunning = keepRunning;
  return d;
}

struct TheFirmware : testing::TestWithParam<Firmware> {
  // What came back of `message` until all did, the link ended or nothing came for 10 s.
  static std::string echo(e2e::Sim& sim, const std::string& message, std::string* error = nullptr,
                          WindowFormat* format = nullptr) {
    UartLink link(test::linkOptions(5s, QLT_BLEManager::create(sim.backend())));
    link.connect("QLT-FW");
    link.send(message);
    std::string got;
    try {
      while (got.size() < message.size()) {
        const Data d = link.read(10s);
        if (d.empty()) break;
        got += d.toString();
      }
      if (const auto c = link.windowCounters(); c && format) *format = c->format;
    } catch (const UartLink::Error& e) {
      if (error) *error = link.lastError();
      EXPECT_EQ(e.reason(), UartLink::Error::Reason::LinkLost) << e.what();
    }
    return got;
  }
};

TEST_P(TheFirmware, EchoesSixtyFourKilobytesExactlyOnceInOrderWithFivePercentLostEachWay) {
  e2e::Sim sim(false);
  auto config = device(GetParam().command, GetParam().keepRunning);
  sim::AirFaults& faults = config.faults.emplace();
  faults.seed = 21;
  faults.lostWritesWithoutResponse = faults.lostNotifications = 0.05;
  sim.radio->addDevice(config);
  const std::string message = e2e::pattern(64 * 1024);
  WindowFormat format = WindowFormat::Classic;
  EXPECT_TRUE(echo(sim, message, nullptr, &format) == message);
  EXPECT_EQ(format, WindowFormat::Extended) << "the kit's example answers the library's offer";
  EXPECT_GT(sim.radio->stats(config.identifier).notificationsLost, 0u);
}

TEST_P(TheFirmware, EchoesADatagramAsADatagram) {
  e2e::SimWorld world;
  auto p = world.find(device(GetParam().command, GetParam().keepRunning));
  ASSERT_TRUE(p);
  world.follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(world.connectReady(p));
  p->writeUDPData(Data::fromString("a datagram"));
  ASSERT_TRUE(world.app->waitFor("udp", 1));
  EXPECT_EQ(world.app->udp().front().toString(), "a datagram");
}

TEST_P(TheFirmware, RestartingMidTransferIsALostLinkNotData) {
  e2e::Sim sim(false);
  sim.radio->addDevice(device(GetParam().restartCommand, GetParam().keepRunning));
  const std::string message = e2e::pattern(64 * 1024);
  std::string error;
  const std::string got = echo(sim, message, &error);
  EXPECT_EQ(error.rfind("the link to QLT-FW was lost", 0), 0u) << error;
  EXPECT_LE(got.size(), 20000u + 4 * 120) << "no more than the device echoed before it restarted";
  EXPECT_TRUE(got == message.substr(0, got.size())) << "what came is the start, in order";
  if (GetParam().keepRunning) {
    EXPECT_EQ(echo(sim, "again"), "again") << "the next link starts it again";
  }
}

INSTANTIATE_TEST_SUITE_P(, TheFirmware, testing::ValuesIn(firmwares()),
                         [](const auto& info) { return info.param.name; });

// A stack with one notification buffer, freed every 3 ms: refusals lose and resend nothing.
TEST(TheHostFirmware, LosesNoSegmentWhenTheStackRefusesNotifications) {
  char path[] = "/tmp/qlt-fw-report-XXXXXX";
  ::close(::mkstemp(path));
  {
    e2e::Sim sim(false);
    const std::string sh = std::string("exec \"$0\" --buffers 1 --buffer-free-ms 3 2>") + path;
    sim.radio->addDevice(device({"sh", "-c", sh, QLT_FW_HOST_ECHO}));
    const std::string message = e2e::pattern(16 * 1024);
    EXPECT_TRUE(TheFirmware::echo(sim, message) == message);
  }
  std::string report;  // written by the device when its link ends
  EXPECT_TRUE(test::eventually([&] { return std::getline(std::ifstream(path), report) && true; }));
  std::remove(path);
  unsigned long refused = 0, resent = 0;
  ASSERT_EQ(std::sscanf(report.c_str(),
                        "qlt-fw-echo: %*u values written, %*u notifications, %lu refused by the "
                        "stack, %*u bytes received, %*u left unread, %lu segments resent",
                        &refused, &resent),
            2)
      << report;
  EXPECT_GT(refused, 100u) << report;
  EXPECT_LT(resent, 10u) << report << ": the air loses nothing, so a resend is a frame let go";
}

// A program kept running, made of the shell: it notes its start, then echoes every frame and
// records it.
TEST(AnExternalDeviceKeptRunning, HearsEachLinkBeginAndEndInOrderAndNotifiesOnlyValues) {
  char heard[] = "/tmp/qlt-fw-heard-XXXXXX";
  ::close(::mkstemp(heard));
  e2e::Sim sim(false);
  sim.radio->addDevice(
      device({"sh", "-c", R"(echo run >> "$1"; exec tee -a "$1")", "sh", heard}, true));
  for (const std::string round : {"x", "y"}) {
    UartLink link(test::linkOptions(5s, QLT_BLEManager::create(sim.backend()), false));
    link.connect("QLT-FW");
    link.send(round);
    EXPECT_EQ(link.read(5s).toString(), round) << "the value back; a link event is no value";
  }
  // One run; SLIP frames (END, type, value, END) of a link up, a value, a link down, twice.
  const std::string expected =
      "run\n\xC0\x01\xC0\xC0\x00x\xC0\xC0\x02\xC0\xC0\x01\xC0\xC0\x00y\xC0\xC0\x02\xC0"s;
  std::string bytes;
  EXPECT_TRUE(test::eventually([&] {
    std::getline(std::ifstream(heard, std::ios::binary), bytes, '\xFF');
    return bytes == expected;
  })) << testing::PrintToString(bytes);
  std::remove(heard);
}

using TheKeptFirmware = TheFirmware;

// `qlt bridge --reconnect` to the device while its link drops every 2.5 s: the session
// resumes at every drop (no new one), and everything comes back exactly once, in order
// (about 10 s of echo: 1 MiB through the host build, 512 KiB through the chip).
TEST_P(TheKeptFirmware, CarriesATransferThroughQltBridgeResumingAtEveryDrop) {
  test::TempDir dir;
  std::string command;
  for (const auto& word : GetParam().command)
    command += (command.empty() ? "\"" : ", \"") + word + "\"";
  std::ofstream(dir.path() + "/radio.json") << R"({"devices": [{"name": "QLT-FW",
      "identifier": "51D0E001-0000-4000-8000-0000000000F1", "behaviour": "external",
      "keepRunning": true, "faults": {"dropAfterSeconds": 2.5}, "command": [)"
                                            << command << "]}]}";
  const std::string message = e2e::pattern(size_t{GetParam().name[0] == 'H' ? 1024u : 512u} << 10);
  const auto run =
      test::runTool({"bridge", "QLT-FW", "--sim-config", dir.path() + "/radio.json", "--reconnect"},
                    dir.path(), 120, test::withStdin(message));
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(run.out == message) << run.out.size() << " bytes came back";
  EXPECT_NE(run.err.find("reconnected to 'QLT-FW'"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("new session"), std::string::npos) << run.err;
}

// Restarted (a new run), the device cannot resume: a new session begins, and the central says so.
TEST_P(TheKeptFirmware, BeginsANewSessionWhenItRestarts) {
  e2e::Sim sim(false);
  sim.radio->addDevice(device(GetParam().restartCommand, true));  // after 20,000 bytes
  auto options = test::linkOptions(5s, QLT_BLEManager::create(sim.backend()));
  options.reconnect.enabled = true;
  UartLink link(options);
  link.connect("QLT-FW");
  link.send(e2e::pattern(30000));  // taken at once (64 KiB of send buffer): one restart
  std::string got;
  for (Data d; !(d = link.read(2s)).empty();) got += d.toString();
  EXPECT_GT(got.size(), 20000u + 4 * 120) << "the next run echoes the bytes never sent";
  EXPECT_EQ(link.lastError().rfind("a new session began with QLT-FW", 0), 0u) << link.lastError();
}

INSTANTIATE_TEST_SUITE_P(, TheKeptFirmware, testing::ValuesIn(firmwares(true)),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qlt
