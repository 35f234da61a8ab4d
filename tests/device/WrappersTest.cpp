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

namespace {

const UUID kOther = UUID::literal("180D");

class ASubclassedCharacteristic : public BLECharacteristic {
 public:
  ASubclassedCharacteristic(std::shared_ptr<platform::Characteristic> c)
      : BLECharacteristic(std::move(c), "sub") {}
};

}  // namespace

TEST(TheUartIdentifiers, NameTxAndRxFromTheLibrarysSide) {
  EXPECT_EQ(QLT_UUID::uartServiceUUID().UUIDString(), "6E400001-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(QLT_UUID::txCharacteristicUUID().UUIDString(), "6E400002-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(QLT_UUID::rxCharacteristicUUID().UUIDString(), "6E400003-B5A3-F393-E0A9-E50E24DCCA9E");
}

TEST(ACharacteristicWrapper, PrefersWritingWithoutResponseAndRefusesWithoutAWriteProperty) {
  auto p = FakePeripheral::create(nextIdentifier());
  auto s = p->addService(kOther);
  auto both = BLECharacteristic::create(p->addCharacteristic(s, UUID::literal("2A01"), 0x0C), "x");
  auto withResponse =
      BLECharacteristic::create(p->addCharacteristic(s, UUID::literal("2A02"), 0x08), "x");
  auto readOnly =
      BLECharacteristic::create(p->addCharacteristic(s, UUID::literal("2A03"), 0x02), "x");
  test::LogCapture log;

  both->writeValueWithData(Data::fromString("a"));
  withResponse->writeValueWithData(Data::fromString("b"));
  readOnly->writeValueWithData(Data::fromString("c"));
  both->writeValueWithData(Data());

  auto writes = p->writes();
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0].type, platform::WriteType::WithoutResponse);
  EXPECT_EQ(writes[0].characteristic, UUID::literal("2A01"));
  EXPECT_EQ(writes[1].type, platform::WriteType::WithResponse);
  EXPECT_EQ(log.count("No write property"), 1u);
  EXPECT_EQ(log.count("Warning : No data to write to characteristics"), 1u);
}

TEST(ACharacteristicWrapper, ReadsTheLastValueAndSwitchesNotificationsThroughItsPeripheral) {
  auto p = FakePeripheral::withNUS(nextIdentifier());
  auto rx = p->characteristic(QLT_UUID::rxCharacteristicUUID());
  auto w = BLECharacteristic::create(rx, "rx");
  EXPECT_FALSE(w->value().has_value());
  rx->setValue(Data::fromString("hi"));
  EXPECT_EQ(w->readValue()->toString(), "hi");
  w->startNotifications();
  w->stopNotifications();
  auto requests = p->notifyRequests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[0].second);
  EXPECT_FALSE(requests[1].second);
  EXPECT_EQ(w->identifier(), QLT_UUID::rxCharacteristicUUID());
}

TEST(ACharacteristicWrapper, EqualsItsPlatformCharacteristicButOtherWrappersOnlyByIdentity) {
  auto p = FakePeripheral::withNUS(nextIdentifier());
  auto rx = p->characteristic(QLT_UUID::rxCharacteristicUUID());
  auto a = BLECharacteristic::create(rx, "a");
  auto b = BLECharacteristic::create(rx, "b");
  auto sub = std::make_shared<ASubclassedCharacteristic>(rx);
  EXPECT_TRUE(a->isEqual(rx));
  EXPECT_TRUE(b->isEqual(rx));
  EXPECT_TRUE(a->isEqual(a));
  EXPECT_FALSE(a->isEqual(b));
  EXPECT_FALSE(a->isEqual(std::shared_ptr<BLECharacteristic>(sub)));
  EXPECT_FALSE(a->isEqual(std::shared_ptr<platform::Characteristic>()));
  EXPECT_FALSE(a->isEqual(p->characteristic(QLT_UUID::txCharacteristicUUID())));
}

TEST(AServiceWrapper, FindsTheFirstCharacteristicWithAnIdentifier) {
  auto p = FakePeripheral::create(nextIdentifier());
  auto s = p->addService(kOther);
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
  EXPECT_EQ(service->identifier(), kOther);
}

TEST(TheUartService, PicksRxAndTxInListOrderAndAsksNotificationsForRxOnly) {
  auto p = FakePeripheral::withNUS(nextIdentifier());
  auto nus = NUSService::create(p->services().front());
  EXPECT_EQ(nus->name(), "NUS Service");
  test::LogCapture log;
  auto rx = BLECharacteristic::create(p->characteristic(QLT_UUID::rxCharacteristicUUID()), "r");
  auto tx = BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t");
  nus->setCharacteristics({rx, tx});
  EXPECT_EQ(nus->rx(), rx);
  EXPECT_EQ(nus->tx(), tx);
  EXPECT_EQ(nus->characteristics().size(), 2u);
  auto lines = log.lines();
  auto rxAt = std::find_if(lines.begin(), lines.end(),
                           [](auto& l) { return l.find("RX found") != std::string::npos; });
  auto txAt = std::find_if(lines.begin(), lines.end(),
                           [](auto& l) { return l.find("TX found") != std::string::npos; });
  ASSERT_NE(rxAt, lines.end());
  ASSERT_NE(txAt, lines.end());
  EXPECT_LT(rxAt, txAt);
  auto requests = p->notifyRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].first, QLT_UUID::rxCharacteristicUUID());
}

TEST(TheUartService, WithOnlyTxReadsNothingAndWithoutTxWritesNothing) {
  auto p = FakePeripheral::withNUS(nextIdentifier());
  auto nus = NUSService::create(p->services().front());
  test::LogCapture log;
  nus->write(Data::fromString("lost"));
  EXPECT_TRUE(log.contains("No tx characteristic found in NUS"));
  EXPECT_TRUE(p->writes().empty());

  nus->setCharacteristics(
      {BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t")});
  EXPECT_NE(nus->tx(), nullptr);
  EXPECT_EQ(nus->rx(), nullptr);
  EXPECT_TRUE(p->notifyRequests().empty());
  EXPECT_FALSE(nus->read().has_value());
  EXPECT_TRUE(log.contains("No rx characteristic found in NUS"));
}

TEST(TheUartService, WritesChunksOfAtMost161BytesWithAPauseBetweenThem) {
  auto p = FakePeripheral::withNUS(nextIdentifier());
  auto nus = NUSService::create(p->services().front());
  nus->setCharacteristics(
      {BLECharacteristic::create(p->characteristic(QLT_UUID::txCharacteristicUUID()), "t")});
  auto bytes = [](size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i);
    return Data::fromString(s);
  };
  using Clock = std::chrono::steady_clock;
  struct Case {
    size_t length;
    std::vector<size_t> chunks;
    int pauses;
  };
  for (const Case& c : {Case{161, {161}, 0}, Case{162, {161, 1}, 1}, Case{483, {161, 161, 161}, 2},
                        Case{0, {}, 0}}) {
    const size_t before = p->writes().size();
    const auto start = Clock::now();
    const Data message = bytes(c.length);
    nus->write(message);
    const auto elapsed = Clock::now() - start;
    auto writes = p->writes();
    std::vector<size_t> sizes;
    std::string joined;
    for (size_t i = before; i < writes.size(); ++i) {
      sizes.push_back(writes[i].data.length());
      joined += writes[i].data.toString();
      EXPECT_EQ(writes[i].type, platform::WriteType::WithoutResponse);
    }
    EXPECT_EQ(sizes, c.chunks) << c.length;
    EXPECT_EQ(joined, message.toString());
    EXPECT_GE(elapsed, std::chrono::microseconds(5000) * c.pauses) << c.length;
  }
}
