#include "tests/entity/Allocations.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include <malloc.h>

#include "host/crypto/WipingMemory.h"

namespace {

std::atomic<uint64_t> calls{0};
std::atomic<int64_t> live{0};

// What is watched for: words in order, behind a filter that most of memory does not pass.
constexpr unsigned kFilterBits = 16;
std::vector<uint64_t> secretWords;
std::vector<bool> filter;
std::atomic<bool> watching{false};
std::atomic<uint64_t> unwipedBlocks{0};
std::atomic<uint64_t> lookedBlocks{0};

size_t filterBit(uint64_t word) {
  return static_cast<size_t>(word * 0x9E3779B97F4A7C15U >> (64 - kFilterBits));
}

void look(const void* memory) {
  if (memory == nullptr || !watching) {
    return;
  }
  ++lookedBlocks;
  const size_t size = malloc_usable_size(const_cast<void*>(memory));
  const auto* bytes = static_cast<const uint8_t*>(memory);
  uint64_t word = 0;
  for (size_t i = 0; i + sizeof word <= size; ++i) {
    std::memcpy(&word, bytes + i, sizeof word);
    if (filter[filterBit(word)] && std::ranges::binary_search(secretWords, word)) {
      ++unwipedBlocks;
      return;
    }
  }
}

// What is given back must not be taken for its own what another block left there before the watch.
void* fresh(void* memory) {
  if (memory != nullptr && watching) {
    std::memset(memory, 0, malloc_usable_size(memory));
  }
  return memory;
}

void release(void* memory) {
  look(memory);
  std::free(memory);
}

// Also has it allocate with the operators below.
const bool libcryptoWipes = tessel::wipeLibcryptoMemory();

}  // namespace

tessel::test::FreedMemoryWatch::FreedMemoryWatch(const std::set<Bytes>& secrets) {
  if (!libcryptoWipes) {
    throw std::logic_error("libcrypto was used before it could be watched");
  }
  for (const Bytes& secret : secrets) {
    for (const Bytes& bytes : {secret, Bytes(secret.rbegin(), secret.rend())}) {
      uint64_t word = 0;
      for (size_t i = 0; i + sizeof word <= bytes.size(); i += sizeof word) {
        std::memcpy(&word, bytes.data() + i, sizeof word);
        if (std::count(bytes.data() + i, bytes.data() + i + sizeof word, 0) < 4) {
          secretWords.push_back(word);  // Padding is no secret.
        }
      }
    }
  }
  std::ranges::sort(secretWords);
  filter.assign(size_t{1} << kFilterBits, false);
  for (const uint64_t word : secretWords) {
    filter[filterBit(word)] = true;
  }
  unwipedBlocks = 0;
  lookedBlocks = 0;
  watching = true;
}

tessel::test::FreedMemoryWatch::~FreedMemoryWatch() {
  watching = false;
  secretWords.clear();
}

uint64_t tessel::test::FreedMemoryWatch::unwiped() {
  return unwipedBlocks;
}

uint64_t tessel::test::FreedMemoryWatch::looked() {
  return lookedBlocks;
}

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
  return fresh(std::malloc(size != 0 ? size : 1));
}

void* operator new(size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  live -= memory != nullptr ? 1 : 0;
  release(memory);
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
