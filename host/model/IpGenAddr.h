// IpGenAddr: an IPv4 or IPv6 address.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "host/entity/Hash.h"
#include "host/facility/Export.h"

namespace tessel {

/// Address families, with the numbers that SA keys carry.
enum class AddressFamily : uint8_t { none = 0, ipv4 = 2, ipv6 = 10 };
/// "ipv4(2)".
TESSEL_API std::string stringValue(AddressFamily family);

/// A generic IP address: 16 address bytes in network byte order (IPv4 in the first four) and the
/// family. The default is the unspecified address, which has no family.
class TESSEL_API IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  /// The all-zero address of a family.
  constexpr explicit IpGenAddr(AddressFamily family) : family_(static_cast<uint32_t>(family)) {}
  /// An IPv4 address from a number in host byte order.
  static IpGenAddr fromV4(uint32_t address);
  /// An IPv6 address from its 16 bytes in network byte order.
  static IpGenAddr fromV6(const std::array<uint8_t, 16>& bytes);
  /// Reads "192.0.2.1" or "2001:db8::1"; nothing when the text is neither.
  static std::optional<IpGenAddr> parse(std::string_view text);

  AddressFamily family() const { return static_cast<AddressFamily>(family_); }
  /// True for the address without family and for the all-zero address of either family.
  bool isUnspecified() const;

  /// The IPv4 form: the address as a number in host byte order; 0 for every other family, so that
  /// both ends of an IPv6 path compute alike.
  uint32_t v4Addr() const;
  /// The 16 address bytes in network byte order.
  const std::array<uint8_t, 16>& v6Addr() const { return bytes_; }

  /// "192.0.2.1", "2001:db8::1", or "unspecified" for the address without family.
  std::string stringValue() const;

  uint32_t hash(uint32_t seed) const {
    uint64_t words[2];
    std::memcpy(words, bytes_.data(), sizeof words);
    return Hasher(seed).add(words[0]).add(words[1] ^ family_).value();
  }
  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    // Every lookup compares addresses; this is what a comparison of arrays does not compile to.
    uint64_t x[2];
    uint64_t y[2];
    std::memcpy(x, a.bytes_.data(), sizeof x);
    std::memcpy(y, b.bytes_.data(), sizeof y);
    return ((x[0] ^ y[0]) | (x[1] ^ y[1]) | (a.family_ ^ b.family_)) == 0;
  }
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (const auto order = a.family_ <=> b.family_; order != 0) {
      return order;
    }
    return a.bytes_ <=> b.bytes_;
  }

 private:
  std::array<uint8_t, 16> bytes_{};
  uint32_t family_ = 0;
};

inline std::string stringValue(const IpGenAddr& address) {
  return address.stringValue();
}

}  // namespace tessel
