#include "host/crypto/Libcrypto.h"

#include <map>
#include <mutex>

#include <openssl/core_names.h>
#include <openssl/params.h>

namespace tessel::libcrypto {
namespace {

using FetchedCipher = std::unique_ptr<EVP_CIPHER, Release<&EVP_CIPHER_free>>;
using FetchedMac = std::unique_ptr<EVP_MAC, Release<&EVP_MAC_free>>;

/// Things made once per name, failures included: what libcrypto lacks, it lacks for good. Never
/// freed: contexts in other static objects may outlive anything that ends here.
template <class Owner, class Make>
auto* madeOnce(const std::string& name, Make make) {
  static std::mutex mutex;
  static auto& made = *new std::map<std::string, Owner>;
  const std::lock_guard lock(mutex);
  auto found = made.find(name);
  if (found == made.end()) {
    found = made.emplace(name, make(name)).first;
  }
  return found->second.get();
}

MacContext makeHmacContext(const std::string& digest) {
  static const FetchedMac hmac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
  MacContext context(hmac ? EVP_MAC_CTX_new(hmac.get()) : nullptr);
  std::string name = digest;
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name.data(), 0),
      OSSL_PARAM_construct_end()};
  if (!context || EVP_MAC_CTX_set_params(context.get(), params) != 1) {
    return nullptr;
  }
  return context;
}

}  // namespace

const EVP_CIPHER* cipher(const std::string& name) {
  return madeOnce<FetchedCipher>(name, [](const std::string& wanted) {
    return FetchedCipher(EVP_CIPHER_fetch(nullptr, wanted.c_str(), nullptr));
  });
}

MacContext hmacContext(const std::string& digest) {
  const EVP_MAC_CTX* model = madeOnce<MacContext>(digest, makeHmacContext);
  return MacContext(model != nullptr ? EVP_MAC_CTX_dup(model) : nullptr);
}

}  // namespace tessel::libcrypto
