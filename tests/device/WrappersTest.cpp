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
using Requests = std::vector<std::pair<UUID, bool>>;
const UUID kRx = QLT_UUID::rxCharacteristicUUID(), kTx = QLT_UUID::txCharacteristicUUID();

TEST(ACharacteristicWrapper, PrefersWritingWithoutResponseAndRefusesWithoutAWriteProperty) {
  using W = platform::WriteType;
  const std::tuple<uint32_t, std::string, std::optional<W>, const char*> cases[] = {
      {0x0C, "a", W::WithoutResponse, ""},
      {0x04, "b", W::WithoutResponse, ""},
      {0x08, "c", W::WithResponse, ""},
      {0x02, "d", std::nullopt, "No write property"},
      {0x0C, "", std::nullopt, "Warning : No data to write to characteristics"}};
  for (const auto& [properties, data, type, line] : cases) {
    auto p = fake::FakePeripheral::create();
    auto w = BLECharacteristic::create(p->addService(kRx)->add(kTx, properties), "x");
    test::LogCapture log;
    w->writeValueWithData(Data::fromString(data));
    auto writes = fake::snapshot(p->writes);
    ASSERT_EQ(writes.size(), type ? 1u : 0u) << properties << " " << data;
    if (type) {
      EXPECT_EQ(std::make_pair(writes[0].type, writes[0].data.toString()),
                std::make_pair(*type, data));
    }
    EXPECT_EQ(log.lines(), type ? std::vector<std::string>{} : std::vector<std::string>{line});
  }
}

TEST(ACharacteristicWrapper, ReadsTheLastValueSwitchesNotificationsAndEqualsOnlyItsOwnKind) {
  auto p = fake::FakePeripheral::withNUS();
  auto rx = p->characteristic(kRx);
  auto a = BLECharacteristic::create(rx, "a"), b = BLECharacteristic::create(rx, "b");
  EXPECT_FALSE(a->value().has_value());
  rx->setValue("hi");
  EXPECT_EQ(a->readValue(), Data::fromString("hi"));
  a->startNotifications();
  a->stopNotifications();
  EXPECT_EQ(fake::snapshot(p->notifyRequests), (Requests{{kRx, true}, {kRx, false}}));
  EXPECT_TRUE(a->isEqual(rx) && b->isEqual(rx) && a->isEqual(a));
  EXPECT_FALSE(a->isEqual(b));  // wrappers by identity
  EXPECT_FALSE(a->isEqual(p->characteristic(kTx)));
  EXPECT_FALSE(a->isEqual(std::shared_ptr<platform::Characteristic>()));
}

TEST(AServiceWrapper, FindsTheFirstCharacteristicWithAnIdentifier) {
  auto s = fake::FakePeripheral::create()->addService(UUID::literal("180D"));
  auto first = s->add(UUID::literal("2A01"), 0x02), second = s->add(UUID::literal("2A01"), 0x02);
  auto service = BLEService::create("SVC", s);
  EXPECT_TRUE(service->characteristics().empty());
  service->setCharacteristics(
      {BLECharacteristic::create(first, "1"), BLECharacteristic::create(second, "2")});
  EXPECT_EQ(service->getCharacteristics(UUID::literal("2A01")), first);
  EXPECT_EQ(service->getCharacteristics(UUID::literal("2A02")), nullptr);
  EXPECT_EQ(service->identifier(), UUID::literal("180D"));
}

TEST(TheUartService, PicksRxAndTxInListOrderAsksNotificationsForRxOnlyAndCopesWithoutThem) {
  auto p = fake::FakePeripheral::withNUS();
  auto nus = NUSService::create(p->services().front());
  EXPECT_EQ(nus->name(), "NUS Service");
  nus->write(Data::fromString("lost"));
  EXPECT_FALSE(nus->read().has_value());
  auto rx = BLECharacteristic::create(p->characteristic(kRx), "r");
  auto tx = BLECharacteristic::create(p->characteristic(kTx), "t");
  nus->setCharacteristics({tx, rx});
  EXPECT_EQ(std::make_pair(nus->rx(), nus->tx()), std::make_pair(rx, tx));
  EXPECT_EQ(fake::snapshot(p->notifyRequests), (Requests{{kRx, true}}));
  EXPECT_TRUE(fake::snapshot(p->writes).empty());
}

TEST(TheUartService, WritesChunksOfAtMost161BytesPausingOnlyBetweenThem) {
  auto p = fake::FakePeripheral::withNUS();
  auto nus = NUSService::create(p->services().front());
  nus->setCharacteristics({BLECharacteristic::create(p->characteristic(kTx), "t")});
  // Each message is written 20 times: 5 ms per pause between chunks, none after the last.
  for (auto [length, chunks] : {std::pair<size_t, std::vector<size_t>>{161, {161}},
                                {162, {161, 1}},
                                {483, {161, 161, 161}},
                                {0, {}}}) {
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) nus->write(Data::fromString(text));
    const double pauses = chunks.empty() ? 0.0 : 20.0 * (chunks.size() - 1);
    EXPECT_GE(test::secondsSince(start), pauses * 0.005) << length;
    EXPECT_LT(test::secondsSince(start), pauses * 0.0075 + 0.09)
        << length << ": a pause after the last chunk?";
    auto writes = fake::snapshot(p->writes);
    ASSERT_EQ(writes.size(), 20 * chunks.size()) << length;
    std::string joined;
    for (size_t i = 0; i < chunks.size(); ++i) {
      EXPECT_EQ(writes[i].data.length(), chunks[i]) << length;
      EXPECT_EQ(writes[i].type, platform::WriteType::WithoutResponse);
      joined += writes[i].data.toString();
    }
    EXPECT_EQ(joined, text);
    p->writes.clear();
  }
}
