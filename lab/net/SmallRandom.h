// SmallRandom: a small reproducible generator for what the lab does to packets, records and SAs.
#pragma once

#include <cstdint>
#include <string_view>

namespace tessel::lab {

/// The seed of a stream of random numbers of its own, by FNV-1a: the same on every machine.
constexpr uint64_t streamSeed(uint64_t seed, std::string_view stream) {
  uint64_t hash = 0xCBF29CE484222325U ^ seed;
  for (const char character : stream) {
    hash = (hash ^ static_cast<uint8_t>(character)) * 0x100000001B3U;
  }
  return hash;
}

/// SplitMix64: 64 bits of state, the same numbers on every machine. Not for keys.
class SmallRandom {
 public:
  explicit constexpr SmallRandom(uint64_t seed) : state_(seed) {}

  constexpr uint64_t next() {
    state_ += 0x9E3779B97F4A7C15U;
    uint64_t z = state_;
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31U);
  }
  /// Uniform in [0, 1).
  constexpr double uniform() { return static_cast<double>(next() >> 11U) * 0x1.0p-53; }
  /// True with the given probability; a probability of 0 draws nothing.
  constexpr bool chance(double probability) { return probability > 0 && uniform() < probability; }
  /// Uniform in [0, n); n below 2^32, so that the bias stays below 2^-32.
  constexpr uint64_t below(uint64_t n) { return next() % n; }

  constexpr uint64_t state() const { return state_; }

 private:
  uint64_t state_;
};

}  // namespace tessel::lab
