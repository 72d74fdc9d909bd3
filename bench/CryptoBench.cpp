// The primitives beside their floors, measured in the same run.
//   floor: the arithmetic alone, with every context and parameter made beforehand
//   naive: libcrypto's key objects built and freed each time, with its own check of the peer's key
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include "bench/agent/Floors.h"
#include "host/crypto/HmacPRFunc.h"
#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/NonceGenerator.h"
#include "host/crypto/PRFuncPlus.h"
#include "host/crypto/RandomSource.h"

namespace tessel {
namespace {

using bench::check;
using libcrypto::Release;
using Key = std::unique_ptr<EVP_PKEY, Release<&EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<&EVP_PKEY_CTX_free>>;
using Builder = std::unique_ptr<OSSL_PARAM_BLD, Release<&OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Release<&OSSL_PARAM_free>>;

bool isEcp(DhGroupNum group) {
  return group >= 19 && group <= 21;
}

const char* nameOf(DhGroupNum group) {
  switch (group) {
    case 14:
      return "modp_2048";
    case 16:
      return "modp_4096";
    case 19:
      return "P-256";
    case 20:
      return "P-384";
    default:
      return "P-521";
  }
}

libcrypto::BigNum numberOf(BytesView bytes) {
  return libcrypto::BigNum(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

struct Exchange {
  explicit Exchange(DhGroupNum number) : group(number), own(number) {
    IpsecDHGeneral peer(group);
    check(own.initIpsecDH() && own.getMyPublicKey(&publicKey) && own.getMyPrivateKey(&privateKey));
    check(peer.initIpsecDH() && peer.getMyPublicKey(&peerKey));
    check(own.setPeerPublicKey(peerKey) && own.getSharedSecret(&secret));
  }

  DhGroupNum group;
  IpsecDHGeneral own;
  SecretBytes privateKey;
  Bytes publicKey;
  Bytes peerKey;
  SecretBytes secret;
};

/// libcrypto's key object; without a private key when `privateKey` is empty.
Key keyOf(DhGroupNum group, const Bytes& publicKey, const SecretBytes& privateKey) {
  const Builder builder(OSSL_PARAM_BLD_new());
  const libcrypto::BigNum privateNumber = numberOf(privateKey.view());
  const libcrypto::BigNum publicNumber = numberOf(publicKey);
  Bytes point = {4};
  point.insert(point.end(), publicKey.begin(), publicKey.end());
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, nameOf(group), 0);
  if (isEcp(group)) {
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                     point.size());
  } else {
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, publicNumber.get());
  }
  if (!privateKey.empty()) {
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, privateNumber.get());
  }
  const Params params(OSSL_PARAM_BLD_to_param(builder.get()));
  const KeyContext context(
      EVP_PKEY_CTX_new_from_name(nullptr, isEcp(group) ? "EC" : "DH", nullptr));
  EVP_PKEY* key = nullptr;
  check(EVP_PKEY_fromdata_init(context.get()) == 1 &&
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, params.get()) == 1);
  return Key(key);
}

SecretBytes derived(EVP_PKEY_CTX* context) {
  size_t length = 0;
  check(EVP_PKEY_derive(context, nullptr, &length) == 1);
  SecretBytes secret(length);
  check(EVP_PKEY_derive(context, secret.data(), &length) == 1);
  return secret;
}

void sharedSecret(benchmark::State& state) {
  Exchange exchange(static_cast<DhGroupNum>(state.range(0)));
  SecretBytes secret;
  for (auto _ : state) {
    check(exchange.own.setPeerPublicKey(exchange.peerKey) && exchange.own.getSharedSecret(&secret));
  }
  check(secret == exchange.secret);
}

void sharedSecretFloor(benchmark::State& state) {
  bench::SharedSecretFloor floor(static_cast<DhGroupNum>(state.range(0)));
  for (auto _ : state) {
    floor.compute();
  }
  check(floor.secret() == floor.expected());
}

void sharedSecretNaive(benchmark::State& state) {
  const Exchange exchange(static_cast<DhGroupNum>(state.range(0)));
  SecretBytes secret;
  for (auto _ : state) {
    const Key own = keyOf(exchange.group, exchange.publicKey, exchange.privateKey);
    const Key peer = keyOf(exchange.group, exchange.peerKey, {});
    const KeyContext context(EVP_PKEY_CTX_new(own.get(), nullptr));
    check(EVP_PKEY_derive_init(context.get()) == 1);
    if (!isEcp(exchange.group)) {  // IKEv2 keeps the leading zeros, which costs a parameter here.
      unsigned int pad = 1;
      const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_EXCHANGE_PARAM_PAD, &pad),
                                   OSSL_PARAM_construct_end()};
      check(EVP_PKEY_CTX_set_params(context.get(), params) == 1);
    }
    check(EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1);
    secret = derived(context.get());
  }
  check(secret == exchange.secret);
}

BENCHMARK(sharedSecretFloor)->Arg(14)->Arg(16)->Arg(19)->Arg(20)->Arg(21);
BENCHMARK(sharedSecret)->Arg(14)->Arg(16)->Arg(19)->Arg(20)->Arg(21);
BENCHMARK(sharedSecretNaive)->Arg(14)->Arg(16)->Arg(19)->Arg(20)->Arg(21);

void keyPair(benchmark::State& state) {
  IpsecDHGeneral dh(static_cast<DhGroupNum>(state.range(0)));
  Bytes key;
  for (auto _ : state) {
    check(dh.initIpsecDH() && dh.getMyPublicKey(&key));
  }
}
BENCHMARK(keyPair)->Arg(14)->Arg(16)->Arg(19)->Arg(20)->Arg(21);

void seedKeyAndStream(benchmark::State& state) {
  const SecretBytes fullNonce(Bytes(64, 1));
  const SecretBytes secret(Bytes(32, 2));
  SecretBytes seedKey;
  SecretBytes stream;
  HmacPRFunc prf;
  check(prf.initHmacPRFunc(HashAlgorithm::sha512));
  for (auto _ : state) {
    if (state.range(0) == 0) {
      check(prf.initHmacPRFunc(HashAlgorithm::sha512));
    }
    check(prf.setKey(fullNonce) && prf.generatePRStream(secret, &seedKey) && prf.setKey(seedKey));
    PRFuncPlus plus(prf, true);
    check(plus.initPRFuncPlus(fullNonce) &&
          plus.generatePRStream(bench::PrfFloor::kStreamLen, &stream));
  }
}
BENCHMARK(seedKeyAndStream)->ArgName("contextKept")->Arg(1)->Arg(0);

/// The same with libcrypto's calls alone.
void seedKeyAndStreamFloor(benchmark::State& state) {
  bench::PrfFloor floor(state.range(0) != 0);
  for (auto _ : state) {
    floor.compute();
  }
}
BENCHMARK(seedKeyAndStreamFloor)->ArgName("contextKept")->Arg(1)->Arg(0);

void nonce(benchmark::State& state) {
  const NonceGenerator generator;
  Bytes bytes;
  for (auto _ : state) {
    check(generator.generateNonce(&bytes));
  }
}
BENCHMARK(nonce);

}  // namespace
}  // namespace tessel
