// KeyDerivation: from key generations and nonces to the keys and SPIs of SAs.
//
//   skeyseed = prf(Ni | Nr, g^ir)                                (prf = HMAC-SHA-512)
//   stream   = prf+(skeyseed, Ni | Nr)                           (RFC 7296, section 2.13)
//   I1 | I2 | E1 | E2 | S1 | S2 = stream
//
// Ni is the nonce of the initiator of the peer pair. The initiator files (E1, E2, I1, I2, S1, S2),
// the responder crosswise, so that with "the initiator uses the first keys, the responder the
// second" both ends use E1 and I1, and each one's first SPI is the other one's second.
#pragma once

#include <optional>

#include "host/model/Bytes.h"
#include "host/model/IkePath.h"
#include "host/model/KeyGenerations.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// Whether a pair is of generations that a DH rekey moves to from `current`: neither is older, and
/// one is newer.
constexpr bool isNewer(const DhKeyPair& pair, const DhKeyPair& current) {
  return pair != current && pair.localRekeyCount >= current.localRekeyCount &&
         pair.peerRekeyCount >= current.peerRekeyCount;
}

class KeyDerivation {
 public:
  explicit KeyDerivation(TesselV1Sm& sm) : sm_(sm) {}

  /// Makes a peer ready for one pair of key generations. On failure the peer is down, with its
  /// reason, and has no SAs.
  bool doGeneratePeerCryptoInfo(const IpGenAddr& peer, const DhKeyPair& dhKeyPair, bool isDhRekey);

  /// The derivation: for the whole peer, from the nonces of the key generations, or with
  /// `isSaRekey` for the path `connKey`, from the path's own nonces. On failure no crypto is
  /// stored.
  bool doGenerateCryptoKeys(const IpGenAddr& peer, const ConnectionKey& connKey,
                            const DhKeyPair& dhKeyPair, bool isSaRekey);

  /// The pair with the largest sum of counts among the peer's derived crypto: absent when two share
  /// it, (0, 0) when there is none. The peer must have a state.
  std::optional<DhKeyPair> getLatestDhKeyPair(const IpGenAddr& peer) const;

  /// The published counts of both sides; the peer's is 2^64 - 1 when it has no record.
  DhKeyPair getCurrentBgpDhKeyPair(const IpGenAddr& peer) const;

 private:
  struct Nonces {
    BytesView local;
    BytesView peer;
  };

  bool computeSharedSecret(const IpGenAddr& peer, LocalKeyInfo& lki, const TesselPeerKeyInfo& pki);
  std::optional<Nonces> findNonces(const IpGenAddr& peer, const Ptr<Ike::PathConnState>& path,
                                   const LocalKeyInfo& lki, const TesselPeerKeyInfo& pki,
                                   bool isSaRekey);
  bool readStream(const IpGenAddr& peer, const SharedSecret& shared, bool initiator,
                  Ike::CryptoInfo& info);

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
