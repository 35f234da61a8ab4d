// qlt names devices by address as well, and shows and filters on what they advertise.

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "RunTool.h"

namespace qlt::test {
namespace {

using Json = nlohmann::json;

class TheQltToolByAddress : public ToolTest {
 protected:
  // The devices a scan with `filter` shows, by name.
  std::map<std::string, Json> scan(std::vector<std::string> filter) {
    filter.insert(filter.begin(), {"scan", "--json", "--timeout", "0.6"});
    const auto run = qlt(filter);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    std::map<std::string, Json> seen;
    for (const auto& line : splitLines(run.out)) {
      const auto j = Json::parse(line);
      seen[j["name"]] = j;
    }
    return seen;
  }
};

TEST_F(TheQltToolByAddress, ChatsAndSendsToADeviceNamedByItsAddressInEitherCase) {
  const auto chat = qlt({"chat", "c0:ff:ee:00:00:01"}, 60, withStdin("hi\n"));
  EXPECT_EQ(chat.exitCode, 0) << chat.err;
  EXPECT_EQ(splitLines(chat.out), std::vector<std::string>{"< hi"});
  const std::string file = store_.path() + "/payload";
  std::ofstream(file) << std::string(500, 'x');
  const auto send = qlt({"send", "C0:FF:EE:00:00:01", file});
  EXPECT_EQ(send.exitCode, 0) << send.err;
  const auto absent = qlt({"chat", "C0:FF:EE:00:00:99", "--timeout", "0.5"});
  EXPECT_EQ(absent.exitCode, 1);
  EXPECT_NE(absent.err.find("no device with address C0:FF:EE:00:00:99"), std::string::npos);
}

TEST_F(TheQltToolByAddress, ShowsAdvertisementDataAsHexByCompanyAndServiceAndFiltersOnThem) {
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
