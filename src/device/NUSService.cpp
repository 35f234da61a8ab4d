#include "QueltLibrary/NUSService.h"

#include <unistd.h>

#include <algorithm>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_UUID.h"

namespace qlt {

NUSService::NUSService(std::shared_ptr<platform::Service> service)
    : BLEService("NUS Service", std::move(service)) {}

std::shared_ptr<NUSService> NUSService::create(std::shared_ptr<platform::Service> service) {
  return std::shared_ptr<NUSService>(new NUSService(std::move(service)));
}

std::shared_ptr<BLECharacteristic> NUSService::rx() const {
  std::lock_guard lock(nusMutex_);
  return rx_;
}
void NUSService::setRx(std::shared_ptr<BLECharacteristic> rx) {
  std::lock_guard lock(nusMutex_);
  rx_ = std::move(rx);
}
std::shared_ptr<BLECharacteristic> NUSService::tx() const {
  std::lock_guard lock(nusMutex_);
  return tx_;
}
void NUSService::setTx(std::shared_ptr<BLECharacteristic> tx) {
  std::lock_guard lock(nusMutex_);
  tx_ = std::move(tx);
}

void NUSService::setCharacteristics(
    std::vector<std::shared_ptr<BLECharacteristic>> characteristics) {
  BLEService::setCharacteristics(characteristics);
  const UUID rxUUID = QLT_UUID::rxCharacteristicUUID();
  const UUID txUUID = QLT_UUID::txCharacteristicUUID();
  for (const auto& c : characteristics) {
    if (!c) continue;
    const UUID id = c->identifier();
    if (id == rxUUID) {
      QLTLog("RX found");
      setRx(c);
      c->startNotifications();
    } else if (id == txUUID) {
      QLTLog("TX found");
      setTx(c);
    }
  }
}

void NUSService::write(const Data& data) {
  auto tx = this->tx();
  if (!tx) {
    QLTLog("No tx characteristic found in NUS");
    return;
  }
  if (auto peripheral = tx->owningPeripheral()) write(data, *peripheral);
}

void NUSService::write(const Data& data, platform::Peripheral& peripheral) {
  writeChunks(data, peripheral, kMaxChunk);
}

void NUSService::writeFrame(const Data& frame, platform::Peripheral& peripheral) {
  writeChunks(frame, peripheral, std::max<size_t>(frame.length(), 1));
}

void NUSService::writeChunks(const Data& data, platform::Peripheral& peripheral, size_t chunk) {
  auto tx = this->tx();
  if (!tx) {
    QLTLog("No tx characteristic found in NUS");
    return;
  }
  const auto type = tx->writeType();
  if (!type) {
    QLTLog("No write property");
    return;
  }
  const auto characteristic = tx->baseCharacteristic();
  size_t offset = 0;
  const size_t length = data.length();
  while (offset < length) {
    const size_t n = std::min(length - offset, chunk);
    peripheral.writeValue(data.subdata(offset, n), characteristic, *type);
    offset += n;
    if (offset < length) usleep(kChunkPauseMicroseconds);
  }
}

std::optional<Data> NUSService::read() const {
  auto rx = this->rx();
  if (!rx) {
    QLTLog("No rx characteristic found in NUS");
    return std::nullopt;
  }
  return rx->value();
}

}  // namespace qlt
