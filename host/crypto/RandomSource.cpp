#include "host/crypto/RandomSource.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include <openssl/rand.h>

namespace tessel {
namespace {

Ptr<RandomSource>& currentSource() {
  static Ptr<RandomSource> source = makePtr<SystemRandomSource>();
  return source;
}

/// Finalizer of SplitMix64: every input bit reaches every output bit.
uint64_t mix(uint64_t value) {
  value += 0x9E3779B97F4A7C15U;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31);
}

}  // namespace

Ptr<RandomSource> RandomSource::current() {
  return currentSource();
}

void RandomSource::currentIs(Ptr<RandomSource> source) {
  currentSource() = source ? std::move(source) : makePtr<SystemRandomSource>();
}

bool SystemRandomSource::fill(std::span<uint8_t> out) {
  return out.size() <= std::numeric_limits<int>::max() &&
         RAND_bytes(out.data(), static_cast<int>(out.size())) == 1;
}

SeededRandomSource::SeededRandomSource(uint64_t seed) : seed_(seed), stream_(EVP_CIPHER_CTX_new()) {
  std::array<uint8_t, 32> key{};
  for (size_t i = 0; i < sizeof(seed); ++i) {
    key[i] = static_cast<uint8_t>(seed >> (8 * i));
  }
  const std::array<uint8_t, 16> counterAndNonce{};
  const EVP_CIPHER* chacha = libcrypto::cipher("ChaCha20");
  if (!stream_ || chacha == nullptr ||
      EVP_EncryptInit_ex2(stream_.get(), chacha, key.data(), counterAndNonce.data(), nullptr) !=
          1) {
    stream_.reset();
  }
}

bool SeededRandomSource::fill(std::span<uint8_t> out) {
  if (!stream_ || out.size() > std::numeric_limits<int>::max()) {
    return false;
  }
  std::ranges::fill(out, uint8_t{0});
  int length = 0;
  drawn_ += out.size();
  return EVP_EncryptUpdate(stream_.get(), out.data(), &length, out.data(),
                           static_cast<int>(out.size())) == 1;
}

uint64_t SeededRandomSource::stateHash() const {
  return mix(mix(seed_) ^ drawn_);
}

}  // namespace tessel
