// A small in-memory platform peripheral for the device-model tests: a GATT table and a
// record of every call made into it. Nothing happens by itself: a test plays the
// platform's part by calling the delegate methods.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::fake {

// Guards every fake's changing fields (values, state, services, delegate, the records).
inline std::mutex mutex;

// A copy of `field`, taken under the fakes' lock.
template <class T>
T snapshot(const T& field) {
  std::lock_guard lock(mutex);
  return field;
}

class FakeCharacteristic : public platform::Characteristic {
 public:
  FakeCharacteristic(UUID uuid, uint32_t properties, std::weak_ptr<platform::Service> service)
      : uuid_(uuid), properties_(properties), service_(std::move(service)) {}
  UUID uuid() const override { return uuid_; }
  uint32_t properties() const override { return properties_; }
  bool isNotifying() const override { return false; }
  std::shared_ptr<platform::Service> service() const override { return service_.lock(); }
  std::optional<Data> value() const override { return snapshot(value_); }
  void setValue(const std::string& v) {
    std::lock_guard lock(mutex);
    value_ = Data::fromString(v);
  }

 private:
  const UUID uuid_;
  const uint32_t properties_;
  const std::weak_ptr<platform::Service> service_;
  std::optional<Data> value_;
};

// Its characteristics are added before it is handed to the code under test.
struct FakeService : platform::Service, std::enable_shared_from_this<FakeService> {
  UUID uuid_;
  std::weak_ptr<platform::Peripheral> peripheral_;
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics_;
  UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics() const override {
    return characteristics_;
  }
  std::shared_ptr<platform::Peripheral> peripheral() const override { return peripheral_.lock(); }
  std::shared_ptr<FakeCharacteristic> add(UUID uuid, uint32_t properties) {
    auto c = std::make_shared<FakeCharacteristic>(uuid, properties, weak_from_this());
    characteristics_.push_back(c);
    return c;
  }
};

struct WriteRecord {
  Data data;
  UUID characteristic;
  platform::WriteType type;
};

class FakePeripheral : public platform::Peripheral,
                       public std::enable_shared_from_this<FakePeripheral> {
 public:
  // A peripheral with a distinct identifier; withNUS: offering the UART service, rx
  // notifying, tx with `txProperties`.
  static std::shared_ptr<FakePeripheral> create() {
    static std::atomic<uint16_t> n{1};
    const uint16_t v = n++;
    return std::shared_ptr<FakePeripheral>(
        new FakePeripheral(UUID(UUID::Bytes{0xD0, uint8_t(v >> 8), uint8_t(v)})));
  }
  static std::shared_ptr<FakePeripheral> withNUS(uint32_t txProperties = 0x0C) {
    auto p = create();
    auto nus = p->addService(QLT_UUID::uartServiceUUID());
    nus->add(QLT_UUID::rxCharacteristicUUID(), platform::kPropertyNotify);
    nus->add(QLT_UUID::txCharacteristicUUID(), txProperties);
    return p;
  }
  std::shared_ptr<FakeService> addService(UUID uuid) {
    auto s = std::make_shared<FakeService>();
    s->uuid_ = uuid;
    s->peripheral_ = weak_from_this();
    std::lock_guard lock(mutex);
    services_.push_back(s);
    return s;
  }
  // The first characteristic with this identifier, in any service.
  std::shared_ptr<FakeCharacteristic> characteristic(UUID uuid) const {
    for (const auto& s : services())
      for (const auto& c : s->characteristics())
        if (c->uuid() == uuid) return std::static_pointer_cast<FakeCharacteristic>(c);
    return nullptr;
  }

  UUID identifier() const override { return identifier_; }
  std::optional<std::string> name() const override { return "fake"; }
  platform::PeripheralState state() const override { return snapshot(state_); }
  void setState(platform::PeripheralState s) {
    std::lock_guard lock(mutex);
    state_ = s;
  }
  std::vector<std::shared_ptr<platform::Service>> services() const override {
    return snapshot(services_);
  }
  std::shared_ptr<platform::PeripheralDelegate> delegate() const override {
    return snapshot(delegate_).lock();
  }
  void setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& d) override {
    std::lock_guard lock(mutex);
    delegate_ = d;
  }
  void discoverServices(const std::optional<std::vector<UUID>>& uuids) override {
    std::lock_guard lock(mutex);
    serviceRequests.push_back(uuids);
  }
  void discoverCharacteristics(const std::optional<std::vector<UUID>>&,
                               const std::shared_ptr<platform::Service>&) override {}
  void writeValue(const Data& data, const std::shared_ptr<platform::Characteristic>& c,
                  platform::WriteType type) override {
    std::lock_guard lock(mutex);
    writes.push_back({data, c->uuid(), type});
  }
  void readValue(const std::shared_ptr<platform::Characteristic>&) override {}
  void setNotifyValue(bool enabled, const std::shared_ptr<platform::Characteristic>& c) override {
    std::lock_guard lock(mutex);
    notifyRequests.emplace_back(c->uuid(), enabled);
  }
  size_t maximumWriteValueLength(platform::WriteType) const override { return 244; }

  // What was asked of the platform; a test reads a copy with snapshot(fake->writes).
  std::vector<WriteRecord> writes;
  std::vector<std::pair<UUID, bool>> notifyRequests;
  std::vector<std::optional<std::vector<UUID>>> serviceRequests;

 private:
  explicit FakePeripheral(UUID identifier) : identifier_(identifier) {}
  const UUID identifier_;
  platform::PeripheralState state_ = platform::PeripheralState::Disconnected;
  std::vector<std::shared_ptr<platform::Service>> services_;
  std::weak_ptr<platform::PeripheralDelegate> delegate_;
};

}  // namespace qlt::fake
