// A small in-memory platform for the device-model tests: peripherals with a GATT table
// that record every call made into them, and a central that records its calls. Nothing
// happens by itself: a test plays the platform's part by calling the delegate methods.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::fake {

class FakeService;
class FakePeripheral;

class FakeCharacteristic : public platform::Characteristic {
 public:
  FakeCharacteristic(UUID uuid, uint32_t properties) : uuid_(uuid), properties_(properties) {}
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
  bool isNotifying() const override {
    std::lock_guard lock(mutex_);
    return notifying_;
  }
  void setNotifying(bool n) {
    std::lock_guard lock(mutex_);
    notifying_ = n;
  }
  std::shared_ptr<platform::Service> service() const override;
  void setService(const std::shared_ptr<FakeService>& s);

 private:
  const UUID uuid_;
  const uint32_t properties_;
  mutable std::mutex mutex_;
  std::optional<Data> value_;
  bool notifying_ = false;
  std::weak_ptr<FakeService> service_;
};

class FakeService : public platform::Service {
 public:
  explicit FakeService(UUID uuid) : uuid_(uuid) {}
  UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics() const override {
    std::lock_guard lock(mutex_);
    return characteristics_;
  }
  std::shared_ptr<platform::Peripheral> peripheral() const override;
  void add(const std::shared_ptr<FakeCharacteristic>& c, const std::shared_ptr<FakeService>& self) {
    c->setService(self);
    std::lock_guard lock(mutex_);
    characteristics_.push_back(c);
  }
  void setPeripheral(const std::shared_ptr<platform::Peripheral>& p) {
    std::lock_guard lock(mutex_);
    peripheral_ = p;
  }

 private:
  const UUID uuid_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<platform::Characteristic>> characteristics_;
  std::weak_ptr<platform::Peripheral> peripheral_;
};

inline std::shared_ptr<platform::Service> FakeCharacteristic::service() const {
  std::lock_guard lock(mutex_);
  return service_.lock();
}
inline void FakeCharacteristic::setService(const std::shared_ptr<FakeService>& s) {
  std::lock_guard lock(mutex_);
  service_ = s;
}

struct WriteRecord {
  Data data;
  UUID characteristic;
  platform::WriteType type;
};

class FakePeripheral : public platform::Peripheral,
                       public std::enable_shared_from_this<FakePeripheral> {
 public:
  static std::shared_ptr<FakePeripheral> create(UUID identifier,
                                                std::optional<std::string> name = {}) {
    return std::shared_ptr<FakePeripheral>(new FakePeripheral(identifier, std::move(name)));
  }
  // A peripheral offering the UART service: tx with `txProperties`, rx notifying.
  static std::shared_ptr<FakePeripheral> withNUS(UUID identifier, uint32_t txProperties = 0x0C) {
    auto p = create(identifier, "fake");
    auto nus = p->addService(QLT_UUID::uartServiceUUID());
    p->addCharacteristic(nus, QLT_UUID::rxCharacteristicUUID(), platform::kPropertyNotify);
    p->addCharacteristic(nus, QLT_UUID::txCharacteristicUUID(), txProperties);
    return p;
  }

  std::shared_ptr<FakeService> addService(UUID uuid) {
    auto s = std::make_shared<FakeService>(uuid);
    s->setPeripheral(shared_from_this());
    std::lock_guard lock(mutex_);
    services_.push_back(s);
    return s;
  }
  std::shared_ptr<FakeCharacteristic> addCharacteristic(const std::shared_ptr<FakeService>& s,
                                                        UUID uuid, uint32_t properties) {
    auto c = std::make_shared<FakeCharacteristic>(uuid, properties);
    s->add(c, s);
    return c;
  }
  std::shared_ptr<FakeCharacteristic> characteristic(UUID uuid) const {
    for (const auto& s : services()) {
      for (const auto& c : s->characteristics()) {
        if (c->uuid() == uuid) return std::static_pointer_cast<FakeCharacteristic>(c);
      }
    }
    return nullptr;
  }

  UUID identifier() const override { return identifier_; }
  std::optional<std::string> name() const override { return name_; }
  platform::PeripheralState state() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }
  void setState(platform::PeripheralState s) {
    std::lock_guard lock(mutex_);
    state_ = s;
  }
  std::vector<std::shared_ptr<platform::Service>> services() const override {
    std::lock_guard lock(mutex_);
    return {services_.begin(), services_.end()};
  }
  std::shared_ptr<platform::PeripheralDelegate> delegate() const override {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
  }
  void setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& d) override {
    std::lock_guard lock(mutex_);
    delegate_ = d;
  }
  void discoverServices(const std::optional<std::vector<UUID>>& uuids) override {
    std::lock_guard lock(mutex_);
    serviceRequests_.push_back(uuids);
  }
  void discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                               const std::shared_ptr<platform::Service>& service) override {
    std::lock_guard lock(mutex_);
    characteristicRequests_.push_back(service ? service->uuid() : UUID());
  }
  void writeValue(const Data& data, const std::shared_ptr<platform::Characteristic>& c,
                  platform::WriteType type) override {
    {
      std::lock_guard lock(mutex_);
      writes_.push_back({data, c ? c->uuid() : UUID(), type});
    }
    cv_.notify_all();
  }
  void readValue(const std::shared_ptr<platform::Characteristic>&) override {}
  void setNotifyValue(bool enabled, const std::shared_ptr<platform::Characteristic>& c) override {
    std::lock_guard lock(mutex_);
    notifyRequests_.push_back({c ? c->uuid() : UUID(), enabled});
  }
  size_t maximumWriteValueLength(platform::WriteType) const override { return 244; }

  std::vector<WriteRecord> writes() const {
    std::lock_guard lock(mutex_);
    return writes_;
  }
  std::vector<std::pair<UUID, bool>> notifyRequests() const {
    std::lock_guard lock(mutex_);
    return notifyRequests_;
  }
  std::vector<std::optional<std::vector<UUID>>> serviceRequests() const {
    std::lock_guard lock(mutex_);
    return serviceRequests_;
  }
  std::vector<UUID> characteristicRequests() const {
    std::lock_guard lock(mutex_);
    return characteristicRequests_;
  }

 private:
  FakePeripheral(UUID identifier, std::optional<std::string> name)
      : identifier_(identifier), name_(std::move(name)) {}

  const UUID identifier_;
  const std::optional<std::string> name_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  platform::PeripheralState state_ = platform::PeripheralState::Disconnected;
  std::vector<std::shared_ptr<FakeService>> services_;
  std::weak_ptr<platform::PeripheralDelegate> delegate_;
  std::vector<WriteRecord> writes_;
  std::vector<std::pair<UUID, bool>> notifyRequests_;
  std::vector<std::optional<std::vector<UUID>>> serviceRequests_;
  std::vector<UUID> characteristicRequests_;
};

inline std::shared_ptr<platform::Peripheral> FakeService::peripheral() const {
  std::lock_guard lock(mutex_);
  return peripheral_.lock();
}

// A distinct device identifier per call.
inline UUID nextIdentifier() {
  static std::atomic<uint32_t> n{1};
  UUID::Bytes b{};
  b[0] = 0xD0;
  const uint32_t v = n++;
  b[12] = static_cast<uint8_t>(v >> 24);
  b[13] = static_cast<uint8_t>(v >> 16);
  b[14] = static_cast<uint8_t>(v >> 8);
  b[15] = static_cast<uint8_t>(v);
  return UUID(b);
}

}  // namespace qlt::fake
