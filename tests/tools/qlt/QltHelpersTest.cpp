// The figures qlt reports: percentiles, the window bound, how payloads are shown.

#include <gtest/gtest.h>

#include "Stats.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

TEST(Percentiles, InterpolateBetweenTheNearestRanks) {
  EXPECT_EQ(percentile({}, 50), 0);
  EXPECT_EQ(percentile({7}, 99), 7);
  EXPECT_DOUBLE_EQ(percentile({4, 1, 3, 2}, 50), 2.5);  // unsorted input
  EXPECT_DOUBLE_EQ(percentile({1, 2, 3, 4}, 0), 1);
  EXPECT_DOUBLE_EQ(percentile({1, 2, 3, 4}, 100), 4);
  std::vector<double> hundred;
  for (int i = 1; i <= 100; ++i) hundred.push_back(i);
  EXPECT_DOUBLE_EQ(percentile(hundred, 99), 99.01);
}

TEST(TheWindowBound, IsThreeSegmentsPerRoundTrip) {
  const WindowConstants w;
  // 7.5 ms each way: 2 × 7.5 + 1 = 16 ms per round trip, 360 B in it.
  EXPECT_NEAR(windowRoundTripS(w, {0.0075, 0}), 0.016, 1e-12);
  EXPECT_NEAR(windowBoundBps(w, {0.0075, 0}), 22500, 1e-6);
  // With no added delay only the acknowledgement delay is left: 360 kB/s.
  EXPECT_NEAR(windowBoundBps(w, {0, 0}), 360000, 1e-6);
  // Write pacing of 2 ms per frame: 2 × 7.5 + 1 + 2 = 18 ms.
  EXPECT_NEAR(windowBoundBps(w, {0.0075, 0.002}), 20000, 1e-6);
  // A slower link never raises the bound.
  EXPECT_LT(windowBoundBps(w, {0.030, 0}), windowBoundBps(w, {0.015, 0}));
}

TEST(Payloads, ShowAsTextWhenPrintableAndAsHexOtherwise) {
  EXPECT_EQ(describePayload("hello\tworld"), "hello\tworld");
  EXPECT_EQ(describePayload(std::string("\x01\xff"
                                        "A",
                                        3)),
            "hex: 01 ff 41");
  EXPECT_EQ(describePayload("line\n"), "hex: 6c 69 6e 65 0a");
}

TEST(Sizes, AreWrittenInDecimalUnits) {
  EXPECT_EQ(formatBytes(512), "512 B");
  EXPECT_EQ(formatBytes(65536), "65.5 kB");
  EXPECT_EQ(formatRate(22500), "22.5 kB/s");
  EXPECT_EQ(formatSeconds(0.0456), "45.6 ms");
  EXPECT_EQ(formatSeconds(2.5), "2.50 s");
}

}  // namespace
}  // namespace qlt::cli
