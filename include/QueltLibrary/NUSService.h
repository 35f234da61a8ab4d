// NUSService: the wrapper of the Nordic UART Service.
//
// When its characteristics are assigned it picks rx (6E400003, whose notifications it
// switches on at once, logging "RX found") and tx (6E400002, "TX found"). write() sends
// bytes to tx in chunks of at most 161 bytes with a 5 ms pause between chunks (none after
// the last); read() gives rx's last notified value. write(data, peripheral) does the same
// through the platform peripheral that holds the service, as QLT_Peripheral's data path
// does: straight to tx, without looking the peripheral up from the characteristic.
//
// Thread safety: every member may be called from any thread. write() blocks its caller
// 5 ms between chunks (in practice a transport's worker thread). rx and tx are guarded by
// a lock that is never held across a platform call or a pause.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "QueltLibrary/BLEService.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT NUSService : public BLEService {
 public:
  // The largest value written at once, and the pause between two chunks.
  static constexpr size_t kMaxChunk = 161;
  static constexpr unsigned kChunkPauseMicroseconds = 5000;

  // initWithService:
  static std::shared_ptr<NUSService> create(std::shared_ptr<platform::Service> service);

  std::shared_ptr<BLECharacteristic> rx() const;
  void setRx(std::shared_ptr<BLECharacteristic> rx);
  std::shared_ptr<BLECharacteristic> tx() const;
  void setTx(std::shared_ptr<BLECharacteristic> tx);

  void setCharacteristics(std::vector<std::shared_ptr<BLECharacteristic>> characteristics) override;
  void write(const Data& data);
  void write(const Data& data, platform::Peripheral& peripheral);
  // One transport frame as one value, whole, whatever its length (the extended window's
  // frames are as long as the link's largest write): no chunks, no pause.
  void writeFrame(const Data& frame, platform::Peripheral& peripheral);
  std::optional<Data> read() const;

 private:
  explicit NUSService(std::shared_ptr<platform::Service> service);
  void writeChunks(const Data& data, platform::Peripheral& peripheral, size_t chunk);

  mutable std::mutex nusMutex_;
  std::shared_ptr<BLECharacteristic> rx_;  // guarded by nusMutex_
  std::shared_ptr<BLECharacteristic> tx_;  // guarded by nusMutex_
};

}  // namespace qlt
