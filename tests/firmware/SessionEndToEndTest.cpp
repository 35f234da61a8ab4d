// The kit's example device kept running across links (link events on its serial line) under
// a central that keeps its session: a large transfer through a link that drops every few
// seconds arrives exactly once and in order, with the device's session resumed at every
// drop; a device that restarts begins a new session, and the central says so.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "FirmwareUnderTest.h"
#include "QueltLibrary/UartLink.h"
#include "support/SimWorld.h"

namespace qlt {
namespace {

using namespace std::chrono_literals;
using firmware::Firmware;

std::vector<Firmware> keptRunning() {
  std::vector<Firmware> kept;
  for (auto& f : firmware::firmwares()) {
    if (f.keepRunning) kept.push_back(f);
  }
  return kept;
}

// The echo of `message` through `link`, sent from a thread of its own while this one reads:
// what came back until all did or nothing came for 15 s.
std::string echoThrough(UartLink& link, const std::string& message) {
  std::thread sender([&] { EXPECT_NO_THROW(link.send(message)); });
  std::string got;
  while (got.size() < message.size()) {
    const Data d = link.read(15s);
    if (d.empty()) break;
    got += d.toString();
  }
  sender.join();
  return got;
}

struct TheKeptFirmware : testing::TestWithParam<Firmware> {
  TheKeptFirmware() {
    // The program with its stderr (the host build's report at its end) in a file.
    std::vector<std::string> command{"sh", "-c", "exec \"$0\" \"$@\" 2>>" + report};
    command.insert(command.end(), GetParam().command.begin(), GetParam().command.end());
    config = firmware::device(command, true);
    config.faults.emplace().dropAfterSeconds = 2.5;
  }
  ~TheKeptFirmware() override { std::remove(report.c_str()); }
  TheKeptFirmware(const TheKeptFirmware&) = delete;
  TheKeptFirmware& operator=(const TheKeptFirmware&) = delete;

  // The host build's report once its run has ended ("" for the chip, which has none).
  std::string lastReport() const {
    std::string line;
    for (std::ifstream in(report); std::getline(in, line);) {
      if (line.find("sessions resumed") != std::string::npos) return line;
    }
    return "";
  }

  const std::string report = [] {
    char path[] = "/tmp/qlt-fw-report-XXXXXX";
    ::close(::mkstemp(path));
    return std::string(path);
  }();
  sim::SimDeviceConfig config;
};

TEST_P(TheKeptFirmware, ResumesItsSessionAtEveryDropThroughUartLink) {
  e2e::Sim sim(false);
  sim.radio->addDevice(config);
  auto options = test::linkOptions(5s, QLT_BLEManager::create(sim.backend()));
  options.reconnect.enabled = true;
  const std::string message = e2e::pattern(GetParam().resumedTransfer);
  uint64_t drops = 0;
  {
    UartLink link(options);
    link.connect("QLT-FW");
    const std::string got = echoThrough(link, message);
    EXPECT_EQ(got.size(), message.size());
    EXPECT_TRUE(got == message) << "exactly once, in order";
    const auto counters = link.counters();
    drops = counters.drops;
    EXPECT_GE(drops, 2u);
    EXPECT_EQ(counters.bytesDiscarded, 0u);
    EXPECT_EQ(counters.sessionsResumed, drops) << "the device resumed at every drop";
    EXPECT_EQ(counters.sessionsLost, 0u);
  }
  sim.radio->removeDevice(config.identifier);  // the run ends: the host build reports
  if (GetParam().name.rfind("Host", 0) == 0) {
    std::string line;
    ASSERT_TRUE(test::eventually([&] { return !(line = lastReport()).empty(); }));
    unsigned long resumed = 0, lost = 0;
    ASSERT_EQ(
        std::sscanf(line.substr(line.find("bad SLIP frames")).c_str(),
                    "bad SLIP frames, %lu sessions resumed, %lu sessions lost", &resumed, &lost),
        2)
        << line;
    EXPECT_EQ(resumed, drops) << line;
    EXPECT_EQ(lost, 0u) << line;
  }
}

TEST_P(TheKeptFirmware, BeginsANewSessionWhenItRestartsAndTheCentralSaysSo) {
  e2e::Sim sim(false);
  sim.radio->addDevice(firmware::device(GetParam().restartCommand, true));  // after 20,000 B
  auto options = test::linkOptions(5s, QLT_BLEManager::create(sim.backend()));
  options.reconnect.enabled = true;
  UartLink link(options);
  link.connect("QLT-FW");
  const std::string message = e2e::pattern(30000);  // one restart: the rest is under 20,000
  std::thread sender([&] {
    try {
      link.send(message);
    } catch (const UartLink::Error& e) {
      EXPECT_EQ(e.reason(), UartLink::Error::Reason::LinkLost) << e.what();
    }
  });
  std::string got;
  for (Data d; !(d = link.read(3s)).empty();) got += d.toString();
  sender.join();
  const auto counters = link.counters();
  EXPECT_EQ(counters.sessionsLost, 1u);
  EXPECT_GT(counters.bytesInDoubt, 0u);
  EXPECT_EQ(link.lastError().rfind("a new session began with QLT-FW", 0), 0u) << link.lastError();
  // The start of the message, then bytes the old session never sent: a gap, nothing twice.
  size_t start = 0;
  while (start < got.size() && got[start] == message[start]) ++start;
  ASSERT_LT(got.size(), message.size());
  EXPECT_NE(message.find(got.substr(start), start), std::string::npos) << "at " << start;
}

INSTANTIATE_TEST_SUITE_P(, TheKeptFirmware, testing::ValuesIn(keptRunning()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qlt
