#include "tests/entity/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<uint64_t> calls{0};
std::atomic<int64_t> live{0};
}  // namespace

uint64_t tessel::test::allocations() {
  return calls;
}

int64_t tessel::test::liveAllocations() {
  return live;
}

// All forms of new and delete are replaced together: a sanitizer's runtime brings its own, and
// memory must go back to where it came from.

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  ++calls;
  ++live;
  return std::malloc(size != 0 ? size : 1);
}

void* operator new(size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  live -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  operator delete(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
  operator delete(memory);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}

void* operator new[](size_t size) {
  return operator new(size);
}

void operator delete[](void* memory) noexcept {
  operator delete(memory);
}

void operator delete[](void* memory, size_t) noexcept {
  operator delete(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  operator delete(memory);
}
