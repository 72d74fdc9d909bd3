// Key derivation: what the keys are to the byte, and what is left when they cannot be derived.
#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "tests/crypto/Vectors.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

using namespace tessel::test;  // NOLINT: all that reads the vectors.

class KeyDerivationTest : public MachineTest {
 protected:
  static constexpr DhKeyPair kPair{11, 22};

  KeyDerivationTest() { start(); }

  /// The local generation and the peer's of `kPair`, with a peer state that nothing was derived
  /// for.
  void generationsAre(DhGroupNum group, const Bytes& privateKey, const Bytes& publicKey,
                      const Bytes& localNonce, const Bytes& peerKey, const Bytes& peerNonce) {
    host->ipsecStatus->ipsecPeerConnectionStateDel(kPeer);
    peer_ = host->ipsecStatus->ipsecPeerConnectionStateIs(kPeer);
    sm->localKey().localKeyInfoDel(kPair.localRekeyCount);
    local_ = sm->localKey().localKeyInfoIs(kPair.localRekeyCount);
    local_->dhGroup = group;
    local_->privateKey = SecretBytes(privateKey);
    local_->publicKey = publicKey;
    local_->nonce = localNonce;
    host->ipsecLocalKeyDir->nonceIs(localNonce);
    remote_ = sm->peerKeys().localPeerKeyInfoListIs(kPeer)->peerKeyInfoIs(kPair.peerRekeyCount);
    remote_->dhKey = peerKey;
    remote_->nonce = peerNonce;
  }
  void generationsAreUsual() {
    const FakePeer local = makePeer(1);
    generationsAre(19, plain(local.privateKey), local.record.dhKey, Bytes(32, 1),
                   makePeer(2).record.dhKey, Bytes(32, 2));
    peer_->encryptAlgoIs(IpsecEspAlgorithm::aes256Cbc);
  }
  bool derive() { return sm->keyDerivation().doGenerateCryptoKeys(kPeer, {}, kPair, false); }
  const Ike::CryptoInfo& derived() const { return peer_->dhCryptoInfo(kPair)->cryptoInfo(); }

  const IpGenAddr kPeer = address("192.0.2.2");
  Ptr<Ike::PeerConnectionState> peer_;
  Ptr<LocalKeyInfo> local_;
  Ptr<TesselPeerKeyInfo> remote_;
};

void expectRecord(const Ike::CryptoInfo& info, const nlohmann::json& record) {
  EXPECT_EQ(plain(info.firstEncryptionKey), bytesAt(record, "firstEncryptionKey"));
  EXPECT_EQ(plain(info.secondEncryptionKey), bytesAt(record, "secondEncryptionKey"));
  EXPECT_EQ(plain(info.firstIntegrityKey), bytesAt(record, "firstIntegrityKey"));
  EXPECT_EQ(plain(info.secondIntegrityKey), bytesAt(record, "secondIntegrityKey"));
  EXPECT_EQ(info.cryptoKeyLen, record["cryptoKeyLen"]);
  EXPECT_EQ(info.cryptoAlgo, record["cryptoAlgoStr"]);
  EXPECT_EQ(info.authKeyLen, record["authKeyLen"]);
  EXPECT_EQ(info.authTruncLen, record["authTruncLen"]);
  EXPECT_EQ(info.authAlgo, record["authAlgoStr"]);
  EXPECT_EQ(info.icvLen, record["icvLen"]);
  EXPECT_EQ(info.firstSpi, record["firstSpi"]);
  EXPECT_EQ(info.secondSpi, record["secondSpi"]);
}

TEST_F(KeyDerivationTest, MatchesTheReferenceToTheByteInEveryGroupAndRole) {
  std::map<std::string, nlohmann::json> agreements;
  for (const nlohmann::json& agreement : reference()["agreements"]) {
    agreements[agreement["name"]] = agreement;
  }
  const ConnectionKey key = pathKey(1);
  ASSERT_GE(reference()["cases"].size(), 150U);
  for (const nlohmann::json& row : reference()["cases"]) {
    const nlohmann::json& agreement = agreements.at(row["agreement"]);
    for (const auto& [side, other] : {std::pair("east", "west"), std::pair("west", "east")}) {
      SCOPED_TRACE(row["agreement"].dump() + row["encryptAlgo"].dump() + row["hashAlgo"].dump() +
                   row["sas"].dump() + side);
      const bool ofPath = row["sas"] == "path";
      const Bytes localNonce = bytesAt(row, std::string(side) + "Nonce");
      const Bytes peerNonce = bytesAt(row, std::string(other) + "Nonce");
      generationsAre(agreement["group"], bytesAt(agreement[side], "privateKey"),
                     bytesAt(agreement[side], "publicKey"), localNonce,
                     bytesAt(agreement[other], "publicKey"), peerNonce);
      peer_->encryptAlgoIs(static_cast<IpsecEspAlgorithm>(row["encryptAlgo"]));
      peer_->hashAlgoIs(static_cast<IpsecHmacAlgorithm>(row["hashAlgo"]));
      if (!ofPath) {
        // The role comes from the nonces.
        ASSERT_TRUE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, false));
        EXPECT_EQ(peer_->initiator(), row["initiator"] == side);
        expectRecord(derived(), row[side]);
      } else {
        // The generations' nonces have no part in a path's keys.
        local_->nonce = remote_->nonce = Bytes(32, 0x77);
        peer_->initiatorIs(row["initiator"] == side);
        const auto pathState = peer_->pathConnStateIs(key);
        pathState->saLocalNonceIs({0, localNonce});
        pathState->saPeerNonceIs({0, peerNonce});
        sm->paths().rekeySmIs(sm.get(), key, host->recordEvents)->pathConnStateIs(pathState);
        ASSERT_TRUE(sm->keyDerivation().doGenerateCryptoKeys(kPeer, key, kPair, true));
        expectRecord(pathState->saCryptoInfo(kPair)->cryptoInfo(), row[side]);
        EXPECT_FALSE(peer_->dhCryptoInfoHas(kPair));
        sm->paths().rekeySmDel(key);
      }
    }
  }
}

TEST_F(KeyDerivationTest, TheLargerNonceInitiates) {
  const struct {
    Bytes local, peer;
    bool initiator;
  } rows[] = {{{2, 0}, {1, 9}, true},    {{1, 1}, {1, 2}, false},    {{0x80}, {0x7F}, true},
              {{1, 2, 0}, {1, 2}, true}, {{1, 2}, {1, 2, 0}, false}, {{1, 2, 9}, {1, 3}, false},
              {{1, 2}, {1, 2}, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.local) + ::testing::PrintToString(row.peer));
    generationsAreUsual();
    host->ipsecLocalKeyDir->nonceIs(row.local);
    remote_->nonce = row.peer;
    ASSERT_TRUE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, false));
    EXPECT_EQ(peer_->initiator(), row.initiator);
    // A DH rekey keeps the role, whatever the nonces are now.
    host->ipsecLocalKeyDir->nonceIs(row.peer);
    remote_->nonce = row.local;
    ASSERT_TRUE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, true));
    EXPECT_EQ(peer_->initiator(), row.initiator);
  }
}

TEST_F(KeyDerivationTest, ASharedSecretIsThatOfTheTwoKeysInUse) {
  generationsAreUsual();
  ASSERT_TRUE(derive());
  const Ike::CryptoInfo first = derived();
  const Bytes firstKey = remote_->dhKey;
  // Another key of the peer under the same counter.
  remote_->dhKey = makePeer(3).record.dhKey;
  ASSERT_TRUE(derive());
  EXPECT_NE(derived().firstEncryptionKey, first.firstEncryptionKey);
  // One that cannot be, also as the first one of a generation; the last is the own one.
  Bytes offTheCurve = firstKey;
  offTheCurve[63] ^= 1;
  for (const Bytes& bad : {Bytes(), offTheCurve, Bytes(63, 1), local_->publicKey}) {
    for (const bool isFirst : {false, true}) {
      if (isFirst) {
        local_->dh = nullptr;
        local_->sharedSecretDel(kPeer);
      }
      peer_->dhCryptoInfoDel(kPair);
      remote_->dhKey = bad;
      EXPECT_FALSE(derive());
      EXPECT_FALSE(peer_->dhCryptoInfoHas(kPair));
      remote_->dhKey = firstKey;
      ASSERT_TRUE(derive());
      EXPECT_EQ(derived(), first);
    }
  }
  // Forced SPIs replace the derived ones, by role.
  sm->testKnobForceSpiInitiatorValueIs(0x11);
  sm->testKnobForceSpiResponderValueIs(0x22);
  for (const bool initiator : {false, true}) {
    peer_->initiatorIs(initiator);
    ASSERT_TRUE(derive());
    EXPECT_EQ(derived().firstSpi, initiator ? 0x11U : 0x22U);
    EXPECT_EQ(derived().secondSpi, initiator ? 0x22U : 0x11U);
  }
}

TEST_F(KeyDerivationTest, NothingIsDerivedWithoutWhatItComesFrom) {
  const struct {
    const char* trace;
    std::function<void()> disturb;
  } rows[] = {
      {"Failed to retrieve local nonce", [&] { local_->nonce.clear(); }},
      {"Failed to retrieve peer nonce", [&] { remote_->nonce.clear(); }},
      {"initIpsecDH failed to initialize ipsecLocalDH", [&] { local_->dhGroup = 18; }},
      {"Failed to set private key to ipsecLocalDh", [&] { local_->privateKey = SecretBytes(5); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    generationsAreUsual();
    row.disturb();
    TraceCapture traces;
    EXPECT_FALSE(derive());
    EXPECT_TRUE(traces.has(row.trace));
    EXPECT_TRUE(peer_->dhCryptoInfo().empty());
  }
  host->ipsecLocalKeyDir->validIs(false);
  EXPECT_FALSE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, false));
  EXPECT_TRUE(peer_->dhCryptoInfo().empty());
  // Nor for an SA rekey, whose nonces are the path's.
  const ConnectionKey key = pathKey(1);
  const auto path = peer_->pathConnStateIs(key);
  for (const bool hasRekeySm : {false, true}) {
    if (hasRekeySm) {
      sm->paths().rekeySmIs(sm.get(), key, host->recordEvents)->pathConnStateIs(path);
    }
    EXPECT_FALSE(sm->keyDerivation().doGenerateCryptoKeys(kPeer, key, kPair, true));
    EXPECT_TRUE(path->saCryptoInfo().empty());
  }
}

TEST_F(KeyDerivationTest, OnlyTheGenerationInTheDirectoryIsValidated) {
  generationsAreUsual();
  FakePeer published = makePeer(2);
  published.record.rekeyCounter = kPair.peerRekeyCount;
  published.record.dhGroup = 14;
  publish(published);
  EXPECT_FALSE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, true));
  EXPECT_EQ(peer_->peerDownReason(), PeerDownReason::dhGroupMismatch);
  published.record.rekeyCounter = kPair.peerRekeyCount + 1;
  publish(published);
  EXPECT_TRUE(sm->keyDerivation().doGeneratePeerCryptoInfo(kPeer, kPair, true));
}

TEST_F(KeyDerivationTest, TheLatestPairHasTheLargestSumAlone) {
  constexpr uint64_t max = UINT64_MAX;
  const struct {
    std::vector<DhKeyPair> pairs;
    std::optional<DhKeyPair> latest;
  } rows[] = {{{}, DhKeyPair{0, 0}},
              {{{1, 2}, {2, 1}}, std::nullopt},
              {{{1, 2}, {2, 1}, {2, 2}}, DhKeyPair{2, 2}},
              {{{0, 3}, {4, 0}, {2, 2}}, std::nullopt},
              {{{max, 1}, {0, 1}}, DhKeyPair{max, 1}},
              {{{max, max}, {max, max - 1}}, DhKeyPair{max, max}},
              {{{max, 1}, {1, max}, {0, max}}, std::nullopt}};
  for (const auto& row : rows) {
    generationsAreUsual();
    for (const DhKeyPair& pair : row.pairs) {
      peer_->dhCryptoInfoIs(pair);
    }
    EXPECT_EQ(sm->keyDerivation().getLatestDhKeyPair(kPeer), row.latest);
  }
  host->ipsecPeerKeyDir->ipsecPeerKeyInfoIs(kPeer, {});
  EXPECT_EQ(sm->keyDerivation().getCurrentBgpDhKeyPair(kPeer), (DhKeyPair{0, max}));
}

}  // namespace
}  // namespace tessel::Ipsec
