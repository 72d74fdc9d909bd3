#include "Esp.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <endian.h>
#include <openssl/rand.h>

namespace {

constexpr size_t kHeader = 8, kIv = 8, kTrailer = 2, kIcv = 16, kSalt = 4, kAlign = 4;
constexpr uint8_t kNoNextHeader = 59;  // The payload is our own; no IP packet.

void require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(std::string("esp: ") + what);
  }
}

template <class Number>
void put(uint8_t* to, Number networkOrder) {
  std::memcpy(to, &networkOrder, sizeof networkOrder);
}

}  // namespace

Esp::Esp(const tessel::Ike::SecurityAssociation& sa)
    : spi_(sa.sakey().spi), cipher_(EVP_CIPHER_CTX_new()) {
  const tessel::BytesView key = sa.cryptoKey().view();  // Ends with the salt.
  require(sa.cryptoAlgo() == "rfc4106(gcm(aes))" && sa.icvLen() == kIcv * 8, "not AES-GCM");
  require(key.size() == 32 + kSalt || key.size() == 16 + kSalt, "no key length of AES-GCM");
  salt_ = tessel::SecretBytes(key.last(kSalt));
  const EVP_CIPHER* const kind = key.size() == 32 + kSalt ? EVP_aes_256_gcm() : EVP_aes_128_gcm();
  require(cipher_ && EVP_CipherInit_ex2(cipher_.get(), kind, key.data(), nullptr, 1, nullptr) == 1,
          "libcrypto refuses the key");
  // Many SAs share one key, in both directions: a counter from 0 would repeat IVs.
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&iv_), sizeof iv_) == 1, "no randomness");
}

uint32_t Esp::spiOf(tessel::BytesView packet) {
  uint32_t spi = 0;
  if (packet.size() >= sizeof spi) {
    std::memcpy(&spi, packet.data(), sizeof spi);
  }
  return ntohl(spi);
}

tessel::Bytes Esp::seal(tessel::BytesView payload) {
  require(++sequence_ != 0, "sequence numbers used up");
  const size_t padding = (kAlign - (payload.size() + kTrailer) % kAlign) % kAlign;
  const size_t text = payload.size() + padding + kTrailer;
  tessel::Bytes packet(kHeader + kIv + text + kIcv);
  uint8_t* const in = packet.data() + kHeader + kIv;
  put(packet.data(), htonl(spi_));
  put(packet.data() + 4, htonl(sequence_));
  put(packet.data() + kHeader, htobe64(iv_++));
  std::copy(payload.begin(), payload.end(), in);
  for (size_t i = 0; i < padding; ++i) {
    in[payload.size() + i] = static_cast<uint8_t>(i + 1);
  }
  in[text - 2] = static_cast<uint8_t>(padding);
  in[text - 1] = kNoNextHeader;

  std::array<uint8_t, kSalt + kIv> nonce;
  std::copy_n(salt_.data(), kSalt, nonce.begin());
  std::copy_n(packet.data() + kHeader, kIv, nonce.begin() + kSalt);
  int size = 0;
  EVP_CIPHER_CTX* const c = cipher_.get();
  require(EVP_CipherInit_ex2(c, nullptr, nullptr, nonce.data(), 1, nullptr) == 1 &&
              EVP_CipherUpdate(c, nullptr, &size, packet.data(), kHeader) == 1 &&
              EVP_CipherUpdate(c, in, &size, in, static_cast<int>(text)) == 1 &&
              EVP_CipherFinal_ex(c, in + text, &size) == 1 &&
              EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_GET_TAG, kIcv, in + text) == 1,
          "cannot seal");
  return packet;
}

std::optional<tessel::Bytes> Esp::open(tessel::BytesView packet) {
  if (packet.size() < kHeader + kIv + kTrailer + kIcv) {
    return std::nullopt;
  }
  const size_t text = packet.size() - kHeader - kIv - kIcv;
  tessel::Bytes icv(packet.end() - kIcv, packet.end());
  tessel::Bytes plain(text);
  std::array<uint8_t, kSalt + kIv> nonce;
  std::copy_n(salt_.data(), kSalt, nonce.begin());
  std::copy_n(packet.data() + kHeader, kIv, nonce.begin() + kSalt);
  int size = 0;
  EVP_CIPHER_CTX* const c = cipher_.get();
  require(EVP_CipherInit_ex2(c, nullptr, nullptr, nonce.data(), 0, nullptr) == 1 &&
              EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_SET_TAG, kIcv, icv.data()) == 1 &&
              EVP_CipherUpdate(c, nullptr, &size, packet.data(), kHeader) == 1 &&
              EVP_CipherUpdate(c, plain.data(), &size, packet.data() + kHeader + kIv,
                               static_cast<int>(text)) == 1,
          "cannot open");
  const size_t padding = plain[text - 2];
  if (EVP_CipherFinal_ex(c, plain.data() + text, &size) != 1 || padding + kTrailer > text) {
    return std::nullopt;  // Forged, damaged, or of another key.
  }
  plain.resize(text - kTrailer - padding);
  return plain;
}
