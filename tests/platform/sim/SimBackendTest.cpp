// The simulated radio seen through the platform interface, as the device model sees it.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "QueltLibrary/sim/SimRadio.h"
#include "SimTestFixture.h"
#include "support/TestSupport.h"

namespace qlt::sim::test {
namespace {

using platform::CentralState;
using platform::PeripheralState;
using platform::WriteType;

TEST_F(ASimulatedRadio, ReportsPowerOnAfterCreationAndEveryPowerChange) {
  start();
  EXPECT_EQ(central->state(), CentralState::PoweredOn);
  radio->setPowered(false);
  ASSERT_TRUE(recorder->waitFor("state 4"));
  EXPECT_EQ(central->state(), CentralState::PoweredOff);
  // A powered-off central does not scan.
  radio->addDevice(quickDevice(1, "A", SimBehaviour::ChunkEcho));
  central->scanForPeripherals(std::nullopt, {true});
  EXPECT_FALSE(central->isScanning());
  radio->setPowered(true);
  ASSERT_TRUE(recorder->waitFor("state 5", 2));
  EXPECT_EQ(recorder->events(), (std::vector<std::string>{"state 5", "state 4", "state 5"}));
}

TEST_F(ASimulatedRadio, AdvertisesRepeatedlyWithAVaryingSignalWhenDuplicatesAreAllowed) {
  auto a = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  a.rssi = -50;
  a.rssiVariation = 5;
  const uint8_t maker[] = {0x59, 0x00, 0x01};
  a.manufacturerData = Data(maker, sizeof maker);
  radio->addDevice(a);
  radio->addDevice(quickDevice(2, "B", SimBehaviour::Sink));
  start();
  central->scanForPeripherals(std::nullopt, {true});
  ASSERT_TRUE(recorder->waitFor("discover A", 20));
  ASSERT_TRUE(recorder->waitFor("discover B", 2));
  central->stopScan();
  EXPECT_FALSE(central->isScanning());

  std::set<int> rssis;
  std::shared_ptr<platform::Peripheral> first;
  for (const auto& advert : recorder->adverts()) {
    if (advert.data.localName != "A") continue;
    if (!first) first = advert.peripheral;
    EXPECT_EQ(advert.peripheral, first) << "one peripheral object per device";
    EXPECT_GE(advert.rssi, -55);
    EXPECT_LE(advert.rssi, -45);
    EXPECT_EQ(advert.data.manufacturerData, Data(maker, sizeof maker));
    EXPECT_EQ(advert.data.serviceUUIDs, std::vector<UUID>{QLT_UUID::uartServiceUUID()});
    rssis.insert(advert.rssi);
  }
  EXPECT_GT(rssis.size(), 1u) << "the signal strength varies";
  EXPECT_EQ(first->identifier(), deviceId(1));
  EXPECT_EQ(first->name(), "A");
  EXPECT_EQ(retrieve(1), first) << "retrieval finds the same peripheral";
}

TEST_F(ASimulatedRadio, ReportsEachDeviceOnceWithoutDuplicatesAndHonoursTheServiceFilter) {
  radio->addDevice(quickDevice(1, "A", SimBehaviour::ChunkEcho));
  auto hr = quickDevice(2, "HR", SimBehaviour::None);
  hr.services = {SimServiceConfig::heartRate()};
  radio->addDevice(hr);
  start();
  central->scanForPeripherals(std::vector<UUID>{QLT_UUID::uartServiceUUID()}, {false});
  ASSERT_TRUE(recorder->waitFor("discover A"));
  std::this_thread::sleep_for(100ms);  // twenty advertising intervals
  central->stopScan();
  EXPECT_EQ(recorder->count("discover A"), 1u);
  EXPECT_EQ(recorder->count("discover HR"), 0u);

  // Stopped: no more reports; a new scan without a filter finds both.
  central->scanForPeripherals(std::nullopt, {false});
  ASSERT_TRUE(recorder->waitFor("discover HR"));
  ASSERT_TRUE(recorder->waitFor("discover A", 2));
}

TEST_F(ASimulatedRadio, RetrievesOnlyTheDevicesItKnows) {
  radio->addDevice(quickDevice(1, "A", SimBehaviour::ChunkEcho));
  start();
  auto found = central->retrievePeripheralsWithIdentifiers({deviceId(5), deviceId(1)});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->identifier(), deviceId(1));
  EXPECT_EQ(found[0]->state(), PeripheralState::Disconnected);
  EXPECT_TRUE(found[0]->services().empty());
}

TEST_F(ASimulatedRadio, ConnectsDiscoversAndEchoesChunks) {
  auto device = quickDevice(1, "Chunk", SimBehaviour::ChunkEcho);
  device.services.push_back(SimServiceConfig::heartRate());
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  ASSERT_TRUE(nus.tx && nus.rx);
  EXPECT_EQ(p->state(), PeripheralState::Connected);
  EXPECT_EQ(p->services().size(), 1u) << "only the service asked for is discovered";
  EXPECT_TRUE(nus.rx->isNotifying());
  EXPECT_EQ(nus.tx->properties(),
            uint32_t(platform::kPropertyWriteWithoutResponse | platform::kPropertyWrite));
  EXPECT_EQ(p->maximumWriteValueLength(WriteType::WithoutResponse), 182u);

  for (int i = 0; i < 50; ++i) {
    p->writeValue(Data::fromString("chunk " + std::to_string(i)), nus.tx,
                  WriteType::WithoutResponse);
  }
  p->writeValue(Data::fromString("confirmed"), nus.tx, WriteType::WithResponse);
  ASSERT_TRUE(recorder->waitFor("written"));
  ASSERT_TRUE(recorder->waitFor("value confirmed"));
  auto values = recorder->values();
  ASSERT_EQ(values.size(), 51u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(values[i].toString(), "chunk " + std::to_string(i));
  EXPECT_EQ(nus.rx->value(), Data::fromString("confirmed"));

  auto stats = radio->stats(deviceId(1));
  EXPECT_EQ(stats.connections, 1u);
  EXPECT_EQ(stats.writesReceived, 51u);
  EXPECT_EQ(stats.notificationsSent, 51u);
  EXPECT_EQ(stats.writesLost, 0u);

  central->cancelPeripheralConnection(p);
  ASSERT_TRUE(recorder->waitFor("disconnect none"));
  EXPECT_EQ(p->state(), PeripheralState::Disconnected);
  EXPECT_TRUE(p->services().empty());
}

TEST_F(ASimulatedRadio, RefusesWhatTheCharacteristicDoesNotPermit) {
  auto device = quickDevice(1, "Strict", SimBehaviour::ChunkEcho);
  device.services = {SimServiceConfig::nus(platform::kPropertyWrite)};
  device.services.push_back(SimServiceConfig::heartRate());
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  ASSERT_TRUE(nus.tx);
  ::qlt::test::LogCapture log;
  p->writeValue(Data::fromString("x"), nus.tx, WriteType::WithoutResponse);
  p->writeValue(Data::fromString("x"), nus.rx, WriteType::WithResponse);
  ASSERT_TRUE(recorder->waitFor("written error"));
  EXPECT_EQ(recorder->countPrefix("value"), 0u);
  EXPECT_EQ(radio->stats(deviceId(1)).writesReceived, 0u);

  // The heart-rate service, discovered on request, answers reads of what it allows.
  p->discoverServices(std::nullopt);
  ASSERT_TRUE(recorder->waitFor("services 2"));
  auto heart = p->services()[1];
  p->discoverCharacteristics(std::vector<UUID>{UUID::literal("2A38")}, heart);
  ASSERT_TRUE(recorder->waitFor("characteristics 1"));
  p->readValue(heart->characteristics()[0]);
  ASSERT_TRUE(recorder->waitUntil([](const auto& events) {
    return std::find(events.begin(), events.end(), std::string("value \x01")) != events.end();
  }));
}

TEST_F(ASimulatedRadio, FailsAConnectionWhenTheFaultSaysSo) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.connectFailure = 1.0;
  device.faults = faults;
  device.connectDelay = 1.0;  // long enough to see the peripheral connecting first
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  central->connect(p);
  EXPECT_EQ(p->state(), PeripheralState::Connecting);
  ASSERT_TRUE(recorder->waitFor("fail error"));
  EXPECT_EQ(p->state(), PeripheralState::Disconnected);
  EXPECT_EQ(radio->stats(deviceId(1)).connections, 0u);
}

TEST_F(ASimulatedRadio, DropsTheLinkAfterTheConfiguredNumberOfPacketsAndReconnects) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.dropAfterPackets = 6;  // three writes and their three echoes
  device.faults = faults;
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  for (int i = 0; i < 3; ++i) {
    p->writeValue(Data::fromString(std::to_string(i)), nus.tx, WriteType::WithoutResponse);
    ASSERT_TRUE(recorder->waitFor("value " + std::to_string(i)));
  }
  p->writeValue(Data::fromString("after"), nus.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder->waitFor("disconnect error"));
  EXPECT_EQ(p->state(), PeripheralState::Disconnected);
  EXPECT_EQ(radio->stats(deviceId(1)).writesReceived, 3u);

  // A new link starts counting afresh.
  Nus again = connectAndSubscribe(p, 2);
  p->writeValue(Data::fromString("again"), again.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder->waitFor("value again"));
  EXPECT_EQ(radio->stats(deviceId(1)).connections, 2u);
}

TEST_F(ASimulatedRadio, DropsTheLinkAfterTheConfiguredTime) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.dropAfterSeconds = 0.05;
  device.faults = faults;
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  const auto before = std::chrono::steady_clock::now();
  p->setDelegate(recorder);
  central->connect(p);
  ASSERT_TRUE(recorder->waitFor("connect A"));
  ASSERT_TRUE(recorder->waitFor("disconnect error"));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 50ms);
}

TEST_F(ASimulatedRadio, PoweringOffEndsLinksBeforeReportingTheState) {
  radio->addDevice(quickDevice(1, "A", SimBehaviour::ChunkEcho));
  start();
  auto p = retrieve(1);
  connectAndSubscribe(p);
  radio->setPowered(false);
  ASSERT_TRUE(recorder->waitFor("state 4"));
  auto events = recorder->events();
  auto disconnect = std::find(events.begin(), events.end(), "disconnect error");
  auto off = std::find(events.begin(), events.end(), "state 4");
  EXPECT_LT(disconnect, off);
  EXPECT_EQ(p->state(), PeripheralState::Disconnected);
}

TEST_F(ASimulatedRadio, NeverDeliversAnEarlierConnectionsEventsToALaterOne) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.connectionInterval = 0.02;  // every answer is still in the air when we reconnect
  device.faults = faults;
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  for (int i = 0; i < 5; ++i) {
    p->writeValue(Data::fromString("old"), nus.tx, WriteType::WithoutResponse);
  }
  p->discoverServices(std::nullopt);
  central->cancelPeripheralConnection(p);
  central->connect(p);
  ASSERT_TRUE(recorder->waitFor("connect A", 2));
  std::this_thread::sleep_for(150ms);  // long past the old answers' arrival
  auto events = recorder->events();
  auto reconnect = std::find(events.begin(), events.end(), "disconnect none");
  ASSERT_NE(reconnect, events.end());
  EXPECT_EQ(std::count(reconnect, events.end(), "value old"), 0);
  EXPECT_EQ(std::count_if(reconnect, events.end(),
                          [](const std::string& e) { return e.rfind("services", 0) == 0; }),
            0);
  EXPECT_TRUE(p->services().empty());
  // Stale characteristics are refused on the new link.
  ::qlt::test::LogCapture log;
  p->writeValue(Data::fromString("stale"), nus.tx, WriteType::WithoutResponse);
  EXPECT_TRUE(log.contains("Simulated radio: writeValue on " + deviceId(1).UUIDString() +
                           " ignored: the characteristic is not of the current connection"));
}

TEST_F(ASimulatedRadio, DelaysEveryPacketByTheConnectionIntervalAndKeepsOrder) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.connectionInterval = 0.015;
  device.faults = faults;
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    p->writeValue(Data::fromString(std::to_string(i)), nus.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(recorder->waitFor("value 19"));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 30ms) << "there and back";
  auto values = recorder->values();
  ASSERT_EQ(values.size(), 20u);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(values[i].toString(), std::to_string(i));
}

TEST_F(ASimulatedRadio, PacesWritesToTheWriteRateLimit) {
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.writeRateLimit = 200;  // one write every 5 ms
  device.faults = faults;
  radio->addDevice(device);
  start();
  auto p = retrieve(1);
  Nus nus = connectAndSubscribe(p);
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    p->writeValue(Data::fromString(std::to_string(i)), nus.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(recorder->waitFor("value 19"));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 95ms);
  EXPECT_EQ(recorder->values().size(), 20u) << "paced, not lost";
}

TEST_F(ASimulatedRadio, FreesTheDeviceWhenItsCentralGoesAway) {
  radio->addDevice(quickDevice(1, "A", SimBehaviour::SwEcho));
  start();
  std::weak_ptr<platform::Peripheral> first;
  {
    auto p = retrieve(1);
    connectAndSubscribe(p);
    first = p;
  }
  central.reset();
  ASSERT_TRUE(::qlt::test::eventually([&] { return first.expired(); }));

  auto otherQueue = DispatchQueue::create("other");
  auto other = std::make_shared<Recorder>(otherQueue);
  auto second = radio->backend()->createCentral(other, otherQueue, {});
  ASSERT_TRUE(other->waitFor("state 5"));
  auto p = second->retrievePeripheralsWithIdentifiers({deviceId(1)}).at(0);
  second->connect(p);
  ASSERT_TRUE(other->waitFor("connect A"));
  EXPECT_EQ(radio->stats(deviceId(1)).connections, 2u);
  EXPECT_FALSE(other->offQueue());
}

TEST_F(ASimulatedRadio, AcceptsOneConnectionAtATime) {
  radio->addDevice(quickDevice(1, "A", SimBehaviour::ChunkEcho));
  start();
  connectAndSubscribe(retrieve(1));
  auto otherQueue = DispatchQueue::create("other");
  auto other = std::make_shared<Recorder>(otherQueue);
  auto second = radio->backend()->createCentral(other, otherQueue, {});
  ASSERT_TRUE(other->waitFor("state 5"));
  second->connect(second->retrievePeripheralsWithIdentifiers({deviceId(1)}).at(0));
  ASSERT_TRUE(other->waitFor("fail error"));
}

// The pattern of lost writes for one seed: which of 300 numbered writes came back.
std::vector<int> lossPattern(uint64_t seed) {
  auto radio = SimRadio::create();
  auto device = quickDevice(1, "A", SimBehaviour::ChunkEcho);
  AirFaults faults;
  faults.seed = seed;
  faults.lostWritesWithoutResponse = 0.2;
  faults.lostNotifications = 0.1;
  radio->setFaults(faults);
  radio->addDevice(device);
  auto queue = DispatchQueue::create("QLT_BLEManager");
  auto recorder = std::make_shared<Recorder>(queue);
  auto central = radio->backend()->createCentral(recorder, queue, {});
  EXPECT_TRUE(recorder->waitFor("state 5"));
  auto p = central->retrievePeripheralsWithIdentifiers({deviceId(1)}).at(0);
  p->setDelegate(recorder);
  central->connect(p);
  EXPECT_TRUE(recorder->waitFor("connect A"));
  p->discoverServices(std::nullopt);
  EXPECT_TRUE(recorder->waitForPrefix("services"));
  p->discoverCharacteristics(std::nullopt, p->services().at(0));
  EXPECT_TRUE(recorder->waitFor("characteristics 2"));
  auto tx = p->services()[0]->characteristics()[0];
  auto rx = p->services()[0]->characteristics()[1];
  p->setNotifyValue(true, rx);
  EXPECT_TRUE(recorder->waitFor("notifying on"));
  for (int i = 0; i < 300; ++i) {
    p->writeValue(Data::fromString(std::to_string(i)), tx, WriteType::WithoutResponse);
  }
  // A write with response is never lost; once it is answered, everything before it is done.
  p->writeValue(Data::fromString("end"), tx, WriteType::WithResponse);
  EXPECT_TRUE(recorder->waitFor("written"));
  std::vector<int> received;
  for (const auto& value : recorder->values()) {
    if (value.toString() != "end") received.push_back(std::stoi(value.toString()));
  }
  auto stats = radio->stats(deviceId(1));
  EXPECT_EQ(stats.writesReceived + stats.writesLost, 301u);
  EXPECT_EQ(stats.notificationsSent - stats.notificationsLost, recorder->values().size());
  return received;
}

TEST(SimulatedAirFaults, LoseTheSamePacketsForTheSameSeed) {
  auto first = lossPattern(7);
  auto second = lossPattern(7);
  auto other = lossPattern(8);
  EXPECT_EQ(first, second);
  EXPECT_NE(first, other);
  // About 0.8 × 0.9 of 300 come back; far from none and from all.
  EXPECT_GT(first.size(), 150u);
  EXPECT_LT(first.size(), 270u);
  EXPECT_TRUE(std::is_sorted(first.begin(), first.end())) << "losses never reorder";
}

TEST_F(ASimulatedRadio, RefusesABadConfigurationAndKeepsTheOldOne) {
  radio->addDevice(quickDevice(1, "Kept", SimBehaviour::Sink));
  const std::pair<const char*, const char*> bad[] = {
      {"{", "not valid JSON"},
      {"[]", "(top level): expected an object"},
      {R"({"devcies": []})", "(top level): unknown key \"devcies\""},
      {R"({"devices": [{"name": "x"}]})", "devices[0]: missing \"identifier\""},
      {R"({"devices": [{"identifier": "xyz"}]})", "devices[0].identifier: not a UUID: \"xyz\""},
      {R"({"devices": [{"identifier": "180D", "behaviour": "loud"}]})",
       "devices[0].behaviour: unknown behaviour \"loud\""},
      {R"({"devices": [{"identifier": "180D"}, {"identifier": "180d"}]})",
       "devices[1].identifier: duplicate identifier"},
      {R"({"faults": {"lostNotifications": 1.5}})", "faults.lostNotifications: out of range"},
      {R"({"devices": [{"identifier": "180D", "manufacturerData": "12G4"}]})",
       "devices[0].manufacturerData: not hexadecimal"},
      {R"({"devices": [{"identifier": "180D", "services": [{"uuid": "180F", "characteristics": [{"uuid": "2A19", "properties": ["fly"]}]}]}]})",
       "devices[0].services[0].characteristics[0].properties[0]: unknown property \"fly\""},
  };
  for (const auto& [json, expected] : bad) {
    ::qlt::test::LogCapture log;
    std::string error;
    EXPECT_FALSE(radio->loadConfigString(json, &error)) << json;
    EXPECT_NE(error.find(expected), std::string::npos) << json << " gave: " << error;
    EXPECT_TRUE(log.contains("Simulated radio: configuration refused: " + error));
  }
  std::string error;
  EXPECT_FALSE(radio->loadConfig("/nonexistent/radio.json", &error));
  EXPECT_EQ(error, "cannot open \"/nonexistent/radio.json\"");
  ASSERT_EQ(radio->devices().size(), 1u);
  EXPECT_EQ(radio->devices()[0].localName, "Kept");
}

TEST_F(ASimulatedRadio, LoadsDevicesAndFaultsFromJson) {
  const char* json = R"({
    "powered": true,
    "faults": {"seed": 42, "lostWritesWithoutResponse": 0.05, "connectionIntervalMs": 7.5},
    "devices": [
      {"identifier": "51D0E001-0000-4000-8000-000000000001", "name": "Board",
       "manufacturerData": "5900 0102", "rssi": -40, "rssiVariation": 0,
       "advertisingIntervalMs": 20, "mtu": 247, "behaviour": "sink",
       "services": ["nus", {"uuid": "180F", "characteristics": [
          {"uuid": "2A19", "properties": ["read", "notify"], "value": "64"}]}],
       "faults": {"dropAfterPackets": 100}},
      {"identifier": "51D0E001-0000-4000-8000-000000000002", "services": []}
    ]})";
  std::string error;
  ASSERT_TRUE(radio->loadConfigString(json, &error)) << error;
  auto board = radio->device(UUID::literal("51D0E001-0000-4000-8000-000000000001"));
  ASSERT_TRUE(board);
  EXPECT_EQ(board->localName, "Board");
  const uint8_t maker[] = {0x59, 0x00, 0x01, 0x02};
  EXPECT_EQ(board->manufacturerData, Data(maker, 4));
  EXPECT_EQ(board->rssi, -40);
  EXPECT_DOUBLE_EQ(board->advertisingInterval, 0.02);
  EXPECT_EQ(board->mtu, 247u);
  EXPECT_EQ(board->behaviour, SimBehaviour::Sink);
  ASSERT_EQ(board->services.size(), 2u);
  EXPECT_EQ(board->services[0].uuid, QLT_UUID::uartServiceUUID());
  EXPECT_EQ(board->services[1].characteristics[0].properties,
            uint32_t(platform::kPropertyRead | platform::kPropertyNotify));
  ASSERT_TRUE(board->faults);
  EXPECT_EQ(board->faults->dropAfterPackets, 100u);
  EXPECT_EQ(radio->faults().seed, 42u);
  EXPECT_DOUBLE_EQ(radio->faults().connectionInterval, 0.0075);
  auto bare = radio->device(UUID::literal("51D0E001-0000-4000-8000-000000000002"));
  ASSERT_TRUE(bare);
  EXPECT_TRUE(bare->services.empty());
  EXPECT_FALSE(bare->localName);
}

TEST(TheDefaultDeviceSet, HasTheNamedDevicesWithFixedIdentifiers) {
  auto radio = SimRadio::create(true);
  std::set<std::string> names;
  for (const auto& d : radio->devices()) names.insert(d.localName.value_or(""));
  EXPECT_EQ(names, (std::set<std::string>{"QLT-Echo", "QLT-Chunk", "QLT-Sink", "QLT-Source",
                                          "HR-Sensor"}));
  EXPECT_EQ(SimRadio::create(true)->devices()[0].identifier, radio->devices()[0].identifier);
}

}  // namespace
}  // namespace qlt::sim::test
