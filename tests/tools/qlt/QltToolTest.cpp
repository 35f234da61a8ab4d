// The qlt tool as a user meets it: exit codes, messages, and what the commands print.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
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

class TheQltTool : public ::testing::Test {
 protected:
  ToolRun qlt(const std::vector<std::string>& args, double limitS = 60,
              const ToolInput& input = {}) {
    return runTool(args, store_.path(), limitS, input);
  }
  // A simulated radio of devices that misbehave; the path of its --sim-config file.
  std::string hostileRadio() {
    auto nus = [](int i) {
      return "\"6E40000" + std::to_string(i) + "-B5A3-F393-E0A9-E50E24DCCA9E\"";
    };
    auto table = [&](const std::string& txProperties, const std::string& rxProperties) {
      return R"("behaviour": "sw-echo", "services": [{"uuid": )" + nus(1) +
             R"(, "characteristics": [{"uuid": )" + nus(2) + R"(, "properties": [")" +
             txProperties + R"("]}, {"uuid": )" + nus(3) + R"(, "properties": [")" + rxProperties +
             R"("]}]}])";
    };
    const std::vector<std::pair<std::string, std::string>> devices{
        {"Small", R"("mtu": 23, "behaviour": "sw-echo")"},
        {"SmallChunk", R"("mtu": 23, "behaviour": "chunk-echo")"},
        {"Twice", R"("services": ["nus", "nus"], "behaviour": "sw-echo")"},
        {"Swapped", table("notify", "write")},
        {"Mute", table("write", "read")},
        {"Dropper", R"("behaviour": "source", "faults": {"dropAfterPackets": 20})"},
        {"EchoDropper", R"("behaviour": "sw-echo", "faults": {"dropAfterPackets": 20})"},
        {kEvilName, R"("behaviour": "sw-echo")"},
    };
    std::string json = R"({"devices": [)";
    for (size_t i = 0; i < devices.size(); ++i) {
      json += std::string(i ? "," : "") + R"({"identifier": "0E0E0E0E-0000-4000-8000-00000000000)" +
              std::to_string(i) + R"(", "name": ")" + devices[i].first + "\", " +
              devices[i].second + "}";
    }
    const std::string path = store_.path() + "/hostile.json";
    std::ofstream(path) << json << "]}";
    return path;
  }
  static constexpr const char* kEvilName =
      R"(Evil\u001b[2J\nfake row  0E0E0E0E-9999 xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx)";
  TempDir store_;
};

// Bad usage is exit 2 with a message that names the command (and the option, for a bad
// number): nothing hangs on NaN, wraps around, or claims an absurd time.
TEST_F(TheQltTool, RejectsBadUsageWithExitCodeTwo) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, ""},              // no command
      {{"frobnicate"}, ""},  // unknown command
      {{"bench", "--bytes", "lots"}, "--bytes"},
      {{"bench", "--transport", "carrier-pigeon"}, "--transport"},
      {{"chat"}, "DEVICE"},
      {{"scan", "--platform", "zigbee"}, "--platform"},
      {{"known"}, ""},
      {{"known", "remove", "not-a-uuid"}, "not-a-uuid"},
      {{"scan", "--timeout", "nan"}, "--timeout"},
      {{"chat", "X", "--timeout", "-5"}, "--timeout"},
      {{"receive", "X", "f", "--idle", "nan"}, "--idle"},
      {{"known", "add", "X", "--timeout", "1e300"}, "--timeout"},
      {{"demo", "--loss", "nan"}, "--loss"},
      {{"bench", "--loss", "inf"}, "--loss"},
      {{"bench", "--bytes", "-1"}, "--bytes"},
      {{"receive", "X", "f", "--bytes", "99999999999999999999"}, "--bytes"},
      {{"bench", "--pings", "1.5"}, "--pings"},
      {{"demo", "--interval-ms", "-1"}, "--interval-ms"},
      {{"chat", "X", "--eol", "lfcr"}, "--eol"},
  };
  for (const auto& [args, named] : cases) {
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    const auto run = qlt(args);
    EXPECT_EQ(run.exitCode, 2) << "qlt " << joined << "\n" << run.out << run.err;
    EXPECT_NE(run.err.find(named), std::string::npos) << "qlt " << joined << ": " << run.err;
    if (!args.empty() && args[0] != "frobnicate")
      EXPECT_EQ(run.err.rfind("qlt " + args[0], 0), 0u) << run.err;
  }
  const auto env = qlt({"scan", "--timeout", "0.2"}, 60, {{"QLT_PLATFORM=zigbee"}});
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
  const auto bench = qlt({"bench", "--help"});
  EXPECT_NE(bench.out.find("bound_Bps  = 3 × 120 B / round trip"), std::string::npos) << bench.out;
  for (const char* text : {"docs/simulated-radio.md", "[0 to 0.9]", "64k, 1M, 1MiB"})
    EXPECT_NE(bench.out.find(text), std::string::npos) << text << " missing in\n" << bench.out;
  EXPECT_EQ(qlt({"--help"}).exitCode, 0);
}

TEST_F(TheQltTool, FailsInPlainWordsWhenTheDeviceIsNotThere) {
  const auto run = qlt({"chat", "foo", "--timeout", "1"});
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_NE(run.err.find("no device named 'foo' found within 1.0 s"), std::string::npos) << run.err;
  // The library's own log lines stay hidden without --verbose.
  EXPECT_EQ(run.err.find("QueltLibrary"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("Start discovery"), std::string::npos) << run.err;
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
          {{"QLT_PLATFORM=bluez", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"}});
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
  // The demo aims at well under 15 s; the bound here leaves room for sanitizers and a
  // loaded machine, and only catches a demo that hangs on its way to the summary.
  EXPECT_LT(run.seconds, 60.0);
  // Piped output carries no progress bar or cursor movement.
  EXPECT_EQ(run.out.find('\r'), std::string::npos);
  EXPECT_EQ(run.out.find("\033["), std::string::npos);
}

TEST_F(TheQltTool, ScanPrintsOneJsonObjectPerDevice) {
  const auto run = qlt({"scan", "--json", "--timeout", "0.5"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  std::vector<std::string> names;
  for (const auto& line : splitLines(run.out)) {
    const auto j = nlohmann::json::parse(line);  // throws (and fails the test) on a bad line
    EXPECT_TRUE(j.contains("identifier") && j.contains("rssi") && j.contains("nus")) << line;
    names.push_back(j.value("name", ""));
  }
  EXPECT_NE(std::find(names.begin(), names.end(), "QLT-Echo"), names.end()) << run.out;

  const auto filtered = qlt({"scan", "--json", "--timeout", "0.5", "--name", "echo"});
  for (const auto& line : splitLines(filtered.out))
    EXPECT_NE(nlohmann::json::parse(line).value("name", "").find("Echo"), std::string::npos)
        << line;
}

TEST_F(TheQltTool, BenchReportsEveryKeyAndAVerifiedEchoUnderLoss) {
  const auto run = qlt({"bench", "--json", "--bytes", "12000", "--pings", "5", "--loss", "0.05"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto j = nlohmann::json::parse(run.out);
  for (const char* key : {"transport", "bytes", "seconds", "goodput_Bps", "bound_Bps", "verified",
                          "latency_p50_ms", "latency_p99_ms", "retransmissions", "polls_sent",
                          "rejections_sent", "rejections_received", "loss", "interval_ms"}) {
    EXPECT_TRUE(j.contains(key)) << key << " missing in " << run.out;
  }
  EXPECT_EQ(j["transport"], "sw");
  EXPECT_EQ(j["bytes"], 12000);
  EXPECT_EQ(j["verified"], true);
  EXPECT_DOUBLE_EQ(j["loss"].get<double>(), 0.05);
  EXPECT_GT(j["goodput_Bps"].get<double>(), 0);
  EXPECT_LE(j["latency_p50_ms"].get<double>(), j["latency_p99_ms"].get<double>());
  // With 5% of 100 frames lost each way, something had to be recovered.
  EXPECT_GT(j["retransmissions"].get<int>() + j["polls_sent"].get<int>() +
                j["rejections_received"].get<int>(),
            0)
      << run.out;
}

TEST_F(TheQltTool, BenchKeepsGoodputBelowTheWindowBoundOnASlowLink) {
  const auto run =
      qlt({"bench", "--json", "--bytes", "6000", "--pings", "3", "--interval-ms", "10"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto j = nlohmann::json::parse(run.out);
  EXPECT_EQ(j["verified"], true);
  EXPECT_DOUBLE_EQ(j["interval_ms"].get<double>(), 10.0);
  // 3 × 120 B per (2 × 10 ms + 1 ms) = 17142.857 B/s
  EXPECT_NEAR(j["bound_Bps"].get<double>(), 360 / 0.021, 0.01);
  EXPECT_LE(j["goodput_Bps"].get<double>(), j["bound_Bps"].get<double>());
  // An echo round trip crosses the link twice each way at least.
  EXPECT_GE(j["latency_p50_ms"].get<double>(), 20.0);
}

// The store: changes by concurrent processes all land (each waits for the others' lock),
// and a store that cannot be read or written is never reported as changed.
TEST_F(TheQltTool, ChangesTheKnownStoreUnderALockOrFailsSayingWhy) {
  const std::string lockPath = storeFile(store_.path()) + ".lock";
  const int lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  const std::string stale = storeFile(store_.path()) + ".tmp-999999999-0";  // no such process
  std::ofstream(stale) << "{";
  std::vector<std::future<ToolRun>> adds;
  for (const char* device : {"QLT-Echo", "QLT-Chunk", "QLT-Sink"})
    adds.push_back(std::async(std::launch::async, [this, device] {
      return qlt({"known", "add", device});
    }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_FALSE(std::filesystem::exists(storeFile(store_.path()))) << "written without the lock";
  ::close(lock);
  for (auto& add : adds) EXPECT_EQ(add.get().exitCode, 0);
  EXPECT_EQ(splitLines(qlt({"known", "list"}).out).size(), 3u);
  EXPECT_FALSE(std::filesystem::exists(stale));

  const std::string file = storeFile(store_.path());
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);  // there, but not readable as a file
  const std::string underAFile = "QLT_STORE_PATH=" + store_.path() + "/in.bin/known.json";
  std::ofstream(store_.path() + "/in.bin") << "a file";
  for (const auto& [env, why] : std::vector<std::pair<std::string, std::string>>{
           {"", "cannot read"}, {underAFile, "Not a directory"}}) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"known", "list"},
             {"known", "add", "QLT-Echo"},
             {"known", "clear"},
             {"known", "remove", "0E0E0E0E-0000-4000-8000-000000000001"}}) {
      if (args[1] == "list" && !env.empty()) continue;  // nothing to read: an empty list
      const auto run = qlt(args, 60, {{env}});
      EXPECT_EQ(run.exitCode, 1) << args[1] << ": " << run.out << run.err;
      if (args[1] != "remove" || env.empty())
        EXPECT_NE(run.err.find(why), std::string::npos) << args[1] << ": " << run.err;
    }
  }
  EXPECT_TRUE(std::filesystem::is_directory(file));
}

TEST_F(TheQltTool, RemembersAndForgetsKnownDevices) {
  EXPECT_EQ(qlt({"known", "list"}).out, "");
  const auto add = qlt({"known", "add", "QLT-Echo"});
  ASSERT_EQ(add.exitCode, 0) << add.err;
  EXPECT_NE(add.out.find("added"), std::string::npos) << add.out;

  const auto list = splitLines(qlt({"known", "list"}).out);
  ASSERT_EQ(list.size(), 1u);
  const std::string id = list[0];
  EXPECT_NE(add.out.find(id), std::string::npos);
  EXPECT_NE(qlt({"known", "add", "QLT-Echo"}).out.find("already known"), std::string::npos);

  std::string lowerId = id;
  for (auto& c : lowerId) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(qlt({"known", "remove", lowerId}).exitCode, 0);
  EXPECT_EQ(qlt({"known", "list"}).out, "");
  const auto again = qlt({"known", "remove", id});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_NE(again.err.find("is not a known device"), std::string::npos) << again.err;

  ASSERT_EQ(qlt({"known", "add", "QLT-Sink"}).exitCode, 0);
  ASSERT_EQ(qlt({"known", "add", "QLT-Echo"}).exitCode, 0);
  EXPECT_EQ(splitLines(qlt({"known", "list"}).out).size(), 2u);
  EXPECT_EQ(qlt({"known", "clear"}).exitCode, 0);
  EXPECT_EQ(qlt({"known", "list"}).out, "");
}

TEST_F(TheQltTool, SendsAndReceivesFilesThroughTheWindow) {
  const std::string in = store_.path() + "/in.bin";
  const std::string out = store_.path() + "/out.bin";
  {
    std::ofstream f(in, std::ios::binary);
    for (int i = 0; i < 5000; ++i) f.put(static_cast<char>(i * 7));
  }
  const auto send = qlt({"send", "QLT-Echo", in});
  EXPECT_EQ(send.exitCode, 0) << send.out << send.err;
  EXPECT_NE(send.out.find("5000 sent and acknowledged"), std::string::npos) << send.out;

  // The sink swallows frames without acknowledging them: the transfer cannot complete.
  const auto stuck = qlt({"send", "QLT-Sink", in, "--timeout", "1"});
  EXPECT_EQ(stuck.exitCode, 1);
  EXPECT_NE(stuck.err.find("acknowledged nothing for 1.0 s"), std::string::npos) << stuck.err;

  // The source sends byte i = i mod 251; exactly --bytes of it land in the file.
  const auto receive = qlt({"receive", "QLT-Source", out, "--bytes", "3000"});
  ASSERT_EQ(receive.exitCode, 0) << receive.out << receive.err;
  std::ifstream f(out, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
  ASSERT_EQ(bytes.size(), 3000u);
  for (size_t i = 0; i < bytes.size(); ++i)
    ASSERT_EQ(static_cast<unsigned char>(bytes[i]), i % 251) << i;
}

// A receive that fails leaves its target as it was (a partial transfer is kept only when
// asked, under a name that says so), and every failure, a lost link included, is exit 1
// with the count that got through.
TEST_F(TheQltTool, NeverLosesOrMisreportsDataWhenATransferFails) {
  const std::string radio = hostileRadio(), target = store_.path() + "/target.bin";
  struct Case {
    std::vector<std::string> args;
    std::string why;
  };
  const std::vector<Case> cases{
      {{"receive", "NoSuch", target, "--timeout", "0.5"}, "no device named 'NoSuch'"},
      {{"receive", "Twice", target, "--sim-config", radio}, "UART service 2 times"},
      {{"receive", "Dropper", target, "--sim-config", radio}, "the connection was lost"},
      {{"receive", "QLT-Source", "/dev/full", "--bytes", "1000"}, "No space left on device"},
      {{"receive", "QLT-Sink", target, "--timeout", "0.5", "--idle", "0.5"}, "nothing received"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1]);
    std::ofstream(target) << "precious";
    const auto run = qlt(c.args);
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_NE(run.err.find(c.why), std::string::npos) << run.err;
    std::ifstream in(target);
    std::string text;
    in >> text;
    EXPECT_EQ(text, "precious");
    for (const auto& e : std::filesystem::directory_iterator(store_.path()))
      EXPECT_EQ(e.path().string().find(".receiving"), std::string::npos) << e.path();
  }
  // Asked for, the part that arrived is kept beside the untouched target.
  ASSERT_EQ(qlt({"receive", "Dropper", target, "--sim-config", radio, "--keep-partial"}).exitCode,
            1);
  EXPECT_GT(std::filesystem::file_size(target + ".partial"), 0u);
  EXPECT_EQ(std::filesystem::file_size(target), 8u);
  // Interrupted: the summary, exit 130, the target untouched.
  const auto stopped = qlt({"receive", "QLT-Source", target}, 60, {{}, "", SIGINT, 1.5});
  EXPECT_EQ(stopped.exitCode, 130) << stopped.out << stopped.err;
  EXPECT_NE(stopped.out.find("summary"), std::string::npos) << stopped.out;
  EXPECT_EQ(std::filesystem::file_size(target), 8u);
  // A send cut short counts what the device acknowledged, not what was queued.
  std::ofstream(store_.path() + "/in.bin") << std::string(100000, 'x');
  const auto send = qlt({"send", "EchoDropper", store_.path() + "/in.bin", "--sim-config", radio});
  EXPECT_EQ(send.exitCode, 1) << send.out << send.err;
  const auto lost = send.err.find("lost (");
  ASSERT_NE(lost, std::string::npos) << send.err;
  EXPECT_LT(std::stoul(send.err.substr(lost + 6)), 100000u) << send.err;
}

// A device whose link cannot carry the transport is refused at once, in words that say why,
// instead of stalling silently; the chunking transport fits a small MTU.
TEST_F(TheQltTool, RefusesALinkThatCannotCarryTheTransport) {
  const std::string radio = hostileRadio();
  for (const auto& [device, why] : std::vector<std::pair<std::string, std::string>>{
           {"Small", "ATT MTU is 23"},
           {"Twice", "offers the UART service 2 times"},
           {"Swapped", "tx and rx characteristics are swapped"},
           {"Mute", "the device's rx characteristic does not notify"}}) {
    const auto run = qlt({"chat", device, "--sim-config", radio}, 60, {{}, "hi\n"});
    EXPECT_EQ(run.exitCode, 1) << device << run.out << run.err;
    EXPECT_NE(run.err.find(why), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "") << device;
  }
  EXPECT_NE(qlt({"bench", "--device", "Small", "--sim-config", radio}).err.find("--transport nus"),
            std::string::npos);
  const auto chunks =
      qlt({"chat", "SmallChunk", "--transport", "nus", "--sim-config", radio}, 60, {{}, "hi\n"});
  EXPECT_EQ(chunks.exitCode, 0) << chunks.err;
  EXPECT_EQ(chunks.out, "< hi\n");
}

// Stdout carries only data when it carries data; what comes from a device is shown safely.
TEST_F(TheQltTool, KeepsDataOnStdoutAndShowsWhatDevicesSendSafely) {
  const auto bench = qlt({"bench", "--json", "--trace", "--bytes", "2k", "--pings", "1"});
  EXPECT_EQ(bench.exitCode, 0) << bench.err;
  EXPECT_EQ(nlohmann::json::parse(bench.out)["bytes"], 2000);
  EXPECT_NE(bench.err.find("→ seg seq=0"), std::string::npos);

  const auto chat = qlt({"chat", "QLT-Echo"}, 60, {{}, "héllo\n\nbye\n"});
  EXPECT_EQ(chat.exitCode, 0) << chat.err;
  EXPECT_EQ(splitLines(chat.out), (std::vector<std::string>{"< héllo", "< ", "< bye"})) << chat.out;
  EXPECT_NE(chat.err.find("[ready]"), std::string::npos);

  const std::string radio = hostileRadio();
  const auto scan = qlt({"scan", "--sim-config", radio, "--timeout", "0.5"});
  const auto json = qlt({"scan", "--sim-config", radio, "--timeout", "0.5", "--json"});
  const auto evil =
      qlt({"chat", "0E0E0E0E-0000-4000-8000-000000000007", "--sim-config", radio}, 60, {{}, "x\n"});
  for (const std::string& shown : {scan.out, evil.err}) {
    EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
    EXPECT_NE(shown.find("Evil\\x1b[2J\\x0afake row"), std::string::npos) << shown;
    EXPECT_NE(shown.find("…"), std::string::npos) << shown;
  }
  for (const auto& line : splitLines(scan.out))
    EXPECT_EQ(line.rfind("fake row", 0), std::string::npos);
  std::vector<std::string> names;
  for (const auto& line : splitLines(json.out))
    names.push_back(nlohmann::json::parse(line)["name"]);
  EXPECT_NE(
      std::find(names.begin(), names.end(),
                nlohmann::json::parse(std::string("\"") + kEvilName + "\"").get<std::string>()),
      names.end());
}

TEST_F(TheQltTool, DescribesTheSimulatedRadioFromAJsonFile) {
  const std::string config = store_.path() + "/radio.json";
  std::ofstream(config) << R"({"devices": [{"identifier": "0E0E0E0E-0000-4000-8000-000000000001",
                                            "name": "Bench Echo", "behaviour": "sw-echo"}]})";
  const auto bench = qlt({"bench", "--json", "--sim-config", config, "--device", "Bench Echo",
                          "--bytes", "2000", "--pings", "2"});
  ASSERT_EQ(bench.exitCode, 0) << bench.out << bench.err;
  EXPECT_EQ(nlohmann::json::parse(bench.out)["device"], "Bench Echo");
  // The default devices are gone: the file replaced them.
  const auto gone = qlt({"chat", "QLT-Echo", "--sim-config", config, "--timeout", "0.5"});
  EXPECT_EQ(gone.exitCode, 1);

  std::ofstream(config) << R"({"devices": [{"name": "no identifier"}]})";
  const auto bad = qlt({"scan", "--sim-config", config});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("identifier"), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace qlt::test
