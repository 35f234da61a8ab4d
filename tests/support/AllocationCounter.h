// Counts the heap allocations made by the calling thread (operator new, every unaligned form).
//
// Linking this helper replaces the global operator new/delete of the test program with
// counting versions over malloc/free; the count is per thread, so other threads' work
// does not disturb a measurement.
#pragma once

#include <cstdint>

namespace qlt::test {

// Allocations made by this thread so far.
uint64_t threadAllocationCount();

// Counts the allocations of this thread between its construction and count().
class AllocationScope {
 public:
  AllocationScope() : start_(threadAllocationCount()) {}
  uint64_t count() const { return threadAllocationCount() - start_; }

 private:
  uint64_t start_;
};

}  // namespace qlt::test
