// The key generations that the machine keeps: its own, and those of its peers.
#pragma once

#include <cstdint>
#include <memory>

#include "host/entity/KeyedCollection.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Enumerations.h"
#include "host/model/IpGenAddr.h"

namespace tessel {

class IpsecDHGeneral;

/// What a local generation shares with one peer.
struct TESSEL_API SharedSecret {
  Bytes peerKey;  ///< The peer's public key that the secret was computed with.
  SecretBytes secret;
  uint32_t secretLen = 0;  ///< Bytes.
  SecretBytes fullNonce;
  uint32_t fullNonceLen = 0;  ///< Bytes.
};

/// One local DH key generation. Never leaves the machine; wiped when it is deleted.
class TESSEL_API LocalKeyInfo final : public RefCounted {
 public:
  explicit LocalKeyInfo(uint64_t counter);
  ~LocalKeyInfo() override;

  const uint64_t rekeyCounter;
  DhGroupNum dhGroup = 0;
  uint16_t encryptAlgo = 0;
  uint16_t hashAlgo = 0;
  SecretBytes privateKey;
  uint32_t privateKeyLen = 0;  ///< Bytes.
  Bytes publicKey;
  uint32_t publicKeyLen = 0;  ///< Bytes.
  Bytes nonce;
  uint32_t nonceLen = 0;  ///< Bytes.

  /// The generation's DH context, kept so that each peer costs one shared secret and no more.
  std::unique_ptr<IpsecDHGeneral> dh;

  const KeyedCollection<IpGenAddr, SharedSecret>& sharedSecret() const { return sharedSecret_; }
  /// Finds or makes what is shared with `peer`.
  SharedSecret& sharedSecretIs(const IpGenAddr& peer) { return sharedSecret_.emplace(peer).first; }
  void sharedSecretDel(const IpGenAddr& peer) { sharedSecret_.take(peer); }

 private:
  KeyedCollection<IpGenAddr, SharedSecret> sharedSecret_;
};

/// One key generation of a peer: a copy of its record, see `Controller::PeerKeyInfo`.
class TESSEL_API TesselPeerKeyInfo final : public RefCounted {
 public:
  explicit TesselPeerKeyInfo(uint64_t counter) : rekeyCounter(counter) {}

  const uint64_t rekeyCounter;
  Bytes dhKey;
  uint32_t dhKeyLen = 0;
  uint32_t dhGroup = 0;
  Bytes nonce;
  uint32_t nonceLen = 0;
  uint8_t encryptAlgo = 0;
  uint8_t hashAlgo = 0;
};

/// The generations of one peer that SAs may still use.
class TESSEL_API TesselPeerKeyInfoList final : public RefCounted {
 public:
  explicit TesselPeerKeyInfoList(const IpGenAddr& peer) : peer_(peer) {}
  const IpGenAddr& peer() const { return peer_; }

  const KeyedCollection<uint64_t, Ptr<TesselPeerKeyInfo>>& peerKeyInfo() const {
    return peerKeyInfo_;
  }
  /// The generation with this counter, or null.
  Ptr<TesselPeerKeyInfo> peerKeyInfo(uint64_t rekeyCounter) const {
    const Ptr<TesselPeerKeyInfo>* found = peerKeyInfo_.find(rekeyCounter);
    return found == nullptr ? nullptr : *found;
  }
  /// Finds or makes.
  Ptr<TesselPeerKeyInfo> peerKeyInfoIs(uint64_t rekeyCounter) {
    const auto [entry, made] = peerKeyInfo_.emplace(rekeyCounter);
    if (made) {
      entry = makePtr<TesselPeerKeyInfo>(rekeyCounter);
    }
    return entry;
  }
  void peerKeyInfoDel(uint64_t rekeyCounter) { peerKeyInfo_.take(rekeyCounter); }

 private:
  const IpGenAddr peer_;
  KeyedCollection<uint64_t, Ptr<TesselPeerKeyInfo>> peerKeyInfo_;
};

}  // namespace tessel
