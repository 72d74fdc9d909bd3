// Libcrypto: owners for libcrypto's objects, and algorithm handles that are fetched once per
// process.
#pragma once

#include <memory>
#include <string>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

namespace tessel::libcrypto {

template <auto release>
struct Release {
  template <class T>
  void operator()(T* object) const noexcept {
    release(object);
  }
};

// All of them are wiped when they are released: most hold secrets at some time.
using BigNum = std::unique_ptr<BIGNUM, Release<&BN_clear_free>>;
using BigNumContext = std::unique_ptr<BN_CTX, Release<&BN_CTX_free>>;
using MontgomeryContext = std::unique_ptr<BN_MONT_CTX, Release<&BN_MONT_CTX_free>>;
using Curve = std::unique_ptr<EC_GROUP, Release<&EC_GROUP_free>>;
using CurvePoint = std::unique_ptr<EC_POINT, Release<&EC_POINT_clear_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, Release<&EVP_MAC_CTX_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Release<&EVP_CIPHER_CTX_free>>;

/// The cipher of that name ("AES-128-GCM", "AES-256-CBC", "ChaCha20"), null when libcrypto has
/// none. Fetched on the first call and valid until the process ends; later calls cost a lookup by
/// name, so a caller on a hot path keeps the handle. Safe to call from several threads.
const EVP_CIPHER* cipher(const std::string& name);

/// An HMAC context over `digest` ("SHA2-512") that has no key yet, null when libcrypto has no such
/// digest. It copies a context made once per process: no algorithm is fetched from the second call
/// on. Safe to call from several threads.
MacContext hmacContext(const std::string& digest);

}  // namespace tessel::libcrypto
