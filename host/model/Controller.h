// Controller: the key directories and the connectivity to the PF controllers.
#pragma once

#include <cstdint>
#include <optional>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/IpGenAddr.h"

namespace tessel::Controller {

/// The latest key record of one peer. The default record is the empty one: a peer without an entry
/// reads as it.
struct TESSEL_API PeerKeyInfo {
  IpGenAddr originatorId;  ///< The peer's router id.
  Bytes dhKey;             ///< DH public key in IKEv2's encoding.
  uint32_t dhKeyLen = 0;   ///< Bytes.
  uint32_t dhGroup = 0;    ///< IANA group number.
  Bytes nonce;
  uint32_t nonceLen = 0;    ///< Bytes.
  uint8_t encryptAlgo = 0;  ///< A number of `IpsecEspAlgorithm`.
  uint8_t hashAlgo = 0;     ///< A number of `IpsecHmacAlgorithm`.
  uint8_t valid = 0;        ///< The controllers' mark; takes part in equality only.
  uint64_t rekeyCounter = 0;
  uint8_t received = 0;  ///< The directory's mark; takes part in equality only.

  bool isEq(const PeerKeyInfo& other) const { return *this == other; }
  friend bool operator==(const PeerKeyInfo&, const PeerKeyInfo&) = default;
};

/// The keys of the peers, as the PF controllers deliver them.
class TESSEL_API PeerKeyDir final : public Entity {
  HOST_VALUES(ipsecPeerKeyInfo, IpGenAddr, PeerKeyInfo);
};

/// The local key record that the PF controllers distribute. A reader takes the record as changed
/// when `updateVersion` has grown: it is written last.
class TESSEL_API LocalKeyDir final : public Entity {
  /// The own router id.
  HOST_ATTRIBUTE(originatorId, IpGenAddr);
  /// The key generation; 0 begins a new lineage.
  HOST_ATTRIBUTE(rekeyCounter, uint64_t);
  /// IANA group number.
  HOST_ATTRIBUTE(dhGroup, uint32_t);
  /// DH public key in IKEv2's encoding, and its length in bytes.
  HOST_ATTRIBUTE(dhKey, Bytes);
  HOST_ATTRIBUTE(dhKeyLen, uint32_t);
  /// And its length in bytes.
  HOST_ATTRIBUTE(nonce, Bytes);
  HOST_ATTRIBUTE(nonceLen, uint32_t);
  /// Numbers of `IpsecEspAlgorithm` and `IpsecHmacAlgorithm`.
  HOST_ATTRIBUTE(encryptAlgo, uint16_t);
  HOST_ATTRIBUTE(hashAlgo, uint16_t);
  /// The record is complete and may be used; false withdraws it.
  HOST_ATTRIBUTE(valid, bool);
  HOST_COUNTER(updateVersion);
};

/// What the peers are to receive of a local key record, with the marks of a received record set;
/// nothing while the record is not valid. Throws std::range_error, which names the field, for an
/// algorithm code that a peer's record cannot hold.
TESSEL_API std::optional<PeerKeyInfo> publishedRecord(const LocalKeyDir& dir);

/// Connectivity to the PF controllers.
class TESSEL_API Status final : public Entity {
  HOST_ATTRIBUTE(connected, bool);
};

}  // namespace tessel::Controller
