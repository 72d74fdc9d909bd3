// RandomSource: where the random bytes of private keys and nonces come from.
#pragma once

#include <cstdint>
#include <span>

#include "host/crypto/Libcrypto.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"

namespace tessel {

/// A source of random bytes. Every DH private key and every nonce is drawn from the process's
/// current source.
class TESSEL_API RandomSource : public RefCounted {
 public:
  /// Fills all of `out`; false when the source cannot, and then `out` must not be used.
  [[nodiscard]] virtual bool fill(std::span<uint8_t> out) = 0;

  /// The source in use; libcrypto's generator unless another one was set.
  static Ptr<RandomSource> current();
  /// Makes `source` the one in use; null goes back to libcrypto's generator. To be called while no
  /// other thread draws.
  static void currentIs(Ptr<RandomSource> source);
};

/// libcrypto's generator, seeded by the operating system. Safe to draw from in several threads.
class TESSEL_API SystemRandomSource final : public RandomSource {
 public:
  [[nodiscard]] bool fill(std::span<uint8_t> out) override;
};

/// A reproducible source for the lab and for tests: two sources with the same seed give the same
/// bytes, however the draws are cut. The bytes are the ChaCha20 key stream (RFC 8439, block counter
/// from 0) under a key of the seed in little-endian order followed by zeros. Not for real keys.
class TESSEL_API SeededRandomSource final : public RandomSource {
 public:
  explicit SeededRandomSource(uint64_t seed);

  [[nodiscard]] bool fill(std::span<uint8_t> out) override;

  /// Digest of the state: equal for equal seed and equal number of bytes drawn so far.
  uint64_t stateHash() const;

 private:
  uint64_t seed_;
  uint64_t drawn_ = 0;
  libcrypto::CipherContext stream_;
};

}  // namespace tessel
