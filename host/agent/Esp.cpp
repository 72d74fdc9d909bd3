#include "host/agent/Esp.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <openssl/crypto.h>

#include "host/model/ByteOrder.h"

namespace tessel {
namespace {

constexpr size_t kTrailerSize = 2;  // Pad length and next header.
constexpr size_t kSaltSize = 4;
constexpr size_t kGcmIvSize = 8;
constexpr size_t kAesBlockSize = 16;
constexpr size_t kMaxDigestSize = 64;
constexpr std::array<uint8_t, 4> kNonceMark = {'T', 'S', 'L', 'N'};

struct IntegrityRow {
  const char* name;
  HashAlgorithm hash;
  uint16_t keyBits;  // Also the length of the digest.
  uint16_t defaultTruncBits;
};
constexpr std::array<IntegrityRow, 5> kIntegrity = {{
    {"md5", HashAlgorithm::md5, 128, 96},               // RFC 2403
    {"sha1", HashAlgorithm::sha1, 160, 96},             // RFC 2404
    {"hmac(sha256)", HashAlgorithm::sha256, 256, 128},  // RFC 4868
    {"hmac(sha384)", HashAlgorithm::sha384, 384, 192},
    {"hmac(sha512)", HashAlgorithm::sha512, 512, 256},
}};
constexpr uint16_t kMinTruncBits = 64;

[[noreturn]] void refuse(const char* attribute, const std::string& value, const std::string& why) {
  throw std::invalid_argument(std::string(attribute) + " " + value + ": " + why);
}

[[noreturn]] void refuseLength(const char* attribute, size_t bits, const std::string& algorithm) {
  refuse(attribute, std::to_string(bits) + " bits", "does not fit " + algorithm);
}

void require(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(std::string("ESP: libcrypto failed to ") + what);
  }
}

int asInt(size_t size) {
  return static_cast<int>(size);
}

/// A context for one cipher and key; the IV comes with each packet.
libcrypto::CipherContext keyedCipher(const std::string& name, BytesView key, bool seal) {
  const EVP_CIPHER* const cipher = libcrypto::cipher(name);
  require(cipher != nullptr, "find a cipher");
  libcrypto::CipherContext context(EVP_CIPHER_CTX_new());
  require(context && EVP_CipherInit_ex2(context.get(), cipher, key.data(), nullptr, seal ? 1 : 0,
                                        nullptr) == 1,
          "set a cipher key");
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  return context;
}

/// Encrypts or decrypts `text` in place.
bool crypt(EVP_CIPHER_CTX* context, std::span<uint8_t> text) {
  int size = 0;
  return EVP_CipherUpdate(context, text.data(), &size, text.data(), asInt(text.size())) == 1 &&
         size == asInt(text.size());
}

/// First eight bytes of the digest of all that makes an SA's keys.
uint64_t digestKeys(const Ike::SecurityAssociation& sa, bool withIntegrity) {
  std::string algorithms = sa.cryptoAlgo() + '\0' + std::to_string(sa.cryptoKeyLen()) + '\0';
  if (withIntegrity) {
    algorithms += sa.authAlgo();
  }
  SecretBytes text(
      BytesView(reinterpret_cast<const uint8_t*>(algorithms.data()), algorithms.size()));
  text.append(sa.cryptoKey().view());
  if (withIntegrity) {
    text.append(sa.authKey().view());
  }
  std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
  require(EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1,
          "digest");
  return get64(digest.data());
}

}  // namespace

EspTransform::EspTransform(const Ike::SecurityAssociation& sa, Use use, Ptr<RandomSource> random)
    : random_(std::move(random)) {
  const bool seal = use == Use::seal;
  const std::string& algorithm = sa.cryptoAlgo();
  if (sa.cryptoKey().size() * 8 != sa.cryptoKeyLen()) {
    refuse("cryptoKey", std::to_string(sa.cryptoKey().size() * 8) + " bits",
           "cryptoKeyLen is " + std::to_string(sa.cryptoKeyLen()));
  }
  if (algorithm == "rfc4106(gcm(aes))") {
    initGcm(sa, seal);
  } else if (algorithm == "aes") {
    initCbc(sa, seal);
    initHmac(sa);
  } else if (algorithm == "cipher_null") {
    if (sa.cryptoKeyLen() != 0) {
      refuseLength("cryptoKeyLen", sa.cryptoKeyLen(), algorithm);
    }
    initHmac(sa);
  } else {
    refuse("cryptoAlgo", '"' + algorithm + '"', "no such algorithm");
  }
  keyTag_ = digestKeys(sa, hmac_.has_value());
}

EspTransform::~EspTransform() = default;
EspTransform::EspTransform(EspTransform&& other) noexcept = default;
EspTransform& EspTransform::operator=(EspTransform&& other) noexcept = default;

void EspTransform::fillRandom(std::span<uint8_t> out) {
  if (!random_->fill(out)) {
    throw std::runtime_error("ESP: the random source failed");
  }
}

void EspTransform::initGcm(const Ike::SecurityAssociation& sa, bool seal) {
  const size_t keySize = sa.cryptoKey().size() - std::min(sa.cryptoKey().size(), kSaltSize);
  if (keySize != 16 && keySize != 24 && keySize != 32) {
    refuseLength("cryptoKeyLen", sa.cryptoKeyLen(), sa.cryptoAlgo());
  }
  if (sa.icvLen() != 64 && sa.icvLen() != 128) {
    refuseLength("icvLen", sa.icvLen(), sa.cryptoAlgo());
  }
  ivSize_ = kGcmIvSize;
  icvSize_ = sa.icvLen() / 8U;
  salt_ = SecretBytes(sa.cryptoKey().view().subspan(keySize));  // The salt stands behind the key.
  cipher_ = keyedCipher("AES-" + std::to_string(keySize * 8) + "-GCM",
                        sa.cryptoKey().view().first(keySize), seal);
  if (seal) {
    // Many SAs share a key: a random start keeps their counters apart.
    std::array<uint8_t, kGcmIvSize> start{};
    fillRandom(start);
    ivCounter_ = get64(start.data());
  }
}

void EspTransform::initCbc(const Ike::SecurityAssociation& sa, bool seal) {
  const uint16_t bits = sa.cryptoKeyLen();
  if (bits != 128 && bits != 192 && bits != 256) {
    refuseLength("cryptoKeyLen", bits, sa.cryptoAlgo());
  }
  ivSize_ = kAesBlockSize;
  blockSize_ = kAesBlockSize;
  cipher_ = keyedCipher("AES-" + std::to_string(bits) + "-CBC", sa.cryptoKey().view(), seal);
}

void EspTransform::initHmac(const Ike::SecurityAssociation& sa) {
  const auto* const row = std::ranges::find_if(
      kIntegrity, [&](const IntegrityRow& each) { return sa.authAlgo() == each.name; });
  if (row == kIntegrity.end()) {
    refuse("authAlgo", '"' + sa.authAlgo() + '"', "no such algorithm");
  }
  if (sa.authKeyLen() != row->keyBits) {
    refuseLength("authKeyLen", sa.authKeyLen(), sa.authAlgo());
  }
  if (sa.authKey().size() * 8 != sa.authKeyLen()) {
    refuse("authKey", std::to_string(sa.authKey().size() * 8) + " bits",
           "authKeyLen is " + std::to_string(sa.authKeyLen()));
  }
  const uint16_t trunc = sa.authTruncLen() == 0 ? row->defaultTruncBits : sa.authTruncLen();
  if (trunc % 8 != 0 || trunc < kMinTruncBits || trunc > row->keyBits) {
    refuseLength("authTruncLen", trunc, sa.authAlgo());
  }
  icvSize_ = trunc / 8U;
  digestSize_ = row->keyBits / 8U;
  hmac_.emplace();
  require(hmac_->initHmacPRFunc(row->hash) && hmac_->setKey(sa.authKey()), "set an HMAC key");
}

size_t EspTransform::sealedSize(size_t payloadSize) const {
  const size_t text = (payloadSize + kTrailerSize + blockSize_ - 1) / blockSize_ * blockSize_;
  return kEspHeaderSize + ivSize_ + text + icvSize_;
}

void EspTransform::seal(uint32_t spi, uint32_t sequence, BytesView inner, BytesView tfc,
                        uint8_t nextHeader, std::span<uint8_t> out) {
  put32(out.data(), spi);
  put32(out.data() + 4, sequence);
  const std::span<uint8_t> text =
      out.subspan(kEspHeaderSize + ivSize_, out.size() - kEspHeaderSize - ivSize_ - icvSize_);
  std::copy(inner.begin(), inner.end(), text.begin());
  std::copy(tfc.begin(), tfc.end(), text.begin() + static_cast<std::ptrdiff_t>(inner.size()));
  const size_t padding = text.size() - inner.size() - tfc.size() - kTrailerSize;
  uint8_t* pad = text.data() + inner.size() + tfc.size();
  for (size_t i = 1; i <= padding; ++i) {
    *pad++ = static_cast<uint8_t>(i);
  }
  *pad++ = static_cast<uint8_t>(padding);
  *pad = nextHeader;
  if (!hmac_) {
    sealGcm(out, text.size());
    return;
  }
  if (cipher_) {
    const std::span<uint8_t> iv = out.subspan(kEspHeaderSize, ivSize_);
    fillRandom(iv);
    require(EVP_CipherInit_ex2(cipher_.get(), nullptr, nullptr, iv.data(), 1, nullptr) == 1 &&
                crypt(cipher_.get(), text),
            "encrypt");
  }
  std::array<uint8_t, kMaxDigestSize> digest{};
  const std::span<uint8_t> result(digest.data(), digestSize_);
  require(hmac_->compute({out.first(out.size() - icvSize_)}, result), "compute an ICV");
  std::copy_n(digest.begin(), icvSize_, out.end() - static_cast<std::ptrdiff_t>(icvSize_));
}

// The nonce is salt | IV, the additional data SPI | sequence number (RFC 4106).
void EspTransform::sealGcm(std::span<uint8_t> out, size_t textSize) {
  std::array<uint8_t, kSaltSize + kGcmIvSize> nonce{};
  std::copy_n(salt_.data(), kSaltSize, nonce.begin());
  put64(nonce.data() + kSaltSize, ivCounter_++);
  std::copy_n(nonce.data() + kSaltSize, kGcmIvSize, out.data() + kEspHeaderSize);
  int size = 0;
  EVP_CIPHER_CTX* const context = cipher_.get();
  const std::span<uint8_t> text = out.subspan(kEspHeaderSize + ivSize_, textSize);
  require(EVP_EncryptInit_ex2(context, nullptr, nullptr, nonce.data(), nullptr) == 1 &&
              EVP_EncryptUpdate(context, nullptr, &size, out.data(), asInt(kEspHeaderSize)) == 1 &&
              crypt(context, text) &&
              EVP_EncryptFinal_ex(context, text.data() + textSize, &size) == 1 &&
              EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, asInt(icvSize_),
                                  text.data() + textSize) == 1,
          "encrypt");
  wipeMemory(nonce.data(), kSaltSize);
}

EspTransform::Opened EspTransform::open(std::span<uint8_t> esp) {
  const size_t around = kEspHeaderSize + ivSize_ + icvSize_;
  const size_t textSize = esp.size() < around ? 0 : esp.size() - around;
  if (textSize == 0 || textSize % blockSize_ != 0) {
    return {.failure = Failure::malformed};
  }
  const std::span<uint8_t> text = esp.subspan(kEspHeaderSize + ivSize_, textSize);
  if (!hmac_) {
    if (!openGcm(esp, textSize)) {
      return {.failure = Failure::badIcv};
    }
  } else {
    std::array<uint8_t, kMaxDigestSize> digest{};
    require(hmac_->compute({esp.first(esp.size() - icvSize_)}, {digest.data(), digestSize_}),
            "compute an ICV");
    if (CRYPTO_memcmp(digest.data(), text.data() + textSize, icvSize_) != 0) {
      return {.failure = Failure::badIcv};
    }
    if (cipher_) {
      const uint8_t* const iv = esp.data() + kEspHeaderSize;
      require(EVP_CipherInit_ex2(cipher_.get(), nullptr, nullptr, iv, 0, nullptr) == 1 &&
                  crypt(cipher_.get(), text),
              "decrypt");
    }
  }
  const size_t padding = text[textSize - kTrailerSize];
  if (padding + kTrailerSize > textSize) {
    return {.failure = Failure::malformed};
  }
  const size_t payloadSize = textSize - kTrailerSize - padding;
  for (size_t i = 0; i < padding; ++i) {
    if (text[payloadSize + i] != i + 1) {
      return {.failure = Failure::malformed};
    }
  }
  return {.failure = Failure::none,
          .nextHeader = text[textSize - 1],
          .payload = text.first(payloadSize)};
}

bool EspTransform::openGcm(std::span<uint8_t> esp, size_t textSize) {
  std::array<uint8_t, kSaltSize + kGcmIvSize> nonce{};
  std::copy_n(salt_.data(), kSaltSize, nonce.begin());
  std::copy_n(esp.data() + kEspHeaderSize, kGcmIvSize, nonce.data() + kSaltSize);
  int size = 0;
  EVP_CIPHER_CTX* const context = cipher_.get();
  const std::span<uint8_t> text = esp.subspan(kEspHeaderSize + ivSize_, textSize);
  require(EVP_DecryptInit_ex2(context, nullptr, nullptr, nonce.data(), nullptr) == 1 &&
              EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, asInt(icvSize_),
                                  text.data() + textSize) == 1 &&
              EVP_DecryptUpdate(context, nullptr, &size, esp.data(), asInt(kEspHeaderSize)) == 1 &&
              crypt(context, text),
          "decrypt");
  wipeMemory(nonce.data(), kSaltSize);
  return EVP_DecryptFinal_ex(context, text.data() + textSize, &size) == 1;
}

ReplayWindow::Verdict ReplayWindow::check(uint32_t sequence) const {
  if (sequence == 0) {
    return Verdict::tooOld;  // Numbers start at 1.
  }
  if (sequence > highest_) {
    return Verdict::fresh;
  }
  const uint32_t behind = highest_ - sequence;
  if (behind >= kSize) {
    return Verdict::tooOld;
  }
  return (seen_ >> behind & 1U) != 0 ? Verdict::replayed : Verdict::fresh;
}

void ReplayWindow::accept(uint32_t sequence) {
  if (sequence > highest_) {
    const uint32_t ahead = sequence - highest_;
    seen_ = ahead < kSize ? seen_ << ahead : 0;
    highest_ = sequence;
  }
  seen_ |= uint64_t{1} << (highest_ - sequence);
}

uint32_t espNonceOf(const Ike::SecurityAssociation& sa) {
  if (!sa.rekey()) {
    return 0;
  }
  std::array<uint8_t, sizeof(uint32_t)> wire{};
  const uint32_t nonce = sa.nonce();
  std::memcpy(wire.data(), &nonce, wire.size());  // It is in network byte order already.
  return get32(wire.data());
}

std::array<uint8_t, kEspNonceSize> espNonceBytes(uint32_t nonceWord) {
  std::array<uint8_t, kEspNonceSize> bytes{};
  std::copy(kNonceMark.begin(), kNonceMark.end(), bytes.begin());
  put32(bytes.data() + kNonceMark.size(), nonceWord);
  return bytes;
}

std::optional<uint32_t> readEspNonce(BytesView tfc) {
  if (tfc.size() < kEspNonceSize ||
      !std::equal(kNonceMark.begin(), kNonceMark.end(), tfc.begin())) {
    return std::nullopt;
  }
  return get32(tfc.data() + kNonceMark.size());
}

std::optional<EspHeader> readEspHeader(BytesView esp) {
  if (esp.size() < kEspHeaderSize) {
    return std::nullopt;
  }
  const EspHeader header = {.spi = get32(esp.data()), .sequence = get32(esp.data() + 4)};
  return header.spi == 0 ? std::nullopt : std::optional(header);  // 0 marks IKE in UDP.
}

}  // namespace tessel
