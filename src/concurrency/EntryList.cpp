#include "EntryList.h"

#include <memory>
#include <utility>
#include <vector>

namespace qlt::detail {

void SyncHandoff::give() {
  std::lock_guard lock(mutex);
  given = true;
  cv.notify_one();
}

void SyncHandoff::wait() {
  BlockingScope blocked;
  std::unique_lock lock(mutex);
  cv.wait(lock, [this] { return given; });
}

namespace {

struct Cache {
  std::mutex mutex;
  std::vector<std::unique_ptr<EntryBlock>> blocks;  // guarded by mutex
};

Cache& cache() {
  static Cache* shared = new Cache;  // never destroyed: queues outlive static destructors
  return *shared;
}

}  // namespace

EntryBlock* BlockCache::take() {
  Cache& c = cache();
  {
    std::lock_guard lock(c.mutex);
    if (!c.blocks.empty()) {
      EntryBlock* block = c.blocks.back().release();
      c.blocks.pop_back();
      return block;
    }
  }
  return new EntryBlock;
}

void BlockCache::give(EntryBlock* block) {
  std::unique_ptr<EntryBlock> owned(block);
  owned->next = nullptr;
  Cache& c = cache();
  std::lock_guard lock(c.mutex);
  if (c.blocks.size() < kKept) c.blocks.push_back(std::move(owned));
}

EntryList::~EntryList() {
  while (head_ != nullptr) delete std::exchange(head_, head_->next);
}

void EntryList::release() {
  if (tail_ != nullptr) BlockCache::give(tail_);
  head_ = tail_ = nullptr;
  headIndex_ = tailIndex_ = 0;
}

}  // namespace qlt::detail
