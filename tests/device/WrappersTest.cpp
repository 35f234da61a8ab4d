// Service and characteristic wrappers, the UART-service identifiers and NUSService.
#include <gtest/gtest.h>

#include <chrono>

#include "QueltLibrary/BLECharacteristic.h"
#include "QueltLibrary/BLEService.h"
#include "QueltLibrary/NUSService.h"
#include "QueltLibrary/QLT_UUID.h"
#include "support/FakePlatform.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace qlt::fake;

TEST(TheUartIdentifiers, NameTxAndRxFromTheLibrarysSide) {
  EXPECT_EQ(QLT_UUID::uartServiceUUID().UUIDString(), "6E400001-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(QLT_UUID::txCharacteristicUUID().UUIDString(), "6E400002-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(QLT_UUID::rxCharacteristicUUID().UUIDString(), "6E400003-B5A3-F393-E0A9-E50E24DCCA9E");
}

TEST(ACharacteristicWrapper, PrefersWritingWithoutResponseAndRefusesWithoutAWriteProperty) {
  using W = platform::WriteType;
  struct Case {
    uint32_t properties;
    std::string data;
    std::optional<W> written;
    const char* log;
  };
  const Case cases[] = {{0x0C, "a", W::WithoutResponse, nullptr},
                        {0x04, "b", W::WithoutResponse, nullptr},
                        {0x08, "c", W::WithResponse, nullptr},
                        {0x02, "d", std::nullopt, "No write property"},
                        {0x0C, "", std::nullopt, "Warning : No data to write to characteristics"}};
  for (const auto& c : cases) {
    auto p = FakePeripheral::create();
    auto s = p->addService(UUID::literal("180D"));
    auto w = BLECharacteristic::create(p->addCharacteristic(s, UUID::literal("2A01"), c.properties), "x");
    test::LogCapture log;
    w->writeValueWithData(Data::fromString(c.data));
    auto writes = p->snapshot(p->writes);
    ASSERT_EQ(writes.size(), c.written ? 1u : 0u) << c.properties << " " << c.data;
    if (c.written) {
      EXPECT_EQ(writes[0].type, *c.written);
      EXPECT_EQ(writes[0].data.toString(), c.data);
    }
    EXPECT_EQ(log.count(c.log ? c.log : "No write property"), c.log ? 1u : 0u);
  }
}

TEST(ACharacteristicWrapper, ReadsTheLastValueAndSwitchesNotificationsOnAndOff) {
  auto p = FakePeripheral::withNUS();
  auto rx = p->characteristic(QLT_UUID::rxCharacteristicUUID());
  auto w = BLECharacteristic::create(rx, "rx");
  EXPECT_FALSE(w->value().has_value());
  rx->setValue(Data::fromString("hi"));
  EXPECT_EQ(w->readValue()->toString(), "hi");
  w->startNotifications();
  w->stopNotifications();
  const auto rxId = QLT_UUID::rxCharacteristicUUID();
  EXPECT_EQ(p->snapshot(p->notifyRequests),
            (std::vector<std::pair<UUID, bool>>{{rxId, true}, {rxId, false}}));
  EXPECT_EQ(w->identifier(), rxId);
}

TEST(ACharacteristicWrapper, EqualsItsPlatformCharacteristicButOtherWrappersOnlyByIdentity) {
  struct Subclassed : BLECharacteristic {
    explicit Subclassed(std::shared_ptr<platform::Characteristic> c)
        : BLECharacteristic(std::move(c), "sub") {}
  };
  auto p = FakePeripheral::withNUS();
  auto rx = p->characteristic(QLT_UUID::rxCharacteristicUUID());
  auto a = BLECharacteristic::create(rx, "a"), b = BLECharacteristic::create(rx, "b");
  EXPECT_TRUE(a->isEqual(rx));
  EXPECT_TRUE(b->isEqual(rx));
  EXPECT_TRUE(a->isEqual(a));
  EXPECT_FALSE(a->isEqual(b));
  EXPECT_FALSE(a->isEqual(std::shared_ptr<BLECharacteristic>(std::make_shared<Subclassed>(rx))));
  EXPECT_FALSE(a->isEqual(std::shared_ptr<platform::Characteristic>()));
  EXPECT_FALSE(a->isEqual(p->characteristic(QLT_UUID::txCharacteristicUUID())));
}

TEST(AServiceWrapper, FindsTheFirstCharacteristicWithAnIdentifier) {
  auto p = FakePeripheral::create();
  auto s = p->addService(UUID::literal("180D"));
  auto first = p->addCharacteristic(s, UUID::literal("2A01"), 0x02);
  auto second = p->addCharacteristic(s, UUID::literal("2A01"), 0x02);
  auto service = BLEService::create("SVC", s);
  EXPECT_FALSE(service->enabled());
  EXPECT_TRUE(service->startService());
  EXPECT_TRUE(service->stopService());
  EXPECT_TRUE(service->characteristics().empty());
  service->setCharacteristics(
      {BLECharacteristic::create(first, "1"), BLECharacteristic::create(second, "2")});
  EXPECT_EQ(service->getCharacteristics(UUID::literal("2A01")), first);
  EXPECT_EQ(service->getCharacteristics(UUID::literal("2A02")), nullptr);
  EXPECT_EQ(service->identifier(), UUID::literal("180D"));
}

TEST(TheUartService, PicksRxAndTxInListOrderAndAsksNotificationsForRxOnly) {
  auto p = FakePeripheral::withNUS();
  auto nus = NUSService::create(p->services().front());
  EXPECT_EQ(nus->name(), "NUS Service");
  test::LogCapture log;
  auto rx = BLECharacteristic::create(p->characteristic(QLT_UUID::rxCharacteristicUUID()), "r");
  auto tx = BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t");
  nus->setCharacteristics({tx, rx});
  EXPECT_EQ(nus->rx(), rx);
  EXPECT_EQ(nus->tx(), tx);
  EXPECT_EQ(nus->characteristics().size(), 2u);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"TX found", "RX found"}));
  EXPECT_EQ(p->snapshot(p->notifyRequests),
            (std::vector<std::pair<UUID, bool>>{{QLT_UUID::rxCharacteristicUUID(), true}}));
}

TEST(TheUartService, WithOnlyTxReadsNothingAndWithoutTxWritesNothing) {
  auto p = FakePeripheral::withNUS();
  auto nus = NUSService::create(p->services().front());
  test::LogCapture log;
  nus->write(Data::fromString("lost"));
  EXPECT_TRUE(log.contains("No tx characteristic found in NUS"));
  nus->setCharacteristics(
      {BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t")});
  EXPECT_NE(nus->tx(), nullptr);
  EXPECT_EQ(nus->rx(), nullptr);
  EXPECT_FALSE(nus->read().has_value());
  EXPECT_TRUE(log.contains("No rx characteristic found in NUS"));
  EXPECT_TRUE(p->snapshot(p->notifyRequests).empty());
  EXPECT_TRUE(p->snapshot(p->writes).empty());
}

TEST(TheUartService, WritesChunksOfAtMost161BytesPausingOnlyBetweenThem) {
  auto p = FakePeripheral::withNUS();
  auto nus = NUSService::create(p->services().front());
  nus->setCharacteristics(
      {BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t")});
  struct Case {
    size_t length;
    std::vector<size_t> chunks;
  };
  // Each message is written 20 times: 5 ms per pause between chunks, none after the last.
  for (const Case& c : {Case{161, {161}}, Case{162, {161, 1}}, Case{483, {161, 161, 161}},
                        Case{0, {}}}) {
    std::string text(c.length, '\0');
    for (size_t i = 0; i < c.length; ++i) text[i] = static_cast<char>(i);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) nus->write(Data::fromString(text));
    const double pauses = c.chunks.empty() ? 0.0 : 20.0 * (c.chunks.size() - 1);
    const double seconds = test::secondsSince(start);
    EXPECT_GE(seconds, pauses * 0.005) << c.length;
    EXPECT_LT(seconds, pauses * 0.0075 + 0.09) << c.length << ": a pause after the last chunk?";
    auto writes = p->snapshot(p->writes);
    ASSERT_EQ(writes.size(), 20 * c.chunks.size()) << c.length;
    std::string joined;
    for (size_t i = 0; i < c.chunks.size(); ++i) {
      EXPECT_EQ(writes[i].data.length(), c.chunks[i]) << c.length;
      EXPECT_EQ(writes[i].type, platform::WriteType::WithoutResponse);
      joined += writes[i].data.toString();
    }
    EXPECT_EQ(joined, text);
    p->writes.clear();
  }
}
