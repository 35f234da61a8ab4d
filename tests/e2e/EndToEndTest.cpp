// The whole library as an application uses it, on each backend: the simulated radio and BlueZ
// on the mock bluetoothd, whose sliding-window device is a separate implementation written
// from the frame format (so a misreading shared by both of the library's ends shows there).
#include <gtest/gtest.h>

#include <set>

#include "QueltLibrary/UartLink.h"
#include "platform/Backends.h"
#include "support/SimWorld.h"

namespace qlt::test {
namespace {

using namespace std::chrono_literals;
using e2e::pattern;

template <class Side>
class TheLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto why = side.start();
    if (why.rfind("skip: ", 0) == 0) GTEST_SKIP() << why;
    ASSERT_EQ(why, "");
    world.emplace(side);
    manager = world->manager;
    app = world->app;
  }
  void TearDown() override { world.reset(); }
  std::shared_ptr<QLT_Peripheral> find(const std::string& name) {
    auto p = world->find(name);
    if (p) world->follow(p);
    return p;
  }
  bool connectReady(const std::shared_ptr<QLT_Peripheral>& p) { return world->connectReady(p); }
  bool echoes(const std::shared_ptr<QLT_Peripheral>& p, const std::string& message,
              size_t segment) {
    app->clear();
    p->writeTCPData(Data::fromString(message));
    if (!app->waitForTcpBytes(message.size(), 60s)) return false;
    for (const auto& payload : app->tcp()) EXPECT_LE(payload.length(), segment);
    return app->tcpJoined() == message;
  }

  Side side;
  std::optional<e2e::World<Side>> world;
  std::shared_ptr<QLT_BLEManager> manager;
  std::shared_ptr<PeripheralRecorder> app;
};

TYPED_TEST_SUITE(TheLibrary, Backends);

TYPED_TEST(TheLibrary, ScansConnectsEchoesThroughTheSlidingWindowAndDisconnects) {
  auto& app = *this->app;
  EXPECT_EQ(app.managerStates(), (std::vector<int32_t>{0, 1}));
  this->manager->startDiscover([](auto&, const std::optional<std::string>& name, auto&, int) {
    return name == std::string("QLT-Echo");
  });
  EXPECT_EQ(this->manager->state(), QLT_BLEManagerStateScanning);
  this->manager->startDiscover();  // already scanning: ignored, the filter stays
  ASSERT_TRUE(app.waitFor("discover", 4));
  this->manager->stopDiscover();
  EXPECT_EQ(this->manager->state(), QLT_BLEManagerStateIdle);
  const auto found = app.discovered();
  for (const auto& p : found) EXPECT_EQ(p, found[0]) << "one wrapper per device";
  EXPECT_EQ(found[0]->name(), std::optional<std::string>("QLT-Echo"));
  std::set<int32_t> rssi;
  for (const auto& e : app.events("discover")) rssi.insert(e.state);
  EXPECT_GT(rssi.size(), 1u) << "RSSI is refreshed";

  auto p = this->find("QLT-Echo");
  ASSERT_EQ(p, found[0]);
  p->setTransportType(1);
  ASSERT_TRUE(this->connectReady(p));
  EXPECT_EQ(app.states(), (std::vector<int32_t>{1, 2, 5, 6, 8}));
  EXPECT_TRUE(this->echoes(p, pattern(10 * 1024), 120));
  p->writeUDPData(Data::fromString("a datagram"));
  ASSERT_TRUE(app.waitFor("udp", 1));
  EXPECT_EQ(app.udp().front().toString(), "a datagram");
  if constexpr (!std::is_same_v<TypeParam, Sim>) {
    EXPECT_EQ(this->side.stats("QLT-Echo")["malformed"], 0) << "the device's own reading";
  }
  this->manager->disconnect(p);
  ASSERT_TRUE(app.waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(app.states(), (std::vector<int32_t>{3, 0})) << "after the echo";
  DispatchQueue::main()->sync([] {});
  EXPECT_FALSE(p->transportCounters()) << "the transport is stopped and dropped";
  EXPECT_TRUE(p->services().empty());
}

// Every way a connection ends, a fresh transport for each new one, and each transport.
TYPED_TEST(TheLibrary, EndsInDisconnectedFailedOrDfuAndStartsEachConnectionAndTransportAfresh) {
  auto& app = *this->app;
  auto p = this->find("QLT-Echo");
  ASSERT_TRUE(p);
  p->setTransportType(1);
  ASSERT_TRUE(this->connectReady(p));
  this->side.drop("QLT-Echo");
  ASSERT_TRUE(app.waitForState(QLT_PeripheralStateDisconnected));
  EXPECT_EQ(app.states(), (std::vector<int32_t>{1, 2, 5, 6, 8, 0}));
  p->writeTCPData(Data::fromString("after the drop"));  // no transport: dropped quietly

  app.clear();
  this->side.failConnects(true);
  this->manager->connect(p);
  ASSERT_TRUE(app.waitForState(QLT_PeripheralStateFailedToConnect));
  EXPECT_EQ(app.states(), (std::vector<int32_t>{1, 4}));
  this->side.failConnects(false);

  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(this->connectReady(p)) << round;
    EXPECT_TRUE(this->echoes(p, pattern(500, round), 120)) << round;
    EXPECT_EQ(p->transportCounters()->tcpDelivered, 5u) << "counts only this connection's";
    this->manager->disconnect(p);
    ASSERT_TRUE(app.waitForState(QLT_PeripheralStateDisconnected)) << round;
  }

  auto chunk = this->find("QLT-Chunk");  // a plain device, through the chunking transport
  ASSERT_TRUE(chunk);
  chunk->setTransportType(0);
  ASSERT_TRUE(this->connectReady(chunk));
  EXPECT_TRUE(this->echoes(chunk, pattern(2000, 3), 20));
  EXPECT_FALSE(chunk->transportCounters());
  this->manager->disconnect(chunk);
  ASSERT_TRUE(app.waitForState(QLT_PeripheralStateDisconnected));

  auto hr = this->find("HR-Sensor");
  ASSERT_TRUE(hr);
  hr->setTransportType(1);  // a sliding window would show in the counters
  this->manager->connect(hr);
  ASSERT_TRUE(app.waitForState(QLT_PeripheralStateDfuInProgress));
  EXPECT_EQ(app.states(), (std::vector<int32_t>{1, 2, 5, 9}));
  EXPECT_FALSE(hr->transportCounters()) << "no transport without the UART service";
}

TEST(TheSharedManager, RetrievesAPeripheralByItsIdentifierTextAndConnectsWithoutScanning) {
  auto manager = QLT_BLEManager::sharedInstance();
  EXPECT_EQ(manager, QLT_BLEManager::sharedInstance());
  ASSERT_TRUE(eventually([&] { return manager->state() == QLT_BLEManagerStateIdle; }));
  auto echo = e2e::device("E2E-Known", sim::SimBehaviour::SwEcho);
  sim::SimRadio::shared()->addDevice(echo);
  auto first = QLT_BLEManager::retrievePeripheralWithUUID(echo.identifier.UUIDString());
  auto p = QLT_BLEManager::retrievePeripheralWithUUID(echo.identifier.UUIDString());
  ASSERT_TRUE(first && p);
  EXPECT_NE(p, first) << "each retrieval makes a fresh wrapper";
  EXPECT_FALSE(QLT_BLEManager::retrievePeripheralWithUUID("not-a-uuid"));
  EXPECT_FALSE(QLT_BLEManager::retrievePeripheralWithUUID(e2e::freshIdentifier().UUIDString()));
  auto app = std::make_shared<PeripheralRecorder>();
  auto queue = DispatchQueue::create("app");
  p->addDelegate(app, queue);
  manager->addDelegate(app, queue);
  p->moduleQueue()->sync([] {});
  manager->moduleQueue()->sync([] {});
  p->setTransportType(1);
  manager->connect(p);
  ASSERT_TRUE(app->waitForState(QLT_PeripheralStateReady));
  EXPECT_TRUE(app->managerStates().empty()) << "no scan was needed";
  p->writeTCPData(Data::fromString("known"));
  ASSERT_TRUE(app->waitForTcpBytes(5));
  manager->disconnect(p);
  ASSERT_TRUE(app->waitForState(QLT_PeripheralStateDisconnected));
  sim::SimRadio::shared()->removeDevice(echo.identifier);
}

// The common case through UartLink: one device by its address (in lower case) over the
// sliding window, one by its identifier over the plain chunker.
TYPED_TEST(TheLibrary, CarriesBytesThroughAUartLinkFoundByAddressOrIdentifier) {
  UartLink echo(linkOptions(5s, this->manager));
  echo.connect("c0:ff:ee:00:00:01");
  echo.send("hello");
  EXPECT_EQ(echo.read(5s).toString(), "hello");
  echo.disconnect();
  UartLink chunk(linkOptions(5s, this->manager, false));
  chunk.connect(this->side.id("QLT-Chunk").UUIDString());
  chunk.send("plain");
  EXPECT_EQ(chunk.read(5s).toString(), "plain");
}

// A dropped link comes back by itself (on BlueZ after bluetoothd has forgotten the device) and
// tells its MTU; an adapter the backend does not have is refused by name.
TYPED_TEST(TheLibrary, BringsADroppedUartLinkBackAndTellsItsMtu) {
  auto options = linkOptions(5s, this->manager);
  options.reconnect.enabled = true;
  options.reconnect.firstDelay = 10ms;
  UartLink echo(options);
  echo.connect("QLT-Echo");
  EXPECT_EQ(echo.linkInfo().attMtu, 185);
  EXPECT_EQ(echo.linkInfo().maxWriteLength, 182u);
  this->side.forget("QLT-Echo");
  ASSERT_TRUE(eventually([&] { return echo.counters().reconnects == 1; }));
  echo.send("back");
  EXPECT_EQ(echo.read(5s).toString(), "back");
  EXPECT_EQ(echo.counters().drops, 1u);

  options.adapter = "hci9";
  UartLink elsewhere(options);
  try {
    elsewhere.connect("QLT-Echo");
    ADD_FAILURE() << "connected through an adapter that is not there";
  } catch (const UartLink::Error& e) {
    EXPECT_EQ(e.reason(), UartLink::Error::Reason::NoAdapter) << e.what();
  }
}

}  // namespace
}  // namespace qlt::test
