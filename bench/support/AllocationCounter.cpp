#include "support/AllocationCounter.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t t_allocations = 0;
thread_local int64_t t_liveBytes = 0;

void release(void* p) noexcept {
  if (p == nullptr) return;
  t_liveBytes -= static_cast<int64_t>(malloc_usable_size(p));
  std::free(p);
}
}  // namespace

uint64_t qlt::bench::threadAllocationCount() { return t_allocations; }
int64_t qlt::bench::threadLiveBytes() { return t_liveBytes; }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++t_allocations;
  void* p = std::malloc(size ? size : 1);
  if (p != nullptr) t_liveBytes += static_cast<int64_t>(malloc_usable_size(p));
  return p;
}
void* operator new(std::size_t size) {
  if (void* p = operator new(size, std::nothrow)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& n) noexcept {
  return operator new(size, n);
}
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
