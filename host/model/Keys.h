// The keys by which the system names its objects: paths, merged path data, SAs, key generations.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include "host/entity/Hash.h"
#include "host/facility/Export.h"
#include "host/model/IpGenAddr.h"

namespace tessel {

/// VRF number.
using VrfId = uint32_t;

/// Connection identifier: passed and compared as a whole.
using ConnectionId = uint64_t;

namespace L3 {
/// Name of a VRF.
using VrfName = std::string;
inline constexpr const char* kDefaultVrfName = "default";
}  // namespace L3

/// The VRF number of a key that names no VRF.
inline constexpr VrfId kNoVrfId = 0x00FFFFFF;

/// Identity of one path: one connection between a local and a remote end.
struct TESSEL_API ConnectionKey {
  VrfId vrfId = kNoVrfId;
  IpGenAddr srcAddr;  ///< Local end.
  IpGenAddr dstAddr;  ///< Remote end.
  ConnectionId connId = 0;

  uint32_t hash(uint32_t seed) const {
    return Hasher(seed).add(srcAddr.hash(vrfId)).add(dstAddr.hash(0)).add(connId).value();
  }
  friend auto operator<=>(const ConnectionKey&, const ConnectionKey&) = default;
};

/// "vrf 0 192.0.2.1 -> 192.0.2.2"; the connection id is not part of the text.
TESSEL_API std::string stringValue(const ConnectionKey& key);

/// Key of one entry of merged path data: a `ConnectionKey` without `connId`.
struct TESSEL_API MergeResolutionKey {
  VrfId vrfId = kNoVrfId;
  IpGenAddr srcAddr;
  IpGenAddr dstAddr;

  uint32_t hash(uint32_t seed) const {
    return Hasher(seed).add(srcAddr.hash(vrfId)).add(dstAddr.hash(0)).value();
  }
  friend auto operator<=>(const MergeResolutionKey&, const MergeResolutionKey&) = default;
};

TESSEL_API std::string stringValue(const MergeResolutionKey& key);

/// Identity of one SA.
struct TESSEL_API SecurityAssociationKey {
  uint32_t spi = 0;     ///< Security parameter index, host byte order.
  IpGenAddr daddr;      ///< Destination address of the SA.
  uint32_t proto = 0;   ///< IP protocol number: 50 for ESP.
  uint32_t reqid = 0;   ///< Request id of the path that the SA belongs to.
  uint16_t family = 0;  ///< Address family number.

  uint32_t hash(uint32_t seed) const {
    const uint64_t numbers = static_cast<uint64_t>(spi) << 32U | reqid;
    const uint64_t kind = static_cast<uint64_t>(proto) << 16U | family;
    return Hasher(seed).add(numbers).add(daddr.hash(0) + (kind << 32U)).value();
  }
  friend auto operator<=>(const SecurityAssociationKey&, const SecurityAssociationKey&) = default;
};

/// "spi 0x0badcafe daddr 192.0.2.2 proto 50 reqid 7".
TESSEL_API std::string stringValue(const SecurityAssociationKey& key);

/// An SPI as the field writes it: "0x0badcafe".
TESSEL_API std::string spiText(uint32_t spi);

/// The pair of key generations that crypto material or an SA comes from.
struct TESSEL_API DhKeyPair {
  uint64_t localRekeyCount = 0;
  uint64_t peerRekeyCount = 0;

  uint32_t hash(uint32_t seed) const {
    return Hasher(seed).add(localRekeyCount).add(peerRekeyCount).value();
  }
  friend auto operator<=>(const DhKeyPair&, const DhKeyPair&) = default;
};

/// "( 1 , 2 )": local count, peer count.
TESSEL_API std::string stringValue(const DhKeyPair& pair);

}  // namespace tessel
