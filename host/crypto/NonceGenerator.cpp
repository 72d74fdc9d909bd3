#include "host/crypto/NonceGenerator.h"

#include <algorithm>
#include <utility>

#include "host/crypto/RandomSource.h"

namespace tessel {

bool NonceGenerator::generateNonce(Bytes* nonce) const {
  Bytes fresh(nonceLen);
  if (!RandomSource::current()->fill(fresh)) {
    return false;
  }
  *nonce = std::move(fresh);
  return true;
}

bool NonceGenerator::generateFullNonce(SecretBytes* full, BytesView first, BytesView second) const {
  if (first.empty() || second.empty()) {
    return false;
  }
  SecretBytes both(first.size() + second.size());
  std::ranges::copy(second, std::ranges::copy(first, both.data()).out);
  *full = std::move(both);
  return true;
}

}  // namespace tessel
