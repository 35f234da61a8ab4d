// qlt bench over time: intervals as it goes, device to host, the stream's check and its bound.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "RunTool.h"
#include "Stats.h"

namespace qlt::cli {
namespace {

// Every byte exactly once and in order: a byte skipped, repeated or changed anywhere (also
// inside a piece, and across the pattern's wrap at 251) fails at that byte, and stays failed.
TEST(APatternCheck, FailsAtTheFirstByteSkippedRepeatedOrCorrupted) {
  std::vector<uint8_t> s(1000);
  fillCountingPattern(0, s.data(), s.size());
  auto cut = [&](size_t from, size_t to) {
    return std::vector<uint8_t>(s.begin() + from, s.begin() + to);
  };
  auto flipped = cut(240, 360);
  flipped[20] ^= 1;
  const std::vector<std::pair<std::vector<std::vector<uint8_t>>, int64_t>> cases{
      {{cut(0, 120), cut(120, 240), cut(240, 1000)}, -1},
      {{cut(0, 120), cut(240, 360)}, 120},                 // a segment skipped
      {{cut(0, 120), cut(120, 240), cut(120, 240)}, 240},  // repeated
      {{cut(0, 240), flipped, cut(360, 480)}, 260},        // corrupted after the wrap
      {{cut(0, 99), cut(100, 200)}, 99},                   // one byte skipped
  };
  for (const auto& [pieces, badAt] : cases) {
    PatternCheck check;
    for (const auto& p : pieces) check.consume(p.data(), p.size());
    EXPECT_EQ(check.ok(), badAt < 0) << badAt;
    if (badAt >= 0) {
      EXPECT_EQ(check.problem().rfind("byte " + std::to_string(badAt) + " is", 0), 0u)
          << check.problem();
    }
  }
}

// A short transfer is held to its own bound: its last window costs one way (an echo: two),
// not a round trip; an echo has no acknowledgement delay; a link without delay none at all.
TEST(TheWindowBound, HoldsAFiniteTransferToItsShortestTime) {
  const LinkTiming slow{.oneWayS = 0.0075};
  EXPECT_DOUBLE_EQ(windowBoundBps({}, slow), 360 / 0.016);
  EXPECT_DOUBLE_EQ(windowBoundBps({}, slow, Traffic::OneWay, 6000), 6000 / (16 * 0.016 + 0.0075));
  EXPECT_DOUBLE_EQ(windowBoundBps({}, slow, Traffic::Echo, 360), 360 / 0.015);
  EXPECT_DOUBLE_EQ(windowBoundBps({}, slow, Traffic::Echo, 721), 721 / (2 * 0.015 + 0.015));
  EXPECT_EQ(windowBoundBps({}, {}, Traffic::Echo), 0);
  EXPECT_NEAR(windowBoundBps({}, slow, Traffic::OneWay, 36000000), 360 / 0.016, 1.0);
}

using QltBench = test::ToolTest;

// A second in quarters, both ways: each interval as it ends, then the total; the intervals
// add up to it, and every byte was checked.
TEST_F(QltBench, ReportsIntervalsAndATotalBothWays) {
  for (const bool reverse : {false, true}) {
    std::vector<std::string> args{"bench",     "-t",      "1",       "-i", "0.25",
                                  "--profile", "fastest", "--pings", "2",  "--json"};
    if (reverse) args.emplace_back("-R");
    const auto run = qlt(args);
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const auto j = nlohmann::json::parse(run.out);
    EXPECT_EQ(j["direction"], reverse ? "reverse" : "echo");
    EXPECT_EQ(j["verified"], true);
    EXPECT_GE(j["seconds"].get<double>(), 1.0);
    ASSERT_GE(j["intervals"].size(), 3u) << run.out;
    EXPECT_GE(test::splitLines(run.err).size(), j["intervals"].size() + 2) << run.err;
    uint64_t sum = 0;
    for (const auto& i : j["intervals"]) sum += i["bytes"].get<uint64_t>();
    EXPECT_EQ(sum, j["bytes"].get<uint64_t>());
    EXPECT_GT(sum, 0u);
    EXPECT_EQ(j["window"], "extended");
    EXPECT_EQ(j["bound_Bps"], 0) << "the classic window's bound does not apply";
    EXPECT_LE(j["goodput_Bps"].get<double>(), j["physical_limit_Bps"].get<double>());
  }
}

// Air errors cost time, never data: both transports bring every byte back at a packet error
// rate of 0.1, under the link's physical limit.
TEST_F(QltBench, DeliversEveryByteThroughAirErrorsOnBothTransports) {
  for (const char* transport : {"sw", "nus"}) {
    const auto run = qlt({"bench", "--per", "0.1", "--transport", transport, "--bytes", "8000",
                          "--pings", "0", "--json"});
    ASSERT_EQ(run.exitCode, 0) << transport << run.out << run.err;
    const auto j = nlohmann::json::parse(run.out);
    EXPECT_EQ(j["verified"], true) << transport;
    EXPECT_EQ(j["echoed_bytes"], 8000) << transport;
    EXPECT_DOUBLE_EQ(j["per"].get<double>(), 0.1);
    EXPECT_LE(j["goodput_Bps"].get<double>(), j["physical_limit_Bps"].get<double>()) << transport;
  }
}

// Drops above the link layer: the window brings every byte back; the chunker, which has no
// recovery, says how many never came back.
TEST_F(QltBench, RecoversHostDropsOverTheWindowAndCountsTheChunkersLosses) {
  const auto window = qlt({"bench", "--loss", "0.05", "--bytes", "8000", "--pings", "0", "--json"});
  ASSERT_EQ(window.exitCode, 0) << window.out << window.err;
  EXPECT_EQ(nlohmann::json::parse(window.out)["verified"], true);
  const auto chunker = qlt({"bench", "--loss", "0.2", "--transport", "nus", "--bytes", "8000",
                            "--pings", "0", "--json"});
  EXPECT_EQ(chunker.exitCode, 1);
  const auto j = nlohmann::json::parse(chunker.out);
  EXPECT_EQ(j["verified"], false);
  const std::string problem = j["problem"];
  const auto lost = std::stoul(problem);
  EXPECT_GT(lost, 0u) << problem;
  EXPECT_NE(problem.find(" of 8000 bytes never came back ("), std::string::npos) << problem;
}

// Bad combinations are refused with the rest of the bad usage (QltToolTest).
TEST_F(QltBench, FailsWhenNoDataArrives) {
  // The echo device sends nothing of its own.
  const auto silent = qlt({"bench", "-R", "--device", "QLT-Echo", "--timeout", "0.5", "-t", "5"});
  EXPECT_EQ(silent.exitCode, 1);
  EXPECT_NE(silent.out.find("NO: nothing arrived for 0.5 s"), std::string::npos) << silent.out;
}

}  // namespace
}  // namespace qlt::cli
