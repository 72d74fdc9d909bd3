#include "host/entity/HashIndex.h"

#include <algorithm>

namespace tessel {

HashIndex::HashIndex() {
  segments_.push_back(makeSegment(kSmallestSegment, 0));
  directory_.push_back(0);
}

void HashIndex::link(uint32_t hash, uint32_t position) {
  const auto isFull = [](const Segment& segment) {
    return 8 * (segment.used + 1) > 7 * (segment.mask + 1);
  };
  while (isFull(segmentOf(hash))) {
    makeRoom(hash);
  }
  put(segmentOf(hash), {hash, position + 1});
}

void HashIndex::unlink(uint32_t hash, uint32_t position) {
  Segment& segment = segmentOf(hash);
  const auto next = [&segment](uint32_t i) { return (i + 1) & segment.mask; };
  auto hole = static_cast<uint32_t>(&entryOf(segment, hash, position) - segment.entries.get());
  // Close the hole: pull back every later entry of the run that may stand there.
  for (uint32_t i = next(hole); segment.entries[i].place != kFree; i = next(i)) {
    const uint32_t home = segment.entries[i].hash & segment.mask;
    if (((i - home) & segment.mask) >= ((i - hole) & segment.mask)) {
      segment.entries[hole] = segment.entries[i];
      hole = i;
    }
  }
  segment.entries[hole] = {};
  --segment.used;
  if (const uint32_t size = segment.mask + 1; size > kSmallestSegment && 8 * segment.used < size) {
    resize(segment, size / 2);
  }
}

void HashIndex::move(uint32_t hash, uint32_t from, uint32_t to) {
  entryOf(segmentOf(hash), hash, from).place = to + 1;
}

HashIndex::Segment HashIndex::makeSegment(uint32_t size, uint8_t depth) {
  return {std::make_unique<Entry[]>(size), size - 1, 0, depth};
}

void HashIndex::put(Segment& segment, const Entry& entry) {
  uint32_t i = entry.hash & segment.mask;
  while (segment.entries[i].place != kFree) {
    i = (i + 1) & segment.mask;
  }
  segment.entries[i] = entry;
  ++segment.used;
}

HashIndex::Entry& HashIndex::entryOf(Segment& segment, uint32_t hash, uint32_t position) {
  uint32_t i = hash & segment.mask;
  while (segment.entries[i].place != position + 1) {
    i = (i + 1) & segment.mask;
  }
  return segment.entries[i];
}

void HashIndex::resize(Segment& segment, uint32_t size) {
  Segment resized = makeSegment(size, segment.depth);
  for (uint32_t i = 0; i <= segment.mask; ++i) {
    if (segment.entries[i].place != kFree) {
      put(resized, segment.entries[i]);
    }
  }
  segment = std::move(resized);
}

void HashIndex::makeRoom(uint32_t hash) {
  Segment& segment = segmentOf(hash);
  // The depth ends where hashes are so much alike that splitting would not part them.
  if (segment.mask + 1 < kLargestSegment || segment.depth == kMaxDepth) {
    resize(segment, 2 * (segment.mask + 1));
  } else {
    split(hash);
  }
}

void HashIndex::split(uint32_t hash) {
  if (segmentOf(hash).depth == depth_) {
    std::vector<uint32_t> wider;
    for (const uint32_t number : directory_) {
      wider.insert(wider.end(), 2, number);
    }
    directory_ = std::move(wider);
    ++depth_;
  }
  const Segment whole = std::move(segmentOf(hash));
  const auto depth = static_cast<uint8_t>(whole.depth + 1);
  Segment halves[] = {makeSegment(kLargestSegment, depth), makeSegment(kLargestSegment, depth)};
  for (uint32_t i = 0; i <= whole.mask; ++i) {
    if (const Entry& entry = whole.entries[i]; entry.place != kFree) {
      put(halves[(entry.hash >> (32U - depth)) & 1U], entry);
    }
  }
  // What pointed at the whole points at the lower half, and the upper half of that at the other.
  const uint32_t count = 1U << (depth_ - whole.depth);
  const auto first = directory_.begin() + static_cast<ptrdiff_t>(slotOf(hash) & ~(count - 1));
  std::fill(first + static_cast<ptrdiff_t>(count / 2), first + static_cast<ptrdiff_t>(count),
            static_cast<uint32_t>(segments_.size()));
  segments_[*first] = std::move(halves[0]);
  segments_.push_back(std::move(halves[1]));
}

}  // namespace tessel
