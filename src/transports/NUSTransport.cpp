#include "QueltLibrary/NUSTransport.h"

#include <algorithm>
#include <array>
#include <limits>

namespace qlt {

NUSTransport::NUSTransport() : BaseTransport("NUSTransport") {}

std::shared_ptr<NUSTransport> NUSTransport::create() {
  return std::shared_ptr<NUSTransport>(new NUSTransport());
}

void NUSTransport::start() {
  clearBuffer();
  BaseTransport::start();
}

void NUSTransport::clearBuffer() {
  std::lock_guard lock(txMutex_);
  txBuffer_.clear();
  unwritten_ = 0;
}

uint64_t NUSTransport::unacknowledged() const {
  std::lock_guard lock(txMutex_);
  return unwritten_;
}

void NUSTransport::written(uint64_t bytes) {
  {
    std::lock_guard lock(txMutex_);
    if (bytes == 0 || unwritten_ == 0) return;  // nothing, or cleared meanwhile
    unwritten_ -= std::min(bytes, unwritten_);
    if (unwritten_ != 0) return;
  }
  notifyAllAcknowledged();
}

void NUSTransport::sendTCP(const uint8_t* bytes, uint64_t length) {
  if (length == 0 || bytes == nullptr) return;
  std::unique_lock lock(txMutex_);
  const size_t queued = txBuffer_.size();
  unwritten_ += length;
  while (length > 0) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(kChunkSize, length));
    txBuffer_.emplace_back(bytes, n);
    bytes += n;
    length -= n;
  }
  const bool wasIdle = queued == 0;
  lock.unlock();
  if (wasIdle) wakeRounds(0);  // otherwise a round is due already
}

void NUSTransport::sendUDP(const uint8_t* bytes, uint64_t length) { sendTCP(bytes, length); }

void NUSTransport::receive(const Data& value) {
  trace(false, value);
  multicastDelegate()->invoke(&TransportDelegate::transport_tcpDataReceived, sharedTransport(),
                              value);
}

void NUSTransport::run(const std::shared_ptr<ThreadBase>& thread) {
  while (!thread || !thread->isClosing()) transfer();
}

double NUSTransport::round() {
  // A batch of chunks per round at the pace of one chunk a millisecond: one wake-up and
  // one lock per batch, while the write path sees no more than it did one chunk a round.
  std::array<Data, kChunksPerRound> batch;
  size_t n = 0;
  bool more = false;
  {
    std::lock_guard lock(txMutex_);
    while (n < kChunksPerRound && !txBuffer_.empty()) {
      batch[n++] = std::move(txBuffer_.front());
      txBuffer_.pop_front();
    }
    more = !txBuffer_.empty();
  }
  uint64_t bytes = 0;
  for (size_t i = 0; i < n; ++i) {
    trace(true, batch[i]);
    writeRequest(batch[i].bytes(), batch[i].length());
    bytes += batch[i].length();
  }
  written(bytes);
  return more ? kChunkInterval * kChunksPerRound : std::numeric_limits<double>::infinity();
}

void NUSTransport::transfer() {
  Data chunk;
  {
    std::lock_guard lock(txMutex_);
    if (txBuffer_.empty()) return;
    chunk = std::move(txBuffer_.front());
    txBuffer_.pop_front();
  }
  // Only the worker transfers, so chunks still leave oldest first.
  trace(true, chunk);
  writeRequest(chunk.bytes(), chunk.length());
  written(chunk.length());
}

size_t NUSTransport::queuedChunks() const {
  std::lock_guard lock(txMutex_);
  return txBuffer_.size();
}

void NUSTransport::trace(bool outgoing, const Data& frame) {
  if (!tracing_.load(std::memory_order_acquire)) return;
  std::shared_ptr<const std::function<void(bool, const Data&)>> hook;
  {
    std::lock_guard lock(traceMutex_);
    hook = trace_;
  }
  if (hook && *hook) (*hook)(outgoing, frame);
}

void NUSTransport::setFrameTrace(FrameTrace trace) {
  std::shared_ptr<const std::function<void(bool, const Data&)>> hook;
  if (trace)
    hook = std::make_shared<const std::function<void(bool, const Data&)>>(std::move(trace));
  std::lock_guard lock(traceMutex_);
  trace_ = std::move(hook);
  tracing_.store(trace_ != nullptr, std::memory_order_release);
}

}  // namespace qlt
