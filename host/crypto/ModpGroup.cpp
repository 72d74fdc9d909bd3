// The MODP groups: exponentiation modulo a prime.
#include <array>
#include <utility>

#include "host/crypto/DhGroup.h"

namespace tessel {
namespace {

using libcrypto::BigNum;
using libcrypto::BigNumContext;
using libcrypto::MontgomeryContext;

// RFC 5114 section 2.3: prime, generator and the order of the generator's subgroup.
constexpr const char* group24Prime =
    "87A8E61DB4B6663CFFBBD19C651959998CEEF608660DD0F25D2CEED4435E3B00"
    "E00DF8F1D61957D4FAF7DF4561B2AA3016C3D91134096FAA3BF4296D830E9A7C"
    "209E0C6497517ABD5A8A9D306BCF67ED91F9E6725B4758C022E0B1EF4275BF7B"
    "6C5BFC11D45F9088B941F54EB1E59BB8BC39A0BF12307F5C4FDB70C581B23F76"
    "B63ACAE1CAA6B7902D52526735488A0EF13C6D9A51BFA4AB3AD8347796524D8E"
    "F6A167B5A41825D967E144E5140564251CCACB83E6B486F6B3CA3F7971506026"
    "C0B857F689962856DED4010ABD0BE621C3A3960A54E710C375F26375D7014103"
    "A4B54330C198AF126116D2276E11715F693877FAD7EF09CADB094AE91E1A1597";
constexpr const char* group24Generator =
    "3FB32C9B73134D0B2E77506660EDBD484CA7B18F21EF205407F4793A1A0BA125"
    "10DBC15077BE463FFF4FED4AAC0BB555BE3A6C1B0C6B47B1BC3773BF7E8C6F62"
    "901228F8C28CBB18A55AE31341000A650196F931C77A57F2DDF463E5E9EC144B"
    "777DE62AAAB8A8628AC376D282D6ED3864E67982428EBC831D14348F6F2F9193"
    "B5045AF2767164E1DFC967C1FB3F2E55A4BD1BFFE83B9C80D052B985D182EA0A"
    "DB2A3B7313D3FE14C8484B1E052588B9B7D2BBD2DF016199ECD06E1557CD0915"
    "B3353BBB64E0EC377FD028370DF92B52C7891428CDC67EB6184B523D1DB246C3"
    "2F63078490F00EF8D647D148D47954515E2327CFEF98C582664B4C0F6CC41659";
constexpr const char* group24Order =
    "8CF83642A709A097B447997640129DA299B1A47D1EB3750BA308B0FE64F5FBD3";

struct ModpRow {
  DhGroupNum number;
  BIGNUM* (*prime)(BIGNUM*);
  int privateKeyBits;
};

// Exponents of twice the group's strength: 1536 bits and fewer by RFC 3526 section 8 (90 bits for
// 1536) and NIST SP 800-57 (80 bits for 1024), from 2048 bits on by RFC 7919 section 5.2 and
// appendix A (225, 275, 325 and 375 bits). Each is rounded up to whole 64-bit words, because the
// constant-time exponentiation works on words: the added bits cost nothing.
constexpr std::array<ModpRow, 7> safePrimeGroups{{
    {1, &BN_get_rfc2409_prime_768, 192},
    {2, &BN_get_rfc2409_prime_1024, 192},
    {5, &BN_get_rfc3526_prime_1536, 192},
    {14, &BN_get_rfc3526_prime_2048, 256},
    {15, &BN_get_rfc3526_prime_3072, 320},
    {16, &BN_get_rfc3526_prime_4096, 384},
    {17, &BN_get_rfc3526_prime_6144, 384},
}};

BigNum numberOfHex(const char* hex) {
  BIGNUM* number = nullptr;
  BN_hex2bn(&number, hex);
  return BigNum(number);
}

class ModpGroup final : public DhGroup {
 public:
  /// A group whose prime is p = 2q + 1; the generator 2 has order q.
  explicit ModpGroup(const ModpRow& row)
      : safePrime_(true), prime_(row.prime(nullptr)), generator_(numberOfHex("2")) {
    BigNum order(BN_new());
    if (prime_ && order && BN_rshift1(order.get(), prime_.get()) == 1) {
      finish(std::move(order), row.privateKeyBits);
    }
  }

  /// Group 24, whose subgroup is much smaller than (p - 1) / 2.
  ModpGroup()
      : safePrime_(false),
        prime_(numberOfHex(group24Prime)),
        generator_(numberOfHex(group24Generator)) {
    BigNum order = numberOfHex(group24Order);
    if (prime_ && order) {
      const int bits = BN_num_bits(order.get());
      finish(std::move(order), bits);
    }
  }

  bool isPublicKeyValid(BytesView key) const override {
    const BigNum y = publicNumber(key);
    if (!y || BN_cmp(y.get(), BN_value_one()) <= 0 || BN_cmp(y.get(), primeMinusOne_.get()) >= 0) {
      return false;
    }
    // With a safe prime the only small subgroups are {1} and {1, p - 1} (RFC 6989 section 2.1).
    return safePrime_ || isInSubgroup(y.get());
  }

  bool publicKey(const BIGNUM* privateKey, Bytes* out) const override {
    Bytes key(publicKeyLen());
    if (!power(generator_.get(), privateKey, key)) {
      return false;
    }
    *out = std::move(key);
    return true;
  }

  bool sharedSecret(const BIGNUM* privateKey, BytesView peerKey, SecretBytes* out) const override {
    const BigNum y = publicNumber(peerKey);
    SecretBytes secret(sharedSecretLen());
    if (!y || !power(y.get(), privateKey, secret.span())) {
      return false;
    }
    *out = std::move(secret);
    return true;
  }

 private:
  void finish(BigNum order, int privateKeyBits) {
    const BigNumContext scratch(BN_CTX_new());
    primeMinusOne_.reset(BN_dup(prime_.get()));
    montgomery_.reset(BN_MONT_CTX_new());
    if (generator_ && scratch && primeMinusOne_ && montgomery_ &&
        BN_sub_word(primeMinusOne_.get(), 1) == 1 &&
        BN_MONT_CTX_set(montgomery_.get(), prime_.get(), scratch.get()) == 1) {
      const auto primeLen = static_cast<size_t>(BN_num_bytes(prime_.get()));
      sizesAre(primeLen, primeLen, privateKeyBits, std::move(order));
    }
  }

  BigNum publicNumber(BytesView key) const {
    return key.size() == publicKeyLen() ? numberOf(key) : nullptr;
  }

  bool isInSubgroup(const BIGNUM* y) const {
    const BigNumContext scratch(BN_CTX_new());
    const BigNum result(BN_new());
    return scratch && result &&
           BN_mod_exp_mont(result.get(), y, order(), prime_.get(), scratch.get(),
                           montgomery_.get()) == 1 &&
           BN_is_one(result.get());
  }

  /// base ^ exponent mod p in a time that does not depend on the exponent, padded to `out`.
  bool power(const BIGNUM* base, const BIGNUM* exponent, std::span<uint8_t> out) const {
    const BigNumContext scratch(BN_CTX_new());
    const BigNum result(BN_new());
    return scratch && result &&
           BN_mod_exp_mont_consttime(result.get(), base, exponent, prime_.get(), scratch.get(),
                                     montgomery_.get()) == 1 &&
           BN_bn2binpad(result.get(), out.data(), static_cast<int>(out.size())) > 0;
  }

  bool safePrime_;
  BigNum prime_;
  BigNum generator_;
  BigNum primeMinusOne_;
  MontgomeryContext montgomery_;
};

}  // namespace

std::unique_ptr<DhGroup> makeModpGroup(DhGroupNum number) {
  if (number == 24) {
    return std::make_unique<ModpGroup>();
  }
  for (const ModpRow& row : safePrimeGroups) {
    if (row.number == number) {
      return std::make_unique<ModpGroup>(row);
    }
  }
  return nullptr;
}

}  // namespace tessel
