// MemberSlots: the memory of a dense collection. Slots are numbered, and lie in blocks that never
// move; blocks whose slots have fallen empty can be given back.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace tessel {

enum class SlotState : uint8_t { unused, live, deleted };

/// Slots for members. Who owns them makes and destroys the members, and keeps their states.
template <class Member>
class MemberSlots {
 public:
  // Blocks have 2, 2, 4, 8 ... slots up to kLargestBlock: a small collection stays small, and no
  // block of a large one is felt when it is made.
  static uint32_t blockOf(uint32_t position) {
    return position < kLargestBlock ? static_cast<uint32_t>(std::bit_width(position | 1U)) - 1
                                    : kLargeBlocks - 1 + position / kLargestBlock;
  }
  static uint32_t blockStart(uint32_t block) {
    return block < kLargeBlocks ? (1U << block) & ~1U : (block - kLargeBlocks + 1) * kLargestBlock;
  }

  Member* member(uint32_t position) const {
    const uint32_t block = blockOf(position);
    std::byte* const place =
        memoryOf(block).get() + (position - blockStart(block)) * sizeof(Member);
    return std::launder(reinterpret_cast<Member*>(place));
  }
  /// A slot without memory is unused.
  SlotState state(uint32_t position) const {
    return has(position) ? stateOf(position) : SlotState::unused;
  }
  /// The state of a slot that has memory; those of a block lie one after the other.
  SlotState& stateOf(uint32_t position) const {
    const uint32_t block = blockOf(position);
    return statesOf(block)[position - blockStart(block)];
  }
  bool has(uint32_t position) const { return memoryOf(blockOf(position)) != nullptr; }

  /// Makes sure that a slot has memory; a new block's slots are unused.
  void make(uint32_t position) {
    static_assert(alignof(Member) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    const uint32_t block = blockOf(position);
    if (block > moreSize_) {
      growTable(block);
    }
    if (Memory& memory = memoryOf(block); !memory) {
      const size_t size = blockSize(block);
      memory = Memory(new std::byte[size * (sizeof(Member) + 1)]);
      std::memset(memory.get() + size * sizeof(Member), 0, size);  // SlotState::unused
    }
  }
  /// Frees the memory of the blocks from `first` up to, but not with, `last`.
  void freeBlocks(uint32_t first, uint32_t last) {
    for (uint32_t block = first; block < last; ++block) {
      memoryOf(block).reset();
    }
  }
  /// Frees the memory of all blocks from `first` on.
  void freeFrom(uint32_t first) {
    if (first <= 1) {
      more_.reset();
      moreSize_ = 0;
    } else {
      freeBlocks(first, moreSize_ + 1);
    }
    if (first == 0) {
      first_.reset();
    }
  }
  /// Frees the memory of a block if all its slots are unused.
  void freeIfUnused(uint32_t block) {
    const SlotState* const states = statesOf(block);
    // Blocks mostly fall empty from the front: what is in use is found soon from the back.
    for (size_t i = blockSize(block); i > 0; --i) {
      if (states[i - 1] != SlotState::unused) {
        return;
      }
    }
    memoryOf(block).reset();
  }

  void swap(MemberSlots& other) noexcept {
    first_.swap(other.first_);
    more_.swap(other.more_);
    std::swap(moreSize_, other.moreSize_);
  }

 private:
  using Memory = std::unique_ptr<std::byte[]>;  // Members, and behind them their states.

  static constexpr uint32_t kLargestBlock = 512;
  static constexpr uint32_t kLargeBlocks = 9;  // From this one on all are as large as that.
  static_assert(1U << kLargeBlocks == kLargestBlock);

  static size_t blockSize(uint32_t block) {
    return block == 0 ? 2 : size_t{1} << std::min(block, kLargeBlocks);
  }
  SlotState* statesOf(uint32_t block) const {
    std::byte* const states = memoryOf(block).get() + blockSize(block) * sizeof(Member);
    return reinterpret_cast<SlotState*>(states);
  }
  Memory& memoryOf(uint32_t block) { return block == 0 ? first_ : more_[block - 1]; }
  const Memory& memoryOf(uint32_t block) const { return block == 0 ? first_ : more_[block - 1]; }
  void growTable(uint32_t block) {
    const uint32_t size = std::max(block, 2 * moreSize_);
    auto grown = std::make_unique<Memory[]>(size);
    std::move(more_.get(), more_.get() + moreSize_, grown.get());
    more_ = std::move(grown);
    moreSize_ = size;
  }

  Memory first_;
  std::unique_ptr<Memory[]> more_;  // The blocks after the first one.
  uint32_t moreSize_ = 0;
};

}  // namespace tessel
