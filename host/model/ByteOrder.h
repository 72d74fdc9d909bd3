// ByteOrder: numbers as packets have them, in network byte order.
#pragma once

#include <cstdint>

namespace tessel {

/// Writes a number to the two, four or eight bytes at `at`.
inline void put16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8U);
  at[1] = static_cast<uint8_t>(value);
}
inline void put32(uint8_t* at, uint32_t value) {
  put16(at, static_cast<uint16_t>(value >> 16U));
  put16(at + 2, static_cast<uint16_t>(value));
}
inline void put64(uint8_t* at, uint64_t value) {
  put32(at, static_cast<uint32_t>(value >> 32U));
  put32(at + 4, static_cast<uint32_t>(value));
}
/// The number that stands there.
inline uint16_t get16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] << 8U | at[1]);
}
inline uint32_t get32(const uint8_t* at) {
  return static_cast<uint32_t>(get16(at)) << 16U | get16(at + 2);
}
inline uint64_t get64(const uint8_t* at) {
  return static_cast<uint64_t>(get32(at)) << 32U | get32(at + 4);
}

}  // namespace tessel
