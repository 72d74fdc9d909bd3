// HashIndex: where the members of a dense collection stand, by the hashes of their keys. Open
// addressing with linear probing; knows positions and hashes only, so that all collections share
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessel {

class HashIndex {
 public:
  static constexpr uint32_t kNowhere = UINT32_MAX;

  /// Whether there is no index: nothing may then be looked up, linked or unlinked.
  bool empty() const { return entries_.empty(); }
  /// Whether one more member than `count` still leaves a quarter of the entries free.
  bool hasRoomAfter(uint32_t count) const {
    return 4 * (static_cast<size_t>(count) + 1) <= 3 * entries_.size();
  }

  /// The first position linked under `hash` for which `matches(position)` holds, or `kNowhere`.
  template <class Matches>
  uint32_t find(uint32_t hash, const Matches& matches) const {
    const size_t mask = entries_.size() - 1;
    for (size_t i = hash & mask; entries_[i].place != 0; i = (i + 1) & mask) {
      if (entries_[i].hash == hash && matches(entries_[i].place - 1)) {
        return entries_[i].place - 1;
      }
    }
    return kNowhere;
  }
  void link(uint32_t hash, uint32_t position);
  void unlink(uint32_t hash, uint32_t position);
  /// Forgets every position and makes room for twice `count` members.
  void restart(uint32_t count);
  /// Forgets every position and frees the memory.
  void reset();
  void swap(HashIndex& other) noexcept { entries_.swap(other.entries_); }

 private:
  /// `place` is the position + 1, so that 0 marks a free entry.
  struct Entry {
    uint32_t hash = 0;
    uint32_t place = 0;
  };
  std::vector<Entry> entries_;
};

}  // namespace tessel
