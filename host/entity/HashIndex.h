// HashIndex: where the members of a dense collection stand, by the hashes of their keys. Open
// addressing with linear probing; knows addresses and hashes only, so that all collections share
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/facility/Export.h"

namespace tessel {

class TESSEL_API HashIndex {
 public:
  /// Whether there is no index: nothing may then be looked up, linked or unlinked.
  bool empty() const { return entries_.empty(); }
  /// Whether one more member than `count` still leaves a quarter of the entries free.
  bool hasRoomAfter(uint32_t count) const {
    return 4 * (static_cast<size_t>(count) + 1) <= 3 * entries_.size();
  }

  /// The first place linked under `hash` for which `matches(place)` holds, or null.
  template <class Matches>
  void* find(uint32_t hash, const Matches& matches) const {
    const size_t mask = entries_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const Entry& entry = entries_[i];
      if (entry.place == nullptr || (entry.hash == hash && matches(entry.place))) {
        return entry.place;
      }
    }
  }
  void link(uint32_t hash, void* place);
  void unlink(uint32_t hash, const void* place);
  /// Forgets every place and makes room for twice `count` members.
  void restart(uint32_t count);
  /// Forgets every place and frees the memory.
  void reset();
  void swap(HashIndex& other) noexcept { entries_.swap(other.entries_); }

 private:
  struct Entry {
    void* place = nullptr;  // Null: the entry is free.
    uint32_t hash = 0;
  };
  std::vector<Entry> entries_;
};

}  // namespace tessel
