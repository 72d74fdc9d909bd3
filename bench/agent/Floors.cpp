#include "bench/agent/Floors.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <openssl/core_names.h>
#include <openssl/obj_mac.h>

#include "host/crypto/IpsecDHGeneral.h"

namespace tessel::bench {

namespace {

libcrypto::BigNum numberOf(BytesView bytes) {
  return libcrypto::BigNum(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

int curveOf(DhGroupNum group) {
  return group == 19 ? NID_X9_62_prime256v1 : group == 20 ? NID_secp384r1 : NID_secp521r1;
}

libcrypto::MacContext makeMacContext() {
  std::string digest = "SHA2-512";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), 0),
      OSSL_PARAM_construct_end()};
  EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  libcrypto::MacContext context(EVP_MAC_CTX_new(mac));
  EVP_MAC_free(mac);
  check(EVP_MAC_CTX_set_params(context.get(), params) == 1);
  return context;
}

}  // namespace

void check(bool succeeded) {
  if (!succeeded) {
    std::fputs("a step of the benchmark failed\n", stderr);
    std::abort();
  }
}

SharedSecretFloor::SharedSecretFloor(DhGroupNum group)
    : scratch_(BN_CTX_new()), x_(BN_new()), result_(BN_new()) {
  IpsecDHGeneral own(group);
  IpsecDHGeneral peer(group);
  SecretBytes privateKey;
  check(own.initIpsecDH() && peer.initIpsecDH() && own.getMyPrivateKey(&privateKey) &&
        peer.getMyPublicKey(&peerKey_) && own.setPeerPublicKey(peerKey_) &&
        own.getSharedSecret(&expected_));
  privateKey_ = numberOf(privateKey.view());
  BN_set_flags(privateKey_.get(), BN_FLG_CONSTTIME);
  secret_ = SecretBytes(expected_.size());
  if (group >= 19) {
    curve_.reset(EC_GROUP_new_by_curve_name(curveOf(group)));
    peerPoint_.reset(EC_POINT_new(curve_.get()));
    product_.reset(EC_POINT_new(curve_.get()));
    peerKey_.insert(peerKey_.begin(), POINT_CONVERSION_UNCOMPRESSED);
  } else {
    prime_.reset(group == 14 ? BN_get_rfc3526_prime_2048(nullptr)
                             : BN_get_rfc3526_prime_4096(nullptr));
    primeMinusOne_.reset(BN_dup(prime_.get()));
    montgomery_.reset(BN_MONT_CTX_new());
    check(BN_sub_word(primeMinusOne_.get(), 1) == 1 &&
          BN_MONT_CTX_set(montgomery_.get(), prime_.get(), scratch_.get()) == 1);
  }
}

void SharedSecretFloor::compute() {
  if (curve_) {
    computeOnCurve();
  } else {
    computeModPrime();
  }
  check(BN_bn2binpad(result_.get(), secret_.data(), static_cast<int>(secret_.size())) > 0);
}

void SharedSecretFloor::computeOnCurve() {
  // Reading the point checks that it lies on the curve.
  check(EC_POINT_oct2point(curve_.get(), peerPoint_.get(), peerKey_.data(), peerKey_.size(),
                           scratch_.get()) == 1 &&
        EC_POINT_mul(curve_.get(), product_.get(), nullptr, peerPoint_.get(), privateKey_.get(),
                     scratch_.get()) == 1 &&
        EC_POINT_get_affine_coordinates(curve_.get(), product_.get(), result_.get(), nullptr,
                                        scratch_.get()) == 1);
}

void SharedSecretFloor::computeModPrime() {
  check(BN_bin2bn(peerKey_.data(), static_cast<int>(peerKey_.size()), x_.get()) != nullptr &&
        BN_cmp(x_.get(), BN_value_one()) > 0 && BN_cmp(x_.get(), primeMinusOne_.get()) < 0 &&
        BN_mod_exp_mont_consttime(result_.get(), x_.get(), privateKey_.get(), prime_.get(),
                                  scratch_.get(), montgomery_.get()) == 1);
}

PrfFloor::PrfFloor(bool contextKept) : contextKept_(contextKept), context_(makeMacContext()) {}

void PrfFloor::start(BytesView key, bool sameKey) {
  if (!contextKept_) {
    context_ = makeMacContext();
  }
  const BytesView given = contextKept_ && sameKey ? BytesView() : key;
  check(EVP_MAC_init(context_.get(), given.data(), given.size(), nullptr) == 1);
}

void PrfFloor::compute() {
  EVP_MAC_CTX* context = nullptr;
  size_t length = 0;
  start(fullNonce_, false);
  context = context_.get();
  EVP_MAC_update(context, secret_.data(), secret_.size());
  check(EVP_MAC_final(context, seedKey_.data(), &length, seedKey_.size()) == 1);
  constexpr auto blocks = static_cast<uint8_t>((kStreamLen + 63) / 64);
  for (uint8_t number = 1; number <= blocks; ++number) {
    start(seedKey_, number > 1);
    context = context_.get();
    if (number > 1) {
      EVP_MAC_update(context, block_.data(), block_.size());
    }
    EVP_MAC_update(context, fullNonce_.data(), fullNonce_.size());
    EVP_MAC_update(context, &number, 1);
    check(EVP_MAC_final(context, block_.data(), &length, block_.size()) == 1);
  }
}

LookupFloor::LookupFloor(uint32_t count) {
  const auto keyOf = [](uint32_t number) {
    return SecurityAssociationKey{.spi = number * 2654435761U,
                                  .daddr = IpGenAddr::fromV4(0x0A000000 + number),
                                  .proto = 50,
                                  .reqid = number,
                                  .family = 2};
  };
  for (uint32_t i = 0; i < count; ++i) {
    map_.emplace(keyOf(i), std::make_shared<uint64_t>(i));
    keys_.push_back(keyOf(static_cast<uint32_t>(uint64_t{i} * 7919 % count)));
  }
}

void LookupFloor::lookUpAll() {
  uintptr_t sum = 0;
  for (const SecurityAssociationKey& key : keys_) {
    sum += reinterpret_cast<uintptr_t>(map_.find(key)->second.get());
  }
  asm volatile("" : : "g"(sum) : "memory");  // So that nothing of it is left out.
}

}  // namespace tessel::bench
