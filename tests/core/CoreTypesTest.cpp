#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <unordered_set>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/UUID.h"
#include "support/TestSupport.h"

using namespace qlt;

TEST(AUUID, ParsesEitherCaseAndShortFormsPrintsUpperCaseAndComparesByValue) {
  auto u = UUID::fromString("6e400001-b5a3-f393-e0a9-e50e24dcca9e");
  ASSERT_TRUE(u);
  EXPECT_EQ(u->UUIDString(), "6E400001-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(UUID::fromString(u->UUIDString()), u);
  EXPECT_EQ(UUID::fromString("180D")->UUIDString(), "0000180D-0000-1000-8000-00805F9B34FB");
  EXPECT_EQ(UUID::fromString("0000180d"), UUID::fromString("180D"));
  auto a = *UUID::fromString("00000001-0000-0000-0000-000000000000");
  auto b = *UUID::fromString("00000002-0000-0000-0000-000000000000");
  EXPECT_LT(a, b);
  EXPECT_EQ((std::unordered_set<UUID>{a, b, a}).size(), 2u);
  for (const char* bad :
       {"", "6e400001-b5a3-f393-e0a9-e50e24dcca9", "zz0D", "6e400001-b5a3-f393-e0a9-e50e24dcca9ef",
        "6e400001_b5a3-f393-e0a9-e50e24dcca9e", "6e40000g-b5a3-f393-e0a9-e50e24dcca9e",
        "{6e400001-b5a3-f393-e0a9-e50e24dcca9}", "6e400001-b5a3-f393-e0a9-e50e24dcca9\xff"}) {
    EXPECT_FALSE(UUID::fromString(bad)) << bad;
  }
}

TEST(SomeData, IsCopiedCheaplyAndComparedByContent) {
  const uint8_t bytes[] = {0xde, 0xad, 0xbe, 0xef, 0x01};
  Data d(bytes, 5);
  EXPECT_EQ(Data(d).bytes(), d.bytes());  // shared storage
  EXPECT_EQ(d, Data(bytes, 5));
  EXPECT_NE(d, Data(bytes, 4));
  EXPECT_EQ(d.description(), "<deadbeef 01>");
  EXPECT_EQ(Data().description(), "<>");
  EXPECT_EQ(d.subdata(3, 10), Data(bytes + 3, 2));
  EXPECT_TRUE(d.subdata(9, 1).empty());
}

TEST(TheLog, FormatsEachArgumentByItsOwnType) {
  test::LogCapture log;
  QLTLog("P state = %d", 8);
  QLTLog("---> t-rcv : l=%d, %@", 2, Data::fromString("hi"));
  QLTLog("Connected to : %@", std::optional<std::string>());
  QLTLog("%s and %lu and %.2f%%", std::string("text"), 7ul, 0.5);
  QLTLog("missing %d");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "P state = 8", "---> t-rcv : l=2, <6869>", "Connected to : (null)",
                             "text and 7 and 0.500000%", "missing (missing)"}));
}

// Once setLogSink returns, the sink it replaced has no call left running on another thread,
// so what that sink used may go (a test's log capture, an application's object).
TEST(TheLog, ReplacesASinkOnlyOnceItsCallsHaveEnded) {
  std::atomic<bool> inside{false}, done{false};
  const LogSink previous = setLogSink([&](std::string_view) {
    inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // still running meanwhile
    done = true;
  });
  std::thread logger([] { logLine("from another thread"); });
  while (!inside) std::this_thread::yield();
  setLogSink(previous);
  EXPECT_TRUE(done) << "returned while the replaced sink still ran";
  logger.join();
}
