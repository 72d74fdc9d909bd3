// DropReason: why a data plane did not pass a packet on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel::lab {

enum class DropReason : uint8_t {
  noSa = 0,        ///< No installed in-SA has the packet's SPI, destination and ports.
  badIcv = 1,      ///< The integrity check failed: altered, or another key.
  replayed = 2,    ///< An authentic packet whose sequence number was received before.
  tooOld = 3,      ///< An authentic packet from before the anti-replay window.
  noOutbound = 4,  ///< The path has no installed out-SA that can send.
  malformed = 5,   ///< Not what its headers say, outside or inside.
  badSa = 6,       ///< The SA was refused: its algorithms or key lengths make no sense.
};
inline constexpr size_t kDropReasons = 7;

/// "no_sa", "bad_icv", "replayed", "too_old", "no_outbound", "malformed", "bad_sa".
const char* dropReasonName(DropReason reason);

/// Packets dropped, by reason.
struct DropCounts {
  std::array<uint64_t, kDropReasons> by{};

  uint64_t& operator[](DropReason reason) { return by[static_cast<size_t>(reason)]; }
  uint64_t operator[](DropReason reason) const { return by[static_cast<size_t>(reason)]; }
  uint64_t total() const;
  DropCounts& operator+=(const DropCounts& other);
  friend bool operator==(const DropCounts&, const DropCounts&) = default;
};

}  // namespace tessel::lab
