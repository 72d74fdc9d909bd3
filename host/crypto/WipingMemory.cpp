#include "host/crypto/WipingMemory.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>

#include <openssl/crypto.h>

#include "host/model/Bytes.h"

namespace tessel {
namespace {

/// Stands before every block and keeps its size; blocks stay as aligned as those of malloc.
struct alignas(std::max_align_t) Header {
  size_t size;
};

void* allocate(size_t size, const char*, int) {
  if (size == 0 || size > std::numeric_limits<size_t>::max() - sizeof(Header)) {
    return nullptr;
  }
  void* const memory = ::operator new(sizeof(Header) + size, std::nothrow);
  if (memory == nullptr) {
    return nullptr;
  }
  return new (memory) Header{size} + 1;
}

void release(void* block, const char*, int) {
  if (block == nullptr) {
    return;
  }
  Header* const header = static_cast<Header*>(block) - 1;
  wipeMemory(block, header->size);
  ::operator delete(header);
}

void* reallocate(void* block, size_t size, const char* file, int line) {
  void* const moved = allocate(size, file, line);
  if (block != nullptr && (moved != nullptr || size == 0)) {
    if (moved != nullptr) {
      std::memcpy(moved, block, std::min(size, (static_cast<Header*>(block) - 1)->size));
    }
    release(block, file, line);
  }
  return moved;
}

}  // namespace

bool wipeLibcryptoMemory() {
  return CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;
}

}  // namespace tessel
