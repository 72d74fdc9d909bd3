#include "host/crypto/HmacPRFunc.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tessel {
namespace {

const char* digestName(HashAlgorithm algorithm) {
  switch (algorithm) {
    case HashAlgorithm::md5:
      return "MD5";
    case HashAlgorithm::sha1:
      return "SHA1";
    case HashAlgorithm::sha256:
      return "SHA2-256";
    case HashAlgorithm::sha384:
      return "SHA2-384";
    case HashAlgorithm::sha512:
      return "SHA2-512";
  }
  return nullptr;  // A number from outside, cast.
}

}  // namespace

std::string stringValue(HashAlgorithm algorithm) {
  static constexpr const char* names[] = {"md5", "sha1", "sha256", "sha384", "sha512"};
  const auto number = static_cast<size_t>(algorithm);
  const char* name = number < std::size(names) ? names[number] : "unknown";
  return std::string(name) + "(" + std::to_string(number) + ")";
}

bool HmacPRFunc::initHmacPRFunc(HashAlgorithm algorithm) {
  const char* name = digestName(algorithm);
  context_ = name != nullptr ? libcrypto::hmacContext(name) : nullptr;
  hasKey_ = false;
  return context_ != nullptr;
}

bool HmacPRFunc::setKey(BytesView key) {
  hasKey_ = context_ && !key.empty() &&
            EVP_MAC_init(context_.get(), key.data(), key.size(), nullptr) == 1;
  return hasKey_;
}

bool HmacPRFunc::generatePRStream(BytesView data, SecretBytes* out) const {
  SecretBytes result(outputLen());
  if (!compute({data}, result.span())) {
    return false;
  }
  *out = std::move(result);
  return true;
}

bool HmacPRFunc::compute(std::initializer_list<BytesView> data, std::span<uint8_t> out) const {
  EVP_MAC_CTX* context = context_.get();
  // Without a key argument the context starts over with the key that it has.
  if (!hasKey_ || EVP_MAC_init(context, nullptr, 0, nullptr) != 1) {
    return false;
  }
  const auto update = [context](BytesView piece) {
    return EVP_MAC_update(context, piece.data(), piece.size()) == 1;
  };
  size_t length = 0;
  return std::ranges::all_of(data, update) &&
         EVP_MAC_final(context, out.data(), &length, out.size()) == 1;
}

size_t HmacPRFunc::outputLen() const {
  return context_ ? EVP_MAC_CTX_get_mac_size(context_.get()) : 0;
}

}  // namespace tessel
