// Ike: what the machine keeps per path and per peer.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IkeSa.h"
#include "host/model/Keys.h"
#include "host/runtime/Clock.h"

namespace tessel::Ike {

/// The host's clock and the periods that the state model itself promises. Shared by the entities
/// that tell time; the clock must outlive them.
class TESSEL_API Timing final : public RefCounted {
 public:
  explicit Timing(const Clock& hostClock) : clock(hostClock) {}
  const Clock& clock;
  /// How long a path may go without state change or confirmed traffic: at least three sanity
  /// intervals.
  Duration sanityExpiry = seconds(180);
  /// How long after the first peer's discovery no DH rekey starts.
  Duration dhRekeyDelay = seconds(120);
};

/// A nonce of an SA rekey: 28 significant bits, and the same value as four bytes, least significant
/// byte first. The default record (value 0, no bytes) is that of a path that has none yet.
struct TESSEL_API NonceFmt {
  uint32_t nonceValue = 0;
  Bytes nonceBytes;
  friend bool operator==(const NonceFmt&, const NonceFmt&) = default;
};

/// A path's DH rekey for one pair of key generations.
class TESSEL_API DhState final : public Entity {
 public:
  explicit DhState(const DhKeyPair&) {}

  /// The path's role in the DH rekey.
  HOST_ATTRIBUTE(dhSmState, SmState);
  HOST_ATTRIBUTE(dhRekeyState, DhRekeyState);
};

/// One SA of a path, as the path sees it.
class TESSEL_API PathConnSaInfo final : public Entity {
 public:
  PathConnSaInfo(const SecurityAssociationKey& sakey, Ptr<SecurityAssociation> sa) : sakey_(sakey) {
    saIs(std::move(sa));
  }
  const SecurityAssociationKey& sakey() const { return sakey_; }

  HOST_ATTRIBUTE(sa, Ptr<SecurityAssociation>);
  HOST_ATTRIBUTE(saRekeyState, SaRekeyState);
  /// When the data path installed the SA, UTC; 0 = not installed.
  HOST_ATTRIBUTE(addTime, Duration);
  /// Packets counted at the last look.
  HOST_ATTRIBUTE(pkts, uint64_t);
  HOST_ATTRIBUTE(pktsPresent, bool);
  /// The nonce word that the peer sent on this SA, host byte order; 0 = none.
  HOST_ATTRIBUTE(peerNonce, uint32_t);
  HOST_ATTRIBUTE(peerNonceType, NonceType);

 private:
  const SecurityAssociationKey sakey_;
};

/// The health record of a path.
class TESSEL_API SanityCheck final : public Entity {
 public:
  explicit SanityCheck(Ptr<const Timing> timing) : timing_(std::move(timing)) {}
  /// Made by its path.
  template <class Owner>
  requires requires(const Owner& owner) { owner.timing(); }
  explicit SanityCheck(const Owner& owner) : SanityCheck(owner.timing()) {}

  /// Whether the expiry time has passed since it was last restarted; false if it never was.
  bool isPathExpired() const {
    return expiryTime_ != Duration() && timing_->clock.monotonicTime() >= expiryTime_;
  }
  void resetExpiryTime() { expiryTime_ = timing_->clock.monotonicTime() + timing_->sanityExpiry; }
  Duration expiryTime() const { return expiryTime_; }
  /// Puts back an expiry time that was read before.
  void expiryTimeIs(Duration expiryTime) { expiryTime_ = expiryTime; }
  /// Summary for traces.
  std::string str() const;

  /// Packets of the steady SAs at the last check that saw traffic.
  HOST_ATTRIBUTE(inSaPkts, uint64_t);
  HOST_ATTRIBUTE(outSaPkts, uint64_t);
  /// Packets of the path at the last periodic log.
  HOST_ATTRIBUTE(pktsIn, uint64_t);
  HOST_ATTRIBUTE(pktsOut, uint64_t);
  /// Monotonic times; 0 = never.
  HOST_ATTRIBUTE(lastActiveTime, Duration);
  HOST_ATTRIBUTE(lastEstablishedTime, Duration);
  HOST_ATTRIBUTE(isLogEnabled, bool);

 private:
  const Ptr<const Timing> timing_;
  Duration expiryTime_;
};

/// One path towards a peer: its state and its SAs. Lives as long as the peer lists it.
class TESSEL_API PathConnState final : public Entity {
 public:
  template <class Owner>
  PathConnState(const Owner& peer, const ConnectionKey& key)
      : connectionKey_(key), timing_(peer.timing()) {}
  const ConnectionKey& connectionKey() const { return connectionKey_; }
  const Ptr<const Timing>& timing() const { return timing_; }

  // What the sweeps look at comes first, so that it lies together.

  /// Where the path stands. One operation of the machine writes it, and traces the change.
  HOST_ATTRIBUTE(pathState, DynamicPathState);
  /// The peer's address.
  HOST_ATTRIBUTE(remoteIp, IpGenAddr);
  /// Request id shared by the path's SAs; 0 until the path is first established.
  HOST_ATTRIBUTE(reqid, uint32_t);
  /// The path's SA rekey.
  HOST_ATTRIBUTE(saSmState, SmState);
  /// The path's SAs: made as pathConnSaInfoIs(sakey, sa).
  HOST_COLLECTION(pathConnSaInfo, SecurityAssociationKey, PathConnSaInfo);
  HOST_CHILD(sanityCheck, SanityCheck);
  /// The generations of the out-SA in use.
  HOST_ATTRIBUTE(curOutSaDhKeyPair, DhKeyPair);
  HOST_ATTRIBUTE(saLocalNonce, NonceFmt);
  HOST_ATTRIBUTE(saPeerNonce, NonceFmt);
  HOST_COLLECTION(dhState, DhKeyPair, DhState);
  /// Crypto of SA rekeys, from the path's own nonces.
  HOST_COLLECTION(saCryptoInfo, DhKeyPair, CryptoInfoPair);

 private:
  const ConnectionKey connectionKey_;
  const Ptr<const Timing> timing_;
};

/// One peer. Lengths of keys, truncation and ICV are in bits, of the DH key and nonce in bytes.
class TESSEL_API PeerConnectionState final : public Entity {
 public:
  template <class Owner>
  PeerConnectionState(const Owner& status, const IpGenAddr& peer)
      : peerAddr_(peer), timing_(status.timing()) {}
  const IpGenAddr& peerAddr() const { return peerAddr_; }
  const Ptr<const Timing>& timing() const { return timing_; }

  /// Newest accepted rekey counter of the peer's key.
  HOST_ATTRIBUTE(rekeyCounter, uint64_t);
  HOST_ATTRIBUTE(dhGroup, uint32_t);
  HOST_ATTRIBUTE(dhKeyLen, uint32_t);
  HOST_ATTRIBUTE(nonce, Bytes);
  HOST_ATTRIBUTE(nonceLen, uint32_t);
  HOST_ATTRIBUTE(encryptAlgo, IpsecEspAlgorithm);
  HOST_ATTRIBUTE(hashAlgo, IpsecHmacAlgorithm);
  /// Kernel names of the algorithms.
  HOST_NAME(cryptoAlgoStr);
  HOST_NAME(authAlgoStr);
  HOST_ATTRIBUTE(cryptoKeyLen, uint16_t);
  HOST_ATTRIBUTE(authKeyLen, uint16_t);
  HOST_ATTRIBUTE(authTruncLen, uint16_t);
  HOST_ATTRIBUTE(icvLen, uint16_t);
  HOST_ATTRIBUTE(family, uint16_t);
  HOST_ATTRIBUTE(proto, uint32_t);
  HOST_ATTRIBUTE(vrfName, L3::VrfName);
  /// Whether this router is the initiator towards the peer.
  HOST_ATTRIBUTE(initiator, bool);
  HOST_ATTRIBUTE(peerConnStatus, PeerConnStatus);
  HOST_ATTRIBUTE(peerDownReason, PeerDownReason);
  /// When the peer came up, UTC.
  HOST_ATTRIBUTE(upTime, Duration);
  /// When the peer was first discovered, monotonic.
  HOST_ATTRIBUTE(initialDiscoveryTime, Duration);
  HOST_COLLECTION(dhCryptoInfo, DhKeyPair, CryptoInfoPair);
  HOST_COLLECTION(pathConnState, ConnectionKey, PathConnState);

 private:
  const IpGenAddr peerAddr_;
  const Ptr<const Timing> timing_;
};

}  // namespace tessel::Ike

namespace tessel {

// Compiled once, in Ike.cpp: most units of the engine use these.
extern template class KeyedCollection<DhKeyPair, Ptr<Ike::DhState>>;
extern template class KeyedCollection<DhKeyPair, Ptr<Ike::CryptoInfoPair>>;
extern template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::PathConnSaInfo>>;
extern template class KeyedCollection<ConnectionKey, Ptr<Ike::PathConnState>>;

}  // namespace tessel
