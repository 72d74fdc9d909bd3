#include "host/entity/HashIndex.h"

#include <bit>

namespace tessel {

void HashIndex::link(uint32_t hash, void* place) {
  const size_t mask = entries_.size() - 1;
  size_t i = hash & mask;
  while (entries_[i].place != nullptr) {
    i = (i + 1) & mask;
  }
  entries_[i] = {place, hash};
}

void HashIndex::unlink(uint32_t hash, const void* place) {
  const size_t mask = entries_.size() - 1;
  size_t hole = hash & mask;
  while (entries_[hole].place != place) {
    hole = (hole + 1) & mask;
  }
  // Close the hole: pull back every later entry of the run that may stand there.
  for (size_t i = (hole + 1) & mask; entries_[i].place != nullptr; i = (i + 1) & mask) {
    const size_t home = entries_[i].hash & mask;
    if (((i - home) & mask) >= ((i - hole) & mask)) {
      entries_[hole] = entries_[i];
      hole = i;
    }
  }
  entries_[hole] = {};
}

void HashIndex::restart(uint32_t count) {
  entries_.assign(std::bit_ceil(static_cast<size_t>(count) * 2), {});
}

void HashIndex::reset() {
  entries_.clear();
  entries_.shrink_to_fit();
}

}  // namespace tessel
