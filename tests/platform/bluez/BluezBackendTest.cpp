// The BlueZ backend through the platform seam, against the mock bluetoothd on a private bus.
#include <gtest/gtest.h>

#ifdef QLT_TESTS_WITHOUT_BLUEZ
TEST(BluezBackend, NotBuilt) {
  GTEST_SKIP() << "built without the BlueZ backend (sdbus-c++ not found)";
}
#else

#include <filesystem>
#include <thread>

#include "MockBluez.h"
#include "QueltLibrary/DispatchQueue.h"
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "support/TestSupport.h"

namespace qlt::test {
namespace {

using namespace std::chrono_literals;
using platform::CentralState;
using platform::WriteType;

const UUID kNus = UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e");
const UUID kTx = UUID::literal("6e400002-b5a3-f393-e0a9-e50e24dcca9e");
const UUID kRx = UUID::literal("6e400003-b5a3-f393-e0a9-e50e24dcca9e");
const char* const kEcho = "C0:FF:EE:00:00:01";
const char* const kChunk = "C0:FF:EE:00:00:02";
const char* const kHeart = "C0:FF:EE:00:00:03";
const char* const kChunkPath = "/org/bluez/hci0/dev_C0_FF_EE_00_00_02";

UUID idOf(const char* address) {
  return bluez::identifierForAddress(*bluez::parseAddress(address));
}

Data bytes(const std::string& text) { return Data::fromString(text); }

// The NUS pair of a connected peripheral, with notifications on.
struct Link {
  std::shared_ptr<platform::Peripheral> peripheral;
  std::shared_ptr<platform::Service> service;
  std::shared_ptr<platform::Characteristic> tx, rx;
};

class BluezBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto reason = MockBluez::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << "no mock bluetoothd here: " << reason;
    std::string error;
    ASSERT_TRUE(mock_.start({}, &error)) << error;
  }

  void TearDown() override {
    release(central_, queue_);
    if (HasFailure() && !mock_.address().empty()) std::cerr << "mock log:\n" << mock_.log();
  }

  // Drops a central on the test's thread while its queue is held, so that no delegate call
  // in flight holds the last reference (the central's end then joins its bus thread here,
  // and the thread's last use of sd-bus happens-before the end of the process).
  static void release(std::shared_ptr<platform::Central>& central,
                      const std::shared_ptr<DispatchQueue>& queue) {
    if (!central) return;
    queue->sync([&] { central.reset(); });
  }

  // A central on its own queue, powered on.
  void powerOn(bluez::BluezOptions options = {}) {
    queue_ = DispatchQueue::create("BluezTestCentral");
    central_ = bluez::makeBackend(options)->createCentral(recorder_, queue_, {});
    auto state = recorder_->waitFor("state");
    ASSERT_TRUE(state) << "no state reported";
    ASSERT_EQ(state->state, CentralState::PoweredOn);
    EXPECT_EQ(central_->state(), CentralState::PoweredOn);
  }

  // Scans until `name` is reported; returns its peripheral.
  std::shared_ptr<platform::Peripheral> find(const std::string& name) {
    central_->scanForPeripherals(std::nullopt, {true});
    std::shared_ptr<platform::Peripheral> found;
    recorder_->waitUntil([&](const std::vector<Event>& events) {
      for (const auto& e : events) {
        if (e.kind == "discover" && e.advertisement.localName == name) {
          found = e.peripheral;
          return true;
        }
      }
      return false;
    });
    central_->stopScan();
    return found;
  }

  size_t countOf(const std::string& kind) { return recorder_->count(kind); }

  // Connects, discovers NUS and switches notifications on.
  Link connectNus(const std::shared_ptr<platform::Peripheral>& peripheral) {
    Link link;
    link.peripheral = peripheral;
    if (!peripheral) return link;
    peripheral->setDelegate(recorder_);
    const size_t connects = countOf("connect"), services = countOf("services"),
                 characteristics = countOf("characteristics"), notify = countOf("notify-state");
    central_->connect(peripheral);
    if (!recorder_->waitFor("connect", connects + 1)) {
      ADD_FAILURE() << "no connection";
      return link;
    }
    peripheral->discoverServices(std::vector<UUID>{kNus});
    auto s = recorder_->waitFor("services", services + 1);
    if (!s || s->error || peripheral->services().size() != 1) {
      ADD_FAILURE() << "NUS not discovered";
      return link;
    }
    link.service = peripheral->services()[0];
    peripheral->discoverCharacteristics(std::nullopt, link.service);
    if (!recorder_->waitFor("characteristics", characteristics + 1)) {
      ADD_FAILURE() << "no characteristics";
      return link;
    }
    for (const auto& c : link.service->characteristics()) {
      if (c->uuid() == kTx) link.tx = c;
      if (c->uuid() == kRx) link.rx = c;
    }
    if (!link.tx || !link.rx) {
      ADD_FAILURE() << "tx or rx missing";
      return link;
    }
    peripheral->setNotifyValue(true, link.rx);
    auto n = recorder_->waitFor("notify-state", notify + 1);
    if (!n || n->error || !n->notifying) ADD_FAILURE() << "notifications not switched on";
    return link;
  }

  MockBluez mock_;
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<platform::Central> central_;
};

TEST_F(BluezBackendTest, PowerFollowsTheAdapter) {
  powerOn();
  auto stateAt = [&](size_t n) {
    auto e = recorder_->waitFor("state", n);
    return e ? e->state : CentralState::Unknown;
  };
  mock_.control("SetPowered", "b", {false});
  EXPECT_EQ(stateAt(2), CentralState::PoweredOff);
  mock_.control("SetPowered", "b", {true});
  EXPECT_EQ(stateAt(3), CentralState::PoweredOn);
  mock_.control("RemoveAdapter");
  EXPECT_EQ(stateAt(4), CentralState::Unsupported);
  mock_.control("AddAdapter");
  EXPECT_EQ(stateAt(5), CentralState::PoweredOn);
  for (const auto& e : recorder_->events()) EXPECT_EQ(e.queue, "BluezTestCentral");
}

TEST_F(BluezBackendTest, WaitsForADaemonThatIsNotThereYet) {
  LogCapture logs;
  ASSERT_FALSE(mock_.request({{"op", "stop_mock"}}).contains("error"));
  queue_ = DispatchQueue::create("BluezTestCentral");
  central_ = bluez::makeBackend()->createCentral(recorder_, queue_, {});
  auto first = recorder_->waitFor("state");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->state, CentralState::PoweredOff);
  EXPECT_TRUE(
      logs.contains("BlueZ: bluetoothd (org.bluez) is not on the system bus; waiting for it"));
  central_->scanForPeripherals(std::nullopt, {true});  // not powered: ignored
  EXPECT_FALSE(central_->isScanning());
  ASSERT_FALSE(mock_.request({{"op", "start_mock"}}).contains("error"));
  auto second = recorder_->waitFor("state", 2);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->state, CentralState::PoweredOn);
}

TEST_F(BluezBackendTest, ScanSetsItsFilterAndReportsOnlyWhatItAskedFor) {
  powerOn();
  central_->scanForPeripherals(std::vector<UUID>{kNus}, {true});
  EXPECT_TRUE(central_->isScanning());
  // Repeated reports of both NUS devices: duplicates are on.
  ASSERT_TRUE(recorder_->waitUntil([&](const std::vector<Event>& events) {
    std::map<std::string, int> seen;
    for (const auto& e : events) {
      if (e.kind == "discover") ++seen[e.advertisement.localName.value_or("")];
    }
    return seen["QLT-Echo"] >= 3 && seen["QLT-Chunk"] >= 3;
  }));

  auto filter = mock_.control("GetLastDiscoveryFilter");
  EXPECT_EQ(filter["Transport"], "le");
  EXPECT_EQ(filter["DuplicateData"], true);
  ASSERT_TRUE(filter.contains("UUIDs"));
  EXPECT_EQ(filter["UUIDs"][0], "6E400001-B5A3-F393-E0A9-E50E24DCCA9E");

  std::set<int> rssis;
  std::shared_ptr<platform::Peripheral> echo;
  for (const auto& e : recorder_->events("discover")) {
    EXPECT_NE(e.advertisement.localName, "HR-Sensor") << "not asked for";
    if (e.advertisement.localName != "QLT-Echo") continue;
    if (!echo) echo = e.peripheral;
    EXPECT_EQ(e.peripheral, echo) << "one object per device";
    rssis.insert(e.rssi);
    EXPECT_EQ(e.peripheral->identifier(), idOf(kEcho));
    ASSERT_TRUE(e.advertisement.manufacturerData);
    // Company 0x0059 (little-endian) in front of the bytes, as on the air.
    EXPECT_EQ(*e.advertisement.manufacturerData,
              Data(std::vector<uint8_t>{0x59, 0x00, 'Q', 'L', 'T', 0}));
    EXPECT_EQ(e.advertisement.serviceUUIDs, std::vector<UUID>{kNus});
  }
  EXPECT_GE(rssis.size(), 2u) << "RSSI updates are advertisements";
  EXPECT_EQ(echo->name(), "QLT-Echo");

  central_->stopScan();
  EXPECT_FALSE(central_->isScanning());
  queue_->sync([] {});
  const size_t afterStop = countOf("discover");
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ(countOf("discover"), afterStop) << "reports after stopScan";
}

TEST_F(BluezBackendTest, DevicesTheDaemonAlreadyKnowsAreReported) {
  powerOn();
  ASSERT_TRUE(find("HR-Sensor"));
  queue_->sync([] {});
  std::this_thread::sleep_for(200ms);  // discovery ends, RSSI is invalidated
  recorder_->clear();

  // A second client: the device objects are there from the first scan.
  auto other = std::make_shared<Recorder>();
  auto otherQueue = DispatchQueue::create("BluezTestOther");
  auto second = bluez::makeBackend()->createCentral(other, otherQueue, {});
  ASSERT_TRUE(other->waitUntil([](const std::vector<Event>& events) {
    return !events.empty() && events.back().state == CentralState::PoweredOn;
  }));
  second->scanForPeripherals(std::nullopt, {true});
  auto first = other->waitFor("discover");
  ASSERT_TRUE(first);
  // A report from bluetoothd's cache comes before any new advertisement: no signal strength.
  EXPECT_EQ(first->rssi, 127);
  ASSERT_TRUE(other->waitUntil([](const std::vector<Event>& events) {
    for (const auto& e : events) {
      if (e.kind == "discover" && e.advertisement.localName == "HR-Sensor" &&
          e.advertisement.serviceData.size() == 1) {
        return e.advertisement.serviceData.begin()->second == Data(std::vector<uint8_t>{0x64});
      }
    }
    return false;
  }));
  second->stopScan();
  release(second, otherQueue);
}

TEST_F(BluezBackendTest, ConnectDiscoverNotifyAndWrite) {
  powerOn();
  auto chunk = find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  auto link = connectNus(chunk);
  ASSERT_TRUE(link.tx && link.rx);
  EXPECT_EQ(chunk->state(), platform::PeripheralState::Connected);
  EXPECT_EQ(link.service->uuid(), kNus);
  EXPECT_EQ(link.tx->properties(),
            uint32_t(platform::kPropertyWriteWithoutResponse | platform::kPropertyWrite));
  EXPECT_EQ(link.rx->properties(), uint32_t(platform::kPropertyNotify));
  EXPECT_TRUE(link.rx->isNotifying());
  EXPECT_EQ(chunk->maximumWriteValueLength(WriteType::WithoutResponse), 182u);  // MTU 185

  // A burst of writes without response comes back as notifications, in order, each
  // delegate call seeing its own value.
  const int kBurst = 60;
  for (int i = 0; i < kBurst; ++i)
    chunk->writeValue(bytes("frame " + std::to_string(i)), link.tx, WriteType::WithoutResponse);
  ASSERT_TRUE(recorder_->waitFor("value", kBurst));
  auto values = recorder_->events("value");
  for (int i = 0; i < kBurst; ++i) EXPECT_EQ(values[i].value, bytes("frame " + std::to_string(i)));
  auto stats = mock_.control("GetWriteStats", "s", {kChunk});
  EXPECT_EQ(stats["command"], kBurst);
  EXPECT_EQ(stats["untyped"], 0);

  // Requests are serialised: three at once never meet InProgress.
  for (int i = 0; i < 3; ++i)
    chunk->writeValue(bytes("req " + std::to_string(i)), link.tx, WriteType::WithResponse);
  ASSERT_TRUE(recorder_->waitFor("write", 3));
  for (const auto& e : recorder_->events("write")) EXPECT_FALSE(e.error) << e.error->description();
  stats = mock_.control("GetWriteStats", "s", {kChunk});
  EXPECT_EQ(stats["request"], 3);
  EXPECT_EQ(stats["in-progress"], 0);
  EXPECT_EQ(stats["last-type"], "request");

  // Notifications off: later values are not reported.
  chunk->setNotifyValue(false, link.rx);
  auto off = recorder_->waitFor("notify-state", 2);
  ASSERT_TRUE(off);
  EXPECT_FALSE(off->notifying);
  const size_t before = countOf("value");
  mock_.control("InjectNotification", "say", {kChunk, std::vector<int>{1, 2, 3}});
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(countOf("value"), before);
}

// Many full-size frames in a row, as the transports send them: every one echoed, in order.
// The rate is printed for comparison (D-Bus messages both ways, no file descriptors: a
// device without AcquireWrite/AcquireNotify, whose writes are never dropped for lack of room).
TEST_F(BluezBackendTest, FullSizeFramesKeepTheirOrderUnderLoad) {
  powerOn();
  mock_.control("SetAcquire", "sb", {kChunk, false});
  auto chunk = find("QLT-Chunk");
  auto link = connectNus(chunk);
  ASSERT_TRUE(link.tx);
  const int kFrames = 500;
  std::vector<Data> sent;
  for (int i = 0; i < kFrames; ++i) {
    std::vector<uint8_t> frame(161, static_cast<uint8_t>(i));
    frame[0] = static_cast<uint8_t>(i >> 8);
    sent.emplace_back(frame);
  }
  const auto start = std::chrono::steady_clock::now();
  std::thread writer([&] {
    for (const auto& frame : sent) chunk->writeValue(frame, link.tx, WriteType::WithoutResponse);
  });
  writer.join();
  ASSERT_TRUE(recorder_->waitFor("value", kFrames, 60s));
  const double seconds = secondsSince(start);
  auto values = recorder_->events("value");
  for (int i = 0; i < kFrames; ++i) ASSERT_EQ(values[i].value, sent[i]) << "frame " << i;
  auto stats = mock_.control("GetWriteStats", "s", {kChunk});
  EXPECT_EQ(stats["command"], kFrames);
  EXPECT_EQ(stats["acquired-writes"], 0);
  EXPECT_EQ(stats["acquired-notifications"], 0);
  std::cout << "[ measure  ] " << kFrames << " frames of 161 bytes echoed in " << seconds
            << " s: " << kFrames * 161 / seconds / 1024 << " KiB/s each way\n";
  RecordProperty("echo_kib_per_s", std::to_string(kFrames * 161 / seconds / 1024));
}

TEST_F(BluezBackendTest, AWriteThatDoesNotFitTheLinkIsLoggedNotLost) {
  LogCapture logs;
  powerOn();
  mock_.control("SetAcquire", "sb", {kChunk, false});
  auto chunk = find("QLT-Chunk");
  auto link = connectNus(chunk);
  ASSERT_TRUE(link.tx);
  mock_.control("SetMtu", "sq", {kChunk, 23});
  ASSERT_TRUE(
      eventually([&] { return chunk->maximumWriteValueLength(WriteType::WithoutResponse) == 20; }));
  chunk->writeValue(Data(std::vector<uint8_t>(30, 0xAB)), link.tx, WriteType::WithoutResponse);
  EXPECT_TRUE(logs.waitFor("BlueZ: write without response of 30 bytes to " +
                           std::string(kChunkPath) +
                           "/service000a/char000b does not fit the link: at most 20 bytes (MTU 23 "
                           "- 3); bluetoothd will refuse it"));
  EXPECT_TRUE(eventually([&] {
    for (const auto& line : logs.lines()) {
      if (line.find("write without response of 30 bytes to") != std::string::npos &&
          line.find("failed: org.bluez.Error.InvalidValueLength") != std::string::npos) {
        return true;
      }
    }
    return false;
  }));
}

// ---- the socket data path (AcquireWrite / AcquireNotify)

// True once a logged line contains `fragment` (waits up to five seconds).
bool logged(const LogCapture& logs, const std::string& fragment) {
  return eventually([&] {
    for (const auto& line : logs.lines()) {
      if (line.find(fragment) != std::string::npos) return true;
    }
    return false;
  });
}

// Sockets this process holds open (the library makes other descriptors, eventfds, lazily
// and keeps them; sockets are what a connection acquires).
size_t openSockets() {
  size_t n = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (std::filesystem::read_symlink(entry.path(), error).string().rfind("socket:", 0) == 0) ++n;
  }
  return n;
}

// Writes and notifications go over the acquired sockets, in order and each delegate call
// seeing its own value; a write longer than the socket's MTU is refused with a log line;
// when bluetoothd closes its ends, writes fall back to WriteValue, notifications stop, and
// switching them on again acquires a fresh socket.
TEST_F(BluezBackendTest, AcquiredSocketsCarryTheDataAndFallBackWhenClosed) {
  LogCapture logs;
  powerOn();
  auto chunk = find("QLT-Chunk");
  auto link = connectNus(chunk);
  ASSERT_TRUE(link.tx);
  const std::string tx = std::string(kChunkPath) + "/service000a/char000b";

  const int kBurst = 60;
  for (int i = 0; i < kBurst; ++i) {
    chunk->writeValue(bytes("frame " + std::to_string(i)), link.tx, WriteType::WithoutResponse);
  }
  ASSERT_TRUE(recorder_->waitFor("value", kBurst));
  auto values = recorder_->events("value");
  for (int i = 0; i < kBurst; ++i) EXPECT_EQ(values[i].value, bytes("frame " + std::to_string(i)));
  auto stats = mock_.control("GetWriteStats", "s", {kChunk});
  EXPECT_EQ(stats["acquired-writes"], kBurst);
  EXPECT_EQ(stats["acquired-notifications"], kBurst);
  EXPECT_TRUE(logged(logs, tx + ": writing without response on an acquired socket (MTU 185)"));

  chunk->writeValue(Data(std::vector<uint8_t>(183, 0xAB)), link.tx, WriteType::WithoutResponse);
  EXPECT_TRUE(logged(
      logs, "write without response of 183 bytes to " + tx +
                " does not fit the acquired socket: at most 182 bytes (MTU 185 - 3); not sent"));
  // A request still goes by WriteValue, and is not overtaken by the socket.
  chunk->writeValue(bytes("request"), link.tx, WriteType::WithResponse);
  ASSERT_TRUE(recorder_->waitFor("write", 1));
  ASSERT_TRUE(recorder_->waitFor("value", kBurst + 1));
  stats = mock_.control("GetWriteStats", "s", {kChunk});
  EXPECT_EQ(stats["acquired-writes"], kBurst) << "the oversized write reached the device";
  EXPECT_EQ(stats["request"], 1);

  mock_.control("CloseAcquired", "s", {kChunk});
  EXPECT_TRUE(logged(logs, tx + ": bluetoothd closed the write socket; writing with WriteValue"));
  EXPECT_TRUE(eventually([&] { return !link.rx->isNotifying(); }));
  EXPECT_EQ(chunk->state(), platform::PeripheralState::Connected);
  chunk->writeValue(bytes("by method"), link.tx, WriteType::WithoutResponse);
  EXPECT_TRUE(eventually(
      [&] { return mock_.control("GetWriteStats", "s", {kChunk})["command"] == kBurst + 1; }));

  const size_t notifyStates = countOf("notify-state");
  chunk->setNotifyValue(true, link.rx);
  auto on = recorder_->waitFor("notify-state", notifyStates + 1);
  ASSERT_TRUE(on);
  EXPECT_FALSE(on->error);
  EXPECT_TRUE(on->notifying);
  const size_t before = countOf("value");
  EXPECT_TRUE(
      mock_.control("InjectNotification", "say", {kChunk, std::vector<int>{7, 0, 7}}).get<bool>());
  auto injected = recorder_->waitFor("value", before + 1);
  ASSERT_TRUE(injected);
  EXPECT_EQ(injected->value, Data(std::vector<uint8_t>{7, 0, 7}));
  EXPECT_EQ(mock_.control("GetWriteStats", "s", {kChunk})["acquired-notifications"], kBurst + 2);

  // Off, then on and at once off again. Usually the off comes before AcquireNotify answers:
  // one callback, off, and the socket of the late reply is closed (the device cannot notify
  // into it). On a slow machine the answer may come first: on, then off. Either way it ends
  // off, without an error and with no socket left.
  chunk->setNotifyValue(false, link.rx);
  ASSERT_TRUE(recorder_->waitFor("notify-state", notifyStates + 2));
  const size_t sockets = openSockets();
  chunk->setNotifyValue(true, link.rx);
  chunk->setNotifyValue(false, link.rx);
  ASSERT_TRUE(recorder_->waitFor("notify-state", notifyStates + 3));
  EXPECT_TRUE(eventually([&] { return !recorder_->events("notify-state").back().notifying; }));
  for (const auto& state : recorder_->events("notify-state")) EXPECT_FALSE(state.error);
  EXPECT_TRUE(eventually([&] {
    return !mock_.control("InjectNotification", "say", {kChunk, std::vector<int>{1}}).get<bool>();
  }));
  EXPECT_EQ(openSockets(), sockets);
  // The characteristic follows the daemon's Notifying, which the late acquisition may have
  // switched on for a moment before its socket was closed; it settles on off.
  EXPECT_TRUE(eventually([&] { return !link.rx->isNotifying(); }));
}

// A daemon that hands out something unusable (a pipe, an MTU of 0, a reply of other
// types) is logged and the method calls carry the data instead.
TEST_F(BluezBackendTest, AnUnusableAcquiredSocketFallsBackToMethodCalls) {
  for (const std::string fault : {"pipe", "mtu0", "types"}) {
    SCOPED_TRACE(fault);
    LogCapture logs;
    recorder_->clear();
    powerOn();
    mock_.control("SetAcquireFault", "ss", {kChunk, fault});
    auto chunk = find("QLT-Chunk");
    auto link = connectNus(chunk);
    ASSERT_TRUE(link.tx);
    for (int i = 0; i < 5; ++i)
      chunk->writeValue(bytes("w" + std::to_string(i)), link.tx, WriteType::WithoutResponse);
    ASSERT_TRUE(recorder_->waitFor("value", 5));
    auto values = recorder_->events("value");
    for (int i = 0; i < 5; ++i) EXPECT_EQ(values[i].value, bytes("w" + std::to_string(i)));
    auto stats = mock_.control("GetWriteStats", "s", {kChunk});
    EXPECT_EQ(stats["command"], 5);
    EXPECT_EQ(stats["acquired-writes"], 0);
    EXPECT_EQ(stats["acquired-notifications"], 0);
    const std::string what = fault == "pipe"   ? "returned a descriptor that is not a packet socket"
                             : fault == "mtu0" ? "returned the unusable MTU 0"
                                               : "returned an unreadable reply";
    EXPECT_TRUE(logged(logs, "BlueZ: AcquireWrite of " + std::string(kChunkPath) +
                                 "/service000a/char000b " + what));
    EXPECT_TRUE(logged(logs, "BlueZ: AcquireNotify of " + std::string(kChunkPath) +
                                 "/service000a/char000d " + what));
    chunk->setDelegate(nullptr);
    release(central_, queue_);
    mock_.control("Reset");
  }
}

// Connections that end every way a link ends (disconnect, link loss, bluetoothd leaving,
// the central's end) leave no descriptor behind.
TEST_F(BluezBackendTest, AcquiredSocketsAreClosedWhenTheLinkEnds) {
  const size_t beforeCentral = openSockets();
  powerOn();
  auto chunk = find("QLT-Chunk");
  ASSERT_TRUE(chunk);
  const size_t baseline = openSockets();
  auto exchange = [&](int round) {
    auto link = connectNus(chunk);
    if (!link.tx) return false;
    const size_t values = countOf("value");
    chunk->writeValue(bytes("round " + std::to_string(round)), link.tx, WriteType::WithoutResponse);
    auto echoed = recorder_->waitFor("value", values + 1);
    return echoed && echoed->value == bytes("round " + std::to_string(round));
  };
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(exchange(round));
    EXPECT_GT(openSockets(), baseline) << "no socket was acquired";
    const size_t disconnects = countOf("disconnect");
    if (round == 1) {
      mock_.control("DropLink", "s", {kChunk});
    } else {
      central_->cancelPeripheralConnection(chunk);
    }
    ASSERT_TRUE(recorder_->waitFor("disconnect", disconnects + 1));
    EXPECT_TRUE(eventually([&] { return openSockets() == baseline; }))
        << openSockets() << " sockets open, " << baseline << " before round " << round;
  }
  EXPECT_EQ(mock_.control("GetWriteStats", "s", {kChunk})["acquired-writes"], 3);

  // bluetoothd leaving the bus, and the central's own end, close them too (the test's own sockets
  // are all made before).
  ASSERT_TRUE(exchange(3));
  const size_t disconnects = countOf("disconnect");
  mock_.request({{"op", "stop_mock"}});
  ASSERT_TRUE(recorder_->waitFor("disconnect", disconnects + 1));
  EXPECT_TRUE(eventually([&] { return openSockets() == baseline; }));
  mock_.request({{"op", "start_mock"}});
  ASSERT_TRUE(eventually([&] { return central_->state() == CentralState::PoweredOn; }));
  recorder_->clear();  // the new daemon lists the device once a scan has seen it again
  chunk = find("QLT-Chunk");
  ASSERT_TRUE(exchange(4));
  EXPECT_GT(openSockets(), baseline);
  chunk->setDelegate(nullptr);
  chunk.reset();
  release(central_, queue_);
  EXPECT_TRUE(eventually([&] { return openSockets() == beforeCentral; }))
      << openSockets() << " sockets open after the central's end, " << beforeCentral
      << " before it";
}

TEST_F(BluezBackendTest, ADroppedLinkEndsTheConnectionAndItsObjects) {
  LogCapture logs;
  powerOn();
  auto chunk = find("QLT-Chunk");
  auto old = connectNus(chunk);
  ASSERT_TRUE(old.tx);
  mock_.control("DropLink", "s", {kChunk});
  auto gone = recorder_->waitFor("disconnect");
  ASSERT_TRUE(gone);
  EXPECT_EQ(gone->peripheral, chunk);
  ASSERT_TRUE(gone->error) << "a lost link carries an error";
  EXPECT_EQ(chunk->state(), platform::PeripheralState::Disconnected);

  // Reconnect: the characteristics of the first link stay dead.
  auto fresh = connectNus(chunk);
  ASSERT_TRUE(fresh.tx);
  EXPECT_NE(fresh.tx, old.tx);
  chunk->writeValue(bytes("stale"), old.tx, WriteType::WithoutResponse);
  chunk->writeValue(bytes("fresh"), fresh.tx, WriteType::WithoutResponse);
  auto echoed = recorder_->waitFor("value");
  ASSERT_TRUE(echoed);
  EXPECT_EQ(echoed->value, bytes("fresh"));
  EXPECT_TRUE(logs.contains("BlueZ: write of 5 bytes to " + std::string(kChunkPath) +
                            "/service000a/char000b dropped: its connection is gone"));
  EXPECT_EQ(countOf("disconnect"), 1u);

  // A requested disconnection carries no error.
  central_->cancelPeripheralConnection(chunk);
  auto bye = recorder_->waitFor("disconnect", 2);
  ASSERT_TRUE(bye);
  EXPECT_FALSE(bye->error);
}

TEST_F(BluezBackendTest, AFailedConnectIsReportedWithTheDaemonsError) {
  powerOn();
  auto echo = find("QLT-Echo");
  ASSERT_TRUE(echo);
  mock_.control("FailNextConnect", "ss", {kEcho, "org.bluez.Error.Failed"});
  central_->connect(echo);
  auto failed = recorder_->waitFor("fail");
  ASSERT_TRUE(failed);
  ASSERT_TRUE(failed->error);
  EXPECT_EQ(failed->error->domain, "org.bluez.Error.Failed");
  EXPECT_EQ(countOf("connect"), 0u);
  // The next attempt works.
  central_->connect(echo);
  EXPECT_TRUE(recorder_->waitFor("connect"));
}

TEST_F(BluezBackendTest, AConnectThatTakesTooLongIsCancelled) {
  LogCapture logs;
  bluez::BluezOptions options;
  options.connectTimeout = 30ms;  // the mock needs ~100 ms to connect and resolve
  powerOn(options);
  auto echo = find("QLT-Echo");
  ASSERT_TRUE(echo);
  central_->connect(echo);
  auto failed = recorder_->waitFor("fail");
  ASSERT_TRUE(failed);
  ASSERT_TRUE(failed->error);
  EXPECT_EQ(failed->error->domain, "qlt.bluez");
  EXPECT_TRUE(logs.waitFor(
      "BlueZ: connection to C0:FF:EE:00:00:01 timed out after 30 ms; cancelling with Disconnect"));
  // The cancelled attempt's tail (the Connect reply, Connected false) changes nothing.
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ(countOf("connect"), 0u);
  EXPECT_EQ(countOf("fail"), 1u);
  EXPECT_EQ(countOf("disconnect"), 0u);
  EXPECT_EQ(echo->state(), platform::PeripheralState::Disconnected);
}

TEST_F(BluezBackendTest, RetrieveByStoredIdentifierFindsTheDeviceAgain) {
  LogCapture logs;
  powerOn();
  auto echo = find("QLT-Echo");
  ASSERT_TRUE(echo);
  const std::string stored = echo->identifier().UUIDString();
  EXPECT_EQ(stored, "514C5442-5A00-8000-8000-C0FFEE000001");
  release(central_, queue_);
  echo.reset();

  // As after a restart of the application: a new central, no scan.
  recorder_ = std::make_shared<Recorder>();
  powerOn();
  const auto unknown = idOf("C0:FF:EE:00:00:99");
  const auto foreign = UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e");
  auto found =
      central_->retrievePeripheralsWithIdentifiers({*UUID::fromString(stored), unknown, foreign});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->identifier().UUIDString(), stored);
  EXPECT_EQ(found[0]->name(), "QLT-Echo");
  EXPECT_TRUE(logs.contains(
      "BlueZ: device C0:FF:EE:00:00:99 is not known to bluetoothd; scan for it first"));
  EXPECT_TRUE(
      logs.contains("BlueZ: identifier 6E400001-B5A3-F393-E0A9-E50E24DCCA9E does not name a "
                    "Bluetooth address (not made by this backend)"));
  found[0]->setDelegate(recorder_);
  central_->connect(found[0]);
  EXPECT_TRUE(recorder_->waitFor("connect"));
}

TEST_F(BluezBackendTest, ADaemonRestartDropsEverythingAndComesBack) {
  powerOn();
  auto chunk = find("QLT-Chunk");
  auto link = connectNus(chunk);
  ASSERT_TRUE(link.tx);
  auto reply = mock_.request({{"op", "restart"}, {"downtime", 0.3}});
  ASSERT_FALSE(reply.contains("error")) << reply.dump();

  auto gone = recorder_->waitFor("disconnect");
  ASSERT_TRUE(gone);
  ASSERT_TRUE(gone->error);
  EXPECT_EQ(gone->error->message, "bluetoothd left the bus");
  auto states = [&] {
    std::vector<CentralState> out;
    for (const auto& e : recorder_->events("state")) out.push_back(e.state);
    return out;
  };
  ASSERT_TRUE(recorder_->waitFor("state", 3));
  EXPECT_EQ(states(), (std::vector<CentralState>{CentralState::PoweredOn, CentralState::PoweredOff,
                                                 CentralState::PoweredOn}));
  // The disconnection is reported before the power goes.
  auto all = recorder_->events();
  auto at = [&](const std::string& kind, size_t n) {
    size_t seen = 0;
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i].kind == kind && ++seen == n) return i;
    }
    return all.size();
  };
  EXPECT_LT(at("disconnect", 1), at("state", 2));

  // The same device, the same object, usable again.
  recorder_->clear();
  auto again = find("QLT-Chunk");
  EXPECT_EQ(again, chunk);
  auto fresh = connectNus(chunk);
  ASSERT_TRUE(fresh.tx);
  chunk->writeValue(bytes("back"), fresh.tx, WriteType::WithoutResponse);
  auto echoed = recorder_->waitFor("value");
  ASSERT_TRUE(echoed);
  EXPECT_EQ(echoed->value, bytes("back"));
}

TEST_F(BluezBackendTest, PropertiesOfAnUnexpectedTypeOrObjectAreLoggedAndIgnored) {
  LogCapture logs;
  powerOn();
  central_->scanForPeripherals(std::nullopt, {true});
  ASSERT_TRUE(recorder_->waitFor("discover", 3));
  const std::string heart = "/org/bluez/hci0/dev_C0_FF_EE_00_00_03";
  auto emit = [&](const std::string& path, const std::string& iface,
                  const nlohmann::json& changed) {
    auto reply = mock_.request(
        {{"op", "props_changed"}, {"path", path}, {"iface", iface}, {"changed", changed}});
    EXPECT_FALSE(reply.contains("error")) << reply.dump();
  };
  emit(heart, "org.bluez.Device1", {{"RSSI", {"s", "loud"}}, {"ManufacturerData", {"as", {"x"}}}});
  EXPECT_TRUE(logs.waitFor("BlueZ: property RSSI of " + heart +
                           " has D-Bus type 's', expected 'n'; ignored"));
  EXPECT_TRUE(logs.contains("BlueZ: property ManufacturerData of " + heart +
                            " has D-Bus type 'as', expected 'a{qv}'; ignored"));
  // An object bluetoothd never announced as a device.
  auto added = mock_.request({{"op", "call"},
                              {"path", "/"},
                              {"iface", "org.freedesktop.DBus.Mock"},
                              {"method", "AddObject"},
                              {"signature", "ssa{sv}a(ssss)"},
                              {"args",
                               {"/org/bluez/hci0/stray", "org.example.Stray",
                                nlohmann::json::object(), nlohmann::json::array()}}});
  ASSERT_FALSE(added.contains("error")) << added.dump();
  emit("/org/bluez/hci0/stray", "org.bluez.Device1", {{"Connected", {"b", true}}});
  EXPECT_TRUE(
      logs.waitFor("BlueZ: PropertiesChanged of org.bluez.Device1 for an unknown object "
                   "/org/bluez/hci0/stray; ignored"));
  // Still working: more reports, the heart-rate sensor among them.
  const size_t now = countOf("discover");
  EXPECT_TRUE(recorder_->waitFor("discover", now + 5));
  central_->stopScan();
}

TEST(BluezIdentifiers, AddressesMapToIdentifiersAndBack) {
  const auto address = bluez::parseAddress("c0:ff:ee:00:00:01");
  ASSERT_TRUE(address);
  EXPECT_EQ(bluez::addressString(*address), "C0:FF:EE:00:00:01");
  const UUID id = bluez::identifierForAddress(*address);
  EXPECT_EQ(id.UUIDString(), "514C5442-5A00-8000-8000-C0FFEE000001");
  EXPECT_EQ(bluez::addressForIdentifier(id), address);
  EXPECT_EQ(bluez::addressForIdentifier(*UUID::fromString(id.UUIDString())), address);
  EXPECT_FALSE(bluez::addressForIdentifier(UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e")));
  for (const char* bad : {"", "C0:FF:EE:00:00", "C0:FF:EE:00:00:0G", "C0-FF-EE-00-00-01",
                          "C0:FF:EE:00:00:01:", "C0FFEE000001"}) {
    EXPECT_FALSE(bluez::parseAddress(bad)) << bad;
  }
}

}  // namespace
}  // namespace qlt::test

#endif  // QLT_TESTS_WITHOUT_BLUEZ
