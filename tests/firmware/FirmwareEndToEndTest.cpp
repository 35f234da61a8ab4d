// The kit's example device behind the simulated radio, through the whole library: the host
// build (SLIP on stdin/stdout) and the micro:bit image under QEMU (SLIP on its UART), each
// started for every link or kept running across links (link events on its serial line).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "FirmwareUnderTest.h"
#include "QueltLibrary/UartLink.h"
#include "qlt_slip.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using firmware::device;
using firmware::Firmware;
using firmware::firmwares;

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

// A program that keeps running across links, made of the shell: it notes each start, records
// every frame it hears and writes what the test puts in a FIFO.
struct KeptProgram {
  KeptProgram() {
    ::mkfifo(fifo.c_str(), 0600);
    toProgram = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // never blocks, keeps cat reading
  }
  ~KeptProgram() {
    ::close(toProgram);  // cat's end of input
    for (const auto& path : {fifo, heard, starts}) std::remove(path.c_str());
    ::rmdir(dir.c_str());
  }
  KeptProgram(const KeptProgram&) = delete;
  KeptProgram& operator=(const KeptProgram&) = delete;

  sim::SimDeviceConfig config() const {
    return device({"sh", "-c", R"(echo $$ >> "$1"; cat "$2" & exec tee -a "$3" >/dev/null)", "sh",
                   starts, fifo, heard},
                  true);
  }
  void say(const std::string& frame) const {
    std::vector<uint8_t> out(QLT_SLIP_ENCODED_MAX(frame.size()));
    const size_t n = qlt_slip_encode(reinterpret_cast<const uint8_t*>(frame.data()), frame.size(),
                                     out.data(), out.size());
    ASSERT_EQ(::write(toProgram, out.data(), n), static_cast<ssize_t>(n));
  }
  // The frames the program heard so far, each as text.
  std::vector<std::string> frames() const {
    std::ifstream in(heard, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::vector<uint8_t> buffer(600);
    qlt_slip_decoder decoder;
    qlt_slip_decoder_init(&decoder, buffer.data(), buffer.size());
    std::vector<std::string> frames;
    for (char c : bytes) {
      if (size_t n = qlt_slip_decode_byte(&decoder, static_cast<uint8_t>(c)))
        frames.emplace_back(reinterpret_cast<const char*>(buffer.data()), n);
    }
    return frames;
  }
  size_t startCount() const {
    std::ifstream in(starts);
    size_t lines = 0;
    for (std::string line; std::getline(in, line);) ++lines;
    return lines;
  }

  std::string dir = [] {
    char name[] = "/tmp/qlt-kept-XXXXXX";
    return std::string(::mkdtemp(name));
  }();
  std::string fifo = dir + "/out", heard = dir + "/heard", starts = dir + "/starts";
  int toProgram = -1;
};

const std::string kUp("\x01", 1), kDown("\x02", 1), kValue("\x00", 1);

TEST(AnExternalDeviceKeptRunning, HearsEachLinkBeginAndEndInOrderAndNotifiesOnlyWhileOneIsUp) {
  KeptProgram program;
  e2e::Sim sim(false);
  const auto config = program.config();
  sim.radio->addDevice(config);
  auto options = test::linkOptions(5s, QLT_BLEManager::create(sim.backend()), false);
  auto heardUpTo = [&](size_t n) {
    return test::eventually([&] { return program.frames().size() >= n; });
  };
  {
    UartLink link(options);
    link.connect("QLT-FW");
    link.send("one");
    ASSERT_TRUE(heardUpTo(2));
    program.say(kValue + "back");
    EXPECT_EQ(link.read(5s).toString(), "back");
    sim.radio->dropLink(config.identifier);
    ASSERT_TRUE(heardUpTo(3));
  }
  program.say(kValue + "while no link is up");
  ASSERT_TRUE(test::eventually(
      [&] { return sim.radio->stats(config.identifier).notificationsUnlinked == 1; }));
  program.say(std::string(1, '\x07') + "not a value");
  {
    UartLink link(options);
    link.connect("QLT-FW");
    link.send("two");
    program.say(kValue + "again");
    EXPECT_EQ(link.read(5s).toString(), "again") << "nothing held from before, no other type";
    link.disconnect();
  }
  ASSERT_TRUE(heardUpTo(6));
  EXPECT_EQ(program.frames(),
            (std::vector<std::string>{kUp, kValue + "one", kDown, kUp, kValue + "two", kDown}));
  EXPECT_EQ(program.startCount(), 1u) << "one run for both links";
  EXPECT_EQ(sim.radio->stats(config.identifier).notificationsUnlinked, 1u);
}

}  // namespace
}  // namespace qlt
