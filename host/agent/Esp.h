// Esp: sealing and opening of ESP packets (RFC 4303) with the keys of one SA, and the anti-replay
// window. Tunnel mode; 32-bit sequence numbers; no sequence number beyond those in the packet.
//
// An ESP packet, as it stands behind the UDP header (RFC 3948):
//
//     SPI (4)  sequence number (4)  IV  [ inner IP packet  TFC padding  padding  pad length (1)
//     next header (1) ]  ICV
//
// What is in brackets is encrypted; the ICV covers everything before it. Traffic-flow
// confidentiality padding (RFC 4303, 2.7) is what follows the inner packet, whose own length field
// tells where it ends: every receiver skips it. Here it carries the nonce word of an SA that is
// being rekeyed: the four bytes "TSLN" and the word in network byte order. All routers of an
// overlay have to carry it alike.
//
//     algorithm           IV                                             ICV
//     rfc4106(gcm(aes))   8: a counter that starts at a random value     icvLen: 8 or 16 (RFC 4106)
//     aes (CBC)           16: random (RFC 3602)                          HMAC, truncated
//     cipher_null         none (RFC 2410)                                HMAC, truncated
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "host/crypto/HmacPRFunc.h"
#include "host/crypto/Libcrypto.h"
#include "host/crypto/RandomSource.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/IkeSa.h"

namespace tessel {

/// SPI and sequence number.
inline constexpr size_t kEspHeaderSize = 8;
/// "TSLN" and the nonce word.
inline constexpr size_t kEspNonceSize = 8;

/// The ciphers of one SA, keyed. It seals or it opens, as the SA goes out or comes in. Its key
/// material is wiped with it. Not safe for use from several threads at once.
class TESSEL_API EspTransform {
 public:
  enum class Use : uint8_t { seal, open };

  /// From the attributes of an SA. Throws std::invalid_argument that names the attribute and its
  /// value (never a key) when they make no usable SA: an unknown or empty algorithm name, a key
  /// length that the algorithm does not have or that the key does not have, an ICV or truncation
  /// that does not fit. A truncation of 0 means 96 bits for md5 and sha1 and half the digest for
  /// the others. AES-GCM ignores the integrity algorithm.
  /// `random` is where its IVs come from, also later.
  /// Throws std::runtime_error when libcrypto or the random source fails.
  EspTransform(const Ike::SecurityAssociation& sa, Use use,
               Ptr<RandomSource> random = RandomSource::current());
  // Not inline: who uses it need not be linked to libcrypto.
  ~EspTransform();
  EspTransform(EspTransform&& other) noexcept;
  EspTransform& operator=(EspTransform&& other) noexcept;

  /// Lengths in bytes.
  size_t ivSize() const { return ivSize_; }
  size_t icvSize() const { return icvSize_; }
  /// Length of the ESP packet, header and ICV included, for `payloadSize` bytes of inner packet and
  /// TFC padding.
  size_t sealedSize(size_t payloadSize) const;

  /// Writes the whole ESP packet to `out`, which has `sealedSize(inner.size() + tfc.size())` bytes.
  /// `spi` and `sequence` are in host byte order; the sequence number is the caller's to count,
  /// from 1 and never back under one key. `nextHeader` is the protocol number of `inner`: 4 (IPv4),
  /// 41 (IPv6), or 59 for a dummy packet (RFC 4303, 2.6). Throws std::runtime_error when libcrypto
  /// or the random source fails.
  void seal(uint32_t spi, uint32_t sequence, BytesView inner, BytesView tfc, uint8_t nextHeader,
            std::span<uint8_t> out);

  enum class Failure : uint8_t { none, malformed, badIcv };
  struct Opened {
    Failure failure = Failure::malformed;
    uint8_t nextHeader = 0;
    BytesView payload{};  ///< Inner packet and TFC padding; lies in the opened bytes.
  };
  /// Opens an ESP packet in place. When it fails, its content is undefined. `malformed` means too
  /// short, no whole number of blocks, or (behind a good ICV) padding that RFC 4303 does not allow.
  Opened open(std::span<uint8_t> esp);

  /// One-way digest of the keys: equal for equal algorithms and keys.
  uint64_t keyTag() const { return keyTag_; }

 private:
  void initGcm(const Ike::SecurityAssociation& sa, bool seal);
  void initCbc(const Ike::SecurityAssociation& sa, bool seal);
  void initHmac(const Ike::SecurityAssociation& sa);
  void sealGcm(std::span<uint8_t> out, size_t textSize);
  bool openGcm(std::span<uint8_t> esp, size_t textSize);

  void fillRandom(std::span<uint8_t> out);

  Ptr<RandomSource> random_;
  libcrypto::CipherContext cipher_;  // Null for cipher_null.
  std::optional<HmacPRFunc> hmac_;   // None for AES-GCM.
  size_t digestSize_ = 0;
  size_t ivSize_ = 0;
  size_t icvSize_ = 0;
  size_t blockSize_ = 4;  // What payload, padding and trailer are a multiple of.
  SecretBytes salt_;      // AES-GCM: the first four bytes of its nonce.
  uint64_t ivCounter_ = 0;
  uint64_t keyTag_ = 0;
};

/// The anti-replay window (RFC 4303, 3.4.3): the highest sequence number and which of the 64 up to
/// it have been received.
class TESSEL_API ReplayWindow {
 public:
  static constexpr uint32_t kSize = 64;
  enum class Verdict : uint8_t { fresh, replayed, tooOld };

  /// Numbers in host byte order.
  Verdict check(uint32_t sequence) const;
  /// Marks a number that `check` found fresh. To be called behind a good ICV only.
  void accept(uint32_t sequence);
  uint32_t highest() const { return highest_; }

 private:
  uint32_t highest_ = 0;
  uint64_t seen_ = 0;  // Bit n: highest_ - n.
};

/// The nonce word that the packets of an out-SA are to carry now, in host byte order; 0 for none.
TESSEL_API uint32_t espNonceOf(const Ike::SecurityAssociation& sa);
/// The bytes of TFC padding that carry a nonce word, given in host byte order.
TESSEL_API std::array<uint8_t, kEspNonceSize> espNonceBytes(uint32_t nonceWord);
/// The nonce word in host byte order that TFC padding carries; nothing when it carries none.
TESSEL_API std::optional<uint32_t> readEspNonce(BytesView tfc);

/// SPI and sequence number of an ESP packet in UDP, in host byte order; nothing when it is too
/// short, a NAT keepalive or an IKE message (RFC 3948).
struct TESSEL_API EspHeader {
  uint32_t spi = 0;
  uint32_t sequence = 0;
};
TESSEL_API std::optional<EspHeader> readEspHeader(BytesView esp);

}  // namespace tessel
