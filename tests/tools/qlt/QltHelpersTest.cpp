// The figures qlt reports: percentiles, the window bound, how payloads are shown.

#include <gtest/gtest.h>

#include "Numbers.h"
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
  EXPECT_DOUBLE_EQ(percentile({10, 20, 30, 40, 50}, 90), 46);
}

TEST(Payloads, ShowAsUtf8TextAndAsHexWithControlOrInvalidBytes) {
  for (const auto& [bytes, shown] : std::vector<std::pair<std::string, std::string>>{
           {"hello\tworld", "hello\tworld"},
           {"grüße, 日本", "grüße, 日本"},
           {std::string("\x01\xff"
                        "A",
                        3),
            "hex: 01 ff 41"},
           {"line\n", "hex: 6c 69 6e 65 0a"},
           {"\xc3", "hex: c3"},          // cut short
           {"\xc0\xaf", "hex: c0 af"},   // overlong
           {"\xc2\x9b", "hex: c2 9b"}})  // a C1 control (CSI)
    EXPECT_EQ(describePayload(bytes), shown);
  EXPECT_EQ(displayText("a\x1b[2J\nb\xff"), "a\\x1b[2J\\x0ab\\xff");
  EXPECT_EQ(displayText(std::string(50, 'x') + "yz", 50), std::string(50, 'x') + "…");
}

TEST(ByteCounts, TakeDecimalAndBinaryUnitsAndRejectTheRest) {
  for (const auto& [text, bytes] : std::vector<std::pair<std::string, std::optional<uint64_t>>>{
           {"4096", 4096},
           {"64k", 64000},
           {"64KiB", 65536},
           {"1M", 1000000},
           {"1MiB", 1048576},
           {"2GB", 2000000000},
           {"18446744073709551615", UINT64_MAX},
           {"18446744073709551616", {}},
           {"17179869184GiB", {}},
           {"-1", {}},
           {"1.5k", {}},
           {"1x", {}},
           {"", {}},
           {"0", {}}})
    EXPECT_EQ(parseByteCount(text, 1, UINT64_MAX), bytes) << text;
  for (const char* text : {"nan", "inf", "-0.5", "1e400", "0x10", "1,5"})
    EXPECT_FALSE(parseNumber(text, 0, 1e9)) << text;
  EXPECT_EQ(parseNumber("2.5e1", 0, 100), 25.0);
}

}  // namespace
}  // namespace qlt::cli
