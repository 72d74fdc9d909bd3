// PRFuncPlus: prf+, the stream from which the keys and SPIs of SAs are cut.
#pragma once

#include <cstddef>

#include "host/crypto/HmacPRFunc.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"

namespace tessel {

/// prf+ of RFC 7296 section 2.13 over a keyed `HmacPRFunc`:
///
///     prf+(K, S) = T1 | T2 | T3 | ...
///     T1 = prf(K, S | 0x01)
///     T2 = prf(K, T1 | S | 0x02), and so on
///
/// The last block is number 255: a stream has 255 times the prf's output length, which is 16,320
/// bytes for SHA-512. Blocks are computed when they are read.
class TESSEL_API PRFuncPlus {
 public:
  /// Blocks of a stream; the block number is one byte.
  static constexpr size_t maxBlocks = 255;

  /// Works with the key that `prf` has; `prf` is borrowed and must outlive this object, and a
  /// change of its key needs a new `initPRFuncPlus`. With `continuous` the reads cut one stream,
  /// each going on where the one before it ended; without, every read starts at the stream's first
  /// byte.
  PRFuncPlus(const HmacPRFunc& prf, bool continuous) : prf_(prf), continuous_(continuous) {}

  /// Starts the stream over the seed S (the full nonce). False when `seed` is empty or `prf` has no
  /// key; reads fail then.
  [[nodiscard]] bool initPRFuncPlus(BytesView seed);
  [[nodiscard]] bool initPRFuncPlus(const SecretBytes& seed) { return initPRFuncPlus(seed.view()); }

  /// Reads the next `length` bytes into `out`; a read of zero bytes succeeds and is empty. False
  /// before `initPRFuncPlus` and when fewer bytes are left: nothing is read then, and `out` is
  /// unchanged.
  [[nodiscard]] bool generatePRStream(size_t length, SecretBytes* out);

 private:
  void rewind();
  [[nodiscard]] bool nextBlock();
  size_t bytesLeft() const;

  const HmacPRFunc& prf_;
  bool continuous_;
  SecretBytes seed_;
  /// T(blocks_); its first `used_` bytes are read.
  SecretBytes block_;
  size_t blocks_ = 0;
  size_t used_ = 0;
};

}  // namespace tessel
