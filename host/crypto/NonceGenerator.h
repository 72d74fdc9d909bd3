// NonceGenerator: nonces of key generations and of SA rekeys, and the full nonce of two of them.
#pragma once

#include <cstddef>

#include "host/facility/Export.h"
#include "host/model/Bytes.h"

namespace tessel {

/// Draws from the process's `RandomSource`. Has no state.
class TESSEL_API NonceGenerator {
 public:
  /// Length in bytes of the nonces that `generateNonce` makes.
  static constexpr size_t nonceLen = 32;

  /// Puts a fresh nonce of 32 random bytes into `nonce`. False when the random source fails;
  /// `nonce` is unchanged then.
  [[nodiscard]] bool generateNonce(Bytes* nonce) const;

  /// The full nonce: `first` followed by `second` (Ni | Nr, the initiator's first, RFC 7296 section
  /// 2.14). False when either is empty, since a key would then hang on one side's nonce alone;
  /// `full` is unchanged then.
  [[nodiscard]] bool generateFullNonce(SecretBytes* full, BytesView first, BytesView second) const;
};

}  // namespace tessel
