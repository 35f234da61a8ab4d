// A small in-memory platform peripheral for the device-model tests: a GATT table of
// services and characteristics, and a record of every call made into it. Nothing happens
// by itself: a test plays the platform's part by calling the delegate methods.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::fake {

class FakeCharacteristic : public platform::Characteristic {
 public:
  FakeCharacteristic(UUID uuid, uint32_t properties, std::weak_ptr<platform::Service> service)
      : uuid_(uuid), properties_(properties), service_(std::move(service)) {}
  UUID uuid() const override { return uuid_; }
  uint32_t properties() const override { return properties_; }
  std::optional<Data> value() const override {
    std::lock_guard lock(mutex_);
    return value_;
  }
  void setValue(std::optional<Data> v) {
    std::lock_guard lock(mutex_);
    value_ = std::move(v);
  }
  bool isNotifying() const override { return false; }
  std::shared_ptr<platform::Service> service() const override { return service_.lock(); }

 private:
  const UUID uuid_;
  const uint32_t properties_;
  const std::weak_ptr<platform::Service> service_;
  mutable std::mutex mutex_;
  std::optional<Data> value_;  // guarded by mutex_
};

class FakeService : public platform::Service {
 public:
  FakeService(UUID uuid, std::weak_ptr<platform::Peripheral> p) : uuid_(uuid), peripheral_(p) {}
  UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics() const override {
    return characteristics_;
  }
  std::shared_ptr<platform::Peripheral> peripheral() const override { return peripheral_.lock(); }
  // Set up before the service is handed to the code under test.
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics_;

 private:
  const UUID uuid_;
  const std::weak_ptr<platform::Peripheral> peripheral_;
};

struct WriteRecord {
  Data data;
  UUID characteristic;
  platform::WriteType type;
};

class FakePeripheral : public platform::Peripheral,
                       public std::enable_shared_from_this<FakePeripheral> {
  mutable std::mutex mutex_;
  template <class F>
  auto locked(F f) const {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  // A distinct identifier per call.
  static UUID nextIdentifier() {
    static std::atomic<uint32_t> n{1};
    UUID::Bytes b{0xD0};
    const uint32_t v = n++;
    for (int i = 0; i < 4; ++i) b[15 - i] = static_cast<uint8_t>(v >> (8 * i));
    return UUID(b);
  }
  static std::shared_ptr<FakePeripheral> create(std::optional<std::string> name = "fake") {
    return std::shared_ptr<FakePeripheral>(new FakePeripheral(std::move(name)));
  }
  // A peripheral offering the UART service: rx notifying, tx with `txProperties`.
  static std::shared_ptr<FakePeripheral> withNUS(uint32_t txProperties = 0x0C) {
    auto p = create();
    auto nus = p->addService(QLT_UUID::uartServiceUUID());
    p->addCharacteristic(nus, QLT_UUID::rxCharacteristicUUID(), platform::kPropertyNotify);
    p->addCharacteristic(nus, QLT_UUID::txCharacteristicUUID(), txProperties);
    return p;
  }

  std::shared_ptr<FakeService> addService(UUID uuid) {
    auto s = std::make_shared<FakeService>(uuid, weak_from_this());
    std::lock_guard lock(mutex_);
    services_.push_back(s);
    return s;
  }
  std::shared_ptr<FakeCharacteristic> addCharacteristic(const std::shared_ptr<FakeService>& s,
                                                        UUID uuid, uint32_t properties) {
    auto c = std::make_shared<FakeCharacteristic>(uuid, properties, s);
    s->characteristics_.push_back(c);
    return c;
  }
  // The first characteristic with this identifier, in any service.
  std::shared_ptr<FakeCharacteristic> characteristic(UUID uuid) const {
    for (const auto& s : services())
      for (const auto& c : s->characteristics())
        if (c->uuid() == uuid) return std::static_pointer_cast<FakeCharacteristic>(c);
    return nullptr;
  }

  UUID identifier() const override { return identifier_; }
  std::optional<std::string> name() const override { return name_; }
  platform::PeripheralState state() const override { return locked([&] { return state_; }); }
  void setState(platform::PeripheralState s) {
    locked([&] { state_ = s; });
  }
  std::vector<std::shared_ptr<platform::Service>> services() const override {
    return locked([&] {
      return std::vector<std::shared_ptr<platform::Service>>(services_.begin(), services_.end());
    });
  }
  std::shared_ptr<platform::PeripheralDelegate> delegate() const override {
    return locked([&] { return delegate_.lock(); });
  }
  void setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& d) override {
    locked([&] { delegate_ = d; });
  }
  void discoverServices(const std::optional<std::vector<UUID>>& uuids) override {
    locked([&] { serviceRequests.push_back(uuids); });
  }
  void discoverCharacteristics(const std::optional<std::vector<UUID>>&,
                               const std::shared_ptr<platform::Service>& s) override {
    locked([&] { characteristicRequests.push_back(s->uuid()); });
  }
  void writeValue(const Data& data, const std::shared_ptr<platform::Characteristic>& c,
                  platform::WriteType type) override {
    locked([&] { writes.push_back({data, c->uuid(), type}); });
  }
  void readValue(const std::shared_ptr<platform::Characteristic>&) override {}
  void setNotifyValue(bool enabled, const std::shared_ptr<platform::Characteristic>& c) override {
    locked([&] { notifyRequests.emplace_back(c->uuid(), enabled); });
  }
  size_t maximumWriteValueLength(platform::WriteType) const override { return 244; }

  // What was asked of the platform; read a copy with snapshot(fake->writes).
  std::vector<WriteRecord> writes;
  std::vector<std::pair<UUID, bool>> notifyRequests;
  std::vector<std::optional<std::vector<UUID>>> serviceRequests;
  std::vector<UUID> characteristicRequests;
  template <class T>
  T snapshot(const T& field) const {
    return locked([&] { return field; });
  }

 private:
  explicit FakePeripheral(std::optional<std::string> name)
      : identifier_(nextIdentifier()), name_(std::move(name)) {}

  const UUID identifier_;
  const std::optional<std::string> name_;
  platform::PeripheralState state_ = platform::PeripheralState::Disconnected;
  std::vector<std::shared_ptr<FakeService>> services_;
  std::weak_ptr<platform::PeripheralDelegate> delegate_;
};

}  // namespace qlt::fake
