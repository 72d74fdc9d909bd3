// Seeds: how many runs of a kind the suite does, few every day and many in scripts/soak.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace tessel::test {

/// `usual`, or the number in the environment's TESSEL_SEEDS.
inline uint64_t seedsToRun(uint64_t usual) {
  const char* text = std::getenv("TESSEL_SEEDS");
  return text == nullptr ? usual : std::strtoull(text, nullptr, 10);
}

}  // namespace tessel::test
