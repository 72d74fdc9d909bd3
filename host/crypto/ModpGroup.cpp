// The MODP groups: exponentiation modulo a prime.
#include <array>
#include <memory>
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

struct ModpParameters {
  bool safePrime;
  BigNum prime{};
  BigNum primeMinusOne{};
  BigNum generator{};
  MontgomeryContext montgomery{};
};

class ModpComputation final : public DhComputation {
 public:
  /// `order` is that of the generator's subgroup.
  ModpComputation(const ModpParameters& group, const BIGNUM* order)
      : group_(group), order_(order), scratch_(BN_CTX_new()), peer_(BN_new()), result_(BN_new()) {}

  bool isComplete() const { return scratch_ && peer_ && result_; }

  bool publicKey(Bytes* out) override {
    Bytes key(primeLen());
    if (!power(group_.generator.get(), key)) {
      return false;
    }
    *out = std::move(key);
    return true;
  }

  bool setPeerKey(BytesView key) override {
    // With a safe prime the only small subgroups are {1} and {1, p - 1} (RFC 6989 section 2.1).
    return key.size() == primeLen() &&
           BN_bin2bn(key.data(), static_cast<int>(key.size()), peer_.get()) != nullptr &&
           BN_cmp(peer_.get(), BN_value_one()) > 0 &&
           BN_cmp(peer_.get(), group_.primeMinusOne.get()) < 0 &&
           (group_.safePrime || isInSubgroup());
  }

  bool sharedSecret(SecretBytes* out) override {
    SecretBytes secret(primeLen());
    if (!power(peer_.get(), secret.span())) {
      return false;
    }
    *out = std::move(secret);
    return true;
  }

 private:
  size_t primeLen() const { return static_cast<size_t>(BN_num_bytes(group_.prime.get())); }

  bool isInSubgroup() {
    return BN_mod_exp_mont(result_.get(), peer_.get(), order_, group_.prime.get(), scratch_.get(),
                           group_.montgomery.get()) == 1 &&
           BN_is_one(result_.get());
  }

  /// base ^ private key mod p in a time that does not depend on the key, padded to `out`.
  bool power(const BIGNUM* base, std::span<uint8_t> out) {
    return BN_mod_exp_mont_consttime(result_.get(), base, privateNumber(), group_.prime.get(),
                                     scratch_.get(), group_.montgomery.get()) == 1 &&
           BN_bn2binpad(result_.get(), out.data(), static_cast<int>(out.size())) > 0;
  }

  const ModpParameters& group_;
  const BIGNUM* order_;
  BigNumContext scratch_;
  BigNum peer_;
  BigNum result_;
};

class ModpGroup final : public DhGroup {
 public:
  /// A group whose prime is p = 2q + 1; the generator 2 has order q.
  explicit ModpGroup(const ModpRow& row)
      : parameters_{
            .safePrime = true, .prime = BigNum(row.prime(nullptr)), .generator = numberOfHex("2")} {
    BigNum order(BN_new());
    if (parameters_.prime && order && BN_rshift1(order.get(), parameters_.prime.get()) == 1) {
      finish(std::move(order), row.privateKeyBits);
    }
  }

  /// Group 24, whose subgroup is much smaller than (p - 1) / 2.
  ModpGroup()
      : parameters_{.safePrime = false,
                    .prime = numberOfHex(group24Prime),
                    .generator = numberOfHex(group24Generator)} {
    BigNum order = numberOfHex(group24Order);
    if (parameters_.prime && order) {
      const int bits = BN_num_bits(order.get());
      finish(std::move(order), bits);
    }
  }

  std::unique_ptr<DhComputation> computation() const override {
    auto made = std::make_unique<ModpComputation>(parameters_, order());
    return made->isComplete() ? std::move(made) : nullptr;
  }

 private:
  void finish(BigNum order, int privateKeyBits) {
    const BIGNUM* const prime = parameters_.prime.get();
    const BigNumContext scratch(BN_CTX_new());
    parameters_.primeMinusOne.reset(BN_dup(prime));
    parameters_.montgomery.reset(BN_MONT_CTX_new());
    if (parameters_.generator && scratch && parameters_.primeMinusOne && parameters_.montgomery &&
        BN_sub_word(parameters_.primeMinusOne.get(), 1) == 1 &&
        BN_MONT_CTX_set(parameters_.montgomery.get(), prime, scratch.get()) == 1) {
      const auto primeLen = static_cast<size_t>(BN_num_bytes(prime));
      sizesAre(primeLen, primeLen, privateKeyBits, std::move(order));
    }
  }

  ModpParameters parameters_;
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
