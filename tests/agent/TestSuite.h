// TestSuite: the ciphers of an SA, with keys.
#pragma once

#include <cstdint>
#include <string>

#include "host/model/Bytes.h"
#include "host/model/IkeSa.h"

namespace tessel {

/// The attributes that choose the ciphers of an SA; lengths in bits.
struct TestSuite {
  std::string cryptoAlgo = "rfc4106(gcm(aes))";
  uint16_t cryptoKeyLen = 288;
  uint16_t icvLen = 128;
  std::string authAlgo = "hmac(sha256)";
  uint16_t authKeyLen = 256;
  uint16_t authTruncLen = 128;
};

/// A key of bytes that differ, other ones for another `variant`.
inline SecretBytes testKey(uint16_t bits, uint8_t variant) {
  SecretBytes key(bits / 8U);
  for (size_t i = 0; i < key.size(); ++i) {
    key.data()[i] = static_cast<uint8_t>(i * 7 + variant);
  }
  return key;
}

inline void suiteIs(Ike::SecurityAssociation& sa, const TestSuite& suite, uint8_t keyVariant = 1) {
  sa.cryptoAlgoIs(suite.cryptoAlgo);
  sa.cryptoKeyLenIs(suite.cryptoKeyLen);
  sa.cryptoKeyIs(testKey(suite.cryptoKeyLen, keyVariant));
  sa.authAlgoIs(suite.authAlgo);
  sa.authKeyLenIs(suite.authKeyLen);
  sa.authKeyIs(testKey(suite.authKeyLen, static_cast<uint8_t>(keyVariant + 100)));
  sa.authTruncLenIs(suite.authTruncLen);
  sa.icvLenIs(suite.icvLen);
}

}  // namespace tessel
