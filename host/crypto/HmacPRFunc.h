// HmacPRFunc: HMAC as the pseudo-random function of key derivation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

#include "host/crypto/Libcrypto.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"

namespace tessel {

/// Hash algorithms of the key-derivation primitives; the numbers are those of the ESP integrity
/// algorithms over the same hash.
enum class HashAlgorithm : uint8_t { md5 = 0, sha1 = 1, sha256 = 2, sha384 = 3, sha512 = 4 };
/// "sha512(4)".
TESSEL_API std::string stringValue(HashAlgorithm algorithm);

/// HMAC (RFC 2104) as a pseudo-random function prf(key, data). One context is kept and keyed again;
/// the key lies in it alone and is wiped with it. Not safe for use from several threads at once.
class TESSEL_API HmacPRFunc {
 public:
  /// Chooses the hash and forgets the key. False for a number outside the enumeration and for a
  /// hash that libcrypto does not offer; every other operation fails then.
  [[nodiscard]] bool initHmacPRFunc(HashAlgorithm algorithm);

  /// Sets the key, of any length but zero. False before `initHmacPRFunc` and for an empty key; no
  /// key is set then.
  [[nodiscard]] bool setKey(BytesView key);
  [[nodiscard]] bool setKey(const SecretBytes& key) { return setKey(key.view()); }

  /// out = prf(key, data), `outputLen()` bytes. False without a key; `out` is unchanged then.
  [[nodiscard]] bool generatePRStream(BytesView data, SecretBytes* out) const;
  [[nodiscard]] bool generatePRStream(const SecretBytes& data, SecretBytes* out) const {
    return generatePRStream(data.view(), out);
  }

  /// The same over the pieces of `data` one after the other, written to `out`, which has
  /// `outputLen()` bytes and may be one of the pieces.
  [[nodiscard]] bool compute(std::initializer_list<BytesView> data, std::span<uint8_t> out) const;

  bool hasKey() const { return hasKey_; }
  /// Length of the function's output in bytes; 0 before `initHmacPRFunc`.
  size_t outputLen() const;

 private:
  libcrypto::MacContext context_;
  bool hasKey_ = false;
};

}  // namespace tessel
