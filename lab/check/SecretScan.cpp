#include "lab/check/SecretScan.h"

#include <cstring>

#include "host/model/ByteOrder.h"
#include "lab/run/LabRandom.h"
#include "sm/LocalKey.h"

namespace tessel::lab {
namespace {

constexpr size_t kShortest = 16;
constexpr int kNoDigit = -1;
constexpr int kSeparator = -2;

constexpr std::array<int8_t, 256> makeDigits() {
  std::array<int8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (int i = 0; i < 10; ++i) {
    digits[static_cast<size_t>('0' + i)] = static_cast<int8_t>(i);
  }
  for (int i = 0; i < 6; ++i) {
    digits[static_cast<size_t>('a' + i)] = static_cast<int8_t>(10 + i);
    digits[static_cast<size_t>('A' + i)] = static_cast<int8_t>(10 + i);
  }
  digits[':'] = kSeparator;
  digits[' '] = kSeparator;
  return digits;
}
constexpr std::array<int8_t, 256> kDigits = makeDigits();

size_t filterBit(uint64_t prefix) {
  return static_cast<size_t>(prefix >> 48U);
}

}  // namespace

void SecretScan::follow(LabRandom& random) {
  random.drawnIs([this](std::string_view drawer, BytesView bytes) {
    if (drawer.find('/') == std::string_view::npos) {  // Data paths draw what they send: IVs.
      add(bytes, "private key or unpublished nonce");
    }
  });
}

void SecretScan::add(BytesView secret, const char* what) {
  if (secret.size() < kShortest) {
    return;
  }
  const uint64_t prefix = get64(secret.data());
  if (!published_.contains(prefix)) {
    byPrefix_.emplace(prefix, what);
    filter_.set(filterBit(prefix));
  }
}

void SecretScan::publish(BytesView nonce) {
  if (nonce.size() >= kShortest) {
    const uint64_t prefix = get64(nonce.data());
    published_.insert(prefix);
    byPrefix_.erase(prefix);
  }
}

void SecretScan::collect(const Router& router) {
  for (const auto& [key, sa] : router.entities().tesselV1->sa()) {
    add(sa->cryptoKey().view(), "encryption key of an SA");
    add(sa->authKey().view(), "integrity key of an SA");
  }
  if (!router.running().machine) {
    return;
  }
  for (const auto& [count, generation] : router.machine().localKey().localKeyInfo()) {
    add(generation->privateKey.view(), "private key");
    for (const auto& [peer, shared] : generation->sharedSecret()) {
      add(shared.secret.view(), "shared secret");
    }
  }
  for (const auto& [peer, state] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
      add(crypto->cryptoInfo().firstEncryptionKey.view(), "derived encryption key");
      add(crypto->cryptoInfo().secondEncryptionKey.view(), "derived encryption key");
      add(crypto->cryptoInfo().firstIntegrityKey.view(), "derived integrity key");
      add(crypto->cryptoInfo().secondIntegrityKey.view(), "derived integrity key");
    }
  }
}

const char* SecretScan::find(std::string_view output) const {
  uint64_t raw = 0;
  uint64_t hex = 0;
  size_t rawSize = 0;
  size_t digits = 0;
  for (const char character : output) {
    const auto byte = static_cast<uint8_t>(character);
    raw = raw << 8U | byte;
    if (++rawSize >= kPrefix) {
      if (const char* const found = lookUp(raw)) {
        return found;
      }
    }
    const int8_t digit = kDigits[byte];
    if (digit >= 0) {
      hex = hex << 4U | static_cast<uint64_t>(digit);
      if (++digits >= 2 * kPrefix) {
        if (const char* const found = lookUp(hex)) {
          return found;
        }
      }
    } else if (digit == kNoDigit) {
      digits = 0;
    }
  }
  return nullptr;
}

const char* SecretScan::lookUp(uint64_t prefix) const {
  if (!filter_.test(filterBit(prefix))) {
    return nullptr;
  }
  const auto found = byPrefix_.find(prefix);
  return found == byPrefix_.end() ? nullptr : found->second;
}

}  // namespace tessel::lab
