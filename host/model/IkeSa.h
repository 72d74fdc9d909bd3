// Ike: security associations, their limits, and the crypto records that they are made from.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IkeConfig.h"
#include "host/model/Keys.h"

namespace tessel::Ike {

/// UDP port.
using Port = uint16_t;

/// What a derivation yields for one pair of key generations: keys, SPIs and the description of the
/// algorithms. All lengths are in bits.
struct TESSEL_API CryptoInfo {
  SecretBytes firstEncryptionKey;
  SecretBytes secondEncryptionKey;
  uint16_t cryptoKeyLen = 0;
  std::string cryptoAlgo;
  SecretBytes firstIntegrityKey;
  SecretBytes secondIntegrityKey;
  uint16_t authKeyLen = 0;
  uint16_t authTruncLen = 0;
  std::string authAlgo;
  uint16_t icvLen = 0;
  uint32_t firstSpi = 0;
  uint32_t secondSpi = 0;
  friend bool operator==(const CryptoInfo&, const CryptoInfo&) = default;
};

/// The crypto of one pair of key generations.
class TESSEL_API CryptoInfoPair final : public Entity {
 public:
  explicit CryptoInfoPair(const DhKeyPair& pair) : dhKeyPair_(pair) {}
  const DhKeyPair& dhKeyPair() const { return dhKeyPair_; }

  HOST_ATTRIBUTE(cryptoInfo, CryptoInfo);

 private:
  const DhKeyPair dhKeyPair_;
};

/// One SA as handed to the data path. Lengths are in bits, ports and numbers in host byte order
/// except where it says otherwise.
class TESSEL_API SecurityAssociation final : public Entity {
 public:
  explicit SecurityAssociation(const SecurityAssociationKey& sakey) : sakey_(sakey) {}
  const SecurityAssociationKey& sakey() const { return sakey_; }

  // What the sweeps look at comes first, so that it lies together.

  HOST_ATTRIBUTE(saType, SaType);
  /// The SA is being rekeyed: the data path carries `nonce` while it is set.
  HOST_ATTRIBUTE(rekey, bool);
  HOST_ATTRIBUTE(softExpire, bool);
  HOST_ATTRIBUTE(saddr, IpGenAddr);
  /// The peer's address (its identity, not the end of the tunnel).
  HOST_ATTRIBUTE(remoteIp, IpGenAddr);
  HOST_ATTRIBUTE(reqid, uint32_t);
  HOST_ATTRIBUTE(connId, ConnectionId);
  HOST_ATTRIBUTE(pathIndex, uint32_t);
  /// 1 = tunnel mode, 0 = any other.
  HOST_ATTRIBUTE(mode, uint8_t);
  /// Start of the sequence numbers.
  HOST_ATTRIBUTE(seq, uint32_t);
  HOST_NAME(cryptoAlgo);
  HOST_ATTRIBUTE(cryptoKey, SecretBytes);
  HOST_ATTRIBUTE(cryptoKeyLen, uint16_t);
  HOST_NAME(authAlgo);
  HOST_ATTRIBUTE(authKey, SecretBytes);
  HOST_ATTRIBUTE(authKeyLen, uint16_t);
  /// 0 = the data path's default for the algorithm.
  HOST_ATTRIBUTE(authTruncLen, uint16_t);
  HOST_ATTRIBUTE(icvLen, uint16_t);
  /// The key generations that the SA's keys come from.
  HOST_ATTRIBUTE(dhKeyPair, DhKeyPair);
  /// SPI of the SA of the other direction.
  HOST_ATTRIBUTE(pairSpi, uint32_t);
  HOST_ATTRIBUTE(isInitiator, bool);
  /// The nonce word that the data path carries to the peer, in network byte order; 0 = none.
  HOST_ATTRIBUTE(nonce, uint32_t);
  HOST_ATTRIBUTE(encapType, IpsecEncapProtocol);
  HOST_ATTRIBUTE(flowEncap, bool);
  HOST_ATTRIBUTE(encapSrcPort, Port);
  HOST_ATTRIBUTE(encapDstPort, Port);
  HOST_ATTRIBUTE(encapSrcPortRange, EncapSrcPortRange);

 private:
  const SecurityAssociationKey sakey_;
};

/// Lifetime limits of an SA: seconds since it was installed, bytes, packets; 0 = none.
class TESSEL_API LifetimeCfg final : public Entity {
 public:
  explicit LifetimeCfg(const SecurityAssociationKey&) {}

  HOST_ATTRIBUTE(softAddExpire, uint64_t);
  HOST_ATTRIBUTE(softByteLimit, uint64_t);
  HOST_ATTRIBUTE(softPacketLimit, uint64_t);
  HOST_ATTRIBUTE(hardAddExpire, uint64_t);
  HOST_ATTRIBUTE(hardByteLimit, uint64_t);
  HOST_ATTRIBUTE(hardPacketLimit, uint64_t);
};

/// The SAs of one VRF.
class TESSEL_API VrfStatus final : public Entity {
 public:
  explicit VrfStatus(L3::VrfName name) : name_(std::move(name)) {}
  const L3::VrfName& name() const { return name_; }

  HOST_COLLECTION(tesselSa, SecurityAssociationKey, SecurityAssociation);
  HOST_COLLECTION(lifetimeCfg, SecurityAssociationKey, LifetimeCfg);

 private:
  const L3::VrfName name_;
};

}  // namespace tessel::Ike

namespace tessel {

// Compiled once, in Ike.cpp: most units of the engine use these.
extern template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::SecurityAssociation>>;
extern template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::LifetimeCfg>>;

}  // namespace tessel
