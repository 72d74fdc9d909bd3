// Watches what the whole test program allocates, to show that something allocates or leaks nothing,
// and that nothing secret is left in memory that is given back.
#pragma once

#include <cstdint>
#include <set>

#include "host/model/Bytes.h"

namespace tessel::test {

/// Calls of operator new so far.
uint64_t allocations();

/// What is allocated now: calls of operator new less those of operator delete.
int64_t liveAllocations();

/// Looks, as long as it lives, for certain bytes in all memory that the program gives back,
/// libcrypto included. There is one at a time.
class FreedMemoryWatch {
 public:
  /// Every eight bytes of `secrets`, from the front and backwards: libcrypto keeps its numbers with
  /// the least significant byte first.
  explicit FreedMemoryWatch(const std::set<Bytes>& secrets);
  FreedMemoryWatch(const FreedMemoryWatch&) = delete;
  FreedMemoryWatch& operator=(const FreedMemoryWatch&) = delete;
  ~FreedMemoryWatch();

  /// Blocks that were given back so far with something of a secret in them, and all blocks.
  static uint64_t unwiped();
  static uint64_t looked();
};

}  // namespace tessel::test
