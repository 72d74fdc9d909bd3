// Hashing of keys: 32 bits, seeded, the same on every machine and in every run.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "host/facility/Export.h"

namespace tessel {

/// Folds words into a 32-bit hash. Not for adversarial input: it is fast and spreads well.
class TESSEL_API Hasher {
 public:
  explicit constexpr Hasher(uint32_t seed) : state_(seed ^ 0x9E3779B97F4A7C15U) {}

  constexpr Hasher& add(uint64_t word) {
    const auto product = static_cast<Wide>(state_ ^ word) * static_cast<Wide>(0xD6E8FEB86659FD93U);
    state_ = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64U);
    return *this;
  }
  Hasher& add(const void* bytes, size_t size) {
    const auto* next = static_cast<const unsigned char*>(bytes);
    for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t), next += sizeof(uint64_t)) {
      uint64_t word = 0;
      std::memcpy(&word, next, sizeof word);
      add(word);
    }
    uint64_t tail = size;  // The length keeps "a" and "a\0" apart.
    for (size_t i = 0; i < size; ++i) {
      tail = (tail << 8U) | next[i];
    }
    return add(tail);
  }
  constexpr uint32_t value() const {
    const uint64_t folded = (state_ ^ (state_ >> 32U)) * 0xD6E8FEB86659FD93U;
    return static_cast<uint32_t>(folded >> 32U);
  }

 private:
  __extension__ using Wide = unsigned __int128;
  uint64_t state_;
};

/// The hash of a key: its member `hash(seed)` where it has one, else by kind.
template <class Key>
uint32_t hashValue(const Key& key, uint32_t seed) {
  if constexpr (requires {
                  { key.hash(seed) } -> std::same_as<uint32_t>;
                }) {
    return key.hash(seed);
  } else if constexpr (std::is_convertible_v<const Key&, std::string_view>) {
    const std::string_view text = key;
    return Hasher(seed).add(text.data(), text.size()).value();
  } else {
    static_assert(std::is_integral_v<Key> || std::is_enum_v<Key>);
    return Hasher(seed).add(static_cast<uint64_t>(key)).value();
  }
}

}  // namespace tessel
