// The qlt tool as a user meets it: exit codes, messages, and what the commands print; devices
// named by name, identifier or address.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "RunTool.h"

namespace qlt::test {
namespace {

// Processes blocked in flock() on the file `path`, as the kernel lists them in /proc/locks
// ("N: -> FLOCK ADVISORY WRITE pid maj:min:inode ...").
size_t waitersForLock(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  const std::string inode = ":" + std::to_string(st.st_ino) + " ";
  std::ifstream locks("/proc/locks");
  size_t n = 0;
  for (std::string line; std::getline(locks, line);) {
    n += line.find("-> FLOCK") != std::string::npos && line.find(inode) != std::string::npos;
  }
  return n;
}

class TheQltTool : public ToolTest {
 protected:
  // A simulated radio of devices that misbehave: a small MTU, broken UART tables, links
  // that drop, a hostile name (hostile-radio.json beside this file).
  const std::string radio_ = QLT_TOOL_TEST_DATA "/hostile-radio.json";
  const std::string evilName_ =
      "Evil\x1b[2J\nfake row  0E0E0E0E-9999 xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx";
};

// Bad usage is exit 2 with a message that names the command (and the option, for a bad
// number): nothing hangs on NaN, wraps around, or claims an absurd time.
TEST_F(TheQltTool, RejectsBadUsageWithExitCodeTwo) {
  const std::string bad = store_.path() + "/bad.json";
  std::ofstream(bad) << R"({"devices": [{"name": "no identifier"}]})";
  const std::string slow = store_.path() + "/slow.json";
  std::ofstream(slow) << R"({"link": {"intervalMs": 5}})";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, ""},  // no command
      {{"bench", "--transport", "carrier-pigeon"}, "--transport"},
      {{"chat"}, "DEVICE"},
      {{"scan", "--platform", "zigbee"}, "--platform"},
      {{"known"}, ""},
      {{"scan", "--sim-config", bad}, "identifier"},  // a device without one
      {{"known", "remove", "not-a-uuid"}, "not-a-uuid"},
      {{"scan", "--timeout", "nan"}, "--timeout"},
      {{"chat", "X", "--timeout", "-5"}, "--timeout"},
      {{"receive", "X", "f", "--idle", "nan"}, "--idle"},
      {{"known", "add", "X", "--timeout", "1e300"}, "--timeout"},
      {{"demo", "--loss", "nan"}, "--loss"},
      {{"bench", "--bytes", "-1"}, "--bytes"},
      {{"receive", "X", "f", "--bytes", "99999999999999999999"}, "--bytes"},
      {{"bench", "--pings", "1.5"}, "--pings"},
      {{"scan", "--manufacturer", "0x1FFFF"}, "--manufacturer"},
      {{"scan", "--service", "180G"}, "--service"},
      {{"chat", "C0:FF:EE:00:00"}, "not a Bluetooth address"},
      {{"bench", "-t", "1", "--bytes", "10"}, "--bytes excludes --time"},
      {{"bench", "--interval-ms", "5"},
       "--interval-ms: 5 is out of range (0 for the instant link, or 7.5 to 4000)"},
      {{"demo", "--data-length", "300"},
       "--data-length: '300' is not a whole number from 27 to 251"},
      {{"bench", "--mtu", "10"}, "--mtu: '10' is not a whole number from 23 to 517"},
      {{"bench", "--phy", "3M"}, "--phy: 3M not in {1M,2M}"},
      {{"bench", "--sim-config", slow}, "link.intervalMs: 5 is out of range"},
      {{"bench", "-t", "0"}, "--time"},
      {{"bench", "-i", "0"}, "--report-interval"},
      {{"bench", "-R", "--transport", "nus"}, "-R needs the sliding window"},
      {{"bridge", "QLT-Echo", "--tcp", "70000"}, "'70000' has no port"},
      {{"bridge", "QLT-Echo", "--tcp", "host:"}, "'host:' has no port"},
      {{"bridge", "QLT-Echo", "--tcp", "::1:80"}, "needs brackets"},
      {{"bridge", "QLT-Echo", "--tcp", "7x"}, "'7x' has no port"},
      {{"bridge", "QLT-Echo", "--tcp", "1", "--pty"}, "--pty excludes --tcp"},
  };
  for (const auto& [args, named] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const auto run = qlt(args);
    EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
    EXPECT_NE(run.err.find(named), std::string::npos) << run.err;
    EXPECT_TRUE(args.empty() || run.err.rfind("qlt " + args[0], 0) == 0) << run.err;
  }
  const auto env = qlt({"scan", "--timeout", "0.2"}, 60, withEnv({"QLT_PLATFORM=zigbee"}));
  EXPECT_EQ(env.exitCode, 2);
  EXPECT_NE(env.err.find("QLT_PLATFORM is 'zigbee'"), std::string::npos) << env.err;
}

TEST_F(TheQltTool, ShowsHelpWithExamplesForEveryCommand) {
  for (const std::string cmd : {"demo", "scan", "chat", "send", "receive", "bench", "known"}) {
    const auto run = qlt({cmd, "--help"});
    EXPECT_EQ(run.exitCode, 0) << cmd;
    EXPECT_NE(run.out.find("Example"), std::string::npos) << cmd << " --help has no example:\n"
                                                          << run.out;
  }
}

TEST_F(TheQltTool, ShowsTheLibraryLogOnlyWhenAskedAndSaysWhichPlatform) {
  const auto run = qlt({"scan", "--timeout", "0.3", "--verbose"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("Start discovery"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("qlt scan: platform sim"), std::string::npos) << run.err;
  // QLT_PLATFORM counts when --platform is absent; with no system bus BlueZ fails at once,
  // saying why, instead of waiting out the five-second power-on limit.
  const auto bluez =
      qlt({"scan", "--timeout", "0.3"}, 60,
          withEnv({"QLT_PLATFORM=bluez", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"}));
  if (bluez.exitCode == 2 && bluez.err.find("not available") != std::string::npos) return;
  EXPECT_EQ(bluez.exitCode, 1) << bluez.err;
  EXPECT_NE(bluez.err.find("platform bluez"), std::string::npos) << bluez.err;
  EXPECT_NE(bluez.err.find("system bus"), std::string::npos) << bluez.err;
  EXPECT_LT(bluez.seconds, 4.0);
}

TEST_F(TheQltTool, RunsTheDemoToAVerifiedSummary) {
  const auto run = qlt({"demo"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  for (const char* expected :
       {"QLT-Echo", "state: connecting", "state: ready", "summary", "goodput", "retransmissions",
        "polls", "rejections", "state: disconnected",
        "every byte came back exactly once and in order"}) {
    EXPECT_NE(run.out.find(expected), std::string::npos) << "missing '" << expected << "' in:\n"
                                                         << run.out;
  }
  // Piped output carries no progress bar or cursor movement.
  EXPECT_EQ(run.out.find('\r'), std::string::npos);
  EXPECT_EQ(run.out.find("\033["), std::string::npos);
}

// With host drops on the phone's link at 10 ms: every key, a verified echo, something
// recovered, and goodput below the classic window's bound and the link's physical limit.
TEST_F(TheQltTool, BenchReportsAVerifiedEchoBelowTheBoundOnALossySlowLink) {
  const auto run = qlt({"bench", "--json", "--bytes", "12000", "--pings", "5", "--loss", "0.05",
                        "--interval-ms", "10", "--classic-window"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto j = nlohmann::json::parse(run.out);
  for (const char* key :
       {"transport", "bytes", "seconds", "goodput_Bps", "bound_Bps", "verified", "latency_p50_ms",
        "latency_p99_ms", "retransmissions", "polls_sent", "rejections_sent", "rejections_received",
        "loss", "interval_ms", "physical_limit_Bps", "phy", "data_length", "mtu"}) {
    EXPECT_TRUE(j.contains(key)) << key << " missing in " << run.out;
  }
  EXPECT_EQ(j["transport"], "sw");
  EXPECT_EQ(j["window"], "classic");
  EXPECT_EQ(j["bytes"], 12000);
  EXPECT_EQ(j["verified"], true);
  EXPECT_DOUBLE_EQ(j["loss"].get<double>(), 0.05);
  EXPECT_DOUBLE_EQ(j["interval_ms"].get<double>(), 10.0);
  // With 5% of 100 frames lost each way, something had to be recovered.
  EXPECT_GT(j["retransmissions"].get<int>() + j["polls_sent"].get<int>() +
                j["rejections_received"].get<int>(),
            0)
      << run.out;
  // A 121-byte frame is one 128-byte PDU on 2M: (2 + 4 + 2 + 128 + 3) × 4 µs = 556 µs one
  // way. 12000 B echoed are 34 windows: the last leaves 33 round trips of 2 × 556 µs (an
  // echo acknowledges with its answer) after the first and is back two ways later.
  const double frame = 556e-6;
  EXPECT_NEAR(j["bound_Bps"].get<double>(), 12000 / (33 * 2 * frame + 2 * frame), 0.01);
  // Echoed, a pair is 556 + 150 + 556 + 150 µs: 7 fit in 10 ms, 840 B of payload; the
  // 12000 bytes may save one interval of that pace.
  EXPECT_NEAR(j["physical_limit_Bps"].get<double>(), 12000 / (12000 / 84000.0 - 0.010), 0.01);
  EXPECT_LE(j["goodput_Bps"].get<double>(), j["bound_Bps"].get<double>());
  EXPECT_LE(j["goodput_Bps"].get<double>(), j["physical_limit_Bps"].get<double>());
  EXPECT_LE(j["latency_p50_ms"].get<double>(), j["latency_p99_ms"].get<double>());
}

// The store: changes by concurrent processes all land (each waits for the others' lock),
// and a store that cannot be read or written is never reported as changed.
TEST_F(TheQltTool, ChangesTheKnownStoreUnderALockOrFailsSayingWhy) {
  const std::string lockPath = storeFile(store_.path()) + ".lock";
  const int lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  std::vector<std::future<ToolRun>> adds;
  for (const char* device : {"QLT-Echo", "QLT-Chunk", "QLT-Sink"})
    adds.push_back(std::async(std::launch::async, [this, device] {
      return qlt({"known", "add", device});
    }));
  // Every one of them waits for the lock (rather than sleeping to give them time to write).
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (waitersForLock(lockPath) < 3 && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(waitersForLock(lockPath), 3u);
  EXPECT_FALSE(std::filesystem::exists(storeFile(store_.path()))) << "written without the lock";
  ::close(lock);
  for (auto& add : adds) EXPECT_EQ(add.get().exitCode, 0);
  EXPECT_EQ(splitLines(qlt({"known", "list"}).out).size(), 3u);
  EXPECT_NE(qlt({"known", "clear"}).out.find("forgot 3"), std::string::npos);

  const std::string file = storeFile(store_.path());  // the store's own failures: its tests
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);  // there, but not readable as a file
  const auto run = qlt({"known", "add", "QLT-Echo"});
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_NE(run.err.find("cannot read"), std::string::npos) << run.err;
  EXPECT_TRUE(std::filesystem::is_directory(file));
}

TEST_F(TheQltTool, RemembersAndForgetsKnownDevices) {
  const auto add = qlt({"known", "add", "QLT-Echo"});
  ASSERT_EQ(add.exitCode, 0) << add.err;
  const auto list = splitLines(qlt({"known", "list"}).out);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_NE(add.out.find("added " + list[0]), std::string::npos) << add.out;
  EXPECT_NE(qlt({"known", "add", "QLT-Echo"}).out.find("already known"), std::string::npos);
  std::string lowerId = list[0];
  for (auto& c : lowerId) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(qlt({"known", "remove", lowerId}).exitCode, 0);
  const auto again = qlt({"known", "remove", list[0]});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_NE(again.err.find("is not a known device"), std::string::npos) << again.err;
  EXPECT_EQ(qlt({"known", "list"}).out, "");
}

TEST_F(TheQltTool, SendsAndReceivesFilesThroughTheWindow) {
  const std::string in = store_.path() + "/in.bin";
  const std::string out = store_.path() + "/out.bin";
  {
    std::ofstream f(in, std::ios::binary);
    for (int i = 0; i < 5000; ++i) f.put(static_cast<char>(i * 7));
  }
  const auto send = qlt({"send", "C0:FF:EE:00:00:01", in});  // QLT-Echo, by its address
  EXPECT_EQ(send.exitCode, 0) << send.out << send.err;
  EXPECT_NE(send.out.find("5000 sent and acknowledged"), std::string::npos) << send.out;

  // The source sends byte i = i mod 251; exactly --bytes of it land in the file.
  const auto receive = qlt({"receive", "QLT-Source", out, "--bytes", "3000"});
  ASSERT_EQ(receive.exitCode, 0) << receive.out << receive.err;
  std::ifstream f(out, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
  ASSERT_EQ(bytes.size(), 3000u);
  for (size_t i = 0; i < bytes.size(); ++i)
    ASSERT_EQ(static_cast<unsigned char>(bytes[i]), i % 251) << i;
}

// Every failure, a lost link included, is exit 1 in words, with the count that got through;
// a receive that fails leaves its target as it was (a partial transfer is kept only when
// asked, under a name that says so).
TEST_F(TheQltTool, NeverLosesOrMisreportsDataWhenATransferFails) {
  const std::string radio = radio_, target = store_.path() + "/target.bin",
                    big = store_.path() + "/big.bin";
  std::ofstream(big) << std::string(100000, 'x');
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"receive", "NoSuch", target, "--timeout", "0.5"},
       "no device named 'NoSuch' found within 0.5 s"},
      {{"chat", "C0:FF:EE:00:00:99", "--timeout", "0.5"},
       "no device with address C0:FF:EE:00:00:99"},
      {{"bridge", "QLT-Echo", "--pty", "--link", target}, "exists and is not a symbolic link"},
      // A link that cannot carry the transport is refused at once, saying why.
      {{"receive", "Small", target, "--sim-config", radio}, "ATT MTU is 23"},
      {{"receive", "Twice", target, "--sim-config", radio}, "UART service 2 times"},
      {{"chat", "Swapped", "--sim-config", radio}, "tx and rx characteristics are swapped"},
      {{"chat", "Mute", "--sim-config", radio}, "the device's rx characteristic does not notify"},
      {{"receive", "Dropper", target, "--sim-config", radio}, "the connection was lost"},
      {{"receive", "QLT-Source", "/dev/full", "--bytes", "1000"}, "No space left on device"},
      {{"receive", "QLT-Sink", target, "--timeout", "0.5", "--idle", "0.5"}, "nothing received"},
      // The sink swallows frames without acknowledging them.
      {{"send", "QLT-Sink", radio, "--timeout", "1"}, "acknowledged nothing for 1.0 s"},
      // Counted: what the device acknowledged, not what was queued.
      {{"send", "EchoDropper", big, "--sim-config", radio}, "connection was lost ("},
  };
  for (const auto& [args, why] : cases) {
    SCOPED_TRACE(args[1]);
    std::ofstream(target) << "precious";
    const auto run = qlt(args);
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_NE(run.err.find(why), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("QueltLibrary"), std::string::npos) << run.err;  // no --verbose
    EXPECT_EQ(run.err.find("100000 of 100000"), std::string::npos) << run.err;
    EXPECT_EQ(std::filesystem::file_size(target), 8u);  // "precious", untouched
    for (const auto& e : std::filesystem::directory_iterator(store_.path()))
      EXPECT_EQ(e.path().string().find(".receiving"), std::string::npos) << e.path();
  }
  // Asked for, the part that arrived is kept beside the untouched target.
  ASSERT_EQ(qlt({"receive", "Dropper", target, "--sim-config", radio, "--keep-partial"}).exitCode,
            1);
  EXPECT_GT(std::filesystem::file_size(target + ".partial"), 0u);
  EXPECT_EQ(std::filesystem::file_size(target), 8u);
  // Interrupted: the summary, exit 130, the target untouched.
  const auto stopped = qlt({"receive", "QLT-Source", target}, 60, signalAfter(SIGINT, 1.5));
  EXPECT_EQ(stopped.exitCode, 130) << stopped.out << stopped.err;
  EXPECT_NE(stopped.out.find("summary"), std::string::npos) << stopped.out;
  EXPECT_EQ(std::filesystem::file_size(target), 8u);
}

// The chunking transport fits a small MTU that the sliding window cannot use.
TEST_F(TheQltTool, SuggestsTheChunkingTransportForASmallMtu) {
  EXPECT_NE(qlt({"bench", "--device", "Small", "--sim-config", radio_}).err.find("--transport nus"),
            std::string::npos);
  const auto chunks = qlt({"chat", "SmallChunk", "--transport", "nus", "--sim-config", radio_}, 60,
                          withStdin("hi\n"));
  EXPECT_EQ(chunks.exitCode, 0) << chunks.err;
  EXPECT_EQ(chunks.out, "< hi\n");
}

// Stdout carries only data when it carries data; what comes from a device is shown safely.
TEST_F(TheQltTool, KeepsDataOnStdoutAndShowsWhatDevicesSendSafely) {
  const auto bench = qlt({"bench", "--json", "--trace", "--bytes", "2k", "--pings", "1"});
  EXPECT_EQ(bench.exitCode, 0) << bench.err;
  EXPECT_EQ(nlohmann::json::parse(bench.out)["bytes"], 2000);
  EXPECT_NE(bench.err.find("→ seg seq=0"), std::string::npos);

  const auto chat = qlt({"chat", "c0:ff:ee:00:00:01"}, 60, withStdin("héllo\n\nbye\n"));
  EXPECT_EQ(chat.exitCode, 0) << chat.err;
  EXPECT_EQ(splitLines(chat.out), (std::vector<std::string>{"< héllo", "< ", "< bye"})) << chat.out;
  EXPECT_NE(chat.err.find("[ready]"), std::string::npos);

  const auto scan = qlt({"scan", "--sim-config", radio_, "--timeout", "0.5"});
  const auto evil = qlt({"chat", "0E0E0E0E-0000-4000-8000-000000000007", "--sim-config", radio_},
                        60, withStdin("x\n"));
  for (const std::string& shown : {scan.out, evil.err}) {
    EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
    EXPECT_NE(shown.find("Evil\\x1b[2J\\x0afake row"), std::string::npos) << shown;
    EXPECT_NE(shown.find("…"), std::string::npos) << shown;
  }
  for (const auto& line : splitLines(scan.out))
    EXPECT_EQ(line.rfind("fake row", 0), std::string::npos);
  // --json keeps the name exact; the --name filter is the library's.
  const auto json =
      qlt({"scan", "--json", "--timeout", "0.5", "--name", "EVIL", "--sim-config", radio_});
  const auto lines = splitLines(json.out);
  ASSERT_EQ(lines.size(), 1u) << json.out;
  const auto j = nlohmann::json::parse(lines[0]);
  EXPECT_TRUE(j.contains("identifier") && j.contains("rssi") && j.contains("nus")) << lines[0];
  EXPECT_EQ(j["name"], evilName_);
}

TEST_F(TheQltTool, ShowsAdvertisementDataAsHexByCompanyAndServiceAndFiltersOnThem) {
  using Json = nlohmann::json;
  const auto scan = [&](std::vector<std::string> filter) {  // what shows, by name
    filter.insert(filter.begin(), {"scan", "--json", "--timeout", "0.6"});
    const auto run = qlt(filter);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    std::map<std::string, Json> seen;
    for (const auto& line : splitLines(run.out))
      seen[Json::parse(line)["name"]] = Json::parse(line);
    return seen;
  };
  const auto echo = scan({"--manufacturer", "89"});
  ASSERT_EQ(echo.size(), 1u);
  const Json& e = echo.at("QLT-Echo");
  EXPECT_EQ(e["address"], "C0:FF:EE:00:00:01");
  EXPECT_EQ(e["manufacturerData"], (Json{{"0x0059", "0102"}, {"0xFFFF", "514c54"}}));
  EXPECT_EQ(e["serviceUUIDs"], Json::array({"6E400001-B5A3-F393-E0A9-E50E24DCCA9E"}));
  EXPECT_EQ(e["txPower"], 4);
  EXPECT_EQ(e["connectable"], true);
  const auto hr = scan({"--service", "180d"});
  ASSERT_EQ(hr.size(), 1u);
  EXPECT_EQ(hr.at("HR-Sensor")["serviceData"],
            (Json{{"0000180D-0000-1000-8000-00805F9B34FB", "48"}}));
  EXPECT_EQ(hr.at("HR-Sensor")["manufacturerData"], Json::object());
  const auto sink = scan({"--manufacturer", "0xffff", "--name", "sink"});
  EXPECT_EQ(sink.size(), 1u);
  EXPECT_EQ(sink.count("QLT-Sink"), 1u);
}

}  // namespace
}  // namespace qlt::test
