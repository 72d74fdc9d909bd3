// Secrets in memory: nothing of them is left where memory is given back, and they have no way into
// text.
#include <concepts>
#include <ostream>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "host/crypto/HmacPRFunc.h"
#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/PRFuncPlus.h"
#include "host/facility/Trace.h"
#include "host/model/KeyGenerations.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "sm/LocalKey.h"
#include "tests/entity/Allocations.h"

namespace tessel::lab {
namespace {

// What holds secrets is refused by everything that makes text, also by way of something that it
// would turn into.
template <class T>
concept Printable = requires(std::ostream& out, const T& value) {
  out << value;
}
|| requires(const T& value) {
  stringValue(value);
}
|| requires(const T& value) {
  value.stringValue();
}
|| Traceable<T> || fmt::is_formattable<T>::value || std::constructible_from<nlohmann::json, T> ||
    std::ranges::range<T> || std::convertible_to<T, std::string_view> ||
    std::convertible_to<T, BytesView>;

static_assert(!Printable<SecretBytes> && !Printable<SharedSecret> && !Printable<LocalKeyInfo>);
static_assert(!Printable<Ike::CryptoInfo> && !Printable<Ike::CryptoInfoPair>);
static_assert(!Printable<Ike::SecurityAssociation> && !Printable<IpsecDHGeneral>);
static_assert(!Printable<HmacPRFunc> && !Printable<PRFuncPlus>);
// The measure can tell: each of these is printable in one way.
static_assert(Printable<int> && Printable<IpGenAddr> && Printable<DhKeyPair> && Printable<Bytes>);

void add(std::set<Bytes>& secrets, const SecretBytes& secret) {
  secrets.emplace(secret.view().begin(), secret.view().end());
}

void collect(std::set<Bytes>& secrets, const Ike::CryptoInfo& info) {
  for (const SecretBytes* key : {&info.firstEncryptionKey, &info.secondEncryptionKey,
                                 &info.firstIntegrityKey, &info.secondIntegrityKey}) {
    add(secrets, *key);
  }
}

/// Private keys, shared secrets and the seed keys that come from them, derived keys and those of
/// the SAs.
void collect(std::set<Bytes>& secrets, const Router& router) {
  if (!router.up()) {
    return;
  }
  for (const auto& [count, generation] : router.machine().localKey().localKeyInfo()) {
    add(secrets, generation->privateKey);
    for (const auto& [peer, shared] : generation->sharedSecret()) {
      add(secrets, shared.secret);
      HmacPRFunc prf;
      SecretBytes seedKey;
      ASSERT_TRUE(prf.initHmacPRFunc(HashAlgorithm::sha512) && prf.setKey(shared.fullNonce) &&
                  prf.generatePRStream(shared.secret, &seedKey));
      add(secrets, seedKey);
    }
  }
  for (const auto& [peer, state] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
      collect(secrets, crypto->cryptoInfo());
    }
    for (const auto& [key, path] : state->pathConnState()) {
      for (const auto& [pair, crypto] : path->saCryptoInfo()) {
        collect(secrets, crypto->cryptoInfo());
      }
    }
  }
  for (const auto& [key, sa] : router.entities().tesselV1->sa()) {
    add(secrets, sa->cryptoKey());
    add(secrets, sa->authKey());
  }
}

/// A run with rekeys of both kinds, a restart, a removal and an end. What it knows of secrets while
/// it runs goes to `secrets`, if given.
void play(IpsecDhGroup group, IpsecEspAlgorithm encryption, std::set<Bytes>* secrets) {
  Scenario scenario = meshScenario({.seed = 21});
  for (RouterPlan& router : scenario.routers) {
    router.settings.group = group;
    router.settings.profile.sa.encryption = encryption;
  }
  scenario.timeline = {
      {.at = seconds(100), .action = ForceSaRekey{.path = "east-west-1", .router = "east"}},
      {.at = seconds(250), .action = ForceDhRekey{.router = "west"}},
      {.at = seconds(480), .action = RestartRouter{.router = "east", .downFor = seconds(3)}}};
  Lab lab(scenario);
  for (int step = 0; step < 520 * 4; ++step) {
    lab.run(seconds(0.25));
    for (const auto& router : lab.routers()) {
      if (secrets != nullptr) {
        collect(*secrets, *router);
      }
    }
  }
}

TEST(SecretMemory, IsWipedBeforeItIsGivenBack) {
  // DH groups that libcrypto treats differently, a cipher with integrity of its own and some with
  // keys for it.
  for (const auto& [group, encryption] :
       {std::pair(IpsecDhGroup::ecp256, IpsecEspAlgorithm::aes256Gcm128),
        std::pair(IpsecDhGroup::ecp521, IpsecEspAlgorithm::aes128Cbc),
        std::pair(IpsecDhGroup::ecp384, IpsecEspAlgorithm::aes192Cbc),
        std::pair(IpsecDhGroup::modp2048, IpsecEspAlgorithm::aes256Cbc)}) {
    SCOPED_TRACE(stringValue(group) + stringValue(encryption));
    std::set<Bytes> secrets;
    play(group, encryption, &secrets);
    ASSERT_GT(secrets.size(), 20U);

    const test::FreedMemoryWatch watch(secrets);
    play(group, encryption, nullptr);
    EXPECT_EQ(test::FreedMemoryWatch::unwiped(), 0U);
    EXPECT_GT(test::FreedMemoryWatch::looked(), 10'000U);
    // It would have been seen.
    const auto longest = std::ranges::max_element(secrets, {}, &Bytes::size);
    Bytes(*longest).clear();
    EXPECT_EQ(test::FreedMemoryWatch::unwiped(), 1U);
  }
}

}  // namespace
}  // namespace tessel::lab
