// NUSTransport: the plain transport. No header, no sequence numbers, no acknowledgements.
//
// Outgoing bytes are cut into chunks of at most 20 bytes and queued; they leave oldest
// first, each as a write of its own, at one chunk a millisecond on average: a round
// writes up to kChunksPerRound of them, and the next is due that many milliseconds later. Datagrams
// are queued and chunked exactly like messages, with no size limit. Every received value is
// delivered unchanged, whatever its length, as "TCP" data (transport_tcpDataReceived);
// transport_udpDataReceived is never sent. start discards whatever was queued before it.
//
// Threads: see BaseTransport. A chunk leaves the queue once handed to the sender delegate,
// whether or not the write succeeds; the delegate is never called under the queue's lock.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/BaseTransport.h"

namespace qlt {

class NUSTransport : public BaseTransport {
 public:
  static constexpr size_t kChunkSize = 20;
  static constexpr size_t kChunksPerRound = 8;
  static constexpr double kChunkInterval = 0.001;

  static std::shared_ptr<NUSTransport> create();

  // Empties the queue, then starts the worker.
  void start() override;
  void clearBuffer();
  void sendTCP(const uint8_t* bytes, uint64_t length) override;
  void sendUDP(const uint8_t* bytes, uint64_t length) override;
  void receive(const Data& value) override;
  void run(const std::shared_ptr<ThreadBase>& thread) override;
  // Writes the oldest queued chunk, if any (a polling loop's round).
  void transfer();

 protected:
  double round() override;

 public:
  size_t queuedChunks() const;
  // Bytes queued by sendTCP/sendUDP and not yet written.
  uint64_t unacknowledged() const override;
  // Called for every chunk written and every value received, on the thread doing it.
  // Must be quick and must not call back into this transport. Empty function: off.
  void setFrameTrace(FrameTrace trace) override;

 private:
  NUSTransport();
  void trace(bool outgoing, const Data& frame);
  void written(uint64_t bytes);

  mutable std::mutex txMutex_;
  std::deque<Data> txBuffer_;  // guarded by txMutex_
  uint64_t unwritten_ = 0;     // guarded by txMutex_: bytes queued, not yet written

  std::mutex traceMutex_;
  std::shared_ptr<const std::function<void(bool, const Data&)>> trace_;  // guarded by traceMutex_
  std::atomic<bool> tracing_{false};
};

}  // namespace qlt
