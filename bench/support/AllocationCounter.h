// Counts the heap allocations made by the calling thread. Linking this helper replaces the
// unaligned global operator new/delete of the program with counting ones over malloc/free.
#pragma once

#include <cstdint>

namespace qlt::bench {

uint64_t threadAllocationCount();

// The allocations of this thread between its construction and count().
class AllocationScope {
 public:
  uint64_t count() const { return threadAllocationCount() - start_; }

 private:
  uint64_t start_ = threadAllocationCount();
};

}  // namespace qlt::bench
