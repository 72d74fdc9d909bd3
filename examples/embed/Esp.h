// Esp: AES-GCM of one SA (RFC 4303, RFC 4106). Sequence numbers of 32 bits.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <openssl/evp.h>

#include "host/model/Bytes.h"
#include "host/model/IkeSa.h"

class Esp {
 public:
  /// Throws std::runtime_error when the SA is not one of AES-GCM with an ICV of 16 bytes.
  explicit Esp(const tessel::Ike::SecurityAssociation& sa);

  /// The SPI of a packet, host byte order; 0 when it is too short for one.
  static uint32_t spiOf(tessel::BytesView packet);

  tessel::Bytes seal(tessel::BytesView payload);
  /// The payload; nothing when the packet is not a sound one of this SA.
  std::optional<tessel::Bytes> open(tessel::BytesView packet);

 private:
  struct Free {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };

  const uint32_t spi_;
  tessel::SecretBytes salt_;
  uint32_t sequence_ = 0;
  uint64_t iv_ = 0;
  std::unique_ptr<EVP_CIPHER_CTX, Free> cipher_;
};
