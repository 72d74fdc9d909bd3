// Floors: the least that an operation can cost, with everything that can be kept kept. What the
// engine does is measured beside them, in the same run.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/crypto/Libcrypto.h"
#include "host/model/Bytes.h"
#include "host/model/Enumerations.h"
#include "host/model/Keys.h"

namespace tessel::bench {

/// Ends the program unless `succeeded`: a figure of something that fails is worse than none.
void check(bool succeeded);

/// One shared secret: own key, curve or prime and context kept, the peer's key read from its bytes
/// and checked as RFC 6989 asks.
class SharedSecretFloor {
 public:
  /// Groups 14, 16, 19, 20 and 21.
  explicit SharedSecretFloor(DhGroupNum group);
  void compute();
  /// What the last call computed.
  const SecretBytes& secret() const { return secret_; }
  /// The same from the host's own code.
  const SecretBytes& expected() const { return expected_; }

 private:
  void computeOnCurve();
  void computeModPrime();

  SecretBytes secret_;
  SecretBytes expected_;
  Bytes peerKey_;
  libcrypto::BigNum privateKey_;
  libcrypto::BigNumContext scratch_;
  libcrypto::BigNum x_;
  libcrypto::BigNum result_;
  libcrypto::Curve curve_;  // Null for a MODP group.
  libcrypto::CurvePoint peerPoint_;
  libcrypto::CurvePoint product_;
  libcrypto::BigNum prime_;
  libcrypto::BigNum primeMinusOne_;
  libcrypto::MontgomeryContext montgomery_;
};

/// Seed key and 216 bytes of prf+ (HMAC-SHA-512): two integrity keys, two encryption keys, two
/// SPIs. With one context kept, or one fetched and made for every use.
class PrfFloor {
 public:
  explicit PrfFloor(bool contextKept);
  void compute();

  static constexpr size_t kStreamLen = 216;

 private:
  void start(BytesView key, bool sameKey);

  const bool contextKept_;
  const Bytes fullNonce_ = Bytes(64, 1);
  const Bytes secret_ = Bytes(32, 2);
  Bytes seedKey_ = Bytes(64);
  Bytes block_ = Bytes(64);
  libcrypto::MacContext context_;
};

/// Lookups in a std::unordered_map from SA keys to shared pointers, in an order that has nothing to
/// do with that of insertion.
class LookupFloor {
 public:
  explicit LookupFloor(uint32_t count);
  /// Looks every key up once.
  void lookUpAll();
  uint32_t count() const { return static_cast<uint32_t>(keys_.size()); }

 private:
  struct Hash {
    size_t operator()(const SecurityAssociationKey& key) const { return key.hash(11); }
  };
  std::vector<SecurityAssociationKey> keys_;
  std::unordered_map<SecurityAssociationKey, std::shared_ptr<uint64_t>, Hash> map_;
};

}  // namespace tessel::bench
