// A serial queue's task list: entries in blocks of 16, taken from a process-wide cache as
// tasks arrive and given back as they are used up, so that an idle queue holds no task
// memory. Internal to the concurrency layer.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>

#include "QueltLibrary/DispatchQueue.h"

namespace qlt::detail {

// Hands a queue from the worker that reached a sync() marker to the waiting caller.
struct SyncHandoff {
  std::mutex mutex;
  std::condition_variable cv;
  bool given = false;  // guarded by mutex

  void give();
  void wait();
};

struct Entry {
  DispatchQueue::Task task;
  SyncHandoff* handoff = nullptr;  // set for the marker of a waiting sync() caller
};

struct EntryBlock {
  static constexpr uint32_t kBlock = 16;
  std::array<Entry, kBlock> slots;
  EntryBlock* next = nullptr;
};

// Blocks that queues gave back, kept for the next queue that gets work (a queue going idle
// and busy in turn would otherwise allocate on one thread and free on another every turn).
// It keeps at most kKept.
class BlockCache {
 public:
  static constexpr size_t kKept = 256;
  static EntryBlock* take();
  // `block` holds only empty entries.
  static void give(EntryBlock* block);
};

// A FIFO of entries in a chain of blocks; release() gives back the last one.
class EntryList {
 public:
  EntryList() = default;
  EntryList(const EntryList&) = delete;
  EntryList& operator=(const EntryList&) = delete;
  ~EntryList();

  bool empty() const { return head_ == tail_ && headIndex_ == tailIndex_; }
  void push(Entry entry);
  // Only when not empty.
  Entry pop();
  // Gives the block back; only when empty.
  void release();
  // Exchanges the two lists' entries (and blocks).
  void swap(EntryList& other) noexcept {
    std::swap(head_, other.head_);
    std::swap(tail_, other.tail_);
    std::swap(headIndex_, other.headIndex_);
    std::swap(tailIndex_, other.tailIndex_);
  }

 private:
  EntryBlock* head_ = nullptr;  // pops here
  EntryBlock* tail_ = nullptr;  // pushes here
  uint32_t headIndex_ = 0;
  uint32_t tailIndex_ = 0;
};

// Inline: they are on every async() and every task run.
inline void EntryList::push(Entry entry) {
  if (tail_ == nullptr) {
    head_ = tail_ = BlockCache::take();
  } else if (tailIndex_ == EntryBlock::kBlock) {
    tail_->next = BlockCache::take();
    tail_ = tail_->next;
    tailIndex_ = 0;
  }
  tail_->slots[tailIndex_++] = std::move(entry);
}

inline Entry EntryList::pop() {
  Entry entry = std::move(head_->slots[headIndex_]);
  head_->slots[headIndex_++] = Entry{};
  if (headIndex_ == EntryBlock::kBlock) {
    if (head_ == tail_) {
      tailIndex_ = 0;  // used up and empty: start the block again
    } else {
      BlockCache::give(std::exchange(head_, head_->next));
    }
    headIndex_ = 0;
  }
  return entry;
}

}  // namespace qlt::detail
