// The qlt tool as a user meets it: exit codes, messages, and what the commands print.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "RunTool.h"

namespace qlt::test {
namespace {

class TheQltTool : public ::testing::Test {
 protected:
  ToolRun qlt(const std::vector<std::string>& args, double limitS = 60) {
    return runTool(args, store_.path(), limitS);
  }
  TempDir store_;
};

TEST_F(TheQltTool, RejectsBadUsageWithExitCodeTwo) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {},                            // no command
           {"frobnicate"},                // unknown command
           {"bench", "--bytes", "lots"},  // not a number
           {"bench", "--transport", "carrier-pigeon"},
           {"chat"},  // DEVICE missing
           {"scan", "--platform", "zigbee"},
           {"known"},  // no action
           {"known", "remove", "not-a-uuid"},
       }) {
    const auto run = qlt(args);
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_EQ(run.exitCode, 2) << "qlt " << joined << "\n" << run.out << run.err;
    EXPECT_FALSE(run.err.empty()) << "qlt " << joined << " says nothing on stderr";
  }
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

TEST_F(TheQltTool, ShowsTheLibraryLogOnlyWhenAsked) {
  const auto run = qlt({"scan", "--timeout", "0.3", "--verbose"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("Start discovery"), std::string::npos) << run.err;
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
  // The bound is the steady pace; a finite transfer's last window costs one way, not a
  // whole round trip (50 segments here: 16 round trips and one way, 2 % above the pace).
  EXPECT_LE(j["goodput_Bps"].get<double>(), j["bound_Bps"].get<double>() * 1.03);
  // An echo round trip crosses the link twice each way at least.
  EXPECT_GE(j["latency_p50_ms"].get<double>(), 20.0);
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
