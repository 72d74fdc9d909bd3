// IpsecDHGeneral: one side of a Diffie-Hellman exchange in the encodings of IKEv2.
#pragma once

#include <memory>

#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Enumerations.h"

namespace tessel {

class DhComputation;
class DhGroup;

/// Our own key pair in a group, and the key of one peer at a time.
///
/// Groups: MODP 1, 2 (RFC 2409), 5, 14, 15, 16, 17 (RFC 3526) and 24 (RFC 5114); ECP 19, 20 and 21
/// (RFC 5903). All numbers are big-endian and padded with leading zeros:
///
///   | group      | public key            | private key     | shared secret |
///   |------------|-----------------------|-----------------|---------------|
///   | MODP       | the prime's length    | 24 to 48 bytes  | the prime's   |
///   | 19, 20, 21 | x and y: 64, 96, 132  | 32, 48, 66      | x: 32, 48, 66 |
///
/// An object can be kept as long as its key pair and used for any number of peers; that saves the
/// computation of the own public key, while the group's parameters are kept by the process anyway.
/// Private key and secrets are wiped when they are released. Not safe for several threads at once.
class TESSEL_API IpsecDHGeneral {
 public:
  explicit IpsecDHGeneral(DhGroupNum group);
  ~IpsecDHGeneral();

  /// Gets ready for a fresh key pair and forgets the keys held before. The pair is drawn from the
  /// process's `RandomSource` when it is asked for first, so an object that is given a private key
  /// never draws one. False for every group but those above; every other operation fails then.
  [[nodiscard]] bool initIpsecDH();

  /// Our public key. False when the random source fails.
  [[nodiscard]] bool getMyPublicKey(Bytes* key);

  /// Our private key. False when the random source fails.
  [[nodiscard]] bool getMyPrivateKey(SecretBytes* key);

  /// Replaces our key pair, and forgets the peer's key. A private key is a number from 1 to the
  /// order of the group's generator - 1, of any length; false for any other, and then no key is
  /// replaced. `publicKey` is the public key that belongs to it where the caller knows it: it is
  /// computed when it is needed otherwise, that is by `getMyPublicKey` and by the first
  /// `setPeerPublicKey`, for the price of one more shared secret. The key that is held already
  /// keeps its public key.
  [[nodiscard]] bool setMyPrivateKey(const SecretBytes& key, BytesView publicKey = {});

  /// Sets the peer's key after checking it (RFC 6989, NIST SP 800-56A): exact length; MODP
  /// 1 < y < p - 1, for group 24 also the order of the subgroup; ECP x and y below the field's
  /// prime and on the curve; not our own public key, nor its mirror image on the curve, which
  /// yields the same secret. False for a key that fails a check; no peer key is set then, the one
  /// before is forgotten.
  [[nodiscard]] bool setPeerPublicKey(BytesView key);

  /// The secret shared with the peer whose key is set, full length (see above). False without a
  /// peer key; `secret` is unchanged then.
  [[nodiscard]] bool getSharedSecret(SecretBytes* secret);

 private:
  bool ensurePrivateKey();
  bool ensurePublicKey();
  bool takePrivateKey(const SecretBytes& key);
  bool isOwnKey(BytesView peerKey) const;

  DhGroupNum groupNum_;
  const DhGroup* group_ = nullptr;
  SecretBytes privateKey_;
  Bytes publicKey_;
  std::unique_ptr<DhComputation> computation_;
  bool peerKeySet_ = false;
};

}  // namespace tessel
