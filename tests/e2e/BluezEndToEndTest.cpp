// The whole library on the BlueZ backend: QLT_BLEManager and QLT_Peripheral over the mock
// bluetoothd on a private bus, in the order an application uses them. The mock's sw-echo
// device runs its own (Python) implementation of the sliding window, so these tests also
// check that the two readings of the frame format agree.
#include <gtest/gtest.h>

#ifndef QLT_TESTS_WITHOUT_BLUEZ

#include "MockBluez.h"
#include "QueltLibrary/QLT_BLEManager.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "platform/bluez/BluezBackend.h"
#include "support/PeripheralRecorder.h"
#include "support/TestSupport.h"

namespace qlt::test {
namespace {

using namespace std::chrono_literals;

// `size` bytes in which a misplaced or repeated byte shows.
std::string pattern(size_t size, unsigned seed = 1) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 7 + seed + i / 251) & 0xFF);
  return s;
}

class OnBlueZ : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto reason = MockBluez::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << "no mock bluetoothd here: " << reason;
    std::string error;
    ASSERT_TRUE(mock_.start({}, &error)) << error;
    makeManager();
  }

  void TearDown() override {
    if (manager_) {
      // End every link, so no transport outlives the bus it writes to.
      for (auto& p : followed_) manager_->disconnect(p);
      for (auto& p : followed_) {
        eventually([&] { return p->state() == QLT_PeripheralStateDisconnected; }, 5s);
      }
      DispatchQueue::main()->sync([] {});
    }
    followed_.clear();
    if (HasFailure() && !mock_.address().empty()) std::cerr << "mock log:\n" << mock_.log();
  }

  // The adapter is powered on only once the application listens: addDelegate takes effect on
  // the manager's queue, and a power report that comes first is not announced to it.
  void makeManager(bluez::BluezOptions options = {}) {
    mock_.control("SetPowered", "b", {false});
    manager_ = QLT_BLEManager::create(bluez::makeBackend(options));
    manager_->addDelegate(app_, appQueue_);
    manager_->moduleQueue()->sync([] {});
    // The central's state is set by the task on its queue that reports it; once it shows,
    // draining that queue and then the application's leaves no report on its way.
    ASSERT_TRUE(eventually([&] {
      auto central = manager_->centralManager();
      return central && central->state() == platform::CentralState::PoweredOff;
    })) << "the backend never reported the adapter";
    manager_->centralQueue()->sync([] {});
    appQueue_->sync([] {});
    app_->clear();
    mock_.control("SetPowered", "b", {true});
    ASSERT_TRUE(app_->waitForManagerState(QLT_BLEManagerStateIdle)) << "idle was never announced";
  }

  // Scans with a filter on the name; returns the wrapper.
  std::shared_ptr<QLT_Peripheral> find(const std::string& name) {
    const size_t before = app_->discovered().size();
    manager_->startDiscover([name](const std::shared_ptr<platform::Peripheral>&,
                                   const std::optional<std::string>& localName,
                                   const platform::AdvertisementData&,
                                   int) { return localName == name; });
    EXPECT_TRUE(app_->waitForDiscoveries(before + 1));
    manager_->stopDiscover();
    auto found = app_->discovered();
    app_->clear();
    return found.empty() ? nullptr : found.back();
  }

  void follow(const std::shared_ptr<QLT_Peripheral>& p) {
    p->addDelegate(app_, appQueue_);
    p->moduleQueue()->sync([] {});
    followed_.push_back(p);
  }

  bool connectReady(const std::shared_ptr<QLT_Peripheral>& p) {
    manager_->connect(p);
    return app_->waitForState(QLT_PeripheralStateReady);
  }

  MockBluez mock_;
  std::shared_ptr<QLT_BLEManager> manager_;
  std::shared_ptr<PeripheralRecorder> app_ = std::make_shared<PeripheralRecorder>();
  std::shared_ptr<DispatchQueue> appQueue_ = DispatchQueue::create("app");
  std::vector<std::shared_ptr<QLT_Peripheral>> followed_;
};

TEST_F(OnBlueZ, PowerScanConnectEchoThroughTheSlidingWindowAndDisconnect) {
  EXPECT_EQ(app_->managerStates(), (std::vector<int32_t>{0, 1}));
  auto p = find("QLT-Echo");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->name(), std::optional<std::string>("QLT-Echo"));
  follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(connectReady(p));
  EXPECT_EQ(app_->states(), (std::vector<int32_t>{1, 2, 5, 6, 8}));

  const std::string message = pattern(10 * 1024);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(app_->waitForTcpBytes(message.size(), 60s));
  EXPECT_EQ(app_->tcpJoined(), message);
  for (const auto& payload : app_->tcp()) EXPECT_LE(payload.length(), 120u);

  p->writeUDPData(Data::fromString("a datagram"));
  ASSERT_TRUE(app_->waitForUdp(1));
  EXPECT_EQ(app_->udp().front().toString(), "a datagram");

  // Writes went out without response on the acquired socket, and the echo came back on
  // the notification socket; the device saw no malformed frame.
  auto stats = mock_.control("GetWriteStats", "s", {"C0:FF:EE:00:00:01"});
  EXPECT_GT(stats["command"].get<int>(), 85);
  EXPECT_EQ(stats["acquired-writes"], stats["command"]);
  EXPECT_GT(stats["acquired-notifications"].get<int>(), 85);
  EXPECT_EQ(stats["untyped"], 0);
  EXPECT_EQ(stats["failed"], 0);
  auto peer = mock_.control("GetPeerStats", "s", {"C0:FF:EE:00:00:01"});
  EXPECT_EQ(peer["malformed"], 0);

  manager_->disconnect(p);
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(app_->states(), (std::vector<int32_t>{1, 2, 5, 6, 8, 3, 0}));
}

// The same through WriteValue and PropertiesChanged, on a device whose daemon offers no
// AcquireWrite/AcquireNotify.
TEST_F(OnBlueZ, TheSlidingWindowEchoesTenKilobytesWithoutAcquiredSockets) {
  mock_.control("SetAcquire", "sb", {"C0:FF:EE:00:00:01", false});
  auto p = find("QLT-Echo");
  ASSERT_TRUE(p);
  follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(connectReady(p));
  const std::string message = pattern(10 * 1024, 5);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(app_->waitForTcpBytes(message.size(), 60s));
  EXPECT_EQ(app_->tcpJoined(), message);
  auto stats = mock_.control("GetWriteStats", "s", {"C0:FF:EE:00:00:01"});
  EXPECT_GT(stats["command"].get<int>(), 85);
  EXPECT_EQ(stats["acquired-writes"], 0);
  EXPECT_EQ(stats["acquired-notifications"], 0);
}

TEST_F(OnBlueZ, TheChunkingTransportEchoesTenKilobytes) {
  auto p = find("QLT-Chunk");
  ASSERT_TRUE(p);
  follow(p);
  p->setTransportType(0);
  ASSERT_TRUE(connectReady(p));
  const std::string message = pattern(10 * 1024, 3);
  p->writeTCPData(Data::fromString(message));
  ASSERT_TRUE(app_->waitForTcpBytes(message.size(), 60s));
  EXPECT_EQ(app_->tcpJoined(), message);
  for (const auto& payload : app_->tcp()) EXPECT_LE(payload.length(), 20u);
}

TEST_F(OnBlueZ, ADroppedLinkAFailedConnectAndADeviceWithoutTheService) {
  auto p = find("QLT-Echo");
  ASSERT_TRUE(p);
  follow(p);
  p->setTransportType(1);
  ASSERT_TRUE(connectReady(p));
  mock_.control("DropLink", "s", {"C0:FF:EE:00:00:01"});
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(app_->states(), (std::vector<int32_t>{1, 2, 5, 6, 8, 0}));
  p->writeTCPData(Data::fromString("after the drop"));  // no transport: dropped quietly

  app_->clear();
  mock_.control("FailNextConnect", "ss", {"C0:FF:EE:00:00:01", "org.bluez.Error.Failed"});
  manager_->connect(p);
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateFailedToConnect));
  EXPECT_EQ(app_->states(), (std::vector<int32_t>{1, 4}));

  // And it connects again, with a fresh transport that works.
  app_->clear();
  ASSERT_TRUE(connectReady(p));
  p->writeTCPData(Data::fromString("again"));
  ASSERT_TRUE(app_->waitForTcpBytes(5));
  EXPECT_EQ(app_->tcpJoined(), "again");

  auto hr = find("HR-Sensor");
  ASSERT_TRUE(hr);
  follow(hr);
  manager_->connect(hr);
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateDfuInProgress));
}

TEST_F(OnBlueZ, ARetrievedStoredIdentifierConnectsWithoutAScan) {
  auto p = find("QLT-Echo");
  ASSERT_TRUE(p);
  const std::string stored = p->basePeripheral()->identifier().UUIDString();
  p.reset();
  // As a later run of the application would: the shared manager on this backend, the
  // stored identifier text, no scan.
  platform::setBackend(bluez::makeBackend());
  auto shared = QLT_BLEManager::sharedInstance();
  shared->addDelegate(app_, appQueue_);
  ASSERT_TRUE(eventually([&] { return shared->state() == QLT_BLEManagerStateIdle; }));
  EXPECT_FALSE(QLT_BLEManager::retrievePeripheralWithUUID("514C5442-5A00-8000-8000-C0FFEE000099"))
      << "a device bluetoothd does not know";
  auto q = QLT_BLEManager::retrievePeripheralWithUUID(stored);
  ASSERT_TRUE(q);
  follow(q);
  q->setTransportType(1);
  shared->connect(q);
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateReady));
  q->writeTCPData(Data::fromString("found again"));
  ASSERT_TRUE(app_->waitForTcpBytes(11));
  EXPECT_EQ(app_->tcpJoined(), "found again");
  shared->disconnect(q);
  ASSERT_TRUE(app_->waitForState(QLT_PeripheralStateDisconnected));
}

}  // namespace
}  // namespace qlt::test

#endif  // QLT_TESTS_WITHOUT_BLUEZ
