// Counts the heap allocations and the live heap bytes of the calling thread. Linking this
// helper replaces the unaligned global operator new/delete of the program with counting
// ones over malloc/free. Bytes are what malloc really hands out (malloc_usable_size), so
// rounding is included; memory freed by another thread than the one that allocated it is
// subtracted from the freeing thread.
#pragma once

#include <cstdint>

namespace qlt::bench {

uint64_t threadAllocationCount();
// Bytes allocated minus bytes freed by this thread so far.
int64_t threadLiveBytes();

// The allocations of this thread between its construction and count().
class AllocationScope {
 public:
  uint64_t count() const { return threadAllocationCount() - start_; }
  // Heap bytes this thread allocated and has not freed since construction.
  int64_t liveBytes() const { return threadLiveBytes() - startBytes_; }

 private:
  uint64_t start_ = threadAllocationCount();
  int64_t startBytes_ = threadLiveBytes();
};

}  // namespace qlt::bench
