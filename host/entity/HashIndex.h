// HashIndex: where the members of a dense collection stand, by the hashes of their keys. Open
// addressing with linear probing, in segments that grow and split one by one: whoever adds a member
// never pays for more than one segment, however large the index is. Knows positions and hashes
// only, so that all collections share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "host/facility/Export.h"

namespace tessel {

/// Positions by 32-bit hashes; several members may have one hash. The caller compares the keys.
class TESSEL_API HashIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  HashIndex();

  /// The first position linked under `hash` for which `matches(position)` holds, or kNone.
  template <class Matches>
  uint32_t find(uint32_t hash, const Matches& matches) const {
    const Segment& segment = segments_[directory_[slotOf(hash)]];
    for (uint32_t i = hash & segment.mask;; i = (i + 1) & segment.mask) {
      const Entry& entry = segment.entries[i];
      if (entry.place == kFree) {
        return kNone;
      }
      if (entry.hash == hash && matches(entry.place - 1)) {
        return entry.place - 1;
      }
    }
  }
  /// Adds a position that is not linked yet.
  void link(uint32_t hash, uint32_t position);
  /// The position must be linked under `hash`, here and below.
  void unlink(uint32_t hash, uint32_t position);
  void move(uint32_t hash, uint32_t from, uint32_t to);

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kSmallestSegment = 16;
  static constexpr uint32_t kLargestSegment = 1024;
  static constexpr uint8_t kMaxDepth = 20;

  struct Entry {
    uint32_t hash = 0;
    uint32_t place = kFree;  // The position, plus 1.
  };
  /// The entries whose hashes begin with the same `depth` bits.
  struct Segment {
    std::unique_ptr<Entry[]> entries;
    uint32_t mask = 0;
    uint32_t used = 0;
    uint8_t depth = 0;
  };

  static Segment makeSegment(uint32_t size, uint8_t depth);
  static void put(Segment& segment, const Entry& entry);
  static void resize(Segment& segment, uint32_t size);
  static Entry& entryOf(Segment& segment, uint32_t hash, uint32_t position);

  uint32_t slotOf(uint32_t hash) const {
    return static_cast<uint32_t>((static_cast<uint64_t>(hash) << depth_) >> 32U);
  }
  Segment& segmentOf(uint32_t hash) { return segments_[directory_[slotOf(hash)]]; }
  void makeRoom(uint32_t hash);
  void split(uint32_t hash);

  std::vector<Segment> segments_;
  std::vector<uint32_t> directory_;  // Segments by the first depth_ bits of the hashes.
  uint8_t depth_ = 0;
};

}  // namespace tessel
